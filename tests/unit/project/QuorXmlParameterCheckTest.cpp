#include "project/QuorXmlParameter.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>

namespace {

const std::string kRule = "_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/\n";

// The smallest project that passes every rule.
QuorXmlParameter ValidProject() {
    QuorXmlParameter project("my/project.xml");
    project.ProjectName = "P";
    project.Faults.push_back(XML_FAULT{0, 3100, "fault.txt"});
    project.TotalTime = 10.0;
    project.TimeIncrement = 0.1;
    XML_REGION region;
    region.RegionNo = 1;
    region.RegionName = "R1";
    region.BaseRegionNo = 0;
    region.GridSize = 10.0;
    region.Topography.FileName = "t.txt";
    project.Regions.emplace(1, region);
    return project;
}

struct Case {
    const char* name;
    std::function<void(QuorXmlParameter&)> change;
    const char* detail; // nullptr: the project passes
};

std::string CheckOutput(const QuorXmlParameter& project, bool& passed) {
    testing::internal::CaptureStderr();
    passed = project.checkXML();
    return testing::internal::GetCapturedStderr();
}

TEST(CheckXML, FirstViolatedRuleIsReportedWithItsLine) {
    const std::vector<Case> cases = {
        {"valid", [](QuorXmlParameter&) {}, nullptr},
        {"no project name, everything else missing too",
         [](QuorXmlParameter& p) { p = QuorXmlParameter("my/project.xml"); },
         "  ERROR-DETAIL:Please set <ProjectName>."},
        {"no fault", [](QuorXmlParameter& p) { p.Faults.clear(); },
         "  ERROR-DETAIL:Please set <FaultModel>."},
        {"first fault without file", [](QuorXmlParameter& p) { p.Faults[0].FileName = ""; },
         "  ERROR-DETAIL:Please set <FaultModel>/<FileName>."},
        {"second fault without file passes",
         [](QuorXmlParameter& p) { p.Faults.push_back(XML_FAULT{}); }, nullptr},
        {"zero total time beats a bad time increment",
         [](QuorXmlParameter& p) { p.TotalTime = 0; p.TimeIncrement = -1; },
         "  ERROR-DETAIL:Please set <TotalTime>."},
        {"NaN total time", [](QuorXmlParameter& p) { p.TotalTime = std::nan(""); },
         "  ERROR-DETAIL:Please set <TotalTime>."},
        {"negative time increment", [](QuorXmlParameter& p) { p.TimeIncrement = -0.5; },
         "  ERROR-DETAIL:Please set <TimeIncrement>."},
        {"empty layer set passes", [](QuorXmlParameter&) {}, nullptr},
        {"no region", [](QuorXmlParameter& p) { p.Regions.clear(); },
         "  ERROR-DETAIL:Please set <Region>."},
        {"region number 0", [](QuorXmlParameter& p) { p.Regions.at(1).RegionNo = 0; },
         "  ERROR-DETAIL:Please set <Region>/<RegionNo>."},
        {"region without name", [](QuorXmlParameter& p) { p.Regions.at(1).RegionName = ""; },
         "  ERROR-DETAIL:Please set <Region>/<RegionName>."},
        {"base region left out", [](QuorXmlParameter& p) { p.Regions.at(1).BaseRegionNo = -1; },
         "  ERROR-DETAIL:Please set <Region>/<BaseRegionNo>."},
        {"zero grid size", [](QuorXmlParameter& p) { p.Regions.at(1).GridSize = 0; },
         "  ERROR-DETAIL:Please set <Region>/<GridSize>."},
        {"no topography file",
         [](QuorXmlParameter& p) { p.Regions.at(1).Topography.FileName = ""; },
         "  ERROR-DETAIL:Please set <Region>/<Topography>/<FileName>."},
        {"all five rules apply to a region before the next one",
         [](QuorXmlParameter& p) {
             p.Regions.at(1).Topography.FileName = "";
             XML_REGION second = p.Regions.at(1);
             second.RegionNo = 2;
             second.RegionName = "";
             p.Regions.emplace(2, second);
         },
         "  ERROR-DETAIL:Please set <Region>/<Topography>/<FileName>."},
        {"1D output on without stations",
         [](QuorXmlParameter& p) { p.OutputSetting.Dump1dTotalDepth = 1; },
         "  ERROR-DETAIL:Please set <Dumpld>/<StationPos>/<FileName>."},
        {"1D switch of 2 is off",
         [](QuorXmlParameter& p) { p.OutputSetting.Dump1dWaterHeight = 2; }, nullptr},
        {"coastal output without extract points",
         [](QuorXmlParameter& p) { p.OutputSetting.CoastalRelativeWaterHeight = 1; },
         "  ERROR-DETAIL:Please set <CoastalPoint>/<ExtractPoint>/<FileName>."},
        {"arrival time without threshold",
         [](QuorXmlParameter& p) {
             p.OutputSetting.CoastalWaterHeightArrivalTime = 1;
             p.ExtractPoints.push_back(XML_STATION{});
         },
         "  ERROR-DETAIL:Please set <CoastalPoint>/<WaterHeightArrivalTime>/<ThresholdFileName>."},
        {"relative arrival time without threshold",
         [](QuorXmlParameter& p) {
             p.OutputSetting.CoastalRelativeWaterHeightArrivalTime = 1;
             p.OutputSetting.CoastalWaterHeightArrivalTime = 1;
             p.OutputSetting.CoastalWaterHeightThreshold = "t";
             p.ExtractPoints.push_back(XML_STATION{});
         },
         "  ERROR-DETAIL:Please set <CoastalPoint>/<RelativeWaterHeightArrivalTime>/<ThresholdFileName>."},
        {"thresholds are not needed while coastal outputs are off",
         [](QuorXmlParameter& p) { p.OutputSetting.CoastalWaterHeightArrivalTime = 2; }, nullptr},
        {"land arrival time without threshold, coastal outputs off",
         [](QuorXmlParameter& p) { p.OutputSetting.LandInundationArrivalTime = 1; },
         "  ERROR-DETAIL:Please set <Land>/<InundationArrivalTime>/<ThresholdFileName>."},
        {"land arrival time with threshold",
         [](QuorXmlParameter& p) {
             p.OutputSetting.LandInundationArrivalTime = 1;
             p.OutputSetting.LandInundationThreshold = "t";
         },
         nullptr},
    };
    for (const Case& c : cases) {
        QuorXmlParameter project = ValidProject();
        c.change(project);
        bool passed = false;
        const std::string err = CheckOutput(project, passed);
        if (c.detail == nullptr) {
            EXPECT_TRUE(passed) << c.name;
            EXPECT_EQ(err, "") << c.name;
        } else {
            EXPECT_FALSE(passed) << c.name;
            EXPECT_EQ(err, kRule + "ERROR:XML OBJECT METHOD\n"
                               "  ERROR-DETAIL:Abnormal action at Reading XML File : my/project.xml\n" +
                               c.detail + "\n" + kRule)
                << c.name;
        }
    }
}

} // namespace
