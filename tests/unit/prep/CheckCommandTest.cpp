#include "prep/CheckCommand.hpp"

#include "support/RunSeaforge.hpp"
#include "support/TempDir.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>

namespace {

// A text grid of nx x ny points from (orgX, orgY), value(i, j) with j = 0 at the south.
std::string TextGrid(int nx, int ny, double orgX, double orgY,
                     const std::function<std::string(int, int)>& value) {
    std::string text = std::to_string(nx) + " " + std::to_string(ny) + "\n" +
                       std::to_string(orgX) + " " + std::to_string(orgY) + "\n";
    for (int j = 0; j < ny; ++j)
        for (int i = 0; i < nx; ++i)
            text += value(i, j) + (i + 1 == nx ? "\n" : " ");
    return text;
}

std::string Depth(double v) { return std::to_string(v); }

std::string Slurp(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// A clean two-region project in one system: an outer region of 20 x 20 points of 0.01
// degree and a nested one of 25 x 25 points of 0.002 degree on its cells, 100 m deep.
struct Project {
    double timeIncrement = 1.0;
    double innerSpacing = 0.002;
    double innerOrgX = 140.051;
    std::function<std::string(int, int)> outer = [](int, int) { return Depth(-100); };
    std::function<std::string(int, int)> inner = [](int, int) { return Depth(-100); };
    std::string stations = "";       // a station list's content, when there is one
    bool twoStationLists = false;
    std::string extraRegionXml = ""; // e.g. a region in another system
};

void Write(const TempDir& dir, const Project& p) {
    dir.Write("fault.txt", "35.0 140.1 5000 0 30 45 90 10000 5000 1.0 \"F1\"\n");
    dir.Write("outer.txt", TextGrid(20, 20, 140.005, 35.005, p.outer));
    dir.Write("inner.txt", TextGrid(25, 25, p.innerOrgX, 35.051, p.inner));
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
    dir.Write("project.xml", R"(<?xml version="1.0"?>
<Project><ProjectName>P</ProjectName><DestDir>out</DestDir><Datum>4612</Datum>
  <CalcParameter>
    <InitialWaveHeightSetting><FaultModel><FileName>fault.txt</FileName></FaultModel></InitialWaveHeightSetting>
    <TsunamiCalcSetting><TotalTime>600</TotalTime><TimeIncrement>)" +
                                 std::to_string(p.timeIncrement) + R"(</TimeIncrement></TsunamiCalcSetting>
    <Region><RegionNo>1</RegionNo><RegionName>Outer</RegionName><BaseRegionNo>0</BaseRegionNo>
      <GridSize>0.01</GridSize><Topography><FileName>outer.txt</FileName></Topography></Region>
    <Region><RegionNo>2</RegionNo><RegionName>Inner</RegionName><BaseRegionNo>1</BaseRegionNo>
      <GridSize>)" + std::to_string(p.innerSpacing) +
                                 R"(</GridSize><Topography><FileName>inner.txt</FileName></Topography></Region>
)" + p.extraRegionXml + R"(  </CalcParameter>
  <CalcOutputSetting>)" + stations + R"(</CalcOutputSetting>
</Project>
)");
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
    testing::internal::CaptureStdout();
    const int status = RunCheck(o);
    const std::string json = testing::internal::GetCapturedStdout();
    o.json = false;
    testing::internal::CaptureStdout();
    (void)RunCheck(o);
    const std::string text = testing::internal::GetCapturedStdout();
    std::filesystem::current_path(back);
    return {status, nlohmann::json::parse(json), text};
}

} // namespace

