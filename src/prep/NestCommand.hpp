#pragma once

#include "prep/Placement.hpp"
#include "prep/Warp.hpp"

#include <array>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// `seaforge-prep nest`: the nested chain for a place, designed from the elevation data,
// written as a plan in the output folder and built there (see BuildCommand.hpp).
struct NestOptions : SourceOptions {
    std::optional<std::array<double, 2>> site; // longitude, latitude
    std::string radius = "1km";                // around the site: "3km", "500m", "800"
    std::optional<Bounds> area;                // or the area of interest, degrees
    double finest = 0;                         // metres
    int ratio = 3;
    int levels = 0;          // 0: chosen from the coarsest source
    double outerSpacing = 0; // metres; 0: not asked
    double cfl = 0.8;
    int margin = 10;
    double maxCells = 25e6;
    double outerDepth = 200;
    std::string name;        // ProjectName; empty: the output folder's name
    std::string output;      // the folder
    std::string fault;
    std::string stations;
    std::string coastPoints;
    double totalTime = 3600;
    std::string resampling;
    bool planOnly = false;
    bool force = false; // replace a folder that holds another project
    bool json = false;  // the check's report also as JSON
    bool quiet = false;
};

// The status of the check on the built project (2 also when a rule of the plan gave way),
// 0 after --plan-only, or 1 after one "seaforge-prep: ..." line on standard error, with
// nothing written.
[[nodiscard]] int RunNest(const NestOptions& options);

// The file name of the plan in the output folder.
inline constexpr const char* kPlanName = "Plan.json";
