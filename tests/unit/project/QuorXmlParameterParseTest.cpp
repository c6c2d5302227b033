#include "project/QuorXmlParameter.hpp"

#include "support/TempDir.hpp"

#include <gtest/gtest.h>

#include <vector>

namespace {

const std::string kRule = "_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/\n";

struct Parsed {
    int result = -1;
    std::string out;
    std::string err;
};

Parsed ParseFile(QuorXmlParameter& project) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    Parsed parsed;
    parsed.result = project.exeParse();
    parsed.out = testing::internal::GetCapturedStdout();
    parsed.err = testing::internal::GetCapturedStderr();
    return parsed;
}

// Parses `xml` written to a temp file; `project` receives the values.
class XmlReader : public testing::Test {
  protected:
    Parsed Parse(const std::string& xml) {
        project_ = std::make_unique<QuorXmlParameter>(dir_.Write("project.xml", xml));
        return ParseFile(*project_);
    }
    QuorXmlParameter& project() { return *project_; }

    TempDir dir_;
    std::unique_ptr<QuorXmlParameter> project_;
};

// A fault model and no region wave height: the consistent case, no warning.
std::string WithFault(const std::string& body) {
    return "<Project><CalcParameter><InitialWaveHeightSetting><FaultModel><FileName>f.txt"
           "</FileName></FaultModel></InitialWaveHeightSetting></CalcParameter>" +
           body + "</Project>";
}

TEST_F(XmlReader, ValuesConvertLikeTheCLibraryAndEchoTheRawText) {
    const Parsed parsed = Parse(WithFault(
        "<CalcParameter><TsunamiCalcSetting>"
        "<TotalTime> 3600 </TotalTime><TimeIncrement>1e3</TimeIncrement>"
        "<TideWaterLevel>-1.5cm</TideWaterLevel><RiseUpType>+7</RiseUpType>"
        "<DispersiveWave><MaxIter>12abc</MaxIter><ConvergenceValue>x</ConvergenceValue>"
        "</DispersiveWave></TsunamiCalcSetting></CalcParameter>"));
    EXPECT_EQ(parsed.result, 1);
    EXPECT_EQ(parsed.err, "");
    EXPECT_DOUBLE_EQ(project().TotalTime, 3600.0);
    EXPECT_DOUBLE_EQ(project().TimeIncrement, 1000.0);
    EXPECT_DOUBLE_EQ(project().TideWaterLevel, -1.5);
    EXPECT_EQ(project().RiseUpType, 7);
    EXPECT_EQ(project().MaxIter, 12);
    EXPECT_EQ(project().ConvergenceValue, 0.0);
    EXPECT_EQ(parsed.out, "\n[[--- InitialWaveHeightSetting ---]]\n"
                          "\n[[--- FaultModel1 ---]]\n"
                          "FileName:f.txt\n"
                          "\n[[--- TsunamiCalcSetting ---]]\n"
                          "TotalTime: 3600 \n"
                          "TimeIncrement:1e3\n"
                          "TideWaterLevel:-1.5cm\n"
                          "RiseUpType:+7\n"
                          "\n[[--- DispersiveWave ---]]\n"
                          "MaxIter:12abc\n"
                          "ConvergenceValue:x\n");
}

TEST_F(XmlReader, IntegersOutsideTheRangeClampInsteadOfOverflowing) {
    Parse(WithFault("<CalcParameter><TsunamiCalcSetting><RiseUpType>99999999999</RiseUpType>"
                    "<SpongeBoundary>-99999999999</SpongeBoundary><CalculateControl>abc"
                    "</CalculateControl></TsunamiCalcSetting></CalcParameter>"));
    EXPECT_EQ(project().RiseUpType, 2147483647);
    EXPECT_EQ(project().SpongeBoundary, -2147483647 - 1);
    EXPECT_EQ(project().CalculateControl, 0);
}

