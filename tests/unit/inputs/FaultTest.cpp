#include "inputs/Fault.hpp"

#include "gis/GisTestSupport.hpp"
#include "support/TempDir.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace std::string_literals;

const std::string kOpen = "\n>>>>>>>>>>>>>>>>>> Fault Input:\n";
const std::string kDone = "<<<<<<<<<<<<<<<<<< Completed.\n";
const std::string kRule = "_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/\n";
const std::string kClass = "ERROR:FAULT OBJECT METHOD\n";
const std::string kReading = "  ERROR-DETAIL:Abnormal action at Reading File Method.\n";

Fault FaultOf(const std::string& file, int coordType = 0, int epsg = 3100) {
    XML_FAULT rec;
    rec.FileName = file;
    rec.CoordinateType = coordType;
    rec.EPSG = epsg;
    return Fault(rec);
}

FAULT_PARAM Segment(double x, double y, double strike, double dip, double length, double width) {
    FAULT_PARAM seg;
    seg.lon = x;
    seg.lat = y;
    seg.strike = strike;
    seg.dip = dip;
    seg.length = length;
    seg.width = width;
    seg.slip = 3.0;
    seg.name = "S";
    return seg;
}

TEST(FaultReadFile, ColumnsNamesAndOptions) {
    TempDir dir;
    Fault fault = FaultOf(dir.Write("f.txt", "# lat lon ...\n"
                                             "38.5 142.25 1 2 190 45 7 6e4 3e4 4.5 \"A\" 11 12\n"
                                             "38\t142 3 4 5 6 7 8 9 10 \"B\"\"\" 13\r\n"
                                             "1 2 3 4 5 6 7 8 9 10 C\n"
                                             "1 2 3 4 5 6 7 8 9 10 \"North D\" x 5\n"
                                             "1 2 3 4 5 6 7 8 9 10 last"));
    fault.endTime = 99.0;
    const Said said = CaptureSaid([&] { return fault.ReadFile(); });
    EXPECT_TRUE(said.result);
    EXPECT_EQ(said.out, kOpen + kDone);
    EXPECT_EQ(said.err, "");
    EXPECT_EQ(fault.endTime, 0.0);
    ASSERT_EQ(fault.segments.size(), 5u);
    const FAULT_PARAM& a = fault.segments[0];
    // Kept: the file lists latitude first.
    EXPECT_EQ((std::vector<double>{a.lon, a.lat, a.value3, a.value4, a.strike, a.dip, a.value7,
                                   a.length, a.width, a.slip, a.option1, a.option2}),
              (std::vector<double>{142.25, 38.5, 1, 2, 190, 45, 7, 6e4, 3e4, 4.5, 11, 12}));
    EXPECT_EQ(a.name, "A");
    // Twelve fields: no options, and the line end stays on the last field, not the name.
    EXPECT_EQ(fault.segments[1].name, "B");
    EXPECT_EQ(fault.segments[1].option1, 0.0);
    // Kept: a name in the last column carries the line end into the segment.
    EXPECT_EQ(fault.segments[2].name, "C\n");
    // Blanks split a quoted name.
    EXPECT_EQ(fault.segments[3].name, "North");
    EXPECT_EQ(fault.segments[3].option1, 0.0);
    EXPECT_EQ(fault.segments[3].option2, 0.0);
    EXPECT_EQ(fault.segments[4].name, "last");
}

