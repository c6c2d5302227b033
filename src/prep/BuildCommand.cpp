#include "prep/BuildCommand.hpp"

#include "prep/AtomicFile.hpp"
#include "prep/ChainDesign.hpp"
#include "prep/CheckCommand.hpp"
#include "prep/GridCommand.hpp"
#include "prep/OverviewCommand.hpp"
#include "prep/Plan.hpp"
#include "prep/PrepError.hpp"
#include "prep/ProjectFiles.hpp"
#include "prep/ProjectWriter.hpp"
#include "prep/Terrain.hpp"
#include "prep/Warp.hpp"
#include "inputs/Station.hpp"
#include "project/Console.hpp"
#include "projection/MapProjection.hpp"

#include <nlohmann/json.hpp>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

// A region of the plan with everything the build needs resolved.
struct Target {
    const PlanRegion* region = nullptr;
    GridGeometry grid;
    std::vector<std::string> sources; // absolute paths
    std::vector<WarpSource> warp;     // the same, with the options the plan gives them
    std::string inputs;               // what its grid is made from, as one text
    std::string hash;
};

std::string Label(const PlanRegion& r) { return StringPrintf("region %d (%s)", r.number, r.name.c_str()); }

// FNV-1a: a stable digest of the inputs, the same on every machine and build.
std::string Digest(const std::string& text) {
    std::uint64_t h = 14695981039346656037ull;
    for (unsigned char c : text) {
        h ^= c;
        h *= 1099511628211ull;
    }
    return StringPrintf("%016llx", static_cast<unsigned long long>(h));
}

std::string Resolve(const fs::path& dir, const std::string& path) {
    const fs::path p(path);
    return (p.is_absolute() ? p : dir / p).lexically_normal().string();
}

// Whatever the grid depends on in one source: the file as it is now and its options.
std::string SourceInputs(const std::string& path, const PlanSource& s) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0)
        throw PrepError("the plan names the elevation source " + s.path + ", which is missing (" +
                        path + ")");
    const auto optional = [](const std::optional<double>& v) {
        return v ? StringPrintf("%.17g", *v) : std::string("-");
    };
    std::string text = StringPrintf(
        "%s|%lld|%lld.%09ld|%d|%s|%s|%s|%s|%d", path.c_str(),
        static_cast<long long>(info.st_size), static_cast<long long>(info.st_mtim.tv_sec),
        info.st_mtim.tv_nsec, s.depthPositive ? 1 : 0, s.resampling.c_str(), s.srs.c_str(),
        optional(s.noData).c_str(), optional(s.zScale).c_str(), s.keepMarkers ? 1 : 0);
    for (const auto& [key, value] : s.pending)
        text += "|" + key + "=" + value;
    return text;
}

