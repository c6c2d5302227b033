#include "inputs/Fault.hpp"

#include "gis/GisTestSupport.hpp"
#include "region/RegionTestSupport.hpp"
#include "support/TempDir.hpp"

#include <tuple>
#include <vector>

namespace {

const std::string kOpen = "\n>>>>>>>>>>>>>>>>>> Fault Input:\n";
const std::string kClass = "ERROR:FAULT OBJECT METHOD";
const std::string kReading = "Abnormal action at Reading File Method.";

Fault FaultOf(const std::string& file, int coordType = 0, int epsg = 3100) {
    XML_FAULT rec;
    rec.FileName = file;
    rec.CoordinateType = coordType;
    rec.EPSG = epsg;
    return Fault(rec);
}

FAULT_PARAM Segment(double x, double y, double strike, double dip, double length, double width) {
    FAULT_PARAM seg;
    std::tie(seg.lon, seg.lat, seg.strike, seg.dip, seg.length, seg.width, seg.slip, seg.name) =
        std::tuple(x, y, strike, dip, length, width, 3.0, "S");
    return seg;
}

TEST(FaultReadFile, ColumnsNamesAndOptions) {
    TempDir dir;
    Fault fault = FaultOf(dir.Write("f.txt", "# lat lon ...\n"
                                             "38.5 142.25 1 2 190 45 7 6e4 3e4 4.5 \"A\" 11 12\n"
                                             "38\t142 3 4 5 6 7 8 9 10 \"B\"\"\" 13\r\n"
                                             "1 2 3 4 5 6 7 8 9 10 C\n"
                                             "1 2 3 4 5 6 7 8 9 10 \"North D\" x 5\n"));
    fault.endTime = 99.0;
    EXPECT_EQ(Outcome([&] { return fault.ReadFile(); }),
              "1|" + kOpen + "<<<<<<<<<<<<<<<<<< Completed.\n|");
    EXPECT_EQ(fault.endTime, 0.0);
    ASSERT_EQ(fault.segments.size(), 4u);
    const FAULT_PARAM& a = fault.segments[0];
    // Kept: the file lists latitude first.
    EXPECT_EQ((std::vector<double>{a.lon, a.lat, a.value3, a.value4, a.strike, a.dip, a.value7,
                                   a.length, a.width, a.slip, a.option1, a.option2}),
              (std::vector<double>{142.25, 38.5, 1, 2, 190, 45, 7, 6e4, 3e4, 4.5, 11, 12}));
    // Quotes go; twelve fields: no options, and the line end stays on the last field.
    EXPECT_EQ(a.name + fault.segments[1].name, "AB");
    EXPECT_EQ(fault.segments[1].option1, 0.0);
    EXPECT_EQ(fault.segments[2].name, "C\n"); // Kept: a name in the last column
    EXPECT_EQ(fault.segments[3].name, "North"); // blanks split a quoted name
    EXPECT_EQ(fault.segments[3].option1 + fault.segments[3].option2, 0.0);
}

TEST(FaultReadFile, MalformedLineKeepsTheSegmentsBeforeIt) {
    TempDir dir;
    // A line without a name; segments before it stay.
    Fault fault = FaultOf(dir.Write("f.txt", "1 2 3 4 5 6 7 8 9 10 N\n1 2 3 4 5 6 7 8 9 10\n"));
    EXPECT_EQ(Outcome([&] { return fault.ReadFile(); }),
              "0|" + kOpen + "|" +
                  ErrorBlock(kClass, {kReading, "You should check the Format of Fault File."}));
    EXPECT_EQ(fault.segments.size(), 1u);
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
    // Strike 90: the upper edge runs east, the plane dips south; width 40 at dip 60 is 20
    // across.
    fault.segments = {Segment(1000, 2000, 90, 60, 100, 40), Segment(-50, -60, 0, 0, 30, 20)};
    fault.segments[1].name = "second\n";
    const std::string path = dir.path().string() + "/FaultModel001.shp";
    EXPECT_EQ(Outcome([&] { return fault.MakeShapefile(path); }), "1||");
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
    fault.segments = {Segment(142.0, 38.0, 0, 60, 10000, 5000),
                      // East of 180: worked out in zone 1 and written east of 180.
                      Segment(180.5, -10.0, 90, 0, 1000, 1000),
                      Segment(180.0, 38.0, 0, 45, 1000, 1000)}; // zone 61: none
    const std::string path = dir.path().string() + "/FaultModel002.shp";
    const std::string zone = "Deformation Calc. UTM Zone:";
    EXPECT_EQ(Outcome([&] { return fault.MakeShapefile(path); }),
              "0|" + zone + "54\nlon0:142 lat0:38\n" + zone + "54\n" + zone +
                  "1\nlon0:180.5 lat0:-10\n" + zone + "1\n" + zone + "61\nlon0:180 lat0:38\n|" +
                  ErrorBlock(kClass, {"Abnormal action at Making Shapefile Method.",
                                      "Particular attention should be given to \" \"."}));
    const auto features = FeaturesOf(path);
    ASSERT_EQ(features.size(), 2u);
    const auto &north = features[0].vertices, &east = features[1].vertices;
    ASSERT_TRUE(north.size() == 5 && east.size() == 5);
    // Grid north, a little east of true north one degree east of the zone's meridian:
    // 10 km along it, then 2.5 km across to the east.
    ExpectRing(features[0], {{142.0, 38.0}, north[1], north[2], north[3], {142.0, 38.0}});
    EXPECT_NEAR(north[1].second - 38.0, 10000.0 / 111000.0, 2e-3);
    EXPECT_NEAR(north[1].first, 142.0015, 0.0015);
    EXPECT_NEAR(north[3].first - 142.0, 2500.0 / 87700.0, 5e-4);
    EXPECT_NEAR(east[0].first, 180.5, 1e-9);
    EXPECT_GT(east[1].first, 180.5);  // along strike: east
    EXPECT_LT(east[2].second, -10.0); // across it: south
}

TEST(FaultMakeShapefile, UnwritableDirectory) {
    TempDir dir;
    Fault two = FaultOf("");
    two.segments = {Segment(0, 0, 0, 0, 1, 1), Segment(5, 5, 0, 0, 1, 1)};
    const std::string block = ErrorBlock(kClass, {"Abnormal action at Making Shapefile Method.",
                                                  "Particular attention should be given to \" \"."});
    // A file that cannot be stored fails the shapefile.
    std::filesystem::create_directory(dir.path() / "F.dbf");
    EXPECT_EQ(Outcome([&] { return two.MakeShapefile(dir.path().string() + "/F.shp"); }),
              "0|Error : Shapefile::close() -> fopen(" + dir.path().string() + "/F.dbf)\n|" +
                  block);
    // Kept: a creation the writer refuses shows as one refusal per segment, and the
    // shapefile counts as made.
    const std::string refused =
        "Error : Shapefile::writePolygon() -> Layer null or Type not POLYGON\n";
    for (const std::string& at : {dir.path().string() + "/none/F.shp", dir.path().string()})
        EXPECT_EQ(Outcome([&] { return two.MakeShapefile(at); }),
                  "1|Error : Shapefile::create() -> OGRSFDriver::CreateDataSource()\n" + refused +
                      refused + "|");
}

} // namespace
