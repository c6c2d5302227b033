#pragma once

#include "project/XmlRecords.hpp"
#include "region/InstantVal2d.hpp"

#include <cstdint>
#include <string>
#include <valarray>
#include <vector>

// One stage of a time-staged sea-floor deformation.
struct DYNAMIC_PARAM {
    std::int32_t order = 0; // stage number as written
    double validTime = 0.0; // seconds from the start of the calculation
    double riseTime = 0.0;  // seconds over which the stage grows to its full amount
    bool inUse = true;      // the stage starts inside the calculation time
};

// The deformation stages of a project: read from the dynamic parameter file, or a single
// instantaneous stage at time 0 when the project names none. A plain value: each
// deformation grid is handed its own copy.
class DynamicParam {
  public:
    DynamicParam();
    explicit DynamicParam(const XML_DYNAMIC& rec);

    // Appends the file's stages (order, valid time, rise time; further columns ignored)
    // in file order. A stage is in use when it starts at or before 0 or before `endTime`
    // (seconds); stages out of use stay in the list. Prints the "Fault Dynamic Parameter
    // Input:" frame and the stages in use on standard output; false after the
    // "ERROR:DYNAMICPARAM OBJECT METHOD" block on standard error, keeping the stages read
    // before the faulty line.
    [[nodiscard]] bool ReadFile(double endTime);
    // The reading of ReadFile alone, printing nothing: 0 when read, 1 when the file cannot
    // be opened or read, 2 for a line with fewer than three fields.
    [[nodiscard]] int LoadFile(double endTime);
    // Appends one instantaneous stage at time 0 (the list is not cleared). Always true.
    [[nodiscard]] bool SetZero();
    // Adds each stage's share of `source` over the step [time, time + dt] (seconds) into
    // targets[i], element by element, and advances lastTime to time + dt. A slice that
    // holds no values yet is sized like `source`; a shorter one receives only its own
    // length, and stages beyond the end of `targets` are skipped. The two leading
    // arguments are layer and region numbers kept for the callers' sake; they are unused.
    [[nodiscard]] bool CalcDynamicAct(int layerNo, int regionNo, double time, double dt,
                                      std::valarray<float>& source,
                                      std::vector<InstantVal2d>& targets);
    void FreeVecMem();

    std::string fileName;
    std::vector<DYNAMIC_PARAM> params; // in file order
    double lastTime;                   // latest step end seen by CalcDynamicAct
    bool hasFile;                      // a parameter file is named
};