// Every region placed as the grid command will place it and checked as the run will check
// it, before anything is written.
std::vector<Target> Resolve(const Plan& plan, const fs::path& dir) {
    std::vector<Target> targets;
    std::map<int, std::size_t> byNumber;
    for (const PlanRegion& r : plan.regions) {
        Target t;
        t.region = &r;
        const std::string label = Label(r);
        if (!IsGeographic(r.epsg) && !IsServicePlaneEpsg(r.epsg))
            throw PrepError(StringPrintf("%s: EPSG %d is not a system the run's projection "
                                         "service knows (4326, 4612, the JGD2000 plane systems "
                                         "2443-2461 and UTM zones 3097-3101)",
                                         label.c_str(), r.epsg));
        const Target* base = nullptr;
        if (r.base != 0)
            base = &targets[byNumber.at(r.base)];
        if (base == nullptr) {
            t.grid = CoverBounds(r.bounds, r.spacing);
        } else if (base->region->epsg == r.epsg) {
            try {
                t.grid = PlaceOnBase(r.bounds, r.spacing, base->grid).grid;
            } catch (const PrepError& e) {
                throw PrepError(label + ", nested in " + Label(*base->region) + ": " + e.what());
            }
        } else {
            if (!IsGeographic(base->region->epsg))
                throw PrepError(StringPrintf("%s (EPSG %d) nests in %s (EPSG %d): the run checks "
                                             "a region of another system only inside a "
                                             "longitude-latitude base region",
                                             label.c_str(), r.epsg,
                                             Label(*base->region).c_str(), base->region->epsg));
            t.grid = CoverBounds(r.bounds, r.spacing);
        }
        if (base != nullptr) {
            SetMapProjectionNotices(false);
            XML_REGION record;
            record.RegionNo = r.number;
            record.EPSG = r.epsg;
            record.GridSize = r.spacing;
            Region own(TPG_R, record);
            own.Set2dStruct(t.grid.nx, t.grid.ny, t.grid.orgX, t.grid.orgY);
            const GridGeometry& b = base->grid;
            const int reason =
                own.ComprisableReason(base->region->epsg, b.orgX, b.orgY, b.spacing, b.nx, b.ny);
            const char* const words[] = {"", "its western edge lies west of the base's",
                                         "its southern edge lies south of the base's",
                                         "its eastern edge lies east of the base's",
                                         "its northern edge lies north of the base's",
                                         "a corner is not found among the base's points"};
            if (reason != 0)
                throw PrepError(label + " does not lie inside its base " + Label(*base->region) +
                                " as the run checks it: " + words[std::min(reason, 5)] +
                                " (the run stops with \"Comprisable" +
                                (reason == 5 ? " :NG" : (reason % 2 ? " dimX:NG" : " dimY:NG")) +
                                "\"); nothing was written");
        }
        t.inputs = StringPrintf("%d|%s|%.17g %.17g %.17g %.17g|%s|", r.epsg,
                                ShortestDecimal(r.spacing).c_str(), t.grid.orgX, t.grid.orgY,
                                double(t.grid.nx), double(t.grid.ny), r.grid.c_str());
        for (const PlanSource& s : r.sources) {
            if (!s.pending.empty())
                throw PrepError(label + ": the source option \"" + s.pending.front().first +
                                "\" of " + s.path + " is not one the grid command takes");
            if (!s.resampling.empty() && s.resampling != r.sources.front().resampling)
                throw PrepError(label + ": the grid command takes one resampling method for "
                                        "all of a region's sources");
            if (s.keepMarkers != r.sources.front().keepMarkers)
                throw PrepError(label + ": the grid command takes --keep-markers for all of a "
                                        "region's sources or none");
            t.sources.push_back(Resolve(dir, s.path));
            t.warp.push_back(AsWarpSource(s, t.sources.back()));
            t.inputs += SourceInputs(t.sources.back(), s) + ";";
        }
        t.hash = Digest(t.inputs + (base != nullptr ? base->hash : std::string()));
        byNumber[r.number] = targets.size();
        targets.push_back(std::move(t));
    }
    return targets;
}

std::map<int, std::string> ReadRecord(const fs::path& path) {
    std::map<int, std::string> record;
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return record;
    const nlohmann::json root = nlohmann::json::parse(in, nullptr, false);
    if (!root.is_object())
        return record; // an unreadable record only costs a full build
    for (const auto& [key, value] : root.items())
        if (value.is_string())
            record[std::atoi(key.c_str())] = value.get<std::string>();
    return record;
}

void WriteRecord(const fs::path& path, const std::map<int, std::string>& record) {
    nlohmann::ordered_json root = nlohmann::ordered_json::object();
    for (const auto& [number, hash] : record)
        root[std::to_string(number)] = hash;
    const std::string text = root.dump(2) + "\n";
    WriteFileAtomically(path.string(), [&](std::FILE* f) {
        return std::fwrite(text.data(), 1, text.size(), f) == text.size();
    });
}

