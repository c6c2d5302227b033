#include "prep/GridCommand.hpp"

#include "prep/AtomicFile.hpp"
#include "prep/PrepError.hpp"
#include "prep/ProjectFiles.hpp"
#include "prep/Progress.hpp"
#include "prep/Warp.hpp"
#include "project/Console.hpp"
#include "project/QuorXmlParameter.hpp"
#include "projection/MapProjection.hpp"
#include "region/NestingSearch.hpp"
#include "region/Region.hpp"

#include <cpl_error.h>
#include <cpl_string.h>
#include <gdal_priv.h>
#include <ogr_spatialref.h>

#include <algorithm>
#include <bit>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {


// The plain words for a system the run's projection service does not have.
std::string OutsideServiceWords(int epsg) {
    return StringPrintf("EPSG %d is not one of the systems the run's projection service knows "
                        "(the JGD2000 plane systems 2443-2461 and UTM zones 3097-3101): the run "
                        "converts it as UTM zone 54 (EPSG 3100), so a region in it can nest only "
                        "in a region of the same system",
                        epsg);
}

[[nodiscard]] bool FileExists(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0;
}

// What the command writes, and what it must fit in.
struct Target {
    int epsg = 0;
    double spacing = 0;
    std::string output;
    XML_REGION record;                // the region as the run builds it
    std::optional<XML_REGION> base;   // its base region, when it has one
    std::string label;                // "region 2 (Bay)", or the output path
};

Target ResolveTarget(const GridOptions& o) {
    Target t;
    if (o.project.empty()) {
        if (o.epsg == 0 || o.spacing == 0 || o.output.empty())
            throw PrepError("without a project file, give --epsg, --spacing and -o");
        t.epsg = o.epsg;
        t.spacing = o.spacing;
        t.output = o.output;
        t.record.RegionNo = 0;
        t.record.EPSG = o.epsg;
        t.record.GridSize = o.spacing;
        t.record.Topography.FileName = o.output;
        t.label = o.output;
        return t;
    }
    const QuorXmlParameter project = ReadProject(o.project);
    const auto found = project.Regions.find(o.region);
    if (found == project.Regions.end()) {
        std::string numbers;
        for (const auto& [number, record] : project.Regions)
            numbers += (numbers.empty() ? "" : ", ") + std::to_string(number);
        throw PrepError(StringPrintf("%s has no region %d", o.project.c_str(), o.region) +
                        (numbers.empty() ? std::string(" (it has no region at all)")
                                         : " (its regions are " + numbers + ")"));
    }
    t.record = found->second;
    t.label = RegionLabel(t.record);
    if (!(t.record.GridSize > 0) || !std::isfinite(t.record.GridSize))
        throw PrepError(t.label + " has no positive GridSize in " + o.project);
    if (t.record.Topography.FileName.empty())
        throw PrepError(t.label + " names no Topography FileName in " + o.project +
                        ": the grid is written there");
    if (!o.output.empty() || o.epsg != 0 || o.spacing != 0)
        throw PrepError("with a project, the region's EPSG, GridSize and Topography FileName "
                        "are the grid's: leave out --epsg, --spacing and -o");
    t.epsg = t.record.EPSG;
    t.spacing = t.record.GridSize;
    t.output = t.record.Topography.FileName;
    if (t.record.BaseRegionNo > 0) {
        const auto base = project.Regions.find(t.record.BaseRegionNo);
        if (base == project.Regions.end())
            throw PrepError(StringPrintf("%s names base region %d, which %s lacks",
                                         t.label.c_str(), t.record.BaseRegionNo,
                                         o.project.c_str()));
        t.base = base->second;
    }
    return t;
}

struct TransformDeleter {
    void operator()(OGRCoordinateTransformation* c) const { OGRCoordinateTransformation::DestroyCT(c); }
};

