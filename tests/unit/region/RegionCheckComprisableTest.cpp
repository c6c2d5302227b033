#include "region/Region.hpp"

#include "projection/MapProjection.hpp"
#include "region/RegionTestSupport.hpp"

#include <climits>
#include <cmath>
#include <limits>

namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();
const std::string kHead = "ERROR:REGION OBJECT METHOD";
const std::string kAction = "Abnormal action at Check Comprisable Method.";

Region Nested(int epsg, double orgX, double orgY, double gridSize, int nx, int ny) {
    Region r;
    r.epsg = epsg;
    r.Set2dStruct(nx, ny, orgX, orgY);
    r.gridSize = gridSize;
    return r;
}

struct Base {
    int epsg;
    double orgX, orgY, gridSize;
    int nx, ny;
};

std::string Check(Region& r, const Base& b) {
    return Outcome(
        [&] { return r.CheckComprisable(b.epsg, b.orgX, b.orgY, b.gridSize, b.nx, b.ny); });
}

std::string NotComprisable(const char* axis, const std::string& label, const char* baseValue,
                           const char* ownValue) {
    return ErrorBlock(kHead, {kAction, std::string("Comprisable ") + axis + ":NG",
                              "Base " + label + ":" + baseValue, "     " + label + ":" + ownValue});
}

std::string NotFoundAcross(int epsg) {
    return ErrorBlock(kHead,
                      {kAction, "Comprisable :NG", "Setting Region EPSG:" + std::to_string(epsg)});
}

TEST(RegionCheckComprisable, SameSystemReportsTheFirstCellEdgeCrossed) {
    const Base base{2451, 1000.0, 2000.0, 10.0, 100, 50}; // X 995 .. 1995, Y 1995 .. 2495
    const struct {
        double orgX, orgY;
        int nx, ny;
        std::string err;
    } cases[] = {
        {996, 1996, 500, 250, ""}, // every edge shared
        {995.99, 1996, 10, 10, NotComprisable("dimX", "Min.X", "995", "994.99")},
        {1000, 1990, 10, 10, NotComprisable("dimY", "Min.Y", "1995", "1989")},
        {1900, 2000, 50, 10, NotComprisable("dimX", "Max.X", "1995", "1999")},
        {1000, 2400, 10, 50, NotComprisable("dimY", "Max.Y", "2495", "2499")},
        {900, 2000, 1000, 10, NotComprisable("dimX", "Min.X", "995", "899")}, // west first
        {1000, 1900, 1000, 1000, NotComprisable("dimY", "Min.Y", "1995", "1899")},
        {1000, 2000, 1000, 1000, NotComprisable("dimX", "Max.X", "1995", "2999")},
    };
    for (const auto& c : cases) {
        Region r = Nested(2451, c.orgX, c.orgY, 2.0, c.nx, c.ny);
        EXPECT_EQ(Check(r, base), c.err.empty() ? "1|Comprisable:OK\n|" : "0||" + c.err) << c.orgX;
    }
    Region west = Nested(3100, 499994.9, 3900000.0, 1.0, 10, 10); // six significant digits
    EXPECT_EQ(Check(west, {3100, 500000.0, 3900000.0, 10.0, 100, 100}),
              "0||" + NotComprisable("dimX", "Min.X", "499995", "499994"));
}

// Across systems: a base grid of 100 × 100 points, 139.00 .. 139.99 E and 35.00 .. 35.99 N,
// and nested grids of 10 m cells from the plane point of (west, south) to within a cell of
// that of (east, north).
const Base kGeographic{4612, 139.0, 35.0, 0.01, 100, 100};

Region NestedBetween(int geo, int plane, double west, double south, double east, double north) {
    testing::internal::CaptureStdout();
    (void)mapproject_initialize_using_epsg_(geo, plane);
    (void)testing::internal::GetCapturedStdout();
    const std::int32_t two = 2;
    double lon[2] = {west, east}, lat[2] = {south, north}, x[2], y[2];
    EXPECT_EQ(ll2xy_(&two, lon, lat, x, y), 0);
    mapproject_finalize_();
    return Nested(plane, x[0] + 5.0, y[0] + 5.0, 10.0, static_cast<int>((x[1] - x[0]) / 10.0),
                  static_cast<int>((y[1] - y[0]) / 10.0));
}

TEST(RegionCheckComprisable, AcrossSystemsEveryCornerMustBeFound) {
    Region inside = NestedBetween(4612, 2451, 139.40, 35.40, 139.45, 35.45);
    EXPECT_EQ(Check(inside, kGeographic), "1|Comprisable:OK\n|");
    Region straddling = NestedBetween(4612, 2451, 139.95, 35.40, 140.05, 35.45);
    EXPECT_EQ(Check(straddling, kGeographic), "0||" + NotFoundAcross(2451));
    // Unknown codes say what they fall back to.
    Region wgs84 = NestedBetween(4326, 2451, 139.40, 35.40, 139.45, 35.45);
    EXPECT_EQ(Check(wgs84, {0, 139.0, 35.0, 0.01, 100, 100}),
              "1|default EPSG:4612\nComprisable:OK\n|");
    Region zone54 = NestedBetween(4612, 3100, 141.0, 37.0, 141.05, 37.05);
    zone54.epsg = 9999;
    EXPECT_EQ(Check(zone54, kGeographic), "0|default EPSG:3100\n|" + NotFoundAcross(9999));
}

