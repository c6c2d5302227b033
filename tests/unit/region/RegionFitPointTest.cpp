#include "region/Region.hpp"

#include "region/RegionTestSupport.hpp"
#include "support/TempDir.hpp"

#include <cmath>
#include <filesystem>
#include <optional>
#include <tuple>
#include <vector>

namespace {

// Column of x among nx points from org along x, one row at y = org.
std::optional<int> Column(double x, double org, double size, int nx) {
    Region r = RegionReading(TPG_R, "");
    r.Set2dStruct(nx, 1, org, org);
    r.gridSize = size;
    EXPECT_TRUE(r.FitPointToRegion(x, org, "p", STATION_POINT));
    return r.stationPoints.empty() ? std::nullopt : std::optional(r.stationPoints[0].i);
}

TEST(RegionFitPoint, TheCellAScanFromIndexZeroFinds) {
    const std::pair<double, std::optional<int>> rows[] = {
        {95, 0}, {105, 0}, {105.0001, 1}, {145, 4}, {145.0001, {}}, {94.9999, {}}, {NAN, {}}};
    for (auto [x, i] : rows)
        EXPECT_EQ(Column(x, 100, 10, 5), i) << x;
    // On and beside every rounded bound.
    for (auto [org, size, nx] : {std::tuple{139.25, 0.1, 40}, std::tuple{-35.5, 1.0 / 3, 31},
                                 std::tuple{100.0, 0.0, 6}, std::tuple{100.0, -1e-320, 4}}) {
        std::vector<double> xs;
        for (int k = -1; k <= nx; ++k)
            for (double b : {(k - 0.5) * size + org, (k + 0.5) * size + org})
                xs.insert(xs.end(), {b, std::nextafter(b, INFINITY), std::nextafter(b, -INFINITY)});
        for (double x : xs) {
            std::optional<int> scanned;
            for (int k = nx - 1; k >= 0; --k)
                if ((k - 0.5) * size + org <= x && x <= (k + 0.5) * size + org)
                    scanned = k;
            ASSERT_EQ(Column(x, org, size, nx), scanned) << org << " " << size << " " << x;
        }
    }
}

TEST(RegionFitPoint, ListsAndFiles) {
    TempDir dir;
    const std::string d = dir.path().string();
    Region r = RegionReading(TPG_R, "");
    r.regionNo = 7;
    r.Set2dStruct(5, 3, 100, 100);
    for (PointType type : {STATION_POINT, EXTRACT_POINT, static_cast<PointType>(7)}) {
        r.FitPointToRegion(100, 100, "Gauge A", type);
        r.FitPointToRegion(141, 119, "100%s", type); // twice: no duplicate check
        r.FitPointToRegion(141, 119, "100%s", type);
        r.FitPointToRegion(120, 125.5, "north", type); // inside along x only
    }
    Printed p = Capture([&] { return r.WriteStaFile(d) && r.WriteExtFile(d); });
    EXPECT_EQ(p.out + p.err, d + "/Dump1d_R007.txt\n" + d + "/CoastExtractPoint_R1.txt\n");
    const std::string lines = "1, 1, Gauge A\n5, 3, 100%s\n5, 3, 100%s\n";
    for (const std::string& path : {r.staFileName, r.extFileName})
        EXPECT_EQ(FileBytes(path), lines) << path;

    p = Capture([&] { return r.WriteStaFile(d + "/no"); });
    EXPECT_EQ(r.staFileName, d + "/no/Dump1d_R007.txt");
    EXPECT_EQ(p.err,
              ErrorBlock("ERROR:REGION OBJECT METHOD",
                         {"Abnormal action at Write Station File Method.", "Can not open file."}));
    // Opened but not written in full (a full disk): not passed off as written.
    std::filesystem::remove(r.extFileName);
    std::filesystem::create_symlink("/dev/full", r.extFileName);
    p = Capture([&] { return r.WriteExtFile(d); });
    EXPECT_EQ(p.result, 0);
    EXPECT_EQ(p.err, ErrorBlock("ERROR:REGION OBJECT METHOD",
                                {"Abnormal action at Write Coast Extract File Method.",
                                 "Can not open file."}));
}

} // namespace
