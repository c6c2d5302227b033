#include "prep/CheckCommand.hpp"

#include "prep/PrepTestSupport.hpp"
#include "support/RunSeaforge.hpp"
#include "support/TempDir.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <cstdio>
#include <functional>
#include <string>

namespace {

// A clean two-region project in one system: an outer region of 20 x 20 points of 0.01
// degree and a nested one of 25 x 25 points of 0.002 degree on its cells, 100 m deep but
// for one cell of 99 m in the north-east of each.
struct Project {
    double timeIncrement = 1.0;
    double outerSpacing = 0.01;
    double outerOrgX = 140.005;
    double innerSpacing = 0.002;
    int innerPoints = 25;
    double innerOrgX = 140.051;
    double innerOrgY = 35.051;
    bool inner = true; // without it, a project of one region
    std::function<double(int, int)> outer = [](int i, int j) {
        return i == 19 && j == 19 ? -99 : -100;
    };
    std::function<double(int, int)> innerValue = [](int i, int j) {
        return i == 20 && j == 20 ? -99 : -100;
    };
    std::string stations = "";       // a station list's content, when there is one
    bool twoStationLists = false;
    std::string coastalPoints = "";  // a coastal point list's content, when there is one
    std::string outerXml = "";       // more elements of region 1 (<EPSG>, ...)
    std::string extraRegionXml = ""; // e.g. a region in another system
    std::function<void(const TempDir&, std::string& xml)> edit; // files and text, at the end
};

void Write(const TempDir& dir, const Project& p) {
    dir.Write("fault.txt", "35.0 140.1 5000 0 30 45 90 10000 5000 1.0 \"F1\"\n");
    dir.Write("outer.txt", GridText(20, 20, p.outerOrgX, 35.005, p.outer));
    dir.Write("inner.txt",
              GridText(p.innerPoints, p.innerPoints, p.innerOrgX, p.innerOrgY, p.innerValue));
    std::string stations;
    if (!p.stations.empty()) {
        dir.Write("stations.txt", p.stations);
        stations = "<Dump1d><StationPos><EPSG>4612</EPSG><FileName>stations.txt</FileName>"
                   "</StationPos>";
        if (p.twoStationLists)
            stations += "<StationPos><EPSG>4612</EPSG><FileName>stations.txt</FileName>"
                        "</StationPos>";
        stations += "</Dump1d>";
    }
    if (!p.coastalPoints.empty()) {
        dir.Write("coast.txt", p.coastalPoints);
        stations += "<CoastalPoint><ExtractPoint><EPSG>4612</EPSG><FileName>coast.txt</FileName>"
                    "</ExtractPoint></CoastalPoint>";
    }
    const std::string innerXml = R"(    <Region><RegionNo>2</RegionNo><RegionName>Inner</RegionName><BaseRegionNo>1</BaseRegionNo>
      <GridSize>)" + std::to_string(p.innerSpacing) +
                                 R"(</GridSize><Topography><FileName>inner.txt</FileName></Topography></Region>
)";
    std::string xml = R"(<?xml version="1.0"?>
<Project><ProjectName>P</ProjectName><DestDir>out</DestDir><Datum>4612</Datum>
  <CalcParameter>
    <InitialWaveHeightSetting><FaultModel><FileName>fault.txt</FileName></FaultModel></InitialWaveHeightSetting>
    <TsunamiCalcSetting><TotalTime>600</TotalTime><TimeIncrement>)" +
                                 std::to_string(p.timeIncrement) + R"(</TimeIncrement></TsunamiCalcSetting>
    <Region><RegionNo>1</RegionNo><RegionName>Outer</RegionName><BaseRegionNo>0</BaseRegionNo>
      <GridSize>)" + std::to_string(p.outerSpacing) + "</GridSize>" + p.outerXml +
                                 R"(<Topography><FileName>outer.txt</FileName></Topography></Region>
)" + (p.inner ? innerXml : "") + p.extraRegionXml + R"(  </CalcParameter>
  <CalcOutputSetting>)" + stations + R"(</CalcOutputSetting>
</Project>
)";
    if (p.edit)
        p.edit(dir, xml);
    dir.Write("project.xml", xml);
}

struct Checked {
    int status;
    nlohmann::json report;
    std::string text;
};

