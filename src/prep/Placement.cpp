#include "prep/Placement.hpp"

#include "prep/PrepError.hpp"
#include "project/Console.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

// Decimal bounds such as 141.4 and 142.2 with a spacing of 0.0025 are 320 cells apart
// only up to rounding: a count within this share of a cell of a whole number is that number.
constexpr double kWholeCellTolerance = 1e-9;
// A binary grid stores its spacing as a float, so a base spacing of 0.0025 comes back as
// 0.00249999994: a ratio within this share of a whole number is that number.
constexpr double kWholeRatioTolerance = 1e-6;

// Whole cells of `size` between `from` and `to`, rounded up unless within `tolerance`.
[[nodiscard]] double CellsBetween(double from, double to, double size,
                                  double tolerance = kWholeCellTolerance) {
    const double cells = (to - from) / size;
    const double nearest = std::round(cells);
    return std::fabs(cells - nearest) <= tolerance * std::max(1.0, nearest)
               ? nearest
               : std::ceil(cells);
}

[[nodiscard]] std::int32_t CheckedCount(double cells, const char* axis) {
    // A grid file counts points in 32 bits and the calculators need more than one point.
    if (!(cells >= 1))
        throw PrepError(StringPrintf("the bounds hold no whole cell along %s", axis));
    if (cells > std::numeric_limits<std::int32_t>::max())
        throw PrepError(StringPrintf("the bounds hold %.0f cells along %s, more than a grid "
                                     "file can count (2147483647)",
                                     cells, axis));
    return static_cast<std::int32_t>(cells);
}

void CheckBounds(const Bounds& b, double spacing) {
    for (double v : b)
        if (!std::isfinite(v))
            throw PrepError("the bounds must be four finite numbers: xmin ymin xmax ymax");
    if (!(b[2] > b[0]) || !(b[3] > b[1]))
        throw PrepError(StringPrintf("the bounds %g %g %g %g are empty or reversed: give "
                                     "xmin ymin xmax ymax",
                                     b[0], b[1], b[2], b[3]));
    if (!(spacing > 0) || !std::isfinite(spacing))
        throw PrepError(StringPrintf("the grid spacing must be a positive number, not %g", spacing));
}

} // namespace

Bounds CellEdges(const GridGeometry& g) {
    return {g.orgX - 0.5 * g.spacing, g.orgY - 0.5 * g.spacing,
            g.orgX + (g.nx - 0.5) * g.spacing, g.orgY + (g.ny - 0.5) * g.spacing};
}

GridGeometry CoverBounds(const Bounds& b, double spacing) {
    CheckBounds(b, spacing);
    GridGeometry g;
    g.spacing = spacing;
    g.nx = CheckedCount(CellsBetween(b[0], b[2], spacing), "x");
    g.ny = CheckedCount(CellsBetween(b[1], b[3], spacing), "y");
    g.orgX = b[0] + 0.5 * spacing;
    g.orgY = b[1] + 0.5 * spacing;
    return g;
}

BasePlacement PlaceOnBase(const Bounds& b, double spacing, const GridGeometry& base) {
    CheckBounds(b, spacing);
    const double ratio = base.spacing / spacing;
    const double wholeRatio = std::round(ratio);
    if (!(wholeRatio >= 1) || std::fabs(ratio - wholeRatio) > kWholeRatioTolerance * wholeRatio ||
        wholeRatio > std::numeric_limits<std::int32_t>::max())
        throw PrepError(StringPrintf("the base region's spacing %.10g is not a whole multiple of "
                                     "this region's spacing %.10g (ratio %.6g): a nested region "
                                     "must split every base cell into whole cells",
                                     base.spacing, spacing, ratio));
    // Base cell edges lie at edge0 + k × base spacing.
    const double edgeX0 = base.orgX - 0.5 * base.spacing;
    const double edgeY0 = base.orgY - 0.5 * base.spacing;
    auto firstCell = [&](double from, double edge0) {
        const double cells = (from - edge0) / base.spacing;
        const double nearest = std::round(cells);
        return std::fabs(cells - nearest) <= kWholeRatioTolerance * std::max(1.0, std::fabs(nearest))
                   ? nearest
                   : std::floor(cells);
    };
    const double i0 = firstCell(b[0], edgeX0);
    const double j0 = firstCell(b[1], edgeY0);
    // Base edges are counted with the looser tolerance: the base spacing may be a float's.
    const double i1 =
        i0 + CellsBetween(edgeX0 + i0 * base.spacing, b[2], base.spacing, kWholeRatioTolerance);
    const double j1 =
        j0 + CellsBetween(edgeY0 + j0 * base.spacing, b[3], base.spacing, kWholeRatioTolerance);

    BasePlacement placed;
    placed.ratio = static_cast<std::int32_t>(wholeRatio);
    placed.grid.spacing = spacing;
    placed.grid.nx = CheckedCount((i1 - i0) * wholeRatio, "x");
    placed.grid.ny = CheckedCount((j1 - j0) * wholeRatio, "y");
    // The origin is counted from the base's own origin so that a shared edge is the same
    // number in both grids wherever the arithmetic allows.
    placed.grid.orgX = edgeX0 + i0 * base.spacing + 0.5 * spacing;
    placed.grid.orgY = edgeY0 + j0 * base.spacing + 0.5 * spacing;
    placed.firstBaseI = static_cast<std::int32_t>(
        std::clamp(i0, double{std::numeric_limits<std::int32_t>::min()},
                   double{std::numeric_limits<std::int32_t>::max()}));
    placed.firstBaseJ = static_cast<std::int32_t>(
        std::clamp(j0, double{std::numeric_limits<std::int32_t>::min()},
                   double{std::numeric_limits<std::int32_t>::max()}));
    return placed;
}
