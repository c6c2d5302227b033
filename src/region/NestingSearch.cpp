#include "region/NestingSearch.hpp"

#include "projection/MapProjection.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <iterator>
#include <utility>
#include <vector>

namespace {

constexpr std::int64_t kColumnBlock = 2048;      // box columns the fast search takes at once
constexpr std::int64_t kRowSlice = 32768;        // box rows per pass of the full search
constexpr std::int64_t kGroupPoints = 1 << 16;   // points the full search converts at once
constexpr std::int64_t kConvertChunk = 1 << 20;  // points per call of the service
constexpr double kMaxMeridianOffset = 45.0;      // degrees
constexpr double kMaxLatitude = 85.0;            // degrees
constexpr double kMinSpacing = 1e-6;             // degrees, about a decimetre
constexpr double kProbeLatitude = 36.0;          // degrees
constexpr double kProbeSymmetryTolerance = 1e-3; // metres
constexpr std::int64_t kLikelyMargin = 4;        // columns beyond a corner's boxes tried first

// Central meridians of the plane systems the projection service sets up: the plane
// rectangular systems EPSG 2443-2461, then UTM zones 51-55 (EPSG 3097-3101); any other
// code gets zone 54. A probe (SymmetricAbout) confirms the value before it is relied on,
// so a service that learns other systems costs speed, never correctness.
constexpr double kPlaneRectangularMeridians[] = {
    129.5, 131.0, 132.1666666666667, 133.5, 134.3333333333333, 136.0, 137.1666666666667,
    138.5, 139.8333333333333, 140.8333333333333, 140.25, 142.25, 144.25, 142.0, 127.5,
    124.0, 131.0, 136.0, 154.0};
constexpr std::int32_t kFirstPlaneRectangularEpsg = 2443;
constexpr std::int32_t kFirstUtmEpsg = 3097;
constexpr int kFirstUtmZone = 51;
constexpr int kUtmZoneCount = 5;
constexpr int kDefaultUtmZone = 54;

[[nodiscard]] double CentralMeridian(std::int32_t planeEpsg) {
    const auto planeCount = static_cast<std::int32_t>(std::size(kPlaneRectangularMeridians));
    if (planeEpsg >= kFirstPlaneRectangularEpsg &&
        planeEpsg < kFirstPlaneRectangularEpsg + planeCount)
        return kPlaneRectangularMeridians[planeEpsg - kFirstPlaneRectangularEpsg];
    int zone = kDefaultUtmZone;
    if (planeEpsg >= kFirstUtmEpsg && planeEpsg < kFirstUtmEpsg + kUtmZoneCount)
        zone = kFirstUtmZone + (planeEpsg - kFirstUtmEpsg);
    return 6.0 * zone - 183.0;
}

[[nodiscard]] bool AllFound(const CornersFound& found) {
    return std::all_of(found.begin(), found.end(), [](bool f) { return f; });
}

[[nodiscard]] bool InBox(const PlanePoint& corner, double west, double east, double south,
                         double north) {
    return west < corner.x && corner.x < east && south < corner.y && corner.y < north;
}

// Longitudes and latitudes of base points. Both searches compute them with these same
// expressions, so the service hands both the same values and converts them alike.
class BasePoints {
  public:
    explicit BasePoints(const NestingBase& base) : base_(base) {}

    [[nodiscard]] double Lon(std::int64_t ix) const {
        return base_.orgX + static_cast<double>(ix) * base_.gridSize;
    }
    [[nodiscard]] double Lat(std::int64_t iy) const {
        return base_.orgY + static_cast<double>(iy) * base_.gridSize;
    }

    // Longitudes into x and latitudes into y of the points at flat indices
    // [first, first + count); an index before the first point takes the first point.
    void FillRange(std::int64_t first, std::int64_t count, double* x, double* y) const {
        std::int64_t i = 0;
        for (; i < count && first + i < 0; ++i) {
            x[i] = Lon(0);
            y[i] = Lat(0);
        }
        std::int64_t ix = (first + i) / base_.ny;
        std::int64_t iy = (first + i) % base_.ny;
        for (; i < count; ++i) {
            x[i] = Lon(ix);
            y[i] = Lat(iy);
            if (++iy == base_.ny) {
                iy = 0;
                ++ix;
            }
        }
    }

    [[nodiscard]] double LonOf(std::int64_t k) const { return Lon(k / base_.ny); }
    [[nodiscard]] double LatOf(std::int64_t k) const { return Lat(k % base_.ny); }