// Kept: the boxes start at most six columns from the east edge and their rows reach the
// outermost points but never past them: corners must lie strictly between the first and the
// second-to-last column of points and between the first and last row, although a corner in
// the cells beyond is inside the base region. Five columns never hold.
TEST(RegionCheckComprisable, AcrossSystemsCornersNearTheBaseEdges) {
    const struct {
        double west, south, east, north;
        int nx;
        bool found;
    } cases[] = {
        {139.003, 35.40, 139.05, 35.45, 100, true},  // 0.3 cell east of the first column
        {138.997, 35.40, 139.05, 35.45, 100, false}, // 0.3 cell west of it
        {139.90, 35.40, 139.977, 35.45, 100, true},  // short of the second-to-last column
        {139.90, 35.40, 139.983, 35.45, 100, false}, // past it
        {139.40, 35.003, 139.45, 35.05, 100, true},  // north of the first row
        {139.40, 34.997, 139.45, 35.05, 100, false}, // south of it
        {139.40, 35.90, 139.45, 35.987, 100, true},  // south of the last row
        {139.40, 35.90, 139.45, 35.993, 100, false}, // north of it
        {139.015, 35.40, 139.02, 35.405, 6, true},   {139.015, 35.40, 139.02, 35.405, 5, false},
    };
    for (const auto& c : cases) {
        Region r = NestedBetween(4612, 2451, c.west, c.south, c.east, c.north);
        EXPECT_EQ(Check(r, {4612, 139.0, 35.0, 0.01, c.nx, 100}),
                  c.found ? "1|Comprisable:OK\n|" : "0||" + NotFoundAcross(2451))
            << c.west << " " << c.south << " " << c.north;
    }
}

TEST(RegionCheckComprisable, AcrossSystemsBadGeometryIsNotComprisable) {
    const Base bad[] = {{4612, kNaN, 35.0, 0.01, 100, 100},
                        {4612, 139.0, 35.0, 0.0, 100, 100},
                        {4612, 139.0, 35.0, 0.01, INT_MAX, INT_MAX}};
    Region r = NestedBetween(4612, 2451, 139.40, 35.40, 139.45, 35.45);
    for (const Base& b : bad)
        EXPECT_EQ(Check(r, b), "0||" + NotFoundAcross(2451)) << b.orgX << " " << b.gridSize;
}

std::string Connect(Region& r, const Base& b) {
    return Outcome([&] { return r.SearchConnectPos(b.orgX, b.orgY, b.gridSize, b.nx, b.ny); });
}

TEST(RegionSearchConnectPos, FirstBasePointBeyondTheOriginOneBased) {
    const std::string block = ErrorBlock(
        kHead, {"Abnormal action at Search Connecting Point Method.", "Can not find Connect Point.",
                "Particular attention should be given to \"Connect Point of Topography File\"."});
    const Base base{0, 100.0, 200.0, 10.0, 5, 4}; // x 100 .. 140, y 200 .. 230
    // Before the first point, on a point (the next one is beyond), before the last, none
    // beyond along x (j not searched), none beyond along y.
    const std::tuple<double, double, std::string> rows[] = {
        {95.0, 195.0, "1|ConnectI:1\nConnectJ:1\n|"},
        {120.0, 210.0, "1|ConnectI:4\nConnectJ:3\n|"},
        {139.9, 229.9, "1|ConnectI:5\nConnectJ:4\n|"},
        {140.0, 200.0, "0|ConnectI:0\n|" + block},
        {95.0, 230.0, "0|ConnectI:1\nConnectJ:0\n|" + block}};
    for (const auto& [orgX, orgY, outcome] : rows) {
        Region r = Nested(0, orgX, orgY, 1.0, 1, 1);
        r.connectJ = 7;
        EXPECT_EQ(Connect(r, base), outcome);
        EXPECT_EQ(r.connectJ == 7, orgX == 140.0) << orgX;
    }
}

// Kept: ten additions of 0.1 make 0.9999999999999999, so that point is not beyond itself and
// the eleventh is the first (10 × 0.1 is 1.0, which would give 11). Steps that never move
// forward and an origin that is not a number end at once.
TEST(RegionSearchConnectPos, PositionsGrowByRepeatedAddition) {
    Region r = Nested(0, 0.9999999999999999, 0.05, 1.0, 1, 1);
    EXPECT_EQ(Connect(r, {0, 0.0, 0.0, 0.1, 20, 20}), "1|ConnectI:12\nConnectJ:2\n|");
    for (const auto& [step, org] : {std::pair{0.0, 2e300}, {kNaN, 2e300}, {10.0, kNaN}}) {
        Region far = Nested(0, org, 200.0, 1.0, 1, 1);
        EXPECT_EQ(Connect(far, {0, 100.0, 200.0, step, INT_MAX, 4}).substr(0, 14),
                  "0|ConnectI:0\n|")
            << step;
    }
}

} // namespace
