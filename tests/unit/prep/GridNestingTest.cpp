#include "prep/GridCommand.hpp"

#include "prep/PrepTestSupport.hpp"
#include "support/RunSeaforge.hpp"
#include "support/TempDir.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

namespace {

// Geographic outer region 1, plane region 2 inside it (JGD2000 system IX), plane region 3
// inside region 2, as a modeller sets them up before any grid exists.
std::string Project(int bayEpsg = 2451, double harbourSpacing = 20) {
    return R"(<?xml version="1.0"?>
<Project>
  <ProjectName>Nest</ProjectName>
  <DestDir>out</DestDir>
  <CalcParameter>
    <InitialWaveHeightSetting>
      <FaultModel><FileName>fault.txt</FileName></FaultModel>
    </InitialWaveHeightSetting>
    <TsunamiCalcSetting><TotalTime>600</TotalTime><TimeIncrement>0.5</TimeIncrement></TsunamiCalcSetting>
    <Region>
      <RegionNo>1</RegionNo><RegionName>Outer</RegionName><BaseRegionNo>0</BaseRegionNo>
      <EPSG>4612</EPSG><GridSize>0.01</GridSize><Topography><FileName>outer.txt</FileName></Topography>
    </Region>
    <Region>
      <RegionNo>2</RegionNo><RegionName>Bay</RegionName><BaseRegionNo>1</BaseRegionNo>
      <EPSG>)" + std::to_string(bayEpsg) + R"(</EPSG><GridSize>100</GridSize><Topography><FileName>bay.bin</FileName></Topography>
    </Region>
    <Region>
      <RegionNo>3</RegionNo><RegionName>Harbour</RegionName><BaseRegionNo>2</BaseRegionNo>
      <EPSG>)" + std::to_string(bayEpsg) + R"(</EPSG><GridSize>)" + std::to_string(harbourSpacing) + R"(</GridSize>
      <Topography><FileName>harbour.bin</FileName></Topography>
    </Region>
  </CalcParameter>
</Project>
)";
}

// One GeoTIFF under the whole project: sea, deeper to the east, land in the north-west.
void WriteProject(const TempDir& dir, const std::string& project = Project()) {
    dir.Write("project.xml", project);
    dir.Write("fault.txt", "# lat lon depth unused strike dip rake length width slip name\n"
                           "35.0 139.9 5000 0 30 45 90 10000 5000 1.0 \"F1\"\n");
    RasterLayout dem;
    dem.nx = 200;
    dem.ny = 200;
    dem.transform = {139.5, 0.005, 0, 35.5, 0, -0.005};
    MakeRaster((dir.path() / "dem.tif").string(), dem,
               [](int c, int l) { return c + l < 60 ? 20.0 - (c + l) : -40.0 - 2.0 * c; });
}

const Bounds kOuter = {139.6, 34.6, 140.4, 35.4};
const Bounds kBay = {-10000, -100000, 20000, -80000};
const Bounds kHarbour = {1230, -95040, 6010, -90000};

std::vector<std::string> GridArgs(int region, const Bounds& b) {
    std::vector<std::string> args = {"grid", "project.xml", "--region", std::to_string(region),
                                     "--bounds"};
    for (double v : b)
        args.push_back(std::to_string(v));
    args.push_back("dem.tif");
    return args;
}

GridOptions InProject(const TempDir& dir, int region, const Bounds& bounds) {
    GridOptions o;
    o.project = (dir.path() / "project.xml").string();
    o.region = region;
    o.bounds = bounds;
    o.sources = {(dir.path() / "dem.tif").string()};
    o.quiet = true;
    return o;
}

// RunGrid from the test's directory, where the project's relative paths point.
std::pair<int, std::string> RunIn(const TempDir& dir, const GridOptions& o) {
    const std::filesystem::path back = std::filesystem::current_path();
    std::filesystem::current_path(dir.path());
    Outcome run = Captured([&] { return RunGrid(o); });
    std::filesystem::current_path(back);
    return {run.status, std::move(run.err)};
}

} // namespace

