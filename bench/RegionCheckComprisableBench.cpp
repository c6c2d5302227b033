// Speed and memory of the nesting check across coordinate systems.
//
//   seaforge_comprisable_bench [nx ny] [--repeat N]
//
// A geographic base grid (EPSG 4612, default 4000 × 4000 points of 0.001 degrees from
// 138 E, 34 N) and small nested grids in plane rectangular system IX (EPSG 2451, 300 × 200
// cells of 30 m): one well inside, one straddling the base's eastern edge. Times the
// conversion of every base point in one ll2xy_ call, Region::CheckComprisable on both
// nested grids and the full corner search, checks that the full and the fast search agree,
// and prints whether the check of the inside grid costs at most a quarter of the full
// conversion. Every timing is the best of --repeat runs (default 3); the check's console
// lines go to /dev/null meanwhile.

#include "projection/MapProjection.hpp"
#include "region/NestingSearch.hpp"
#include "BenchSupport.hpp"
#include "region/Region.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace {

using bench::Best;
using bench::PeakBytes;
using bench::Seconds;
using bench::Silence;

constexpr int kBaseEpsg = 4612;
constexpr int kPlaneEpsg = 2451;
constexpr double kBaseLon = 138.0;
constexpr double kBaseLat = 34.0;
constexpr double kBaseStep = 0.001; // degrees
constexpr double kCellSize = 30.0;  // metres
constexpr int kCellsX = 300;
constexpr int kCellsY = 200;

struct PlaneXY {
    double x = 0.0;
    double y = 0.0;
};

// The plane coordinates of a point, through the service as the check sets it up.
PlaneXY ToPlane(double lon, double lat) {
    PlaneXY p;
    (void)mapproject_initialize_using_epsg_(kBaseEpsg, kPlaneEpsg);
    const std::int32_t n = 1;
    (void)ll2xy_(&n, &lon, &lat, &p.x, &p.y);
    mapproject_finalize_();
    return p;
}

// A 300 × 200 grid of 30 m cells whose south-west cell edge is at (lon, lat).
Region NestedAt(double lon, double lat) {
    const PlaneXY sw = ToPlane(lon, lat);
    Region r;
    r.epsg = kPlaneEpsg;
    r.gridSize = kCellSize;
    r.Set2dStruct(kCellsX, kCellsY, sw.x + 0.5 * kCellSize, sw.y + 0.5 * kCellSize);
    return r;
}

NestingCorners CornersOf(const Region& r) {
    const double minX = r.org_x - 0.5 * r.gridSize, minY = r.org_y - 0.5 * r.gridSize;
    const double maxX = (r.nx - 1 + 0.5) * r.gridSize + r.org_x;
    const double maxY = (r.ny - 1 + 0.5) * r.gridSize + r.org_y;
    return {{{minX, minY}, {maxX, minY}, {maxX, maxY}, {minX, maxY}}};
}

void PrintLine(const char* what, double seconds, long long peak) {
    std::printf("  %-44s %8.4f s", what, seconds);
    if (peak >= 0)
        std::printf("   peak %8.1f MB", static_cast<double>(peak) / 1e6);
    std::printf("\n");
}

} // namespace

