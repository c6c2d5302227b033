#pragma once

#include "region/Region.hpp"

#include <optional>
#include <string>
#include <vector>

// What an overview shows, gathered once and handed to the picture and to the GeoPackage.
// Each shape comes twice: in the outer region's system (the picture; empty when it could
// not be carried there) and in longitude-latitude degrees, WGS84 (the GeoPackage; empty
// likewise). Rings are closed: the last point repeats the first.

struct OverviewRing {
    std::vector<double> x;
    std::vector<double> y;
    [[nodiscard]] bool empty() const { return x.empty(); }
};

struct OverviewRegion {
    int number = 0;
    std::string name;
    int base = 0;
    int epsg = 0;
    double spacing = 0; // as the run reads it (a binary grid states its own)
    int nx = 0;
    int ny = 0;
    int level = 0;                // 0 the outer region, 1 its children, ...
    std::optional<double> dt;     // seconds, as the run works it out
    std::optional<double> cfl;
    bool refusedNesting = false;  // the run's nesting check refuses it in its base
    OverviewRing map;             // cell-edge outline
    OverviewRing lonLat;
};

struct OverviewPoint {
    std::string name;
    std::string file;
    int epsg = 0;
    double x = 0; // as the list gives it
    double y = 0;
    std::optional<int> region; // the region whose cell the run gives it; none: no cell
    bool onMap = false;
    double mapX = 0;
    double mapY = 0;
    bool onLonLat = false;
    double lon = 0;
    double lat = 0;
};

struct OverviewFault {
    std::string name; // without the quotes and line end the file gives it
    double slip = 0;
    std::string file;
    int segment = 0; // 1-based, in file order
    OverviewRing map;
    OverviewRing lonLat;
};

struct OverviewScene {
    std::string title;    // "Example: region 1 (Outer)"
    std::string subtitle; // system, spacing, size
    int epsg = 0;         // the outer region's system: the picture's coordinates
    bool geographic = false;
    double minX = 0; // extent drawn, in the outer system
    double minY = 0;
    double maxX = 0;
    double maxY = 0;
    const Region* relief = nullptr; // the outer region's topography, when it could be read
    std::vector<OverviewRegion> regions; // ascending number, the outer region first
    std::vector<OverviewPoint> stations;
    std::vector<OverviewPoint> coastalPoints;
    std::vector<OverviewFault> faults;
};