// The box in `epsg` holding the longitude-latitude box, its edges followed point by point
// (a plane system bends them).
Bounds LonLatToSystem(const Bounds& b, int epsg) {
    if (IsGeographic(epsg))
        return b;
    CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
    OGRSpatialReference lonLat;
    OGRSpatialReference target;
    lonLat.importFromEPSG(4326);
    if (target.importFromEPSG(epsg) != OGRERR_NONE)
        throw PrepError(StringPrintf("EPSG %d is not a coordinate system PROJ knows", epsg));
    lonLat.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
    target.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
    std::unique_ptr<OGRCoordinateTransformation, TransformDeleter> toTarget(
        OGRCreateCoordinateTransformation(&lonLat, &target));
    if (!toTarget)
        throw PrepError(StringPrintf("longitude and latitude cannot be carried to EPSG %d", epsg));
    constexpr int kSteps = 64;
    std::vector<double> xs;
    std::vector<double> ys;
    for (int s = 0; s <= kSteps; ++s) {
        const double f = static_cast<double>(s) / kSteps;
        const double lon = b[0] + f * (b[2] - b[0]);
        const double lat = b[1] + f * (b[3] - b[1]);
        xs.insert(xs.end(), {lon, lon, b[0], b[2]});
        ys.insert(ys.end(), {b[1], b[3], lat, lat});
    }
    std::vector<int> ok(xs.size());
    toTarget->Transform(xs.size(), xs.data(), ys.data(), nullptr, ok.data());
    Bounds out = {std::numeric_limits<double>::infinity(), std::numeric_limits<double>::infinity(),
                  -std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity()};
    for (std::size_t k = 0; k < xs.size(); ++k) {
        if (!ok[k] || !std::isfinite(xs[k]) || !std::isfinite(ys[k]))
            throw PrepError(StringPrintf("the longitude-latitude bounds do not all carry over to "
                                         "EPSG %d",
                                         epsg));
        out = {std::min(out[0], xs[k]), std::min(out[1], ys[k]), std::max(out[2], xs[k]),
               std::max(out[3], ys[k])};
    }
    return out;
}

// The base region's grid as the run reads it.
Region ReadBase(const XML_REGION& base, const GridOptions& o, const Target& t) {
    const std::string path = base.Topography.FileName;
    const std::string build = StringPrintf("build it first: seaforge-prep grid %s --region %d ...",
                                           o.project.c_str(), base.RegionNo);
    if (path.empty())
        throw PrepError(t.label + " nests in " + RegionLabel(base) +
                        ", which names no Topography FileName: the nesting check needs its grid");
    if (!FileExists(path))
        throw PrepError(t.label + " nests in " + RegionLabel(base) + ", whose grid " + path +
                        " does not exist yet: " + build);
    std::string why;
    Region grid = ReadRegionGrid(TPG_R, base, why);
    if (!why.empty())
        throw PrepError(t.label + " nests in " + RegionLabel(base) + ", whose grid the run "
                        "cannot read: " + why);
    return grid;
}

const char* const kCornerNames[] = {"south-west", "south-east", "north-east", "north-west"};

