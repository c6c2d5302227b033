#include "gis/GeoTiff.hpp"

#include "gis/GisTestSupport.hpp"
#include "support/TempDir.hpp"

#include <array>
#include <cmath>
#include <fstream>
#include <functional>
#include <iterator>
#include <vector>

namespace {

using Cells = std::vector<std::uint8_t>;

std::string FileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string Lines(int count) { // class k has the bound k
    std::string text;
    for (int k = 0; k < count; ++k)
        text += std::to_string(k) + " 1 2 3\n";
    return text;
}

TEST(GeoTiffColorTable, LinesLimitAndUnreadableFiles) {
    TempDir dir;
    const std::string over = "Error : GeoTiff::initialize() -> 256 color over\n";
    const std::string unopened = "Error : GeoTiff::initialize() -> file open error\n";
    const std::tuple<std::string, size_t, std::string> cases[] = {
        {dir.Write("a", Lines(256)), 256, ""},
        {dir.Write("b", Lines(257)), 0, over},
        {dir.Write("c", Lines(256) + "300 1 2 3"), 256, ""}, // Kept: unterminated last line
        {dir.path().string(), 0, unopened}};
    for (const auto& [path, classes, out] : cases) {
        GeoTiff tiff;
        EXPECT_EQ(Outcome([&] { return tiff.initialize(path); }),
                  (out.empty() ? "1|" : "0|") + out + "|");
        EXPECT_EQ(tiff.colorTable.size(), classes) << path;
        EXPECT_EQ(static_cast<bool>(tiff.gdalColorTable), out.empty()) << path;
    }
    // A blank line is a class of zeros; components are held to 0..255.
    GeoTiff tiff;
    ASSERT_TRUE(tiff.initialize(dir.Write("e", "-5.5 1 2 3\n\n7e2\t300 -4 x\n")));
    ASSERT_EQ(tiff.colorTable.size(), 3u);
    const auto& last = tiff.colorTable[2];
    EXPECT_EQ(tiff.colorTable[1].value, 0.0);
    EXPECT_EQ((std::array{last.value, 1.0 * last.red, 1.0 * last.green, 1.0 * last.blue}),
              (std::array{700.0, 255.0, 0.0, 0.0}));
}

TEST(GeoTiffConvert, ValueToClass) {
    TempDir dir;
    const std::tuple<const char*, std::vector<double>, Cells> cases[] = {
        {"0 0 0 0\n10 0 0 0\n20 0 0 0\n",
         {-1, 0, 9.99, 10, 19.999, 20, 1000, NAN, -INFINITY, INFINITY},
         {0, 0, 0, 1, 1, 2, 2, 0, 0, 2}},
        {"0 0 0 0\n10 0 0 0\n10 0 0 0\n20 0 0 0\n", {5, 10, 15}, {0, 2, 2}}, // empty class
        // Unordered: the first class whose range holds the value, else 0.
        {"10 0 0 0\n0 0 0 0\n20 0 0 0\n30 0 0 0\n", {5, 10, 15, 25, 30}, {0, 1, 1, 2, 3}},
        {"0 0 0 0\nnan 0 0 0\n20 0 0 0\n", {-5, 5, 25}, {0, 0, 2}}};
    for (const auto& [table, values, classes] : cases) {
        GeoTiff tiff;
        ASSERT_TRUE(tiff.initialize(dir.Write("t", table)));
        ASSERT_TRUE(tiff.convertRaster(static_cast<std::uint32_t>(values.size()), 1, values));
        EXPECT_EQ(tiff.raster, classes) << table;
    }
    // Columns south to north, the northernmost row on top; missing values are class 0.
    GeoTiff tiff;
    ASSERT_TRUE(tiff.initialize(dir.Write("t", Lines(10))));
    ASSERT_TRUE(tiff.convertRaster({{7, 8}, {9}}));
    EXPECT_EQ((std::array{tiff.xSize, tiff.ySize}), (std::array{2u, 2u}));
    EXPECT_EQ(tiff.raster, (Cells{8, 0, 7, 9}));
    ASSERT_TRUE(tiff.convertRaster(2, 2, std::vector<double>{7, 9, 8}));
    EXPECT_EQ(tiff.raster, (Cells{8, 0, 7, 9}));
}

// A whole raster classes each cell as the cell alone would be classed, whatever came
// before it: slow walks, repeats, exact bounds, NaNs and infinities in between.
TEST(GeoTiffConvert, RasterMatchesCellByCell) {
    TempDir dir;
    std::vector<double> values;
    unsigned state = 12345;
    double v = 0;
    for (int k = 0; k < 20000; ++k) {
        state = state * 1103515245u + 12345u;
        const unsigned pick = (state >> 16) % 100;
        if (pick < 3)
            values.push_back(pick == 0 ? NAN : pick == 1 ? INFINITY : -INFINITY);
        else if (pick < 10)
            values.push_back(std::round(v)); // on a bound
        else
            values.push_back(v += ((state >> 8) % 2001 - 1000.0) / 700.0);
    }
    for (const char* table : {"-3 0 0 0\n0 0 0 0\n2 0 0 0\n2 0 0 0\n7 0 0 0\n",
                              "5 0 0 0\n-5 0 0 0\n0 0 0 0\n9 0 0 0\n", "1 0 0 0\n"}) {
        GeoTiff tiff;
        ASSERT_TRUE(tiff.initialize(dir.Write("t", table)));
        ASSERT_TRUE(tiff.convertRaster(static_cast<std::uint32_t>(values.size()), 1, values));
        const Cells whole = tiff.raster;
        for (std::size_t k = 0; k < values.size(); ++k) {
            ASSERT_TRUE(tiff.convertRaster(1, 1, std::vector<double>{values[k]}));
            ASSERT_EQ(whole[k], tiff.raster[0]) << table << " value " << values[k] << " at " << k;
        }
        // A picture large enough to be classified in two halves, top row first.
        const std::uint32_t nx = 1000, ny = 1100;
        std::vector<double> large(static_cast<std::size_t>(nx) * ny);
        for (std::size_t k = 0; k < large.size(); ++k)
            large[k] = values[k % values.size()];
        ASSERT_TRUE(tiff.convertRaster(nx, ny, large));
        for (std::uint32_t r = 0; r < ny; ++r)
            for (std::uint32_t i = 0; i < nx; ++i) {
                const std::size_t k = static_cast<std::size_t>(ny - 1 - r) * nx + i;
                ASSERT_EQ(tiff.raster[static_cast<std::size_t>(r) * nx + i],
                          whole[k % values.size()])
                    << table << " row " << r << " column " << i;
            }
    }
}

// The run holds GDAL's block cache to a few megabytes: a picture several times larger
// must reach the file as the same bytes as through a cache that holds all of it.
TEST(GeoTiff, SmallBlockCacheWritesTheSameFile) {
    TempDir dir;
    GeoTiff tiff;
    ASSERT_TRUE(tiff.initialize(dir.Write("t", Lines(200))));
    const std::uint32_t nx = 2500, ny = 2000;
    std::vector<double> values(static_cast<std::size_t>(nx) * ny);
    unsigned state = 7;
    for (double& v : values) {
        state = state * 1103515245u + 12345u;
        v = (state >> 16) % 7 == 0 ? (state >> 8) % 200 : (&v - values.data()) / 30000;
    }
    ASSERT_TRUE(tiff.convertRaster(nx, ny, values));
    const GIntBig before = GDALGetCacheMax64();
    std::vector<std::string> files;
    for (const GIntBig cache : {GIntBig{1} << 20, GIntBig{256} << 20}) {
        GDALSetCacheMax64(cache);
        files.push_back(dir.path() / ("cache" + std::to_string(cache) + ".tiff"));
        EXPECT_TRUE(tiff.saveGrid(files.back(), 3100, 0.0, 0.0, 10.0));
    }
    GDALSetCacheMax64(before);
    EXPECT_GT(FileBytes(files[0]).size(), std::size_t{1} << 20);
    EXPECT_EQ(FileBytes(files[0]), FileBytes(files[1]));
}

TEST(GeoTiff, RefusalsInTurn) {
    TempDir dir;
    const std::string d = dir.path().string(), e = "Error : GeoTiff::";
    GeoTiff tiff;
    auto save = [&](const std::string& path, unsigned epsg) {
        return [&tiff, path, epsg] { return tiff.save(path, epsg, 0, 0, 1, -1); };
    };
    auto convert = [&](std::uint32_t nx, std::uint32_t ny) {
        return [&tiff, nx, ny] { return tiff.convertRaster(nx, ny, {}); };
    };
    const std::pair<std::function<bool()>, std::string> steps[] = {
        {save(d + "/p.tiff", 3100), e + "save() -> GDAL color table null\n"},
        {[&] { return tiff.convertRaster({{1.0}}); },
         e + "convertRaster() -> color table size zero\n"},
        {[&] { return tiff.initialize(dir.Write("t", Lines(2))); }, ""},
        {convert(0, 5), e + "convertRaster() -> x size zero\n"},
        {[&] {
             return tiff.convertRaster({{}, {1.0}});
         },
         e + "convertRaster() -> y size zero\n"},
        {save(d + "/p.tiff", 3100), e + "save() - Raster array null\n"},
        {convert(UINT32_MAX, UINT32_MAX), e + "convertRaster() -> Raster array allocation\n"},
        {convert(1, 1), ""},
        {save(d + "/no/p.tiff", 3100), e + "save() -> GDALDriver::Create()\n"},
        {save(d + "/p.tiff", 999999), e + "save() -> OGRSpatialReference::importFromEPSG()\n"},
    };
    for (size_t k = 0; k < std::size(steps); ++k)
        EXPECT_EQ(Outcome(steps[k].first),
                  (steps[k].second.empty() ? "1|" : "0|") + steps[k].second + "|")
            << k;
}

} // namespace
