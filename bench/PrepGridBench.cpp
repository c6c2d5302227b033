// Prints how long seaforge-prep takes to build a 4000 x 4000 region from an 8000 x 8000
// GeoTIFF beside gdalwarp doing the same warp to a GeoTIFF, and the peak memory of each
// beside the grid they make; not a test. Both run as child processes, taking turns.
//
//   seaforge_prep_bench [--repeat N] [--keep] [--cells N]   (N: the source is 2N x 2N)
#include "BenchSupport.hpp"

#include <gdal_priv.h>
#include <ogr_spatialref.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

// A geographic DEM of side x side cells over one degree, tiled like a national DEM, with
// relief at several scales so that neither warp meets a flat grid.
void WriteSource(const std::string& path, int side) {
    GDALAllRegister();
    GDALDriver* gtiff = GetGDALDriverManager()->GetDriverByName("GTiff");
    const char* options[] = {"TILED=YES", nullptr};
    GDALDatasetUniquePtr ds(
        gtiff->Create(path.c_str(), side, side, 1, GDT_Float32, const_cast<char**>(options)));
    const double step = 1.0 / side;
    double transform[6] = {141.3, step, 0, 39.6, 0, -step};
    ds->SetGeoTransform(transform);
    OGRSpatialReference srs;
    srs.importFromEPSG(4326);
    ds->SetSpatialRef(&srs);
    std::vector<float> row(static_cast<std::size_t>(side));
    for (int l = 0; l < side; ++l) {
        for (int c = 0; c < side; ++c)
            row[static_cast<std::size_t>(c)] = static_cast<float>(
                -400.0 + 900.0 * (side - c) / side + 30.0 * std::sin(c * 0.01) * std::cos(l * 0.013) +
                3.0 * std::sin(c * 0.3 + l * 0.2));
        if (ds->GetRasterBand(1)->RasterIO(GF_Write, 0, l, side, 1, row.data(), side, 1,
                                           GDT_Float32, 0, 0, nullptr) != CE_None)
            std::exit(1);
    }
}

} // namespace

int main(int argc, char** argv) {
    int repeat = 3;
    bool keep = false;
    int cells = 4000;
    for (int a = 1; a < argc; ++a) {
        const std::string arg = argv[a];
        if (arg == "--repeat" && a + 1 < argc)
            repeat = std::atoi(argv[++a]);
        else if (arg == "--keep")
            keep = true;
        else if (arg == "--cells" && a + 1 < argc)
            cells = std::atoi(argv[++a]);
    }
    const fs::path prep = fs::canonical("/proc/self/exe").parent_path().parent_path() / "seaforge-prep";
    std::string pattern = (fs::temp_directory_path() / "seaforge-prep-bench-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr)
        return 1;
    const fs::path dir = pattern;
    const std::string source = (dir / "source.tif").string();
    std::printf("Writing a %d x %d GeoTIFF source in %s ...\n", 2 * cells, 2 * cells,
                dir.c_str());
    WriteSource(source, 2 * cells);

    // The source spans about 86 x 111 km at 11 x 14 m; the region, in JGD2000 plane system
    // X, takes 4000 x 4000 cells of 20 m from its middle: averaging, across systems.
    const double spacing = 20;
    const double x0 = 44000;
    const double y0 = -140000;
    const std::string bounds[4] = {std::to_string(x0), std::to_string(y0),
                                   std::to_string(x0 + cells * spacing),
                                   std::to_string(y0 + cells * spacing)};
    const std::string grid = (dir / "region.bin").string();
    const std::string tiff = (dir / "gdalwarp.tif").string();
    const std::vector<std::string> prepArgs = {prep.string(), "grid", "-q", "--epsg", "2452",
                                               "--spacing", "20", "--bounds", bounds[0],
                                               bounds[1], bounds[2], bounds[3], "-o", grid,
                                               "--resampling", "average", source};
    const std::vector<std::string> warpArgs = {
        "gdalwarp", "-q", "-overwrite", "-t_srs", "EPSG:2452", "-te", bounds[0], bounds[1],
        bounds[2], bounds[3], "-tr", "20", "20", "-r", "average", "-ot", "Float32",
        "-dstnodata", "nan", source, tiff};

    bench::Child bestPrep;
    bench::Child bestWarp;
    for (int r = 0; r < repeat; ++r) {
        const bench::Child p = bench::RunChild(prepArgs);
        const bench::Child w = bench::RunChild(warpArgs);
        if (p.status != 0 || w.status != 0) {
            std::printf("a child failed: seaforge-prep %d, gdalwarp %d\n", p.status, w.status);
            return 1;
        }
        if (p.seconds < bestPrep.seconds)
            bestPrep.seconds = p.seconds;
        if (w.seconds < bestWarp.seconds)
            bestWarp.seconds = w.seconds;
        bestPrep.peakBytes = std::max(bestPrep.peakBytes, p.peakBytes); // the worst run's
        bestWarp.peakBytes = std::max(bestWarp.peakBytes, w.peakBytes);
    }
    const double mib = 1024.0 * 1024.0;
    const double gridBytes = static_cast<double>(cells) * cells * sizeof(double);
    std::printf("region %d x %d (EPSG 2452, 20 m) from %d x %d (EPSG 4326), average, best of %d\n",
                cells, cells, 2 * cells, 2 * cells, repeat);
    std::printf("  seaforge-prep grid -> .bin   %.2f s   peak %.0f MiB\n", bestPrep.seconds,
                static_cast<double>(bestPrep.peakBytes) / mib);
    std::printf("  gdalwarp -> GeoTIFF          %.2f s   peak %.0f MiB\n", bestWarp.seconds,
                static_cast<double>(bestWarp.peakBytes) / mib);
    const double ratio = bestPrep.seconds / bestWarp.seconds;
    std::printf("time: %.2f x gdalwarp (goal <= 1.3: %s)\n", ratio, ratio <= 1.3 ? "met" : "NOT met");
    const double over = (static_cast<double>(bestPrep.peakBytes) - gridBytes) / mib;
    std::printf("memory: grid in memory %.0f MiB + %.0f MiB (goal <= grid + 300 MiB: %s)\n",
                gridBytes / mib, over, over <= 300 ? "met" : "NOT met");
    if (!keep)
        fs::remove_all(dir);
    else
        std::printf("kept %s\n", dir.c_str());
    return 0;
}
