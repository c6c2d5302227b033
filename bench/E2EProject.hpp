#pragma once

// The large project of the end-to-end benchmark, for every benchmark that needs a whole
// run's worth of input: three nested regions, every grid as text, side files, pictures.

#include "BenchSupport.hpp"

#include "project/FilePtr.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

namespace bench {
inline constexpr int kValuesPerLine = 10;   // grid lines stay far below the reader's line pieces
inline constexpr int kCellsPerClLine = 5;   // construction-line lines hold whole cells (4 tokens)
inline constexpr int kTideCm = 50;          // TideWaterLevel, as the land map counts it
inline constexpr double kOuterSpacing = 0.0025; // degrees
inline constexpr double kBaySpacing = 90.0;     // metres
inline constexpr double kHarbourSpacing = 30.0; // metres
// EPSG 2451 has its origin at 36 N, 139°50' E; the outer region is centred there so the
// plane regions sit well inside it.
inline constexpr double kPlaneOriginLon = 139.0 + 50.0 / 60.0;
inline constexpr double kPlaneOriginLat = 36.0;
inline constexpr double kPi = 3.141592653589793;

inline char* AppendText(char* out, const char* text) {
    while (*text != '\0')
        *out++ = *text++;
    return out;
}

// Geometry of one generated region.
struct Grid {
    int nx;
    int ny;
    double orgX;
    double orgY;
    double spacing;
};

// Outer region, in hundredths of a metre: a shelf falling to an abyssal plain eastwards,
// a coast with headlands and islands in the west, noise so that rows differ.
inline long long OuterCm(int i, int j, int n) {
    const double x = static_cast<double>(i) / n;
    const double y = static_cast<double>(j) / n;
    const double shelf = 300.0 - 6500.0 * (1.0 - std::exp(-4.0 * (x - 0.25)));
    const double relief = 600.0 * std::sin(23.0 * x + 7.0 * y) * std::cos(17.0 * y - 3.0 * x);
    const double noise = static_cast<double>((i * 7919 + j * 104729) % 997) / 10.0;
    return std::llround(std::clamp(shelf + relief + noise, -8000.0, 2500.0) * 100.0);
}

// Plane regions share one landscape so that the harbour refines the bay: land north of a
// winding coast, a shelf south of it.
struct Coast {
    double baseY; // metres, northing of the mean coast line
    double swing; // metres, amplitude of its bends
    double wave;  // metres, length of one bend
    double CoastY(double x) const { return baseY + swing * std::sin(2.0 * kPi * x / wave); }
    long long HeightCm(double x, double y, int i, int j) const {
        const double d = y - CoastY(x);
        const double metres = d >= 0.0 ? std::min(40.0, 0.004 * d + 0.6)
                                       : std::max(-250.0, 0.012 * d - 1.5);
        const double noise = static_cast<double>((i * 7919 + j * 104729) % 97) / 100.0;
        return std::llround((metres + noise) * 100.0);
    }
};

// Basins fenced by breakwaters along the coast, each with a mouth in its seaward side,
// and sea walls between them; the faces are those of ConstLineParam's identifier grid.
class Structures {
  public:
    Structures(const Grid& g, const Coast& coast) : g_(g), coastRow_(g.nx) {
        for (int i = 0; i < g.nx; ++i)
            coastRow_[i] = static_cast<int>(
                std::floor((coast.CoastY(g.orgX + i * g.spacing) - g.orgY) / g.spacing));
        const int width = std::max(12, g.nx / 30);
        for (int i0 = width; i0 + width < g.nx - width; i0 += 3 * width) {
            const int i1 = i0 + width;
            int top = coastRow_[i0];
            for (int i = i0; i <= i1; ++i)
                top = std::max(top, coastRow_[i]);
            Basin b{i0, top - width, i1, top + 2, i0 + width / 3, std::max(2, width / 6)};
            if (b.j0 > 2 && b.j1 < g.ny - 2)
                basins_.push_back(b);
        }
    }

