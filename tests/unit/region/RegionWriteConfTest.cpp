#include "RegionTestSupport.hpp"

#include <cstdio>
#include <cstdlib>

namespace {

template <typename Write> std::string Written(Write write) {
    char* buffer = nullptr;
    size_t size = 0;
    std::FILE* stream = open_memstream(&buffer, &size);
    EXPECT_TRUE(write(stream));
    std::fclose(stream);
    std::string text(buffer, size);
    std::free(buffer);
    return text;
}

Region Grid(RType kind) {
    XML_REGION rec;
    rec.RegionNo = 3;
    rec.RegionName = "Harbour";
    rec.BaseRegionNo = 2;
    rec.EPSG = 4612;
    rec.NonLinearTerm = 1;
    Region r(kind, rec);
    r.outFileName = "out/file.bin";
    r.extFileName = "out/ext.txt";
    r.stepRatio = 3;
    return r;
}

TEST(RegionWriteConf, TopographyNamesTheRegion) {
    const Region t = Grid(TPG_R);
    EXPECT_EQ(Written([&](std::FILE* f) { return t.WriteIWHConf(f); }),
              "# Region No.\n3\n# Region Name\nHarbour\n# Base Region No.\n2\n"
              "# Region Coordinate Type (0:Cartesian, 1:Latitude-Longitude)\n1\n"
              "# Region Topography File Name\nout/file.bin\n");
    EXPECT_EQ(Written([&](std::FILE* f) { return t.WriteCalParam(f); }),
              "# Region No.\n3\n# Region Name\nHarbour\n# Base Region No.\n2\n"
              "# Time Step Ratio\n3\n# EPSG\n4612\n"
              "# Non-Linear Term (1:Calculate Non-linear long wave term.)\n1\n"
              "# Coastal Extract Points File Name\nout/ext.txt\n"
              "# Topography File Name\nout/file.bin\n");
}

TEST(RegionWriteConf, OtherKindsNameTheirFileOrNothing) {
    const std::pair<RType, const char*> named[] = {
        {RCF_R, "# Roughness Coefficient File Name\n"}, {WBM_R, "# Wave Breaker Map File Name\n"},
        {WBH_R, "# Wave Breaker Height File Name\n"},   {LSM_R, "# Land Map File Name\n"},
        {VRT_R, "# Vertical Deformation File List\n"},  {IWH_R, "# Initial Wave Height File List\n"},
    };
    for (const auto& [kind, comment] : named) {
        const Region r = Grid(kind);
        EXPECT_EQ(Written([&](std::FILE* f) { return r.WriteCalParam(f); }),
                  std::string(comment) + "out/file.bin\n")
            << kind;
        EXPECT_EQ(Written([&](std::FILE* f) { return r.WriteIWHConf(f); }), "") << kind;
    }
    for (RType kind : {CLD_R, HRZ_R, static_cast<RType>(0)}) {
        const Region r = Grid(kind);
        EXPECT_EQ(Written([&](std::FILE* f) { return r.WriteCalParam(f); }), "") << kind;
    }
}

} // namespace
