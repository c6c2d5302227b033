#include "prep/CheckFindings.hpp"

#include "driver/ErrorCodes.hpp"
#include "prep/ProjectFiles.hpp"
#include "project/Console.hpp"
#include "projection/MapProjection.hpp"
#include "region/TimeSteps.hpp"

#include <proj.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <map>
#include <memory>

namespace {

struct ContextDeleter {
    void operator()(PJ_CONTEXT* c) const { proj_context_destroy(c); }
};
struct PjDeleter {
    void operator()(PJ* p) const { proj_destroy(p); }
};
using PjPtr = std::unique_ptr<PJ, PjDeleter>;

// What PROJ's database says of an EPSG code.
struct CrsFacts {
    bool geographic = false;
    std::string name;
    bool hasArea = false;
    double west = 0, south = 0, east = 0, north = 0; // degrees

    bool Holds(double lon, double lat) const {
        return hasArea && lon >= west && lon <= east && lat >= south && lat <= north;
    }
};

std::optional<CrsFacts> LookUp(int epsg) {
    static const std::unique_ptr<PJ_CONTEXT, ContextDeleter> ctx = [] {
        std::unique_ptr<PJ_CONTEXT, ContextDeleter> c(proj_context_create());
        proj_log_level(c.get(), PJ_LOG_NONE);
        return c;
    }();
    const std::string code = std::to_string(epsg);
    PjPtr crs(proj_create_from_database(ctx.get(), "EPSG", code.c_str(), PJ_CATEGORY_CRS, 0,
                                        nullptr));
    if (!crs)
        return std::nullopt;
    CrsFacts facts;
    const PJ_TYPE type = proj_get_type(crs.get());
    facts.geographic = type == PJ_TYPE_GEOGRAPHIC_2D_CRS || type == PJ_TYPE_GEOGRAPHIC_3D_CRS;
    if (const char* name = proj_get_name(crs.get()))
        facts.name = name;
    facts.hasArea = proj_get_area_of_use(ctx.get(), crs.get(), &facts.west, &facts.south,
                                         &facts.east, &facts.north, nullptr) != 0 &&
                    facts.west <= facts.east;
    return facts;
}

std::string Named(int epsg) {
    const std::optional<CrsFacts> facts = LookUp(epsg);
    return facts && !facts->name.empty() ? StringPrintf("EPSG %d (%s)", epsg, facts->name.c_str())
                                         : StringPrintf("EPSG %d", epsg);
}

// The run's longitude-latitude code for a place given in degrees: JGD2000 in Japan, else
// WGS 84.
int DegreesCodeFor(double lon, double lat) {
    const std::optional<CrsFacts> japan = LookUp(4612);
    return japan && japan->Holds(lon, lat) ? 4612 : 4326;
}

// The spacing in metres the run's time step works with for this region.
float RunSpacingMetres(const Region& t) {
    Region view = StepView(t);
    (void)view.TimeStepFailure(1.0, 0.0); // dxMeter is set before any reason but the first two
    return view.dxMeter;
}

bool LooksLikeDegrees(const CellExtent& e) {
    return e.minX >= -180 && e.maxX <= 360 && e.minY >= -90 && e.maxY <= 90;
}

// Edits that turn one name into the other, a swap of neighbours counting as one.
std::size_t EditDistance(const std::string& a, const std::string& b) {
    std::vector<std::vector<std::size_t>> d(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
    for (std::size_t i = 0; i <= a.size(); ++i)
        d[i][0] = i;
    for (std::size_t j = 0; j <= b.size(); ++j)
        d[0][j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i)
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const bool same = std::tolower(static_cast<unsigned char>(a[i - 1])) ==
                              std::tolower(static_cast<unsigned char>(b[j - 1]));
            d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + (same ? 0 : 1)});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
        }
    return d[a.size()][b.size()];
}

