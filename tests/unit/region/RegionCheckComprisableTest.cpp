#include "region/Region.hpp"

#include "projection/MapProjection.hpp"
#include "region/RegionTestSupport.hpp"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <initializer_list>
#include <limits>
#include <string>

namespace {

Region Nested(int epsg, double orgX, double orgY, double gridSize, int nx, int ny) {
    Region r;
    r.epsg = epsg;
    r.Set2dStruct(nx, ny, orgX, orgY);
    r.gridSize = gridSize;
    return r;
}

struct Base {
    int epsg;
    double orgX;
    double orgY;
    double gridSize;
    int nx;
    int ny;
};

Printed Check(Region& r, const Base& b) {
    return Capture([&] {
        return r.CheckComprisable(b.epsg, b.orgX, b.orgY, b.gridSize, b.nx, b.ny) ? 1 : 0;
    });
}

std::string Block(std::initializer_list<std::string> details) {
    std::string text = kRule + "ERROR:REGION OBJECT METHOD\n";
    for (const std::string& line : details)
        text += line + "\n";
    return text + kRule;
}

std::string NotComprisable(const char* axis, const std::string& label, const char* baseValue,
                           const char* ownValue) {
    return Block({"  ERROR-DETAIL:Abnormal action at Check Comprisable Method.",
                  std::string("  ERROR-DETAIL:Comprisable ") + axis + ":NG",
                  "  ERROR-DETAIL:Base " + label + ":" + baseValue,
                  "  ERROR-DETAIL:     " + label + ":" + ownValue});
}

std::string NotFoundAcross(int epsg) {
    return Block({"  ERROR-DETAIL:Abnormal action at Check Comprisable Method.",
                  "  ERROR-DETAIL:Comprisable :NG",
                  "  ERROR-DETAIL:Setting Region EPSG:" + std::to_string(epsg)});
}

// Cell extents of this base: X 995 .. 1995, Y 1995 .. 2495.
const Base kPlaneBase{2451, 1000.0, 2000.0, 10.0, 100, 50};

TEST(RegionCheckComprisable, SameSystemReportsTheFirstEdgeCrossedInOrder) {
    struct Case {
        const char* what;
        double orgX, orgY;
        int nx, ny;
        std::string err;
    };
    const Case cases[] = {
        {"inside", 1000, 2000, 10, 10, ""},
        {"west", 990, 2000, 10, 10, NotComprisable("dimX", "Min.X", "995", "989")},
        {"south", 1000, 1990, 10, 10, NotComprisable("dimY", "Min.Y", "1995", "1989")},
        {"east", 1900, 2000, 50, 10, NotComprisable("dimX", "Max.X", "1995", "1999")},
        {"north", 1000, 2400, 10, 50, NotComprisable("dimY", "Max.Y", "2495", "2499")},
        {"west and east", 900, 2000, 1000, 10, NotComprisable("dimX", "Min.X", "995", "899")},
        {"south, east and north", 1000, 1900, 1000, 1000,
         NotComprisable("dimY", "Min.Y", "1995", "1899")},
        {"east and north", 1000, 2000, 1000, 1000, NotComprisable("dimX", "Max.X", "1995", "2999")},
    };
    for (const Case& c : cases) {
        Region r = Nested(2451, c.orgX, c.orgY, 2.0, c.nx, c.ny);
        const Printed p = Check(r, kPlaneBase);
        EXPECT_EQ(p.result, c.err.empty()) << c.what;
        EXPECT_EQ(p.out, c.err.empty() ? "Comprisable:OK\n" : "") << c.what;
        EXPECT_EQ(p.err, c.err) << c.what;
    }
}

TEST(RegionCheckComprisable, SameSystemSharedEdgesPassAThousandthOfACellBeyondFails) {
    Region shared = Nested(2451, 996.0, 1996.0, 2.0, 500, 250); // all four edges shared
    EXPECT_EQ(Check(shared, kPlaneBase).out, "Comprisable:OK\n");

    Region west = Nested(2451, 996.0 - 0.01, 1996.0, 2.0, 500, 250);
    const Printed p = Check(west, kPlaneBase);
    EXPECT_EQ(p.result, 0);
    EXPECT_EQ(p.out, "");
    EXPECT_EQ(p.err, NotComprisable("dimX", "Min.X", "995", "994.99"));
}

TEST(RegionCheckComprisable, NumbersHaveSixSignificantDigits) {
    const Base utm{3100, 500000.0, 3900000.0, 10.0, 100, 100};
    Region west = Nested(3100, 499994.9, 3900000.0, 1.0, 10, 10);
    EXPECT_EQ(Check(west, utm).err, NotComprisable("dimX", "Min.X", "499995", "499994"));
    Region north = Nested(3100, 500000.0, 3900990.0, 1.0, 10, 10);
    EXPECT_EQ(Check(north, utm).err,
              NotComprisable("dimY", "Max.Y", "3.901e+06", "3.901e+06"));
}

// Across systems: a base grid of 100 × 100 points, 139.00 .. 139.99 E and
// 35.00 .. 35.99 N, and nested grids in plane rectangular system IX (EPSG 2451).
const Base kGeographicBase{4612, 139.0, 35.0, 0.01, 100, 100};

struct Plane {
    double x, y;
};

Plane PlaneOf(int geo, int plane, double lon, double lat) {
    testing::internal::CaptureStdout();
    (void)mapproject_initialize_using_epsg_(geo, plane);
    (void)testing::internal::GetCapturedStdout();
    const std::int32_t n = 1;
    Plane p{};
    EXPECT_EQ(ll2xy_(&n, &lon, &lat, &p.x, &p.y), 0);
    mapproject_finalize_();
    return p;
}

// A nested grid of 10 m cells whose cell edges run from the plane point of (west, south)
// to within a cell of that of (east, north).
Region NestedBetween(int geo, int plane, double west, double south, double east, double north) {
    const Plane sw = PlaneOf(geo, plane, west, south);
    const Plane ne = PlaneOf(geo, plane, east, north);
    return Nested(plane, sw.x + 5.0, sw.y + 5.0, 10.0,
                  static_cast<int>(std::floor((ne.x - sw.x) / 10.0)),
                  static_cast<int>(std::floor((ne.y - sw.y) / 10.0)));
}

TEST(RegionCheckComprisable, AcrossSystemsEveryCornerMustBeFound) {
    Region inside = NestedBetween(4612, 2451, 139.40, 35.40, 139.45, 35.45);
    const Printed ok = Check(inside, kGeographicBase);
    EXPECT_EQ(ok.result, 1);
    EXPECT_EQ(ok.out, "Comprisable:OK\n");
    EXPECT_EQ(ok.err, "");

    Region straddling = NestedBetween(4612, 2451, 139.95, 35.40, 140.05, 35.45);
    const Printed ng = Check(straddling, kGeographicBase);
    EXPECT_EQ(ng.result, 0);
    EXPECT_EQ(ng.out, "");
    EXPECT_EQ(ng.err, NotFoundAcross(2451));

    Region outside = NestedBetween(4612, 2451, 141.0, 37.0, 141.05, 37.05);
    EXPECT_EQ(Check(outside, kGeographicBase).err, NotFoundAcross(2451));
}

TEST(RegionCheckComprisable, AcrossSystemsUnknownCodesSayWhatTheyFallBackTo) {
    Region wgs84 = NestedBetween(4326, 2451, 139.40, 35.40, 139.45, 35.45);
    Base unknownBase = kGeographicBase;
    unknownBase.epsg = 0;
    EXPECT_EQ(Check(wgs84, unknownBase).out, "default EPSG:4612\nComprisable:OK\n");

    Region zone54Outside = NestedBetween(4612, 3100, 141.0, 37.0, 141.05, 37.05);
    zone54Outside.epsg = 9999;
    const Printed ng = Check(zone54Outside, kGeographicBase);
    EXPECT_EQ(ng.out, "default EPSG:3100\n");
    EXPECT_EQ(ng.err, NotFoundAcross(9999));
}

// The boxes start at most six columns from the east edge and their rows reach the
// outermost points but never past them: corners need to lie strictly between the
// first and the second-to-last column of points and between the first and last row,
// although a corner in the cells beyond is inside the base region.
TEST(RegionCheckComprisable, AcrossSystemsCornersNearTheBaseEdges) {
    struct Case {
        const char* what;
        double west, south, east, north;
        bool found;
    };
    const Case cases[] = {
        {"0.3 cell east of the first column", 139.003, 35.40, 139.05, 35.45, true},
        {"0.3 cell west of the first column", 138.997, 35.40, 139.05, 35.45, false},
        {"0.3 cell short of the second-to-last column", 139.90, 35.40, 139.977, 35.45, true},
        {"0.3 cell past the second-to-last column", 139.90, 35.40, 139.983, 35.45, false},
        {"0.3 cell north of the first row", 139.40, 35.003, 139.45, 35.05, true},
        {"0.3 cell south of the first row", 139.40, 34.997, 139.45, 35.05, false},
        {"0.3 cell south of the last row", 139.40, 35.90, 139.45, 35.987, true},
        {"0.3 cell north of the last row", 139.40, 35.90, 139.45, 35.993, false},
    };
    for (const Case& c : cases) {
        Region r = NestedBetween(4612, 2451, c.west, c.south, c.east, c.north);
        const Printed p = Check(r, kGeographicBase);
        EXPECT_EQ(p.result, c.found) << c.what;
        EXPECT_EQ(p.err, c.found ? "" : NotFoundAcross(2451)) << c.what;
    }
}

TEST(RegionCheckComprisable, AcrossSystemsFiveBaseColumnsNeverHold) {
    Region small = NestedBetween(4612, 2451, 139.015, 35.40, 139.02, 35.405);
    Base six = kGeographicBase;
    six.nx = 6;
    EXPECT_EQ(Check(small, six).result, 1);
    Base five = kGeographicBase;
    five.nx = 5;
    const Printed p = Check(small, five);
    EXPECT_EQ(p.result, 0);
    EXPECT_EQ(p.err, NotFoundAcross(2451));
}

TEST(RegionCheckComprisable, AcrossSystemsBadGeometryIsNotComprisable) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const Base cases[] = {
        {4612, nan, 35.0, 0.01, 100, 100},      {4612, 139.0, 35.0, 0.0, 100, 100},
        {4612, 139.0, 35.0, -0.01, 100, 100},   {4612, 139.0, 35.0, 1e300, 100, 100},
        {4612, 139.0, 35.0, 0.01, -100, 100},   {4612, 139.0, 35.0, 0.01, 100, -7},
        {4612, 139.0, 35.0, 0.01, INT_MAX, INT_MAX}, {4612, 139.0, 35.0, 0.01, 6, 400000000},
    };
    for (const Base& b : cases) {
        Region r = NestedBetween(4612, 2451, 139.40, 35.40, 139.45, 35.45);
        const Printed p = Check(r, b);
        EXPECT_EQ(p.result, 0) << b.orgX << " " << b.orgY << " " << b.gridSize << " " << b.nx
                               << " " << b.ny;
        EXPECT_EQ(p.err, NotFoundAcross(2451));
    }
    Region lost = Nested(2451, nan, 0.0, 10.0, 10, 10);
    EXPECT_EQ(Check(lost, kGeographicBase).err, NotFoundAcross(2451));
}

