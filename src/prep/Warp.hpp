#pragma once

#include "prep/Placement.hpp"
#include "region/Grid2d.hpp"

#include <gdal.h>
#include <gdal_priv.h>
#include <ogr_spatialref.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

// The one place that resamples: every source raster is carried onto a region's grid by
// GDAL's warper, in its own coordinate system and with its own nodata, later sources
// winning where they hold valid data.

// A source and what the user says about it; what is not said is read from the file.
struct WarpSource {
    std::string path;           // anything GDAL opens as a raster (band 1 is read)
    bool depthPositive = false; // values are depths, positive down: negated after the warp
    std::string srs;            // its coordinate system (an EPSG code or anything GDAL
                                // reads), over its own; empty: its own
    std::optional<double> noData; // its nodata value (NaN allowed), over its own tag
    std::optional<double> zScale; // metres per unit of its values, over its unit's
    bool keepMarkers = false;   // values like -9999 in an untagged source are real values
};

// A source opened with what the user said about it laid over what it says itself: the one
// reading of a source's system, nodata, unit and sign, shared by every command that reads
// elevations.
struct OpenedSource {
    GDALDatasetUniquePtr ds;
    OGRSpatialReference srs; // its system, traditional axis order
    std::string givenSrsWkt; // the system the user gave, for the transformer; else empty
    bool hasNoData = false;  // a nodata value is known (its tag, or given)
    double noData = 0;
    double factor = 1; // elevation in metres per value: unit and sign
    std::vector<std::string> notes;
};

// Refused with PrepError, in words: a file GDAL cannot open, without georeference or
// coordinate system (unless given), a system GDAL does not know, a classic netCDF cut short.
[[nodiscard]] OpenedSource OpenSource(const WarpSource& source);

// Values that stand for "no data" in files that do not say so: averaged or interpolated
// into their neighbours they would make real cells kilometres deep.
[[nodiscard]] bool IsNodataMarker(double v);

// The elevation sources as a command line gives them, with what the user says about them
// over what the files say: for every source, and for source N (1-based), which wins over
// the former. Shared by the commands that read sources, so each option means one thing.
struct SourceOptions {
    std::vector<std::string> sources; // later ones win where they hold valid data
    bool depthPositive = false;       // every source holds depths, positive down
    std::vector<int> depthPositiveSources; // 1-based positions in `sources`
    std::string sourceSrs; // an EPSG code or anything GDAL reads; empty: each its own
    std::vector<std::pair<int, std::string>> sourceSrsFor;
    std::optional<double> sourceNoData; // NaN allowed
    std::vector<std::pair<int, double>> sourceNoDataFor;
    std::optional<double> zScale; // metres per unit; none: from each source's unit
    std::vector<std::pair<int, double>> zScaleFor;
    bool keepMarkers = false; // -9999 and the like in untagged sources are real values
};

// One WarpSource a path, the options laid on; an option naming a source that is not
// there, or a --z-scale that is not a finite factor other than 0, is refused in words.
[[nodiscard]] std::vector<WarpSource> SourcesAsGiven(const SourceOptions& options);

struct WarpSettings {
    int epsg = 0;                  // the grid's coordinate system
    std::string resampling;        // a gdalwarp method name; empty: chosen per source
    // The warper's working buffers for one chunk; two chunks are in hand at a time (one
    // read while the other is resampled). The limit also decides where the grid is cut
    // into chunks, and the transformation is approximated along each chunk's rows, so
    // another limit moves the last bits of some cells.
    double memoryLimitBytes = 64.0 * 1024 * 1024;
    GDALProgressFunc progress = nullptr;          // with its argument; null: silent
    void* progressArg = nullptr;
    // When set, a lone source warped in floats hands over each chunk of finished cells
    // as the warper makes it: columns x .. x + width - 1 of grid rows y .. y + height - 1,
    // row after row, `cells` being what the grid will hold there. Called from the
    // warper's threads, never twice for a cell; WarpOutcome::handedOver counts the cells.
    std::function<void(int x, int y, int width, int height, const float* cells)> chunkDone;
};

struct SourceShare {
    std::string path;
    std::string resampling; // the method used
    std::int64_t cells = 0; // cells whose value came from this source
    // How its values were turned into elevations in metres, when not taken as they are
    // (depths its positive = "down" names, feet, --z-scale), one phrase each.
    std::vector<std::string> notes;
};

struct WarpOutcome {
    std::vector<SourceShare> sources; // in the order given
    std::int64_t uncovered = 0;       // cells no source holds valid data for (left NaN)
    std::int64_t beyondFloat = 0;     // cells whose elevation no float holds (infinite)
    // Bounding box of the uncovered cells, as cell indices, when there are any.
    std::int32_t uncoveredMinI = 0;
    std::int32_t uncoveredMinJ = 0;
    std::int32_t uncoveredMaxI = 0;
    std::int32_t uncoveredMaxJ = 0;
    // The lowest and highest value of the covered cells; NaN when none is covered.
    double valMin = 0;
    double valMax = 0;
    std::int64_t handedOver = 0; // cells given to WarpSettings::chunkDone
};

// Whether `name` is a resampling method of gdalwarp this command accepts.
[[nodiscard]] bool IsResamplingName(const std::string& name);

// Opens every source and checks that it can be warped (a raster with a georeference and a
// coordinate system, a netCDF not cut short, a coordinate system given with --source-srs
// that GDAL knows), so a bad source is reported before minutes of work on the others.
// Throws PrepError naming the file.
void CheckSources(const std::vector<WarpSource>& sources);

// Whether some source's extent meets the longitude-latitude box (degrees, west south east
// north); sources whose extent cannot be carried to longitude and latitude meet nothing.
[[nodiscard]] bool SourcesMeet(const std::vector<WarpSource>& sources, const Bounds& lonLat);

// Fills `cells` (grid.nx × grid.ny, cells(i, j) at grid point (i, j), j = 0 at the south)
// from the sources, each cell the float a grid file stores: resampled and turned into an
// elevation in doubles, then rounded once. Automatic resampling averages where the grid is coarser than a source
// and interpolates bilinearly where it is finer. Cells no source covers hold NaN.
// Refused with PrepError: a source without a nodata tag that holds a nodata marker (-9999,
// -32768, -32767, 1e20 or beyond) among the pixels the warp reads, unless it keeps its
// markers; a source GDAL cannot read there (with GDAL's reason); a source whose values are
// all one number. Memory beyond `cells`: the warper's buffers for two chunks, GDAL's block
// cache, and 16 MB of rows kept while a later source fills a band or 32 MB of source lines
// read by the one-number check. The warp runs on every core.
[[nodiscard]] WarpOutcome WarpSources(const GridGeometry& grid,
                                      const std::vector<WarpSource>& sources,
                                      const WarpSettings& settings, Grid2d<float>& cells);