TEST_F(XmlReader, OnlyALeadingTextChildGivesAValue) {
    const Parsed parsed = Parse(WithFault(
        "<CalcParameter><TsunamiCalcSetting>"
        "<TotalTime><!-- comment -->3600</TotalTime>"
        "<TimeIncrement></TimeIncrement><FroudeNumberLimit/>"
        "<FlowVelocityLimit><![CDATA[4.5]]></FlowVelocityLimit>"
        "</TsunamiCalcSetting></CalcParameter>"));
    EXPECT_EQ(project().TotalTime, 0.0);
    EXPECT_EQ(project().TimeIncrement, 0.0);
    EXPECT_EQ(project().FroudeNumberLimit, 2.0);
    EXPECT_EQ(project().FlowVelocityLimit, 4.5);
    EXPECT_EQ(parsed.out.find("TotalTime"), std::string::npos);
    EXPECT_EQ(parsed.out.find("TimeIncrement"), std::string::npos);
    EXPECT_NE(parsed.out.find("FlowVelocityLimit:4.5\n"), std::string::npos);
}

TEST_F(XmlReader, TextKeepsItsBlanksAndNamesMatchCaseSensitively) {
    Parse(WithFault("<CalcParameter><ConstructionLineParameter><FileName> a b.txt</FileName>"
                    "</ConstructionLineParameter><DynamicDeformationParameter>"
                    "<filename>x</filename></DynamicDeformationParameter></CalcParameter>"));
    EXPECT_EQ(project().ConstLine.FileName, " a b.txt");
    EXPECT_EQ(project().Dynamic.FileName, "");
}

TEST_F(XmlReader, DestDirIsPrefixedWithTheProjectNameReadSoFar) {
    Parsed parsed = Parse(WithFault("<DestDir>out</DestDir><ProjectName>P</ProjectName>"));
    EXPECT_EQ(project().DestDir, "/out");
    EXPECT_EQ(parsed.out.rfind("\n[[--- InitialWaveHeightSetting ---]]\n"
                               "\n[[--- FaultModel1 ---]]\nFileName:f.txt\n"
                               "DestDir:/out\nProjectName:P\n",
                               0),
              0u);
    parsed = Parse(WithFault("<ProjectName>P</ProjectName><DestDir>out</DestDir>"
                             "<Datum> 4612x</Datum>"));
    EXPECT_EQ(project().DestDir, "P/out");
    EXPECT_EQ(project().Datum, 4612);
    EXPECT_NE(parsed.out.find("DestDir:P/out\nDatum:4612\n"), std::string::npos);
}

TEST_F(XmlReader, TopLevelValuesTakeAllTextInsideTheElement) {
    Parse(WithFault("<ProjectName>Pro<!-- c -->ject</ProjectName><Datum></Datum>"));
    EXPECT_EQ(project().ProjectName, "Project");
    EXPECT_EQ(project().Datum, 3100);
}

TEST_F(XmlReader, DatumAtTheMomentOfAnElementIsItsDefaultCode) {
    Parse("<Project><CalcParameter>"
          "<Region><RegionNo>1</RegionNo></Region>"
          "<InitialWaveHeightSetting><FaultModel><FileName>a</FileName></FaultModel>"
          "</InitialWaveHeightSetting></CalcParameter>"
          "<Datum>4326</Datum><CalcParameter>"
          "<Region><RegionNo>2</RegionNo></Region>"
          "<InitialWaveHeightSetting><FaultModel><FileName>b</FileName></FaultModel>"
          "<FaultModel><EPSG>4612</EPSG></FaultModel><FaultModel><EPSG>2451</EPSG>"
          "</FaultModel></InitialWaveHeightSetting></CalcParameter>"
          "<CalcOutputSetting><Dump1d><StationPos/></Dump1d><CoastalPoint><ExtractPoint>"
          "<EPSG>2443</EPSG></ExtractPoint></CoastalPoint></CalcOutputSetting></Project>");
    QuorXmlParameter& p = project();
    EXPECT_EQ(p.Regions.at(1).EPSG, 3100);
    EXPECT_EQ(p.Regions.at(2).EPSG, 4326);
    ASSERT_EQ(p.Faults.size(), 4u);
    EXPECT_EQ(p.Faults[0].EPSG, 3100);
    EXPECT_EQ(p.Faults[0].CoordinateType, 0);
    EXPECT_EQ(p.Faults[1].EPSG, 4326);
    EXPECT_EQ(p.Faults[1].CoordinateType, 1);
    EXPECT_EQ(p.Faults[2].CoordinateType, 1);
    EXPECT_EQ(p.Faults[3].EPSG, 2451);
    EXPECT_EQ(p.Faults[3].CoordinateType, 0);
    ASSERT_EQ(p.StationPos.size(), 1u);
    EXPECT_EQ(p.StationPos[0].EPSG, 4326);
    ASSERT_EQ(p.ExtractPoints.size(), 1u);
    EXPECT_EQ(p.ExtractPoints[0].EPSG, 2443);
}

