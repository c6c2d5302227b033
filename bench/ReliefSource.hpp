#pragma once
// A geographic DEM for the seaforge-prep benchmarks, written through GDAL.

#include <gdal_priv.h>
#include <ogr_spatialref.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

// side x side cells from (west, north), `step` degrees a cell, tiled like a national DEM:
// land in the west, sea deepening to 400 m in the east, with relief at several scales so
// that no warp meets a flat grid.
inline void WriteReliefSource(const std::string& path, int side, double west, double north,
                              double step) {
    GDALAllRegister();
    GDALDriver* gtiff = GetGDALDriverManager()->GetDriverByName("GTiff");
    const char* options[] = {"TILED=YES", nullptr};
    GDALDatasetUniquePtr ds(
        gtiff->Create(path.c_str(), side, side, 1, GDT_Float32, const_cast<char**>(options)));
    double transform[6] = {west, step, 0, north, 0, -step};
    ds->SetGeoTransform(transform);
    OGRSpatialReference srs;
    srs.importFromEPSG(4326);
    ds->SetSpatialRef(&srs);
    std::vector<float> row(static_cast<std::size_t>(side));
    for (int l = 0; l < side; ++l) {
        for (int c = 0; c < side; ++c)
            row[static_cast<std::size_t>(c)] = static_cast<float>(
                -400.0 + 900.0 * (side - c) / side + 30.0 * std::sin(c * 0.01) * std::cos(l * 0.013) +
                3.0 * std::sin(c * 0.3 + l * 0.2));
        if (ds->GetRasterBand(1)->RasterIO(GF_Write, 0, l, side, 1, row.data(), side, 1,
                                           GDT_Float32, 0, 0, nullptr) != CE_None)
            std::exit(1);
    }
}