int main(int argc, char** argv) {
    int nx = 4000;
    int ny = 4000;
    int repeat = 3;
    std::vector<int> sizes;
    for (int a = 1; a < argc; ++a) {
        if (std::strcmp(argv[a], "--repeat") == 0 && a + 1 < argc)
            repeat = std::max(1, std::atoi(argv[++a]));
        else
            sizes.push_back(std::atoi(argv[a]));
    }
    if (sizes.size() == 2 && sizes[0] >= 6 && sizes[1] >= 6 &&
        static_cast<long long>(sizes[0]) * sizes[1] <= 0x7fffffff) {
        nx = sizes[0];
        ny = sizes[1];
    }
    const std::int32_t count = nx * ny;
    const NestingBase base{kBaseLon, kBaseLat, kBaseStep, nx, ny};
    const double east = kBaseLon + (nx - 1) * kBaseStep;
    const double north = kBaseLat + (ny - 1) * kBaseStep;
    const double midLon = 0.5 * (kBaseLon + east), midLat = 0.5 * (kBaseLat + north);

    // Every base point in one call, as the check's plain form converts them.
    std::vector<double> lon(static_cast<std::size_t>(count)), lat(lon.size());
    const auto fill = [&] {
        for (int ix = 0; ix < nx; ++ix)
            for (int iy = 0; iy < ny; ++iy) {
                lon[static_cast<std::size_t>(ix) * ny + iy] = kBaseLon + ix * kBaseStep;
                lat[static_cast<std::size_t>(ix) * ny + iy] = kBaseLat + iy * kBaseStep;
            }
    };
    int status = 0;
    (void)mapproject_initialize_using_epsg_(kBaseEpsg, kPlaneEpsg);
    const double convertAll = Best(
        repeat, [&] { status |= ll2xy_(&count, lon.data(), lat.data(), lon.data(), lat.data()); },
        fill);
    mapproject_finalize_();
    std::vector<double>().swap(lon);
    std::vector<double>().swap(lat);

    Region inside = NestedAt(midLon, midLat);
    Region straddling = NestedAt(east - 0.002, midLat);
    bool insideOk = true, straddlingNg = true;
    const auto check = [&](Region& r, bool* result) {
        Silence quiet;
        *result = r.CheckComprisable(kBaseEpsg, kBaseLon, kBaseLat, kBaseStep, nx, ny);
    };
    bool result = false;
    const double checkInside = Best(repeat, [&] {
        check(inside, &result);
        insideOk = insideOk && result;
    });
    const long long insidePeak = PeakBytes([&] { check(inside, &result); });
    const double checkStraddling = Best(repeat, [&] {
        check(straddling, &result);
        straddlingNg = straddlingNg && !result;
    });
    const long long straddlingPeak = PeakBytes([&] { check(straddling, &result); });

    // The full search on the same corners, for its figure and the agreement.
    bool agree = true;
    double fullSearch = 0.0;
    for (const Region* r : {&inside, &straddling}) {
        const NestingCorners corners = CornersOf(*r);
        (void)mapproject_initialize_using_epsg_(kBaseEpsg, kPlaneEpsg);
        CornersFound full{};
        if (r == &inside) {
            fullSearch = Best(repeat, [&] { full = FindNestingCornersFull(base, corners); });
        } else {
            full = FindNestingCornersFull(base, corners);
        }
        const std::optional<CornersFound> fast = FindNestingCornersFast(base, corners, kPlaneEpsg);
        mapproject_finalize_();
        agree = agree && fast.has_value() && *fast == full;
    }

    std::printf("Nesting check across systems: base EPSG %d, %d x %d points of %g degrees from "
                "(%g, %g); nested EPSG %d, %d x %d cells of %g m; best of %d\n",
                kBaseEpsg, nx, ny, kBaseStep, kBaseLon, kBaseLat, kPlaneEpsg, kCellsX, kCellsY,
                kCellSize, repeat);
    PrintLine("ll2xy_ on every base point (one call)", convertAll, -1);
    PrintLine("CheckComprisable, nested grid inside", checkInside, insidePeak);
    PrintLine("CheckComprisable, nested grid straddling", checkStraddling, straddlingPeak);
    PrintLine("full corner search, nested grid inside", fullSearch, -1);

    const double ratio = checkInside / convertAll;
    const auto verdict = [](bool met) { return met ? "met" : "NOT met"; };
    std::printf("\nGoals:\n");
    std::printf("  check inside <= 0.25 x converting every point : %.3fx (straddling %.3fx)   %s\n",
                ratio, checkStraddling / convertAll, verdict(ratio <= 0.25));
    std::printf("  fast and full searches find the same corners  : %s\n", agree ? "yes" : "NO");
    std::printf("  inside passes, straddling fails               : %s\n",
                insideOk && straddlingNg ? "yes" : "NO");
    std::printf("  every point converted                         : %s\n",
                status == 0 ? "yes" : "NO");
    return agree && insideOk && straddlingNg && status == 0 ? 0 : 1;
}
