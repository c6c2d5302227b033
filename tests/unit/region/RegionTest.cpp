#include "region/Region.hpp"

#include "region/RegionTestSupport.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

namespace {

XML_REGION Record() {
    XML_REGION rec;
    rec.RegionNo = 3;
    rec.RegionName = "Bay";
    rec.BaseRegionNo = 1;
    rec.GridSize = 30.0;
    rec.EPSG = 2451;
    rec.NonLinearTerm = 1;
    rec.DispersiveTerm = 1;
    rec.Topography = {"topo.txt", 1.0};
    rec.RoughnessCoefficient = {"", 0.025};
    rec.WaveHeight = {"iwh.txt", 3.0};
    rec.ConstructionLineData = {"cld.txt", 4.0};
    rec.LandMap = {"", 5.0};
    return rec;
}

TEST(Region, KindsTakeTheirInputFromTheRecord) {
    struct Expected {
        RType kind;
        const char* tag;
        const char* file;
        double uniform;
    };
    const Expected table[] = {
        {TPG_R, "TPG-R", "topo.txt", 1.0}, {RCF_R, "RCF-R", "", 0.025},
        {CLD_R, "CLD-R", "cld.txt", 0.0},  {WBM_R, "WBM-R", "", 0.0},
        {WBH_R, "WBH-R", "", 0.0},         {LSM_R, "LSM-R", "", 0.0},
        {VRT_R, "VRT-R", "", 0.0},         {HRZ_R, "HRZ-R", "", 0.0},
        {IWH_R, "IWH-R", "iwh.txt", 3.0},  {static_cast<RType>(10), "", "", 0.0},
    };
    for (const Expected& e : table) {
        const Region r(e.kind, Record());
        EXPECT_EQ(r.type, e.kind);
        EXPECT_EQ(r.typeTag, e.tag) << e.kind;
        EXPECT_EQ(r.inFileName, e.file) << e.kind;
        EXPECT_EQ(r.outFileName, e.file) << e.kind;
        EXPECT_EQ(r.noFileName, std::string(e.file).empty()) << e.kind;
        EXPECT_EQ(r.uniformValue, e.uniform) << e.kind;
        EXPECT_EQ(r.regionName, "Bay");
        EXPECT_EQ(r.regionNo, 3);
        EXPECT_EQ(r.baseRegionNo, 1);
        EXPECT_EQ(r.gridSize, 30.0);
        EXPECT_EQ(r.nonLinear, 1);
        EXPECT_EQ(r.dispersive, 1);
        EXPECT_EQ(r.nx, 0);
        EXPECT_EQ(r.valMax, 0.0);
    }
    const Region blank;
    EXPECT_EQ(static_cast<int>(blank.type), 0);
    EXPECT_EQ(blank.typeTag, "");
    EXPECT_FALSE(blank.noFileName);
}

TEST(Region, OnlyEpsg4326And4612AreLongitudeLatitude) {
    for (const auto& [epsg, coordType] : {std::pair{4326, 1}, {4612, 1}, {4301, 0}, {3100, 0}}) {
        XML_REGION rec = Record();
        rec.EPSG = epsg;
        EXPECT_EQ(Region(TPG_R, rec).coordType, coordType) << epsg;
    }
}

TEST(Region, FillersSizeFromGeometry) {
    Region r(RCF_R, Record());
    r.Set2dStruct(4, 3, 1.0, 2.0);
    EXPECT_TRUE(r.grid.Empty()); // geometry only
    r.Make2dStruct();
    r.Make2dStruct2();
    r.Make2dStructInt2();
    EXPECT_TRUE(r.grid.HasShape(4, 3));
    EXPECT_EQ(r.grid[3][2], 0.025);
    EXPECT_EQ(r.pairGrid[3][2][0], 0.025);
    EXPECT_EQ(r.pairGrid[0][0][1], 0.025);
    EXPECT_EQ(r.pairIntGrid[3][2][1], 0); // Kept: zeros, not the uniform value
    EXPECT_EQ(r.TempMethod(), 1);
}

TEST(Region, FreeVecMemKeepsGeometryAndEmptiesStages) {
    Region r(VRT_R, Record());
    r.Set2dStruct(4, 3, 1.0, 2.0);
    r.Make2dStruct();
    r.dynamicSeries.resize(2);
    r.dynamicSeries[0] = {12, std::vector<float>(12, 1.0f)};
    r.dynamicSeries[1] = {0, std::vector<float>(5, 1.0f)}; // count 0: left alone
    r.FreeVecMem();
    EXPECT_TRUE(r.grid.Empty());
    EXPECT_EQ(r.grid.Columns(), 4);
    EXPECT_EQ(r.nx, 4);
    EXPECT_EQ(r.dynamicSeries[0].count, 0);
    EXPECT_TRUE(r.dynamicSeries[0].values.empty());
    EXPECT_EQ(r.dynamicSeries[1].values.size(), 5u);
}

TEST(Region, SameRegionComparesPointsNotSpacing) {
    Region a;
    a.Set2dStruct(3, 2, 100.0, 200.0);
    a.gridSize = 10.0;
    Region b = a;
    b.gridSize = 10.000001;
    EXPECT_TRUE(isSameRegion(&a, &b)); // Kept
    b.ny = 3;
    EXPECT_FALSE(isSameRegion(&a, &b));
    b = a;
    b.org_x = std::nextafter(100.0, 200.0);
    EXPECT_FALSE(isSameRegion(&a, &b));
    a.org_y = std::numeric_limits<double>::quiet_NaN();
    b = a;
    EXPECT_FALSE(isSameRegion(&a, &b));
    EXPECT_FALSE(isSameRegion(&a, &a));
    EXPECT_FALSE(isSameRegion(nullptr, &a));
}

} // namespace
