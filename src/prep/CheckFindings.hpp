#pragma once

#include "project/QuorXmlParameter.hpp"
#include "region/Region.hpp"

#include <array>
#include <map>
#include <optional>
#include <string>
#include <vector>

// What `seaforge-prep check` gathers: the regions as the run sees them and the findings,
// each one line in the user's words with the run's own numbers and a fix.

enum class Level { Error, Warning };

struct Finding {
    Level level;
    int region; // 0: the project as a whole
    std::string message;
};

// One region as the run sees it, and what the check measured of it.
struct RegionReport {
    XML_REGION record;
    std::optional<Region> topography;            // read as the run reads it
    std::optional<std::array<double, 4>> lonLat; // cell-edge extent in degrees
    bool timeStep = false;                       // dt, stepRatio and cfl computed
    std::optional<double> jumpMax;               // boundary against the base region
    double jumpMean = 0;
    std::vector<double> cornerMargins; // across systems, base cells to the search's limit
};

struct Report {
    std::string project;
    std::vector<RegionReport> regions;
    std::vector<Finding> findings;
    double peakBytes = 0;
    double outputBytes = 0;

    void Add(Level level, int region, const std::string& message) {
        findings.push_back({level, region, message});
    }
    RegionReport* Find(int regionNo) {
        for (RegionReport& r : regions)
            if (r.record.RegionNo == regionNo)
                return &r;
        return nullptr;
    }
};

// " (the run stops with "ERROR:Read Topography")": every error names the run's own line.
[[nodiscard]] std::string RunStops(int code);

// What the time step reads of a topography, without its cells.
[[nodiscard]] Region StepView(const Region& t);

// A project that breaks a region rule of the run's validation (RegionNo, RegionName,
// BaseRegionNo, GridSize, Topography FileName): the region that breaks it, and the
// element the file holds instead when one looks misspelt. Elements the reader passes
// over that look like a misspelt known one, in the other regions, are warnings. Answers
// the RegionNo of the region that breaks the rule.
[[nodiscard]] std::optional<int> CheckRegionElements(Report& report,
                                                   const QuorXmlParameter& project, int rule);

// The region's coordinate system against its numbers: a longitude-latitude region whose
// spacing or extent cannot be degrees, a code PROJ knows as geographic that the run takes
// as metres, a plane region whose numbers look like degrees, a JGD2000 plane region
// outside its zone's area of use. Each says what the run will compute and the code to use.
void CheckSystem(Report& report, const RegionReport& r);

// For a JGD2000 plane region the run's nesting check refuses in a longitude-latitude
// base: the other JGD2000 zones in which its numbers would pass that check, as "; read in
// EPSG 2450 (...), ..." for the refusal's line, or empty.
[[nodiscard]] std::string OtherZonesAccepted(const Region& own, const Region& base);

// A binary grid whose header spacing differs from the project's GridSize.
void CheckFileSpacing(Report& report, const RegionReport& r);

// After the time steps: a region with no cell below the tide level.
void CheckDryRegion(Report& report, const RegionReport& r, int tideLevel);

// The largest TimeIncrement of at most four significant digits under which every region's
// CFL number, as the run works them out, is at most `cflLimit`; `start` is a first guess
// (the increment scaled by the limit over the worst CFL number).
[[nodiscard]] double SuggestTimeIncrement(const std::map<int, Region>& topographies,
                                          double start, double nestingCflLimit, double cflLimit);
