#pragma once

#include <string>

// `seaforge-prep build PLAN`: everything a plan describes, in the plan's folder: every
// region's grid (outermost first, through the grid command; only those whose inputs
// changed since the last build, and the regions nested in them), the project file, the
// check's report (Check.txt, and Check.json with `json`) and the overview (Overview.png,
// Overview.gpkg).
struct BuildOptions {
    std::string plan;
    bool json = false;  // also write the check's report as JSON
    bool quiet = false; // no table and no summary
};

// The check's status (0 no finding, 2 warnings only, 1 an error), or 1 after one
// "seaforge-prep: ..." line on standard error when the plan cannot be built; a plan the
// run would refuse is refused before any grid is written.
[[nodiscard]] int RunBuild(const BuildOptions& options);

// The file a build keeps its record of what each region was built from, in the plan's
// folder.
inline constexpr const char* kBuildRecordName = ".seaforge-build.json";