// Why the run's nesting check refuses `own` in `base`, in words, or "" when it accepts it.
std::string NestingRefusal(const Region& own, const Region& base, const Target& t) {
    SetMapProjectionNotices(false);
    const int reason =
        own.ComprisableReason(base.epsg, base.org_x, base.org_y, base.gridSize, base.nx, base.ny);
    if (reason == 0)
        return {};
    const CellExtent o = CellExtentOf(own.org_x, own.org_y, own.gridSize, own.nx, own.ny);
    const CellExtent b = CellExtentOf(base.org_x, base.org_y, base.gridSize, base.nx, base.ny);
    const std::string head = t.label + " does not lie inside its base " + RegionLabel(*t.base) +
                             " as the run checks it: ";
    if (reason <= 4) {
        struct Side {
            const char* edge;
            const char* beyond;
            double own;
            double base;
            const char* refusal; // the run's own words
        };
        const Side sides[] = {
            {"western", "west", o.minX, b.minX, "Comprisable dimX:NG"},
            {"southern", "south", o.minY, b.minY, "Comprisable dimY:NG"},
            {"eastern", "east", o.maxX, b.maxX, "Comprisable dimX:NG"},
            {"northern", "north", o.maxY, b.maxY, "Comprisable dimY:NG"},
        };
        const Side& side = sides[reason - 1];
        return head + StringPrintf("its %s cell edge %.10g lies %s of the base's %.10g (the run "
                                   "stops with \"%s\")",
                                   side.edge, side.own, side.beyond, side.base, side.refusal);
    }
    // Across systems the run looks for each corner among the base points carried into this
    // region's system, in boxes that never reach the base's outer rows and columns.
    std::string missing;
    if (base.nx >= 6) {
        const NestingCorners corners = {{{o.minX, o.minY}, {o.maxX, o.minY}, {o.maxX, o.maxY},
                                         {o.minX, o.maxY}}};
        CornersFound found{};
        if (mapproject_initialize_using_epsg_(base.epsg, own.epsg) != nullptr)
            found = FindNestingCorners({base.org_x, base.org_y, base.gridSize, base.nx, base.ny},
                                       corners, own.epsg);
        mapproject_finalize_();
        for (int c = 0; c < 4; ++c)
            if (!found[c])
                missing += StringPrintf("%s%s (%.10g, %.10g)", missing.empty() ? "" : ", ",
                                        kCornerNames[c], corners[c].x, corners[c].y);
    } else {
        missing = "every corner: the base has fewer than 6 columns";
    }
    return head + StringPrintf("across systems the run finds a corner only among the base's grid "
                               "points carried into EPSG %d, at least 5 base cells inside its "
                               "western and eastern edges and 2 inside its southern and northern "
                               "edges; not found: %s. Keep the region that far inside %s or "
                               "enlarge it (the run stops with \"Comprisable :NG\")",
                               own.epsg, missing.c_str(), RegionLabel(*t.base).c_str());
}

// The grid's points, placed on the base region's cells when it has one in its system.
struct Placed {
    GridGeometry grid;
    std::optional<BasePlacement> onBase;
};

Placed PlaceGrid(const GridOptions& o, const Target& t, const Region* base) {
    Placed placed;
    if (o.origin) {
        if (!o.size)
            throw PrepError("--origin needs --size NX NY, both at least 1");
        placed.grid = {(*o.origin)[0], (*o.origin)[1], t.spacing, (*o.size)[0], (*o.size)[1]};
        if (!(t.spacing > 0) || !std::isfinite((*o.origin)[0]) || !std::isfinite((*o.origin)[1]))
            throw PrepError("--origin needs finite coordinates and a positive spacing");
        return placed;
    }
    Bounds bounds{};
    if (o.bounds)
        bounds = *o.bounds;
    else if (o.boundsLonLat)
        bounds = LonLatToSystem(*o.boundsLonLat, t.epsg);
    else
        throw PrepError("give the extent: --bounds, --bounds-lonlat or --origin with --size");
    if (base != nullptr && base->epsg == t.epsg) {
        const GridGeometry b{base->org_x, base->org_y, base->gridSize, base->nx, base->ny};
        BasePlacement onBase;
        try {
            onBase = PlaceOnBase(bounds, t.spacing, b);
        } catch (const PrepError& e) {
            throw PrepError(t.label + ", nested in " + RegionLabel(*t.base) + ": " + e.what());
        }
        placed.grid = onBase.grid;
        placed.onBase = onBase;
    } else {
        placed.grid = CoverBounds(bounds, t.spacing);
    }
    return placed;
}

// Source k (1-based) of `count`, as an option names it.
std::vector<WarpSource> Sources(const GridOptions& o) {
    if (o.sources.empty())
        throw PrepError("give at least one elevation source");
    for (const std::string& path : o.sources) {
        const bool named = path.size() > 4 && (path.compare(path.size() - 4, 4, ".xml") == 0 ||
                                               path.compare(path.size() - 4, 4, ".XML") == 0);
        if (named && o.project.empty())
            throw PrepError(path + " looks like a project file: give --region N to build one of "
                                   "its regions");
    }
    return SourcesAsGiven(o);
}

