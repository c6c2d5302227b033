#include "prep/BuildCommand.hpp"
#include "prep/GridCommand.hpp"
#include "prep/NestCommand.hpp"
#include "prep/Plan.hpp"

#include "prep/NestTestSupport.hpp"
#include "support/RunSeaforge.hpp"
#include "support/TempDir.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstring>
#include <filesystem>
#include <functional>
#include <regex>

namespace fs = std::filesystem;

namespace {

// A coast with a coarse source over the whole chain and a finer one near the site, and
// a fault off the coast.
struct Place {
    const char* name;
    double lon;
    double lat;
    int zone; // the JGD2000 plane system expected for the finer regions; 0 outside Japan
};

void WriteInputs(const TempDir& dir, const Place& p) {
    const Coast coast{p.lon, p.lat};
    coast.Write((dir.path() / "coarse.tif").string(), 0.01, -1.0, -1.0, 1.5, 1.0);
    coast.Write((dir.path() / "survey.tif").string(), 0.0005, -0.08, -0.08, 0.08, 0.08);
    char fault[200];
    std::snprintf(fault, sizeof fault,
                  "# lat lon depth unused strike dip rake length width slip name\n"
                  "%.3f %.3f 15000 0 190 15 90 40000 20000 4.0 \"Offshore\"\n",
                  p.lat + 0.1, p.lon + 0.5);
    dir.Write("fault.txt", fault);
    char stations[200];
    std::snprintf(stations, sizeof stations, "# lon lat name\n%.4f %.4f Mouth\n", p.lon + 0.01,
                  p.lat);
    dir.Write("stations.txt", stations);
    // Coastal points at sea along the coast, one in each of the three inner regions.
    char points[200];
    std::snprintf(points, sizeof points, "# lon lat name\n%.4f %.4f Bay\n%.4f %.4f Shelf\n%.4f %.4f Off\n",
                  p.lon + 0.005, p.lat, p.lon + 0.03, p.lat + 0.02, p.lon + 0.1, p.lat - 0.1);
    dir.Write("coast.txt", points);
}

NestOptions Options(const TempDir& dir, const Place& p, const std::string& out = "out") {
    NestOptions o;
    o.site = std::array<double, 2>{p.lon, p.lat};
    o.radius = "1km";
    o.finest = 30;
    o.levels = 4;
    o.name = "Coast";
    o.output = (dir.path() / out).string();
    o.fault = (dir.path() / "fault.txt").string();
    o.stations = (dir.path() / "stations.txt").string();
    o.coastPoints = (dir.path() / "coast.txt").string();
    o.sources = {(dir.path() / "coarse.tif").string(), (dir.path() / "survey.tif").string()};
    o.quiet = true;
    return o;
}

std::vector<double> CflNumbers(const std::string& console) {
    std::vector<double> numbers;
    const std::regex line(R"( CFL number : +([-0-9.naif]+))");
    for (auto m = std::sregex_iterator(console.begin(), console.end(), line);
         m != std::sregex_iterator(); ++m)
        numbers.push_back(std::stod((*m)[1]));
    return numbers;
}

const Place kHawaii{"Hawaii", -155.05, 19.72, 0};

// The plan alone, as --plan-only writes it; its path.
fs::path PlanOnly(const TempDir& dir, NestOptions o) {
    o.planOnly = true;
    EXPECT_EQ(RunNest(o), 0);
    return dir.path() / "out" / kPlanName;
}

class NestPlace : public testing::TestWithParam<Place> {};

// The whole way from a place to a run: the chain's systems and spacings, the project the
// run reads and completes with every nesting accepted and every CFL number within the
// limit, and check finding nothing.
TEST_P(NestPlace, ChainRunsAndChecksClean) {
    const Place& place = GetParam();
    TempDir dir;
    WriteInputs(dir, place);
    const Outcome nest = Captured([&] { return RunNest(Options(dir, place)); });
    const fs::path out = dir.path() / "out";
    EXPECT_EQ(nest.status, 0) << nest.err << Slurp(out / "Check.txt");

    const Plan plan = ReadPlan((out / kPlanName).string());
    ASSERT_EQ(plan.regions.size(), 4u);
    EXPECT_EQ(plan.regions[0].epsg, place.zone != 0 ? 4612 : 4326);
    for (std::size_t k = 1; k < plan.regions.size(); ++k) {
        const PlanRegion& r = plan.regions[k];
        const PlanRegion& base = plan.regions[k - 1];
        EXPECT_EQ(r.base, base.number);
        EXPECT_EQ(r.epsg, place.zone != 0 ? place.zone : 4326) << r.name;
        // Short decimals, never a rounded third: 0.0003, 0.0009, 90, 270.
        EXPECT_LE(ShortestDecimal(r.spacing).size(), 7u) << r.spacing;
        if (r.epsg == base.epsg) {
            EXPECT_NEAR(base.spacing, 3 * r.spacing, 1e-15 * base.spacing) << r.name;
        }
    }
    if (place.zone == 0) {
        // The area of interest with 10 finest cells to spare.
        const PlanRegion& finest = plan.regions.back();
        const double dLat = 1000 / 111195.0 + 10 * finest.spacing;
        EXPECT_LE(finest.bounds[1], place.lat - dLat);
        EXPECT_GE(finest.bounds[3], place.lat + dLat);
        EXPECT_LE(finest.bounds[0], place.lon - 10 * finest.spacing);
    }
    EXPECT_EQ(Slurp(out / "Plan.json").find(out.string()), std::string::npos)
        << "sources are named from the plan's folder";
    EXPECT_TRUE(fs::exists(out / "Overview.png"));
    EXPECT_TRUE(fs::exists(out / "Overview.gpkg"));
    EXPECT_NE(Slurp(out / "Check.txt").find("0 errors, 0 warnings"), std::string::npos)
        << Slurp(out / "Check.txt");

    EXPECT_TRUE(fs::exists(out / "stations.txt")) << "side files beside the project";
    const SeaforgeRun run = RunSeaforge(out, {"Coast.xml"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("FileName:stations"), std::string::npos) << "the project names the list";
    EXPECT_NE(run.out.find("FileName:coast"), std::string::npos) << "and the coastal points";
    // The station is fitted into the finest region, in Japan through a list in its plane
    // system.
    const std::string best = Slurp(out / "Coast" / "Calc" / "Dump1d_BEST.txt");
    EXPECT_EQ(Count(best, "\n"), 1u) << best;
    EXPECT_NE(best.find(", Mouth, 4\n"), std::string::npos) << best;
    EXPECT_EQ(fs::exists(out / ("stations_EPSG" + std::to_string(place.zone) + ".txt")),
              place.zone != 0);
    EXPECT_NE(run.out.find("Successful Completion."), std::string::npos);
    EXPECT_EQ(Count(run.out, "Comprisable:OK"), 3u);
    const std::vector<double> cfl = CflNumbers(run.out);
    ASSERT_EQ(cfl.size(), 4u) << run.out;
    for (double c : cfl)
        EXPECT_LE(c, 0.8);
}

INSTANTIATE_TEST_SUITE_P(Places, NestPlace,
                         testing::Values(Place{"Sanriku", 141.89, 39.27, 2452}, kHawaii),
                         [](const testing::TestParamInfo<Place>& place) {
                             return std::string(place.param.name);
                         });

TEST(NestBuild, PlanOnlyWritesThePlanAndBuildsNothing) {
    TempDir dir;
    WriteInputs(dir, kHawaii);
    NestOptions o = Options(dir, kHawaii);
    o.planOnly = true;
    o.quiet = false;
    const Outcome nest = Captured([&] { return RunNest(o); });
    EXPECT_EQ(nest.status, 0);
    const std::string& out = nest.out;
    EXPECT_EQ(Names(dir.path() / "out"), std::vector<std::string>{"Plan.json"});
    EXPECT_NE(out.find("every region is geographic (EPSG 4326)"), std::string::npos) << out;
    EXPECT_NE(out.find("  4  Site      4326  0.0003"), std::string::npos) << out;
    // The run's peak memory as the check will estimate it once the grids are made.
    const std::smatch estimate = [&] {
        std::smatch m;
        std::regex_search(out, m, std::regex("Estimated run: (peak memory about [0-9]+ MiB)\n"));
        return m;
    }();
    ASSERT_FALSE(estimate.empty()) << out;
    BuildOptions build;
    build.plan = (dir.path() / "out" / kPlanName).string();
    build.quiet = true;
    ASSERT_EQ(RunBuild(build), 0);
    EXPECT_NE(Slurp(dir.path() / "out" / "Check.txt").find("Estimated run: " + estimate.str(1)),
              std::string::npos)
        << estimate.str(1);
}

// The same inputs give the same bytes: plan, project and grids. Widening one region in the
// plan then rebuilds it and the region nested in it, nothing else.
TEST(NestBuild, DeterministicAndRebuildsOnlyWhatAnEditTouches) {
    TempDir dir;
    WriteInputs(dir, kHawaii);
    ASSERT_EQ(RunNest(Options(dir, kHawaii, "one")), 0);
    ASSERT_EQ(RunNest(Options(dir, kHawaii, "two")), 0);
    const std::vector<std::string> names = Names(dir.path() / "one");
    EXPECT_EQ(names, Names(dir.path() / "two"));
    int compared = 0;
    for (const std::string& name : names) {
        if (name == "Plan.json" || name == "Coast.xml" || name.rfind("Coast_", 0) == 0) {
            EXPECT_EQ(Slurp(dir.path() / "one" / name), Slurp(dir.path() / "two" / name)) << name;
            ++compared;
        }
    }
    EXPECT_EQ(compared, 6);

    const fs::path out = dir.path() / "one";
    Plan plan = ReadPlan((out / kPlanName).string());
    const auto age = [&] {
        for (const PlanRegion& r : plan.regions)
            fs::last_write_time(out / r.grid, fs::file_time_type(std::chrono::hours(24)));
    };
    const auto rebuilt = [&] {
        std::vector<int> numbers;
        for (const PlanRegion& r : plan.regions)
            if (fs::last_write_time(out / r.grid) != fs::file_time_type(std::chrono::hours(24)))
                numbers.push_back(r.number);
        return numbers;
    };
    age();
    BuildOptions build;
    build.plan = (out / kPlanName).string();
    build.json = true;
    const Outcome shown = Captured([&] { return RunBuild(build); });
    EXPECT_EQ(shown.status, 0);
    const std::string& table = shown.out;
    EXPECT_EQ(rebuilt(), std::vector<int>{});
    const nlohmann::json report = nlohmann::json::parse(Slurp(out / "Check.json"), nullptr, false);
    ASSERT_TRUE(report.is_object()) << "Check.json with --json";
    EXPECT_EQ(report["regions"].size(), 4u);
    // The table's jump column is the check's own measure of each nested boundary.
    int jumps = 0;
    for (const auto& region : report["regions"]) {
        if (!region.contains("boundary_jump_max"))
            continue;
        char row[64];
        std::snprintf(row, sizeof row, "%3d  %-8s", region["number"].get<int>(),
                      region["name"].get<std::string>().c_str());
        char jump[32];
        std::snprintf(jump, sizeof jump, " %.1f m\n", region["boundary_jump_max"].get<double>());
        const std::size_t at = table.find(row);
        ASSERT_NE(at, std::string::npos) << row << "\n" << table;
        const std::size_t end = table.find('\n', at) + 1;
        EXPECT_EQ(table.substr(at, end - at).rfind(jump), end - at - std::strlen(jump))
            << table.substr(at, end - at) << jump;
        ++jumps;
    }
    EXPECT_EQ(jumps, 3) << "every nested region's boundary";
    build.json = false;
    build.quiet = true;

    plan.regions[2].bounds[0] -= plan.regions[1].spacing;
    WritePlan((out / kPlanName).string(), plan);
    EXPECT_EQ(RunBuild(build), 0);
    EXPECT_EQ(rebuilt(), (std::vector<int>{3, 4}));
    EXPECT_EQ(ReadBack((out / plan.regions[2].grid).string(), plan.regions[2].spacing).nx, 105);
}

struct BadNest {
    const char* what;
    void (*change)(NestOptions&, const TempDir&);
    const char* message;
};

class NestRefuses : public testing::TestWithParam<BadNest> {};

// One line on standard error, status 1, and the output folder as it was.
TEST_P(NestRefuses, OneLineAndNothingWritten) {
    TempDir dir;
    WriteInputs(dir, kHawaii);
    NestOptions o = Options(dir, kHawaii);
    GetParam().change(o, dir);
    const bool existed = fs::exists(dir.path() / "out");
    const std::vector<std::string> before = existed ? Names(dir.path() / "out") : std::vector<std::string>{};
    const Outcome nest = Captured([&] { return RunNest(o); });
    const std::string& err = nest.err;
    EXPECT_EQ(nest.status, 1);
    EXPECT_EQ(Count(err, "\n"), 1u) << err;
    EXPECT_EQ(err.rfind("seaforge-prep: ", 0), 0u) << err;
    EXPECT_NE(err.find(GetParam().message), std::string::npos) << err;
    EXPECT_EQ(fs::exists(dir.path() / "out"), existed);
    if (existed) {
        EXPECT_EQ(Names(dir.path() / "out"), before);
    }
}

INSTANTIATE_TEST_SUITE_P(
    BadInput, NestRefuses,
    testing::Values(
        BadNest{"SiteOutsideEverySource",
                [](NestOptions& o, const TempDir&) { (*o.site)[0] += 5; },
                "lies outside every source"},
        BadNest{"FinestBelowHalfAMetre", [](NestOptions& o, const TempDir&) { o.finest = 0.4; },
                "at least 0.5 m"},
        BadNest{"FinestCoarserThanOuter",
                [](NestOptions& o, const TempDir&) { o.outerSpacing = 20; },
                "coarser than the outer spacing"},
        BadNest{"RatioBelowTwo", [](NestOptions& o, const TempDir&) { o.ratio = 1; },
                "--ratio must be 2 or more"},
        BadNest{"MissingSource",
                [](NestOptions& o, const TempDir& d) {
                    o.sources.push_back((d.path() / "missing.tif").string());
                },
                "missing.tif: GDAL cannot open it as a raster"},
        BadNest{"FolderOfAnotherProject",
                [](NestOptions&, const TempDir& d) { d.Write("out/Other.xml", "<Project/>"); },
                "holds files of another project"},
        BadNest{"FaultTheRunRefuses",
                [](NestOptions& o, const TempDir& d) {
                    o.fault = d.Write("bad-fault.txt", "39.1 142.4 15000\n");
                },
                "is not a fault segment"},
        BadNest{"NoFault", [](NestOptions& o, const TempDir&) { o.fault.clear(); },
                "the run needs a fault model"}),
    [](const testing::TestParamInfo<BadNest>& bad) { return std::string(bad.param.what); });

struct BadPlan {
    const char* what;
    void (*change)(Plan&);
    const char* message;
};

class BuildRefuses : public testing::TestWithParam<BadPlan> {};

// A plan edited into something the run would refuse writes no grid.
TEST_P(BuildRefuses, BeforeAnyGridIsWritten) {
    TempDir dir;
    WriteInputs(dir, kHawaii);
    const fs::path planPath = PlanOnly(dir, Options(dir, kHawaii));
    Plan plan = ReadPlan(planPath.string());
    GetParam().change(plan);
    WritePlan(planPath.string(), plan);
    BuildOptions build;
    build.plan = planPath.string();
    const Outcome refused = Captured([&] { return RunBuild(build); });
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(Count(refused.err, "\n"), 1u) << refused.err;
    EXPECT_NE(refused.err.find(GetParam().message), std::string::npos) << refused.err;
    EXPECT_EQ(Names(dir.path() / "out"), std::vector<std::string>{"Plan.json"});
}

INSTANTIATE_TEST_SUITE_P(
    BadPlan, BuildRefuses,
    testing::Values(
        BadPlan{"RegionOutsideItsBase",
                [](Plan& p) { p.regions[3].bounds[2] = p.regions[2].bounds[2] + 0.01; },
                "does not lie inside its base region 3 (Nest2)"},
        BadPlan{"SpacingNotDividingTheBase",
                [](Plan& p) { p.regions[3].spacing = 0.0004; }, "not a whole multiple"},
        BadPlan{"MissingSource",
                [](Plan& p) { p.regions[1].sources[0].path = "nowhere.tif"; }, "missing"},
        BadPlan{"SystemTheRunDoesNotKnow", [](Plan& p) { p.regions[3].epsg = 3857; },
                "not a system the run's projection service knows"},
        BadPlan{"KeepMarkersForOneSourceOfTwo",
                [](Plan& p) { p.regions[2].sources[1].keepMarkers = true; },
                "--keep-markers for all of a region's sources or none"},
        BadPlan{"SourceSystemGdalDoesNotKnow",
                [](Plan& p) { p.regions[0].sources[0].srs = "EPSG:99999"; },
                "is not one GDAL knows"}),
    [](const testing::TestParamInfo<BadPlan>& bad) { return std::string(bad.param.what); });

// The command line reaches the same code: the table on standard output, the plan written.
TEST(NestBuild, CommandLinePlanOnly) {
    TempDir dir;
    WriteInputs(dir, kHawaii);
    const SeaforgeRun run = RunProgram(
        SEAFORGE_PREP_BINARY, dir.path(),
        {"nest", "--site", "-155.05", "19.72", "--radius", "1km", "--finest", "30", "--levels",
         "4", "--fault", "fault.txt", "-o", "Hilo", "--plan-only", "coarse.tif", "survey.tif",
         "--source-srs", "4326", "--nodata-source", "2", "nan", "--z-scale-source", "1", "1",
         "--keep-markers"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("TimeIncrement"), std::string::npos) << run.out;
    const Plan plan = ReadPlan((dir.path() / "Hilo" / kPlanName).string());
    EXPECT_EQ(plan.name, "Hilo");
    const std::vector<PlanSource>& sources = plan.regions[0].sources;
    EXPECT_TRUE(sources[0].srs == "4326" && sources[1].srs == "4326");
    EXPECT_TRUE(!sources[0].noData && sources[1].noData && std::isnan(*sources[1].noData));
    EXPECT_TRUE(sources[0].zScale == 1.0 && !sources[1].zScale);
    EXPECT_TRUE(sources[0].keepMarkers && sources[1].keepMarkers);
    const SeaforgeRun mistyped = RunProgram(
        SEAFORGE_PREP_BINARY, dir.path(),
        {"nest", "--site", "-155.05", "19.72", "--finest", "30", "-o", "x", "--nodata-source",
         "1", "-99x", "coarse.tif"});
    EXPECT_EQ(mistyped.status, 1);
    EXPECT_EQ(mistyped.err, "seaforge-prep: --nodata-source 1 -99x: give the source's number (1 "
                            "= the first) and a number\n");
    const SeaforgeRun bad = RunProgram(SEAFORGE_PREP_BINARY, dir.path(),
                                       {"nest", "--site", "-155.05", "19.72", "--finest", "30",
                                        "--radius", "3 miles", "-o", "x", "coarse.tif"});
    EXPECT_EQ(bad.status, 1);
    EXPECT_EQ(bad.err, "seaforge-prep: --radius takes a distance such as 3km, 500m or 800 "
                       "(metres), not \"3 miles\"\n");
}

// --area gives the area of interest itself: the finest region holds it with 10 of its
// cells to spare on every side.
TEST(NestBuild, AreaHeldByTheFinestRegion) {
    TempDir dir;
    WriteInputs(dir, kHawaii);
    NestOptions o = Options(dir, kHawaii);
    o.site.reset();
    const Bounds area = {-155.06, 19.71, -155.03, 19.73};
    o.area = area;
    const Plan plan = ReadPlan(PlanOnly(dir, o).string());
    const PlanRegion& finest = plan.regions.back();
    const double spare = 10 * finest.spacing - 1e-9;
    EXPECT_LE(finest.bounds[0], area[0] - spare);
    EXPECT_LE(finest.bounds[1], area[1] - spare);
    EXPECT_GE(finest.bounds[2], area[2] + spare);
    EXPECT_GE(finest.bounds[3], area[3] + spare);
    EXPECT_EQ(*plan.design.area, area);
    EXPECT_FALSE(plan.design.site.has_value());
}

// Each source option reaches the planner and the grid command alike: a source that needs
// it, given it, gives the same plan regions and the same grids as plain elevations, and
// the plan records it for that source.
TEST(NestBuild, SourceOptionsGiveTheSameGrids) {
    TempDir dir;
    WriteInputs(dir, kHawaii);
    const Coast coast{kHawaii.lon, kHawaii.lat};
    ASSERT_EQ(RunNest(Options(dir, kHawaii, "heights")), 0);
    const Plan heights = ReadPlan((dir.path() / "heights" / kPlanName).string());
    // The coarse source again, as `layout` and `description` say, its values mapped.
    const auto coarse = [&](const char* name, RasterLayout layout,
                            const RasterDescription& description, double (*map)(double)) {
        layout.nx = 250;
        layout.ny = 200;
        layout.transform = {coast.lon - 1.0, 0.01, 0, coast.lat + 1.0, 0, -0.01};
        const std::string path = (dir.path() / name).string();
        MakeDescribedRaster(path, layout, description, [&](int c, int l) {
            return map(coast.Elevation(coast.lon - 1.0 + (c + 0.5) * 0.01,
                                       coast.lat + 1.0 - (l + 0.5) * 0.01));
        });
        return path;
    };
    RasterLayout netCdf;
    netCdf.driver = "netCDF";
    RasterLayout gmt = netCdf;
    gmt.epsg = 0; // as GMT writes a grid: x and y in degrees, no coordinate system
    const auto same = [](double v) { return v; };
    const auto negated = [](double v) { return -v; };
    const auto doubled = [](double v) { return 2 * v; };
    struct Case {
        const char* what;
        std::string source;
        std::function<void(NestOptions&)> options;
        std::function<bool(const PlanSource&)> recorded;
    };
    const Case cases[] = {
        {"depths named by option", coarse("depths.tif", {}, {}, negated),
         [](NestOptions& o) { o.depthPositiveSources = {1}; },
         [](const PlanSource& s) { return s.depthPositive; }},
        {"depths named by positive = down", coarse("down.nc", netCdf, {"", {{"positive", "down"}}}, negated),
         [](NestOptions&) {}, [](const PlanSource& s) { return !s.depthPositive; }},
        {"no coordinate system, --source-srs", coarse("gmt.nc", gmt, {}, same),
         [](NestOptions& o) { o.sourceSrs = "4326"; },
         [](const PlanSource& s) { return s.srs == "4326"; }},
        {"no coordinate system, --srs-source", coarse("gmt.nc", gmt, {}, same),
         [](NestOptions& o) { o.sourceSrsFor = {{1, "EPSG:4326"}}; },
         [](const PlanSource& s) { return s.srs == "EPSG:4326"; }},
        {"half metres, --z-scale-source", coarse("doubled.tif", {}, {}, doubled),
         [](NestOptions& o) { o.zScaleFor = {{1, 0.5}}; },
         [](const PlanSource& s) { return s.zScale == 0.5; }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        NestOptions o = Options(dir, kHawaii, "variant");
        o.force = true;
        o.sources[0] = c.source;
        c.options(o);
        const Outcome nest = Captured([&] { return RunNest(o); });
        ASSERT_EQ(nest.status, 0) << nest.err;
        const Plan plan = ReadPlan((dir.path() / "variant" / kPlanName).string());
        ASSERT_EQ(plan.regions.size(), heights.regions.size());
        for (std::size_t k = 0; k < plan.regions.size(); ++k) {
            const PlanRegion& r = plan.regions[k];
            EXPECT_EQ(r.bounds, heights.regions[k].bounds) << r.name;
            EXPECT_TRUE(c.recorded(r.sources[0])) << r.name;
            ASSERT_TRUE(fs::exists(dir.path() / "variant" / r.grid)) << r.name;
            EXPECT_TRUE(Slurp(dir.path() / "variant" / r.grid) ==
                        Slurp(dir.path() / "heights" / r.grid))
                << r.name;
        }
        fs::remove_all(dir.path() / "variant");
    }
}

// A source without a nodata tag holding -9999 where the planner reads it is refused by
// nest with the grid command's own line, before anything is written, and taken once the
// marker is named; the plan keeps the name for the grids.
TEST(NestBuild, UntaggedMarkerRefusedAsTheGridRefusesIt) {
    TempDir dir;
    WriteInputs(dir, kHawaii);
    const Coast coast{kHawaii.lon, kHawaii.lat};
    coast.Write((dir.path() / "survey.tif").string(), 0.0005, -0.08, -0.08, 0.08, 0.08,
                [](int c, int l, double v) { return c == 40 && l == 100 ? -9999.0 : v; });
    // What the grid command says of it, where its grid reads the marker.
    GridOptions grid;
    grid.epsg = 4326;
    grid.spacing = 0.0005;
    grid.bounds = Bounds{coast.lon - 0.07, coast.lat + 0.02, coast.lon - 0.05, coast.lat + 0.04};
    grid.output = (dir.path() / "grid.txt").string();
    grid.sources = Options(dir, kHawaii).sources;
    grid.quiet = true;
    const Outcome gridRefusal = Captured([&] { return RunGrid(grid); });
    ASSERT_EQ(gridRefusal.status, 1);
    const std::string& refusal = gridRefusal.err;
    ASSERT_NE(refusal.find("--nodata-source 2 -9999"), std::string::npos) << refusal;

    for (const bool planOnly : {true, false}) {
        NestOptions o = Options(dir, kHawaii);
        o.planOnly = planOnly;
        const Outcome refused = Captured([&] { return RunNest(o); });
        EXPECT_EQ(refused.status, 1);
        EXPECT_EQ(refused.err, refusal) << planOnly;
        EXPECT_FALSE(fs::exists(dir.path() / "out"));
    }
    NestOptions o = Options(dir, kHawaii);
    o.sourceNoData = -9999;
    const Outcome taken = Captured([&] { return RunNest(o); });
    EXPECT_EQ(taken.status, 0) << taken.err << Slurp(dir.path() / "out" / "Check.txt");
    const Plan plan = ReadPlan((dir.path() / "out" / kPlanName).string());
    for (const PlanRegion& r : plan.regions)
        for (const PlanSource& s : r.sources)
            EXPECT_EQ(s.noData, -9999.0) << r.name << " " << s.path;
}

} // namespace