TEST_F(XmlReader, LayersOrderCoarsestFirstByTheIntegerPartOfTheirSize) {
    Parse(WithFault("<CalcParameter><LayerSet>"
                    "<Layer><LayerNo>1</LayerNo><GridSize>90</GridSize>"
                    "<TimeIncrementRatio>3</TimeIncrementRatio></Layer>"
                    "<Layer><LayerNo>2</LayerNo><GridSize>90.5</GridSize></Layer>"
                    "<Layer><GridSize>30</GridSize></Layer>"
                    "<Layer><LayerNo>4</LayerNo><GridSize>nan</GridSize></Layer>"
                    "<Layer><LayerNo>5</LayerNo><GridSize>1e300</GridSize></Layer>"
                    "</LayerSet><LayerSet><Layer><LayerNo>6</LayerNo><GridSize>270</GridSize>"
                    "</Layer></LayerSet></CalcParameter>"));
    std::vector<int> numbers, ratios;
    for (const auto& [size, layer] : project().Layers) {
        numbers.push_back(layer.LayerNo);
        ratios.push_back(layer.TimeIncrementRatio);
    }
    // 90 and 90.5 tie and keep document order; layer 3 inherits LayerNo 2 and ratio 3
    // from the layer before it, and the second set starts again from the defaults.
    // NaN and sizes beyond int both sort as the smallest integer: last.
    EXPECT_EQ(numbers, (std::vector<int>{6, 1, 2, 2, 4, 5}));
    EXPECT_EQ(ratios, (std::vector<int>{1, 3, 3, 3, 3, 3}));
}

TEST_F(XmlReader, RegionsKeepTheFirstOfANumberAndCountEveryElement) {
    const Parsed parsed = Parse(WithFault(
        "<CalcParameter><Region><RegionNo>2</RegionNo><RegionName>B</RegionName>"
        "<Topography><FileName>t.txt</FileName><UniformValue>-5</UniformValue></Topography>"
        "<RoughnessCoefficient><UniformValue>0.5</UniformValue></RoughnessCoefficient>"
        "<LandMap><UniformValue>3</UniformValue></LandMap></Region>"
        "<Region><RegionNo>1</RegionNo><RegionName>A</RegionName></Region></CalcParameter>"
        "<CalcParameter><Region><RegionNo>2</RegionNo><RegionName>C</RegionName></Region>"
        "</CalcParameter>"));
    const auto& regions = project().Regions;
    ASSERT_EQ(regions.size(), 2u);
    EXPECT_EQ(regions.begin()->first, 1);
    EXPECT_EQ(regions.at(2).RegionName, "B");
    EXPECT_NE(parsed.out.find("\n[[--- Region3 ---]]\nRegionNo:2\nRegionName:C\n"),
              std::string::npos);
    // Region 1 was read after region 2: names and roughness are reset, the other
    // uniform values carry over.
    const XML_REGION& a = regions.at(1);
    EXPECT_EQ(a.BaseRegionNo, -1);
    EXPECT_EQ(a.Topography.FileName, "");
    EXPECT_EQ(a.Topography.UniformValue, -5.0);
    EXPECT_EQ(a.LandMap.UniformValue, 3.0);
    EXPECT_EQ(a.RoughnessCoefficient.UniformValue, 0.025);
    EXPECT_EQ(regions.at(2).RoughnessCoefficient.UniformValue, 0.5);
}