// Longitude-latitude bounds given latitude first miss the sources that, swapped, they
// would fall on; said before the message about uncovered cells would mislead.
void RefuseSwappedLonLat(const char* option, const Bounds& b,
                         const std::vector<WarpSource>& sources) {
    const Bounds swapped = {b[1], b[0], b[3], b[2]};
    const bool latitudesFit = std::fabs(b[1]) <= 90 && std::fabs(b[3]) <= 90;
    const bool swappedFit = std::fabs(swapped[1]) <= 90 && std::fabs(swapped[3]) <= 90;
    if (!swappedFit || (latitudesFit && SourcesMeet(sources, b)) || !SourcesMeet(sources, swapped))
        return;
    throw PrepError(StringPrintf("%s %.10g %.10g %.10g %.10g lie on no source, but "
                                 "%.10g %.10g %.10g %.10g do: they look like latitude first; "
                                 "give LONMIN LATMIN LONMAX LATMAX, longitude first",
                                 option, b[0], b[1], b[2], b[3], swapped[0], swapped[1], swapped[2],
                                 swapped[3]));
}

bool WriteFloatGeoTiff(const std::string& path, const Region& grid, const Grid2d<float>& cells,
                       int epsg) {
    CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
    CPLErrorReset();
    GDALDriver* driver = GetGDALDriverManager()->GetDriverByName("GTiff");
    CPLStringList creation;
    creation.SetNameValue("COMPRESS", "DEFLATE");
    creation.SetNameValue("PREDICTOR", "3");
    creation.SetNameValue("TILED", "YES");
    GDALDatasetUniquePtr ds(
        driver->Create(path.c_str(), grid.nx, grid.ny, 1, GDT_Float32, creation.List()));
    if (!ds)
        return false;
    const double s = grid.gridSize;
    double transform[6] = {grid.org_x - 0.5 * s, s, 0, grid.org_y + (grid.ny - 0.5) * s, 0, -s};
    OGRSpatialReference srs;
    if (ds->SetGeoTransform(transform) != CE_None || srs.importFromEPSG(epsg) != OGRERR_NONE ||
        ds->SetSpatialRef(&srs) != CE_None)
        return false;
    // North-up: the first line is the northern row, so the rows go in from the last one,
    // a negative line step over the grid itself.
    const GSpacing line = static_cast<GSpacing>(grid.nx) * static_cast<GSpacing>(sizeof(float));
    const float* north = cells.Data() + static_cast<std::size_t>(grid.ny - 1) *
                                            static_cast<std::size_t>(grid.nx);
    if (ds->GetRasterBand(1)->RasterIO(GF_Write, 0, 0, grid.nx, grid.ny,
                                       const_cast<float*>(north), grid.nx, grid.ny, GDT_Float32,
                                       sizeof(float), -line, nullptr) != CE_None)
        return false;
    ds.reset(); // the file is complete only once closed
    return CPLGetLastErrorType() != CE_Failure;
}

std::string Percent(std::int64_t part, std::int64_t whole) {
    return StringPrintf("%.1f %%", whole > 0 ? 100.0 * static_cast<double>(part) /
                                                   static_cast<double>(whole)
                                             : 0.0);
}

void PrintSummary(const Target& t, const Placed& placed, const Region& out,
                  const WarpOutcome& outcome, std::int64_t filled, const GridOptions& o) {
    const GridGeometry& g = placed.grid;
    const Bounds edges = CellEdges(g);
    const std::int64_t total = std::int64_t{g.nx} * g.ny;
    std::printf("Wrote %s (%s grid)%s\n", t.output.c_str(),
                IsBinaryGridPath(t.output) ? "binary" : "text",
                o.project.empty() ? "" : (" for " + t.label).c_str());
    std::printf("  system       EPSG %d, spacing %.10g\n", t.epsg, g.spacing);
    std::printf("  grid points  %d x %d, origin %.10g %.10g\n", g.nx, g.ny, g.orgX, g.orgY);
    std::printf("  cell edges   x %.10g .. %.10g, y %.10g .. %.10g\n", edges[0], edges[2],
                edges[1], edges[3]);
    if (placed.onBase)
        std::printf("  on base      %s: %d x %d cells in each base cell, from base cell "
                    "(%d, %d)\n",
                    RegionLabel(*t.base).c_str(), placed.onBase->ratio, placed.onBase->ratio,
                    placed.onBase->firstBaseI + 1, placed.onBase->firstBaseJ + 1);
    else if (t.base)
        std::printf("  in base      %s: the run's nesting check accepts it\n",
                    RegionLabel(*t.base).c_str());
    // As stored: every cell is written as a float.
    std::printf("  values       %.9g .. %.9g\n", double{static_cast<float>(out.valMin)},
                double{static_cast<float>(out.valMax)});
    for (const SourceShare& s : outcome.sources) {
        std::printf("  source       %s (%s): %" PRId64 " cells, %s\n", s.path.c_str(),
                    s.resampling.c_str(), s.cells, Percent(s.cells, total).c_str());
        for (const std::string& note : s.notes)
            std::printf("               %s\n", note.c_str());
    }
    if (filled > 0)
        std::printf("  filled       %" PRId64 " cells (%s) with %.10g\n", filled,
                    Percent(filled, total).c_str(), *o.fill);
    if (!o.geotiff.empty())
        std::printf("  GeoTIFF      %s\n", o.geotiff.c_str());
}

