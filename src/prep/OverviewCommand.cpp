#include "prep/OverviewCommand.hpp"

#include "inputs/Fault.hpp"
#include "inputs/Station.hpp"
#include "prep/OverviewGeoPackage.hpp"
#include "prep/OverviewPicture.hpp"
#include "prep/PointCarrier.hpp"
#include "prep/PrepError.hpp"
#include "prep/ProjectFiles.hpp"
#include "project/Console.hpp"
#include "projection/MapProjection.hpp"
#include "region/TimeSteps.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <future>
#include <map>
#include <new>
#include <optional>

namespace {

constexpr int kPointsPerSide = 32; // a plane region's straight edge is a curve elsewhere


void LeftOut(const std::string& what) {
    std::fprintf(stderr, "seaforge-prep: left out %s\n", what.c_str());
}
void Note(const std::string& what) { std::fprintf(stderr, "seaforge-prep: note: %s\n", what.c_str()); }

std::string Plural(std::size_t n, const char* one, const char* many) {
    return StringPrintf("%zu %s", n, n == 1 ? one : many);
}

// Regions by number as the overview needs them: grids the run can read (cells kept only
// for the outer region), and why the others cannot be.
struct ProjectGrids {
    std::map<int, Region> readable;
    std::map<int, std::string> unreadable;
};

// The outer region is read first, and `outerRead` called with it at once, so its relief
// can be drawn while the others are read.
void ReadGrids(const QuorXmlParameter& project, int outerNo, ProjectGrids& grids,
               const std::function<void(const Region&)>& outerRead) {
    std::vector<int> order = {outerNo};
    for (const auto& [number, record] : project.Regions)
        if (number != outerNo)
            order.push_back(number);
    for (int number : order) {
        const XML_REGION& record = project.Regions.at(number);
        if (!(record.GridSize > 0) || !std::isfinite(record.GridSize)) {
            grids.unreadable[number] = "its GridSize is not positive";
            continue;
        }
        if (record.Topography.FileName.empty()) {
            grids.unreadable[number] = "it names no Topography FileName";
            continue;
        }
        std::string why;
        Region grid = ReadRegionGrid(TPG_R, record, why);
        if (!why.empty()) {
            grids.unreadable[number] = "the run cannot read its grid: " + why;
            continue;
        }
        if (number != outerNo)
            grid.FreeVecMem(); // only the geometry and the extremes are needed from here on
        const Region& kept = grids.readable.emplace(number, std::move(grid)).first->second;
        if (number == outerNo)
            outerRead(kept);
    }
}

// How deep each drawn region sits below the outer region (0 for the outer one). Without
// a chosen region every region is drawn: one whose bases never reach the outer region
// (another outermost region) counts from its own outermost base, as if nested once.
std::map<int, int> DrawnLevels(const QuorXmlParameter& project, int outerNo, bool onlyNested) {
    std::map<int, int> levels;
    for (const auto& [number, record] : project.Regions) {
        int level = 0;
        int at = number;
        bool reached = at == outerNo;
        for (std::size_t guard = 0; !reached && guard <= project.Regions.size(); ++guard) {
            const auto found = project.Regions.find(at);
            if (found == project.Regions.end() || found->second.BaseRegionNo <= 0)
                break;
            at = found->second.BaseRegionNo;
            ++level;
            reached = at == outerNo;
        }
        if (reached)
            levels[number] = level;
        else if (!onlyNested)
            levels[number] = level + 1;
    }
    return levels;
}

const char* TimeStepWords(int reason) {
    switch (reason) {
    case 1: return "TimeNestingCFLLimit lies outside 0 .. 1";
    case 2: return "TimeIncrement is not positive";
    default: return "its spacing in metres is not positive";
    }
}

// Each region's time step and CFL number as the run works them out, where they can be
// known: a step builds on the step of the region numbered just above, so a region below
// one whose grid cannot be read, or whose step fails, has none.
void WorkOutSteps(const QuorXmlParameter& project, ProjectGrids& grids,
                  std::vector<OverviewRegion>& regions) {
    std::map<int, Region>& steps = grids.readable; // only the step fields change
    const TimeStepOutcome outcome =
        WorkOutTimeSteps(steps, project.TimeIncrement, project.TimeNestingCFLLimit, false);
    for (OverviewRegion& r : regions) {
        if (!steps.count(r.number))
            continue;
        const auto blocker = grids.unreadable.upper_bound(r.number);
        if (blocker != grids.unreadable.end()) {
            LeftOut(StringPrintf("the time step of %s: it builds on the step of %s, whose grid "
                                 "is left out",
                                 RegionLabel(project.Regions.at(r.number)).c_str(),
                                 RegionLabel(project.Regions.at(blocker->first)).c_str()));
            continue;
        }
        if (outcome.failed && r.number <= outcome.regionNo) {
            const std::string failing = RegionLabel(project.Regions.at(outcome.regionNo));
            LeftOut(r.number == outcome.regionNo
                        ? StringPrintf("the time step of %s: %s (the run stops with "
                                       "\"ERROR:Calculate CFL\")",
                                       failing.c_str(), TimeStepWords(outcome.reason))
                        : StringPrintf("the time step of %s: it builds on the step of %s, which "
                                       "cannot be worked out",
                                       RegionLabel(project.Regions.at(r.number)).c_str(),
                                       failing.c_str()));
            continue;
        }
        r.dt = steps.at(r.number).dt;
        r.cfl = steps.at(r.number).cfl;
    }
}

OverviewRing CellEdgeRing(const Region& g) {
    const CellExtent e = CellExtentOf(g.org_x, g.org_y, g.gridSize, g.nx, g.ny);
    const double cx[] = {e.minX, e.maxX, e.maxX, e.minX, e.minX};
    const double cy[] = {e.minY, e.minY, e.maxY, e.maxY, e.minY};
    OverviewRing ring;
    for (int side = 0; side < 4; ++side)
        for (int k = 0; k < kPointsPerSide; ++k) {
            const double f = static_cast<double>(k) / kPointsPerSide;
            ring.x.push_back(cx[side] + f * (cx[side + 1] - cx[side]));
            ring.y.push_back(cy[side] + f * (cy[side + 1] - cy[side]));
        }
    ring.x.push_back(e.minX);
    ring.y.push_back(e.minY);
    return ring;
}

// Carries a shape into the picture's system and into longitude-latitude; a side that
// cannot be reached stays empty and `why` says why.
struct Carried {
    OverviewRing map;
    OverviewRing lonLat;
    std::string why;
};

class Carrier {
  public:
    Carrier(int outerEpsg, std::optional<double> centreLon)
        : outerEpsg_(outerEpsg), centreLon_(centreLon) {}

