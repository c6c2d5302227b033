#include "inputs/Station.hpp"

#include "gis/GisTestSupport.hpp"
#include "region/RegionTestSupport.hpp"
#include "support/TempDir.hpp"

#include <tuple>

namespace {

const std::string kOpen = "\n>>>>>>>>>>>>>>>>>> Station Input:\n";
const std::string kDone = "<<<<<<<<<<<<<<<<<< Completed.\n";
const std::string kClass = "ERROR:STATION OBJECT METHOD";
const std::string kReading = "Abnormal action at Reading File Method.";

Station StationOf(const std::string& file, int epsg = 3100) {
    XML_STATION rec;
    rec.FileName = file;
    rec.EPSG = epsg;
    return Station(rec);
}

PosXY PointAt(double x, double y, const std::string& name) {
    PosXY p;
    std::tie(p.x, p.y, p.name) = std::tuple(x, y, name);
    return p;
}

TEST(StationReadFile, PointsInFileOrderWithoutLineEnds) {
    TempDir dir;
    Station list = StationOf(dir.Write("s.txt", "# x y name\n"
                                                "139.75\t35.5 \"Tokyo\" ignored fields\r\n"
                                                "  140 36 Choshi\n"
                                                "1e3 -2 Choshi"));
    EXPECT_EQ(Outcome([&] { return list.ReadFile(); }),
              "1|" + kOpen + "Input 3Stations.\n" + kDone + "|");
    ASSERT_EQ(list.points.size(), 3u);
    EXPECT_EQ(list.points[0].x, 139.75);
    EXPECT_EQ(list.points[0].y, 35.5);
    EXPECT_EQ(list.points[0].name, "\"Tokyo\""); // quotes kept, line end not
    EXPECT_EQ(list.points[2].x, 1000.0);
    EXPECT_EQ(list.points[2].name, "Choshi"); // duplicates allowed
    const PosXY& p = list.points[1];
    EXPECT_EQ((std::array{p.bestRegionNo, p.bestI, p.bestJ}), (std::array{-1, -1, -1}));
}

TEST(StationReadFile, MalformedUnreadableAndMissingFiles) {
    TempDir dir;
    // Two coordinates only; a line of white space and CR.
    for (const char* text : {"1 2 A\n139 35\n", "1 2 A\r\n \t\r\n"}) {
        Station list = StationOf(dir.Write("s.txt", text));
        EXPECT_EQ(
            Outcome([&] { return list.ReadFile(); }),
            "0|" + kOpen + "|" +
                ErrorBlock(kClass, {kReading, "You should check the Format of Station File."}));
        EXPECT_EQ(list.points.size(), 1u) << text;
    }
    // A list that cannot be opened, missing or a directory, is only a warning.
    for (const std::string& path : {dir.path().string() + "/none.txt", dir.path().string()}) {
        Station missing = StationOf(path);
        EXPECT_EQ(Outcome([&] { return missing.ReadFile(); }),
                  "1|" + kOpen + kDone +
                      "| WARNING:Can not open file.\n"
                      " WARNING:Particular attention should be given to \"Station File\".\n")
            << path;
    }
}

TEST(StationMakeShapefile, PointsNamesAndCoordinateSystem) {
    TempDir dir;
    Station list = StationOf("", 4612);
    list.points = {PointAt(139.75, 35.5, "P1"), PointAt(144.375, 42.96875, "P1"),
                   PointAt(-5, 5, "Q")};
    const std::string path = dir.path().string() + "/ExtractPoint_4612.shp";
    EXPECT_EQ(Outcome([&] { return list.MakeShapefile(path); }), "1||");
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
}

TEST(StationWriteBestPoint, AppendsOneBasedCells) {
    TempDir dir;
    Station list = StationOf("");
    list.points = {PointAt(1, 2, "inside"), PointAt(3, 4, "nowhere")};
    list.points[0].bestRegionNo = 2;
    list.points[0].bestI = 0;
    list.points[0].bestJ = 41;
    const std::string path = dir.path().string() + "/Dump1d_BEST.txt";
    for (int run = 0; run < 2; ++run)
        EXPECT_EQ(Outcome([&] { return list.WriteBestPoint(path); }), "1||");
    const std::string once = "1, 42, inside, 2\n0, 0, nowhere, -1\n";
    EXPECT_EQ(FileBytes(path), once + once);
    // Kept: the method line says "Reading" although the method writes.
    EXPECT_EQ(Outcome([&] { return list.WriteBestPoint(dir.path().string() + "/none/B.txt"); }),
              "0||" +
                  ErrorBlock(kClass, {kReading, "Particular attention should be given to \" \"."}));
}

} // namespace
