#pragma once

#include "prep/Placement.hpp"
#include "prep/Terrain.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// The nested chain from a place, a finest spacing and the lie of the land: how many
// regions, their systems, spacings and edges, and the time increment. The run's own
// time-step code and nesting check decide every rule they share with the run.

struct ChainRules {
    double siteLon = 0; // degrees: the centre of the area of interest
    double siteLat = 0;
    Bounds interest{};  // the area of interest, degrees
    double finest = 0;  // metres
    int ratio = 3;
    int levels = 0;            // 0: enough for the outer spacing to reach the source's cells
    double outerSpacing = 0;   // metres; 0: not asked
    double sourceMetres = 0;   // the coarsest source's cells, metres
    double cfl = 0.8;
    int margin = 10;           // base cells between a region's edges and its base's
    double maxCells = 25e6;    // in all regions together
    double outerDepth = 200;   // metres the outer region's open sides should reach
    // Fault segments' outlines (name, box in degrees) the outer region must hold.
    std::vector<std::pair<std::string, Bounds>> faults;
};

// One row of the chain's table: a region as the run will see it.
struct ChainRow {
    int number = 0;
    std::string name;
    int base = 0;
    int epsg = 0;
    double spacing = 0;    // in the region's units
    GridGeometry grid;     // its points
    double lowest = 0;     // its deepest point (elevation, negative below sea level)
    double shallowestEdge = 0; // the shallowest water on its boundary (m); NaN: no water
    double marginCells = 0;    // base cells between its edges and its base's; NaN outermost
    double edgeJump = 0;       // the largest depth jump against its base along its boundary
                               // (m), as check measures it; NaN when not known
    // As the run's time-step block works them out.
    float dxMeter = 0;
    double dt = 0;
    int stepRatio = 0;
    double cfl = 0;
};

struct ChainDesign {
    std::vector<ChainRow> rows; // outermost first, numbered from 1
    double timeIncrement = 0;
    int zone = 0;                     // the JGD2000 plane system chosen, 0 outside Japan
    std::vector<std::string> notes;   // one line each, said once
    std::vector<std::string> warnings; // rules that gave way, one line each
};

// Throws PrepError when the rules cannot be met (a finest spacing coarser than the outer
// one, a chain larger than maxCells, ...).
[[nodiscard]] ChainDesign DesignChain(const ChainRules& rules, const Terrain& terrain);

// The JGD2000 plane rectangular system (EPSG 2443-2461) whose area of use in PROJ's
// database holds the point, the smallest such area when several do; 0 when none does.
[[nodiscard]] int JapanZone(double lon, double lat, Bounds* areaOfUse = nullptr);

// Fills every row's dxMeter, dt, stepRatio and cfl with the run's time-step code.
// Throws PrepError when the run could not compute them.
void WorkOutRowSteps(std::vector<ChainRow>& rows, double timeIncrement, double cflLimit);

// The largest TimeIncrement, rounded down to 3 significant digits, for which every
// region's CFL number as the run computes it stays at or below `cflLimit` (which is also
// the project's TimeNestingCFLLimit). Regions without water limit nothing.
[[nodiscard]] double LargestTimeIncrement(const std::vector<ChainRow>& rows, double cflLimit);

// Base cells between the row's cell edges and its base's, the fewest on any side; across
// systems measured in the base's degrees.
[[nodiscard]] double MarginInBase(const ChainRow& row, const ChainRow& base);

// The chain as a table, one line a region, with a heading.
[[nodiscard]] std::string ChainTable(const std::vector<ChainRow>& rows);
