// Prints how long seaforge-prep nest takes to design and build a four-level chain from one
// large GeoTIFF beside the four grid calls and the check of the same project, and its peak
// memory beside the largest grid call's; not a test. Every program runs as a child process.
//
//   seaforge_nest_bench [--repeat N] [--keep] [--cells N]   (the source is N x N, 10000)
#include "BenchSupport.hpp"
#include "ReliefSource.hpp"

#include "prep/Plan.hpp"

#include <gdal_priv.h>
#include <ogr_spatialref.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

} // namespace

int main(int argc, char** argv) {
    const auto [repeat, keep, cells] =
        bench::ParsePrepBenchArgs(argc, argv, {2, false, 10000}, 100);
    const fs::path prep = fs::canonical("/proc/self/exe").parent_path().parent_path() / "seaforge-prep";
    std::string pattern = (fs::temp_directory_path() / "seaforge-nest-bench-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr)
        return 1;
    const fs::path dir = pattern;
    const std::string source = (dir / "source.tif").string();
    std::printf("Writing a %d x %d GeoTIFF source in %s ...\n", cells, cells, dir.c_str());
    WriteReliefSource(source, cells, 141.3, 39.6, 1.0 / cells); // one degree square
    std::ofstream(dir / "fault.txt") << "39.100 141.950 15000 0 190 15 90 20000 10000 2.0 \"F\"\n";

    // Both sides read the source from the page cache: whichever went first would otherwise
    // pay for the disk alone.
    {
        std::ifstream warm(source, std::ios::binary);
        std::vector<char> buffer(1 << 20);
        while (warm.read(buffer.data(), static_cast<std::streamsize>(buffer.size())))
            ;
    }
    const fs::path out = dir / "Chain";
    const std::vector<std::string> nestArgs = {
        prep.string(), "nest", "-q", "--site", "141.85", "39.1", "--radius", "2km",
        "--finest", "10", "--levels", "4", "--fault", (dir / "fault.txt").string(), "--force",
        "-o", out.string(), source};
    bench::Child bestNest;
    bench::Child bestParts;
    long long largestGrid = 0;
    for (int r = 0; r < repeat; ++r) {
        fs::remove_all(out);
        const bench::Child nest = bench::RunChild(nestArgs);
        if (nest.status != 0 && nest.status != 2) {
            std::printf("seaforge-prep nest failed with status %d\n", nest.status);
            return 1;
        }
        bestNest.seconds = std::min(bestNest.seconds, nest.seconds);
        bestNest.peakBytes = std::max(bestNest.peakBytes, nest.peakBytes);
        // The same project built by hand: one grid call a region, outermost first, and check.
        const Plan plan = ReadPlan((out / "Plan.json").string());
        double parts = 0;
        for (const PlanRegion& region : plan.regions) {
            std::vector<std::string> args = {prep.string(), "grid", "-q", plan.name + ".xml",
                                             "--region", std::to_string(region.number),
                                             "--bounds"};
            for (double b : region.bounds)
                args.push_back(ShortestDecimal(b));
            args.push_back(source);
            const bench::Child grid = bench::RunChild(args, out.string());
            if (grid.status != 0) {
                std::printf("seaforge-prep grid of region %d failed with status %d\n",
                            region.number, grid.status);
                return 1;
            }
            parts += grid.seconds;
            largestGrid = std::max(largestGrid, grid.peakBytes);
        }
        const bench::Child check =
            bench::RunChild({prep.string(), "check", plan.name + ".xml"}, out.string());
        parts += check.seconds;
        bestParts.seconds = std::min(bestParts.seconds, parts);
    }
    const double mib = 1024.0 * 1024.0;
    std::printf("four-level chain (10 m finest) from %d x %d (EPSG 4326), best of %d\n", cells,
                cells, repeat);
    std::printf("  seaforge-prep nest           %.2f s   peak %.0f MiB\n", bestNest.seconds,
                static_cast<double>(bestNest.peakBytes) / mib);
    std::printf("  4 x grid + check             %.2f s   largest grid peak %.0f MiB\n",
                bestParts.seconds, static_cast<double>(largestGrid) / mib);
    const double ratio = bestNest.seconds / bestParts.seconds;
    std::printf("time: %.2f x the grid calls and check (goal <= 1.2: %s)\n", ratio,
                ratio <= 1.2 ? "met" : "NOT met");
    const double over = static_cast<double>(bestNest.peakBytes - largestGrid) / mib;
    std::printf("memory: largest grid call + %.0f MiB (goal <= + 300 MiB: %s)\n", over,
                over <= 300 ? "met" : "NOT met");
    if (!keep)
        fs::remove_all(dir);
    else
        std::printf("kept %s\n", dir.c_str());
    return 0;
}
