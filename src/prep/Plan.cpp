#include "prep/Plan.hpp"

#include "prep/AtomicFile.hpp"
#include "prep/PrepError.hpp"
#include "project/Console.hpp"

#include <nlohmann/json.hpp>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <limits>
#include <set>

namespace {

using Json = nlohmann::ordered_json;

// The keys the plan's reader knows; others in a source are kept for later, anywhere else
// they are a mistake worth naming.
const std::set<std::string> kSourceKeys = {"path",   "depth_positive", "resampling", "source_srs",
                                           "nodata", "z_scale",        "keep_markers"};

Json BoundsJson(const Bounds& b) { return Json::array({b[0], b[1], b[2], b[3]}); }

// Reading one value with the place it came from in every message.
class Reader {
  public:
    explicit Reader(std::string file) : file_(std::move(file)) {}

    [[noreturn]] void Fail(const std::string& where, const std::string& what) const {
        throw PrepError(file_ + ": " + (where.empty() ? "" : where + ": ") + what);
    }
    const Json& Need(const Json& object, const char* key, const std::string& where) const {
        if (!object.is_object() || !object.contains(key))
            Fail(where, std::string("\"") + key + "\" is missing");
        return object.at(key);
    }
    double Number(const Json& value, const std::string& where) const {
        if (!value.is_number() || !std::isfinite(value.get<double>()))
            Fail(where, "a number is expected");
        return value.get<double>();
    }
    int Integer(const Json& value, const std::string& where) const {
        if (!value.is_number_integer())
            Fail(where, "a whole number is expected");
        return value.get<int>();
    }
    std::string Text(const Json& value, const std::string& where) const {
        if (!value.is_string())
            Fail(where, "a text is expected");
        return value.get<std::string>();
    }
    Bounds Box(const Json& value, const std::string& where) const {
        if (!value.is_array() || value.size() != 4)
            Fail(where, "four numbers are expected: xmin ymin xmax ymax");
        Bounds b{};
        for (std::size_t k = 0; k < 4; ++k)
            b[k] = Number(value[k], where);
        if (!(b[2] > b[0]) || !(b[3] > b[1]))
            Fail(where, "the box is empty or reversed (xmin ymin xmax ymax)");
        return b;
    }
    double Optional(const Json& object, const char* key, double fallback,
                    const std::string& where) const {
        return object.contains(key) ? Number(object.at(key), where + "." + key) : fallback;
    }
    int OptionalInteger(const Json& object, const char* key, int fallback, int least,
                        int most, const std::string& where) const {
        if (!object.contains(key))
            return fallback;
        const Json& v = object.at(key);
        if (!v.is_number_integer() || v.get<std::int64_t>() < least || v.get<std::int64_t>() > most)
            Fail(where + "." + key, StringPrintf("a whole number from %d to %d is expected", least,
                                                 most));
        return v.get<int>();
    }
    std::string OptionalText(const Json& object, const char* key, const std::string& where) const {
        return object.contains(key) ? Text(object.at(key), where + "." + key) : std::string();
    }

  private:
    std::string file_;
};

PlanSource ReadSource(const Reader& in, const Json& value, const std::string& where) {
    PlanSource s;
    if (value.is_string()) {
        s.path = value.get<std::string>();
        return s;
    }
    s.path = in.Text(in.Need(value, "path", where), where + ".path");
    if (value.contains("depth_positive")) {
        if (!value.at("depth_positive").is_boolean())
            in.Fail(where + ".depth_positive", "true or false is expected");
        s.depthPositive = value.at("depth_positive").get<bool>();
    }
    s.resampling = in.OptionalText(value, "resampling", where);
    s.srs = in.OptionalText(value, "source_srs", where);
    if (value.contains("nodata")) {
        const Json& v = value.at("nodata");
        if (v.is_string() && (v == "nan" || v == "NaN"))
            s.noData = std::numeric_limits<double>::quiet_NaN();
        else
            s.noData = in.Number(v, where + ".nodata (a number or \"nan\")");
    }
    if (value.contains("z_scale")) {
        s.zScale = in.Number(value.at("z_scale"), where + ".z_scale");
        if (*s.zScale == 0)
            in.Fail(where + ".z_scale", "a factor other than 0 is expected");
    }
    if (value.contains("keep_markers")) {
        if (!value.at("keep_markers").is_boolean())
            in.Fail(where + ".keep_markers", "true or false is expected");
        s.keepMarkers = value.at("keep_markers").get<bool>();
    }
    for (const auto& [key, v] : value.items())
        if (kSourceKeys.count(key) == 0)
            s.pending.emplace_back(key, v.dump());
    if (s.path.empty())
        in.Fail(where + ".path", "the source's path is empty");
    return s;
}

Json SourceJson(const PlanSource& s) {
    if (!s.depthPositive && s.resampling.empty() && s.srs.empty() && !s.noData && !s.zScale &&
        !s.keepMarkers && s.pending.empty())
        return s.path;
    Json out = {{"path", s.path}};
    if (s.depthPositive)
        out["depth_positive"] = true;
    if (!s.resampling.empty())
        out["resampling"] = s.resampling;
    if (!s.srs.empty())
        out["source_srs"] = s.srs;
    if (s.noData)
        out["nodata"] = std::isnan(*s.noData) ? Json("nan") : Json(*s.noData);
    if (s.zScale)
        out["z_scale"] = *s.zScale;
    if (s.keepMarkers)
        out["keep_markers"] = true;
    for (const auto& [key, text] : s.pending)
        out[key] = Json::parse(text);
    return out;
}

} // namespace

