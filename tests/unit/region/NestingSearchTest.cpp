#include "region/NestingSearch.hpp"

#include "projection/MapProjection.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <limits>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace {

// The projection service set up for one test, quietly: unknown codes print their fallback.
class Service {
  public:
    Service(std::int32_t geo, std::int32_t plane) {
        testing::internal::CaptureStdout();
        (void)mapproject_initialize_using_epsg_(geo, plane);
        (void)testing::internal::GetCapturedStdout();
    }
    ~Service() { mapproject_finalize_(); }
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
};

// Every base point converted in one call, indexed flat as ix × ny + iy.
struct Converted {
    std::vector<double> x;
    std::vector<double> y;
};

Converted ConvertAll(const NestingBase& b) {
    const std::int32_t n = b.nx > 0 && b.ny > 0 ? b.nx * b.ny : 0;
    std::vector<double> lon(static_cast<std::size_t>(n)), lat(lon.size());
    for (int ix = 0; ix < b.nx; ++ix) {
        for (int iy = 0; iy < b.ny; ++iy) {
            lon[ix * b.ny + iy] = b.orgX + ix * b.gridSize;
            lat[ix * b.ny + iy] = b.orgY + iy * b.gridSize;
        }
    }
    Converted c{std::vector<double>(lon.size()), std::vector<double>(lon.size())};
    (void)ll2xy_(&n, lon.data(), lat.data(), c.x.data(), c.y.data());
    return c;
}

// The search as the check states it, kept plain: the reference for the two others.
CornersFound Transcribed(const NestingBase& b, const Converted& c,
                         const NestingCorners& corners) {
    CornersFound found{};
    if (b.nx < 6)
        return found;
    const std::vector<double>& X = c.x;
    const std::vector<double>& Y = c.y;
    const int ny = b.ny;
    for (int k = 0; k < 4; ++k) {
        const double cx = corners[k].x, cy = corners[k].y;
        for (int ix = 0; ix <= b.nx - 6; ++ix)
            for (int iy = 1; iy <= ny - 2; ++iy)
                if (X[ix * ny + iy] < cx && cx < X[(ix + 4) * ny + iy] &&
                    Y[(ix + 2) * ny + iy - 2] < cy && cy < Y[(ix + 2) * ny + iy + 2])
                    found[k] = true;
    }
    return found;
}

std::string Describe(std::int32_t geo, std::int32_t plane, const NestingBase& b,
                     const NestingCorners& corners) {
    std::string s = "geo " + std::to_string(geo) + " plane " + std::to_string(plane) +
                    " org " + std::to_string(b.orgX) + "," + std::to_string(b.orgY) +
                    " size " + std::to_string(b.gridSize) + " n " + std::to_string(b.nx) +
                    "x" + std::to_string(b.ny) + " corners";
    for (const PlanePoint& p : corners)
        s += " (" + std::to_string(p.x) + "," + std::to_string(p.y) + ")";
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
    const int ix = pick(b.nx), iy = pick(b.ny);
    const int k = ix * b.ny + iy;
    const int nextColumn = std::min(k + b.ny, b.nx * b.ny - 1);
    const int nextRow = std::min(k + 1, b.nx * b.ny - 1);
    const double style = unit(rng);
    if (style < 0.05)
        return {std::numeric_limits<double>::quiet_NaN(), c.y[k]};
    if (style < 0.15) // a tie on one or both coordinates
        return {c.x[k], unit(rng) < 0.5 ? c.y[k] : c.y[nextRow]};
    if (style < 0.3) // between the same row of neighbouring columns: where the edge rows look
        return {c.x[k] + unit(rng) * (c.x[nextColumn] - c.x[k]),
                c.y[k] + unit(rng) * (c.y[nextColumn] - c.y[k])};
    const double tx = 3.0 * unit(rng) - 1.0, ty = 3.0 * unit(rng) - 1.0;
    return {c.x[k] + tx * (c.x[nextColumn] - c.x[k]), c.y[k] + ty * (c.y[nextRow] - c.y[k])};
}

struct Layout {
    std::int32_t geo;
    std::int32_t plane;
    NestingBase base;
};

// Base grids over and around Japan in every system the service knows, a few far away
// or odd enough that the fast search must decline.
Layout PickLayout(std::mt19937& rng) {
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    const auto within = [&](double lo, double hi) { return lo + (hi - lo) * unit(rng); };
    Layout l{};
    l.geo = unit(rng) < 0.7 ? 4612 : 4326;
    const int system = static_cast<int>(unit(rng) * 25);
    l.plane = system < 19 ? 2443 + system : (system < 24 ? 3097 + system - 19 : 9999);
    const bool tiny = unit(rng) < 0.3;
    l.base.nx = tiny ? 6 + static_cast<int>(unit(rng) * 3) : 6 + static_cast<int>(unit(rng) * 30);
    l.base.ny = tiny ? 3 + static_cast<int>(unit(rng) * 6) : 3 + static_cast<int>(unit(rng) * 30);
    l.base.gridSize = std::pow(10.0, within(-4.0, -0.3));
    const double kind = unit(rng);
    if (kind < 0.7) {
        l.base.orgX = within(120.0, 156.0);
        l.base.orgY = within(18.0, 48.0);
    } else if (kind < 0.9) {
        l.base.orgX = within(60.0, 230.0); // far meridians, across 180
        l.base.orgY = within(-89.0, 89.0);
    } else {
        const double odd[] = {0.0, -0.01, 1e-9, std::numeric_limits<double>::quiet_NaN(), 40.0};
        l.base.gridSize = odd[static_cast<int>(unit(rng) * 5)];
        l.base.orgX = within(125.0, 150.0);
        l.base.orgY = within(20.0, 45.0);
    }
    return l;
}

