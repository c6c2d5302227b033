#include "prep/OverviewCommand.hpp"
#include "prep/OverviewPicture.hpp"

#include "support/RunSeaforge.hpp"
#include "support/TempDir.hpp"

#include <gdal_priv.h>
#include <ogr_spatialref.h>
#include <ogrsf_frmts.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace {

namespace fs = std::filesystem;

// A text grid as the run reads it: rows from the south, x fastest.
std::string TextGrid(int nx, int ny, double orgX, double orgY,
                     const std::function<double(int, int)>& value) {
    std::string text = std::to_string(nx) + " " + std::to_string(ny) + "\n";
    char line[64];
    std::snprintf(line, sizeof line, "%.6f %.6f\n", orgX, orgY);
    text += line;
    for (int j = 0; j < ny; ++j)
        for (int i = 0; i < nx; ++i) {
            std::snprintf(line, sizeof line, "%.2f%c", value(i, j), i + 1 == nx ? '\n' : ' ');
            text += line;
        }
    return text;
}

// Outer: EPSG 4612, 60 x 60 points of 0.01 degree over 139.5 .. 140.1 E, 35.7 .. 36.3 N;
// flat sea at -1000 m in the west, flat land at 200 m in its north-west corner, a slope
// elsewhere. Bay (EPSG 2451, 500 m) and Harbour (2451, 100 m) round the system's origin
// (139.8333 E, 36 N): Bay -10 .. 10 km, Harbour -2 .. 2 km.
std::string Project(const std::string& timeIncrement = "0.5", int harbourEpsg = 2451) {
    return R"(<?xml version="1.0"?>
<Project>
  <ProjectName>Look</ProjectName>
  <CalcParameter>
    <InitialWaveHeightSetting><FaultModel><EPSG>4612</EPSG><FileName>fault.txt</FileName></FaultModel></InitialWaveHeightSetting>
    <TsunamiCalcSetting><TotalTime>600</TotalTime><TimeIncrement>)" + timeIncrement +
           R"(</TimeIncrement><TimeNestingCFLLimit>0.8</TimeNestingCFLLimit></TsunamiCalcSetting>
    <Region><RegionNo>1</RegionNo><RegionName>Outer</RegionName><BaseRegionNo>0</BaseRegionNo>
      <EPSG>4612</EPSG><GridSize>0.01</GridSize><Topography><FileName>outer.txt</FileName></Topography></Region>
    <Region><RegionNo>2</RegionNo><RegionName>Bay</RegionName><BaseRegionNo>1</BaseRegionNo>
      <EPSG>2451</EPSG><GridSize>500</GridSize><Topography><FileName>bay.txt</FileName></Topography></Region>
    <Region><RegionNo>3</RegionNo><RegionName>Harbour</RegionName><BaseRegionNo>2</BaseRegionNo>
      <EPSG>)" + std::to_string(harbourEpsg) + R"(</EPSG><GridSize>100</GridSize><Topography><FileName>harbour.txt</FileName></Topography></Region>
  </CalcParameter>
  <CalcOutputSetting>
    <Dump1d><StationPos><EPSG>2451</EPSG><FileName>stations.txt</FileName></StationPos></Dump1d>
    <CoastalPoint><ExtractPoint><EPSG>2451</EPSG><FileName>coast.txt</FileName></ExtractPoint></CoastalPoint>
  </CalcOutputSetting>
</Project>
)";
}

void WriteProject(const TempDir& dir, const std::string& project = Project(),
                  const std::string& harbourOrigin = "-1950 -1950") {
    dir.Write("project.xml", project);
    dir.Write("outer.txt", TextGrid(60, 60, 139.505, 35.705, [](int i, int j) {
                  return i < 15 ? (j >= 45 ? 200.0 : -1000.0) : -100.0 - 5.0 * (i - 15);
              }));
    dir.Write("bay.txt", TextGrid(40, 40, -9750, -9750, [](int, int) { return -100.0; }));
    const double ox = std::stod(harbourOrigin);
    const double oy = std::stod(harbourOrigin.substr(harbourOrigin.find(' ')));
    dir.Write("harbour.txt", TextGrid(40, 40, ox, oy, [](int, int) { return -20.0; }));
    // ST1 in Harbour, ST2 beyond the outer region, ST3 in Bay only.
    dir.Write("stations.txt", "# x y name\n0 0 ST1\n50000 50000 ST2\n-8000 8000 ST3\n");
    // CP2 lies in Bay only: the run gives a coastal point only the highest region's cell.
    dir.Write("coast.txt", "1000 -1000 CP1\n-8000 -8000 CP2\n");
    dir.Write("fault.txt", "# lat lon depth unused strike dip rake length width slip name\n"
                           "35.80 139.95 5000 0 30 45 90 10000 5000 1.5 \"F1\"\n");
}

