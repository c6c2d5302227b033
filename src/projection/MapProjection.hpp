#pragma once

#include <proj.h>

#include <cstdint>

// Process-wide conversion between one geographic system (longitude, latitude in degrees)
// and one plane system (easting, northing in metres), for the nesting check and the fault
// outlines. C linkage and counts by pointer, so numerical code in other languages can call
// it as it stands.
//
// Use: one initialise call, any number of ll2xy_ / xy2ll_, then mapproject_finalize_.
// Only one pair is active at a time; a client needing another plane system finalises and
// initialises again. Single-threaded: the state is an unguarded global.
//
// Arrays are parallel: point i is (lon[i], lat[i]) or (x[i], y[i]). A point PROJ cannot
// convert comes back as HUGE_VAL in both outputs, as PROJ itself reports it; so does every
// point while no usable pair is set up (never initialised, finalised, or a plane system
// PROJ refuses such as UTM zone 61). PROJ itself never prints: failures show only in the
// results.

extern "C" {

// Geographic system: 4612 is JGD2000 (GRS80); every other code takes WGS84 and, unless it
// is 4326, prints "default EPSG:4612" on standard output.
// Plane system: the 19 plane rectangular systems 2443-2461 and the UTM zones 3097-3101
// (zones 51-55), all on GRS80; any other code prints "default EPSG:3100" on standard output
// and takes UTM zone 54.
// Returns the plane system's handle, owned by the service until the next initialise or
// finalise (callers may ignore it), or null when the pair could not be set up.
PJ* mapproject_initialize_using_epsg_(std::int32_t geoEpsg, std::int32_t planeEpsg);

// JGD2000 geographic and the UTM zone (GRS80) containing `longitude` (degrees); prints
// "Deformation Calc. UTM Zone:<zone>" on standard output. The zone is
// trunc((longitude + 180) / 6 + 1), except that a longitude above 180 is shifted down by
// 180 instead of wrapped by 360 (180.5 gives zone 1, 180.0 gives zone 61, which PROJ
// refuses). A longitude giving no integer zone (NaN, huge) prints zone 0 and sets up no pair.
// Returns as mapproject_initialize_using_epsg_.
PJ* mapproject_initialize_using_longi_(double longitude);

// Converts *n points from degrees to metres. A longitude of 180 or more is taken 360 lower
// first (once). `x`, `y` may be the same arrays as `lon`, `lat`. A null or non-positive *n,
// or *n > 0 with a null array, writes nothing.
// Returns 0 when every point converted, otherwise PROJ's error number (non-zero).
[[nodiscard]] int ll2xy_(const std::int32_t* n, const double* lon, const double* lat, double* x,
                         double* y);

// Converts *n points from metres to degrees. The longitude is not wrapped: a point east of
// 180 comes back negative. Counts, aliasing and result as ll2xy_.
[[nodiscard]] int xy2ll_(const std::int32_t* n, double* lon, double* lat, const double* x,
                         const double* y);

// Releases the active pair. Safe to call again, and without a previous initialise.
void mapproject_finalize_(void);

} // extern "C"

// Whether the service has a plane system of its own for `epsg`: the JGD2000 plane
// rectangular systems 2443-2461 and UTM zones 3097-3101. Any other code is converted as
// UTM zone 54 (EPSG 3100), so a region in it cannot be checked against a region of
// another system.
[[nodiscard]] bool IsServicePlaneEpsg(int epsg);

// While off, the initialise calls print nothing (their "default EPSG" and "Deformation
// Calc. UTM Zone" lines), for a program that says the same in its own words. On at the
// start; the run never turns it off.
void SetMapProjectionNotices(bool print);