// The element a region's child `unknown` ("GridSise", "Topography/FileNmae") most likely
// stands for, or empty when it looks like none of them.
std::string MeantElement(const std::string& unknown) {
    static const char* kRegionChildren[] = {
        "RegionNo",   "RegionName",           "BaseRegionNo", "EPSG",
        "GridSize",   "NonLinearTerm",        "DispersiveTerm", "Topography",
        "RoughnessCoefficient", "WaveHeight", "ConstructionLineData", "LandMap"};
    static const char* kFileChildren[] = {"FileName", "UniformValue"};
    const std::size_t slash = unknown.find('/');
    const std::string parent = slash == std::string::npos ? "" : unknown.substr(0, slash + 1);
    const std::string leaf = slash == std::string::npos ? unknown : unknown.substr(slash + 1);
    std::string best;
    std::size_t bestDistance = std::numeric_limits<std::size_t>::max();
    const auto consider = [&](const char* known) {
        const std::size_t d = EditDistance(leaf, known);
        if (d < bestDistance) {
            bestDistance = d;
            best = known;
        }
    };
    if (parent.empty())
        std::for_each(std::begin(kRegionChildren), std::end(kRegionChildren), consider);
    else
        std::for_each(std::begin(kFileChildren), std::end(kFileChildren), consider);
    // Two slips in a name of eight letters or more, one in a shorter one.
    const std::size_t allowed = best.size() >= 8 ? 2 : 1;
    return bestDistance <= allowed ? parent + best : std::string();
}

std::string Tag(const std::string& path) {
    std::string tags;
    std::size_t from = 0;
    for (std::size_t slash; (slash = path.find('/', from)) != std::string::npos; from = slash + 1)
        tags += "<" + path.substr(from, slash - from) + ">/";
    return tags + "<" + path.substr(from) + ">";
}

} // namespace

std::string RunStops(int code) { return " (the run stops with \"" + CodeMessage(code) + "\")"; }

Region StepView(const Region& t) {
    Region view;
    view.type = t.type;
    view.regionName = t.regionName;
    view.regionNo = t.regionNo;
    view.baseRegionNo = t.baseRegionNo;
    view.epsg = t.epsg;
    view.coordType = t.coordType;
    view.gridSize = t.gridSize;
    view.nx = t.nx;
    view.ny = t.ny;
    view.org_x = t.org_x;
    view.org_y = t.org_y;
    view.valMin = t.valMin;
    view.valMax = t.valMax;
    return view;
}

std::optional<int> CheckRegionElements(Report& report, const QuorXmlParameter& project, int rule) {
    static const char* kRuleElement[] = {"RegionNo", "RegionName", "BaseRegionNo", "GridSize",
                                         "Topography/FileName"};
    std::optional<int> broken;
    if (rule >= 10 && rule <= 14) {
        // The run's own rule finds the region: alone in a copy of the project, it breaks it.
        for (const auto& [regionNo, rec] : project.Regions) {
            QuorXmlParameter alone = project;
            alone.Regions = {{regionNo, rec}};
            if (alone.checkXMLRule() != rule)
                continue;
            broken = regionNo;
            const std::string wanted = kRuleElement[rule - 10];
            std::string message =
                rec.RegionNo >= 1 || rec.RegionName.empty()
                    ? "the region concerned is " + RegionLabel(rec)
                    : "the region concerned is " + rec.RegionName + " (its RegionNo is " +
                          std::to_string(rec.RegionNo) + ")";
            for (const std::string& unknown : rec.UnknownElements)
                if (MeantElement(unknown) == wanted) {
                    message += "; it holds " + Tag(unknown) + ", which the run passes over: "
                               "write " + Tag(wanted);
                    break;
                }
            report.Add(Level::Error, rec.RegionNo, message + RunStops(1));
            break;
        }
    }
    for (const auto& [regionNo, rec] : project.Regions) {
        if (broken && *broken == regionNo)
            continue;
        for (const std::string& unknown : rec.UnknownElements) {
            const std::string meant = MeantElement(unknown);
            if (!meant.empty())
                report.Add(Level::Warning, rec.RegionNo,
                           StringPrintf("%s: the run passes over %s, an element it does not know; "
                                        "write %s if that is meant",
                                        RegionLabel(rec).c_str(), Tag(unknown).c_str(),
                                        Tag(meant).c_str()));
        }
    }
    return broken;
}

