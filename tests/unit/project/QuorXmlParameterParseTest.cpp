#include "project/QuorXmlParameter.hpp"

#include "hardening/HostileProjects.hpp"
#include "region/RegionTestSupport.hpp"
#include "support/TempDir.hpp"

#include <memory>
#include <vector>

namespace {

// Parses `xml` written to a temp file into `project`; gives the Outcome.
class XmlReader : public testing::Test {
  protected:
    std::string Parse(const std::string& xml) { return ParseFile(dir_.Write("p.xml", xml)); }
    std::string ParseFile(const std::string& path) {
        project_ = std::make_unique<QuorXmlParameter>(path);
        return Outcome([&] { return project_->exeParse(); });
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

std::string Calc(const std::string& settings) {
    return WithFault("<CalcParameter><TsunamiCalcSetting>" + settings +
                     "</TsunamiCalcSetting></CalcParameter>");
}

TEST_F(XmlReader, ValuesConvertLikeTheCLibraryAndEchoTheRawText) {
    EXPECT_EQ(Parse(Calc("<TotalTime> 3600 </TotalTime><TimeIncrement>1e3</TimeIncrement>"
                         "<TideWaterLevel>-1.5cm</TideWaterLevel><RiseUpType>+7</RiseUpType>"
                         "<DispersiveWave><MaxIter>12abc</MaxIter><ConvergenceValue>x"
                         "</ConvergenceValue></DispersiveWave>")),
              "1|\n[[--- InitialWaveHeightSetting ---]]\n\n[[--- FaultModel1 ---]]\n"
              "FileName:f.txt\n\n[[--- TsunamiCalcSetting ---]]\nTotalTime: 3600 \n"
              "TimeIncrement:1e3\nTideWaterLevel:-1.5cm\nRiseUpType:+7\n\n"
              "[[--- DispersiveWave ---]]\nMaxIter:12abc\nConvergenceValue:x\n|");
    const QuorXmlParameter& p = project();
    EXPECT_EQ((std::vector{p.TotalTime, p.TimeIncrement, p.TideWaterLevel, p.ConvergenceValue}),
              (std::vector{3600.0, 1000.0, -1.5, 0.0}));
    EXPECT_EQ(std::pair(p.RiseUpType, p.MaxIter), std::pair(7, 12));
    // Integers outside the range clamp instead of overflowing.
    Parse(Calc("<RiseUpType>99999999999</RiseUpType><SpongeBoundary>-99999999999"
               "</SpongeBoundary>"));
    EXPECT_EQ(project().RiseUpType, 2147483647);
    EXPECT_EQ(project().SpongeBoundary, -2147483647 - 1);
}

TEST_F(XmlReader, OnlyALeadingTextChildGivesAValueWithItsBlanks) {
    const std::string parsed = Parse(
        Calc("<TotalTime><!-- comment -->3600</TotalTime><TimeIncrement></TimeIncrement>"
             "<FroudeNumberLimit/><FlowVelocityLimit><![CDATA[4.5]]></FlowVelocityLimit>"));
    EXPECT_EQ(project().TotalTime, 0.0);
    EXPECT_EQ(project().FroudeNumberLimit, 2.0);
    EXPECT_EQ(project().FlowVelocityLimit, 4.5);
    EXPECT_EQ(parsed.find("Time"), std::string::npos);
    EXPECT_NE(parsed.find("FlowVelocityLimit:4.5\n"), std::string::npos);
    // Blanks stay; names match case-sensitively.
    Parse(WithFault("<CalcParameter><ConstructionLineParameter><FileName> a b.txt</FileName>"
                    "</ConstructionLineParameter><DynamicDeformationParameter>"
                    "<filename>x</filename></DynamicDeformationParameter></CalcParameter>"));
    EXPECT_EQ(project().ConstLine.FileName, " a b.txt");
    EXPECT_EQ(project().Dynamic.FileName, "");
    // Top-level values take all text inside the element.
    Parse(WithFault("<ProjectName>Pro<!-- c -->ject</ProjectName><Datum></Datum>"));
    EXPECT_EQ(project().ProjectName, "Project");
    EXPECT_EQ(project().Datum, 3100);
}

TEST_F(XmlReader, DestDirIsPrefixedWithTheProjectNameReadSoFar) {
    std::string parsed = Parse(WithFault("<DestDir>out</DestDir><ProjectName>P</ProjectName>"));
    EXPECT_EQ(project().DestDir, "/out");
    EXPECT_NE(parsed.find("FileName:f.txt\nDestDir:/out\nProjectName:P\n"), std::string::npos);
    parsed = Parse(WithFault("<ProjectName>P</ProjectName><DestDir>out</DestDir>"
                             "<Datum> 4612x</Datum>"));
    EXPECT_EQ(project().DestDir, "P/out");
    EXPECT_EQ(project().Datum, 4612);
    EXPECT_NE(parsed.find("DestDir:P/out\nDatum:4612\n"), std::string::npos);
}

TEST_F(XmlReader, DatumAtTheMomentOfAnElementIsItsDefaultCode) {
    Parse("<Project><CalcParameter><Region><RegionNo>1</RegionNo></Region><InitialWaveHeight"
          "Setting><FaultModel/></InitialWaveHeightSetting></CalcParameter><Datum>4326</Datum>"
          "<CalcParameter><Region><RegionNo>2</RegionNo></Region><InitialWaveHeightSetting>"
          "<FaultModel/><FaultModel><EPSG>2451</EPSG></FaultModel></InitialWaveHeightSetting>"
          "</CalcParameter><CalcOutputSetting><Dump1d><StationPos/></Dump1d></CalcOutputSetting>"
          "</Project>");
    const QuorXmlParameter& p = project();
    ASSERT_TRUE(p.Faults.size() == 3 && p.StationPos.size() == 1);
    EXPECT_EQ((std::vector{p.Regions.at(1).EPSG, p.Regions.at(2).EPSG, p.Faults[0].EPSG,
                           p.Faults[1].EPSG, p.Faults[2].EPSG, p.StationPos[0].EPSG}),
              (std::vector{3100, 4326, 3100, 4326, 2451, 4326}));
    EXPECT_EQ((std::vector{p.Faults[0].CoordinateType, p.Faults[1].CoordinateType,
                           p.Faults[2].CoordinateType}),
              (std::vector{0, 1, 0}));
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
    const std::string parsed = Parse(WithFault(
        "<CalcParameter><Region><RegionNo>2</RegionNo><RegionName>B</RegionName><Topography>"
        "<FileName>t.txt</FileName><UniformValue>-5</UniformValue></Topography>"
        "<RoughnessCoefficient><UniformValue>0.5</UniformValue></RoughnessCoefficient></Region>"
        "<Region><RegionNo>1</RegionNo></Region><Region><RegionNo>2</RegionNo><RegionName>C"
        "</RegionName></Region></CalcParameter>"));
    const auto& regions = project().Regions;
    ASSERT_EQ(regions.size(), 2u);
    EXPECT_EQ(regions.at(2).RegionName, "B");
    EXPECT_NE(parsed.find("\n[[--- Region3 ---]]\nRegionNo:2\nRegionName:C\n"), std::string::npos);
    // Region 1, read after region 2: names and roughness reset, other uniform values carried.
    const XML_REGION& a = regions.at(1);
    EXPECT_EQ(std::tuple(a.BaseRegionNo, a.Topography.FileName, a.Topography.UniformValue,
                         a.RoughnessCoefficient.UniformValue),
              std::tuple(-1, "", -5.0, 0.025));
}

TEST_F(XmlReader, WaveSourceInconsistencyIsAWarningThatKeepsTheRunGoing) {
    const std::string head = "ERROR:XML PARAMETER IS INCONSISTENCY";
    EXPECT_EQ(Parse("<Project/>"), // neither
              "1||" + ErrorBlock(head, {"You should make a choice between \"setting Ini Wave "
                                        "Heigh\" or setting \"Fault Parameter\"."}));
    EXPECT_EQ(Parse("<Project><CalcParameter><Region><WaveHeight/></Region></CalcParameter>"
                    "<GeotiffSetting><WaveHeight/></GeotiffSetting></Project>"),
              "2|\n[[--- Region1 ---]]\n\n[[--- WaveHeight ---]]\n|" +
                  ErrorBlock(head, {"If you want to deform grand, You should make a choice "
                                    "setting \"Fault Parameter\".",
                                    "Particular attention should be given to "
                                    "\"TopographyDeformation\"."}));
    // The colour table's WaveHeight is no region wave height.
    const std::string quiet = Parse(WithFault("<GeotiffSetting><WaveHeight/></GeotiffSetting>"));
    EXPECT_TRUE(quiet[0] == '1' && quiet.back() == '|') << quiet; // nothing on stderr
}

// `count` copies of "<a>" around `inner`, and `count` attributes.
std::string Nested(int count, const std::string& inner) {
    return hostile::Times("<a>", count) + inner + hostile::Times("</a>", count);
}
std::string Attributes(int count) {
    std::string text;
    for (int k = 0; k < count; ++k)
        text += " a" + std::to_string(k) + "=\"1\"";
    return text;
}

// Past the depth limit, reading the project name's text used to overflow the stack and
// the parse took time growing with the square of the depth; each attribute cost a search
// of those before it.
TEST_F(XmlReader, MalformedFilesEntityBombsExternalEntitiesAndPastTheLimitsAreRefused) {
    const std::string bomb = hostile::Chain(10, 10, std::string(40, 'x')); // 40 GB expanded
    const std::string secret = dir_.Write("secret.txt", "TOPSECRET");
    for (const std::string& xml :
         {std::string("<Project><ProjectName>P</ProjectName>"), std::string(),
          std::string("<a></b>"), std::string("<a>&undefined;</a>"),
          std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR\0\0\0\x03", 20), // a picture
          "<!DOCTYPE p [" + bomb + "]><p><ProjectName>&l9;</ProjectName></p>",
          "<!DOCTYPE p [<!ENTITY s SYSTEM \"file://" + secret +
              "\">]><p><ProjectName>&s;</ProjectName></p>",
          "<P><ProjectName>" + Nested(200000, "Bay") + "</ProjectName></P>",
          "<P><ProjectName>" + Nested(255, "Bay") + "</ProjectName></P>",
          "<P" + Attributes(257) + "><ProjectName>Bay</ProjectName></P>"}) {
        EXPECT_EQ(Parse(xml), "0||Miss Parse\n") << xml.substr(0, 80);
        EXPECT_EQ(project().ProjectName, "");
    }
    for (const std::string& path : {(dir_.path() / "absent.xml").string(), dir_.path().string()})
        EXPECT_EQ(ParseFile(path), "0||Miss Parse\n") << path;
    Parse("<!DOCTYPE p [<!ENTITY n \"Bay\">]><p><ProjectName>&n;</ProjectName></p>");
    EXPECT_EQ(project().ProjectName, "Bay"); // small internal entities still work
    // Up to the limits: the root, ProjectName and 254 levels make 256; empty elements end
    // where they start, so any number of them leaves the depth as it was.
    const std::string empties = "<Empty" + Attributes(256) + "/>" + hostile::Times("<Empty/>", 299);
    const std::string read = Parse("<P" + Attributes(256) + ">" + empties + "<ProjectName>" +
                                   Nested(254, "Bay") + "</ProjectName></P>");
    EXPECT_NE(read[0], '0');
    EXPECT_EQ(read.find("Miss Parse"), std::string::npos);
    EXPECT_EQ(project().ProjectName, "Bay");
}

} // namespace