Checked Check(const TempDir& dir) {
    const std::filesystem::path back = std::filesystem::current_path();
    std::filesystem::current_path(dir.path());
    CheckOptions o;
    o.project = "project.xml";
    o.json = true;
    const Outcome json = Captured([&] { return RunCheck(o); });
    o.json = false;
    const std::string text = Captured([&] { return RunCheck(o); }).out;
    std::filesystem::current_path(back);
    return {json.status, nlohmann::json::parse(json.out), text};
}

} // namespace

// A binary grid of nx x ny points, its header stating `spacing`.
void WriteBinaryGrid(const TempDir& dir, const std::string& name, double orgX, double orgY,
                     int nx, int ny, float spacing, const std::function<float(int, int)>& value) {
    std::string bytes;
    const auto put = [&bytes](const auto& v) {
        bytes.append(reinterpret_cast<const char*>(&v), sizeof v);
    };
    put(orgX);
    put(orgY);
    put(std::int32_t{nx});
    put(std::int32_t{ny});
    put(spacing);
    for (int j = 0; j < ny; ++j)
        for (int i = 0; i < nx; ++i)
            put(value(i, j));
    dir.Write(name, bytes);
}

void Replace(std::string& text, const std::string& from, const std::string& to) {
    text.replace(text.rfind(from), from.size(), to);
}