// Side files live beside the project, where the run looks for them.
std::string PlaceSideFile(const fs::path& dir, const std::string& path, const char* what) {
    if (path.empty())
        return {};
    const fs::path source = Resolve(dir, path);
    std::ifstream in(source, std::ios::binary);
    if (!in)
        throw PrepError(std::string("cannot read the ") + what + " " + source.string());
    const std::string name = source.filename().string();
    const fs::path target = dir / name;
    std::error_code same;
    if (!fs::equivalent(source, target, same)) {
        const std::string content((std::istreambuf_iterator<char>(in)), {});
        WriteFileAtomically(target.string(), [&](std::FILE* f) {
            return std::fwrite(content.data(), 1, content.size(), f) == content.size();
        });
    }
    return name;
}

// The list `name` (degrees, beside the project) split for the run: the points inside a
// region of the plane system `zone`, carried into it with the run's projection service,
// as "<stem>_EPSG<zone>.txt", and the others as "<stem>_EPSG<geographic>.txt", both beside
// it. Each answer is "" when it holds no point. Read with the run's reader.
std::pair<std::string, std::string> SplitPointList(const fs::path& dir, const std::string& name,
                                                   int geographic, int zone,
                                                   const std::vector<ChainRow>& rows) {
    XML_STATION record;
    record.EPSG = geographic;
    record.FileName = (dir / name).string();
    Station list(record);
    if (list.LoadFile() != 0)
        throw PrepError("the run cannot read the point list " + name +
                        " (a line with fewer than three fields, or it cannot be opened)");
    std::vector<double> x;
    std::vector<double> y;
    for (const PosXY& p : list.points) {
        x.push_back(p.x);
        y.push_back(p.y);
    }
    if (x.empty())
        return {};
    SetMapProjectionNotices(false);
    const std::int32_t n = static_cast<std::int32_t>(x.size());
    const bool converted = mapproject_initialize_using_epsg_(geographic, zone) != nullptr &&
                           ll2xy_(&n, x.data(), y.data(), x.data(), y.data()) == 0;
    mapproject_finalize_();
    if (!converted)
        throw PrepError("the points of " + name + " cannot be carried into EPSG " +
                        std::to_string(zone));
    std::string planeText;
    std::string geographicText;
    for (std::size_t k = 0; k < x.size(); ++k) {
        bool inside = false;
        for (const ChainRow& row : rows) {
            const Bounds e = CellEdges(row.grid);
            inside = inside || (row.epsg == zone && x[k] >= e[0] && x[k] <= e[2] &&
                                y[k] >= e[1] && y[k] <= e[3]);
        }
        const PosXY& p = list.points[k];
        if (inside)
            planeText += StringPrintf("%.3f %.3f %s\n", x[k], y[k], p.name.c_str());
        else
            geographicText += StringPrintf("%s %s %s\n", ShortestDecimal(p.x).c_str(),
                                           ShortestDecimal(p.y).c_str(), p.name.c_str());
    }
    const auto write = [&](const std::string& text, int epsg) {
        if (text.empty())
            return std::string();
        const std::string file =
            fs::path(name).stem().string() + "_EPSG" + std::to_string(epsg) + ".txt";
        WriteFileAtomically((dir / file).string(), [&](std::FILE* f) {
            return std::fwrite(text.data(), 1, text.size(), f) == text.size();
        });
        return file;
    };
    return {write(geographicText, geographic), write(planeText, zone)};
}

// The shallowest water on the grid's outer ring of cells (metres), NaN when none.
double ShallowestOnRing(const Region& grid) {
    double shallowest = std::nan("");
    const auto look = [&](std::int32_t i, std::int32_t j) {
        const double v = grid.grid(i, j);
        if (v < 0 && !(-v >= shallowest))
            shallowest = -v;
    };
    for (std::int32_t i = 0; i < grid.nx; ++i) {
        look(i, 0);
        look(i, grid.ny - 1);
    }
    for (std::int32_t j = 0; j < grid.ny; ++j) {
        look(0, j);
        look(grid.nx - 1, j);
    }
    return shallowest;
}

// The working directory, kept while the run's readers take the project's paths from the
// plan's folder, and restored however the work ends.
class InFolder {
  public:
    explicit InFolder(const fs::path& dir) : previous_(open(".", O_RDONLY | O_DIRECTORY)) {
        if (previous_ < 0 || chdir(dir.c_str()) != 0)
            throw PrepError("cannot enter the folder " + dir.string());
    }
    ~InFolder() {
        (void)fchdir(previous_); // the folder it came from still exists
        close(previous_);
    }
    InFolder(const InFolder&) = delete;
    InFolder& operator=(const InFolder&) = delete;

