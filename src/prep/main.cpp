// seaforge-prep: what modellers do by hand before and around a Seaforge run. The command
// line only: each command's options go into its struct and its function answers the exit
// status.
#include "prep/BuildCommand.hpp"
#include "prep/CheckCommand.hpp"
#include "prep/GridCommand.hpp"
#include "prep/NestCommand.hpp"
#include "prep/OverviewCommand.hpp"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <unistd.h>

namespace {

constexpr const char* kDescription =
    "seaforge-prep: prepares what a Seaforge project needs before the run.";

constexpr const char* kGridFooter = R"(
With a project file, the region's EPSG, GridSize and Topography FileName decide the grid:
the file is written there, binary when its name holds ".bin" past the first character,
else as a text grid (plain decimals, rows from the south). Build the outermost region
first: a nested region's grid is laid on its base region's grid, which must exist. In
the same system its cell edges fall on the base's cell edges (the base spacing must be a
whole multiple of its own); in another system it is placed as asked. Either way the run's
own nesting check must accept it, or nothing is written.

Bounds are the cell-edge extent to cover (xmin ymin xmax ymax), rounded outward to whole
cells. Later sources win where they hold valid data; cells no source covers are an error
unless --fill gives them a value. Resampling averages where the grid is coarser than a
source and is bilinear where it is finer, unless --resampling says otherwise.

Values are read as elevations in metres, positive up. A netCDF variable whose positive
attribute is "down" holds depths and becomes elevations, as --depth-positive makes them;
a band in feet or US survey feet is scaled to metres; the summary says so under the
source, and --z-scale gives the factor instead. --source-srs and --source-nodata say what
a file leaves out or gets wrong, as gdalwarp's -s_srs and -srcnodata do; --srs-source,
--nodata-source and --z-scale-source say it for source N alone (1 = the first).

Refused with the fix in one line: a source without a nodata tag that holds -9999, -32768,
-32767 or 1e20 and beyond where the grid reads it (name the marker with --source-nodata,
or take such values as real with --keep-markers); a source GDAL cannot read whole (a
file cut short); a source of one number, and a grid of one value unless --fill made it;
a --fill that is not a finite number; bounds in degrees that look like latitude first.
An output that is a symbolic link is written through to its file, whose permission bits
are kept; one that exists but is not a regular file (a directory, device, FIFO) is
refused.

Examples:
  seaforge-prep grid Project.xml --region 1 --bounds 141.4 38.7 142.2 39.5 gebco.nc
  seaforge-prep grid Project.xml --region 2 --bounds 70000 -105000 77200 -97800 gebco.nc survey.tif
  seaforge-prep grid --epsg 2452 --spacing 30 --bounds 70000 -105000 77200 -97800 -o Harbour.bin dem.tif
)";

constexpr const char* kCheckFooter = R"(
Reads the project and every grid and side file it names with the run's own readers, and
prints a table of the regions (points, spacing, extents, values, time step, step ratio and
CFL number as the run computes them) and the findings, one line each with a fix.

Errors, where the run will stop (with its reason): a missing element (naming the region
and a misspelt element), a region with no grid yet, unreadable grids and side files,
grids off the topography's points, a refused nesting, a time step that cannot be computed.

Warnings, where the run succeeds but the result is suspect:
  CFL number above the limit, with the TimeIncrement (4 digits, rounded down) that clears it
  a region with no cell below the tide level (CFL "-nan", time ratio 1)
  a spacing or extent that cannot be degrees in EPSG 4326 or 4612
  a code PROJ knows as degrees that the run reads as metres (6668, 4269, 4258, ...)
  a plane region whose numbers look like degrees
  a JGD2000 plane region outside its zone's area of use, with the zones that cover it
  a region element that looks misspelt
  a binary grid whose header spacing differs from GridSize
  a grid of one value
  values deeper than 11000 m or higher than 9000 m (feet? --z-scale 0.3048)
  an outer region whose sea misses its open boundary (depths as heights? --depth-positive)
  NaN, infinity and nodata markers in grids
  nested cells off their base's cells, or a spacing that does not divide the base's
  depths that jump at a nested boundary
  a nesting across systems the run accepts only by reading a code as another
  sea cells the land map cuts off
  stations and coastal points outside every region, or on land
  two point lists writing one shapefile

