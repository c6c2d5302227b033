#include "region/NestingSearch.hpp"

#include "projection/MapProjection.hpp"
#include "region/RegionTestSupport.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>
#include <random>
#include <vector>

namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();

// Sets the projection service up quietly: unknown codes print their fallback.
void SetUpService(std::int32_t geo, std::int32_t plane) {
    (void)Outcome([&] { return mapproject_initialize_using_epsg_(geo, plane) != nullptr; });
}

// Every base point converted in one call, indexed flat as ix × ny + iy.
struct Converted {
    std::vector<double> x, y;
};

Converted ConvertAll(const NestingBase& b) {
    const std::int32_t n = b.nx > 0 && b.ny > 0 ? b.nx * b.ny : 0;
    std::vector<double> lon(static_cast<std::size_t>(n)), lat(lon.size());
    for (int k = 0; k < n; ++k) {
        lon[k] = b.orgX + (k / b.ny) * b.gridSize;
        lat[k] = b.orgY + (k % b.ny) * b.gridSize;
    }
    Converted c{std::vector<double>(lon.size()), std::vector<double>(lon.size())};
    (void)ll2xy_(&n, lon.data(), lat.data(), c.x.data(), c.y.data());
    return c;
}

// The search as the check states it, kept plain: the reference for the two others.
CornersFound Transcribed(const NestingBase& b, const Converted& c,
                         const NestingCorners& corners) {
    CornersFound found{};
    const std::vector<double>&X = c.x, &Y = c.y;
    const int ny = b.ny;
    for (int k = 0; k < 4; ++k)
        for (int ix = 0; ix <= b.nx - 6; ++ix)
            for (int iy = 1; iy <= ny - 2; ++iy)
                if (X[ix * ny + iy] < corners[k].x && corners[k].x < X[(ix + 4) * ny + iy] &&
                    Y[(ix + 2) * ny + iy - 2] < corners[k].y &&
                    corners[k].y < Y[(ix + 2) * ny + iy + 2])
                    found[k] = true;
    return found;
}

std::string Describe(std::int32_t plane, const NestingBase& b, const NestingCorners& c) {
    std::string s = std::to_string(plane) + ":";
    for (double v : {b.orgX, b.orgY, b.gridSize, 1.0 * b.nx, 1.0 * b.ny, c[0].x, c[0].y, c[1].x,
                     c[1].y, c[2].x, c[2].y, c[3].x, c[3].y})
        s += " " + std::to_string(v);
    return s;
}

// A point between converted base points, with emphasis on the grid's edges and on the
// columns and rows the boxes wrap into. Sometimes exactly a converted value (ties must
// fail), sometimes outside the grid or not a number.
PlanePoint PickCorner(std::mt19937& rng, const NestingBase& b, const Converted& c) {
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    const auto pick = [&](int n) {
        if (unit(rng) < 0.5) {
            const int edge = static_cast<int>(unit(rng) * 8);
            return edge < 4 ? std::min(edge, n - 1) : std::max(n - 8 + edge, 0);
        }
        return std::min(static_cast<int>(unit(rng) * n), n - 1);
    };
    const int k = pick(b.nx) * b.ny + pick(b.ny);
    const int nextColumn = std::min(k + b.ny, b.nx * b.ny - 1);
    const int nextRow = std::min(k + 1, b.nx * b.ny - 1);
    const double style = unit(rng);
    if (style < 0.05)
        return {kNaN, c.y[k]};
    if (style < 0.15) // a tie on one or both coordinates
        return {c.x[k], unit(rng) < 0.5 ? c.y[k] : c.y[nextRow]};
    if (style < 0.3) // between the same row of neighbouring columns: where the edge rows look
        return {c.x[k] + unit(rng) * (c.x[nextColumn] - c.x[k]),
                c.y[k] + unit(rng) * (c.y[nextColumn] - c.y[k])};
    const double tx = 3.0 * unit(rng) - 1.0, ty = 3.0 * unit(rng) - 1.0;
    return {c.x[k] + tx * (c.x[nextColumn] - c.x[k]), c.y[k] + ty * (c.y[nextRow] - c.y[k])};
}