  private:
    int previous_;
};

// The check's report written whole to `path`; answers the check's status.
int CheckInto(const std::string& path, const Report& report, bool json) {
    int status = 1;
    WriteFileAtomically(path, [&](std::FILE* file) {
        status = PrintCheck(report, json, file);
        return std::ferror(file) == 0;
    });
    return status;
}

int Build(const BuildOptions& o) {
    const fs::path planPath = fs::absolute(o.plan);
    const fs::path dir = planPath.parent_path();
    const Plan plan = ReadPlan(planPath.string());
    if (plan.fault.empty())
        throw PrepError(o.plan + ": the run needs a fault model: give it as \"fault\" (nest "
                                 "--fault FILE)");
    const std::vector<Target> targets = Resolve(plan, dir);
    // A bad source is named before any grid is made.
    std::vector<WarpSource> all;
    for (const Target& t : targets)
        all.insert(all.end(), t.warp.begin(), t.warp.end());
    CheckSources(all);
    for (const WarpSource& source : all)
        (void)DescribeSource(source);

    const fs::path recordPath = dir / kBuildRecordName;
    std::map<int, std::string> record = ReadRecord(recordPath);
    int built = 0;
    for (const Target& t : targets) {
        const PlanRegion& r = *t.region;
        const fs::path gridPath = dir / r.grid;
        if (record.count(r.number) != 0 && record[r.number] == t.hash && fs::exists(gridPath))
            continue;
        GridOptions grid;
        grid.epsg = r.epsg;
        grid.spacing = r.spacing;
        grid.output = gridPath.string();
        grid.origin = std::array<double, 2>{t.grid.orgX, t.grid.orgY};
        grid.size = std::array<int, 2>{t.grid.nx, t.grid.ny};
        grid.sources = t.sources;
        for (std::size_t k = 0; k < t.warp.size(); ++k) {
            const WarpSource& w = t.warp[k];
            const int n = static_cast<int>(k + 1);
            if (w.depthPositive)
                grid.depthPositiveSources.push_back(n);
            if (!w.srs.empty())
                grid.sourceSrsFor.emplace_back(n, w.srs);
            if (w.noData)
                grid.sourceNoDataFor.emplace_back(n, *w.noData);
            if (w.zScale)
                grid.zScaleFor.emplace_back(n, *w.zScale);
        }
        grid.keepMarkers = t.warp.front().keepMarkers;
        grid.resampling = r.sources.front().resampling;
        grid.quiet = true;
        if (RunGrid(grid) != 0)
            return 1; // its line is printed
        record[r.number] = t.hash;
        WriteRecord(recordPath, record);
        ++built;
    }
    // Numbers no longer in the plan leave the record.
    for (auto it = record.begin(); it != record.end();)
        it = std::any_of(targets.begin(), targets.end(),
                         [&](const Target& t) { return t.region->number == it->first; })
                 ? std::next(it)
                 : record.erase(it);
    WriteRecord(recordPath, record);

    // The chain as the run will see it, from the grids themselves.
    std::vector<ChainRow> rows;
    int zone = 0;
    for (const Target& t : targets) {
        const PlanRegion& r = *t.region;
        XML_REGION rec;
        rec.RegionNo = r.number;
        rec.RegionName = r.name;
        rec.EPSG = r.epsg;
        rec.GridSize = r.spacing;
        rec.Topography.FileName = (dir / r.grid).string();
        std::string why;
        const Region grid = ReadRegionGrid(TPG_R, rec, why);
        if (!why.empty())
            throw PrepError(Label(r) + ": " + why);
        ChainRow row;
        row.number = r.number;
        row.name = r.name;
        row.base = r.base;
        row.epsg = r.epsg;
        row.spacing = r.spacing;
        row.grid = {grid.org_x, grid.org_y, r.spacing, grid.nx, grid.ny};
        row.lowest = grid.valMin;
        row.shallowestEdge = ShallowestOnRing(grid);
        row.marginCells = std::nan("");
        row.edgeJump = std::nan("");
        if (!IsGeographic(r.epsg))
            zone = r.epsg;
        rows.push_back(row);
    }
    for (ChainRow& row : rows)
        for (const ChainRow& base : rows)
            if (row.base == base.number)
                row.marginCells = MarginInBase(row, base);
    const double timeIncrement =
        plan.timeIncrement ? *plan.timeIncrement : LargestTimeIncrement(rows, plan.cfl);
    WorkOutRowSteps(rows, timeIncrement, plan.cfl);

    ProjectSettings settings;
    settings.timeIncrement = timeIncrement;
    settings.geographicEpsg = 4326;
    for (const PlanRegion& r : plan.regions)
        if (r.epsg == 4612 || zone != 0)
            settings.geographicEpsg = 4612;
    settings.fault = PlaceSideFile(dir, plan.fault, "fault file");
    // The run fits a list's points only into regions of the list's own system: in a chain
    // with plane regions, the points inside them go into a list in that system, the
    // others into a geographic one.
    const auto lists = [&](const std::string& path, const char* what) {
        std::vector<std::pair<std::string, int>> out;
        const std::string name = PlaceSideFile(dir, path, what);
        if (name.empty())
            return out;
        if (zone == 0) {
            out.emplace_back(name, settings.geographicEpsg);
            return out;
        }
        const auto [geographic, plane] =
            SplitPointList(dir, name, settings.geographicEpsg, zone, rows);
        if (!geographic.empty())
            out.emplace_back(geographic, settings.geographicEpsg);
        if (!plane.empty())
            out.emplace_back(plane, zone);
        return out;
    };
    settings.stations = lists(plan.stations, "station list");
    settings.coastPoints = lists(plan.coastPoints, "coastal point list");
    const std::string projectName = plan.name + ".xml";
    WriteProjectFile((dir / projectName).string(), plan, settings);

    int status = 0;
    std::string findings; // the check's summary, for the table's last lines
    {
        const InFolder here(dir);
        {
            // Its grids are let go before the overview reads them again.
            CheckOptions check;
            check.project = projectName;
            check.cflLimit = plan.cfl;
            SetMapProjectionNotices(false);
            const Report report = CheckProject(check);
            status = CheckInto("Check.txt", report, false);
            if (o.json)
                (void)CheckInto("Check.json", report, true);
            // The table's boundary jumps are the check's own measures.
            for (ChainRow& row : rows)
                for (const RegionReport& r : report.regions)
                    if (r.record.RegionNo == row.number && r.jumpMax)
                        row.edgeJump = *r.jumpMax;
            findings = EstimateLine(report) + "\n";
            for (const Finding& f : report.findings)
                findings += FindingLine(f) + "\n";
            findings += CountLine(report) + "\n";
        }
        OverviewOptions overview;
        overview.project = projectName;
        overview.output = "Overview.png";
        overview.gpkg = "Overview.gpkg";
        overview.quiet = true;
        if (RunOverview(overview) != 0)
            return 1; // its line is printed
    }
    if (!o.quiet) {
        std::printf("%s", ChainTable(rows).c_str());
        std::printf("TimeIncrement %s s, TimeNestingCFLLimit %s; %d of %zu grids built\n",
                    ShortestDecimal(timeIncrement).c_str(), ShortestDecimal(plan.cfl).c_str(),
                    built, targets.size());
        std::printf("Wrote %s, Check.txt, Overview.png and Overview.gpkg in %s\ncheck: %s",
                    projectName.c_str(),
                    fs::path(o.plan).parent_path().empty()
                        ? "."
                        : fs::path(o.plan).parent_path().string().c_str(),
                    findings.c_str());
    }
    return status;
}

} // namespace

int RunBuild(const BuildOptions& options) {
    return ReportingErrors("build", [&] { return Build(options); });
}