Printed Connect(Region& r, const Base& b) {
    return Capture([&] { return r.SearchConnectPos(b.orgX, b.orgY, b.gridSize, b.nx, b.ny); });
}

const std::string kNoConnectPoint =
    kRule + "ERROR:REGION OBJECT METHOD\n"
            "  ERROR-DETAIL:Abnormal action at Search Connecting Point Method.\n"
            "  ERROR-DETAIL:Can not find Connect Point.\n"
            "  ERROR-DETAIL:Particular attention should be given to \"Connect Point of "
            "Topography File\".\n" +
    kRule;

TEST(RegionSearchConnectPos, FirstBasePointBeyondTheOriginOneBased) {
    const Base base{0, 100.0, 200.0, 10.0, 5, 4}; // x 100 .. 140, y 200 .. 230
    struct Case {
        double orgX, orgY;
        int i, j;
    };
    const Case cases[] = {
        {95.0, 195.0, 1, 1},  // before the first point
        {125.0, 215.0, 4, 3}, // between points
        {120.0, 210.0, 4, 3}, // on a point: the next one is the first beyond
        {139.9, 229.9, 5, 4}, // before the last
    };
    for (const Case& c : cases) {
        Region r = Nested(0, c.orgX, c.orgY, 1.0, 1, 1);
        const Printed p = Connect(r, base);
        EXPECT_EQ(p.result, 1);
        EXPECT_EQ(p.out, "ConnectI:" + std::to_string(c.i) + "\nConnectJ:" +
                             std::to_string(c.j) + "\n");
        EXPECT_EQ(p.err, "");
        EXPECT_EQ(r.connectI, c.i);
        EXPECT_EQ(r.connectJ, c.j);
    }
}

