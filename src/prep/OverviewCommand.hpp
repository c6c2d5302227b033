#pragma once

#include <string>

// `seaforge-prep overview`: one picture of a whole project (or of one region and the
// regions nested in it) and, on request, the same as a GeoPackage for a GIS.
struct OverviewOptions {
    std::string project;
    std::string output; // PNG to write; empty: none
    std::string gpkg;   // GeoPackage to write; empty: none
    int region = 0;     // RegionNo drawn as the outer region with its nested ones; 0: the
                        // lowest-numbered outermost region (BaseRegionNo 0) and every other
    int width = 1200;   // of the picture, pixels
    bool quiet = false; // no summary
};

// Draws what it can. Whatever it leaves out (a grid it cannot read, a list or fault file
// it cannot read, shapes that cannot be carried into the picture's system or lie outside
// it) is one "seaforge-prep: left out ..." line on standard error; facts the run would
// act on (a region its nesting check refuses, points it gives no cell, codes its
// projection service does not know) are "seaforge-prep: note: ..." lines.
// 0 when every file asked for was written, even with parts left out; 1 after one
// "seaforge-prep: ..." line when the project cannot be read, nothing at all can be drawn,
// or a file cannot be written. The summary goes to standard output.
[[nodiscard]] int RunOverview(const OverviewOptions& options);