// Base grids over and around Japan in every system the service knows, some far away or
// odd enough that the fast search must decline.
TEST(NestingSearch, SameCornersAsThePlainSearchOnRandomLayouts) {
    std::mt19937 rng(20240611);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    const auto within = [&](double lo, double hi) { return lo + (hi - lo) * unit(rng); };
    int fastTaken = 0, fastDeclined = 0, found = 0, missed = 0;
    for (int layout = 0; layout < 240; ++layout) {
        const std::int32_t geo = unit(rng) < 0.7 ? 4612 : 4326;
        const int system = static_cast<int>(unit(rng) * 25);
        const std::int32_t plane =
            system < 19 ? 2443 + system : (system < 24 ? 3078 + system : 9999);
        NestingBase b{};
        const bool tiny = unit(rng) < 0.3;
        b.nx = 6 + static_cast<int>(unit(rng) * (tiny ? 3 : 30));
        b.ny = 3 + static_cast<int>(unit(rng) * (tiny ? 6 : 30));
        b.gridSize = std::pow(10.0, within(-4.0, -0.3));
        const double kind = unit(rng);
        if (kind < 0.7) {
            b.orgX = within(120.0, 156.0);
            b.orgY = within(18.0, 48.0);
        } else if (kind < 0.9) {
            b.orgX = within(60.0, 230.0); // far meridians, across 180
            b.orgY = within(-89.0, 89.0);
        } else {
            const double odd[] = {0.0, -0.01, 1e-9, kNaN, 40.0};
            b.gridSize = odd[static_cast<int>(unit(rng) * 5)];
            b.orgX = within(125.0, 150.0);
            b.orgY = within(20.0, 45.0);
        }
        SetUpService(geo, plane);
        const Converted all = ConvertAll(b);
        for (int set = 0; set < 6; ++set) {
            NestingCorners corners;
            for (PlanePoint& p : corners)
                p = PickCorner(rng, b, all);
            const CornersFound want = Transcribed(b, all, corners);
            const std::string what = Describe(plane, b, corners);
            EXPECT_EQ(FindNestingCornersFull(b, corners), want) << what;
            EXPECT_EQ(FindNestingCorners(b, corners, plane), want) << what;
            const auto fast = FindNestingCornersFast(b, corners, plane);
            EXPECT_EQ(fast.value_or(want), want) << what;
            ++(fast ? fastTaken : fastDeclined);
            for (bool f : want)
                ++(f ? found : missed);
        }
        mapproject_finalize_();
    }
    // The comparison means something only if both searches and both answers occurred.
    EXPECT_GT(fastTaken, 700);
    EXPECT_GT(fastDeclined, 100);
    EXPECT_GT(found, 800);
    EXPECT_GT(missed, 800);
}

// Corners between base points near the given columns and rows: the answers of both
// searches against the plain one, and how many were found.
int CompareNear(const NestingBase& base, const std::vector<int>& columns,
                const std::vector<int>& rows, int sets) {
    SetUpService(4612, 2451);
    const Converted all = ConvertAll(base);
    std::mt19937 rng(static_cast<unsigned>(base.nx));
    const auto any = [&](const std::vector<int>& v) { return v[rng() % v.size()]; };
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    int found = 0;
    for (int set = 0; set < sets; ++set) {
        NestingCorners corners;
        for (PlanePoint& p : corners) {
            const int k = any(columns) * base.ny + any(rows);
            p = {all.x[k] + unit(rng) * (all.x[k + base.ny] - all.x[k]),
                 all.y[k] + (2.0 * unit(rng) - 0.5) * (all.y[k + 1] - all.y[k])};
        }
        const CornersFound want = Transcribed(base, all, corners);
        EXPECT_EQ(FindNestingCornersFull(base, corners), want);
        EXPECT_EQ(FindNestingCornersFast(base, corners, 2451), std::optional(want));
        found += static_cast<int>(std::count(want.begin(), want.end(), true));
    }
    mapproject_finalize_();
    return found;
}

// The fast search takes box columns in blocks of 2048, the full one slices of 32768 rows;
// boxes across every boundary must be searched, and a corner found in one part stay found.
TEST(NestingSearch, SameCornersOnGridsLargerThanOnePartOfTheSearch) {
    const int wide = CompareNear({139.0, 35.0, 0.0004, 4200, 7},
                                 {3, 2046, 2047, 2048, 2049, 2050, 2052, 4195, 4197, 4198},
                                 {0, 1, 2, 3, 4, 5}, 16);
    EXPECT_GT(wide, 16);
    EXPECT_LT(wide, 64);
    const int tall = CompareNear({139.0, 35.0, 0.00001, 9, 70000}, {0, 1, 2, 3, 4, 5, 6, 7, 7},
                                 {32766, 32767, 32768, 32769, 65536, 65537, 69998}, 5);
    EXPECT_GT(tall, 5);
    EXPECT_LT(tall, 20);
}

} // namespace