struct Outcome {
    int status;
    std::string out;
    std::string err;
};

// RunOverview from the test's directory, where the project's relative paths point.
Outcome RunIn(const TempDir& dir, OverviewOptions o) {
    if (o.project.empty())
        o.project = "project.xml";
    const fs::path back = fs::current_path();
    fs::current_path(dir.path());
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = RunOverview(o);
    std::string out = testing::internal::GetCapturedStdout();
    std::string err = testing::internal::GetCapturedStderr();
    fs::current_path(back);
    return {status, out, err};
}

// Plane EPSG 2451 metres to JGD2000 degrees through PROJ itself, not the run's service.
std::pair<double, double> LonLatOf(double x, double y, int geographic = 4612) {
    OGRSpatialReference plane;
    OGRSpatialReference lonLat;
    plane.importFromEPSG(2451);
    lonLat.importFromEPSG(geographic);
    plane.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
    lonLat.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
    std::unique_ptr<OGRCoordinateTransformation> t(
        OGRCreateCoordinateTransformation(&plane, &lonLat));
    EXPECT_TRUE(t && t->Transform(1, &x, &y));
    return {x, y};
}

struct Picture {
    int width = 0;
    int height = 0;
    std::vector<unsigned char> rgb; // three bands, band-sequential
    OverviewColour At(double px, double py) const {
        const std::size_t k = static_cast<std::size_t>(std::floor(py)) * width +
                              static_cast<std::size_t>(std::floor(px));
        const std::size_t band = static_cast<std::size_t>(width) * height;
        return {rgb[k], rgb[band + k], rgb[2 * band + k]};
    }
};

Picture ReadPicture(const fs::path& path) {
    GDALAllRegister();
    GDALDatasetUniquePtr ds(GDALDataset::Open(path.c_str(), GDAL_OF_RASTER));
    Picture p;
    if (!ds || ds->GetRasterCount() < 3)
        return p;
    p.width = ds->GetRasterXSize();
    p.height = ds->GetRasterYSize();
    p.rgb.resize(static_cast<std::size_t>(p.width) * p.height * 3);
    int bands[] = {1, 2, 3};
    EXPECT_EQ(ds->RasterIO(GF_Read, 0, 0, p.width, p.height, p.rgb.data(), p.width, p.height,
                           GDT_Byte, 3, bands, 0, 0, 0, nullptr),
              CE_None);
    return p;
}

// The frame the picture of the outer region (or of Bay with --region 2) is drawn in.
MapFrame Frame(bool geographic, double minX, double minY, double maxX, double maxY) {
    OverviewScene scene;
    scene.geographic = geographic;
    scene.minX = minX;
    scene.minY = minY;
    scene.maxX = maxX;
    scene.maxY = maxY;
    return LayOutMap(scene, 1200);
}

::testing::AssertionResult Near(OverviewColour got, OverviewColour want, int tolerance) {
    if (std::abs(got.r - want.r) <= tolerance && std::abs(got.g - want.g) <= tolerance &&
        std::abs(got.b - want.b) <= tolerance)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "got (" << +got.r << ", " << +got.g << ", " << +got.b
                                         << "), want (" << +want.r << ", " << +want.g << ", "
                                         << +want.b << ")";
}

OverviewColour ReliefColourAt(double elevation) {
    for (const ReliefStop& s : ReliefStops())
        if (s.elevation == elevation)
            return s.colour;
    ADD_FAILURE() << "no stop at " << elevation;
    return {};
}

} // namespace

