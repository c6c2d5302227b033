// Prints how long `seaforge-prep overview` takes to draw a project whose outer region has
// 4000 x 4000 cells given as text, beside a Seaforge run of the same project, and the peak
// memory of each; not a test. Both run as child processes in the project's directory,
// taking turns.
//
//   seaforge_overview_bench [--repeat N] [--keep] [--cells N]
//
// Two projects: the end-to-end benchmark's (Outer, EPSG 4612, N x N points, default 4000,
// with topography, roughness and land map as text; Bay and Harbour in EPSG 2451 with
// construction lines; faults, deformation stages, 3 400 points, every GeoTIFF), and the
// same regions with their topographies only, the part the overview reads. The overview
// writes the picture and the GeoPackage.
#include "BenchSupport.hpp"
#include "E2EProject.hpp"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

// The same project with only what the overview reads: the three topographies (the run then
// fills roughness and land maps itself), the point lists and the fault; no pictures.
void WriteTopographiesOnly(const fs::path& dir, const bench::Project& full) {
    const char* names[] = {"Outer", "Bay", "Harbour"};
    const int epsg[] = {4612, 2451, 2451};
    std::string regions;
    for (int r = 0; r < 3; ++r) {
        const bench::Grid& g = full.regions[static_cast<std::size_t>(r)];
        const std::string file = std::string("data/") + names[r] + "_Topography.txt";
        regions += bench::RegionXml(r + 1, names[r], r, epsg[r], g.spacing,
                                    bench::FileElement("Topography", file));
    }
    std::ofstream(dir / "topographies.xml")
        << "<?xml version=\"1.0\"?>\n<Project><ProjectName>Lean</ProjectName>"
           "<DestDir>Calc</DestDir><CalcParameter><InitialWaveHeightSetting><FaultModel>"
           "<EPSG>4612</EPSG><FileName>data/Fault.txt</FileName></FaultModel>"
           "</InitialWaveHeightSetting><TsunamiCalcSetting><TotalTime>3600</TotalTime>"
           "<TimeIncrement>0.5</TimeIncrement><TimeNestingCFLLimit>0.8</TimeNestingCFLLimit>"
           "</TsunamiCalcSetting>\n"
        << regions
        << "</CalcParameter><CalcOutputSetting><Dump1d>"
           "<StationPos><EPSG>2451</EPSG><FileName>data/Stations.txt</FileName></StationPos>"
           "<StationPos><EPSG>4612</EPSG><FileName>data/OffshoreStations.txt</FileName>"
           "</StationPos></Dump1d><CoastalPoint><ExtractPoint><EPSG>2451</EPSG><FileName>"
           "data/CoastPoints.txt</FileName></ExtractPoint></CoastalPoint></CalcOutputSetting>"
           "</Project>\n";
}

struct Pair {
    bench::Child overview;
    bench::Child run;
};

// Best time and worst peak of each, the two taking turns.
bool TakeTurns(const fs::path& dir, const std::string& project, const fs::path& built,
               int repeat, Pair& best) {
    const std::vector<std::string> run = {(built / "Seaforge").string(), project};
    const std::vector<std::string> overview = {(built / "seaforge-prep").string(), "overview",
                                               project, "-o", "overview.png", "--gpkg",
                                               "overview.gpkg"};
    for (int r = 0; r < repeat; ++r) {
        const bench::Child o = bench::RunChild(overview, dir.string());
        const bench::Child s = bench::RunChild(run, dir.string());
        if (o.status != 0 || s.status != 0) {
            std::printf("a child failed on %s: overview %d, Seaforge %d (run it in %s)\n",
                        project.c_str(), o.status, s.status, dir.c_str());
            return false;
        }
        for (auto [into, from] : {std::pair{&best.overview, &o}, std::pair{&best.run, &s}}) {
            into->seconds = std::min(into->seconds, from->seconds);
            into->peakBytes = std::max(into->peakBytes, from->peakBytes);
        }
    }
    return true;
}

void Print(const char* title, const Pair& p) {
    const double mib = 1024.0 * 1024.0;
    const double ratio = p.overview.seconds / p.run.seconds;
    std::printf("%s\n", title);
    std::printf("  seaforge-prep overview (PNG + GeoPackage)  %.2f s   peak %4.0f MiB\n",
                p.overview.seconds, static_cast<double>(p.overview.peakBytes) / mib);
    std::printf("  Seaforge                                   %.2f s   peak %4.0f MiB\n",
                p.run.seconds, static_cast<double>(p.run.peakBytes) / mib);
    std::printf("  overview / run %.2f (goal <= 0.5: %s)\n", ratio, ratio <= 0.5 ? "met" : "NOT met");
}

} // namespace

int main(int argc, char** argv) {
    const auto [repeat, keep, cells] =
        bench::ParsePrepBenchArgs(argc, argv, {3, false, 4000}, 400);
    const fs::path built = fs::canonical("/proc/self/exe").parent_path().parent_path();
    std::string pattern = (fs::temp_directory_path() / "seaforge-overview-bench-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr)
        return 1;
    const fs::path dir = pattern;
    std::printf("Writing the end-to-end benchmark's project (%d x %d outer region) in %s ...\n",
                cells, cells, dir.c_str());
    bench::Project full;
    if (!bench::WriteProject(dir.string(), cells, full)) {
        std::printf("cannot write the project\n");
        return 1;
    }
    WriteTopographiesOnly(dir, full);

    Pair whole;
    Pair lean;
    if (!TakeTurns(dir, "project.xml", built, repeat, whole) ||
        !TakeTurns(dir, "topographies.xml", built, repeat, lean))
        return 1;
    std::printf("best of %d, taking turns\n", repeat);
    Print("the whole project (9 text grids, side files, every GeoTIFF):", whole);
    Print("the same regions with their topographies only:", lean);
    if (!keep)
        fs::remove_all(dir);
    else
        std::printf("kept %s\n", dir.c_str());
    return 0;
}
