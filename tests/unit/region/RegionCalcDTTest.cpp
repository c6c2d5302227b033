#include "region/RegionTestSupport.hpp"

#include <cmath>

namespace {

// A topography of `epsg` whose deepest point is `valMin` metres below zero.
Region Topography(int epsg, double gridSize, double valMin, int ny = 2, double orgY = 0.0) {
    XML_REGION rec;
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

TEST(RegionCalcDT, ThreeStepsOnlyWhenTheLimitIsStrictlyAboveThreeCourantNumbers) {
    Region r = Topography(2451, 1000.0, -10.0);
    const double courant = 0.5 / 1000.0 * std::sqrt(10.0 * 19.6);
    for (const auto& [limit, ratio] :
         {std::pair{0.5, 3}, {3.0 * courant, 1}, {std::nextafter(3.0 * courant, 1.0), 3}}) {
        EXPECT_EQ(Outcome([&] { return r.CalcDT(0.5, limit); }), "1||");
        EXPECT_EQ(r.timeRatio, ratio) << limit;
        EXPECT_EQ(r.dt, 0.5 * ratio);
        EXPECT_DOUBLE_EQ(r.cfl, ratio * courant);
    }
    // No point below zero: the speed the arithmetic gives.
    Region dry = Topography(2451, 10.0, 5.0), flat = Topography(2451, 10.0, 0.0);
    ASSERT_TRUE(dry.CalcDT(1.0, 0.5) && flat.CalcDT(1.0, 0.5));
    EXPECT_TRUE(std::isnan(dry.cfl));
    EXPECT_EQ(std::pair(dry.timeRatio, flat.timeRatio), std::pair(1, 3));
}

TEST(RegionCalcDT, GeographicSpacingIsTakenAtThePolewardEdge) {
    const auto spacing = [](double lat) {
        return static_cast<float>(0.1 / 180.0 * 3.141592653589793 * 6371000.0 *
                                  std::cos(lat / 180.0 * 3.141592653589793));
    };
    // Rows from 35 to 36 degrees north; south of the equator the origin row is poleward.
    Region north = Topography(4612, 0.1, -1000.0, 11, 35.0);
    Region south = Topography(4326, 0.1, -1000.0, 11, -40.0);
    ASSERT_TRUE(north.CalcDT(1.0, 0.0) && south.CalcDT(1.0, 0.0));
    EXPECT_EQ(north.dxMeter, spacing(36.0));
    EXPECT_EQ(south.dxMeter, spacing(40.0));
}

TEST(RegionCalcDT, FailuresReportTheirDetailInOrder) {
    const auto block = [](const std::string& detail) {
        return ErrorBlock("ERROR:REGION OBJECT METHOD",
                          {"Abnormal action at Calculate CFL Method.", detail});
    };
    Region r = Topography(2451, 30.0, -100.0);
    for (const auto& [dt, limit] : {std::pair{0.0, 1.5}, {1.0, -0.1}})
        EXPECT_EQ(Outcome([&] { return r.CalcDT(dt, limit); }),
                  "0||" + block("Can not calculate CFL."));
    EXPECT_EQ(Outcome([&] { return r.CalcDT(0.0, 1.0); }),
              "0||" + block("Particular attention should be given to \"TimeIncrement\"."));
    // Rows past the pole give a negative spacing.
    Region beyond = Topography(4612, 1.0, -100.0, 3, 90.0);
    EXPECT_EQ(Outcome([&] { return beyond.CalcDT(1.0, 0.5); }),
              "0|************** here:R1 DX:1\n|" +
                  block("Particular attention should be given to \"GridSize\"."));
}

} // namespace
