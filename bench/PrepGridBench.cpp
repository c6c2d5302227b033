// Prints how long seaforge-prep grid takes beside gdalwarp doing the same warp, plain and
// with every core, and the peak memory of each beside the grid made; not a test. Two
// warps, each from a GeoTIFF and from a netCDF source:
//   average   an 8000 x 8000 geographic source (one degree) into 4000 x 4000 cells of 20 m
//   bilinear  a 3000 x 3000 geographic source (3 arc-seconds) into 3000 x 3000 cells of 10 m
// Every program runs as a child process; the three take turns, so a busy spell of a shared
// machine falls on all of them alike.
//
//   seaforge_prep_bench [--repeat N] [--keep] [--cells N]   (N: the averaging grid is N x N)
#include "BenchSupport.hpp"
#include "ReliefSource.hpp"

#include <gdal_priv.h>
#include <ogr_spatialref.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <sys/resource.h>

namespace {

namespace fs = std::filesystem;

// The same raster as a netCDF file, as GDAL's netCDF driver writes one by default.
void WriteNetCdf(const std::string& from, const std::string& to) {
    GDALDatasetUniquePtr source(GDALDataset::Open(from.c_str(), GDAL_OF_RASTER));
    GDALDriver* netcdf = GetGDALDriverManager()->GetDriverByName("netCDF");
    if (!source || netcdf == nullptr)
        std::exit(1);
    GDALDatasetUniquePtr copy(
        netcdf->CreateCopy(to.c_str(), source.get(), FALSE, nullptr, nullptr, nullptr));
    if (!copy)
        std::exit(1);
}

std::string LoadAverage() {
    std::ifstream in("/proc/loadavg");
    std::string one;
    in >> one;
    return one;
}

// One program's runs: wall times, processor time (user + system) and the worst peak.
struct Runs {
    std::vector<double> seconds;
    std::vector<double> cpu;
    long long peakBytes = 0;
    [[nodiscard]] static double Median(std::vector<double> v) {
        std::sort(v.begin(), v.end());
        const std::size_t n = v.size();
        return n % 2 == 1 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
    }
    [[nodiscard]] double MedianSeconds() const { return Median(seconds); }
    [[nodiscard]] double Best() const { return *std::min_element(seconds.begin(), seconds.end()); }
    [[nodiscard]] double MedianCpu() const { return Median(cpu); }
};

double ChildrenCpu() {
    rusage usage{};
    getrusage(RUSAGE_CHILDREN, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           1e-6 * static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
}

bool Run(const std::vector<std::string>& args, Runs& runs) {
    const double before = ChildrenCpu();
    const bench::Child child = bench::RunChild(args);
    if (child.status != 0)
        return false;
    runs.seconds.push_back(child.seconds);
    runs.cpu.push_back(ChildrenCpu() - before);
    runs.peakBytes = std::max(runs.peakBytes, child.peakBytes);
    return true;
}

// The summary's source line: which resampling the command chose for the source.
std::string ChosenPath(const std::vector<std::string>& quietArgs) {
    std::vector<std::string> args;
    for (const std::string& a : quietArgs)
        if (a != "-q")
            args.push_back(a);
    std::string command;
    for (const std::string& a : args)
        command += "'" + a + "' ";
    std::FILE* pipe = popen((command + "2>&1").c_str(), "r");
    if (pipe == nullptr)
        return "?";
    std::string found = "?";
    char line[4096];
    while (std::fgets(line, sizeof line, pipe) != nullptr) {
        std::string text = line;
        if (text.rfind("  source", 0) == 0) {
            const std::size_t open = text.find(" (");
            const std::size_t close = text.find("):");
            if (open != std::string::npos && close != std::string::npos)
                found = text.substr(open + 2, close - open - 2);
        }
    }
    pclose(pipe);
    return found;
}

struct Case {
    const char* name;
    std::string source;
    const char* format;
    const char* method; // gdalwarp's -r, the one the command is expected to choose
    double spacing;
    int cells;
    double x0, y0; // south-west cell edge in EPSG 2452
};

} // namespace

int main(int argc, char** argv) {
    const auto [repeat, keep, cells] =
        bench::ParsePrepBenchArgs(argc, argv, {5, false, 4000}, 1);
    const fs::path prep = fs::canonical("/proc/self/exe").parent_path().parent_path() / "seaforge-prep";
    std::string pattern = (fs::temp_directory_path() / "seaforge-prep-bench-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr)
        return 1;
    const fs::path dir = pattern;
    const int fine = cells * 3 / 4;
    std::printf("Writing sources in %s ...\n", dir.c_str());
    // Averaging: about 86 x 111 km at 11 x 14 m; the region takes cells of 20 m from its
    // middle. Bilinear: 3 arc-seconds (about 72 x 93 m) over 2.5 degrees; the region takes
    // cells of 10 m from a corner of it.
    const std::string coarseTif = (dir / "average.tif").string();
    const std::string fineTif = (dir / "bilinear.tif").string();
    WriteReliefSource(coarseTif, 2 * cells, 141.3, 39.6, 1.0 / (2 * cells));
    WriteReliefSource(fineTif, fine, 140.5, 40.0, 3.0 / 3600);
    const std::string coarseNc = (dir / "average.nc").string();
    const std::string fineNc = (dir / "bilinear.nc").string();
    WriteNetCdf(coarseTif, coarseNc);
    WriteNetCdf(fineTif, fineNc);

    const Case cases[] = {
        {"average", coarseTif, "GeoTIFF", "average", 20, cells, 44000, -140000},
        {"average", coarseNc, "netCDF", "average", 20, cells, 44000, -140000},
        {"bilinear", fineTif, "GeoTIFF", "bilinear", 10, fine, 60000, -120000},
        {"bilinear", fineNc, "netCDF", "bilinear", 10, fine, 60000, -120000},
    };
    const unsigned cores = std::thread::hardware_concurrency();
    std::printf("cores: %u; load average before: %s; median of %d runs each, taking turns\n\n",
                cores, LoadAverage().c_str(), repeat);
    std::printf("%-9s %-8s %-36s %8s %8s %8s %9s\n", "warp", "source", "program", "median",
                "best", "cpu", "peak");

    bool allMet = true;
    const double mib = 1024.0 * 1024.0;
    for (const Case& c : cases) {
        const std::string bounds[4] = {std::to_string(c.x0), std::to_string(c.y0),
                                       std::to_string(c.x0 + c.cells * c.spacing),
                                       std::to_string(c.y0 + c.cells * c.spacing)};
        const std::string spacing = std::to_string(c.spacing);
        const std::string grid = (dir / "region.bin").string();
        const std::string tiff = (dir / "gdalwarp.tif").string();
        const std::vector<std::string> prepArgs = {prep.string(), "grid", "-q", "--epsg", "2452",
                                                   "--spacing", spacing, "--bounds", bounds[0],
                                                   bounds[1], bounds[2], bounds[3], "-o", grid,
                                                   c.source};
        const std::vector<std::string> warpArgs = {
            "gdalwarp", "-q", "-overwrite", "-t_srs", "EPSG:2452", "-te", bounds[0], bounds[1],
            bounds[2], bounds[3], "-tr", spacing, spacing, "-r", c.method, "-ot", "Float32",
            "-dstnodata", "nan", c.source, tiff};
        std::vector<std::string> multiArgs = warpArgs;
        multiArgs.insert(multiArgs.begin() + 3, {"-multi", "-wo", "NUM_THREADS=ALL_CPUS"});

        Runs ours;
        Runs plain;
        Runs multi;
        for (int r = 0; r < repeat; ++r) {
            if (!Run(prepArgs, ours) || !Run(warpArgs, plain) || !Run(multiArgs, multi)) {
                std::printf("a child failed (%s, %s)\n", c.name, c.format);
                return 1;
            }
        }
        const std::string chosen = ChosenPath(prepArgs);
        const std::string label = "seaforge-prep grid (" + chosen + ")";
        const struct {
            const char* program;
            const Runs& runs;
        } rows[] = {{label.c_str(), ours},
                    {"gdalwarp", plain},
                    {"gdalwarp -multi NUM_THREADS=ALL_CPUS", multi}};
        for (const auto& row : rows)
            std::printf("%-9s %-8s %-36s %7.3fs %7.3fs %7.3fs %6.0f MiB\n", c.name, c.format,
                        row.program, row.runs.MedianSeconds(), row.runs.Best(),
                        row.runs.MedianCpu(), static_cast<double>(row.runs.peakBytes) / mib);
        const double toMulti = ours.MedianSeconds() / multi.MedianSeconds();
        const double toPlain = ours.MedianSeconds() / plain.MedianSeconds();
        const double gridBytes = static_cast<double>(c.cells) * c.cells * sizeof(float);
        const double over = (static_cast<double>(ours.peakBytes) - gridBytes) / mib;
        const bool met = toMulti <= 1.0 && toPlain <= 0.8 && over <= 300 && chosen == c.method;
        allMet = allMet && met;
        std::printf("  %.2f x gdalwarp -multi (goal <= 1.0), %.2f x gdalwarp (goal <= 0.8), "
                    "peak grid %.0f MiB + %.0f MiB (goal <= + 300), %s chosen: %s\n",
                    toMulti, toPlain, gridBytes / mib, over, chosen.c_str(),
                    met ? "met" : "NOT met");
        // On a machine busy with other work a process gets a share of it whatever its
        // threads: processor time then says more than wall time.
        std::printf("  processor time %.2f x gdalwarp -multi, %.2f x gdalwarp\n\n",
                    ours.MedianCpu() / multi.MedianCpu(), ours.MedianCpu() / plain.MedianCpu());
    }
    std::printf("load average after: %s; goals %s\n", LoadAverage().c_str(),
                allMet ? "all met" : "NOT all met");
    if (!keep)
        fs::remove_all(dir);
    else
        std::printf("kept %s\n", dir.c_str());
    return 0;
}