TEST(PrepGridNesting, ThreeRegionsBuiltFromOneGeoTiffRunToCompletion) {
    TempDir dir;
    WriteProject(dir);
    for (const auto& [region, bounds] : {std::pair{1, kOuter}, {2, kBay}, {3, kHarbour}}) {
        const SeaforgeRun prep = RunProgram(SEAFORGE_PREP_BINARY, dir.path(), GridArgs(region, bounds));
        ASSERT_EQ(prep.status, 0) << prep.err;
        EXPECT_EQ(prep.err, "");
    }
    const Region outer = ReadBack((dir.path() / "outer.txt").string(), 0.01);
    EXPECT_EQ(outer.nx, 80);
    EXPECT_EQ(outer.ny, 80);
    const Region bay = ReadBack((dir.path() / "bay.bin").string());
    const Region harbour = ReadBack((dir.path() / "harbour.bin").string());
    EXPECT_EQ(bay.nx, 300);
    EXPECT_EQ(bay.ny, 200);
    // Widened to whole Bay cells (1200 .. 6100, -95100 .. -90000), five cells in each.
    EXPECT_DOUBLE_EQ(harbour.org_x, 1210);
    EXPECT_DOUBLE_EQ(harbour.org_y, -95090);
    EXPECT_EQ(harbour.nx, 245);
    EXPECT_EQ(harbour.ny, 255);

    const SeaforgeRun run = RunSeaforge(dir.path());
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err, "");
    EXPECT_NE(run.out.find("\nSuccessful Completion."), std::string::npos);

    // Harbour again, its eastern and northern cell edges on Bay's own: both programs accept it.
    const auto [status, err] = RunIn(dir, InProject(dir, 3, {15000, -85000, 20000, -80000}));
    ASSERT_EQ(status, 0) << err;
    const Region flush = ReadBack((dir.path() / "harbour.bin").string());
    EXPECT_DOUBLE_EQ(flush.org_x + (flush.nx - 0.5) * 20, 20000);
    EXPECT_DOUBLE_EQ(flush.org_y + (flush.ny - 0.5) * 20, -80000);
    const SeaforgeRun again = RunSeaforge(dir.path());
    EXPECT_EQ(again.status, 0) << again.err;
    EXPECT_NE(again.out.find("\nSuccessful Completion."), std::string::npos);
}

TEST(PrepGridNesting, AcrossSystemsItRefusesWhatTheRunRefuses) {
    TempDir dir;
    WriteProject(dir);
    ASSERT_EQ(RunIn(dir, InProject(dir, 1, kOuter)).first, 0);
    // Two hundred metres inside the outer region's southern cell edge: inside it, but closer than
    // the run's corner search reaches.
    const Bounds nearEdge = {-10000, -155100, 20000, -135000};
    const auto [status, err] = RunIn(dir, InProject(dir, 2, nearEdge));
    EXPECT_EQ(status, 1);
    EXPECT_NE(err.find("region 2 (Bay) does not lie inside its base region 1 (Outer) as the run "
                       "checks it: across systems"),
              std::string::npos)
        << err;
    EXPECT_NE(err.find("not found: south-west (-10000, -155100), south-east (20000, -155100)."),
              std::string::npos)
        << err;
    EXPECT_NE(err.find("(the run stops with \"Comprisable :NG\")"), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "bay.bin"));

    // The same grid made without the project's check: the run refuses it too.
    GridOptions standalone = InProject(dir, 0, nearEdge);
    standalone.project.clear();
    standalone.epsg = 2451;
    standalone.spacing = 100;
    standalone.output = (dir.path() / "bay.bin").string();
    ASSERT_EQ(RunIn(dir, standalone).first, 0);
    dir.Write("harbour.bin", "");
    const SeaforgeRun run = RunSeaforge(dir.path());
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("  ERROR-DETAIL:Comprisable :NG"), std::string::npos) << run.err;
}