    // The service counts in 32 bits; each point converts alike in any call.
    static bool ConvertInPlace(std::int64_t count, double* x, double* y) {
        bool all = true;
        for (std::int64_t done = 0; done < count; done += kConvertChunk) {
            const auto n = static_cast<std::int32_t>(std::min(kConvertChunk, count - done));
            all &= ll2xy_(&n, x + done, y + done, x + done, y + done) == 0;
        }
        return all;
    }

  private:
    NestingBase base_;
};

// Base points picked by flat index and converted together; each is read back through
// the slot Add gave it. A point picked twice is converted twice, which costs less than
// finding it again.
class PointBatch {
  public:
    explicit PointBatch(const BasePoints& points) : points_(points) {}

    void Clear() {
        x_.clear();
        y_.clear();
    }
    [[nodiscard]] bool Empty() const { return x_.empty(); }
    std::size_t Add(std::int64_t k) {
        x_.push_back(points_.LonOf(k));
        y_.push_back(points_.LatOf(k));
        return x_.size() - 1;
    }

    // False when a point failed or came back not finite.
    [[nodiscard]] bool Convert() {
        if (!BasePoints::ConvertInPlace(static_cast<std::int64_t>(x_.size()), x_.data(),
                                        y_.data()))
            return false;
        for (std::size_t i = 0; i < x_.size(); ++i)
            if (!std::isfinite(x_[i]) || !std::isfinite(y_[i]))
                return false;
        return true;
    }

    [[nodiscard]] double X(std::size_t slot) const { return x_[slot]; }
    [[nodiscard]] double Y(std::size_t slot) const { return y_[slot]; }

  private:
    const BasePoints& points_;
    std::vector<double> x_;
    std::vector<double> y_;
};

// A transverse Mercator northing is even in the longitude offset from the central
// meridian, so one pair of points straddling `meridian` confirms where the service's
// plane system is centred, to far better than the margins of the domain below.
[[nodiscard]] bool SymmetricAbout(double meridian) {
    double x[2] = {meridian - 1.0, meridian + 1.0};
    double y[2] = {kProbeLatitude, kProbeLatitude};
    const std::int32_t n = 2;
    if (ll2xy_(&n, x, y, x, y) != 0)
        return false;
    return x[0] < x[1] && std::fabs(y[0] - y[1]) <= kProbeSymmetryTolerance;
}

// Where the northing is known to grow with latitude down every base column the boxes
// read (all but the last). On the ellipsoid it does for any offset under 90 degrees;
// PROJ's computed values were checked strictly increasing out to 85 degrees of offset
// and 89 of latitude, and at steps down to 1e-11 degrees, so the bounds leave wide
// margins.
[[nodiscard]] bool InMonotoneDomain(const NestingBase& base, const BasePoints& points,
                                    std::int32_t planeEpsg) {
    if (!(base.gridSize >= kMinSpacing) || !std::isfinite(base.gridSize))
        return false;
    const double south = points.Lat(0);
    const double north = points.Lat(base.ny - 1);
    if (!(south >= -kMaxLatitude && north <= kMaxLatitude))
        return false;
    const double meridian = CentralMeridian(planeEpsg);
    for (std::int64_t ix = 0; ix <= std::int64_t{base.nx} - 2; ++ix) {
        double lon = points.Lon(ix);
        if (lon >= 180.0) // as the service takes it
            lon -= 360.0;
        if (!(std::fabs(lon - meridian) <= kMaxMeridianOffset))
            return false;
    }
    return SymmetricAbout(meridian);
}

// Box columns [first, last) around each corner's longitude, merged and ascending; none for
// a corner the service cannot carry back. A box ix spans base columns ix to ix + 4, so a
// corner at longitude column p lies in boxes p - 4 to p; a few more each side absorb the
// rounding and the curvature of the base columns in the plane.
[[nodiscard]] std::vector<std::pair<std::int64_t, std::int64_t>>
LikelyColumns(const NestingBase& base, const NestingCorners& corners) {
    std::vector<std::pair<std::int64_t, std::int64_t>> ranges;
    const std::int64_t boxColumns = std::int64_t{base.nx} - 5;
    for (const PlanePoint& corner : corners) {
        double lon = 0.0;
        double lat = 0.0;
        const std::int32_t one = 1;
        if (xy2ll_(&one, &lon, &lat, &corner.x, &corner.y) != 0)
            continue;
        // The service answers within -180..180; base grids may run on past 180.
        for (const double shift : {0.0, 360.0}) {
            const double column = std::floor((lon + shift - base.orgX) / base.gridSize);
            const auto margin = static_cast<double>(kLikelyMargin);
            if (!(column >= -margin && column < static_cast<double>(boxColumns) + margin))
                continue;
            const auto p = static_cast<std::int64_t>(column);
            const std::int64_t first = std::max<std::int64_t>(0, p - 4 - kLikelyMargin);
            const std::int64_t last = std::min(boxColumns, p + 1 + kLikelyMargin);
            if (first < last)
                ranges.emplace_back(first, last);
        }
    }
    std::sort(ranges.begin(), ranges.end());
    std::vector<std::pair<std::int64_t, std::int64_t>> merged;
    for (const auto& range : ranges) {
        if (!merged.empty() && range.first <= merged.back().second)
            merged.back().second = std::max(merged.back().second, range.second);
        else
            merged.push_back(range);
    }
    return merged;
}

} // namespace

