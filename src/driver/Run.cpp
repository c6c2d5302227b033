#include "driver/Run.hpp"

#include "driver/MakeDir.hpp"
#include "inputs/ConstLineParam.hpp"
#include "inputs/DynamicParam.hpp"
#include "inputs/Fault.hpp"
#include "inputs/Station.hpp"
#include "project/Console.hpp"
#include "project/FilePtr.hpp"
#include "project/QuorXmlParameter.hpp"
#include "region/Region.hpp"
#include "region/SecondCore.hpp"
#include "region/TimeSteps.hpp"

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <cstdio>
#include <exception>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

const std::string program = "Seaforge";
const std::string version = "1.1.938";

void PrintBanner() {
    std::printf("=============================================\n");
    std::printf("       %s version %s\n", program.c_str(), version.c_str());
    std::printf("=============================================\n");
}

void usage(std::FILE* stream) {
    // Kept: the blank at the end of the usage, description and example lines.
    std::fprintf(stream, "\n"
                         "SYNOPSIS\n"
                         "    Usage: Seaforge <XML filename> \n"
                         "\n"
                         "DESCRIPTION\n"
                         "    Seaforge makes a QUOR project. \n"
                         "    Seaforge makes GeoTIFF Files and shapefiles. \n"
                         "\n"
                         "EXAMPLES\n"
                         "    $./Seaforge ./Example.xml \n"
                         "\n"
                         "COPYRIGHT\n"
                         "    Copyright (c) the Seaforge developers. \n"
                         "\n");
}

void PrintUsage() { usage(stdout); }