TEST(PrepOverview, PixelsAtKnownPlaces) {
    TempDir dir;
    WriteProject(dir);
    OverviewOptions o;
    o.output = "overview.png";
    const Outcome run = RunIn(dir, o);
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("Wrote overview.png (1200 x "), std::string::npos) << run.out;
    const Picture picture = ReadPicture(dir.path() / "overview.png");
    const MapFrame f = Frame(true, 139.5, 35.7, 140.1, 36.3);
    ASSERT_EQ(picture.width, f.pictureWidth);
    ASSERT_EQ(picture.height, f.pictureHeight);

    struct Place {
        const char* what;
        double x; // EPSG 2451 metres, or degrees when `degrees`
        double y;
        bool degrees;
        OverviewColour colour;
        int tolerance;
    };
    const Place places[] = {
        {"flat sea at -1000 m", 139.57, 35.80, true, ReliefColourAt(-1000), 3},
        {"flat land at 200 m", 139.57, 36.20, true, ReliefColourAt(200), 3},
        {"Bay's western edge", -10000, 0, false, RegionOutlineColour(1), 0},
        {"Bay's northern edge", 5000, 10000, false, RegionOutlineColour(1), 0},
        {"Harbour's eastern edge", 2050, -1000, false, RegionOutlineColour(2), 0},
        {"station ST1 in Harbour", 0, 0, false, kStationFill, 0},
        {"station ST3 in Bay", -8000, 8000, false, kStationFill, 0},
        {"coastal point CP1 in Harbour", 1000, -1000, false, kCoastalPointFill, 0},
        {"coastal point CP2, no cell", -8000, -8000, false, kNoCellFill, 0},
    };
    for (const Place& p : places) {
        const auto [lon, lat] = p.degrees ? std::pair{p.x, p.y} : LonLatOf(p.x, p.y);
        EXPECT_TRUE(Near(picture.At(f.PixelX(lon), f.PixelY(lat)), p.colour, p.tolerance))
            << p.what;
    }
    // Only ST2, beyond the outer region, is left out (and gets no cell); CP2 gets no cell as
    // the run gives a coastal point only the highest region's.
    EXPECT_NE(run.err.find("seaforge-prep: left out 1 of the 3 stations of stations.txt: it lies "
                           "outside region 1 (Outer)\n"),
              std::string::npos)
        << run.err;
    EXPECT_NE(run.err.find("note: 1 of the 2 coastal points of coast.txt lies in no region of "
                           "EPSG 2451 the run can read"),
              std::string::npos);
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 3) << run.err;
}

TEST(PrepOverview, RegionOptionDrawsOneRegionAndItsChildren) {
    TempDir dir;
    WriteProject(dir);
    OverviewOptions o;
    o.output = "bay.png";
    o.gpkg = "bay.gpkg";
    o.region = 2;
    const Outcome run = RunIn(dir, o);
    ASSERT_EQ(run.status, 0) << run.err;
    // Bay's own cells in its own metres: Harbour is nested once there.
    const MapFrame f = Frame(false, -10000, -10000, 10000, 10000);
    const Picture picture = ReadPicture(dir.path() / "bay.png");
    ASSERT_EQ(picture.width, f.pictureWidth);
    EXPECT_TRUE(Near(picture.At(f.PixelX(-2000), f.PixelY(0)), RegionOutlineColour(1), 0));
    EXPECT_TRUE(Near(picture.At(f.PixelX(0), f.PixelY(0)), kStationFill, 0));
    GDALDatasetUniquePtr gpkg(GDALDataset::Open((dir.path() / "bay.gpkg").c_str(), GDAL_OF_VECTOR));
    ASSERT_TRUE(gpkg);
    EXPECT_EQ(gpkg->GetLayerByName("regions")->GetFeatureCount(), 2);
}

