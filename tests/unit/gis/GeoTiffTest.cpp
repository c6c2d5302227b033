#include "gis/GeoTiff.hpp"

#include "gis/GisTestSupport.hpp"
#include "support/TempDir.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace {

using Cells = std::vector<std::uint8_t>;

std::string Lines(int count) { // class k has the bound k
    std::string text;
    for (int k = 0; k < count; ++k)
        text += std::to_string(k) + " 1 2 3\n";
    return text;
}

TEST(GeoTiffColorTable, LinesLimitAndUnreadableFiles) {
    TempDir dir;
    const char* kOver = "Error : GeoTiff::initialize() -> 256 color over\n";
    const char* kOpen = "Error : GeoTiff::initialize() -> file open error\n";
    const struct {
        std::string path;
        size_t classes;
        const char* out;
    } cases[] = {
        {dir.Write("a", Lines(256)), 256, ""},
        {dir.Write("b", Lines(257)), 0, kOver},
        {dir.Write("c", Lines(256) + "300 1 2 3"), 256, ""}, // Kept: unterminated last line
        {dir.Write("d", "0 0 0 0"), 0, ""},
        {dir.path().string() + "/missing", 0, kOpen},
        {dir.path().string(), 0, kOpen},
    };
    for (const auto& c : cases) {
        GeoTiff tiff;
        const Said said = CaptureSaid([&] { return tiff.initialize(c.path); });
        EXPECT_EQ(said.result, *c.out == '\0') << c.path;
        EXPECT_EQ(said.out, c.out) << c.path;
        EXPECT_EQ(tiff.colorTable.size(), c.classes) << c.path;
        EXPECT_EQ(static_cast<bool>(tiff.gdalColorTable), said.result) << c.path;
    }

    // A blank line is a class of zeros; components are held to 0..255.
    GeoTiff tiff;
    ASSERT_TRUE(tiff.initialize(dir.Write("e", "-5.5 1 2 3\n\n7e2\t300 -4 x\n")));
    ASSERT_EQ(tiff.colorTable.size(), 3u);
    EXPECT_EQ(tiff.colorTable[0].value, -5.5);
    EXPECT_EQ(tiff.colorTable[1].value, 0.0);
    EXPECT_EQ(tiff.colorTable[2].value, 700.0);
    EXPECT_EQ(
        (std::array{tiff.colorTable[2].red, tiff.colorTable[2].green, tiff.colorTable[2].blue}),
        (std::array{255, 0, 0}));
}

TEST(GeoTiffConvert, ValueToClass) {
    TempDir dir;
    const struct {
        const char* table;
        std::vector<double> values;
        Cells classes;
    } cases[] = {
        {"0 0 0 0\n10 0 0 0\n20 0 0 0\n",
         {-1, 0, 9.99, 10, 19.999, 20, 1000, NAN, -INFINITY, INFINITY},
         {0, 0, 0, 1, 1, 2, 2, 0, 0, 2}},
        {"0 0 0 0\n10 0 0 0\n10 0 0 0\n20 0 0 0\n", {5, 10, 15}, {0, 2, 2}}, // empty class
        // Unordered: the first class whose range holds the value, else 0.
        {"10 0 0 0\n0 0 0 0\n20 0 0 0\n30 0 0 0\n", {5, 10, 15, 25, 30}, {0, 1, 1, 2, 3}},
        {"0 0 0 0\nnan 0 0 0\n20 0 0 0\n", {-5, 5, 25}, {0, 0, 2}},
        {"3 0 0 0\n", {2, 3, 4}, {0, 0, 0}},
    };
    for (const auto& c : cases) {
        GeoTiff tiff;
        ASSERT_TRUE(tiff.initialize(dir.Write("t", c.table)));
        ASSERT_TRUE(tiff.convertRaster(static_cast<std::uint32_t>(c.values.size()), 1, c.values));
        EXPECT_EQ(tiff.raster, c.classes) << c.table;
    }
}

TEST(GeoTiffConvert, NorthernmostRowOnTop) {
    TempDir dir;
    GeoTiff tiff;
    ASSERT_TRUE(tiff.initialize(dir.Write("t", Lines(10))));
    ASSERT_TRUE(tiff.convertRaster({{0, 1}, {2, 3}, {4, 5}})); // columns, south to north
    EXPECT_EQ(tiff.xSize, 3u);
    EXPECT_EQ(tiff.ySize, 2u);
    EXPECT_EQ(tiff.raster, (Cells{1, 3, 5, 0, 2, 4}));
    ASSERT_TRUE(tiff.convertRaster(3, 2, std::vector<double>{0, 2, 4, 1, 3, 5})); // file order
    EXPECT_EQ(tiff.raster, (Cells{1, 3, 5, 0, 2, 4}));
    // Cells without a value get class 0 instead of a read past the end.
    ASSERT_TRUE(tiff.convertRaster({{7, 8}, {9}}));
    EXPECT_EQ(tiff.raster, (Cells{8, 0, 7, 9}));
    ASSERT_TRUE(tiff.convertRaster(2, 2, std::vector<double>{7, 9, 8}));
    EXPECT_EQ(tiff.raster, (Cells{8, 0, 7, 9}));
}