namespace {

using RegionMap = std::map<int, Region>;

// One map per grid kind, indexed by RType - 1, all holding the same region numbers.
struct RegionMaps {
    std::array<RegionMap, 9> byKind;
    RegionMap& operator[](RType kind) { return byKind[static_cast<size_t>(kind) - 1]; }
};

// The nine grids of one region while it is prepared.
struct RegionGrids {
    Region& T; // topography
    Region& R; // roughness coefficient
    Region& C; // construction-line data
    Region& M; // wave-breaker map
    Region& H; // wave-breaker height
    Region& L; // land map
    Region& V; // vertical deformation
    Region& Z; // horizontal deformation
    Region& I; // initial wave height
};

// Gives `grid` the points of the region's topography before it is filled.
void SizeLike(Region& grid, const Region& topography) {
    grid.Set2dStruct(topography.nx, topography.ny, topography.org_x, topography.org_y);
}

// The topography of the base region `baseRegionNo`. A number that names no region gets
// an empty grid, which no nested region fits in, rather than a new entry in the map.
const Region& BaseTopography(const RegionMap& topographies, int baseRegionNo) {
    static const Region kNoRegion;
    const auto base = topographies.find(baseRegionNo);
    return base != topographies.end() ? base->second : kNoRegion;
}

// A failed construction-line step names itself and the region's spacing before its code.
[[noreturn]] void FailConstructionLines(const char* step, const Region& topography) {
    std::fprintf(stderr, "%s%g\n", step, topography.gridSize);
    throw 23;
}

// Everything the regions share while they are prepared one after another.
struct RegionInputs {
    const QuorXmlParameter& project;
    const RegionMap& topographies;
    const DynamicParam& dynamic;
    const ConstLineParam& constLine;
    int deformationEpsg;
};

void PrepareRegion(const RegionInputs& in, RegionGrids g) {
    const QuorXmlParameter& project = in.project;
    const std::string& destDir = project.DestDir;

    // Whether a grid comes from a file is decided before reading: the text reader
    // sets noFileName again on its own.
    const bool topographyFromFile = !g.T.noFileName;
    if (!g.T.ReadFile())
        throw 3;
    if (g.T.baseRegionNo > 0) {
        const Region& b = BaseTopography(in.topographies, g.T.baseRegionNo);
        if (!g.T.CheckComprisable(b.epsg, b.org_x, b.org_y, b.gridSize, b.nx, b.ny))
            throw 11;
    }
    if (!topographyFromFile && !g.T.WriteBIN(destDir))
        throw 3;
    const XML_GEOTIFFSETTING& pictures = project.GeotiffSetting;
    // Roughness and land maps hold a few classes: a byte a cell holds them exactly,
    // where doubles would take as much as the topography beside them.
    g.R.fewValues = true;
    g.L.fewValues = true;
    // The roughness grid is read on the second core while the topography picture is drawn
    // on this one (where GDAL's memory is reused by the later pictures): the read prints
    // nothing until the picture is known to be written, so the console and the files are
    // what drawing first and reading after would give.
    const bool roughnessFromFile = !g.R.noFileName;
    bool roughnessRead = false;
    if (!pictures.TopographyColorTable.empty()) {
        std::int64_t valueCount = 0;
        int readFailure = -1;
        std::exception_ptr readFailed;
        const auto read = [&] {
            try {
                readFailure = g.R.ReadFileQuietly(valueCount);
            } catch (...) {
                readFailed = std::current_exception();
            }
        };
        bool drawn = false;
        {
            // Made after what its job refers to: should the picture throw, the helper's end
            // waits for the read before any of that goes.
            const std::unique_ptr<SecondCore> second =
                roughnessFromFile ? SecondCore::StartIfUseful() : nullptr;
            if (second)
                second->Start(read);
            drawn = g.T.WriteGeoTIFF(destDir, pictures.TopographyColorTable, "");
            if (second && second->TakeBack())
                read();
            else if (second)
                second->Wait();
        }
        if (!drawn)
            throw 8;
        if (readFailed)
            std::rethrow_exception(readFailed);
        if (readFailure >= 0) {
            roughnessRead = true;
            if (!g.R.ReportQuietRead(readFailure, valueCount) || !isSameRegion(&g.T, &g.R))
                throw 14;
        }
    }

    if (roughnessFromFile) {
        if (!roughnessRead && (!g.R.ReadFile() || !isSameRegion(&g.T, &g.R)))
            throw 14;
    } else {
        SizeLike(g.R, g.T);
        g.R.Make2dStruct();
        // Kept: a roughness .bin that cannot be written reports as a topography failure.
        if (!g.R.WriteBIN(destDir))
            throw 3;
    }
    if (!pictures.RoughnessColorTable.empty() &&
        !g.R.WriteGeoTIFF(destDir, pictures.RoughnessColorTable, ""))
        throw 8;
    // Each grid goes as soon as this region's later steps stop reading it: the next grid
    // then takes memory the process has just used, which on some machines is many times
    // faster to fault in than memory it never had, and the peak stays one grid lower.
    g.R.FreeVecMem();

    // Wave breakers, the land map and the wave height are drawn with one table.
    const std::string& waveTable = pictures.WaveHeightColorTable;

    if (!g.C.noFileName) {
        if (!g.C.ReadFile())
            FailConstructionLines("Read", g.T);
        if (!isSameRegion(&g.T, &g.C))
            FailConstructionLines("Same", g.T);
        SizeLike(g.M, g.T);
        g.M.Make2dStructInt2();
        SizeLike(g.H, g.T);
        g.H.Make2dStruct2();
        if (!in.constLine.MakeWBMap(g.T.nx, g.T.ny, g.C.pairIntGrid, g.M.pairIntGrid))
            FailConstructionLines("Make", g.T);
        if (!in.constLine.SinkWB(g.T.nx, g.T.ny, project.TideWaterLevel, g.C.pairGrid,
                                 g.C.pairIntGrid, g.T.grid, g.H.pairGrid))
            FailConstructionLines("Sink", g.T);
        // The structures' heights have been sunk; only their identifiers are read again.
        g.C.pairGrid.Release();
        if (!g.M.WriteBIN(destDir) || !g.H.WriteBIN(destDir))
            throw 15;
        if (!waveTable.empty() && (!g.H.WriteGeoTIFF(destDir, waveTable, "N") ||
                                   !g.H.WriteGeoTIFF(destDir, waveTable, "E")))
            throw 8;
        g.H.FreeVecMem();
    } else {
        SizeLike(g.C, g.T);
        g.C.Make2dStructInt2();
        SizeLike(g.M, g.T);
        g.M.Make2dStructInt2();
    }

    const int tide = TideLevelOf(project.TideWaterLevel);
    if (!g.L.noFileName) {
        if (!g.L.CheckFileNameTide(tide) || !g.L.ReadFile() || !isSameRegion(&g.T, &g.L))
            throw 21;
    } else {
        SizeLike(g.L, g.T);
        // The land map works on its own copies of both structure maps; nothing reads them
        // after it, so they are handed over rather than copied.
        if (!g.L.MakeLandMap(g.T.grid, std::move(g.C.pairIntGrid), std::move(g.M.pairIntGrid),
                             tide))
            throw 15;
        if (!g.L.WriteBIN(destDir))
            throw 15;
    }
    g.C.FreeVecMem();
    g.M.FreeVecMem();
    if (!waveTable.empty() && !g.L.WriteGeoTIFF(destDir, waveTable, ""))
        throw 8;
    g.L.FreeVecMem();

    if (project.Faults.empty()) {
        if (!g.I.noFileName) {
            if (!g.I.ReadFile() || !isSameRegion(&g.T, &g.I))
                throw 13;
        } else {
            SizeLike(g.I, g.T);
            g.I.Make2dStruct();
        }
    } else {
        // The series grids take the region's geometry too, so that their pictures are
        // drawn on the region's points rather than refused as empty.
        for (Region* series : {&g.V, &g.Z, &g.I}) {
            SizeLike(*series, g.T);
            series->dynamicSeries.resize(in.dynamic.params.size());
        }
    }

    // Kept: the initial wave height and the vertical deformation get the stage lists;
    // codes 15 as for the other written grids.
    if (!g.I.SetDynamic(destDir, in.dynamic, in.deformationEpsg))
        throw 15;
    if (!g.I.noFileName && !waveTable.empty() && !g.I.WriteGeoTIFF(destDir, waveTable, ""))
        throw 8;
    if (!g.V.SetDynamic(destDir, in.dynamic, in.deformationEpsg))
        throw 15;
    if (!g.V.noFileName && !waveTable.empty() && !g.V.WriteGeoTIFF(destDir, waveTable, ""))
        throw 8;

    // Only the topography is needed by the stages after the regions.
    for (Region* done : {&g.R, &g.C, &g.M, &g.H, &g.L, &g.V, &g.Z, &g.I})
        done->FreeVecMem();
}

// Every region's time step and step ratio, then the report.
void CalcTimeSteps(const QuorXmlParameter& project, RegionMap& topographies) {
    if (WorkOutTimeSteps(topographies, project.TimeIncrement, project.TimeNestingCFLLimit, true)
            .failed)
        throw 10;
    for (const auto& [regionNo, r] : topographies) {
        std::printf("\n>>>>>>>>>>>>>>>>>>>>>>> Calc Time Step Ratio:%s\n", r.regionName.c_str());
        std::printf("    min. DX : %7.2f [m]\n", static_cast<double>(r.dxMeter));
        std::printf("         DT : %7.2f [sec]\n", r.dt);
        std::printf(" CFL number : %7.2f\n", r.cfl);
        std::printf("<<<<<<<<<<<<<<<<<<<<<<< Completed.\n");
    }
}

// Places every station on the regions of its list's system and writes one station file
// per region, or, for monolithic output, the best-point file naming each station's
// innermost region.
void WriteStations(const QuorXmlParameter& project, RegionMap& topographies,
                   std::vector<Station>& stations) {
    std::printf("\n>>>>>>>>>>>>>>>>>> Station Output:\n");
    for (auto& [regionNo, region] : topographies) {
        for (const Station& list : stations) {
            if (list.epsg != region.epsg)
                continue;
            for (const PosXY& point : list.points)
                region.FitPointToRegion(point.x, point.y, point.name, STATION_POINT);
        }
    }
    const std::string& destDir = project.DestDir;
    if (project.OutputSetting.Monolithic == 0) {
        for (auto& [regionNo, region] : topographies) {
            if (!region.WriteStaFile(destDir))
                throw 12;
        }
    } else {
        // The best-point file is appended to by every list, so a new run starts it afresh.
        const std::string bestPath = destDir + "/Dump1d_BEST.txt";
        if (std::FILE* old = std::fopen(bestPath.c_str(), "r")) {
            std::fclose(old);
            std::remove(bestPath.c_str());
        }
        // Per region, the first station fitted under each name: a station takes the cell
        // of the highest-numbered region of its system that holds its name.
        std::map<int, std::unordered_map<std::string, const PosIJ*>> fittedByName;
        for (const auto& [regionNo, region] : topographies) {
            auto& byName = fittedByName[regionNo];
            for (const PosIJ& fitted : region.stationPoints)
                byName.emplace(fitted.name, &fitted);
        }
        for (Station& list : stations) {
            for (PosXY& point : list.points) {
                for (const auto& [regionNo, region] : topographies) {
                    if (region.epsg != list.epsg || region.regionNo <= point.bestRegionNo)
                        continue;
                    const auto& byName = fittedByName[regionNo];
                    const auto fitted = byName.find(point.name);
                    if (fitted == byName.end())
                        continue;
                    point.bestRegionNo = region.regionNo;
                    point.bestI = fitted->second->i;
                    point.bestJ = fitted->second->j;
                }
            }
            if (!list.WriteBestPoint(bestPath))
                throw 12;
        }
    }
    std::printf("<<<<<<<<<<<<<<<<<< Completed.\n");
}

// Places every coastal point in the highest-numbered region of its list's system and
// writes each region's coastal point file.
void WriteCoastalPoints(const QuorXmlParameter& project, RegionMap& topographies,
                        const std::vector<Station>& extracts) {
    std::printf("\n>>>>>>>>>>>> Coast Extract Output:\n");
    for (const Station& list : extracts) {
        for (const PosXY& point : list.points) {
            for (auto region = topographies.rbegin(); region != topographies.rend(); ++region) {
                if (region->second.epsg != list.epsg)
                    continue;
                // Kept: fitting answers true even for a point outside the region, so the
                // point goes to the highest-numbered region of its system or nowhere.
                if (region->second.FitPointToRegion(point.x, point.y, point.name, EXTRACT_POINT))
                    break;
            }
        }
    }
    for (auto& [regionNo, region] : topographies) {
        if (!region.WriteExtFile(project.DestDir))
            throw 12;
    }
    std::printf("<<<<<<<<<<<<<<<<<< Completed.\n");
}

// Opens a configuration file of the working directory, named after the project.
FilePtr OpenConfigFile(const char* prefix, const std::string& projectName) {
    const std::string name = std::string(prefix) + projectName + ".txt";
    FilePtr file(std::fopen(name.c_str(), "w"));
    if (!file)
        throw 6;
    return file;
}

// Closes a configuration file; data that never reached the disk is a failed write.
void CloseConfigFile(FilePtr file) {
    if (std::ferror(file.get()) != 0 || std::fclose(file.release()) != 0)
        throw 6;
}

void WriteConfigFiles(const QuorXmlParameter& project, RegionMaps& maps) {
    std::printf("\n>>>>>>>>>>>>>>>>>> IWH Calculate Config TEXT File Output:\n");
    FilePtr iwhConf = OpenConfigFile("IWHConf_", project.ProjectName);
    project.writeIWHConf(iwhConf.get());
    for (const auto& [regionNo, topography] : maps[TPG_R])
        topography.WriteIWHConf(iwhConf.get());
    CloseConfigFile(std::move(iwhConf));
    std::printf("<<<<<<<<<<<<<<<<<< Completed.\n");

    std::printf("\n>>>>>>>>>>>>>>>>>> QUOR Calculate Parameter TEXT File Output:\n");
    FilePtr calcParam = OpenConfigFile("CalcParameter_", project.ProjectName);
    project.writeCalParam(calcParam.get());
    for (const auto& [regionNo, topography] : maps[TPG_R]) {
        for (RType kind : {TPG_R, VRT_R, IWH_R, LSM_R, RCF_R, WBM_R, WBH_R})
            maps[kind].at(regionNo).WriteCalParam(calcParam.get());
    }
    CloseConfigFile(std::move(calcParam));
    std::printf("<<<<<<<<<<<<<<<<<< Completed.\n");
}

} // namespace