CornersFound FindNestingCorners(const NestingBase& base, const NestingCorners& corners,
                                std::int32_t planeEpsg) {
    if (const std::optional<CornersFound> fast = FindNestingCornersFast(base, corners, planeEpsg))
        return *fast;
    return FindNestingCornersFull(base, corners);
}

CornersFound FindNestingCornersFull(const NestingBase& base, const NestingCorners& corners) {
    CornersFound found{};
    const std::int64_t nx = base.nx;
    const std::int64_t ny = base.ny;
    if (nx < 6 || ny < 3)
        return found; // no box
    const BasePoints points(base);

    // Box (ix, iy) reads columns ix and ix+4 at row iy, and column ix+2 at flat distance 2
    // either side. For a slice of box rows [r0, r1), each column's run of flat indices
    // [col × ny + r0 - 2, col × ny + r1 + 2) holds all of that; the columns are converted
    // a group at a time, many per call, keeping the last four for the boxes that
    // straddle two groups.
    std::vector<double> x;
    std::vector<double> y;
    for (std::int64_t r0 = 1; r0 <= ny - 2 && !AllFound(found); r0 += kRowSlice) {
        const std::int64_t r1 = std::min(r0 + kRowSlice, ny - 1);
        const std::int64_t run = r1 - r0 + 4;
        const std::int64_t group = std::clamp<std::int64_t>(kGroupPoints / run, 1, nx - 1);
        x.resize(static_cast<std::size_t>((group + 4) * run));
        y.resize(x.size());
        std::int64_t held = 0;      // columns in x, y
        std::int64_t firstHeld = 0; // the column at x[0]
        for (std::int64_t next = 0; next <= nx - 2 && !AllFound(found);) {
            if (held > 4) {
                const std::int64_t drop = held - 4;
                std::copy(x.begin() + drop * run, x.begin() + held * run, x.begin());
                std::copy(y.begin() + drop * run, y.begin() + held * run, y.begin());
                firstHeld += drop;
                held = 4;
            }
            const std::int64_t count = std::min(group, nx - 1 - next);
            for (std::int64_t c = 0; c < count; ++c)
                points.FillRange((next + c) * ny + r0 - 2, run, &x[(held + c) * run],
                                 &y[(held + c) * run]);
            // Points the service fails on stay HUGE_VAL and are compared as such.
            (void)BasePoints::ConvertInPlace(count * run, &x[held * run], &y[held * run]);
            held += count;
            // Element of column col's run holding row iy.
            const auto at = [&](std::int64_t col, std::int64_t iy) {
                return static_cast<std::size_t>((col - firstHeld) * run + iy - (r0 - 2));
            };
            for (std::int64_t ix = std::max<std::int64_t>(next - 4, 0); ix + 4 < next + count;
                 ++ix) {
                for (std::int64_t iy = r0; iy < r1; ++iy) {
                    const double westX = x[at(ix, iy)];
                    const double eastX = x[at(ix + 4, iy)];
                    const double southY = y[at(ix + 2, iy - 2)];
                    const double northY = y[at(ix + 2, iy + 2)];
                    for (std::size_t c = 0; c < corners.size(); ++c)
                        found[c] = found[c] || InBox(corners[c], westX, eastX, southY, northY);
                }
            }
            next += count;
        }
    }
    return found;
}

