#include "prep/Terrain.hpp"

#include "prep/PrepTestSupport.hpp"
#include "support/TempDir.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
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
    Case cases[] = {{"blocks", OpenTerrain(path, false, near), 1},
                    {"blocks, depths", OpenTerrain(path, true, near), -1},
                    {"warped", std::make_unique<RasterTerrain>(path, false, 4e6, near), 1}};
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

} // namespace