    Carried Carry(int epsg, const OverviewRing& shape) {
        Carried c{shape, shape, {}};
        std::string why;
        if (!carrier_.Carry(epsg, outerEpsg_, c.map.x, c.map.y, c.why))
            c.map = {};
        else if (IsGeographic(outerEpsg_) && centreLon_)
            for (double& x : c.map.x)
                x = NearLongitude(x, *centreLon_);
        if (!carrier_.Carry(epsg, 4326, c.lonLat.x, c.lonLat.y, why)) {
            c.lonLat = {};
            if (c.why.empty())
                c.why = why;
        }
        return c;
    }
    [[nodiscard]] const PointCarrier& Points() const { return carrier_; }

  private:
    PointCarrier carrier_;
    int outerEpsg_;
    std::optional<double> centreLon_;
};

// The extent drawn, in the outer system: the outer region's cells when they could be
// read, else whatever else is drawn, with a margin.
struct Extent {
    double minX = 1e300;
    double minY = 1e300;
    double maxX = -1e300;
    double maxY = -1e300;
    void Add(double x, double y) {
        minX = std::min(minX, x);
        minY = std::min(minY, y);
        maxX = std::max(maxX, x);
        maxY = std::max(maxY, y);
    }
    [[nodiscard]] bool Empty() const { return !(maxX >= minX && maxY >= minY); }
    [[nodiscard]] bool Holds(double x, double y) const {
        return x >= minX && x <= maxX && y >= minY && y <= maxY;
    }
    [[nodiscard]] bool Meets(const OverviewRing& ring) const {
        Extent own;
        for (std::size_t k = 0; k < ring.x.size(); ++k)
            own.Add(ring.x[k], ring.y[k]);
        return !own.Empty() && own.minX <= maxX && own.maxX >= minX && own.minY <= maxY &&
               own.maxY >= minY;
    }
};

// The fault file keeps the quotes and the line end of a name in its last column.
std::string PlainName(std::string name) {
    while (!name.empty() && (name.back() == '\n' || name.back() == '\r' || name.back() == ' '))
        name.pop_back();
    if (name.size() >= 2 && name.front() == '"' && name.back() == '"')
        name = name.substr(1, name.size() - 2);
    return name;
}

struct PointKind {
    const char* one;        // "station"
    const char* plural;     // "stations"
    PointType type;
    const char* runRefusal; // the run's line when the list cannot be read
};

// The region whose cell the run gives a point: for stations the highest-numbered region
// of the list's system whose cells hold it (the best point); for coastal points the
// highest-numbered region of that system, if its cells hold it.
std::optional<int> RunRegion(std::map<int, Region>& readable, int epsg, const PosXY& p,
                             PointType type) {
    for (auto r = readable.rbegin(); r != readable.rend(); ++r) {
        Region& region = r->second;
        if (region.epsg != epsg)
            continue;
        std::vector<PosIJ>& fitted = type == STATION_POINT ? region.stationPoints
                                                           : region.extractPoints;
        const std::size_t before = fitted.size();
        (void)region.FitPointToRegion(p.x, p.y, p.name, type); // always true; the list tells
        const bool held = fitted.size() > before;
        fitted.resize(before);
        if (held)
            return r->first;
        if (type == EXTRACT_POINT)
            return std::nullopt;
    }
    return std::nullopt;
}

void GatherPoints(const std::vector<XML_STATION>& lists, const PointKind& kind,
                  std::map<int, Region>& readable, Carrier& carrier, const Extent& frame,
                  const std::string& outerLabel, std::vector<OverviewPoint>& out) {
    for (const XML_STATION& record : lists) {
        Station list(record);
        const int read = list.LoadFile();
        const std::string& file = record.FileName;
        if (read == -1 || read == 1) {
            LeftOut(StringPrintf("the %s of %s: %s", kind.plural, file.c_str(),
                                 read == -1 ? "cannot open it (the run only warns and goes on "
                                              "without them)"
                                            : "it cannot be read"));
            continue;
        }
        if (read == 2)
            LeftOut(StringPrintf("the %s of %s after its first %zu: a line has fewer than "
                                 "three fields (the run stops with \"%s\")",
                                 kind.plural, file.c_str(), list.points.size(), kind.runRefusal));
        OverviewRing where;
        for (const PosXY& p : list.points) {
            where.x.push_back(p.x);
            where.y.push_back(p.y);
        }
        const Carried c = carrier.Carry(record.EPSG, where);
        if (c.map.empty() && !list.points.empty())
            LeftOut(StringPrintf("the %s of %s: %s", kind.plural, file.c_str(), c.why.c_str()));
        std::size_t outside = 0;
        std::size_t noCell = 0;
        for (std::size_t k = 0; k < list.points.size(); ++k) {
            const PosXY& p = list.points[k];
            OverviewPoint point{p.name, file, record.EPSG, p.x, p.y,
                                RunRegion(readable, record.EPSG, p, kind.type)};
            if (!c.map.empty()) {
                point.mapX = c.map.x[k];
                point.mapY = c.map.y[k];
                point.onMap = frame.Empty() || frame.Holds(point.mapX, point.mapY);
                outside += point.onMap ? 0 : 1;
            }
            if (!c.lonLat.empty()) {
                point.onLonLat = true;
                point.lon = c.lonLat.x[k];
                point.lat = c.lonLat.y[k];
            }
            noCell += point.region ? 0 : 1;
            out.push_back(point);
        }
        if (outside > 0)
            LeftOut(StringPrintf("%zu of the %s of %s: %s outside %s", outside,
                                 Plural(list.points.size(), kind.one, kind.plural).c_str(),
                                 file.c_str(), outside == 1 ? "it lies" : "they lie",
                                 outerLabel.c_str()));
        if (noCell > 0)
            Note(StringPrintf("%zu of the %s of %s %s in no region of EPSG %d the run can read: "
                              "the run gives %s no cell; drawn grey",
                              noCell, Plural(list.points.size(), kind.one, kind.plural).c_str(),
                              file.c_str(), noCell == 1 ? "lies" : "lie", record.EPSG,
                              noCell == 1 ? "it" : "them"));
    }
}

void GatherFaults(const QuorXmlParameter& project, Carrier& carrier, const Extent& frame,
                  const std::string& outerLabel, std::vector<OverviewFault>& out) {
    for (const XML_FAULT& record : project.Faults) {
        Fault fault(record);
        const std::string& file = record.FileName;
        const int read = fault.LoadFile();
        if (read == 1) {
            LeftOut("the fault model " + file + ": cannot open it");
            continue;
        }
        if (read == 2)
            LeftOut(StringPrintf("the fault segments of %s after its first %zu: a line is not "
                                 "a fault segment (the run stops there)",
                                 file.c_str(), fault.segments.size()));
        std::size_t outside = 0;
        for (std::size_t s = 0; s < fault.segments.size(); ++s) {
            const FAULT_PARAM& seg = fault.segments[s];
            OverviewFault f{PlainName(seg.name), seg.slip, file, static_cast<int>(s + 1), {}, {}};
            double x[5];
            double y[5];
            if (!fault.SegmentOutline(seg, x, y, false)) {
                LeftOut(StringPrintf("fault segment %zu (%s) of %s: its outline cannot be "
                                     "worked out",
                                     s + 1, f.name.c_str(), file.c_str()));
                continue;
            }
            const Carried c = carrier.Carry(record.EPSG, {{x, x + 5}, {y, y + 5}});
            if (c.map.empty() && c.lonLat.empty()) {
                LeftOut(StringPrintf("fault segment %zu (%s) of %s: %s", s + 1, f.name.c_str(),
                                     file.c_str(), c.why.c_str()));
                continue;
            }
            f.map = c.map;
            f.lonLat = c.lonLat;
            if (!f.map.empty() && !frame.Empty() && !frame.Meets(f.map)) {
                ++outside;
                f.map = {};
            }
            out.push_back(f);
        }
        if (outside > 0)
            LeftOut(StringPrintf("%s of %s: %s outside %s",
                                 Plural(outside, "fault segment", "fault segments").c_str(),
                                 file.c_str(), outside == 1 ? "it lies" : "they lie",
                                 outerLabel.c_str()));
    }
}

int ChooseOuter(const QuorXmlParameter& project, const OverviewOptions& o) {
    if (project.Regions.empty())
        throw PrepError(o.project + " has no region: there is nothing to draw");
    if (o.region != 0) {
        if (!project.Regions.count(o.region)) {
            std::string numbers;
            for (const auto& [number, record] : project.Regions)
                numbers += (numbers.empty() ? "" : ", ") + std::to_string(number);
            throw PrepError(StringPrintf("%s has no region %d (its regions are %s)",
                                         o.project.c_str(), o.region, numbers.c_str()));
        }
        return o.region;
    }
    for (const auto& [number, record] : project.Regions)
        if (record.BaseRegionNo == 0)
            return number;
    Note(StringPrintf("no region of %s has BaseRegionNo 0: drawn around region %d",
                      o.project.c_str(), project.Regions.begin()->first));
    return project.Regions.begin()->first;
}

std::string Describe(const OverviewRegion& r) {
    std::string text = StringPrintf("EPSG %d, spacing %g%s, %d x %d cells", r.epsg, r.spacing,
                                    IsGeographic(r.epsg) ? "°" : " m", r.nx, r.ny);
    if (r.dt)
        text += StringPrintf(", time step %g s, CFL %.2f", *r.dt, *r.cfl);
    return text;
}

int Overview(const OverviewOptions& o) {
    if (o.output.empty() && o.gpkg.empty())
        throw PrepError("give -o PICTURE.png, --gpkg FILE.gpkg or both");
    if (!o.output.empty() && (o.width < kMinPictureWidth || o.width > kMaxPictureWidth))
        throw PrepError(StringPrintf("--width %d: give %d to %d pixels", o.width,
                                     kMinPictureWidth, kMaxPictureWidth));
    const QuorXmlParameter project = ReadProject(o.project);
    SetMapProjectionNotices(false);
    const int outerNo = ChooseOuter(project, o);
    const XML_REGION& outerRecord = project.Regions.at(outerNo);
    const std::string outerLabel = RegionLabel(outerRecord);
    const std::map<int, int> levels = DrawnLevels(project, outerNo, o.region != 0);
    ProjectGrids grids;
    // Declared after the grids, so it ends (waiting for the relief) before they go.
    std::future<ReliefImage> relief;
    ReadGrids(project, outerNo, grids, [&](const Region& g) {
        if (o.output.empty())
            return;
        OverviewScene outerOnly;
        const CellExtent e = CellExtentOf(g.org_x, g.org_y, g.gridSize, g.nx, g.ny);
        outerOnly.minX = e.minX;
        outerOnly.minY = e.minY;
        outerOnly.maxX = e.maxX;
        outerOnly.maxY = e.maxY;
        outerOnly.geographic = IsGeographic(outerRecord.EPSG);
        const MapFrame frame = LayOutMap(outerOnly, o.width);
        RegisterGdalOnce();
        relief = std::async(std::launch::async, [&g, frame, geographic = outerOnly.geographic] {
            return MakeRelief(g, frame, geographic);
        });
    });
    for (const auto& [number, why] : grids.unreadable)
        if (levels.count(number))
            LeftOut(RegionLabel(project.Regions.at(number)) + ": " + why);

    OverviewScene scene;
    scene.epsg = outerRecord.EPSG;
    scene.geographic = IsGeographic(scene.epsg);
    scene.title = project.ProjectName + ": " + outerLabel;
    Extent frame;
    const auto outerGrid = grids.readable.find(outerNo);
    std::optional<double> centreLon;
    if (outerGrid != grids.readable.end()) {
        const Region& g = outerGrid->second;
        const CellExtent e = CellExtentOf(g.org_x, g.org_y, g.gridSize, g.nx, g.ny);
        frame.Add(e.minX, e.minY);
        frame.Add(e.maxX, e.maxY);
        scene.relief = &g;
        centreLon = 0.5 * (e.minX + e.maxX);
    }

    // Regions, their nesting as the run checks it, and their time steps.
    Carrier carrier(scene.epsg, centreLon);
    for (const auto& [number, level] : levels) {
        const auto grid = grids.readable.find(number);
        if (grid == grids.readable.end())
            continue;
        const Region& g = grid->second;
        const XML_REGION& record = project.Regions.at(number);
        OverviewRegion r;
        r.number = number;
        r.name = record.RegionName;
        r.base = record.BaseRegionNo;
        r.epsg = record.EPSG;
        r.spacing = g.gridSize;
        r.nx = g.nx;
        r.ny = g.ny;
        r.level = level;
        const auto base = grids.readable.find(record.BaseRegionNo);
        if (number != outerNo && record.BaseRegionNo > 0 && base != grids.readable.end()) {
            const Region& b = base->second;
            r.refusedNesting =
                g.ComprisableReason(b.epsg, b.org_x, b.org_y, b.gridSize, b.nx, b.ny) != 0;
            if (r.refusedNesting)
                Note(RegionLabel(record) + " does not lie inside its base " +
                     RegionLabel(project.Regions.at(record.BaseRegionNo)) +
                     " as the run's nesting check sees it (the run stops with "
                     "\"ERROR:Comprisable:NG\"); drawn dashed");
        }
        const Carried c = carrier.Carry(r.epsg, CellEdgeRing(g));
        r.map = c.map;
        r.lonLat = c.lonLat;
        if (number != outerNo && r.map.empty())
            LeftOut(RegionLabel(record) + " from the picture: " + c.why);
        else if (number != outerNo && !frame.Empty() && !frame.Meets(r.map)) {
            LeftOut(RegionLabel(record) + ": it lies outside " + outerLabel);
            r.map = {};
        }
        scene.regions.push_back(std::move(r));
    }
    WorkOutSteps(project, grids, scene.regions);

    GatherPoints(project.StationPos, {"station", "stations", STATION_POINT, "ERROR:Read Station List File"},
                 grids.readable, carrier, frame, outerLabel, scene.stations);
    GatherPoints(project.ExtractPoints,
                 {"coastal point", "coastal points", EXTRACT_POINT, "ERROR:Read Extract Point File"},
                 grids.readable, carrier, frame, outerLabel, scene.coastalPoints);
    GatherFaults(project, carrier, frame, outerLabel, scene.faults);
    for (int epsg : carrier.Points().OutsideService())
        Note(OutsideServiceNote(epsg));

    if (frame.Empty()) {
        // No relief: the frame holds whatever else could be carried into the outer system.
        for (const OverviewRegion& r : scene.regions)
            for (std::size_t k = 0; k < r.map.x.size(); ++k)
                frame.Add(r.map.x[k], r.map.y[k]);
        for (const auto* points : {&scene.stations, &scene.coastalPoints})
            for (const OverviewPoint& p : *points)
                if (p.onMap)
                    frame.Add(p.mapX, p.mapY);
        for (const OverviewFault& f : scene.faults)
            for (std::size_t k = 0; k < f.map.x.size(); ++k)
                frame.Add(f.map.x[k], f.map.y[k]);
        if (frame.Empty())
            throw PrepError("nothing could be drawn: every part of " + o.project + " was left out");
        const double pad = 0.05 * std::max(frame.maxX - frame.minX, frame.maxY - frame.minY) +
                           (scene.geographic ? 0.01 : 1000.0);
        frame.Add(frame.minX - pad, frame.minY - pad);
        frame.Add(frame.maxX + pad, frame.maxY + pad);
    }
    scene.minX = frame.minX;
    scene.minY = frame.minY;
    scene.maxX = frame.maxX;
    scene.maxY = frame.maxY;
    const auto outer = std::find_if(scene.regions.begin(), scene.regions.end(),
                                    [&](const OverviewRegion& r) { return r.number == outerNo; });
    scene.subtitle = outer != scene.regions.end()
                         ? Describe(*outer)
                         : StringPrintf("EPSG %d; its grid is left out", scene.epsg);

    // The two files share only the finished scene, so the second core writes the
    // GeoPackage while the first draws.
    RegisterGdalOnce();
    std::future<void> gpkg;
    if (!o.gpkg.empty())
        gpkg = std::async(std::launch::async, [&] { WriteOverviewGeoPackage(o.gpkg, scene); });
    if (!o.output.empty()) {
        ReliefImage ready;
        if (relief.valid())
            ready = relief.get();
        WriteOverviewPicture(o.output, scene, o.width, ready.width > 0 ? &ready : nullptr);
    }
    if (gpkg.valid())
        gpkg.get();
    if (!o.quiet) {
        const auto count = [](const auto& items, auto&& shown) {
            return static_cast<std::size_t>(std::count_if(items.begin(), items.end(), shown));
        };
        const auto onMap = [](const auto& item) {
            if constexpr (std::is_same_v<std::decay_t<decltype(item)>, OverviewPoint>)
                return item.onMap;
            else
                return !item.map.empty();
        };
        const auto onLonLat = [](const auto& item) {
            if constexpr (std::is_same_v<std::decay_t<decltype(item)>, OverviewPoint>)
                return item.onLonLat;
            else
                return !item.lonLat.empty();
        };
        const auto contents = [&](auto&& shown) {
            return Plural(count(scene.stations, shown), "station", "stations") + ", " +
                   Plural(count(scene.coastalPoints, shown), "coastal point", "coastal points") +
                   ", " + Plural(count(scene.faults, shown), "fault segment", "fault segments");
        };
        if (!o.output.empty()) {
            const MapFrame f = LayOutMap(scene, o.width);
            const std::size_t nested =
                count(scene.regions, onMap) - (outer != scene.regions.end() && !outer->map.empty());
            std::printf("Wrote %s (%d x %d pixels): %s and %s nested in it, %s\n",
                        o.output.c_str(), f.pictureWidth, f.pictureHeight, outerLabel.c_str(),
                        Plural(nested, "region", "regions").c_str(), contents(onMap).c_str());
        }
        if (!o.gpkg.empty())
            std::printf("Wrote %s (EPSG 4326): %s, %s\n", o.gpkg.c_str(),
                        Plural(count(scene.regions, onLonLat), "region", "regions").c_str(),
                        contents(onLonLat).c_str());
    }
    return 0;
}

} // namespace

int RunOverview(const OverviewOptions& options) {
    return ReportingErrors("overview", [&] { return Overview(options); });
}