WarpSource AsWarpSource(const PlanSource& s, const std::string& path) {
    WarpSource w;
    w.path = path;
    w.depthPositive = s.depthPositive;
    w.srs = s.srs;
    w.noData = s.noData;
    w.zScale = s.zScale;
    w.keepMarkers = s.keepMarkers;
    return w;
}

std::string ShortestDecimal(double value) {
    for (int decimals = 0; decimals <= 20; ++decimals) {
        const std::string text = StringPrintf("%.*f", decimals, value);
        if (std::strtod(text.c_str(), nullptr) == value)
            return text;
    }
    return StringPrintf("%.17g", value);
}

std::string PlanText(const Plan& p) {
    Json out;
    out["name"] = p.name;
    out["total_time"] = p.totalTime;
    out["cfl"] = p.cfl;
    out["time_increment"] = p.timeIncrement ? Json(*p.timeIncrement) : Json("auto");
    out["fault"] = p.fault;
    if (!p.stations.empty())
        out["stations"] = p.stations;
    if (!p.coastPoints.empty())
        out["coast_points"] = p.coastPoints;
    Json design;
    if (p.design.site) {
        design["site"] = {(*p.design.site)[0], (*p.design.site)[1]};
        design["radius"] = p.design.radius;
    }
    if (p.design.area)
        design["area"] = BoundsJson(*p.design.area);
    design["finest"] = p.design.finest;
    design["ratio"] = p.design.ratio;
    if (p.design.levels > 0)
        design["levels"] = p.design.levels;
    if (p.design.outerSpacing > 0)
        design["outer_spacing"] = p.design.outerSpacing;
    design["margin"] = p.design.margin;
    design["max_cells"] = p.design.maxCells;
    design["outer_depth"] = p.design.outerDepth;
    out["design"] = design;
    out["regions"] = Json::array();
    for (const PlanRegion& r : p.regions) {
        Json region = {{"number", r.number}, {"name", r.name},   {"base", r.base},
                       {"epsg", r.epsg},     {"spacing", r.spacing}, {"bounds", BoundsJson(r.bounds)},
                       {"grid", r.grid}};
        region["sources"] = Json::array();
        for (const PlanSource& s : r.sources)
            region["sources"].push_back(SourceJson(s));
        out["regions"].push_back(region);
    }
    return out.dump(2) + "\n";
}

void WritePlan(const std::string& path, const Plan& plan) {
    const std::string text = PlanText(plan);
    WriteFileAtomically(path, [&](std::FILE* file) {
        return std::fwrite(text.data(), 1, text.size(), file) == text.size();
    });
}