TEST(NestingSearch, SameCornersAsThePlainSearchOnRandomLayouts) {
    std::mt19937 rng(20240611);
    int fastTaken = 0, fastDeclined = 0, found = 0, missed = 0;
    for (int layout = 0; layout < 240; ++layout) {
        const Layout l = PickLayout(rng);
        const Service service(l.geo, l.plane);
        const Converted all = ConvertAll(l.base);
        for (int set = 0; set < 6; ++set) {
            NestingCorners corners;
            for (PlanePoint& p : corners)
                p = PickCorner(rng, l.base, all);
            const CornersFound want = Transcribed(l.base, all, corners);
            const std::string what = Describe(l.geo, l.plane, l.base, corners);
            EXPECT_EQ(FindNestingCornersFull(l.base, corners), want) << what;
            EXPECT_EQ(FindNestingCorners(l.base, corners, l.plane), want) << what;
            if (const auto fast = FindNestingCornersFast(l.base, corners, l.plane)) {
                EXPECT_EQ(*fast, want) << what;
                ++fastTaken;
            } else {
                ++fastDeclined;
            }
            for (bool f : want)
                ++(f ? found : missed);
        }
    }
    // The comparison means something only if both searches and both answers occurred.
    EXPECT_GT(fastTaken, 700);
    EXPECT_GT(fastDeclined, 100);
    EXPECT_GT(found, 800);
    EXPECT_GT(missed, 800);
}

// Corners between base points near the given columns and rows, some beyond the searched
// ones: the answers of both searches against the plain one, and how many were found.
int CompareNear(const NestingBase& base, const std::vector<int>& columns,
                const std::vector<int>& rows, int sets) {
    const Service service(4612, 2451);
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
        for (bool f : want)
            found += f;
    }
    return found;
}

// The fast search takes box columns in blocks of 2048, the full one slices of 32768 rows
// and a few columns at a time; boxes across every kind of boundary must be searched, and
// a corner found in one part must stay found.
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

// Kept: at iy = 1 the box's lower northing is the last point of the previous column, so
// on a four-row grid east of the central meridian, where northings along a row grow
// eastwards, a corner just above the top row between two columns is found.
TEST(NestingSearch, FirstSearchedRowReadsThePreviousColumnsLastPoint) {
    const Service service(4612, 2451); // central meridian 139.83
    const NestingBase base{141.5, 36.0, 0.01, 10, 4};
    const Converted all = ConvertAll(base);
    const int ix = 3, ny = base.ny;
    const double below = all.y[(ix + 1) * ny + 3], above = all.y[(ix + 2) * ny + 3];
    ASSERT_LT(below, above);
    const PlanePoint corner{0.5 * (all.x[ix * ny + 1] + all.x[(ix + 4) * ny + 1]),
                            0.5 * (below + above)};
    const NestingCorners corners{corner, corner, corner, corner};
    const CornersFound everyOne{true, true, true, true};
    EXPECT_EQ(Transcribed(base, all, corners), everyOne);
    EXPECT_EQ(FindNestingCornersFull(base, corners), everyOne);
    EXPECT_EQ(FindNestingCornersFast(base, corners, 2451), std::optional(everyOne));
}

TEST(NestingSearch, FastSearchDeclinesWhereNorthingsMayNotGrowDownAColumn) {
    struct Case {
        const char* what;
        std::int32_t plane;
        NestingBase base;
        bool takes;
    };
    const Case cases[] = {
        {"near the meridian", 2451, {139.0, 35.0, 0.01, 50, 50}, true},
        {"46 degrees east of it", 2458, {170.0, 35.0, 0.01, 50, 50}, false},
        {"beyond 180: the service takes it 360 lower", 2451, {185.0, 35.0, 0.01, 50, 50}, false},
        {"reaching 85.5 degrees north", 2451, {139.0, 85.0, 0.01, 50, 51}, false},
        {"spacing under a millionth of a degree", 2451, {139.0, 35.0, 1e-7, 50, 50}, false},
        {"longitude not a number", 2451, {std::nan(""), 35.0, 0.01, 50, 50}, false},
    };
    for (const Case& c : cases) {
        const Service service(4612, c.plane);
        EXPECT_EQ(FindNestingCornersFast(c.base, {}, c.plane).has_value(), c.takes) << c.what;
    }
}

} // namespace
