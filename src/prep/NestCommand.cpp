#include "prep/NestCommand.hpp"

#include "prep/BuildCommand.hpp"
#include "prep/ChainDesign.hpp"
#include "prep/CheckCommand.hpp"
#include "prep/Plan.hpp"
#include "prep/PrepError.hpp"
#include "prep/Terrain.hpp"
#include "prep/Warp.hpp"
#include "inputs/Fault.hpp"
#include "project/Console.hpp"
#include "projection/MapProjection.hpp"

#include <algorithm>
#include <cpl_conv.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <memory>

namespace fs = std::filesystem;

namespace {

// "3km", "500m" or "800" (metres).
double Metres(const std::string& text) {
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    const std::string unit = end != nullptr ? end : "";
    if (end != text.c_str() && value > 0 && std::isfinite(value)) {
        if (unit.empty() || unit == "m")
            return value;
        if (unit == "km")
            return value * 1000;
    }
    throw PrepError("--radius takes a distance such as 3km, 500m or 800 (metres), not \"" + text +
                    "\"");
}

// The folder may be new, empty, or hold this same project; another needs --force.
void CheckFolder(const fs::path& dir, const std::string& name, bool force) {
    std::error_code error;
    if (!fs::exists(dir, error))
        return;
    if (!fs::is_directory(dir, error))
        throw PrepError(dir.string() + " exists and is not a folder");
    if (fs::is_empty(dir, error) || force)
        return;
    const fs::path plan = dir / kPlanName;
    if (fs::exists(plan, error)) {
        try {
            if (ReadPlan(plan.string()).name == name)
                return;
        } catch (const PrepError&) {
        }
    }
    throw PrepError(dir.string() + " already holds files of another project; choose another "
                                   "folder, or give --force to write over them");
}

std::string RelativeTo(const fs::path& dir, const std::string& path) {
    if (path.empty())
        return {};
    return fs::absolute(path).lexically_normal().lexically_proximate(dir).string();
}

// Each fault segment's surface outline, as the run draws it, as a box in degrees; the
// file read with the run's own reader, which must accept it.
std::vector<std::pair<std::string, Bounds>> FaultOutlines(const std::string& path, int epsg,
                                                           double siteLon) {
    XML_FAULT record;
    record.EPSG = epsg;
    record.CoordinateType = 1;
    record.FileName = path;
    Fault fault(record);
    switch (fault.LoadFile()) {
    case 0:
        break;
    case 1:
        throw PrepError("cannot read the fault file " + path);
    default:
        throw PrepError(StringPrintf("the fault file %s has a line after its first %zu segments "
                                     "that is not a fault segment (the run stops there)",
                                     path.c_str(), fault.segments.size()));
    }
    if (fault.segments.empty())
        throw PrepError("the fault file " + path + " holds no fault segment");
    SetMapProjectionNotices(false);
    std::vector<std::pair<std::string, Bounds>> outlines;
    for (std::size_t k = 0; k < fault.segments.size(); ++k) {
        const FAULT_PARAM& seg = fault.segments[k];
        double x[5];
        double y[5];
        if (!fault.SegmentOutline(seg, x, y, false))
            throw PrepError(StringPrintf("the outline of fault segment %zu of %s cannot be "
                                         "worked out",
                                         k + 1, path.c_str()));
        constexpr double kInf = std::numeric_limits<double>::infinity();
        Bounds b = {kInf, kInf, -kInf, -kInf};
        for (int c = 0; c < 5; ++c) {
            // Outlines come in 0..360; the site's side of the date line decides.
            double lon = x[c];
            while (lon - siteLon > 180)
                lon -= 360;
            while (lon - siteLon < -180)
                lon += 360;
            b = {std::min(b[0], lon), std::min(b[1], y[c]), std::max(b[2], lon),
                 std::max(b[3], y[c])};
        }
        std::string name = seg.name;
        const std::size_t first = name.find_first_not_of(" \t\r\n\"");
        const std::size_t last = name.find_last_not_of(" \t\r\n\"");
        name = first == std::string::npos ? std::string() : name.substr(first, last - first + 1);
        outlines.emplace_back(StringPrintf("%zu (%s)", k + 1, name.c_str()), b);
    }
    return outlines;
}

// The sources with what the options say of each, as the grid command lays its options
// over them: an option for source N wins over the one for every source.
std::vector<WarpSource> Sources(const NestOptions& o) { return SourcesAsGiven(o); }

int Nest(const NestOptions& o) {
    if (o.output.empty())
        throw PrepError("give the output folder with -o");
    if (o.sources.empty())
        throw PrepError("give at least one elevation source");
    if (o.site.has_value() == o.area.has_value())
        throw PrepError("give the place with --site LON LAT (and --radius) or with --area, one "
                        "of the two");
    if (o.ratio < 2)
        throw PrepError(StringPrintf("--ratio must be 2 or more, not %d", o.ratio));
    if (!(o.finest >= 0.5))
        throw PrepError(StringPrintf("--finest must be at least 0.5 m, not %g", o.finest));
    if (!(o.cfl > 0) || o.cfl > 1)
        throw PrepError(StringPrintf("--cfl must lie in 0 .. 1 (the run refuses others), not %g",
                                     o.cfl));
    if (o.margin < 0 || o.levels < 0 || !(o.maxCells > 0) || !(o.outerDepth >= 0) ||
        !(o.totalTime > 0) || o.outerSpacing < 0)
        throw PrepError("--margin, --levels, --outer-spacing and --outer-depth cannot be "
                        "negative, and --max-cells and --total-time must be positive");
    if (!o.resampling.empty() && !IsResamplingName(o.resampling))
        throw PrepError("unknown resampling method \"" + o.resampling + "\"");
    const std::vector<WarpSource> sources = Sources(o);
    const fs::path dir = fs::absolute(o.output).lexically_normal();
    const std::string name =
        !o.name.empty() ? o.name
                        : (dir.filename().empty() ? dir.parent_path() : dir).filename().string();
    if (name.empty() || name.find('/') != std::string::npos)
        throw PrepError("give the project a name with --name");
    CheckFolder(dir, name, o.force);

    ChainRules rules;
    if (o.site) {
        rules.siteLon = (*o.site)[0];
        rules.siteLat = (*o.site)[1];
        const double r = Metres(o.radius);
        const double dLat = r / kMetresPerDegree;
        const double dLon = dLat / std::cos(rules.siteLat * kPlannerPi / 180);
        rules.interest = {rules.siteLon - dLon, rules.siteLat - dLat, rules.siteLon + dLon,
                          rules.siteLat + dLat};
    } else {
        rules.interest = *o.area;
        if (!(rules.interest[2] > rules.interest[0]) || !(rules.interest[3] > rules.interest[1]))
            throw PrepError("--area takes LONMIN LATMIN LONMAX LATMAX");
        rules.siteLon = 0.5 * (rules.interest[0] + rules.interest[2]);
        rules.siteLat = 0.5 * (rules.interest[1] + rules.interest[3]);
    }
    if (!(std::fabs(rules.siteLat) < 85) || !(std::fabs(rules.siteLon) <= 360))
        throw PrepError("the site must lie within 85 degrees of the equator");

    // The coarsest source tells the lie of the land; the site must lie in some source.
    double coarsestMetres = 0;
    bool covered = false;
    // What the grid command would refuse in a source is refused before any planning.
    CheckSources(sources);
    for (std::size_t k = 0; k < sources.size(); ++k) {
        const SourceFootprint f = DescribeSource(sources[k]);
        covered = covered || (rules.siteLon >= f.lonLat[0] && rules.siteLon <= f.lonLat[2] &&
                              rules.siteLat >= f.lonLat[1] && rules.siteLat <= f.lonLat[3]);
        coarsestMetres = std::max(coarsestMetres, f.cellMetres);
    }
    if (!covered)
        throw PrepError(StringPrintf("the site %.6g %.6g lies outside every source", rules.siteLon,
                                     rules.siteLat));
    // The sources stacked as the grid command stacks them, each read only where the
    // planner looks (or, in a plane system, whole but coarsened and at its own resolution
    // around the site, where the finer regions' edges are judged): reading every cell of a
    // large source would cost more than the grids themselves.
    const double near = 200.0 * o.ratio * o.ratio * o.finest / kMetresPerDegree;
    const double nearLon = near / std::cos(rules.siteLat * kPlannerPi / 180);
    const Bounds window = {rules.interest[0] - nearLon, rules.interest[1] - near,
                           rules.interest[2] + nearLon, rules.interest[3] + near};
    // Bounded as the grid command bounds it, so a large source is read through a small
    // cache rather than held.
    CPLSetConfigOption("GDAL_CACHEMAX", "64");
    std::vector<std::unique_ptr<Terrain>> layers;
    for (std::size_t k = 0; k < o.sources.size(); ++k)
        layers.push_back(OpenTerrain(sources[k], static_cast<int>(k + 1), window));
    const LayeredTerrain terrain(std::move(layers));
    rules.finest = o.finest;
    rules.ratio = o.ratio;
    rules.levels = o.levels;
    rules.outerSpacing = o.outerSpacing;
    rules.sourceMetres = coarsestMetres;
    rules.cfl = o.cfl;
    rules.margin = o.margin;
    rules.maxCells = o.maxCells;
    rules.outerDepth = o.outerDepth;
    if (!o.fault.empty())
        rules.faults = FaultOutlines(o.fault, JapanZone(rules.siteLon, rules.siteLat) != 0 ? 4612 : 4326,
                                     rules.siteLon);
    const ChainDesign design = DesignChain(rules, terrain);

    Plan plan;
    plan.name = name;
    plan.totalTime = o.totalTime;
    plan.cfl = o.cfl;
    plan.fault = RelativeTo(dir, o.fault);
    plan.stations = RelativeTo(dir, o.stations);
    plan.coastPoints = RelativeTo(dir, o.coastPoints);
    plan.design.site = o.site;
    if (o.site)
        plan.design.radius = Metres(o.radius);
    plan.design.area = o.area;
    plan.design.finest = o.finest;
    plan.design.ratio = o.ratio;
    plan.design.levels = o.levels;
    plan.design.outerSpacing = o.outerSpacing;
    plan.design.margin = o.margin;
    plan.design.maxCells = o.maxCells;
    plan.design.outerDepth = o.outerDepth;
    for (const ChainRow& row : design.rows) {
        PlanRegion r;
        r.number = row.number;
        r.name = row.name;
        r.base = row.base;
        r.epsg = row.epsg;
        r.spacing = row.spacing;
        const Bounds e = CellEdges(row.grid);
        for (int k = 0; k < 4; ++k)
            r.bounds[k] = std::strtod(StringPrintf("%.12g", e[k]).c_str(), nullptr);
        // A binary grid holds its spacing as a float: only where that is exact.
        r.grid = name + "_" + row.name +
                 (static_cast<double>(static_cast<float>(row.spacing)) == row.spacing ? ".bin"
                                                                                      : ".txt");
        for (std::size_t k = 0; k < o.sources.size(); ++k) {
            const WarpSource& w = sources[k];
            PlanSource s;
            s.path = RelativeTo(dir, o.sources[k]);
            s.depthPositive = w.depthPositive;
            s.resampling = o.resampling;
            s.srs = w.srs;
            s.noData = w.noData;
            s.zScale = w.zScale;
            s.keepMarkers = w.keepMarkers;
            r.sources.push_back(s);
        }
        plan.regions.push_back(r);
    }

    const bool created = !fs::exists(dir);
    std::error_code error;
    fs::create_directories(dir, error);
    if (error)
        throw PrepError("cannot make the folder " + dir.string() + ": " + error.message());
    const std::string planPath = (dir / kPlanName).string();
    try {
        WritePlan(planPath, plan);
    } catch (const PrepError&) {
        if (created)
            fs::remove_all(dir, error);
        throw;
    }
    for (const std::string& note : design.notes)
        std::printf("note: %s\n", note.c_str());
    for (const std::string& warning : design.warnings)
        std::fprintf(stderr, "seaforge-prep: warning: %s\n", warning.c_str());
    const int own = design.warnings.empty() ? 0 : 2;
    if (o.planOnly) {
        if (!o.quiet) {
            std::printf("%s", ChainTable(design.rows).c_str());
            // The check's estimate, from the grids' sizes alone: the plan has no
            // construction lines.
            std::vector<RunRegionSize> sizes;
            for (const ChainRow& row : design.rows)
                sizes.push_back({static_cast<double>(row.grid.nx) * row.grid.ny, false});
            std::printf("TimeIncrement %s s (from the coarsest source; build works it out from "
                        "the grids), TimeNestingCFLLimit %s\nEstimated run: %s\nWrote %s\n",
                        ShortestDecimal(design.timeIncrement).c_str(),
                        ShortestDecimal(o.cfl).c_str(),
                        PeakMemoryText(EstimatedPeakBytes(sizes)).c_str(), planPath.c_str());
        }
        return own;
    }
    BuildOptions build;
    build.plan = (fs::path(o.output) / kPlanName).string();
    build.json = o.json;
    build.quiet = o.quiet;
    const int status = RunBuild(build);
    if (status == 1 && created)
        fs::remove_all(dir, error); // nothing half-made is left behind
    return status == 1 ? 1 : std::max(status, own);
}

} // namespace

int RunNest(const NestOptions& options) {
    return ReportingErrors("nest", [&] { return Nest(options); });
}
