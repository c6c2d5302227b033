#pragma once

#include "region/Region.hpp"

#include <map>

// Every region's time step as a run works them out: from the highest-numbered region,
// which runs at exactly `timeIncrement`, outwards, each region's step built on the step of
// the region numbered just above it (with the factor 3 allowed by `nestingCflLimit` only
// between neighbours of one coordinate system); then each region's step ratio from its
// base region. `topographies` are the regions' topography grids (valMin read), by number.
struct TimeStepOutcome {
    bool failed = false; // a step could not be computed; the later ones were not tried
    int regionNo = 0;    // the region whose step failed
    int reason = 0;      // CalcDT's detail code for it (-1 with `echo`: it printed it)
};
// With `echo`, a failing step prints CalcDT's error block (and its "here" line).
[[nodiscard]] TimeStepOutcome WorkOutTimeSteps(std::map<int, Region>& topographies,
                                               double timeIncrement, double nestingCflLimit,
                                               bool echo);