void CheckSystem(Report& report, const RegionReport& r) {
    const Region& t = *r.topography;
    const std::string label = RegionLabel(r.record);
    const CellExtent e = CellExtentOf(t.org_x, t.org_y, t.gridSize, t.nx, t.ny);
    const double metres = RunSpacingMetres(t);
    const double midX = 0.5 * (e.minX + e.maxX);
    const double midY = 0.5 * (e.minY + e.maxY);
    if (IsGeographic(t.epsg)) {
        std::vector<std::string> wrong;
        if (!(t.gridSize < 1.0))
            wrong.push_back(StringPrintf("its spacing %.10g", t.gridSize));
        if (!(e.minY >= -90))
            wrong.push_back(StringPrintf("its cell edges down to latitude %.10g", e.minY));
        else if (!(e.maxY <= 90))
            wrong.push_back(StringPrintf("its cell edges up to latitude %.10g", e.maxY));
        if (!(e.minX >= -180))
            wrong.push_back(StringPrintf("its cell edges west to longitude %.10g", e.minX));
        else if (!(e.maxX <= 360))
            wrong.push_back(StringPrintf("its cell edges east to longitude %.10g", e.maxX));
        if (wrong.empty())
            return;
        std::string what = wrong[0];
        for (std::size_t k = 1; k < wrong.size(); ++k)
            what += (k + 1 == wrong.size() ? " and " : ", ") + wrong[k];
        const std::string fix =
            t.gridSize < 1.0
                ? std::string("Check the grid's origin: longitude first, then latitude")
                : StringPrintf("In degrees a spacing is under 1 (%.10g m is about %.4g degrees "
                               "of latitude); a grid in metres needs a plane system's code",
                               t.gridSize, t.gridSize / 111320.0);
        report.Add(Level::Warning, r.record.RegionNo,
                   StringPrintf("%s: EPSG %d is longitude and latitude in degrees, but %s cannot "
                                "be degrees; the run works with cells of %.6g m. %s",
                                label.c_str(), t.epsg, what.c_str(), metres, fix.c_str()));
        return;
    }
    const std::optional<CrsFacts> facts = LookUp(t.epsg);
    if (facts && facts->geographic) {
        report.Add(Level::Warning, r.record.RegionNo,
                   StringPrintf("%s: %s is longitude and latitude in degrees, but the run reads "
                                "every code other than 4326 and 4612 as plane metres: it takes "
                                "the spacing %.10g as %.6g m. Use EPSG %d for a grid in degrees%s",
                                label.c_str(), Named(t.epsg).c_str(), t.gridSize, metres,
                                DegreesCodeFor(midX, midY),
                                LooksLikeDegrees(e) ? "" : ", a plane system's code for one in metres"));
        return;
    }
    if (t.gridSize < 1.0 && LooksLikeDegrees(e)) {
        report.Add(Level::Warning, r.record.RegionNo,
                   StringPrintf("%s: %s is a plane system in metres, but its spacing %.10g and "
                                "cell edges %.10g .. %.10g, %.10g .. %.10g look like degrees; the "
                                "run works with cells of %.6g m. Use EPSG %d for a grid in "
                                "degrees",
                                label.c_str(), Named(t.epsg).c_str(), t.gridSize, e.minX, e.maxX,
                                e.minY, e.maxY, metres, DegreesCodeFor(midX, midY)));
        return;
    }
    // JGD2000 plane rectangular zones: where the run's projection service puts the centre.
    constexpr int kFirstZone = 2443;
    constexpr int kLastZone = 2461;
    if (t.epsg < kFirstZone || t.epsg > kLastZone || !facts || !facts->hasArea)
        return;
    double lon = 0;
    double lat = 0;
    const std::int32_t one = 1;
    const bool converted = mapproject_initialize_using_epsg_(4612, t.epsg) != nullptr &&
                           xy2ll_(&one, &lon, &lat, &midX, &midY) == 0;
    mapproject_finalize_();
    if (!converted || facts->Holds(lon, lat))
        return;
    std::vector<int> covering;
    for (int zone = kFirstZone; zone <= kLastZone; ++zone)
        if (const std::optional<CrsFacts> other = LookUp(zone); other && other->Holds(lon, lat))
            covering.push_back(zone);
    std::string instead = "no JGD2000 zone covers it";
    for (std::size_t k = 0; k < covering.size(); ++k)
        instead = (k == 0 ? "" : instead + (k + 1 == covering.size() ? " or " : ", ")) +
                  Named(covering[k]);
    if (!covering.empty())
        instead += covering.size() == 1 ? " covers it: make the grid in that zone"
                                        : " cover it: make the grid in one of them";
    report.Add(Level::Warning, r.record.RegionNo,
               StringPrintf("%s: its centre lies at %.4f E, %.4f N, outside the area of use of "
                            "%s (%.4g .. %.4g E, %.4g .. %.4g N); %s",
                            label.c_str(), lon, lat, Named(t.epsg).c_str(), facts->west,
                            facts->east, facts->south, facts->north, instead.c_str()));
}