    // Identifier of the structure on face k of cell (i, j): 1 breakwater, 2 sea wall,
    // 3 a sunk breakwater, 0 none. Of every four basins two have a mouth, one is closed
    // (a lagoon, land to the land map) and one is closed by a sunk breakwater (water
    // again once the wave-breaker map has dropped it).
    int Id(int i, int j, int k) const {
        for (std::size_t b = 0; b < basins_.size(); ++b) {
            const Basin& s = basins_[b];
            const int id = b % 4 == 3 ? 3 : 1;
            const bool mouth = b % 2 == 0 && i >= s.gapAt && i < s.gapAt + s.gap;
            if (k == 0 && (j == s.j0 - 1 || j == s.j1) && i >= s.i0 && i <= s.i1 &&
                (j != s.j0 - 1 || !mouth))
                return id;
            if (k == 1 && (i == s.i0 - 1 || i == s.i1) && j >= s.j0 && j <= s.j1)
                return id;
        }
        if (k == 0 && i >= 0 && i < g_.nx && j == coastRow_[i] && i % 200 < 150)
            return 2;
        return 0;
    }

  private:
    struct Basin {
        int i0, j0, i1, j1, gapAt, gap;
    };
    Grid g_;
    std::vector<int> coastRow_;
    std::vector<Basin> basins_;
};

// Writes "nx ny", the header line and nx * ny values of `cell`, x fastest, wrapped.
inline bool WriteGrid(const std::string& path, const Grid& g, const std::string& header,
               const std::function<char*(char*, int, int)>& cell, int cellsPerLine) {
    FilePtr file(std::fopen(path.c_str(), "w"));
    if (!file)
        return false;
    std::fprintf(file.get(), "%d %d\n%s\n", g.nx, g.ny, header.c_str());
    std::vector<char> row(static_cast<std::size_t>(g.nx) * 48 + 2);
    for (int j = 0; j < g.ny; ++j) {
        char* out = row.data();
        for (int i = 0; i < g.nx; ++i) {
            out = cell(out, i, j);
            *out++ = (i % cellsPerLine == cellsPerLine - 1 || i == g.nx - 1) ? '\n' : ' ';
        }
        std::fwrite(row.data(), 1, static_cast<std::size_t>(out - row.data()), file.get());
    }
    return std::ferror(file.get()) == 0 && std::fclose(file.release()) == 0;
}

inline std::string Origin(const Grid& g) {
    char text[96];
    std::snprintf(text, sizeof text, "%.6f %.6f", g.orgX, g.orgY);
    return text;
}

inline bool WriteText(const std::string& path, const std::string& text) {
    std::ofstream out(path);
    out << text;
    return static_cast<bool>(out);
}

inline char* AppendFace(char* out, int id) {
    static const char* const kFace[] = {"0.0 0", "5.0 1", "3.0 2", "5.0 3"};
    return AppendText(out, kFace[id]);
}

// Topography, roughness and construction lines of a plane region.
inline bool WritePlaneRegion(const std::string& dir, const std::string& name, const Grid& g,
                      const Coast& coast, std::vector<std::string>& grids) {
    const auto height = [&](int i, int j) {
        return coast.HeightCm(g.orgX + i * g.spacing, g.orgY + j * g.spacing, i, j);
    };
    const std::string topography = dir + "/" + name + "_Topography.txt";
    const std::string roughness = dir + "/" + name + "_Roughness.txt";
    const std::string lines = dir + "/" + name + "_ConstructionLine.txt";
    const Structures structures(g, coast);
    char corners[160];
    std::snprintf(corners, sizeof corners, "%.6f %.6f %.6f %.6f\n3\n1 Breakwater\n2 Seawall\n"
                  "3 SunkBreakwater", g.orgX, g.orgY, g.orgX + (g.nx - 1) * g.spacing,
                  g.orgY + (g.ny - 1) * g.spacing);
    const bool ok =
        WriteGrid(topography, g, Origin(g),
                  [&](char* out, int i, int j) { return AppendFixed2(out, height(i, j)); },
                  kValuesPerLine) &&
        WriteGrid(roughness, g, Origin(g),
                  [&](char* out, int i, int j) {
                      return AppendText(out, height(i, j) > 0 ? "0.040" : "0.025");
                  },
                  kValuesPerLine) &&
        WriteGrid(lines, g, corners,
                  [&](char* out, int i, int j) {
                      out = AppendFace(out, structures.Id(i, j, 0));
                      *out++ = ' ';
                      return AppendFace(out, structures.Id(i, j, 1));
                  },
                  kCellsPerClLine);
    grids.insert(grids.end(), {topography, roughness, lines});
    return ok;
}

// Named points spread over a rectangle, in its system's units.
inline std::string PointList(const char* prefix, int count, double x0, double y0, double w, double h,
                      const std::function<double(double)>& yAt = {}) {
    std::string text = "# x y name\n";
    char line[128];
    for (int p = 0; p < count; ++p) {
        const double x = x0 + w * (p + 0.5) / count;
        const double y = yAt ? yAt(x) : y0 + h * std::fmod(p * 0.618034, 1.0);
        std::snprintf(line, sizeof line, "%.2f %.2f %s%04d\n", x, y, prefix, p + 1);
        text += line;
    }
    return text;
}

inline std::string RegionXml(int no, const char* name, int base, int epsg, double spacing,
                      const std::string& body) {
    char head[512];
    std::snprintf(head, sizeof head,
                  "    <Region>\n      <RegionNo>%d</RegionNo>\n      <RegionName>%s</RegionName>\n"
                  "      <BaseRegionNo>%d</BaseRegionNo>\n      <EPSG>%d</EPSG>\n"
                  "      <GridSize>%.6g</GridSize>\n      <NonLinearTerm>1</NonLinearTerm>\n"
                  "      <DispersiveTerm>0</DispersiveTerm>\n",
                  no, name, base, epsg, spacing);
    return head + body + "    </Region>\n";
}

inline std::string FileElement(const char* element, const std::string& file) {
    return "      <" + std::string(element) + "><FileName>" + file + "</FileName></" + element +
           ">\n";
}

inline std::string ProjectXml(const std::string& regions) {
    return R"(<?xml version="1.0" encoding="UTF-8"?>
<QuorProject>
  <ProjectName>Bench</ProjectName>
  <DestDir>Calc</DestDir>
  <Datum>2451</Datum>
  <CalcParameter>
    <InitialWaveHeightSetting>
      <DeformationTolerance>0.01</DeformationTolerance>
      <HorizontalDeformation>0</HorizontalDeformation>
      <HydraulicFilter>0</HydraulicFilter>
      <FaultModel><EPSG>4612</EPSG><FileName>data/Fault.txt</FileName></FaultModel>
      <LinearWaveSource><Type>0</Type><Height>1.0</Height><Width>1.0</Width></LinearWaveSource>
    </InitialWaveHeightSetting>
    <TsunamiCalcSetting>
      <TotalTime>7200</TotalTime>
      <TimeIncrement>0.5</TimeIncrement>
      <TimeNestingCFLLimit>0.8</TimeNestingCFLLimit>
      <TideWaterLevel>)" +
           std::to_string(kTideCm) + R"(</TideWaterLevel>
      <RiseUpType>0</RiseUpType>
      <TsunamiLoadingCoefficient>1.0</TsunamiLoadingCoefficient>
      <SpongeBoundary>1</SpongeBoundary>
      <FlowVelocityLimit>20.0</FlowVelocityLimit>
      <FroudeNumberLimit>2.0</FroudeNumberLimit>
      <CalculateControl>0</CalculateControl>
      <ControlThreshold>0.01</ControlThreshold>
      <DispersiveWave><MinDepth>100.0</MinDepth><MaxIter>200</MaxIter><ConvergenceValue>1e-10</ConvergenceValue></DispersiveWave>
    </TsunamiCalcSetting>
    <LayerSet>
      <Layer><LayerNo>1</LayerNo><GridSize>270</GridSize><TimeIncrementRatio>1</TimeIncrementRatio></Layer>
      <Layer><LayerNo>2</LayerNo><GridSize>90</GridSize><TimeIncrementRatio>3</TimeIncrementRatio></Layer>
      <Layer><LayerNo>3</LayerNo><GridSize>30</GridSize></Layer>
    </LayerSet>
)" + regions +
           R"(    <DynamicDeformationParameter><FileName>data/DynamicDeformation.txt</FileName></DynamicDeformationParameter>
    <ConstructionLineParameter><FileName>data/ConstructionLineParameter.txt</FileName></ConstructionLineParameter>
  </CalcParameter>
  <CalcOutputSetting>
    <OutputStartTime>0</OutputStartTime>
    <Dump1d>
      <Interval>5.0</Interval>
      <StationPos><EPSG>2451</EPSG><FileName>data/Stations.txt</FileName></StationPos>
      <StationPos><EPSG>4612</EPSG><FileName>data/OffshoreStations.txt</FileName></StationPos>
      <Buffering>1</Buffering>
      <Monolithic>1</Monolithic>
      <WaterHeight><Output>1</Output></WaterHeight>
      <TotalDepth><Output>0</Output></TotalDepth>
      <WaterDischarge><Output>0</Output></WaterDischarge>
    </Dump1d>
    <Dump2d>
      <Interval>300.0</Interval>
      <WaterHeight><Output>1</Output></WaterHeight>
      <WaterDischarge><Output>0</Output></WaterDischarge>
    </Dump2d>
    <CoastalPoint>
      <Interval>300.0</Interval>
      <ExtractPoint><EPSG>2451</EPSG><FileName>data/CoastPoints.txt</FileName></ExtractPoint>
      <WaterHeight><Output>1</Output></WaterHeight>
      <WaterHeightArrivalTime><Output>1</Output><ThresholdFileName>data/Threshold.txt</ThresholdFileName></WaterHeightArrivalTime>
      <RelativeWaterHeight><Output>0</Output></RelativeWaterHeight>
      <RelativeWaterHeightArrivalTime><Output>0</Output><ThresholdFileName>data/Threshold.txt</ThresholdFileName></RelativeWaterHeightArrivalTime>
    </CoastalPoint>
    <Land>
      <Interval>300.0</Interval>
      <Inundation><Output>1</Output></Inundation>
      <InundationArrivalTime><Output>0</Output><ThresholdFileName>data/Threshold.txt</ThresholdFileName></InundationArrivalTime>
    </Land>
  </CalcOutputSetting>
  <GeotiffSetting>
    <Topography><FileName>data/Topography.clr</FileName></Topography>
    <RoughnessCoefficient><FileName>data/Roughness.clr</FileName></RoughnessCoefficient>
    <WaveHeight><FileName>data/WaveHeight.clr</FileName></WaveHeight>
  </GeotiffSetting>
