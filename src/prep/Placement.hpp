#pragma once

#include <array>
#include <cstdint>

// Where a region's grid points go. Points are cell centres: point (i, j) lies at
// (orgX + i × spacing, orgY + j × spacing) and is the centre of a square cell of side
// spacing, so the grid covers the cell edges orgX - spacing / 2 .. orgX + (nx - 1/2) × spacing.
struct GridGeometry {
    double orgX = 0;
    double orgY = 0;
    double spacing = 0;
    std::int32_t nx = 0;
    std::int32_t ny = 0;
};

// xmin, ymin, xmax, ymax: a cell-edge extent.
using Bounds = std::array<double, 4>;

[[nodiscard]] Bounds CellEdges(const GridGeometry& grid);

// The whole cells of side `spacing` covering `bounds`, starting at its south-west corner
// and rounded outward to the north and east. Bounds a whole number of cells apart, up to
// the rounding of their decimal digits, give exactly that many cells. Throws PrepError for
// empty or reversed bounds, a spacing that is not positive, and more cells than a grid
// file can count.
[[nodiscard]] GridGeometry CoverBounds(const Bounds& bounds, double spacing);

// The cells of side `spacing` covering `bounds`, laid on the cells of `base` (same
// coordinate system): the extent is first widened to whole base cells, so every cell edge
// of the base inside it is a cell edge of the result and every base cell it covers holds
// ratio × ratio of its cells. Throws PrepError when the base spacing is not a whole
// multiple of `spacing` (naming both) and as CoverBounds does.
struct BasePlacement {
    GridGeometry grid;
    std::int32_t ratio = 0;      // base spacing / spacing
    std::int32_t firstBaseI = 0; // base cell holding this grid's south-west cell
    std::int32_t firstBaseJ = 0;
};
[[nodiscard]] BasePlacement PlaceOnBase(const Bounds& bounds, double spacing,
                                        const GridGeometry& base);