TEST(GeoTiffSave, ReadBackThroughGdal) {
    TempDir dir;
    GeoTiff tiff;
    ASSERT_TRUE(tiff.initialize(dir.Write("t", "0 0 0 255\n10 0 255 0\n20 255 0 0\n")));
    // nx 4, ny 3, file order: row j = 0 is the southernmost.
    ASSERT_TRUE(
        tiff.convertRaster(4, 3, std::vector<double>{0, 0, 10, 20, 10, 10, 10, 10, 20, 0, 0, 0}));
    const std::string path = dir.path().string() + "/TPG_R01.tiff";
    const Said said = CaptureSaid([&] { return tiff.saveGrid(path, 3100, 100.0, 200.0, 10.0); });
    EXPECT_TRUE(said.result);
    EXPECT_EQ(said.out + said.err, "");

    GDALDatasetUniquePtr ds = OpenDataset(path, GDAL_OF_RASTER);
    ASSERT_TRUE(ds);
    ASSERT_EQ(ds->GetRasterCount(), 1);
    EXPECT_STREQ(ds->GetDriver()->GetDescription(), "GTiff");
    EXPECT_STREQ(ds->GetMetadataItem("COMPRESSION", "IMAGE_STRUCTURE"), "LZW");
    std::array<double, 6> transform{};
    ASSERT_EQ(ds->GetGeoTransform(transform.data()), CE_None);
    EXPECT_EQ(transform, (std::array<double, 6>{95, 10, 0, 225, 0, -10}));
    EXPECT_EQ(EpsgOf(ds->GetSpatialRef()), 3100);
    GDALRasterBand* band = ds->GetRasterBand(1);
    Cells cells(12);
    ASSERT_EQ(band->RasterIO(GF_Read, 0, 0, 4, 3, cells.data(), 4, 3, GDT_Byte, 0, 0, nullptr),
              CE_None);
    EXPECT_EQ(cells, (Cells{2, 0, 0, 0, 1, 1, 1, 1, 0, 0, 1, 2}));
    const GDALColorTable* palette = band->GetColorTable();
    ASSERT_NE(palette, nullptr);
    const std::array<std::array<short, 3>, 3> rgb{{{0, 0, 255}, {0, 255, 0}, {255, 0, 0}}};
    for (int k = 0; k < 3; ++k) {
        const GDALColorEntry* e = palette->GetColorEntry(k);
        EXPECT_EQ((std::array<short, 3>{e->c1, e->c2, e->c3}), rgb[static_cast<size_t>(k)]);
    }
}

TEST(GeoTiff, Refusals) {
    TempDir dir;
    const std::string d = dir.path().string();
    GeoTiff tiff;
    auto save = [&](const std::string& path, unsigned epsg) {
        return [&tiff, path, epsg] { return tiff.save(path, epsg, 0, 0, 1, -1); };
    };
    auto convert = [&](std::uint32_t nx, std::uint32_t ny) {
        return [&tiff, nx, ny] { return tiff.convertRaster(nx, ny, {}); };
    };
    const std::pair<std::function<bool()>, std::string> steps[] = {
        {save(d + "/p.tiff", 3100), "Error : GeoTiff::save() -> GDAL color table null\n"},
        {[&] { return tiff.convertRaster({{1.0}}); },
         "Error : GeoTiff::convertRaster() -> color table size zero\n"},
        {[&] { return tiff.initialize(dir.Write("t", Lines(2))); }, ""},
        {convert(0, 5), "Error : GeoTiff::convertRaster() -> x size zero\n"},
        {[&] {
             return tiff.convertRaster({{}, {1.0}});
         },
         "Error : GeoTiff::convertRaster() -> y size zero\n"},
        {save(d + "/p.tiff", 3100), "Error : GeoTiff::save() - Raster array null\n"},
        {convert(UINT32_MAX, UINT32_MAX),
         "Error : GeoTiff::convertRaster() -> Raster array allocation\n"},
        {convert(1, 1), ""},
        {save(d + "/no/p.tiff", 3100), "Error : GeoTiff::save() -> GDALDriver::Create()\n"},
        {save(d + "/p.tiff", 999999),
         "Error : GeoTiff::save() -> OGRSpatialReference::importFromEPSG()\n"},
    };
    for (size_t k = 0; k < std::size(steps); ++k) {
        const Said said = CaptureSaid(steps[k].first);
        EXPECT_EQ(said.result, steps[k].second.empty()) << k;
        EXPECT_EQ(said.out, steps[k].second) << k;
        EXPECT_EQ(said.err, "") << k;
    }
}

} // namespace
