#pragma once

#include "prep/Placement.hpp"
#include "prep/Warp.hpp"

#include <optional>
#include <string>
#include <utility>
#include <vector>

// The plan of a nested chain: what `nest` designs and `build` makes, one JSON file a
// modeller may read and edit. Paths in it are taken from the plan's own folder, which is
// also where the project, the grids and the reports are written.

// One elevation source of one region, with the options the grid command takes for it.
struct PlanSource {
    std::string path;
    bool depthPositive = false; // values are depths, positive down
    std::string resampling;     // a gdalwarp method; empty: the grid command's own choice
    // What the grid command's source options say, over what the file says (see WarpSource).
    std::string srs;              // "source_srs"
    std::optional<double> noData; // "nodata"; NaN is written "nan"
    std::optional<double> zScale; // "z_scale"
    bool keepMarkers = false;     // "keep_markers"
    // Further per-source keys as the plan holds them (key, JSON text): kept when the plan
    // is rewritten, and refused by `build` until the grid command takes them.
    std::vector<std::pair<std::string, std::string>> pending;
};

// The source as the grid command takes it, at `path` (the plan's path resolved).
[[nodiscard]] WarpSource AsWarpSource(const PlanSource& source, const std::string& path);

struct PlanRegion {
    int number = 0; // RegionNo
    std::string name;
    int base = 0; // BaseRegionNo; 0 for the outermost region
    int epsg = 0;
    double spacing = 0; // GridSize, in degrees or metres as `epsg` says
    Bounds bounds{};    // cell edges to cover, in the region's system
    std::string grid;   // the topography grid's file name
    std::vector<PlanSource> sources; // later ones win where they hold valid data
};

// What the chain was designed from, kept so that the plan says how it was made.
struct PlanDesign {
    std::optional<std::array<double, 2>> site; // longitude, latitude
    double radius = 0;                         // metres around the site
    std::optional<Bounds> area;                // the area of interest, degrees
    double finest = 0;                         // metres
    int ratio = 3;
    int levels = 0;          // 0: chosen by the planner
    double outerSpacing = 0; // metres; 0: chosen by the planner
    int margin = 10;         // base cells between a region's edge and its base's
    double maxCells = 25e6;  // in all regions together
    double outerDepth = 200; // metres the outer region's open sides should reach
};

struct Plan {
    std::string name; // ProjectName; the project file is <name>.xml
    double totalTime = 3600;
    double cfl = 0.8; // the CFL limit every region keeps, also TimeNestingCFLLimit
    std::optional<double> timeIncrement; // empty: the largest the built grids allow
    std::string fault;                   // fault model file
    std::string stations;                // station list, may be empty
    std::string coastPoints;             // coastal point list, may be empty
    PlanDesign design;
    std::vector<PlanRegion> regions; // outermost first
};

// The plan as its file holds it. Throws PrepError naming the file and what is wrong.
[[nodiscard]] Plan ReadPlan(const std::string& path);
// Its text: the same plan always gives the same bytes.
[[nodiscard]] std::string PlanText(const Plan& plan);
// Writes PlanText whole (a previous file is replaced only once the new one is complete).
void WritePlan(const std::string& path, const Plan& plan);
// The shortest decimal text that reads back to `value`, without an exponent.
[[nodiscard]] std::string ShortestDecimal(double value);