std::string OtherZonesAccepted(const Region& own, const Region& base) {
    constexpr int kFirstZone = 2443;
    constexpr int kLastZone = 2461;
    if (!IsGeographic(base.epsg) || own.epsg < kFirstZone || own.epsg > kLastZone)
        return {};
    Region other = StepView(own);
    std::string zones;
    for (int zone = kFirstZone; zone <= kLastZone; ++zone) {
        other.epsg = zone;
        if (zone != own.epsg &&
            other.ComprisableReason(base.epsg, base.org_x, base.org_y, base.gridSize, base.nx,
                                    base.ny) == 0)
            zones += (zones.empty() ? "" : " or ") + Named(zone);
    }
    return zones.empty() ? zones
                         : "; read in " + zones + " its corners are found: is its grid made in "
                                              "that zone?";
}

void CheckFileSpacing(Report& report, const RegionReport& r) {
    const Region& t = *r.topography;
    const double asked = r.record.GridSize;
    // The header holds a float: a GridSize that rounds to the same float agrees with it.
    if (!IsBinaryGridPath(t.inFileName) || !(asked > 0) ||
        static_cast<float>(asked) == static_cast<float>(t.fileGridSize))
        return;
    report.Add(Level::Warning, r.record.RegionNo,
               StringPrintf("%s: %s states a spacing of %.7g in its header where the project's "
                            "GridSize is %.10g; the run uses the file's %.7g. Set GridSize to "
                            "%.7g, or remake the grid at %.10g",
                            RegionLabel(r.record).c_str(), t.inFileName.c_str(), t.fileGridSize,
                            asked, t.fileGridSize, t.fileGridSize, asked));
}

void CheckDryRegion(Report& report, const RegionReport& r, int tideLevel) {
    const Region& t = *r.topography;
    const double* v = t.grid.Data();
    for (std::size_t c = 0, n = t.grid.ValueCount(); c < n; ++c)
        if (IsBelowTide(v[c], tideLevel))
            return;
    // Its wave speed comes from its lowest value: above zero it has none, and the
    // CFL number is NaN whatever the step handed in; then nothing allows a factor 3 either.
    const bool undefined = r.timeStep ? !std::isfinite(t.cfl) : t.valMin > 0;
    std::string outcome;
    if (undefined)
        outcome = StringPrintf("its CFL number is undefined (the run prints \"%s\"), so nothing "
                               "limits its time step and its time ratio falls back to 1",
                               r.timeStep ? StringPrintf("%.2f", t.cfl).c_str() : "-nan");
    else
        outcome = "its CFL number comes from cells above the tide level";
    report.Add(Level::Warning, r.record.RegionNo,
               StringPrintf("%s: no cell lies below the tide level (%g m; its lowest value is "
                            "%.10g): %s. Give it a grid that holds its sea (depths read as "
                            "heights? then `seaforge-prep grid --depth-positive`)",
                            RegionLabel(r.record).c_str(), tideLevel * 0.01, t.valMin,
                            outcome.c_str()));
}

double SuggestTimeIncrement(const std::map<int, Region>& topographies, double start,
                            double nestingCflLimit, double cflLimit) {
    const auto worstAt = [&](double increment) {
        std::map<int, Region> trial = topographies;
        if (WorkOutTimeSteps(trial, increment, nestingCflLimit, false).failed)
            return std::numeric_limits<double>::infinity();
        double worst = 0;
        for (const auto& [n, t] : trial)
            if (std::isfinite(t.cfl))
                worst = std::max(worst, t.cfl);
        return worst;
    };
    const auto unitOf = [](double v) { return std::pow(10.0, std::floor(std::log10(v)) - 3); };
    // Four significant digits rounded down, as the number reads back from its text: the
    // user types what is printed, so that is what must hold.
    const auto fourDown = [&](double v) {
        const double unit = unitOf(v);
        return std::strtod(StringPrintf("%.4g", std::floor(v / unit + 1e-6) * unit).c_str(), nullptr);
    };
    double suggestion = fourDown(start);
    for (int attempt = 0; attempt < 50 && suggestion > 0; ++attempt) {
        const double worst = worstAt(suggestion);
        if (worst <= cflLimit)
            break;
        // Scaled down, and always by at least one unit of the last digit.
        suggestion = std::min(fourDown(suggestion * cflLimit / worst),
                              fourDown(suggestion - unitOf(suggestion)));
    }
    return suggestion;
}