int Grid(const GridOptions& o) {
    // The warper reads sources through GDAL's block cache; bounded before the first read,
    // so memory stays the grid plus a fixed amount however large the sources are. The
    // warper copies each chunk's source window into a buffer of its own (64 MB of working
    // buffers), so the cache need only hold what neighbouring chunks share. Measured: a
    // 64, 32, 16 or 8 MB cache takes the same time; each step up costs a netCDF source
    // memory at the peak, and 16 MB leaves room for the chunks waiting to be written.
    CPLSetConfigOption("GDAL_CACHEMAX", "16");
    // The warper allocates and frees buffers of tens of megabytes for every chunk; from
    // the heap they are used again, where fresh mappings would be faulted in page by page
    // each time. One arena: the chunk threads take turns, so they need not hold one each.
    mallopt(M_MMAP_THRESHOLD, 256 << 20);
    mallopt(M_TRIM_THRESHOLD, 512 << 20);
    mallopt(M_ARENA_MAX, 1);
    const Target t = ResolveTarget(o);
    SetMapProjectionNotices(false);
    if (!o.resampling.empty() && !IsResamplingName(o.resampling))
        throw PrepError("unknown resampling method \"" + o.resampling +
                        "\" (near, bilinear, cubic, cubicspline, lanczos, average, rms, mode, "
                        "max, min, med, q1, q3, sum)");
    if (o.size && ((*o.size)[0] < 1 || (*o.size)[1] < 1))
        throw PrepError(StringPrintf("--size %d %d: give NX NY, both at least 1", (*o.size)[0],
                                     (*o.size)[1]));
    if (o.size && !o.origin)
        throw PrepError("--size goes with --origin X Y, which places grid point (0, 0)");
    if (o.fill && !std::isfinite(*o.fill))
        throw PrepError(StringPrintf("--fill takes a finite number of metres, not %g", *o.fill));
    const std::vector<WarpSource> sources = Sources(o);
    CheckSources(sources);
    if (o.boundsLonLat)
        RefuseSwappedLonLat("--bounds-lonlat", *o.boundsLonLat, sources);
    else if (o.bounds && IsGeographic(t.epsg))
        RefuseSwappedLonLat("--bounds", *o.bounds, sources);

    std::optional<Region> base;
    if (t.base) {
        base = ReadBase(*t.base, o, t);
        if (base->epsg != t.epsg) {
            if (!IsGeographic(base->epsg))
                throw PrepError(StringPrintf("%s (EPSG %d) nests in %s (EPSG %d): the run checks "
                                             "a region of another system only inside a "
                                             "longitude-latitude base region (EPSG 4326 or 4612)",
                                             t.label.c_str(), t.epsg,
                                             RegionLabel(*t.base).c_str(), base->epsg));
            if (!IsServicePlaneEpsg(t.epsg))
                throw PrepError(t.label + " nests in " + RegionLabel(*t.base) + ", but " +
                                OutsideServiceWords(t.epsg));
        }
    } else if (!IsGeographic(t.epsg) && !IsServicePlaneEpsg(t.epsg)) {
        std::fprintf(stderr, "seaforge-prep: note: %s\n", OutsideServiceWords(t.epsg).c_str());
    }

    const Placed placed = PlaceGrid(o, t, base ? &*base : nullptr);
    // The grid is held whole while it is made, a float a cell, and a text grid is written
    // from a copy in the run's doubles: one that cannot fit is refused before the kernel
    // is asked for it, rather than ending the process half-way.
    const double bytesPerCell = IsBinaryGridPath(t.output) ? 4.0 : 12.0;
    const double gridBytes = bytesPerCell * placed.grid.nx * placed.grid.ny;
    const double machineBytes =
        static_cast<double>(sysconf(_SC_PHYS_PAGES)) * static_cast<double>(sysconf(_SC_PAGESIZE));
    if (machineBytes > 0 && gridBytes > machineBytes)
        throw PrepError(StringPrintf("a grid of %d x %d points needs %.1f GiB of memory, more "
                                     "than this machine has (%.1f GiB)",
                                     placed.grid.nx, placed.grid.ny, gridBytes / 1073741824.0,
                                     machineBytes / 1073741824.0));
    Region out(TPG_R, t.record);
    out.Set2dStruct(placed.grid.nx, placed.grid.ny, placed.grid.orgX, placed.grid.orgY);
    if (base) {
        // The spacing the run will read back: a binary grid stores it as a float.
        Region asRead = out;
        if (IsBinaryGridPath(t.output))
            asRead.gridSize = static_cast<double>(static_cast<float>(t.spacing));
        const std::string refusal = NestingRefusal(asRead, *base, t);
        if (!refusal.empty())
            throw PrepError(refusal);
    }

    TermProgress progressState;
    WarpSettings settings;
    settings.epsg = t.epsg;
    settings.resampling = o.resampling;
    if (o.progress) {
        settings.progress = StderrProgress;
        settings.progressArg = &progressState;
    }
    // A binary grid from one source goes to its file chunk by chunk as the warp makes it,
    // and to the disk while the rest is warped, as gdalwarp writes its output; a grid that
    // --fill changes afterwards, or that several sources make, is written once it is whole.
    // Either way the file replaces the old one only once every check has passed.
    const std::int64_t total = std::int64_t{placed.grid.nx} * placed.grid.ny;
    const BinaryHeader header =
        BinaryGridHeader(out.org_x, out.org_y, out.nx, out.ny, out.gridSize);
    std::optional<PendingFile> pending;
    if (IsBinaryGridPath(t.output) && sources.size() == 1 && !o.fill) {
        pending.emplace(t.output);
        pending->WriteAt(header.data(), header.size(), 0);
        const std::size_t nx = static_cast<std::size_t>(placed.grid.nx);
        settings.chunkDone = [&pending, &header, nx](int x, int y, int width, int height,
                                                     const float* chunk) {
            const auto at = [&](int row) {
                return static_cast<off_t>(header.size() +
                                          (static_cast<std::size_t>(row) * nx +
                                           static_cast<std::size_t>(x)) * sizeof(float));
            };
            // Written on the file's own thread: the warper goes on to the next chunk.
            pending->WriteRowsSoon(chunk, static_cast<std::size_t>(width) * sizeof(float),
                                   height, at(y), at(y + 1) - at(y));
        };
    }
    Grid2d<float> cells;
    const WarpOutcome outcome = WarpSources(placed.grid, sources, settings, cells);

    std::int64_t filled = 0;
    if (outcome.beyondFloat > 0)
        throw PrepError(StringPrintf("%" PRId64 " of %" PRId64 " cells would hold elevations "
                                     "beyond the 3.4e38 a grid file's floats hold; check "
                                     "--z-scale and the sources' values",
                                     outcome.beyondFloat, total));
    if (outcome.uncovered == total && !o.fill)
        throw PrepError("no source holds valid data inside the bounds: they lie outside every "
                        "source, or the sources hold only nodata there");
    if (outcome.uncovered > 0) {
        if (!o.fill) {
            const double s = placed.grid.spacing;
            const double x0 = placed.grid.orgX + (outcome.uncoveredMinI - 0.5) * s;
            const double x1 = placed.grid.orgX + (outcome.uncoveredMaxI + 0.5) * s;
            const double y0 = placed.grid.orgY + (outcome.uncoveredMinJ - 0.5) * s;
            const double y1 = placed.grid.orgY + (outcome.uncoveredMaxJ + 0.5) * s;
            throw PrepError(StringPrintf(
                "%" PRId64 " of %" PRId64 " cells are covered by no source with valid data, "
                "within x %.10g .. %.10g, y %.10g .. %.10g (cell edges, EPSG %d); add a source "
                "that covers them, or give them a value on purpose with --fill VALUE",
                outcome.uncovered, total, x0, x1, y0, y1, t.epsg));
        }
        float* v = cells.Data();
        const float fill = static_cast<float>(*o.fill);
        for (std::int64_t c = 0; c < total; ++c)
            if (!std::isfinite(v[c])) {
                v[c] = fill;
                ++filled;
            }
    }
    out.valMin = outcome.uncovered == total ? *o.fill : outcome.valMin;
    out.valMax = outcome.uncovered == total ? *o.fill : outcome.valMax;
    if (filled > 0 && outcome.uncovered < total) {
        out.valMin = std::min(out.valMin, *o.fill);
        out.valMax = std::max(out.valMax, *o.fill);
    }
    // Checked as stored: a binary or text grid holds each value as a float.
    if (static_cast<float>(out.valMin) == static_cast<float>(out.valMax) &&
        !(filled > 0 && out.valMin == *o.fill))
        throw PrepError(StringPrintf("every one of the %" PRId64 " cells would hold %.9g: the "
                                     "sources are flat there, which is no topography to compute "
                                     "on; check the bounds and the sources",
                                     total, double{static_cast<float>(out.valMin)}));

    if (pending) {
        // Should the warper have kept back a chunk, the grid is written whole after all.
        if (outcome.handedOver != total)
            pending->WriteAt(cells.Data(), static_cast<std::size_t>(total) * sizeof(float),
                             static_cast<off_t>(header.size()));
        pending->Commit();
    } else if (IsBinaryGridPath(t.output)) {
        WriteFileAtomically(t.output, [&](std::FILE* file) {
            return PutBinaryGrid(file, out.org_x, out.org_y, out.nx, out.ny, out.gridSize,
                                 cells.Data());
        });
    } else {
        // The text writer takes the run's grid of doubles; every float is one exactly.
        out.grid.Assign(out.nx, out.ny, 0.0);
        std::copy(cells.Data(), cells.Data() + total, out.grid.Data());
        WriteFileAtomically(t.output, [&](std::FILE* file) { return out.PutText(file); });
        out.grid.Release();
    }
    if (!o.geotiff.empty())
        ReplaceFileAtomically(o.geotiff, [&](const std::string& temporary) {
            return WriteFloatGeoTiff(temporary, out, cells, t.epsg);
        });
    if (!o.quiet)
        PrintSummary(t, placed, out, outcome, filled, o);
    return 0;
}

} // namespace

