#include "region/Region.hpp"

#include "gis/GisTestSupport.hpp"
#include "region/RegionTestSupport.hpp"
#include "support/TempDir.hpp"

#include <array>
#include <climits>
#include <tuple>
#include <vector>

namespace {

using Cells = std::vector<std::uint8_t>;

// Class k opens at k - 1, coloured (k, 2k, 0): a whole value v is drawn as class v + 1,
// so a zero (1) is told from a cell without a value (0).
std::string Table(const TempDir& dir) {
    std::string text;
    for (int k = 0; k < 40; ++k)
        text +=
            std::to_string(k - 1) + " " + std::to_string(k) + " " + std::to_string(2 * k) + " 0\n";
    return dir.Write("classes.clr", text);
}

// R1 of the kind: 4 × 3 points from (100, 200), 10 apart, in EPSG 3100.
Region Sized(RType kind) {
    Region r = RegionReading(kind, "");
    r.epsg = 3100;
    r.Set2dStruct(4, 3, 100.0, 200.0);
    return r;
}

// The classes of the picture, top row first, after checking its frame and palette.
Cells Drawn(const std::string& path) {
    GDALDatasetUniquePtr ds = OpenDataset(path, GDAL_OF_RASTER);
    EXPECT_TRUE(ds && ds->GetRasterXSize() == 4 && ds->GetRasterYSize() == 3) << path;
    if (!ds)
        return {};
    EXPECT_STREQ(ds->GetMetadataItem("COMPRESSION", "IMAGE_STRUCTURE"), "LZW");
    std::array<double, 6> transform{};
    EXPECT_EQ(ds->GetGeoTransform(transform.data()), CE_None);
    EXPECT_EQ(transform, (std::array<double, 6>{95, 10, 0, 225, 0, -10})) << path;
    EXPECT_EQ(EpsgOf(ds->GetSpatialRef()), 3100) << path;
    GDALRasterBand* band = ds->GetRasterBand(1);
    EXPECT_TRUE(band->GetColorTable() && band->GetColorTable()->GetColorEntry(5)->c2 == 10);
    Cells cells(12);
    EXPECT_EQ(band->RasterIO(GF_Read, 0, 0, 4, 3, cells.data(), 4, 3, GDT_Byte, 0, 0, nullptr),
              CE_None);
    return cells;
}

TEST(RegionWriteGeoTIFF, WhatEachKindDraws) {
    TempDir dir;
    const std::string d = dir.path().string(), table = Table(dir);
    const Cells zeros(12, 1);
    Region topo = Sized(TPG_R), heights = Sized(WBH_R), uplift = Sized(VRT_R);
    topo.Make2dStruct();
    heights.Make2dStruct2();
    for (int k = 0; k < 12; ++k) { // file order: (k % 4, k / 4)
        topo.grid[k % 4][k / 4] = k;
        heights.pairGrid[k % 4][k / 4][0] = k;
        heights.pairGrid[k % 4][k / 4][1] = 20 + k / 4;
    }
    ASSERT_EQ(Outcome([&] { return uplift.WriteGeoTIFF(d, table, ""); }), "1||");
    EXPECT_EQ(Drawn(d + "/VRT_R1.tiff"), zeros); // no stages yet
    uplift.dynamicSeries = {{12, std::vector<float>(12, 1.0f)},
                            {2, std::vector<float>(12, 2.0f)}, // holds its first 2 values
                            {12, std::vector<float>(3, 4.0f)}, // a buffer shorter than the grid
                            {0, std::vector<float>(12, 9.0f)}};
    for (const char* face : {"N", "E", "X"})
        ASSERT_EQ(Outcome([&] { return heights.WriteGeoTIFF(d, table, face); }), "1||");
    ASSERT_EQ(Outcome([&] {
                  return topo.WriteGeoTIFF(d, table, "") && uplift.WriteGeoTIFF(d, table, "");
              }),
              "1||");
    EXPECT_EQ(Drawn(d + "/TPG_R1.tiff"), (Cells{9, 10, 11, 12, 5, 6, 7, 8, 1, 2, 3, 4}));
    EXPECT_EQ(Drawn(d + "/WBHN_R1.tiff"), (Cells{9, 10, 11, 12, 5, 6, 7, 8, 1, 2, 3, 4}));
    EXPECT_EQ(Drawn(d + "/WBHE_R1.tiff"), (Cells{23, 23, 23, 23, 22, 22, 22, 22, 21, 21, 21, 21}));
    EXPECT_EQ(Drawn(d + "/WBHX_R1.tiff"), zeros);
    EXPECT_EQ(Drawn(d + "/VRT_R1.tiff"), (Cells{2, 2, 2, 2, 2, 2, 2, 2, 8, 8, 6, 2}));
}

TEST(RegionWriteGeoTIFF, RefusalsGiveTheWriterLineAndTheBlock) {
    TempDir dir;
    const std::string table = Table(dir);
    Region huge = Sized(IWH_R); // too large to compose
    huge.Set2dStruct(INT_MAX, INT_MAX, 0, 0);
    const std::tuple<Region, std::string, std::string> cases[] = {
        {Sized(CLD_R), "Error : GeoTiff::save() - Raster array null\n", "\"GeotiffSetting\""},
        {huge, "", "\" \""}};
    for (auto [r, out, detail] : cases) {
        EXPECT_EQ(Outcome([&] { return r.WriteGeoTIFF(dir.path().string(), table, "N"); }),
                  "0|" + out + "|" +
                      ErrorBlock("ERROR:REGION OBJECT METHOD",
                                   {"Abnormal action at Write GeoTIFF Method.",
                                    "Particular attention should be given to " + detail + "."}));
    }
}

} // namespace