TEST(PrepCheck, EachSuspectProjectGivesExactlyItsWarning) {
    struct Case {
        const char* name;
        std::function<void(Project&)> change;
        std::string expected; // in the one finding's message; empty: no finding at all
    };
    const Case cases[] = {
        {"clean", [](Project&) {}, ""},
        {"cfl", [](Project& p) { p.timeIncrement = 5; },
         "region 2 (Inner): CFL number 1.22 is above 1, so the calculation is unstable (time "
         "step 5 s on 182 m cells, 100 m deep); a TimeIncrement of 4.11 s or less brings every "
         "region to 1"},
        {"nan", [](Project& p) { p.outer = [](int i, int j) { return i == 3 && j == 4 ? std::string("nan") : Depth(-100); }; },
         "region 1 (Outer): 1 cells of outer.txt hold NaN or infinity, the first cell (4, 5) at (140.035, 35.045)"},
        {"nodata", [](Project& p) { p.outer = [](int i, int) { return i == 0 ? Depth(-9999) : Depth(-100); }; },
         "region 1 (Outer): 20 cells of outer.txt hold -9999, a nodata marker read as a real depth"},
        {"repeated fill",
         [](Project& p) {
             p.outer = [](int i, int) { return i >= 12 ? Depth(-99999) : Depth(-100); };
             p.timeIncrement = 0.5; // stable even at that depth
         },
         "region 1 (Outer): 40 % of outer.txt holds its deepest value -99999, which looks like a "
         "nodata marker"},
        {"misaligned", [](Project& p) { p.innerOrgX = 140.0515; },
         "region 2 (Inner): its cell edges do not fall on region 1 (Outer)'s cell edges"},
        {"ratio", [](Project& p) { p.innerSpacing = 0.003; },
         "region 2 (Inner): its spacing 0.003 does not divide region 1 (Outer)'s spacing 0.01"},
        {"jump", [](Project& p) { p.inner = [](int, int) { return Depth(-150); }; },
         "region 2 (Inner): along its boundary 96 of 96 points differ from region 1 (Outer)'s "
         "depths by more than 10 % of the depth or 5 m; the largest, 50 m"},
        {"cut off",
         [](Project& p) {
             p.outer = [](int i, int j) {
                 const bool ring = (i == 14 || i == 18) && j >= 14 && j <= 18;
                 const bool ringY = (j == 14 || j == 18) && i >= 14 && i <= 18;
                 return ring || ringY ? Depth(10) : Depth(-100);
             };
         },
         "region 1 (Outer): 9 sea cells are cut off from open water and become land in the run's "
         "land map, the first at cell (16, 16)"},
        {"station outside", [](Project& p) { p.stations = "140.1 35.1 A\n141.5 35.1 Far\n"; },
         "station Far (141.5, 35.1) of stations.txt lies outside every region of EPSG 4612: the "
         "run drops it"},
        {"one shapefile", [](Project& p) { p.stations = "140.1 35.1 A\n"; p.twoStationLists = true; },
         "the station lists stations.txt and stations.txt are both in EPSG 4612, so both write "
         "Station_4612.shp; the run keeps only the last"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        Project project;
        c.change(project);
        Write(dir, project);
        const Checked checked = Check(dir);
        const nlohmann::json& findings = checked.report["findings"];
        if (c.expected.empty()) {
            EXPECT_EQ(checked.status, 0) << checked.text;
            EXPECT_TRUE(findings.empty()) << checked.text;
            continue;
        }
        EXPECT_EQ(checked.status, 2) << checked.text;
        ASSERT_EQ(findings.size(), 1u) << checked.text;
        EXPECT_EQ(findings[0]["level"], "warning");
        const std::string message = findings[0]["message"];
        EXPECT_NE(message.find(c.expected), std::string::npos) << message;
        EXPECT_NE(checked.text.find("warning  " + message), std::string::npos) << checked.text;
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
    const std::function<void(const TempDir&)> breakages[] = {
        [](const TempDir& dir) { // no TotalTime
            std::string xml = Slurp(dir.path() / "project.xml");
            xml.replace(xml.find("<TotalTime>600</TotalTime>"), 26, "");
            dir.Write("project.xml", xml);
        },
        [](const TempDir& dir) { dir.Write("inner.txt", "3 2\n140.1 35.1\n1 2 3 4 5\n"); },
        [](const TempDir& dir) { // the nested grid reaches past its base's eastern edge
            dir.Write("inner.txt", TextGrid(25, 25, 140.151, 35.051, [](int, int) { return Depth(-100); }));
        },
        [](const TempDir& dir) { dir.Write("fault.txt", "35.0 140.1 5000\n"); },
        [](const TempDir& dir) { // a colour table file that is not there
            std::string xml = Slurp(dir.path() / "project.xml");
            xml.insert(xml.find("</Project>"), "<GeotiffSetting><Topography><FileName>gone.clr"
                                               "</FileName></Topography></GeotiffSetting>");
            dir.Write("project.xml", xml);
        },
        [](const TempDir& dir) { // a deformation stage file that is not there
            std::string xml = Slurp(dir.path() / "project.xml");
            xml.insert(xml.find("</CalcParameter>"),
                       "<DynamicDeformationParameter><FileName>gone.txt</FileName>"
                       "</DynamicDeformationParameter>");
            dir.Write("project.xml", xml);
        },
    };
    for (const auto& breakage : breakages) {
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