TEST(PrepGridNesting, RefusalsNameTheRegionAndWhatToDo) {
    struct Case {
        std::string project;
        int region;
        Bounds bounds;
        int built; // regions whose grids are built first: 1 .. built
        std::string expected;
    };
    const Case cases[] = {
        {Project(), 2, kBay, 0,
         "region 2 (Bay) nests in region 1 (Outer), whose grid outer.txt does not exist yet: "
         "build it first: seaforge-prep grid "},
        {Project(2451, 30), 3, kHarbour, 2,
         "region 3 (Harbour), nested in region 2 (Bay): the base region's spacing 100 is not a "
         "whole multiple of this region's spacing 30 (ratio 3.33333)"},
        {Project(), 3, {-11000, -95000, 0, -90000}, 2,
         "region 3 (Harbour) does not lie inside its base region 2 (Bay) as the run checks it: "
         "its western cell edge -11000 lies west of the base's -10000 (the run stops with "
         "\"Comprisable dimX:NG\")"},
        {Project(), 3, {0, -95000, 20100, -90000}, 2,
         "its eastern cell edge 20100 lies east of the base's 20000 (the run stops with "
         "\"Comprisable dimX:NG\")"},
        {Project(), 3, {0, -95000, 5000, -79900}, 2,
         "its northern cell edge -79900 lies north of the base's -80000 (the run stops with "
         "\"Comprisable dimY:NG\")"},
        // Across systems, the corner search keeps off the base's northern and eastern edges.
        {Project(), 2, {20000, -100000, 40000, -66720}, 1,
         "not found: north-east (40000, -66700), north-west (20000, -66700)."},
        {Project(), 2, {20000, -100000, 50600, -80000}, 1,
         "not found: south-east (50600, -100000), north-east (50600, -80000)."},
        {Project(32654), 2, kBay, 1,
         "but EPSG 32654 is not one of the systems the run's projection service knows (the "
         "JGD2000 plane systems 2443-2461 and UTM zones 3097-3101): the run converts it as UTM "
         "zone 54 (EPSG 3100), so a region in it can nest only in a region of the same system"},
        {Project(), 4, kBay, 0, "project.xml has no region 4 (its regions are 1, 2, 3)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.expected);
        TempDir dir;
        WriteProject(dir, c.project);
        for (int region = 1; region <= c.built; ++region) {
            ASSERT_EQ(RunIn(dir, InProject(dir, region, region == 1 ? kOuter : kBay)).first, 0);
        }
        const auto [status, err] = RunIn(dir, InProject(dir, c.region, c.bounds));
        EXPECT_EQ(status, 1);
        EXPECT_NE(err.find(c.expected), std::string::npos) << err;
        EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
    }
}

TEST(PrepCommandLine, HelpAndMistakes) {
    TempDir dir;
    const std::pair<std::vector<std::string>, std::vector<const char*>> helps[] = {
        {{"--help"}, {"grid"}},
        {{"grid", "--help"},
         {"--bounds-lonlat", "--depth-positive", "--fill", "--geotiff", "--resampling",
          "--source-srs", "--srs-source", "--source-nodata", "--nodata-source", "--z-scale",
          "--z-scale-source", "--keep-markers"}},
        {{"check", "--help"}, {"--json", "--cfl-limit", "--max-boundary-jump"}},
    };
    for (const auto& [args, options] : helps) {
        const SeaforgeRun help = RunProgram(SEAFORGE_PREP_BINARY, dir.path(), args);
        EXPECT_EQ(help.status, 0) << args[0];
        for (const char* option : options)
            EXPECT_NE(help.out.find(option), std::string::npos) << option;
    }
    const SeaforgeRun version = RunProgram(SEAFORGE_PREP_BINARY, dir.path(), {"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, "seaforge-prep " SEAFORGE_VERSION "\n");
    const std::vector<std::string> standalone = {"grid", "--epsg", "4326", "--spacing", "1",
                                                 "-o", "out.txt", "a.tif"};
    const auto with = [&](std::vector<std::string> more) {
        more.insert(more.begin(), standalone.begin(), standalone.end());
        return more;
    };
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{}, {"grid"}, {"grid", "--nonsense", "a.tif"}, {"frobnicate"},
          with({"--origin", "0", "0", "--size", "0", "5"}), with({"--size", "0", "5"}),
          with({"--nodata-source", "1", "-99x"}), with({"--srs-source", "x", "4326"})}) {
        const SeaforgeRun bad = RunProgram(SEAFORGE_PREP_BINARY, dir.path(), args);
        EXPECT_EQ(bad.status, 1);
        EXPECT_EQ(bad.err.rfind("seaforge-prep: ", 0), 0u) << bad.err;
        EXPECT_EQ(std::count(bad.err.begin(), bad.err.end(), '\n'), 1) << bad.err;
    }
}
