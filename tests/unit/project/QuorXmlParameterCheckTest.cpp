#include "project/QuorXmlParameter.hpp"

#include "region/RegionTestSupport.hpp"

#include <cmath>
#include <functional>

namespace {

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

TEST(CheckXML, FirstViolatedRuleIsReportedWithItsLine) {
    using P = QuorXmlParameter&;
    const std::pair<std::function<void(P)>, const char*> cases[] = {
        {[](P) {}, nullptr},
        {[](P p) { p = QuorXmlParameter("my/project.xml"); }, "<ProjectName>"},
        {[](P p) { p.Faults.clear(); }, "<FaultModel>"},
        {[](P p) { p.Faults[0].FileName = ""; }, "<FaultModel>/<FileName>"},
        {[](P p) { p.Faults.push_back(XML_FAULT{}); }, nullptr}, // only the first one's file
        {[](P p) { p.TotalTime = std::nan(""), p.TimeIncrement = -1; }, "<TotalTime>"},
        {[](P p) { p.TimeIncrement = 0; }, "<TimeIncrement>"},
        {[](P p) { p.Regions.clear(); }, "<Region>"},
        {[](P p) { p.Regions.at(1).RegionNo = 0; }, "<Region>/<RegionNo>"},
        {[](P p) { p.Regions.at(1).RegionName = ""; }, "<Region>/<RegionName>"},
        {[](P p) { p.Regions.at(1).BaseRegionNo = -1; }, "<Region>/<BaseRegionNo>"},
        {[](P p) { p.Regions.at(1).GridSize = 0; }, "<Region>/<GridSize>"},
        {[](P p) { // every rule applies to a region before the next one is looked at
             p.Regions.at(1).Topography.FileName = "";
             p.Regions.emplace(2, XML_REGION{});
         },
         "<Region>/<Topography>/<FileName>"},
        {[](P p) { p.OutputSetting.Dump1dTotalDepth = 1; }, "<Dumpld>/<StationPos>/<FileName>"},
        {[](P p) { p.OutputSetting.Dump1dWaterHeight = 2; }, nullptr}, // 2 is off
        {[](P p) { p.OutputSetting.CoastalRelativeWaterHeight = 1; },
         "<CoastalPoint>/<ExtractPoint>/<FileName>"},
        {[](P p) {
             p.OutputSetting.CoastalWaterHeightArrivalTime = 1;
             p.ExtractPoints.push_back(XML_STATION{});
         },
         "<CoastalPoint>/<WaterHeightArrivalTime>/<ThresholdFileName>"},
        {[](P p) {
             p.OutputSetting.CoastalRelativeWaterHeightArrivalTime = 1;
             p.ExtractPoints.push_back(XML_STATION{});
         },
         "<CoastalPoint>/<RelativeWaterHeightArrivalTime>/<ThresholdFileName>"},
        {[](P p) { p.OutputSetting.LandInundationArrivalTime = 1; },
         "<Land>/<InundationArrivalTime>/<ThresholdFileName>"},
    };
    for (size_t k = 0; k < std::size(cases); ++k) {
        QuorXmlParameter project = ValidProject();
        cases[k].first(project);
        testing::internal::CaptureStderr();
        const bool passed = project.checkXML();
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(passed, cases[k].second == nullptr) << k;
        if (cases[k].second)
            EXPECT_EQ(err, ErrorBlock("ERROR:XML OBJECT METHOD",
                                      {"Abnormal action at Reading XML File : my/project.xml",
                                       std::string("Please set ") + cases[k].second + "."}))
                << k;
        else
            EXPECT_EQ(err, "") << k;
    }
}

} // namespace