</QuorProject>
)";
}

struct Project {
    std::vector<std::string> grids; // every text grid the run reads
    std::vector<Grid> regions;
};

// Writes the whole project under `dir` ("project.xml" and "data/").
inline bool WriteProject(const std::string& dir, int n, Project& project) {
    const std::string data = dir + "/data";
    std::filesystem::create_directory(data);

    const Grid outer{n, n, kPlaneOriginLon - (n / 2) * kOuterSpacing,
                     kPlaneOriginLat - (n / 2) * kOuterSpacing, kOuterSpacing};
    const int bayCount = std::clamp(n / 4, 200, 1000);
    const double bayExtent = bayCount * kBaySpacing;
    const Grid bay{bayCount, bayCount, -bayExtent / 2, -bayExtent / 2, kBaySpacing};
    const int harbourCount = bayCount * 9 / 10;
    const double harbourExtent = harbourCount * kHarbourSpacing;
    const Coast coast{bay.orgY + 0.6 * bayExtent, 0.04 * bayExtent, 0.5 * bayExtent};
    const Grid harbour{harbourCount, harbourCount, bay.orgX + 0.3 * bayExtent,
                       coast.baseY - harbourExtent / 2, kHarbourSpacing};
    project.regions = {outer, bay, harbour};

    // The land map file states the tide level it was made at, as the run checks.
    char landMapName[64];
    std::snprintf(landMapName, sizeof landMapName, "Outer_LandMap_P%03d.txt", kTideCm);
    const std::string outerFiles[] = {data + "/Outer_Topography.txt",
                                      data + "/Outer_Roughness.txt", data + "/" + landMapName};
    const auto tide = static_cast<long long>(kTideCm);
    bool ok =
        WriteGrid(outerFiles[0], outer, Origin(outer),
                  [n](char* out, int i, int j) { return AppendFixed2(out, OuterCm(i, j, n)); },
                  kValuesPerLine) &&
        WriteGrid(outerFiles[1], outer, Origin(outer),
                  [n](char* out, int i, int j) {
                      return AppendText(out, OuterCm(i, j, n) > 0 ? "0.040" : "0.025");
                  },
                  kValuesPerLine) &&
        WriteGrid(outerFiles[2], outer, Origin(outer),
                  [n, tide](char* out, int i, int j) {
                      *out++ = OuterCm(i, j, n) >= tide ? '1' : '0';
                      return out;
                  },
                  kValuesPerLine);
    project.grids.assign(std::begin(outerFiles), std::end(outerFiles));
    ok = ok && WritePlaneRegion(data, "Bay", bay, coast, project.grids) &&
         WritePlaneRegion(data, "Harbour", harbour, coast, project.grids);

    const double fifth = outer.nx * kOuterSpacing / 5.0;
    ok = ok &&
         WriteText(data + "/Fault.txt",
                   "# lat lon depth(m) unused strike(deg) dip(deg) rake(deg) length(m) "
                   "width(m) slip(m) name\n"
                   "35.020 140.650 10000 0 45 30 90 60000 30000 4.5 \"Segment1\"\n"
                   "35.400 141.020 12000 0 40 25 90 50000 30000 3.5 \"Segment2\"\n"
                   "35.800 141.300 15000 0 35 20 90 40000 25000 2.0 \"Segment3\"\n") &&
         WriteText(data + "/DynamicDeformation.txt",
                   "# order valid-time(s) rise-time(s)\n1 0.0 30.0\n2 60.0 30.0\n3 120.0 45.0\n") &&
         WriteText(data + "/ConstructionLineParameter.txt",
                   "# id sink-rate kind label\n1 0.0 0 Breakwater\n2 0.5 1 Seawall\n"
                   "3 1.0 2 SunkBreakwater\n") &&
         WriteText(data + "/Threshold.txt", "0.5\n") &&
         WriteText(data + "/Stations.txt",
                   PointList("ST", 200, harbour.orgX, harbour.orgY, harbourExtent,
                             harbourExtent * 0.45) +
                       PointList("BS", 100, bay.orgX, bay.orgY, bayExtent, bayExtent * 0.55)) &&
         WriteText(data + "/OffshoreStations.txt",
                   PointList("OS", 100, outer.orgX + fifth, outer.orgY + fifth, 3 * fifth,
                             3 * fifth)) &&
         WriteText(data + "/CoastPoints.txt",
                   PointList("CP", 2000, harbour.orgX, 0.0, harbourExtent, 0.0,
                             [&](double x) { return coast.CoastY(x) - 20.0; }) +
                       PointList("CB", 1000, bay.orgX, 0.0, bayExtent, 0.0,
                                 [&](double x) { return coast.CoastY(x) - 60.0; })) &&
         WriteText(data + "/Topography.clr", "-10000 8 29 88\n-500 37 52 148\n"
                                             "-100 65 105 225\n-20 100 149 237\n"
                                             "-5 135 206 250\n0 120 180 90\n") &&
         WriteText(data + "/Roughness.clr", "0.000 255 255 255\n0.020 200 220 255\n"
                                            "0.025 120 160 230\n0.030 60 100 200\n"
                                            "0.040 20 40 140\n") &&
         WriteText(data + "/WaveHeight.clr", "-100 0 0 128\n-1 0 0 255\n-0.1 200 200 255\n"
                                             "0 255 255 255\n0.1 255 200 200\n");

    const auto rel = [&](const std::string& path) { return path.substr(dir.size() + 1); };
    const std::string regions =
        RegionXml(1, "Outer", 0, 4612, kOuterSpacing,
                  FileElement("Topography", rel(outerFiles[0])) +
                      FileElement("RoughnessCoefficient", rel(outerFiles[1])) +
                      FileElement("LandMap", rel(outerFiles[2]))) +
        RegionXml(2, "Bay", 1, 2451, kBaySpacing,
                  FileElement("Topography", "data/Bay_Topography.txt") +
                      FileElement("RoughnessCoefficient", "data/Bay_Roughness.txt") +
                      FileElement("ConstructionLineData", "data/Bay_ConstructionLine.txt")) +
        RegionXml(3, "Harbour", 2, 2451, kHarbourSpacing,
                  FileElement("Topography", "data/Harbour_Topography.txt") +
                      FileElement("RoughnessCoefficient", "data/Harbour_Roughness.txt") +
                      FileElement("ConstructionLineData",
                                  "data/Harbour_ConstructionLine.txt"));
    return ok && WriteText(dir + "/project.xml", ProjectXml(regions));
}

