#pragma once

#include "project/XmlRecords.hpp"
#include "region/Grid2d.hpp"

#include <cstdint>
#include <map>
#include <string>

// One coastal structure of the construction-line parameter file.
struct CONSTLINE_PARAM {
    double sinkRate = 0.0; // sunk fraction: 0.0 intact, 1.0 gone; valid in [0, 1]
    std::int32_t kind = 0; // structure class 0, 1 or 2
    std::string label;     // fourth column as written; Kept: with the newline that ends a line
};

// The structures of a project and the two per-face grids derived from them.
//
// Per-face grids are nx × ny cells indexed [i][j] (i along x, j along y), each cell
// holding two values: [i][j][0] for the face between (i, j) and (i, j + 1), [i][j][1] for
// the face between (i, j) and (i + 1, j). Identifier 0 means no structure.
//
// Failures print a "ERROR:CONSTLINEPARAM OBJECT METHOD" block on standard error and
// answer false.
class ConstLineParam {
  public:
    ConstLineParam();
    explicit ConstLineParam(const XML_CONSTLINE& rec);
    ~ConstLineParam();

    // Reads the parameter file, one structure per line: identifier, sink rate, kind,
    // label; further columns are ignored and an identifier's first line wins. Prints the
    // "ConstLine Parameter File Input:" frame on standard output. Rates are not checked
    // here: SinkWB does that where they are used.
    [[nodiscard]] bool ReadFile();
    // The reading of ReadFile alone, printing nothing: 0 when read, 1 when the file cannot
    // be opened or read, 2 for a line with fewer than four fields.
    [[nodiscard]] int LoadFile();

    // Wave-breaker map of every face: 100, 1 or 2 for a standing structure of kind 0, 1
    // or 2; 0 where there is none, it is not listed or it has sunk completely (rate 1.0).
    // Kept: another kind leaves the face's previous value. `ids` and `map` must hold
    // nx × ny cells; with nx < 1 nothing is done.
    [[nodiscard]] bool MakeWBMap(int nx, int ny, const Grid2d<std::int32_t, 2>& ids,
                                 Grid2d<std::int32_t, 2>& map) const;

    // Crest heights lowered by each structure's sink rate toward the ground beside it
    // (the higher of the face's two cells; a face on the last row or column has only its
    // own cell): sunk = g + (crest - g) × (1 - rate). Faces without a structure get 0.0,
    // unlisted structures keep their crest. A rate outside [0, 1] stops at that face,
    // leaving the faces before it written. `tideLevel` is not used. `heights`, `ids`,
    // `topo` and `sunk` must hold nx × ny cells.
    [[nodiscard]] bool SinkWB(int nx, int ny, double tideLevel, const Grid2d<double, 2>& heights,
                              const Grid2d<std::int32_t, 2>& ids, const Grid2d<double>& topo,
                              Grid2d<double, 2>& sunk) const;

    std::string fileName;
    bool noFile;                           // no parameter file named
    std::map<int, CONSTLINE_PARAM> params; // by structure identifier
};