std::optional<CornersFound> FindNestingCornersFast(const NestingBase& base,
                                                   const NestingCorners& corners,
                                                   std::int32_t planeEpsg) {
    CornersFound found{};
    const std::int64_t nx = base.nx;
    const std::int64_t ny = base.ny;
    if (nx < 6 || ny < 3)
        return found; // no box
    const BasePoints points(base);
    if (!InMonotoneDomain(base, points, planeEpsg))
        return std::nullopt;

    // With Y non-decreasing down column ix+2, the rows whose northing is below cy are
    // [0, below). An inner box row iy (2 .. ny-3) reads rows iy-2 and iy+2 of that
    // column, so its northing test can hold only when iy-2 < below <= iy+2: four rows.
    // Rows 1 and ny-2 read across columns and are always tested. Every corner is tested
    // on every row picked for the column: extra boxes cannot change the answer, as each is
    // tested exactly as the full search tests it.
    struct Search {
        std::int64_t column;
        double northing;
        std::int64_t lo; // ends as `below`
        std::int64_t hi;
        std::size_t slot; // of the row read in this step
    };
    std::vector<double> northings; // of the corners still missing, each once
    std::vector<Search> searches;
    std::vector<std::size_t> boxes; // slot of each box's four points
    std::vector<std::int64_t> rows;
    PointBatch batch(points);
    // Tests the boxes of columns [ix0, ix1) for the corners still missing; false when a
    // point could not be converted.
    const auto searchColumns = [&](std::int64_t ix0, std::int64_t ix1) {
        northings.clear();
        for (std::size_t c = 0; c < corners.size(); ++c)
            if (!found[c] && std::find(northings.begin(), northings.end(), corners[c].y) ==
                                 northings.end())
                northings.push_back(corners[c].y);
        searches.clear();
        for (std::int64_t ix = ix0; ix < ix1; ++ix)
            for (const double northing : northings)
                searches.push_back({ix + 2, northing, 0, ny, 0});

        // All binary searches of the block in step, one batch of points per step.
        for (;;) {
            batch.Clear();
            for (Search& s : searches)
                if (s.lo < s.hi)
                    s.slot = batch.Add(s.column * ny + s.lo + (s.hi - s.lo) / 2);
            if (batch.Empty())
                break;
            if (!batch.Convert())
                return false;
            for (Search& s : searches) {
                if (s.lo >= s.hi)
                    continue;
                const std::int64_t mid = s.lo + (s.hi - s.lo) / 2;
                if (batch.Y(s.slot) < s.northing)
                    s.lo = mid + 1;
                else
                    s.hi = mid;
            }
        }

        boxes.clear();
        batch.Clear();
        for (std::int64_t ix = ix0; ix < ix1; ++ix) {
            rows.assign({1, ny - 2});
            for (std::size_t n = 0; n < northings.size(); ++n) {
                const std::int64_t below =
                    searches[static_cast<std::size_t>(ix - ix0) * northings.size() + n].lo;
                for (std::int64_t iy = std::max<std::int64_t>(2, below - 2);
                     iy <= std::min(ny - 3, below + 1); ++iy)
                    rows.push_back(iy);
            }
            std::sort(rows.begin(), rows.end());
            rows.erase(std::unique(rows.begin(), rows.end()), rows.end());
            for (const std::int64_t iy : rows) {
                const std::int64_t k = (ix + 2) * ny + iy;
                boxes.push_back(batch.Add(ix * ny + iy));
                batch.Add((ix + 4) * ny + iy);
                batch.Add(k - 2);
                batch.Add(k + 2);
            }
        }
        if (!batch.Convert())
            return false;
        for (const std::size_t slot : boxes)
            for (std::size_t c = 0; c < corners.size(); ++c)
                found[c] = found[c] || InBox(corners[c], batch.X(slot), batch.X(slot + 1),
                                             batch.Y(slot + 2), batch.Y(slot + 3));
        return true;
    };

    // A nested region usually passes, and then every corner lies in a box a few columns
    // wide: the columns around each corner's longitude go first, so the search can stop
    // there instead of sweeping the whole base grid. Only the order changes: a corner
    // missing afterwards is looked for everywhere, and looking at a column twice cannot
    // change what is found.
    for (const auto& [ix0, ix1] : LikelyColumns(base, corners))
        if (!AllFound(found) && !searchColumns(ix0, ix1))
            return std::nullopt;
    for (std::int64_t ix0 = 0; ix0 <= nx - 6 && !AllFound(found); ix0 += kColumnBlock)
        if (!searchColumns(ix0, std::min(ix0 + kColumnBlock, nx - 5)))
            return std::nullopt;
    return found;
}