TEST(PrepOverview, GeoPackageReadBackThroughOgr) {
    TempDir dir;
    WriteProject(dir);
    OverviewOptions o;
    o.gpkg = "overview.gpkg";
    ASSERT_EQ(RunIn(dir, o).status, 0);
    GDALDatasetUniquePtr ds(
        GDALDataset::Open((dir.path() / "overview.gpkg").c_str(), GDAL_OF_VECTOR));
    ASSERT_TRUE(ds);
    const std::map<std::string, int> counts = {
        {"regions", 3}, {"stations", 3}, {"coastal_points", 2}, {"faults", 1}};
    for (const auto& [name, count] : counts) {
        OGRLayer* layer = ds->GetLayerByName(name.c_str());
        ASSERT_NE(layer, nullptr) << name;
        EXPECT_EQ(layer->GetFeatureCount(), count) << name;
        EXPECT_STREQ(layer->GetSpatialRef()->GetAuthorityCode(nullptr), "4326");
    }
    // number, name, base, epsg, spacing, nx, ny, time step, CFL: Harbour runs at the time
    // increment, Bay three times that (its CFL allows it), Outer at Bay's step (another system).
    struct RegionRow {
        const char* name;
        int base, epsg;
        double spacing;
        int nx, ny;
        double dt, cfl;
    };
    const RegionRow rows[] = {{"Outer", 0, 4612, 0.01, 60, 60, 1.5, -1},
                              {"Bay", 1, 2451, 500, 40, 40, 1.5, 3 * 0.5 / 500 * std::sqrt(1960.0)},
                              {"Harbour", 2, 2451, 100, 40, 40, 0.5, 0.5 / 100 * std::sqrt(392.0)}};
    OGRLayer* regions = ds->GetLayerByName("regions");
    for (auto& feature : *regions) {
        const RegionRow& want = rows[feature->GetFieldAsInteger("number") - 1];
        EXPECT_STREQ(feature->GetFieldAsString("name"), want.name);
        EXPECT_EQ(feature->GetFieldAsInteger("base"), want.base);
        EXPECT_EQ(feature->GetFieldAsInteger("epsg"), want.epsg);
        EXPECT_DOUBLE_EQ(feature->GetFieldAsDouble("spacing"), want.spacing);
        EXPECT_EQ(feature->GetFieldAsInteger("nx"), want.nx);
        EXPECT_EQ(feature->GetFieldAsInteger("ny"), want.ny);
        EXPECT_DOUBLE_EQ(feature->GetFieldAsDouble("time_step"), want.dt);
        if (want.cfl > 0) {
            EXPECT_NEAR(feature->GetFieldAsDouble("cfl"), want.cfl, 1e-9) << want.name;
        }
    }
    // Within a metre of PROJ's own transformation from the plane system to WGS84.
    const auto metresApart = [](double lon, double lat, std::pair<double, double> want) {
        return std::hypot((lon - want.first) * 111320 * std::cos(lat * 3.141592653589793 / 180),
                          (lat - want.second) * 110574);
    };
    regions->SetAttributeFilter("number = 2");
    OGRFeatureUniquePtr bay(regions->GetNextFeature());
    ASSERT_TRUE(bay);
    const OGRLinearRing* ring = bay->GetGeometryRef()->toPolygon()->getExteriorRing();
    EXPECT_EQ(ring->getNumPoints(), 4 * 32 + 1);
    EXPECT_LT(metresApart(ring->getX(0), ring->getY(0), LonLatOf(-10000, -10000, 4326)), 1.0);
    EXPECT_LT(metresApart(ring->getX(48), ring->getY(48), LonLatOf(10000, 0, 4326)), 1.0);
    OGRLayer* stations = ds->GetLayerByName("stations");
    stations->SetAttributeFilter("name = 'ST1'");
    OGRFeatureUniquePtr st1(stations->GetNextFeature());
    ASSERT_TRUE(st1);
    EXPECT_EQ(st1->GetFieldAsInteger("region"), 3);
    const OGRPoint* point = st1->GetGeometryRef()->toPoint();
    EXPECT_LT(metresApart(point->getX(), point->getY(), LonLatOf(0, 0, 4326)), 1.0);
    OGRFeatureUniquePtr fault(ds->GetLayerByName("faults")->GetNextFeature());
    EXPECT_STREQ(fault->GetFieldAsString("name"), "F1");
    EXPECT_DOUBLE_EQ(fault->GetFieldAsDouble("slip"), 1.5);
    EXPECT_EQ(fault->GetFieldAsInteger("segment"), 1); // counted from 1, as the messages do
}

