#include "project/QuorXmlParameter.hpp"

#include "region/RegionTestSupport.hpp"

namespace {

// The layouts as a whole are pinned by the end-to-end cases; these are the lines that
// change with the project.
QuorXmlParameter Project() {
    QuorXmlParameter p("p.xml");
    p.DestDir = "Bay/out";
    p.Faults.push_back(XML_FAULT{1, 4612, "fault.txt"});
    p.Faults.push_back(XML_FAULT{0, 2451, "second.txt"});
    p.TsunamiLoadingCoefficient = 1.23456;
    p.Regions.emplace(1, XML_REGION{});
    p.Regions.emplace(3, XML_REGION{});
    return p;
}

TEST(WriteIWHConf, FirstFaultOnlyAndNoFaultKeepsTheLayout) {
    QuorXmlParameter p = Project();
    const auto text = [&] { return Written([&](std::FILE* f) { return p.writeIWHConf(f); }); };
    const std::string type = "# Fault Coordinate Type (0:Cartesian, 1:Latitude-Longitude)\n";
    EXPECT_NE(text().find(type + "1\n# Fault Parameter File\nfault.txt\n"), std::string::npos);
    EXPECT_NE(text().find("# Total Region Number\n2\n"), std::string::npos);
    p.Faults.clear();
    EXPECT_NE(text().find(type + "0\n# Fault Parameter File\n\n# Linear Wave Type"),
              std::string::npos);
}

TEST(WriteCalParam, StationFileLineNamedByAnyNonZero1DSwitch) {
    QuorXmlParameter p = Project();
    const auto text = [&] { return Written([&](std::FILE* f) { return p.writeCalParam(f); }); };
    EXPECT_NE(text().find("# Tsunami Loading Coefficient [-]\n1.2346\n"), std::string::npos);
    EXPECT_NE(text().find("# 1D Station File Name\n\n# 1D Output Setting"), std::string::npos);
    p.OutputSetting.Dump1dWaterDischarge = -1; // Kept: though only 1 switches the output on
    EXPECT_NE(text().find("# 1D Station File Name\nBay/out/Dump1d_BEST.txt\n"), std::string::npos);
}

} // namespace