Exit status: 0 no finding, 1 an error, 2 only warnings.
)";

// "10%,5", "10%" or "5": the share of the local depth and the metres.
bool ParseJump(const std::string& text, CheckOptions& check) {
    double share = 0;
    double metres = 0;
    char rest = 0;
    if (std::sscanf(text.c_str(), "%lf%%,%lf%c", &share, &metres, &rest) == 2 ||
        (std::sscanf(text.c_str(), "%lf%%%c", &share, &rest) == 1 && text.find('%') != std::string::npos) ||
        (std::sscanf(text.c_str(), "%lf%c", &metres, &rest) == 1)) {
        if (!(share >= 0) || !(metres >= 0))
            return false;
        check.jumpShare = share / 100;
        check.jumpMetres = metres;
        return true;
    }
    return false;
}

constexpr const char* kOverviewFooter = R"(
The outermost region's topography is drawn in colour relief with hillshade; every nested
region's cell-edge outline is carried into the outer region's system (through the run's
projection service, so a plane region is a curve in a longitude-latitude one), labelled
with its number, name, spacing and time step; stations, coastal points and fault outlines
on top. Paths in the project are taken from the current directory, as the run takes them.

What cannot be drawn is left out with one "left out" line on standard error and the rest
is still drawn (status 0); what the run would act on is a "note" line. Status 1 only when
the project cannot be read, nothing at all can be drawn, or a file cannot be written.

Examples:
  seaforge-prep overview Project.xml -o Overview.png
  seaforge-prep overview Project.xml --region 2 -o Bay.png --gpkg Overview.gpkg
)";

