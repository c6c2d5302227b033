#pragma once

#include "project/XmlRecords.hpp"

#include <cstdint>
#include <string>
#include <vector>

// One line of a fault model file: a rectangular fault plane and its slip.
struct FAULT_PARAM {
    double lon = 0.0;    // reference point x: longitude (degrees) or easting (metres)
    double lat = 0.0;    // reference point y: latitude (degrees) or northing (metres)
    double value3 = 0.0; // carried for the deformation calculators, not used here
    double value4 = 0.0; // carried
    double strike = 0.0; // degrees clockwise from grid north
    double dip = 0.0;    // degrees
    double value7 = 0.0; // carried
    double length = 0.0; // along strike, metres
    double width = 0.0;  // down dip, metres
    double slip = 0.0;
    std::string name;
    double option1 = 0.0; // twelfth column, 0 when the line has fewer than 13 fields
    double option2 = 0.0; // thirteenth column, likewise
};

// The fault segments of one fault model file, drawn as polygons in a shapefile.
//
// File: one segment per line; "#" in the first column starts a comment. Fields are split
// at blanks and tabs: latitude (or northing) first, then longitude (or easting), value3,
// value4, strike, dip, value7, length, width, slip (all strtod), the name, and optionally
// option1 and option2. Lines are read with a 1023-byte buffer, so a line of more than 1022
// characters is read as several lines.
//
// ReadFile and MakeShapefile print progress on standard output and, on failure, their
// "ERROR:FAULT OBJECT METHOD" block on standard error.
class Fault {
  public:
    Fault();
    explicit Fault(const XML_FAULT& rec);
    ~Fault();

    // Appends the file's segments to `segments`, sets endTime to 0 and returns true; false
    // after the error block when the file cannot be opened or a line is malformed (the
    // segments before that line stay).
    [[nodiscard]] bool ReadFile();
    // The reading of ReadFile alone, printing nothing: 0 when read, 1 when the file cannot
    // be opened or read, 2 for a malformed line.
    [[nodiscard]] int LoadFile();

    // Writes the surface outline of every segment as a polygon with its name and slip to
    // the shapefile at `path`, in the system `epsg`. With coordType 1 the outline is worked
    // out in the UTM zone of each segment and written in degrees, longitudes in 0..360.
    // Kept: a creation refused by the writer shows as its own lines (one per segment).
    // False, after the error block, when a reference point or an outline cannot be
    // converted, or when the files cannot be stored in full.
    [[nodiscard]] bool MakeShapefile(std::string path);
    // The closed surface outline of `seg` as MakeShapefile writes it (5 points, in degrees
    // with longitudes in 0..360 for coordType 1, else in the file's metres). With `echo`,
    // prints the "lon0:... lat0:..." line the run prints. False when a point cannot be
    // converted. Uses the projection service (the UTM zone of the reference point), which
    // prints its zone line unless its notices are off.
    [[nodiscard]] bool SegmentOutline(const FAULT_PARAM& seg, double x[5], double y[5],
                                      bool echo) const;

    void FreeVecMem();
    [[nodiscard]] int TempMethod(); // does nothing; kept for callers of the old interface

    // Replaces every `from` in `text` by `to`, left to right, resuming after each inserted
    // text, so an inserted text is never searched again. An empty `from` changes nothing.
    static void strReplace(std::string& text, const std::string& from, const std::string& to);

    std::int32_t epsg = 0;      // coordinate system of the shapefile
    std::int32_t coordType = 0; // 1: segment positions in degrees; otherwise metres
    std::string fileName;
    std::vector<FAULT_PARAM> segments; // in file order
    double endTime = 0.0;              // 0 after every successful read
};