// Kept: ten additions of 0.1 make 0.9999999999999999, so that point is not beyond
// itself and the eleventh is the first (10 × 0.1 is 1.0, which would give 11).
TEST(RegionSearchConnectPos, PositionsGrowByRepeatedAddition) {
    Region r = Nested(0, 0.9999999999999999, 0.05, 1.0, 1, 1);
    const Printed p = Connect(r, {0, 0.0, 0.0, 0.1, 20, 20});
    EXPECT_EQ(p.out, "ConnectI:12\nConnectJ:2\n");
}

TEST(RegionSearchConnectPos, NoPointBeyondFails) {
    const Base base{0, 100.0, 200.0, 10.0, 5, 4};
    Region east = Nested(0, 140.0, 200.0, 1.0, 1, 1);
    east.connectJ = 7;
    const Printed pi = Connect(east, base);
    EXPECT_EQ(pi.result, 0);
    EXPECT_EQ(pi.out, "ConnectI:0\n");
    EXPECT_EQ(pi.err, kNoConnectPoint);
    EXPECT_EQ(east.connectI, 0);
    EXPECT_EQ(east.connectJ, 7); // not searched

    Region north = Nested(0, 95.0, 230.0, 1.0, 1, 1);
    const Printed pj = Connect(north, base);
    EXPECT_EQ(pj.result, 0);
    EXPECT_EQ(pj.out, "ConnectI:1\nConnectJ:0\n");
    EXPECT_EQ(pj.err, kNoConnectPoint);

    // Steps that never move forward and an origin that is not a number end at once.
    const double nan = std::numeric_limits<double>::quiet_NaN();
    for (const Base& bad : {Base{0, 100.0, 200.0, 0.0, INT_MAX, 4},
                            Base{0, 100.0, 200.0, -1.0, INT_MAX, 4},
                            Base{0, 100.0, 200.0, nan, INT_MAX, 4},
                            Base{0, 1e300, 200.0, 1.0, INT_MAX, 4}}) {
        Region r = Nested(0, 2e300, 200.0, 1.0, 1, 1);
        EXPECT_EQ(Connect(r, bad).out, "ConnectI:0\n") << bad.gridSize;
    }
    Region lost = Nested(0, nan, 200.0, 1.0, 1, 1);
    EXPECT_EQ(Connect(lost, {0, 100.0, 200.0, 10.0, INT_MAX, 4}).out, "ConnectI:0\n");
}

} // namespace