TEST(PrepOverview, WhatTheRunWouldRefuseIsLeftOutOrNoted) {
    struct Case {
        const char* what;
        std::function<void(const TempDir&, OverviewOptions&)> spoil;
        int status;
        std::string expected; // one line of standard error
    };
    const Case cases[] = {
        {"Bay's grid missing",
         [](const TempDir& d, OverviewOptions&) { fs::remove(d.path() / "bay.txt"); }, 0,
         "left out region 2 (Bay): the run cannot read its grid: cannot open bay.txt"},
        {"a step builds on Bay's",
         [](const TempDir& d, OverviewOptions&) { fs::remove(d.path() / "bay.txt"); }, 0,
         "left out the time step of region 1 (Outer): it builds on the step of region 2 (Bay), "
         "whose grid is left out"},
        {"Outer's grid unreadable",
         [](const TempDir& d, OverviewOptions&) { d.Write("outer.txt", "3 2\n0 0\n1 2 3\n"); }, 0,
         "left out region 1 (Outer): the run cannot read its grid: outer.txt holds 3 values "
         "where its header announces 3 x 2"},
        {"no station list",
         [](const TempDir& d, OverviewOptions&) { fs::remove(d.path() / "stations.txt"); }, 0,
         "left out the stations of stations.txt: cannot open it (the run only warns and goes on "
         "without them)"},
        {"a short station line",
         [](const TempDir& d, OverviewOptions&) { d.Write("stations.txt", "0 0 ST1\n5 5\n"); }, 0,
         "left out the stations of stations.txt after its first 1: a line has fewer than three "
         "fields (the run stops with \"ERROR:Read Station List File\")"},
        {"no fault file",
         [](const TempDir& d, OverviewOptions&) { fs::remove(d.path() / "fault.txt"); }, 0,
         "left out the fault model fault.txt: cannot open it"},
        {"Harbour beyond Bay",
         [](const TempDir& d, OverviewOptions&) { WriteProject(d, Project(), "-11050 -1950"); },
         0,
         "note: region 3 (Harbour) does not lie inside its base region 2 (Bay) as the run's "
         "nesting check sees it (the run stops with \"ERROR:Comprisable:NG\"); drawn dashed"},
        {"no time increment",
         [](const TempDir& d, OverviewOptions&) { WriteProject(d, Project("0")); }, 0,
         "left out the time step of region 3 (Harbour): TimeIncrement is not positive (the run "
         "stops with \"ERROR:Calculate CFL\")"},
        {"a system the service lacks",
         [](const TempDir& d, OverviewOptions&) { WriteProject(d, Project("0.5", 6677)); }, 0,
         "note: EPSG 6677 is not one of the systems the run's projection service knows (the "
         "JGD2000 plane systems 2443-2461 and UTM zones 3097-3101): the run converts it as UTM "
         "zone 54 (EPSG 3100); drawn where PROJ places it"},
        {"nothing drawable",
         [](const TempDir& d, OverviewOptions&) {
             for (const char* file : {"outer.txt", "bay.txt", "harbour.txt", "stations.txt",
                                      "coast.txt", "fault.txt"})
                 fs::remove(d.path() / file);
         },
         1, "seaforge-prep: nothing could be drawn: every part of project.xml was left out"},
        {"no such region", [](const TempDir&, OverviewOptions& o) { o.region = 9; }, 1,
         "seaforge-prep: project.xml has no region 9 (its regions are 1, 2, 3)"},
        {"no output asked for", [](const TempDir&, OverviewOptions& o) { o.output.clear(); }, 1,
         "seaforge-prep: give -o PICTURE.png, --gpkg FILE.gpkg or both"},
        {"unwritable picture",
         [](const TempDir&, OverviewOptions& o) { o.output = "missing/overview.png"; }, 1,
         "seaforge-prep: cannot write missing/overview.png: No such file or directory"},
    };
    for (const Case& c : cases) {
        TempDir dir;
        WriteProject(dir);
        OverviewOptions o;
        o.output = "overview.png";
        c.spoil(dir, o);
        const Outcome run = RunIn(dir, o);
        EXPECT_EQ(run.status, c.status) << c.what << "\n" << run.err;
        EXPECT_NE(run.err.find(c.expected + "\n"), std::string::npos) << c.what << "\n" << run.err;
        EXPECT_EQ(fs::exists(dir.path() / "overview.png"), c.status == 0) << c.what;
    }
}

TEST(PrepOverview, CommandLine) {
    TempDir dir;
    WriteProject(dir);
    const SeaforgeRun run = RunProgram(SEAFORGE_PREP_BINARY, dir.path(),
                                       {"overview", "project.xml", "-o", "o.png", "-q"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "");
    EXPECT_TRUE(fs::exists(dir.path() / "o.png"));
    const SeaforgeRun help = RunProgram(SEAFORGE_PREP_BINARY, dir.path(), {"overview", "--help"});
    EXPECT_EQ(help.status, 0);
    for (const char* option : {"--gpkg", "--region", "--width", "left out"})
        EXPECT_NE(help.out.find(option), std::string::npos) << option;
}
