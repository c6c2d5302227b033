#pragma once

#include "project/XmlRecords.hpp"

#include <cstdint>
#include <string>
#include <vector>

// One named point of a station or coastal extract point list, and the cell chosen for it.
struct PosXY {
    double x = 0.0; // longitude (degrees) or easting (metres), in the list's EPSG system
    double y = 0.0; // latitude or northing
    std::string name;
    std::int32_t bestRegionNo = -1; // -1 until a region is chosen
    std::int32_t bestI = -1;        // 0-based cell index along x in that region
    std::int32_t bestJ = -1;        // 0-based cell index along y
};

// A list of named points (observation stations or coastal extract points), one list file.
//
// File: one point per line, "x y name [ignored...]", fields split at blanks, tabs and line
// ends; "#" in the first column starts a comment. Lines are read with a 1023-byte buffer,
// so a line of more than 1022 characters is read as several lines.
//
// Methods print progress on standard output and, on failure, their
// "ERROR:STATION OBJECT METHOD" block on standard error.
class Station {
  public:
    explicit Station(const XML_STATION& rec);
    ~Station();

    // Appends the file's points. A file that cannot be opened is only a warning on
    // standard error: the list stays empty and the answer is true. False after the error
    // block when a line has fewer than three fields.
    [[nodiscard]] bool ReadFile();
    // The reading of ReadFile alone, printing nothing: 0 when read, -1 when the file
    // cannot be opened (the run only warns), 1 when a read failed, 2 for a line with fewer
    // than three fields (the points before it stay).
    [[nodiscard]] int LoadFile();

    // Writes the points as a point shapefile at `path` in the system `epsg`. Kept: a
    // creation refused by the writer shows as its own lines (one per point). False after
    // the "Making Shapefile" error block when the files cannot be stored in full.
    [[nodiscard]] bool MakeShapefile(std::string path);

    // Appends "bestI+1, bestJ+1, name, bestRegionNo" per point to `path` (every list of a
    // run adds to the same file). False after the error block when it cannot be opened or
    // written in full.
    [[nodiscard]] bool WriteBestPoint(std::string path);

    [[nodiscard]] int TempMethod(); // does nothing; kept for callers of the old interface

    std::int32_t epsg = 0;
    std::string fileName;
    std::vector<PosXY> points; // in file order
};
