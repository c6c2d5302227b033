#include "prep/Terrain.hpp"

#include "prep/NestTestSupport.hpp"
#include "support/TempDir.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <functional>
#include <memory>

namespace {

double Value(int c, int l) { return -1000.0 + 3.0 * c + 0.5 * l; }

// The planner reads a geographic source a block at a time where it looks, and any other
// source through GDAL's warper: both give the cells' values at their centres, depths
// turned into elevations, nodata left out, and a longitude from the other side of the
// date line taken where the raster lies.
TEST(NestTerrain, CellsAtTheirCentresHoweverTheSourceIsRead) {
    TempDir dir;
    RasterLayout layout;
    layout.nx = 300;
    layout.ny = 600; // more rows than one read of a striped raster
    layout.transform = {170.0, 0.01, 0, 40.0, 0, -0.01};
    layout.noData = -1000.0; // cell (0, 0)
    const std::string path = (dir.path() / "dem.tif").string();
    MakeRaster(path, layout, Value);
    const Bounds near = {170.0, 34.0, 173.0, 40.0};
    struct Case {
        const char* what;
        std::unique_ptr<Terrain> terrain;
        double sign;
    };
    WarpSource heights;
    heights.path = path;
    WarpSource depths = heights;
    depths.depthPositive = true;
    Case cases[] = {{"blocks", OpenTerrain(heights, 1, near), 1},
                    {"blocks, depths", OpenTerrain(depths, 1, near), -1},
                    {"warped", std::make_unique<RasterTerrain>(heights, 1, 4e6, near), 1}};
    for (const Case& c : cases) {
        for (const auto& [col, line] : {std::pair{5, 7}, std::pair{299, 599}, std::pair{150, 300},
                                        std::pair{17, 256}, std::pair{17, 255}}) {
            const double lon = 170.0 + (col + 0.5) * 0.01;
            const double lat = 40.0 - (line + 0.5) * 0.01;
            EXPECT_NEAR(c.terrain->ElevationAt(lon, lat), c.sign * Value(col, line), 1e-3)
                << c.what << " " << col << " " << line;
        }
        EXPECT_TRUE(std::isnan(c.terrain->ElevationAt(169.0, 39.0))) << c.what;
        EXPECT_TRUE(std::isnan(c.terrain->ElevationAt(170.005, 39.995))) << c.what << ": nodata";
        EXPECT_NEAR(c.terrain->ElevationAt(170.015, 39.995), c.sign * Value(1, 0), 1e-3)
            << c.what << ": beside the nodata cell";
        // The lowest of a small box: its south-west cell.
        EXPECT_NEAR(c.terrain->LowestIn({171.0, 37.0, 171.1, 37.1}),
                    c.sign > 0 ? Value(100, 290) : -Value(109, 299), 1e-3)
            << c.what;
    }
    EXPECT_NEAR(cases[0].terrain->ElevationAt(170.5 + 0.005 - 360, 39.5 - 0.005), Value(50, 50),
                1e-3);
}

// The planner takes a source's values as the grid command does, whichever way it reads
// the source: what the user says of it (system, nodata, scale, depths) over what the file
// says, and its own unit and CF positive = "down"; an untagged marker is refused, naming
// the source by its place in the user's list.
TEST(NestTerrain, SourcesTakenAsTheGridCommandTakesThem) {
    TempDir dir;
    RasterLayout layout;
    layout.nx = 60;
    layout.ny = 40;
    layout.transform = {10.0, 0.01, 0, 50.0, 0, -0.01};
    const Bounds near = {10.0, 49.6, 10.6, 50.0};
    const auto make = [&](const char* name, RasterLayout l, const RasterDescription& d,
                          const std::function<double(double)>& map) {
        WarpSource source;
        source.path = (dir.path() / name).string();
        MakeDescribedRaster(source.path, l, d, [&](int c, int line) {
            return c == 7 && line == 9 ? -9999.0 : map(Value(c, line));
        });
        return source;
    };
    RasterLayout netCdf = layout;
    netCdf.driver = "netCDF";
    RasterLayout gmt = netCdf;
    gmt.epsg = 0;
    const auto same = [](double v) { return v; };
    const auto negated = [](double v) { return -v; };
    const WarpSource marked = make("marked.tif", layout, {}, same);
    struct Case {
        const char* what;
        WarpSource source;
        std::function<void(WarpSource&)> change; // besides naming the marker
    };
    const Case cases[] = {
        {"nodata given", marked, [](WarpSource&) {}},
        {"depths by option", make("depths.tif", layout, {}, negated),
         [](WarpSource& s) { s.depthPositive = true; }},
        {"depths by positive = down",
         make("down.nc", netCdf, {"", {{"positive", "down"}}}, negated), [](WarpSource&) {}},
        {"no system, given", make("gmt.nc", gmt, {}, same), [](WarpSource& s) { s.srs = "4326"; }},
        {"feet by its unit",
         make("feet.tif", layout, {"ft", {}}, [](double v) { return v / 0.3048; }),
         [](WarpSource&) {}},
        {"--z-scale", make("halves.tif", layout, {}, [](double v) { return 2 * v; }),
         [](WarpSource& s) { s.zScale = 0.5; }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        WarpSource source = c.source;
        source.noData = -9999;
        c.change(source);
        const std::unique_ptr<Terrain> terrains[] = {
            OpenTerrain(source, 1, near), std::make_unique<RasterTerrain>(source, 1, 4e6, near)};
        for (const auto& terrain : terrains) {
            for (const auto& [col, line] : {std::pair{5, 7}, std::pair{59, 39}, std::pair{30, 20}}) {
                const double lon = 10.0 + (col + 0.5) * 0.01;
                const double lat = 50.0 - (line + 0.5) * 0.01;
                EXPECT_NEAR(terrain->ElevationAt(lon, lat), Value(col, line), 1e-3)
                    << col << " " << line;
            }
            EXPECT_TRUE(std::isnan(terrain->LowestIn({10.07, 49.9, 10.08, 49.91})))
                << "the marker named as nodata";
        }
    }
    // Not named, the marker is refused as the grid command refuses it.
    for (const std::string& message :
         {Refusal([&] { (void)OpenTerrain(marked, 3, near)->ElevationAt(10.075, 49.905); }),
          Refusal([&] { (void)RasterTerrain(marked, 3, 4e6, near); })}) {
        EXPECT_NE(message.find(marked.path + ": holds -9999 where the grid reads it"),
                  std::string::npos)
            << message;
        EXPECT_NE(message.find("(or --nodata-source 3 -9999)"), std::string::npos) << message;
    }
    WarpSource kept = marked;
    kept.keepMarkers = true;
    EXPECT_NEAR(OpenTerrain(kept, 3, near)->ElevationAt(10.075, 49.905), -9999.0, 1e-3);
}

} // namespace
