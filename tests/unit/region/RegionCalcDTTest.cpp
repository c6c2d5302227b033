#include "RegionTestSupport.hpp"

#include <cmath>

namespace {

// A topography of `epsg` whose deepest point is `valMin` metres below zero.
Region Topography(int epsg, double gridSize, double valMin, int ny = 2, double orgY = 0.0) {
    XML_REGION rec;
    rec.RegionNo = 1;
    rec.RegionName = "R1";
    rec.EPSG = epsg;
    rec.GridSize = gridSize;
    Region r(TPG_R, rec);
    r.nx = 2;
    r.ny = ny;
    r.org_y = orgY;
    r.valMin = valMin;
    return r;
}

std::string CflBlock(const std::string& detail) {
    return kRule + "ERROR:REGION OBJECT METHOD\n"
                   "  ERROR-DETAIL:Abnormal action at Calculate CFL Method.\n" +
           detail + "\n" + kRule;
}

TEST(RegionCalcDT, PlaneRegionRunsAtTheStepHandedInWhenThreeStepsBreakTheLimit) {
    Region r = Topography(2451, 30.0, -100.0);
    const Printed p = Capture([&] { return r.CalcDT(1.0, 0.8); });
    EXPECT_EQ(p.result, 1);
    EXPECT_EQ(p.out + p.err, "");
    EXPECT_EQ(r.dxMeter, 30.0f);
    EXPECT_EQ(r.timeRatio, 1);
    EXPECT_EQ(r.dt, 1.0);
    EXPECT_DOUBLE_EQ(r.cfl, std::sqrt(1960.0) / 30.0);
}

TEST(RegionCalcDT, ThreeStepsWhenTheLimitIsStrictlyAboveThreeCourantNumbers) {
    Region r = Topography(2451, 1000.0, -10.0);
    ASSERT_TRUE(r.CalcDT(0.5, 0.5));
    EXPECT_EQ(r.timeRatio, 3);
    EXPECT_EQ(r.dt, 1.5);
    EXPECT_DOUBLE_EQ(r.cfl, 3 * 0.5 / 1000.0 * 14.0);

    // On the limit itself the ratio stays 1.
    const double courant = (0.5 / r.dxMeter) * std::sqrt(10.0 * 19.6);
    ASSERT_TRUE(r.CalcDT(0.5, 3.0 * courant));
    EXPECT_EQ(r.timeRatio, 1);
    EXPECT_EQ(r.dt, 0.5);
    ASSERT_TRUE(r.CalcDT(0.5, std::nextafter(3.0 * courant, 1.0)));
    EXPECT_EQ(r.timeRatio, 3);
}

TEST(RegionCalcDT, GeographicSpacingIsTakenAtThePolewardEdge) {
    // Rows from 35 to 36 degrees north: the spacing shrinks with cos(36 degrees).
    Region north = Topography(4612, 0.1, -1000.0, 11, 35.0);
    ASSERT_TRUE(north.CalcDT(1.0, 0.0));
    const float expected = static_cast<float>(0.1 / 180.0 * 3.141592653589793 * 6371000.0 *
                                              std::cos(36.0 / 180.0 * 3.141592653589793));
    EXPECT_EQ(north.dxMeter, expected);
    EXPECT_EQ(north.coordType, 1);

    // South of the equator the origin row is the poleward one.
    Region south = Topography(4326, 0.1, -1000.0, 11, -40.0);
    ASSERT_TRUE(south.CalcDT(1.0, 0.0));
    EXPECT_EQ(south.dxMeter, static_cast<float>(0.1 / 180.0 * 3.141592653589793 * 6371000.0 *
                                                 std::cos(40.0 / 180.0 * 3.141592653589793)));
}

TEST(RegionCalcDT, NoPointBelowZeroGivesTheArithmeticsSpeed) {
    Region dry = Topography(2451, 10.0, 5.0);
    ASSERT_TRUE(dry.CalcDT(1.0, 0.5));
    EXPECT_TRUE(std::isnan(dry.cfl));
    EXPECT_EQ(dry.timeRatio, 1);
    Region flat = Topography(2451, 10.0, 0.0);
    ASSERT_TRUE(flat.CalcDT(1.0, 0.5));
    EXPECT_EQ(flat.cfl, 0.0);
    EXPECT_EQ(flat.timeRatio, 3);
}

TEST(RegionCalcDT, FailuresReportTheirDetailInOrder) {
    Region r = Topography(2451, 30.0, -100.0);
    Printed p = Capture([&] { return r.CalcDT(0.0, 1.5); });
    EXPECT_EQ(p.result, 0);
    EXPECT_EQ(p.err, CflBlock("  ERROR-DETAIL:Can not calculate CFL."));
    EXPECT_EQ(Capture([&] { return r.CalcDT(1.0, -0.1); }).err,
              CflBlock("  ERROR-DETAIL:Can not calculate CFL."));
    p = Capture([&] { return r.CalcDT(0.0, 1.0); });
    EXPECT_EQ(p.err,
              CflBlock("  ERROR-DETAIL:Particular attention should be given to \"TimeIncrement\"."));
    EXPECT_EQ(p.out, "");

    // Rows past the pole give a negative spacing, which is kept in dxMeter.
    Region beyond = Topography(4612, 1.0, -100.0, 3, 90.0);
    p = Capture([&] { return beyond.CalcDT(1.0, 0.5); });
    EXPECT_EQ(p.result, 0);
    EXPECT_LT(beyond.dxMeter, 0.0f);
    EXPECT_EQ(p.out, "************** here:R1 DX:1\n");
    EXPECT_EQ(p.err,
              CflBlock("  ERROR-DETAIL:Particular attention should be given to \"GridSize\"."));

    Region zero = Topography(2451, 0.0, -100.0);
    EXPECT_EQ(Capture([&] { return zero.CalcDT(1.0, 0.5); }).out, "************** here:R1 DX:0\n");
}

TEST(RegionCalcDT, RowsReachingThePoleStillPassWhileTheSpacingStaysPositive) {
    Region pole = Topography(4612, 0.1, -100.0, 2, 89.9);
    ASSERT_TRUE(pole.CalcDT(1.0, 0.0));
    EXPECT_GT(pole.dxMeter, 0.0f);
    EXPECT_LT(pole.dxMeter, 1e-3f);
}

} // namespace