// --nodata-source and --z-scale-source: N and a number each, the number read here, where
// a mistyped one can be named. False after the message.
bool SourceNumbers(const std::vector<std::pair<int, std::string>>& noDataFor,
                   const std::vector<std::pair<int, std::string>>& zScaleFor,
                   std::vector<std::pair<int, double>>& noDataInto,
                   std::vector<std::pair<int, double>>& zScaleInto) {
    for (const auto& [option, given, into] :
         {std::tuple{"--nodata-source", &noDataFor, &noDataInto},
          std::tuple{"--z-scale-source", &zScaleFor, &zScaleInto}})
        for (const auto& [n, text] : *given) {
            char* end = nullptr;
            const double value = std::strtod(text.c_str(), &end);
            if (text.empty() || *end != '\0') {
                std::fprintf(stderr, "seaforge-prep: %s %d %s: give the source's number "
                                     "(1 = the first) and a number\n",
                             option, n, text.c_str());
                return false;
            }
            into->emplace_back(n, value);
        }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app{kDescription, "seaforge-prep"};
    app.require_subcommand(1);
    app.set_version_flag("--version", "seaforge-prep " SEAFORGE_VERSION);
    app.footer("Run 'seaforge-prep COMMAND --help' for a command's options.");

    GridOptions grid;
    std::vector<std::string> files;
    std::vector<double> bounds;
    std::vector<double> boundsLonLat;
    std::vector<double> origin;
    std::vector<int> size;
    double fill = 0;
    // N and a number each; the number read here, where a mistyped one can be named.
    std::vector<std::pair<int, std::string>> noDataFor;
    std::vector<std::pair<int, std::string>> zScaleFor;
    double sourceNoData = 0;
    double zScale = 0;
    CLI::App* gridCommand =
        app.add_subcommand("grid", "Make a region's topography grid from elevation rasters.");
    gridCommand->footer(kGridFooter);
    gridCommand->add_option("files", files,
                            "[PROJECT.xml] SOURCE...: the project file (with --region), then "
                            "one or more rasters GDAL reads (GeoTIFF, netCDF, ESRI ASCII, XYZ, ...)")
        ->required();
    gridCommand->add_option("--region", grid.region, "RegionNo of the region in the project");
    gridCommand->add_option("--epsg", grid.epsg, "Coordinate system, without a project");
    gridCommand->add_option("--spacing", grid.spacing, "Grid spacing, without a project");
    gridCommand->add_option("-o,--output", grid.output, "Grid file to write, without a project");
    auto* boundsOption = gridCommand->add_option("--bounds", bounds,
                                                 "XMIN YMIN XMAX YMAX: cell edges in the grid's system")
                             ->expected(4)->allow_extra_args(false);
    auto* lonLatOption =
        gridCommand->add_option("--bounds-lonlat", boundsLonLat,
                                "LONMIN LATMIN LONMAX LATMAX: the same in degrees")
            ->expected(4)->allow_extra_args(false);
    auto* originOption =
        gridCommand->add_option("--origin", origin, "X Y: grid point (0, 0), for an exact geometry")
            ->expected(2)->allow_extra_args(false);
    gridCommand->add_option("--size", size, "NX NY: grid points, with --origin")->expected(2)->allow_extra_args(false);
    boundsOption->excludes(lonLatOption)->excludes(originOption);
    lonLatOption->excludes(originOption);
    gridCommand->add_flag("--depth-positive", grid.depthPositive,
                          "Every source holds depths, positive down");
    gridCommand->add_option("--depth-positive-source", grid.depthPositiveSources,
                            "N: source N (1 = the first) holds depths, positive down; repeatable");
    gridCommand->add_option("--source-srs", grid.sourceSrs,
                            "CODE: every source is in this coordinate system (an EPSG code, or "
                            "anything GDAL reads), whatever its file says");
    gridCommand->add_option("--srs-source", grid.sourceSrsFor,
                            "N CODE: the same for source N (1 = the first); repeatable")
        ->allow_extra_args(false);
    auto* noDataOption = gridCommand->add_option(
        "--source-nodata", sourceNoData, "VALUE: every source's nodata value (nan allowed)");
    gridCommand->add_option("--nodata-source", noDataFor,
                            "N VALUE: the same for source N; repeatable")
        ->allow_extra_args(false);
    auto* zScaleOption = gridCommand->add_option(
        "--z-scale", zScale, "FACTOR: metres per unit of every source's values, over its unit");
    gridCommand->add_option("--z-scale-source", zScaleFor,
                            "N FACTOR: the same for source N; repeatable")
        ->allow_extra_args(false);
    gridCommand->add_flag("--keep-markers", grid.keepMarkers,
                          "Take -9999, -32768, -32767 and 1e20 or beyond in sources without a "
                          "nodata tag as real values");
    gridCommand->add_option("--resampling", grid.resampling,
                            "near, bilinear, cubic, cubicspline, lanczos, average, rms, mode, "
                            "max, min, med, q1, q3 or sum, for every source");
    auto* fillOption =
        gridCommand->add_option("--fill", fill, "VALUE (a finite number) for cells no source covers");
    gridCommand->add_option("--geotiff", grid.geotiff,
                            "FILE: also write the grid as a float GeoTIFF");
    gridCommand->add_flag("-q,--quiet", grid.quiet, "No progress line and no summary");

    CheckOptions check;
    std::string maxJump = "10%,5";
    CLI::App* checkCommand = app.add_subcommand(
        "check", "Report what a run of the project would refuse or get wrong; writes nothing.");
    checkCommand->footer(kCheckFooter);
    checkCommand->add_option("project", check.project, "The project file")->required();
    checkCommand->add_flag("--json", check.json, "The report as JSON");
    checkCommand->add_option("--cfl-limit", check.cflLimit,
                             "A CFL number above this is unstable (default 1)");
    checkCommand->add_option("--max-boundary-jump", maxJump,
                             "PERCENT%,METRES: a nested region's boundary depths may differ from "
                             "its base's by the larger of the two (default 10%,5)");

    OverviewOptions overview;
    CLI::App* overviewCommand = app.add_subcommand(
        "overview", "Draw the whole project in one picture, and as a GeoPackage for a GIS.");
    overviewCommand->footer(kOverviewFooter);
    overviewCommand->add_option("project", overview.project, "PROJECT.xml")->required();
    overviewCommand->add_option("-o,--output", overview.output, "PNG picture to write");
    overviewCommand->add_option("--gpkg", overview.gpkg, "GeoPackage to write (EPSG 4326)");
    overviewCommand->add_option("--region", overview.region,
                                "RegionNo: draw this region and the regions nested in it");
    overviewCommand->add_option("--width", overview.width, "Picture width in pixels (1200)");
    overviewCommand->add_flag("-q,--quiet", overview.quiet, "No summary");

    // nest and build: a chain of regions from a place, and everything from its plan.
    NestOptions nest;
    std::vector<std::pair<int, std::string>> nestNoDataFor;
    std::vector<std::pair<int, std::string>> nestZScaleFor;
    double nestNoData = 0;
    double nestZScale = 0;
    std::vector<double> site;
    std::vector<double> area;
    CLI::App* nestCommand = app.add_subcommand(
        "nest", "Design the nested regions for a place, write their plan and build them.");
    nestCommand->add_option("sources", nest.sources, "SOURCE...: elevation rasters")->required();
    auto* siteOption = nestCommand->add_option("--site", site, "LON LAT: the place")->expected(2)->allow_extra_args(false);
    nestCommand->add_option("--radius", nest.radius, "around the site: 3km, 500m (default 1km)");
    nestCommand->add_option("--area", area, "LONMIN LATMIN LONMAX LATMAX: the area of interest")->expected(4)->allow_extra_args(false)->excludes(siteOption);
    nestCommand->add_option("--finest", nest.finest, "The finest spacing, metres")->required();
    nestCommand->add_option("--ratio", nest.ratio, "Base spacing / nested spacing (3)");
    nestCommand->add_option("--levels", nest.levels, "Number of regions");
    nestCommand->add_option("--outer-spacing", nest.outerSpacing, "The outer region's spacing, metres");
    nestCommand->add_option("--cfl", nest.cfl, "The CFL limit every region keeps (0.8)");
    nestCommand->add_option("--margin", nest.margin, "Base cells inside the base's edges (10)");
    nestCommand->add_option("--max-cells", nest.maxCells, "Cells in all regions (25e6)");
    nestCommand->add_option("--outer-depth", nest.outerDepth, "Depth the outer sides reach (200)");
    nestCommand->add_option("--name", nest.name, "ProjectName (the folder's name)");
    nestCommand->add_option("-o,--output", nest.output, "Output folder")->required();
    nestCommand->add_option("--fault", nest.fault, "The fault model file");
    nestCommand->add_option("--stations", nest.stations, "Station list");
    nestCommand->add_option("--coast-points", nest.coastPoints, "Coastal point list");
    nestCommand->add_option("--total-time", nest.totalTime, "TotalTime, seconds (3600)");
    nestCommand->add_flag("--depth-positive", nest.depthPositive, "Every source holds depths");
    nestCommand->add_option("--depth-positive-source", nest.depthPositiveSources, "N: source N holds depths");
    nestCommand->add_option("--source-srs", nest.sourceSrs, "CODE: every source's coordinate system");
    nestCommand->add_option("--srs-source", nest.sourceSrsFor, "N CODE: source N's")->allow_extra_args(false);
    auto* nestNoDataOption = nestCommand->add_option("--source-nodata", nestNoData, "VALUE: every source's nodata value (nan allowed)");
    nestCommand->add_option("--nodata-source", nestNoDataFor, "N VALUE: source N's")->allow_extra_args(false);
    auto* nestZScaleOption = nestCommand->add_option("--z-scale", nestZScale, "FACTOR: metres per unit of every source's values");
    nestCommand->add_option("--z-scale-source", nestZScaleFor, "N FACTOR: source N's")->allow_extra_args(false);
    nestCommand->add_flag("--keep-markers", nest.keepMarkers, "Take -9999 and the like in untagged sources as real values");
    nestCommand->add_option("--resampling", nest.resampling, "gdalwarp method for every source");
    nestCommand->add_flag("--plan-only", nest.planOnly, "Print the table and write the plan only");
    nestCommand->add_flag("--force", nest.force, "Write over a folder holding another project");
    nestCommand->add_flag("--json", nest.json, "Also write the check's report as JSON");
    nestCommand->add_flag("-q,--quiet", nest.quiet, "No table");
    nestCommand->footer(R"(
Designs the chain of nested regions around the place from the sources (the finest region
holds the area with 10 cells to spare; each region splits its base's cells by --ratio with
--margin base cells inside it; edges kept off steep ground; the outer region holds the fault
and reaches deep water; in Japan the finer regions in the JGD2000 plane system of the site,
elsewhere all in EPSG 4326), writes FOLDER/Plan.json, then builds it as `build` does.
The source options are grid's, for every source or for source N, and are kept for each
source in the plan; the planner reads the sources as the grids will (a source grid refuses,
nest refuses in grid's words). --plan-only also gives the run's estimated peak memory.
Exit status: the check's (0, or 2 with warnings, also when a rule gave way), 1 on an error.

Example:
  seaforge-prep nest --site 141.89 39.27 --radius 3km --finest 10 --fault Fault.txt -o Kamaishi gebco.nc dem.tif)");
    BuildOptions build;
    CLI::App* buildCommand = app.add_subcommand(
        "build", "Make the project, grids, check report and overview a plan describes.");
    buildCommand->add_option("plan", build.plan, "PLAN.json")->required();
    buildCommand->footer(R"(
Writes, in the plan's folder, every region's grid through the grid command (only those
whose inputs changed since the last build, and the regions nested in them), the project
file with the largest TimeIncrement that keeps every CFL number within the plan's limit,
Check.txt and Overview.png / Overview.gpkg. A plan the run would refuse is refused before
any grid is written. Exit status: the check's (0, 2 with warnings), 1 on an error.)");
    buildCommand->add_flag("--json", build.json, "Also write the check's report as JSON");
    buildCommand->add_flag("-q,--quiet", build.quiet, "No table");

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0)
            return app.exit(e);
        std::fprintf(stderr, "seaforge-prep: %s (see seaforge-prep --help)\n", e.what());
        return 1;
    }

    if (checkCommand->parsed()) {
        if (!ParseJump(maxJump, check)) {
            std::fprintf(stderr, "seaforge-prep: --max-boundary-jump takes PERCENT%%,METRES, "
                                 "for example 10%%,5, not %s\n",
                         maxJump.c_str());
            return 1;
        }
        return RunCheck(check);
    }
    if (gridCommand->parsed()) {
        auto next = files.begin();
        if (grid.region != 0)
            grid.project = *next++;
        grid.sources.assign(next, files.end());
        if (!bounds.empty())
            grid.bounds = Bounds{bounds[0], bounds[1], bounds[2], bounds[3]};
        if (!boundsLonLat.empty())
            grid.boundsLonLat =
                Bounds{boundsLonLat[0], boundsLonLat[1], boundsLonLat[2], boundsLonLat[3]};
        if (!origin.empty())
            grid.origin = std::array<double, 2>{origin[0], origin[1]};
        if (!size.empty())
            grid.size = std::array<int, 2>{size[0], size[1]};
        if (fillOption->count() > 0)
            grid.fill = fill;
        if (noDataOption->count() > 0)
            grid.sourceNoData = sourceNoData;
        if (zScaleOption->count() > 0)
            grid.zScale = zScale;
        if (!SourceNumbers(noDataFor, zScaleFor, grid.sourceNoDataFor, grid.zScaleFor))
            return 1;
        grid.progress = !grid.quiet && isatty(fileno(stderr));
        return RunGrid(grid);
    }
    if (nestCommand->parsed()) {
        if (!site.empty())
            nest.site = std::array<double, 2>{site[0], site[1]};
        if (!area.empty())
            nest.area = Bounds{area[0], area[1], area[2], area[3]};
        if (nestNoDataOption->count() > 0)
            nest.sourceNoData = nestNoData;
        if (nestZScaleOption->count() > 0)
            nest.zScale = nestZScale;
        if (!SourceNumbers(nestNoDataFor, nestZScaleFor, nest.sourceNoDataFor, nest.zScaleFor))
            return 1;
        return RunNest(nest);
    }
    if (buildCommand->parsed())
        return RunBuild(build);
    if (overviewCommand->parsed())
        return RunOverview(overview);
    return 1;
}
