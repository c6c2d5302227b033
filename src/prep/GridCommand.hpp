#pragma once

#include "prep/Placement.hpp"
#include "prep/Warp.hpp"

#include <array>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// `seaforge-prep grid`: one region's topography grid from elevation rasters.
struct GridOptions : SourceOptions {
    // With a project: the region's system, spacing, output path and base come from it.
    std::string project;
    int region = 0; // RegionNo; 0 without a project
    // Without a project.
    int epsg = 0;
    double spacing = 0;
    std::string output;

    // The extent, one of: cell edges in the grid's system, cell edges in longitude and
    // latitude (degrees), or the exact points (origin = grid point (0, 0)).
    std::optional<Bounds> bounds;
    std::optional<Bounds> boundsLonLat;
    std::optional<std::array<double, 2>> origin;
    std::optional<std::array<int, 2>> size;

    std::string resampling;               // empty: averaging or bilinear, per source
    std::optional<double> fill;           // value of cells no source covers
    std::string geotiff;                  // also write this float GeoTIFF
    bool quiet = false;                   // no summary
    bool progress = false;                // the progress line on standard error
};

// Writes a binary grid as the run reads it (the layout Region::PutBIN writes) from cells
// already rounded to floats, rows from the south; false when a write fails.
// The header of a binary grid: origin, size and spacing (a float) in host order.
using BinaryHeader = std::array<unsigned char, 2 * sizeof(double) + 2 * sizeof(std::int32_t) +
                                                   sizeof(float)>;
[[nodiscard]] BinaryHeader BinaryGridHeader(double orgX, double orgY, std::int32_t nx,
                                            std::int32_t ny, double spacing);
[[nodiscard]] bool PutBinaryGrid(std::FILE* file, double orgX, double orgY, std::int32_t nx,
                                 std::int32_t ny, double spacing, const float* cells);

// 0 when the grid was written, 1 after one "seaforge-prep: ..." line on standard error.
// The summary goes to standard output.
[[nodiscard]] int RunGrid(const GridOptions& options);