TEST_F(XmlReader, EveryOutputSettingLandsInItsField) {
    Parse(WithFault(
        "<CalcOutputSetting><OutputStartTime>10</OutputStartTime>"
        "<Dump1d><Interval>1</Interval><Buffering>0</Buffering><Monolithic>0</Monolithic>"
        "<WaterHeight><Output>1</Output></WaterHeight><TotalDepth><Output>2</Output>"
        "</TotalDepth><WaterDischarge><Output>3</Output></WaterDischarge></Dump1d>"
        "<Dump2d><Interval>2</Interval><WaterHeight><Output>4</Output></WaterHeight>"
        "<WaterDischarge><Output>5</Output></WaterDischarge></Dump2d>"
        "<CoastalPoint><Interval>3</Interval><WaterHeight><Output>6</Output></WaterHeight>"
        "<WaterHeightArrivalTime><Output>7</Output><ThresholdFileName>t1"
        "</ThresholdFileName></WaterHeightArrivalTime><RelativeWaterHeight><Output>8"
        "</Output></RelativeWaterHeight><RelativeWaterHeightArrivalTime><Output>9</Output>"
        "<ThresholdFileName>t2</ThresholdFileName></RelativeWaterHeightArrivalTime>"
        "</CoastalPoint><Land><Interval>4</Interval><Inundation><Output>10</Output>"
        "</Inundation><InundationArrivalTime><Output>11</Output><ThresholdFileName>t3"
        "</ThresholdFileName></InundationArrivalTime></Land></CalcOutputSetting>"
        "<GeotiffSetting><Topography><FileName>a.clr</FileName></Topography>"
        "<RoughnessCoefficient><FileName>b.clr</FileName></RoughnessCoefficient>"
        "<WaveHeight><FileName>c.clr</FileName></WaveHeight></GeotiffSetting>"));
    const XML_OUTPUTSETTING& o = project().OutputSetting;
    EXPECT_EQ(o.OutputStartTime, 10.0);
    EXPECT_EQ(o.Dump1dInterval, 1.0);
    EXPECT_EQ(o.Buffering, 0);
    EXPECT_EQ(o.Monolithic, 0);
    EXPECT_EQ((std::vector<int>{o.Dump1dWaterHeight, o.Dump1dTotalDepth, o.Dump1dWaterDischarge,
                                o.Dump2dWaterHeight, o.Dump2dWaterDischarge,
                                o.CoastalWaterHeight, o.CoastalWaterHeightArrivalTime,
                                o.CoastalRelativeWaterHeight,
                                o.CoastalRelativeWaterHeightArrivalTime, o.LandInundation,
                                o.LandInundationArrivalTime}),
              (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
    EXPECT_EQ(o.Dump2dInterval, 2.0);
    EXPECT_EQ(o.CoastalInterval, 3.0);
    EXPECT_EQ(o.LandInterval, 4.0);
    EXPECT_EQ(o.CoastalWaterHeightThreshold, "t1");
    EXPECT_EQ(o.CoastalRelativeWaterHeightThreshold, "t2");
    EXPECT_EQ(o.LandInundationThreshold, "t3");
    EXPECT_EQ(project().GeotiffSetting.TopographyColorTable, "a.clr");
    EXPECT_EQ(project().GeotiffSetting.RoughnessColorTable, "b.clr");
    EXPECT_EQ(project().GeotiffSetting.WaveHeightColorTable, "c.clr");
}

TEST_F(XmlReader, AnyRootElementAndLeadingCommentsAreAccepted) {
    Parse("<?xml version=\"1.0\"?><!-- made by hand -->"
          "<!DOCTYPE Anything SYSTEM \"no-such.dtd\">"
          "<Anything><ProjectName>P</ProjectName></Anything>");
    EXPECT_EQ(project().ProjectName, "P");
}

TEST_F(XmlReader, WaveSourceInconsistencyIsAWarningThatKeepsTheRunGoing) {
    const std::string both =
        "  ERROR-DETAIL:You should make a choice between \"setting Ini Wave Heigh\" or setting "
        "\"Fault Parameter\".\n";
    Parsed parsed = Parse("<Project/>");
    EXPECT_EQ(parsed.result, 1);
    EXPECT_EQ(parsed.err, kRule + "ERROR:XML PARAMETER IS INCONSISTENCY\n" + both + kRule);

    parsed = Parse(WithFault("<CalcParameter><Region><WaveHeight/></Region></CalcParameter>"));
    EXPECT_EQ(parsed.result, 1);
    EXPECT_TRUE(project().HasInitialWaveHeight);
    EXPECT_EQ(parsed.err, kRule + "ERROR:XML PARAMETER IS INCONSISTENCY\n" + both + kRule);

    parsed = Parse("<Project><CalcParameter><Region><WaveHeight/></Region></CalcParameter>"
                   "<GeotiffSetting><WaveHeight/></GeotiffSetting></Project>");
    EXPECT_EQ(parsed.result, 2);
    EXPECT_EQ(parsed.err,
              kRule + "ERROR:XML PARAMETER IS INCONSISTENCY\n" +
                  "  ERROR-DETAIL:If you want to deform grand, You should make a choice setting "
                  "\"Fault Parameter\".\n"
                  "  ERROR-DETAIL:Particular attention should be given to "
                  "\"TopographyDeformation\".\n" +
                  kRule);

    // The colour table's WaveHeight is no region wave height.
    parsed = Parse(WithFault("<GeotiffSetting><WaveHeight/></GeotiffSetting>"));
    EXPECT_EQ(parsed.result, 1);
    EXPECT_EQ(parsed.err, "");
}

TEST_F(XmlReader, UnreadableOrMalformedFilesAreRefused) {
    for (const std::string xml : {"<Project><ProjectName>P</ProjectName>", "", "not xml",
                                  "<a></b>", "<a>&undefined;</a>"}) {
        const Parsed parsed = Parse(xml);
        EXPECT_EQ(parsed.result, 0) << xml;
        EXPECT_EQ(parsed.out, "") << xml;
        EXPECT_EQ(parsed.err, "Miss Parse\n") << xml;
    }
    QuorXmlParameter missing((dir_.path() / "absent.xml").string());
    const Parsed parsed = ParseFile(missing);
    EXPECT_EQ(parsed.result, 0);
    EXPECT_EQ(parsed.err, "Miss Parse\n");
}

TEST_F(XmlReader, EntityExpansionBombIsStoppedEarly) {
    std::string xml = "<!DOCTYPE p [<!ENTITY a0 \"0123456789012345678901234567890123456789\">";
    for (int level = 1; level <= 9; ++level) {
        xml += "<!ENTITY a" + std::to_string(level) + " \"";
        for (int copy = 0; copy < 10; ++copy)
            xml += "&a" + std::to_string(level - 1) + ";";
        xml += "\">";
    }
    xml += "]><p><ProjectName>&a9;</ProjectName></p>";
    const Parsed parsed = Parse(xml); // 40 GB if expanded
    EXPECT_EQ(parsed.result, 0);
    EXPECT_EQ(parsed.err, "Miss Parse\n");
}

TEST_F(XmlReader, ExternalEntitiesAreNotFollowed) {
    const std::string secret = dir_.Write("secret.txt", "TOPSECRET");
    const Parsed parsed =
        Parse("<!DOCTYPE p [<!ENTITY s SYSTEM \"file://" + secret + "\">]>"
              "<p><ProjectName>&s;</ProjectName></p>");
    EXPECT_EQ(parsed.result, 0);
    EXPECT_EQ(parsed.out.find("TOPSECRET"), std::string::npos);
    EXPECT_EQ(project().ProjectName, "");
    EXPECT_EQ(parsed.err, "Miss Parse\n");
}

TEST_F(XmlReader, SmallInternalEntitiesStillWork) {
    Parse("<!DOCTYPE p [<!ENTITY n \"Bay\">]><p><ProjectName>&n;</ProjectName></p>");
    EXPECT_EQ(project().ProjectName, "Bay");
}

TEST(XmlReaderNull, NullDocumentFillsNothing) {
    QuorXmlParameter project("x.xml");
    project.readParam(nullptr);
    EXPECT_EQ(project.ProjectName, "");
    EXPECT_EQ(project.Datum, 3100);
}

} // namespace