TEST(FaultReadFile, MalformedLinesAndLineBuffer) {
    TempDir dir;
    const std::string good = "1 2 3 4 5 6 7 8 9 10 N\n";
    const std::string tail = " 2 3 4 5 6 7 8 9 10 N\n";
    const struct {
        std::string text;
        size_t kept; // segments before the bad line stay
    } cases[] = {
        {good + "\n" + good, 1},                  // blank line
        {" # not a comment\n", 0},                // only a first-column # starts one
        {good + "1 2 3 4 5 6 7 8 9 10\n", 1},     // no name
        {"1 2 3 4 5 6 7 8 9\n", 0},               //
        {"#" + std::string(1500, 'c') + "\n", 0}, // the rest of a long comment is a line
        // 1022 characters fill the buffer: the line end alone is read as a blank line.
        {std::string(1022 - tail.size() + 1, '1') + tail, 1},
    };
    for (const auto& c : cases) {
        Fault fault = FaultOf(dir.Write("f.txt", c.text));
        const Said said = CaptureSaid([&] { return fault.ReadFile(); });
        EXPECT_FALSE(said.result) << c.text.substr(0, 30);
        EXPECT_EQ(said.out, kOpen);
        EXPECT_EQ(said.err, kRule + kClass + kReading +
                                "  ERROR-DETAIL:You should check the Format of Fault File.\n" +
                                kRule);
        EXPECT_EQ(fault.segments.size(), c.kept) << c.text.substr(0, 30);
    }
    // One character shorter fits the buffer whole; an empty file is an empty list.
    for (const std::string& text : {std::string(1021 - tail.size() + 1, '1') + tail, "#\n"s}) {
        Fault fault = FaultOf(dir.Write("f.txt", text));
        EXPECT_EQ(CaptureSaid([&] { return fault.ReadFile(); }).out, kOpen + kDone);
    }

    for (const std::string& path : {dir.path().string() + "/none", dir.path().string()}) {
        Fault fault = FaultOf(path);
        const Said said = CaptureSaid([&] { return fault.ReadFile(); });
        EXPECT_FALSE(said.result);
        EXPECT_EQ(said.err,
                  kRule + kClass + kReading + "  ERROR-DETAIL:Can not open file.\n" +
                      "  ERROR-DETAIL:Particular attention should be given to \"Fault File\".\n" +
                      kRule);
    }
}

TEST(FaultStrReplace, ResumesAfterInsertedText) {
    const struct {
        std::string text, from, to, expected;
    } cases[] = {
        {"\"A\"\"B\"", "\"", "", "AB"},
        {"aaa", "a", "aa", "aaaaaa"},
        {"abab", "ab", "b", "bb"},
        {"xyz", "", "q", "xyz"},
    };
    for (auto c : cases) {
        Fault::strReplace(c.text, c.from, c.to);
        EXPECT_EQ(c.text, c.expected);
    }
}

void ExpectRing(const ReadFeature& f, const std::vector<std::pair<double, double>>& ring) {
    ASSERT_EQ(f.vertices.size(), ring.size());
    for (size_t k = 0; k < ring.size(); ++k) {
        EXPECT_NEAR(f.vertices[k].first, ring[k].first, 1e-6) << k;
        EXPECT_NEAR(f.vertices[k].second, ring[k].second, 1e-6) << k;
    }
}

TEST(FaultMakeShapefile, OutlineInMetres) {
    TempDir dir;
    Fault fault = FaultOf("", 0, 2451);
    // Strike 90: the upper edge runs east and the plane dips south. Width 40 at dip 60
    // is 20 across.
    fault.segments.push_back(Segment(1000, 2000, 90, 60, 100, 40));
    fault.segments.push_back(Segment(-50, -60, 0, 0, 30, 20));
    fault.segments[1].name = "second\n";
    const std::string path = dir.path().string() + "/FaultModel001.shp";
    const Said said = CaptureSaid([&] { return fault.MakeShapefile(path); });
    EXPECT_TRUE(said.result);
    EXPECT_EQ(said.out + said.err, "");

    int epsg = 0;
    const auto features = FeaturesOf(path, &epsg);
    EXPECT_EQ(epsg, 2451);
    ASSERT_EQ(features.size(), 2u);
    ExpectRing(features[0], {{1000, 2000}, {1100, 2000}, {1100, 1980}, {1000, 1980}, {1000, 2000}});
    ExpectRing(features[1], {{-50, -60}, {-50, -30}, {-30, -30}, {-30, -60}, {-50, -60}});
    EXPECT_EQ(features[0].name, "S");
    EXPECT_EQ(features[0].slip, 3.0);
    EXPECT_EQ(features[1].name, "second\n");
}

