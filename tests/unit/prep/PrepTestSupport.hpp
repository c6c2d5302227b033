#pragma once

#include "region/Region.hpp"

#include <cpl_string.h>
#include <gdal_priv.h>
#include <gdal_utils.h>
#include <ogr_spatialref.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// Elevation rasters made in the test with GDAL, in the formats modellers bring.
struct RasterLayout {
    const char* driver = "GTiff";     // GTiff, netCDF, AAIGrid, ...
    int nx = 0;                       // columns
    int ny = 0;                       // lines, the first at the north
    std::array<double, 6> transform{}; // GDAL geotransform (north-up)
    int epsg = 4326;                  // 0: no coordinate system
    std::optional<double> noData;
    GDALDataType type = GDT_Float32;  // the band's; values are made as floats
};

// value(column, line): line 0 is the northern row.
inline void MakeRaster(const std::string& path, const RasterLayout& layout,
                       const std::function<double(int, int)>& value) {
    GDALAllRegister();
    GDALDriver* mem = GetGDALDriverManager()->GetDriverByName("MEM");
    GDALDatasetUniquePtr ds(mem->Create("", layout.nx, layout.ny, 1, layout.type, nullptr));
    std::vector<float> cells(static_cast<std::size_t>(layout.nx) * layout.ny);
    for (int l = 0; l < layout.ny; ++l)
        for (int c = 0; c < layout.nx; ++c)
            cells[static_cast<std::size_t>(l) * layout.nx + c] = static_cast<float>(value(c, l));
    ASSERT_EQ(ds->GetRasterBand(1)->RasterIO(GF_Write, 0, 0, layout.nx, layout.ny, cells.data(),
                                             layout.nx, layout.ny, GDT_Float32, 0, 0, nullptr),
              CE_None);
    std::array<double, 6> transform = layout.transform;
    ds->SetGeoTransform(transform.data());
    if (layout.epsg != 0) {
        OGRSpatialReference srs;
        srs.importFromEPSG(layout.epsg);
        ds->SetSpatialRef(&srs);
    }
    if (layout.noData)
        ds->GetRasterBand(1)->SetNoDataValue(*layout.noData);
    GDALDriver* driver = GetGDALDriverManager()->GetDriverByName(layout.driver);
    ASSERT_NE(driver, nullptr) << layout.driver;
    GDALDatasetUniquePtr copy(
        driver->CreateCopy(path.c_str(), ds.get(), FALSE, nullptr, nullptr, nullptr));
    ASSERT_NE(copy, nullptr) << path;
}

// What a raster says about its values besides the values: the band's unit and metadata
// (netCDF writes band metadata as the variable's attributes: "positive", "units").
struct RasterDescription {
    std::string unit;
    std::vector<std::pair<std::string, std::string>> bandMetadata;
};

// As MakeRaster, with the band described.
inline void MakeDescribedRaster(const std::string& path, const RasterLayout& layout,
                                const RasterDescription& description,
                                const std::function<double(int, int)>& value) {
    const std::string plain = path + ".plain.tif";
    RasterLayout tiff = layout;
    tiff.driver = "GTiff";
    MakeRaster(plain, tiff, value);
    GDALDatasetUniquePtr ds(GDALDataset::Open(plain.c_str(), GDAL_OF_RASTER));
    ASSERT_NE(ds, nullptr);
    GDALDriver* mem = GetGDALDriverManager()->GetDriverByName("MEM");
    GDALDatasetUniquePtr described(mem->CreateCopy("", ds.get(), FALSE, nullptr, nullptr, nullptr));
    ds.reset();
    std::remove(plain.c_str());
    ASSERT_NE(described, nullptr);
    GDALRasterBand* band = described->GetRasterBand(1);
    if (!description.unit.empty())
        band->SetUnitType(description.unit.c_str());
    for (const auto& [key, item] : description.bandMetadata)
        band->SetMetadataItem(key.c_str(), item.c_str());
    GDALDriver* driver = GetGDALDriverManager()->GetDriverByName(layout.driver);
    ASSERT_NE(driver, nullptr) << layout.driver;
    GDALDatasetUniquePtr copy(
        driver->CreateCopy(path.c_str(), described.get(), FALSE, nullptr, nullptr, nullptr));
    ASSERT_NE(copy, nullptr) << path;
}