TEST(PrepCheck, EachMistakeGivesExactlyItsFindings) {
    struct Case {
        const char* name;
        std::function<void(Project&)> change;
        std::vector<std::string> expected; // "error  ..." or "warning  ...", in order
    };
    const auto one = [](double v) { return [v](int, int) { return v; }; };
    const auto jump = [](int i, int j) { return i == 9 && j == 9 ? -149 : -150; };
    const auto hill = [](double height) {
        return [height](int i, int j) { return i == 15 && j == 15 ? height : -100; };
    };
    const Case cases[] = {
        {"clean", [](Project&) {}, {}},
        {"cfl", [](Project& p) { p.timeIncrement = 5; },
         {"warning  region 2 (Inner): CFL number 1.22 is above 1, so the calculation is unstable "
          "(time step 5 s on 182 m cells, 100 m deep); a TimeIncrement of 4.109 s or less brings "
          "every region to 1"}},
        {"nan", [](Project& p) { p.outer = [](int i, int j) { return i == 3 && j == 4 ? std::nan("") : -100; }; },
         {"warning  region 1 (Outer): 1 cells of outer.txt hold NaN or infinity, the first cell (4, 5) at (140.035, 35.045)"}},
        {"nodata", [](Project& p) { p.outer = [](int i, int) { return i == 0 ? -9999 : -100; }; },
         {"warning  region 1 (Outer): 20 cells of outer.txt hold -9999, a nodata marker read as a real depth"}},
        {"repeated fill",
         [](Project& p) {
             p.outer = [](int i, int) { return i >= 12 ? -99999 : -100; };
             p.timeIncrement = 0.5; // stable even at that depth
         },
         {"warning  region 1 (Outer): 40 % of outer.txt holds its deepest value -99999, which "
          "looks like a nodata marker"}},
        {"misaligned", [](Project& p) { p.innerOrgX = 140.0515; },
         {"warning  region 2 (Inner): its cell edges do not fall on region 1 (Outer)'s cell edges"}},
        {"ratio", [](Project& p) { p.innerSpacing = 0.003; },
         {"warning  region 2 (Inner): its spacing 0.003 does not divide region 1 (Outer)'s spacing 0.01"}},
        {"jump", [jump](Project& p) { p.innerValue = jump; },
         {"warning  region 2 (Inner): along its boundary 96 of 96 points differ from region 1 "
          "(Outer)'s depths by more than 10 % of the depth or 5 m; the largest, 50 m"}},
        // Flush with the base's eastern or northern edge (to within rounding): the nested
        // points beyond the base's last points have no base depth to compare with (76 less
        // 22).
        {"jump flush east",
         [jump](Project& p) {
             p.innerSpacing = 0.0025, p.innerPoints = 20, p.innerOrgX = 140.1512499, p.innerOrgY = 35.05125;
             p.innerValue = jump;
         },
         {"warning  region 2 (Inner): along its boundary 54 of 54 points differ"}},
        {"jump flush north",
         [jump](Project& p) {
             p.innerSpacing = 0.0025, p.innerPoints = 20, p.innerOrgX = 140.05125, p.innerOrgY = 35.1512499;
             p.innerValue = jump;
         },
         {"warning  region 2 (Inner): along its boundary 54 of 54 points differ"}},
        {"cut off",
         [](Project& p) {
             p.outer = [](int i, int j) {
                 const bool ring = (i == 14 || i == 18) && j >= 14 && j <= 18;
                 const bool ringY = (j == 14 || j == 18) && i >= 14 && i <= 18;
                 return ring || ringY ? 10 : -100;
             };
         },
         {"warning  region 1 (Outer): 9 sea cells are cut off from open water and become land in "
          "the run's land map, the first at cell (16, 16)"}},
        {"station outside", [](Project& p) { p.stations = "140.1 35.1 A\n141.5 35.1 Far\n"; },
         {"warning  station Far (141.5, 35.1) of stations.txt lies outside every region of EPSG "
          "4612: the run drops it"}},
        {"one shapefile", [](Project& p) { p.stations = "140.1 35.1 A\n"; p.twoStationLists = true; },
         {"warning  the station lists stations.txt and stations.txt are both in EPSG 4612, so "
          "both write Station_4612.shp; the run keeps only the last"}},
        {"missing grid",
         [](Project& p) {
             p.stations = "141.5 35.1 Far\n"; // perhaps in region 2: nothing is said of it
             p.edit = [](const TempDir& dir, std::string&) { std::filesystem::remove(dir.path() / "inner.txt"); };
         },
         {"error  region 2 (Inner) has no grid yet: inner.txt does not exist; make it with "
          "`seaforge-prep grid project.xml --region 2 --bounds XMIN YMIN XMAX YMAX SOURCE...` (the "
          "run stops with \"ERROR:Read Topography\")"}},
        {"spacing of metres in degrees", [](Project& p) { p.inner = false; p.outerSpacing = 2; },
         {"warning  region 1 (Outer): EPSG 4612 is longitude and latitude in degrees, but its "
          "spacing 2 cannot be degrees; the run works with cells of 65001.9 m"}},
        {"longitude beyond 360", [](Project& p) { p.inner = false; p.outerOrgX = 359.905; },
         {"warning  region 1 (Outer): EPSG 4612 is longitude and latitude in degrees, but its "
          "cell edges east to longitude 360.1 cannot be degrees"}},
        {"geographic code read as metres",
         [](Project& p) { p.inner = false; p.outerXml = "<EPSG>6668</EPSG>"; p.timeIncrement = 1e-4; },
         {"warning  region 1 (Outer): EPSG 6668 (JGD2011) is longitude and latitude in degrees, "
          "but the run reads every code other than 4326 and 4612 as plane metres: it takes the "
          "spacing 0.01 as 0.01 m. Use EPSG 4612 for a grid in degrees"}},
        {"plane code holding degrees",
         [](Project& p) { p.inner = false; p.outerXml = "<EPSG>2451</EPSG>"; p.timeIncrement = 1e-4; },
         {"warning  region 1 (Outer): EPSG 2451 (JGD2000 / Japan Plane Rectangular CS IX) is a "
          "plane system in metres, but its spacing 0.01 and cell edges 140 .. 140.2, 35 .. 35.2 "
          "look like degrees; the run works with cells of 0.01 m. Use EPSG 4612"}},
        {"zone far from its area",
         [](Project& p) {
             p.inner = false, p.outerXml = "<EPSG>2451</EPSG>";
             p.outerSpacing = 500, p.outerOrgX = -304000;
             p.edit = [](const TempDir& dir, std::string&) {
                 dir.Write("outer.txt", GridText(20, 20, -304000, -133000, [](int i, int j) { return i == 19 && j == 19 ? -99 : -100; }));
             };
         },
         {"warning  region 1 (Outer): its centre lies at 136.5"}},
        {"dry region", [](Project& p) { p.inner = false; p.outer = [](int i, int j) { return 5 + (i + j) % 3; }; },
         {"warning  region 1 (Outer): no cell lies below the tide level (0 m; its lowest value is "
          "5): its CFL number is undefined (the run prints \"-nan\"), so nothing limits its time "
          "step and its time ratio falls back to 1"}},
        {"station on land", [hill](Project& p) { p.innerValue = hill(124); p.stations = "140.081 35.081 Hill\n"; },
         {"warning  station Hill (140.081, 35.081) of stations.txt lies on land: its cell (16, 16) "
          "in region 2 (Inner) holds 124 m, above the tide level (0 m)"}},
        {"coastal point on land", [hill](Project& p) { p.innerValue = hill(155); p.coastalPoints = "140.081 35.081 Cape\n"; },
         {"warning  coastal point Cape (140.081, 35.081) of coast.txt lies on land: its cell (16, "
          "16) in region 2 (Inner) holds 155 m"}},
        {"header spacing",
         [](Project& p) {
             p.edit = [](const TempDir& dir, std::string& xml) {
                 Replace(xml, "inner.txt", "inner.bin");
                 WriteBinaryGrid(dir, "inner.bin", 140.0505, 35.0505, 25, 25, 0.001f,
                                 [](int i, int j) { return i == 9 && j == 9 ? -99.0f : -100.0f; });
             };
         },
         {"warning  region 2 (Inner): inner.bin states a spacing of 0.001 in its header where "
          "the project's GridSize is 0.002; the run uses the file's 0.001"}},
        {"sea cut off from the open boundary",
         [](Project& p) {
             p.inner = false;
             p.outer = [](int i, int j) { return i == 0 || j == 0 || i == 19 || j == 19 ? 30 : -50 - i; };
         },
         {"warning  region 1 (Outer): its sea does not reach its open boundary: all 324 cells "
          "below the tide level are cut off from it and become land in the run's land map. The "
          "topography looks upside down, depths read as heights: if the source holds depths "
          "positive down, remake the grid with `seaforge-prep grid --depth-positive`"}},
        {"most sea cut off",
         [](Project& p) {
             p.inner = false;
             p.outer = [](int i, int j) { return j == 0 || (j > 1 && i > 0 && i < 19 && j < 19) ? -50 - i : 30; };
         },
         {"warning  region 1 (Outer): 306 of its 326 cells below the tide level are cut off from "
          "its open boundary"}},
        {"feet", [](Project& p) { p.inner = false; p.timeIncrement = 0.1; p.outer = [](int i, int j) { return i == 5 && j == 5 ? -12660 : -100; }; },
         {"warning  region 1 (Outer): its values reach -12660 m, deeper than any sea (11000 m); a "
          "source in feet read as metres gives this: remake the grid with `seaforge-prep grid "
          "--z-scale 0.3048`"}},
        {"one value", [one](Project& p) { p.inner = false; p.outer = one(-100); },
         {"warning  region 1 (Outer): every one of its 400 cells holds -100; a grid of one value"}},
        {"misspelt required element",
         [](Project& p) { p.edit = [](const TempDir&, std::string& xml) { Replace(xml, "GridSize>", "GridSise>"); Replace(xml, "<GridSize>", "<GridSise>"); }; },
         {"error  the project is incomplete: Please set <Region>/<GridSize>. (the run stops with "
          "\"ERROR:XML Parse\")",
          "error  the region concerned is region 2 (Inner); it holds <GridSise>, which the run "
          "passes over: write <GridSize> (the run stops with \"ERROR:XML Parse\")"}},
        {"misspelt element", [](Project& p) { p.outerXml = "<ESPG>4612</ESPG>"; },
         {"warning  region 1 (Outer): the run passes over <ESPG>, an element it does not know; "
          "write <EPSG> if that is meant"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        Project project;
        c.change(project);
        Write(dir, project);
        const Checked checked = Check(dir);
        const nlohmann::json& findings = checked.report["findings"];
        ASSERT_EQ(findings.size(), c.expected.size()) << checked.text;
        bool error = false;
        for (std::size_t k = 0; k < findings.size(); ++k) {
            const std::string level = findings[k]["level"];
            const std::string message = findings[k]["message"];
            EXPECT_EQ((level + "  " + message).rfind(c.expected[k], 0), 0u) << message;
            EXPECT_NE(checked.text.find((level == "error" ? "error    " : "warning  ") + message),
                      std::string::npos) << checked.text;
            error = error || findings[k]["level"] == "error";
        }
        EXPECT_EQ(checked.status, c.expected.empty() ? 0 : error ? 1 : 2) << checked.text;
    }
}

TEST(PrepCheck, TheRegionTableIsTheRunsTimeStep) {
    TempDir dir;
    Write(dir, Project{});
    const Checked checked = Check(dir);
    ASSERT_EQ(checked.report["regions"].size(), 2u);
    const nlohmann::json& outer = checked.report["regions"][0];
    EXPECT_EQ(outer["nx"], 20);
    EXPECT_EQ(outer["extent"], nlohmann::json::array({140.0, 35.0, 140.2, 35.2}));
    EXPECT_EQ(outer["dt"], 1.0);
    // The run's own report of the same project carries the same numbers.
    const SeaforgeRun run = RunSeaforge(dir.path());
    ASSERT_EQ(run.status, 0) << run.err;
    for (const nlohmann::json& region : checked.report["regions"]) {
        char line[64];
        std::snprintf(line, sizeof line, " CFL number : %7.2f\n", region["cfl"].get<double>());
        EXPECT_NE(run.out.find(line), std::string::npos) << line;
    }
}

TEST(PrepCheck, WhatTheRunRefusesComesFirstWithTheRunsOwnReason) {
    // The project's text changed by `edit`.
    const auto inXml = [](void (*edit)(std::string&)) {
        return [edit](const TempDir& dir) {
            std::string xml = Slurp(dir.path() / "project.xml");
            edit(xml);
            dir.Write("project.xml", xml);
        };
    };
    const std::function<void(const TempDir&)> breakages[] = {
        inXml([](std::string& xml) { Replace(xml, "<TotalTime>600</TotalTime>", ""); }),
        [](const TempDir& dir) { dir.Write("inner.txt", "3 2\n140.1 35.1\n1 2 3 4 5\n"); },
        [](const TempDir& dir) { // the nested grid reaches past its base's eastern edge
            dir.Write("inner.txt", GridText(25, 25, 140.151, 35.051, Project{}.innerValue));
        },
        [](const TempDir& dir) { dir.Write("fault.txt", "35.0 140.1 5000\n"); },
        inXml([](std::string& xml) { // a colour table file that is not there
            Replace(xml, "</Project>", "<GeotiffSetting><Topography><FileName>gone.clr</FileName>"
                                       "</Topography></GeotiffSetting></Project>");
        }),
        inXml([](std::string& xml) { // a deformation stage file that is not there
            Replace(xml, "</CalcParameter>",
                    "<DynamicDeformationParameter><FileName>gone.txt</FileName>"
                    "</DynamicDeformationParameter></CalcParameter>");
        }),
    };
    for (const auto& breakage : breakages) {
        SCOPED_TRACE(&breakage - breakages);
        TempDir dir;
        Write(dir, Project{});
        breakage(dir);
        const SeaforgeRun run = RunSeaforge(dir.path());
        ASSERT_EQ(run.status, 1);
        // The run's last block names its error code: "ERROR:...".
        const std::size_t at = run.err.rfind("ERROR:");
        const std::string reason = run.err.substr(at, run.err.find('\n', at) - at);
        const Checked checked = Check(dir);
        EXPECT_EQ(checked.status, 1);
        ASSERT_FALSE(checked.report["findings"].empty());
        const nlohmann::json& first = checked.report["findings"][0];
        EXPECT_EQ(first["level"], "error");
        const std::string message = first["message"];
        EXPECT_NE(message.find("(the run stops with \"" + reason + "\")"), std::string::npos)
            << message << " / " << reason;
        EXPECT_EQ(checked.report["errors"].get<int>() + checked.report["warnings"].get<int>(),
                  static_cast<int>(checked.report["findings"].size()));
    }
}

// The suggested TimeIncrement is the largest of four significant digits that brings every
// region to the limit: taken as printed it clears the warning, one unit of its last digit
// more does not. Rounded to the nearest, about half of these depths would repeat it.
TEST(PrepCheck, TheSuggestedTimeIncrementClearsTheWarning) {
    for (const double depth : {100.0, 123.0, 150.0, 187.0, 211.0, 250.0, 333.0, 1999.5}) {
        SCOPED_TRACE(depth);
        Project project;
        project.timeIncrement = 10;
        project.innerValue = [depth](int i, int j) { return i == 20 && j == 20 ? -90 : -depth; };
        project.outer = [depth](int i, int j) { return i == 19 && j == 19 ? -90 : -depth; };
        TempDir dir;
        Write(dir, project);
        const std::string message = Check(dir).report["findings"][0]["message"];
        const std::size_t at = message.find("a TimeIncrement of ");
        ASSERT_NE(at, std::string::npos) << message;
        const std::string suggested = message.substr(at + 19, message.find(' ', at + 19) - at - 19);
        const double value = std::stod(suggested);
        const double unit = std::pow(10.0, std::floor(std::log10(value)) - 3);
        for (const double taken : {value, value + unit}) {
            project.timeIncrement = taken;
            Write(dir, project);
            const Checked again = Check(dir);
            EXPECT_EQ(again.status, taken == value ? 0 : 2) << suggested << "\n" << again.text;
        }
    }
}
