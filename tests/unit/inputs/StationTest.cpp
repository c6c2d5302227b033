#include "inputs/Station.hpp"

#include "gis/GisTestSupport.hpp"
#include "support/TempDir.hpp"

#include <gtest/gtest.h>

#include <array>
#include <fstream>
#include <iterator>
#include <string>

namespace {

const std::string kOpen = "\n>>>>>>>>>>>>>>>>>> Station Input:\n";
const std::string kDone = "<<<<<<<<<<<<<<<<<< Completed.\n";
const std::string kRule = "_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/\n";

Station StationOf(const std::string& file, int epsg = 3100) {
    XML_STATION rec;
    rec.FileName = file;
    rec.EPSG = epsg;
    return Station(rec);
}

PosXY PointAt(double x, double y, const std::string& name) {
    PosXY p;
    p.x = x;
    p.y = y;
    p.name = name;
    return p;
}

TEST(StationReadFile, PointsInFileOrder) {
    TempDir dir;
    Station list = StationOf(dir.Write("s.txt", "# x y name\n"
                                                "139.75\t35.5 \"Tokyo\" ignored fields\r\n"
                                                "  140 36 Choshi\n"
                                                "1e3 -2 Choshi"));
    const Said said = CaptureSaid([&] { return list.ReadFile(); });
    EXPECT_TRUE(said.result);
    EXPECT_EQ(said.out, kOpen + "Input 3Stations.\n" + kDone);
    EXPECT_EQ(said.err, "");
    ASSERT_EQ(list.points.size(), 3u);
    EXPECT_EQ(list.points[0].x, 139.75);
    EXPECT_EQ(list.points[0].y, 35.5);
    EXPECT_EQ(list.points[0].name, "\"Tokyo\""); // quotes kept, line end not
    EXPECT_EQ(list.points[1].name, "Choshi");
    EXPECT_EQ(list.points[2].x, 1000.0);
    EXPECT_EQ(list.points[2].name, "Choshi"); // duplicates allowed
    for (const PosXY& p : list.points)
        EXPECT_EQ((std::array{p.bestRegionNo, p.bestI, p.bestJ}), (std::array{-1, -1, -1}));
}

TEST(StationReadFile, MalformedLines) {
    TempDir dir;
    const struct {
        std::string text;
        size_t kept;
    } cases[] = {
        {"1 2 A\n139 35\n", 1},                 // only the two coordinates
        {"1 2 A\r\n \t\r\n", 1},                // white space only
        {" #1 2\n", 0},                         // not a comment
        {std::string(1021, '1') + " 2 N\n", 0}, // too long: read in pieces
    };
    for (const auto& c : cases) {
        Station list = StationOf(dir.Write("s.txt", c.text));
        const Said said = CaptureSaid([&] { return list.ReadFile(); });
        EXPECT_FALSE(said.result) << c.text.substr(0, 20);
        EXPECT_EQ(said.out, kOpen);
        EXPECT_EQ(said.err, kRule + "ERROR:STATION OBJECT METHOD\n" +
                                "  ERROR-DETAIL:Abnormal action at Reading File Method.\n" +
                                "  ERROR-DETAIL:You should check the Format of Station File.\n" +
                                kRule);
        EXPECT_EQ(list.points.size(), c.kept) << c.text.substr(0, 20);
    }
}

TEST(StationReadFile, MissingFileIsOnlyAWarning) {
    TempDir dir;
    Station list = StationOf(dir.path().string() + "/none.txt");
    const Said said = CaptureSaid([&] { return list.ReadFile(); });
    EXPECT_TRUE(said.result);
    EXPECT_EQ(said.out, kOpen + kDone);
    EXPECT_EQ(said.err, " WARNING:Can not open file.\n"
                        " WARNING:Particular attention should be given to \"Station File\".\n");
    EXPECT_TRUE(list.points.empty());

    const std::string shp = dir.path().string() + "/Station_3100.shp";
    EXPECT_TRUE(CaptureSaid([&] { return list.MakeShapefile(shp); }).result);
    EXPECT_TRUE(FeaturesOf(shp).empty()); // opens: an empty point shapefile

    // A name that opens but cannot be read is an error, not a missing list.
    Station folder = StationOf(dir.path().string());
    const Said error = CaptureSaid([&] { return folder.ReadFile(); });
    EXPECT_FALSE(error.result);
    EXPECT_EQ(error.err, kRule + "ERROR:STATION OBJECT METHOD\n" +
                             "  ERROR-DETAIL:Abnormal action at Reading File Method.\n" +
                             "  ERROR-DETAIL:Can not open file.\n" +
                             "  ERROR-DETAIL:Particular attention should be given to \"Station "
                             "File\".\n" +
                             kRule);
}

TEST(StationMakeShapefile, PointsNamesAndCoordinateSystem) {
    TempDir dir;
    Station list = StationOf("", 4612);
    list.points = {PointAt(139.75, 35.5, "P1"), PointAt(144.375, 42.96875, "P1"),
                   PointAt(-5, 5, "Q")};
    const std::string path = dir.path().string() + "/ExtractPoint_4612.shp";
    const Said said = CaptureSaid([&] { return list.MakeShapefile(path); });
    EXPECT_TRUE(said.result);
    EXPECT_EQ(said.out + said.err, "");

    int epsg = 0;
    const auto features = FeaturesOf(path, &epsg);
    EXPECT_EQ(epsg, 4612);
    ASSERT_EQ(features.size(), 3u);
    for (size_t k = 0; k < 3; ++k) {
        EXPECT_EQ(features[k].name, list.points[k].name);
        // Longitude stays x in a geographic system.
        EXPECT_EQ(features[k].vertices,
                  (std::vector{std::make_pair(list.points[k].x, list.points[k].y)}));
    }

    // Kept: a shapefile that cannot be made shows per point, and the answer is still true.
    list.points.resize(2);
    const Said refused =
        CaptureSaid([&] { return list.MakeShapefile(dir.path().string() + "/none/S.shp"); });
    EXPECT_TRUE(refused.result);
    EXPECT_EQ(refused.out, "Error : Shapefile::create() -> OGRDataSource::CreateLayer()\n"
                           "Error : Shapefile::writePoint() -> Layer null or Type not POINT\n"
                           "Error : Shapefile::writePoint() -> Layer null or Type not POINT\n");
}

TEST(StationWriteBestPoint, AppendsOneBasedCells) {
    TempDir dir;
    Station list = StationOf("");
    list.points = {PointAt(1, 2, "inside"), PointAt(3, 4, "nowhere")};
    list.points[0].bestRegionNo = 2;
    list.points[0].bestI = 0;
    list.points[0].bestJ = 41;
    const std::string path = dir.path().string() + "/Dump1d_BEST.txt";
    for (int run = 0; run < 2; ++run) {
        const Said said = CaptureSaid([&] { return list.WriteBestPoint(path); });
        EXPECT_TRUE(said.result);
        EXPECT_EQ(said.out + said.err, "");
    }
    std::ifstream in(path, std::ios::binary);
    const std::string once = "1, 42, inside, 2\n0, 0, nowhere, -1\n";
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), once + once);

    const Said said =
        CaptureSaid([&] { return list.WriteBestPoint(dir.path().string() + "/none/B.txt"); });
    EXPECT_FALSE(said.result);
    // Kept: the method line says "Reading" although the method writes.
    EXPECT_EQ(said.err, kRule + "ERROR:STATION OBJECT METHOD\n" +
                            "  ERROR-DETAIL:Abnormal action at Reading File Method.\n" +
                            "  ERROR-DETAIL:Particular attention should be given to \" \".\n" +
                            kRule);
}

} // namespace