BinaryHeader BinaryGridHeader(double orgX, double orgY, std::int32_t nx, std::int32_t ny,
                              double spacing) {
    static_assert(std::endian::native == std::endian::little && sizeof(float) == 4);
    BinaryHeader header;
    const float storedSpacing = static_cast<float>(spacing);
    unsigned char* at = header.data();
    for (const auto& [value, size] : {std::pair<const void*, std::size_t>{&orgX, sizeof orgX},
                                      {&orgY, sizeof orgY},
                                      {&nx, sizeof nx},
                                      {&ny, sizeof ny},
                                      {&storedSpacing, sizeof storedSpacing}}) {
        std::memcpy(at, value, size);
        at += size;
    }
    return header;
}

bool PutBinaryGrid(std::FILE* file, double orgX, double orgY, std::int32_t nx, std::int32_t ny,
                   double spacing, const float* cells) {
    const BinaryHeader header = BinaryGridHeader(orgX, orgY, nx, ny, spacing);
    const std::size_t count = static_cast<std::size_t>(std::max(nx, 0)) *
                              static_cast<std::size_t>(std::max(ny, 0));
    // The cells go from the grid itself, in one call: no block is copied on the way.
    return std::fwrite(header.data(), 1, header.size(), file) == header.size() &&
           std::fwrite(cells, sizeof(float), count, file) == count;
}

int RunGrid(const GridOptions& options) {
    return ReportingErrors("grid", [&] { return Grid(options); });
}