Plan ReadPlan(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    if (!stream)
        throw PrepError("cannot open the plan " + path);
    const std::string text((std::istreambuf_iterator<char>(stream)), {});
    Json root = Json::parse(text, nullptr, false);
    const Reader in(path);
    if (root.is_discarded())
        in.Fail("", "not valid JSON");
    if (!root.is_object())
        in.Fail("", "a JSON object is expected");
    Plan p;
    p.name = in.Text(in.Need(root, "name", ""), "name");
    if (p.name.empty() || p.name.find('/') != std::string::npos)
        in.Fail("name", "a project name without \"/\" is expected");
    p.totalTime = in.Optional(root, "total_time", p.totalTime, "");
    p.cfl = in.Optional(root, "cfl", p.cfl, "");
    if (!(p.cfl > 0) || p.cfl > 1)
        in.Fail("cfl", "the CFL limit must lie in 0 .. 1 (the run refuses others)");
    if (root.contains("time_increment") && !root.at("time_increment").is_string())
        p.timeIncrement = in.Number(root.at("time_increment"), "time_increment");
    else if (root.contains("time_increment") && root.at("time_increment") != "auto")
        in.Fail("time_increment", "a number of seconds or \"auto\" is expected");
    if (p.timeIncrement && !(*p.timeIncrement > 0))
        in.Fail("time_increment", "the time increment must be positive");
    p.fault = in.OptionalText(root, "fault", "");
    p.stations = in.OptionalText(root, "stations", "");
    p.coastPoints = in.OptionalText(root, "coast_points", "");
    if (root.contains("design")) {
        const Json& d = root.at("design");
        if (d.contains("site")) {
            const Json& s = d.at("site");
            if (!s.is_array() || s.size() != 2)
                in.Fail("design.site", "longitude and latitude are expected");
            p.design.site = std::array<double, 2>{in.Number(s[0], "design.site"),
                                                  in.Number(s[1], "design.site")};
        }
        p.design.radius = in.Optional(d, "radius", 0, "design");
        if (d.contains("area"))
            p.design.area = in.Box(d.at("area"), "design.area");
        p.design.finest = in.Optional(d, "finest", 0, "design");
        p.design.ratio = in.OptionalInteger(d, "ratio", 3, 2, 1000, "design");
        p.design.levels = in.OptionalInteger(d, "levels", 0, 0, 12, "design");
        p.design.outerSpacing = in.Optional(d, "outer_spacing", 0, "design");
        p.design.margin = in.OptionalInteger(d, "margin", 10, 0, 1000000, "design");
        p.design.maxCells = in.Optional(d, "max_cells", 25e6, "design");
        p.design.outerDepth = in.Optional(d, "outer_depth", 200, "design");
    }
    const Json& regions = in.Need(root, "regions", "");
    if (!regions.is_array() || regions.empty())
        in.Fail("regions", "a list of at least one region is expected");
    std::set<int> numbers;
    std::set<std::string> grids;
    for (std::size_t k = 0; k < regions.size(); ++k) {
        const Json& v = regions[k];
        const std::string where = StringPrintf("regions[%zu]", k);
        PlanRegion r;
        r.number = in.Integer(in.Need(v, "number", where), where + ".number");
        r.name = in.Text(in.Need(v, "name", where), where + ".name");
        r.base = in.Integer(in.Need(v, "base", where), where + ".base");
        r.epsg = in.Integer(in.Need(v, "epsg", where), where + ".epsg");
        r.spacing = in.Number(in.Need(v, "spacing", where), where + ".spacing");
        r.bounds = in.Box(in.Need(v, "bounds", where), where + ".bounds");
        r.grid = in.Text(in.Need(v, "grid", where), where + ".grid");
        if (r.number < 1 || !numbers.insert(r.number).second)
            in.Fail(where + ".number", "region numbers must be positive and differ");
        if (r.name.empty())
            in.Fail(where + ".name", "a region needs a name");
        if (r.base != 0 && numbers.count(r.base) == 0)
            in.Fail(where + ".base", StringPrintf("base region %d is not listed before it "
                                                  "(list the regions outermost first)",
                                                  r.base));
        if (!(r.spacing > 0))
            in.Fail(where + ".spacing", "the spacing must be positive");
        if (r.grid.empty() || r.grid.find('/') != std::string::npos || !grids.insert(r.grid).second)
            in.Fail(where + ".grid", "a file name of its own, without \"/\", is expected");
        const Json& sources = in.Need(v, "sources", where);
        if (!sources.is_array() || sources.empty())
            in.Fail(where + ".sources", "at least one elevation source is expected");
        for (std::size_t s = 0; s < sources.size(); ++s)
            r.sources.push_back(ReadSource(in, sources[s], StringPrintf("%s.sources[%zu]",
                                                                         where.c_str(), s)));
        p.regions.push_back(std::move(r));
    }
    return p;
}
