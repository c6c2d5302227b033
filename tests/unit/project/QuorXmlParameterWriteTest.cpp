#include "project/QuorXmlParameter.hpp"

#include <gtest/gtest.h>

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

QuorXmlParameter Project() {
    QuorXmlParameter p("p.xml");
    p.ProjectName = "Bay";
    p.DestDir = "Bay/out";
    p.DeformationTolerance = 0.01;
    p.HorizontalDeformation = 1;
    p.Faults.push_back(XML_FAULT{1, 4612, "fault.txt"});
    p.Faults.push_back(XML_FAULT{0, 2451, "second.txt"});
    p.LinearWaveType = 1;
    p.LinearWaveHeight = 2.5;
    p.TotalTime = 3600;
    p.TimeIncrement = 0.1;
    p.TideWaterLevel = 50;
    p.TsunamiLoadingCoefficient = 1.23456;
    p.SpongeBoundary = 0;
    p.CalculateControl = 1;
    p.ControlThreshold = 0.001;
    p.OutputSetting.OutputStartTime = 60;
    p.OutputSetting.Dump1dTotalDepth = 2;
    p.OutputSetting.CoastalWaterHeightArrivalTime = 1;
    p.OutputSetting.CoastalWaterHeightThreshold = "th.txt";
    p.Regions.emplace(1, XML_REGION{});
    p.Regions.emplace(3, XML_REGION{});
    return p;
}

TEST(WriteIWHConf, ProjectPartLayout) {
    const QuorXmlParameter p = Project();
    EXPECT_EQ(Written([&](std::FILE* f) { return p.writeIWHConf(f); }),
              "# Project Name\nBay\n"
              "# Dest Directory\nBay/out\n"
              "# Deformation Tolerance\n0.010000\n"
              "# Hrizontal Deformation\n1\n"
              "# Hydraulic Filter\n0\n"
              "# Fault Coordinate Type (0:Cartesian, 1:Latitude-Longitude)\n1\n"
              "# Fault Parameter File\nfault.txt\n"
              "# Linear Wave Type (0:Rectangular, 1:sin wave)\n1\n"
              "# Linear Wave Height[m]\n2.500000\n"
              "# Linear Wave Width\n1.000000\n"
              "# Total Region Number\n2\n");
}

TEST(WriteIWHConf, NoFaultKeepsTheLayoutWithZeroAndAnEmptyName) {
    QuorXmlParameter p = Project();
    p.Faults.clear();
    const std::string text = Written([&](std::FILE* f) { return p.writeIWHConf(f); });
    EXPECT_NE(text.find("# Fault Coordinate Type (0:Cartesian, 1:Latitude-Longitude)\n0\n"
                        "# Fault Parameter File\n\n# Linear Wave Type"),
              std::string::npos);
}

TEST(WriteCalParam, ProjectPartLayout) {
    const QuorXmlParameter p = Project();
    EXPECT_EQ(Written([&](std::FILE* f) { return p.writeCalParam(f); }),
              "# Project Name\nBay\n"
              "# Total Time[sec]\n3600.000000\n"
              "# Min. Time Increment[sec]\n0.10000000000000\n"
              "# Tide Water Level[cm]\n50.000000\n"
              "# Rise Up Type (0:First Step 1:Each Time Step)\n0\n"
              "# Tsunami Loading Coefficient [-]\n1.2346\n"
              "# Offshore Sponge Boundary (0:Transparent boundary 1:Sponge Boundary)\n0\n"
              "# Flow Velocity Limit [m/s]\n-1.0000\n"
              "# Froude Number Limit [-]\n2.0000\n"
              "# Calculating Control (1:Not calculate until max|Z| > Zth for the first time)\n1\n"
              "# Control Threshold of Water Level [m]\n0.001000\n"
              "# 1D Station File Name\nBay/out/Dump1d_BEST.txt\n"
              "# 1D Output Setting (1:Monolithic)\n1\n"
              "# 1D Water Height Output Setting\n0 60.000 5.000\n"
              "# 1D Total Depth Output Setting\n2 60.000 5.000\n"
              "# 1D Water Discharge Output Setting\n0 60.000 5.000\n"
              "# 2D Water Height Output Setting\n0 60.000 300.000\n"
              "# 2D Water Discharge Output Setting\n0 60.000 300.000\n"
              "# Coastal Height Output Setting\n0 60.000 300.000\n"
              "# Coastal Height Arrival Time Output Setting\n1 th.txt\n"
              "# Coastal Relative Height Output Setting\n0 60.000 300.000\n"
              "# Coastal Relative Height Arrival Time Output Setting\n0 \n"
              "# Land Inundation Output Setting\n0 60.000 300.000\n"
              "# Land Inundation Arrival Time Output Setting\n0 \n"
              "# Total Region Number\n2\n");
}

TEST(WriteCalParam, StationFileLineIsEmptyWhileEvery1DOutputIsOff) {
    QuorXmlParameter p = Project();
    p.OutputSetting.Dump1dTotalDepth = 0;
    const std::string text = Written([&](std::FILE* f) { return p.writeCalParam(f); });
    EXPECT_NE(text.find("# 1D Station File Name\n\n# 1D Output Setting"), std::string::npos);
    p.OutputSetting.Dump1dWaterDischarge = -1;
    EXPECT_NE(Written([&](std::FILE* f) { return p.writeCalParam(f); })
                  .find("# 1D Station File Name\nBay/out/Dump1d_BEST.txt\n"),
              std::string::npos);
}

} // namespace
