#pragma once

#include <array>
#include <cstdint>
#include <optional>

// The corner search of the nesting check across coordinate systems: where, among the
// points of a geographic base grid carried into a nested region's plane system, the
// nested region's corners lie.
//
// Base point (ix, iy), 0 <= ix < nx, 0 <= iy < ny, lies at longitude orgX + ix × gridSize
// and latitude orgY + iy × gridSize (degrees). Its converted easting and northing (metres)
// are X[k] and Y[k] at the flat index k = ix × ny + iy.
//
// A corner (cx, cy) is found when some ix in 0 .. nx-6 and iy in 1 .. ny-2 give
//     X[ix][iy] < cx < X[ix+4][iy]   and   Y[k - 2] < cy < Y[k + 2],  k = (ix+2) × ny + iy.
// Kept: the box spans four columns from ix but four rows centred on iy, and its northings
// are read through the flat index, so at iy = 1 the lower one is the last point of column
// ix+1 and at iy = ny-2 the upper one is the first point of column ix+3. Those two rows
// thereby almost never match; users keep their nested regions clear of the base edges.
//
// All three functions give the same answer. They need the projection service set up with
// the base region's geographic system and the nested region's plane system, and leave it
// set up. They print nothing.

struct NestingBase {
    double orgX;     // degrees
    double orgY;     // degrees
    double gridSize; // degrees
    std::int32_t nx; // points along longitude
    std::int32_t ny; // points along latitude
};

struct PlanePoint {
    double x; // easting, metres
    double y; // northing, metres
};

using NestingCorners = std::array<PlanePoint, 4>;
using CornersFound = std::array<bool, 4>; // in the order of the corners given

// Takes the fast search when the layout allows it, else the full one.
[[nodiscard]] CornersFound FindNestingCorners(const NestingBase& base,
                                              const NestingCorners& corners,
                                              std::int32_t planeEpsg);

// Converts every base point the boxes read (all but the last column), a slice of rows
// at a time, so memory stays a few megabytes whatever the grid. Takes any layout.
[[nodiscard]] CornersFound FindNestingCornersFull(const NestingBase& base,
                                                  const NestingCorners& corners);

// Converts only the points that can decide: a binary search along the middle column of
// each box finds the few rows whose northing interval can hold a corner, and only those
// rows and the two flat-indexed edge rows are tested. The columns around each corner's
// longitude go first, so a region that fits is settled after a few dozen columns rather
// than the whole grid. This relies on the northing growing with latitude down every
// column, which holds for a transverse Mercator system within 45 degrees of its central
// meridian and 85 degrees of the equator; outside that, for spacings under a millionth of
// a degree, and as soon as a converted value is not finite, it answers nothing and the
// caller takes the full search.
[[nodiscard]] std::optional<CornersFound>
FindNestingCornersFast(const NestingBase& base, const NestingCorners& corners,
                       std::int32_t planeEpsg);