// The first `bytes` of a file kept, as a download or copy cut short leaves it.
inline void CutShort(const std::string& path, std::uintmax_t bytes) {
    std::error_code error;
    std::filesystem::resize_file(path, bytes, error);
    ASSERT_FALSE(error) << path;
}

// What gdalwarp makes of `source` on the cell edges `bounds` at `spacing` in `epsg`, as
// doubles, north-up (line 0 at the north); NaN where it has no data. With `nanIsNoData`,
// the source's NaN pixels hold no data (-srcnodata nan).
inline std::vector<double> GdalWarpReference(const std::string& source, int epsg,
                                             const std::array<double, 4>& bounds, double spacing,
                                             const char* resampling, int& nx, int& ny,
                                             bool nanIsNoData = false) {
    GDALAllRegister();
    CPLStringList args;
    for (const std::string& a :
         {std::string("-of"), std::string("MEM"), std::string("-t_srs"),
          "EPSG:" + std::to_string(epsg), std::string("-te"), std::to_string(bounds[0]),
          std::to_string(bounds[1]), std::to_string(bounds[2]), std::to_string(bounds[3]),
          std::string("-tr"), std::to_string(spacing), std::to_string(spacing),
          std::string("-r"), std::string(resampling), std::string("-ot"),
          std::string("Float64"), std::string("-dstnodata"), std::string("nan")})
        args.AddString(a.c_str());
    if (nanIsNoData) {
        args.AddString("-srcnodata");
        args.AddString("nan");
    }
    GDALWarpAppOptions* options = GDALWarpAppOptionsNew(args.List(), nullptr);
    GDALDatasetH src = GDALOpen(source.c_str(), GA_ReadOnly);
    GDALDatasetH out = GDALWarp("", nullptr, 1, &src, options, nullptr);
    GDALWarpAppOptionsFree(options);
    std::vector<double> values;
    if (out != nullptr) {
        nx = GDALGetRasterXSize(out);
        ny = GDALGetRasterYSize(out);
        values.resize(static_cast<std::size_t>(nx) * ny);
        if (GDALRasterIO(GDALGetRasterBand(out, 1), GF_Read, 0, 0, nx, ny, values.data(), nx,
                         ny, GDT_Float64, 0, 0) != CE_None)
            values.clear();
        GDALClose(out);
    }
    GDALClose(src);
    return values;
}

// A grid file read back as the run reads it.
inline Region ReadBack(const std::string& path, double gridSize = 0) {
    XML_REGION record;
    record.GridSize = gridSize;
    record.Topography.FileName = path;
    Region grid(TPG_R, record);
    std::int64_t values = 0;
    EXPECT_EQ(grid.LoadFile(values), 0) << path;
    return grid;
}

// A text grid as the run reads it: nx x ny points from (orgX, orgY), value(i, j) with
// j = 0 at the south.
inline std::string GridText(int nx, int ny, double orgX, double orgY,
                            const std::function<double(int, int)>& value) {
    char line[64];
    std::snprintf(line, sizeof line, "%d %d\n%.12g %.12g\n", nx, ny, orgX, orgY);
    std::string text = line;
    for (int j = 0; j < ny; ++j)
        for (int i = 0; i < nx; ++i) {
            std::snprintf(line, sizeof line, "%.10g%s", value(i, j), i + 1 == nx ? "\n" : " ");
            text += line;
        }
    return text;
}

// A file's bytes; "" when it cannot be read.
inline std::string Slurp(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

inline std::size_t Count(const std::string& text, const std::string& what) {
    std::size_t n = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

// What a folder holds, by name, sorted.
inline std::vector<std::string> Names(const std::filesystem::path& dir) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

// A command run in the test's own process, as its user sees it.
struct Outcome {
    int status;
    std::string out;
    std::string err;
};

template <class Command>
Outcome Captured(Command&& command) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = command();
    std::string out = testing::internal::GetCapturedStdout();
    return {status, std::move(out), testing::internal::GetCapturedStderr()};
}
