#pragma once

#include "prep/OverviewScene.hpp"

#include <string>

// The overview as one GeoPackage in longitude-latitude (EPSG 4326, longitude first), for
// a GIS: layer "regions" (cell-edge outlines with number, name, base, epsg, spacing, nx,
// ny, time_step, cfl; time_step and cfl null where unknown), "stations" and
// "coastal_points" (points with name, file, epsg, x and y as the list gives them, and the
// region whose cell the run gives them, null for none) and "faults" (segment outlines with
// name, slip, file and segment). Shapes without longitude-latitude are left out.
// Written beside `path` first, then renamed; throws PrepError when it cannot be written.
void WriteOverviewGeoPackage(const std::string& path, const OverviewScene& scene);