// A project of one plane region of n x n points (EPSG 2451, 30 m) with every grid the run
// derives: topography and roughness as text grids, construction lines (with `lines`) or
// none, the land map made by the run, the deformation stages, stations and every picture.
// The memory a run needs per cell is measured on it.
inline bool WriteOneRegionProject(const std::string& dir, int n, bool lines) {
    const std::string data = dir + "/data";
    std::filesystem::create_directory(data);
    const double extent = n * kHarbourSpacing;
    const Grid g{n, n, -extent / 2, -extent / 2, kHarbourSpacing};
    const Coast coast{g.orgY + 0.6 * extent, 0.04 * extent, 0.5 * extent};
    std::vector<std::string> grids;
    bool ok = WritePlaneRegion(data, "Solo", g, coast, grids);
    if (!lines)
        std::filesystem::remove(data + "/Solo_ConstructionLine.txt");
    ok = ok &&
         WriteText(data + "/Fault.txt",
                   "# lat lon depth(m) unused strike(deg) dip(deg) rake(deg) length(m) "
                   "width(m) slip(m) name\n"
                   "35.020 140.650 10000 0 45 30 90 60000 30000 4.5 \"Segment1\"\n") &&
         WriteText(data + "/DynamicDeformation.txt",
                   "# order valid-time(s) rise-time(s)\n1 0.0 30.0\n2 60.0 30.0\n") &&
         WriteText(data + "/ConstructionLineParameter.txt",
                   "# id sink-rate kind label\n1 0.0 0 Breakwater\n2 0.5 1 Seawall\n"
                   "3 1.0 2 SunkBreakwater\n") &&
         WriteText(data + "/Threshold.txt", "0.5\n") &&
         WriteText(data + "/Stations.txt",
                   PointList("ST", 300, g.orgX, g.orgY, extent, extent * 0.55)) &&
         WriteText(data + "/OffshoreStations.txt", "# none\n") &&
         WriteText(data + "/CoastPoints.txt",
                   PointList("CP", 2000, g.orgX, 0.0, extent, 0.0,
                             [&](double x) { return coast.CoastY(x) - 20.0; })) &&
         WriteText(data + "/Topography.clr", "-10000 8 29 88\n-500 37 52 148\n"
                                             "-100 65 105 225\n-20 100 149 237\n"
                                             "-5 135 206 250\n0 120 180 90\n") &&
         WriteText(data + "/Roughness.clr", "0.000 255 255 255\n0.025 120 160 230\n"
                                            "0.040 20 40 140\n") &&
         WriteText(data + "/WaveHeight.clr", "-100 0 0 128\n-1 0 0 255\n-0.1 200 200 255\n"
                                             "0 255 255 255\n0.1 255 200 200\n");
    std::string body = FileElement("Topography", "data/Solo_Topography.txt") +
                       FileElement("RoughnessCoefficient", "data/Solo_Roughness.txt");
    if (lines)
        body += FileElement("ConstructionLineData", "data/Solo_ConstructionLine.txt");
    return ok && WriteText(dir + "/project.xml",
                           ProjectXml(RegionXml(1, "Solo", 0, 2451, kHarbourSpacing, body)));
}

} // namespace bench