void RunProject(const char* xmlFileName, const StageObserver& stageDone) {
    const auto done = [&stageDone](const std::string& stage) {
        if (stageDone)
            stageDone(stage);
    };
    std::printf("\n>>>>>>>>>>>>>>>>>> XML Input:\n");
    QuorXmlParameter project(xmlFileName);
    if (!project.exeParse())
        throw 1;
    if (!project.checkXML())
        throw 1;
    std::printf("<<<<<<<<<<<<<<<<<< Completed.(XML Input)\n");
    done("project file");

    // DestDir already carries the ProjectName prefix (see the reader).
    const std::string& destDir = project.DestDir;
    if (!MakeDir(destDir.c_str()))
        throw 1;
    if (!MakeDir((project.ProjectName + "/OUTPUT").c_str()))
        throw 1;

    RegionMaps maps;
    for (const auto& [regionNo, record] : project.Regions) {
        for (int kind = TPG_R; kind <= IWH_R; ++kind)
            maps[static_cast<RType>(kind)].emplace(regionNo,
                                                   Region(static_cast<RType>(kind), record));
    }

    // Kept: lists sharing an EPSG code write the same shapefile name, the last one winning.
    std::vector<Station> stations(project.StationPos.begin(), project.StationPos.end());
    for (Station& list : stations) {
        if (!list.ReadFile())
            throw 7;
        if (!list.MakeShapefile(StringPrintf("%s/Station_%04d.shp", destDir.c_str(), list.epsg)))
            throw 7;
    }
    std::vector<Station> extracts(project.ExtractPoints.begin(), project.ExtractPoints.end());
    for (Station& list : extracts) {
        if (!list.ReadFile())
            throw 17;
        if (!list.MakeShapefile(
                StringPrintf("%s/ExtractPoint_%04d.shp", destDir.c_str(), list.epsg)))
            throw 17;
    }
    done("point lists");

    std::vector<Fault> faults(project.Faults.begin(), project.Faults.end());
    double maxEndTime = 0.0;
    for (Fault& fault : faults) {
        if (!fault.ReadFile())
            throw 2;
        maxEndTime = std::max(maxEndTime, fault.endTime);
        // Kept: every fault's shapefile is written again after each fault is read.
        for (std::size_t j = 0; j < faults.size(); ++j) {
            if (!faults[j].MakeShapefile(StringPrintf("%s/FaultModel%03d.shp", destDir.c_str(),
                                                      static_cast<int>(j + 1))))
                throw 5;
        }
    }

    DynamicParam dynamic(project.Dynamic);
    if (!(dynamic.hasFile ? dynamic.ReadFile(maxEndTime) : dynamic.SetZero()))
        throw 18;

    ConstLineParam constLine(project.ConstLine);
    if (!constLine.noFile && !constLine.ReadFile())
        throw 19;
    done("faults and parameters");

    // Deformation stages belong to the first fault's system; without any fault the
    // project's datum stands in.
    const RegionInputs inputs{project, maps[TPG_R], dynamic, constLine,
                              faults.empty() ? project.Datum : faults.front().epsg};
    for (auto& [regionNo, topography] : maps[TPG_R]) {
        PrepareRegion(inputs, RegionGrids{topography, maps[RCF_R].at(regionNo),
                                          maps[CLD_R].at(regionNo), maps[WBM_R].at(regionNo),
                                          maps[WBH_R].at(regionNo), maps[LSM_R].at(regionNo),
                                          maps[VRT_R].at(regionNo), maps[HRZ_R].at(regionNo),
                                          maps[IWH_R].at(regionNo)});
        done(StringPrintf("region %d", regionNo));
    }

    CalcTimeSteps(project, maps[TPG_R]);
    done("time steps");

    WriteStations(project, maps[TPG_R], stations);
    WriteCoastalPoints(project, maps[TPG_R], extracts);
    done("stations and coastal points");

    WriteConfigFiles(project, maps);
    done("configuration files");

    for (auto& [regionNo, topography] : maps[TPG_R])
        topography.FreeVecMem();
    for (Fault& fault : faults)
        fault.FreeVecMem();

    std::printf("\nSuccessful Completion. ( Seaforge Done. )\n");
}