TEST(FaultMakeShapefile, OutlineInDegreesThroughUtm) {
    TempDir dir;
    Fault fault = FaultOf("", 1, 4612);
    fault.segments.push_back(Segment(142.0, 38.0, 0, 60, 10000, 5000));
    // East of 180: worked out in zone 1 and written east of 180, not negative.
    fault.segments.push_back(Segment(180.5, -10.0, 90, 0, 1000, 1000));
    fault.segments.push_back(Segment(180.0, 38.0, 0, 45, 1000, 1000)); // zone 61: none
    const std::string path = dir.path().string() + "/FaultModel002.shp";
    const Said said = CaptureSaid([&] { return fault.MakeShapefile(path); });
    EXPECT_FALSE(said.result);
    EXPECT_EQ(said.out, "Deformation Calc. UTM Zone:54\nlon0:142 lat0:38\n"
                        "Deformation Calc. UTM Zone:54\n"
                        "Deformation Calc. UTM Zone:1\nlon0:180.5 lat0:-10\n"
                        "Deformation Calc. UTM Zone:1\n"
                        "Deformation Calc. UTM Zone:61\nlon0:180 lat0:38\n");
    EXPECT_EQ(said.err,
              kRule + kClass + "  ERROR-DETAIL:Abnormal action at Making Shapefile Method.\n" +
                  "  ERROR-DETAIL:Particular attention should be given to \" \".\n" + kRule);

    const auto features = FeaturesOf(path);
    ASSERT_EQ(features.size(), 2u);
    const auto& north = features[0].vertices;
    ASSERT_EQ(north.size(), 5u);
    EXPECT_NEAR(north[0].first, 142.0, 1e-9);
    EXPECT_NEAR(north[0].second, 38.0, 1e-9);
    // Grid north, a little east of true north one degree east of the zone's meridian:
    // 10 km along it, then 2.5 km across to the east (turning slightly south).
    EXPECT_NEAR(north[1].second - 38.0, 10000.0 / 111000.0, 2e-3);
    EXPECT_GT(north[1].first, 142.0);
    EXPECT_LT(north[1].first, 142.003);
    EXPECT_NEAR(north[3].first - 142.0, 2500.0 / 87700.0, 5e-4);
    EXPECT_NEAR(north[3].second, 38.0, 4e-4);
    const auto& east = features[1].vertices;
    ASSERT_EQ(east.size(), 5u);
    EXPECT_NEAR(east[0].first, 180.5, 1e-9);
    EXPECT_GT(east[1].first, 180.5);  // along strike: east
    EXPECT_LT(east[2].second, -10.0); // across it: south
}

TEST(FaultMakeShapefile, EmptyListAndUnwritableDirectory) {
    TempDir dir;
    const std::string path = dir.path().string() + "/FaultModel003.shp";
    EXPECT_TRUE(CaptureSaid([&] { return FaultOf("").MakeShapefile(path); }).result);
    EXPECT_TRUE(FeaturesOf(path).empty());

    // Kept: a shapefile that cannot be made shows as one refusal per segment, and the
    // answer is still true.
    Fault two = FaultOf("");
    two.segments = {Segment(0, 0, 0, 0, 1, 1), Segment(5, 5, 0, 0, 1, 1)};
    const Said said =
        CaptureSaid([&] { return two.MakeShapefile(dir.path().string() + "/none/F.shp"); });
    EXPECT_TRUE(said.result);
    EXPECT_EQ(said.out, "Error : Shapefile::create() -> OGRDataSource::CreateLayer()\n"
                        "Error : Shapefile::writePolygon() -> Layer null or Type not POLYGON\n"
                        "Error : Shapefile::writePolygon() -> Layer null or Type not POLYGON\n");
    EXPECT_EQ(said.err, "");
}

} // namespace
