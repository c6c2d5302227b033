// Speed and memory of the land map on large generated grids.
//
//   seaforge_landmap_bench [n] [--repeat N]
//
// Makes the land map (Region::MakeLandMap, called as a run calls it, with copies of the
// two structure maps) of three n x n topographies (default 4000 x 4000):
//   serpentine  a channel that winds from the far corner back and forth against the
//               order in which grids are swept, through land;
//   bay         a coast with a bay, harbour basins behind breakwaters (some sunk), a
//               meandering river, a canal with a lock and inland lakes;
//   all sea     every cell below the tide, no structures.
// Prints the best of --repeat runs (default 3) of each, the cells per class, the peak
// memory above the inputs, and which goals are met.

#include "BenchSupport.hpp"
#include "region/Region.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <malloc.h>
#include <string>

namespace {

using bench::Best;
using bench::PeakBytes;
using bench::Seconds;
using bench::Silence;

constexpr int kTide = 120; // centimetres

// Results nobody reads, so that the baseline is not optimised away.
volatile std::int32_t gSink = 0;

struct Topography {
    const char* name;
    Grid2d<double> depth;
    Grid2d<std::int32_t, 2> mapA; // construction-line identifiers
    Grid2d<std::int32_t, 2> mapB; // wave-breaker map
};

// Blocks the face between (i, j) and (i, j + 1) (k = 0) or (i + 1, j) (k = 1).
void Block(Grid2d<std::int32_t, 2>& map, int i, int j, int k, std::int32_t value) {
    map[i][j][k] = value;
}

// A closed fence of blocked faces around the cells [i0, i1] x [j0, j1], with a gap of
// `gap` cells in its south side starting at `gapAt` (no gap when gap is 0).
void Fence(Grid2d<std::int32_t, 2>& map, int i0, int j0, int i1, int j1, int gapAt, int gap,
           std::int32_t value) {
    for (int i = i0; i <= i1; ++i) {
        if (i < gapAt || i >= gapAt + gap)
            Block(map, i, j0 - 1, 0, value);
        Block(map, i, j1, 0, value);
    }
    for (int j = j0; j <= j1; ++j) {
        Block(map, i0 - 1, j, 1, value);
        Block(map, i1, j, 1, value);
    }
}

Topography AllSea(int n) {
    Topography t{"all sea", {}, {}, {}};
    t.depth.Assign(n, n, -100.0);
    t.mapA.Assign(n, n, 0);
    t.mapB.Assign(n, n, 0);
    return t;
}

// Corridors two cells wide along x with walls of one cell, joined alternately at their
// ends; the water enters at the far corner, so it runs toward smaller x and y.
Topography Serpentine(int n) {
    Topography t{"serpentine", {}, {}, {}};
    t.depth.Assign(n, n, 25.0);
    t.mapA.Assign(n, n, 0);
    t.mapB.Assign(n, n, 0);
    bool backward = true;
    for (int row = n - 3; row >= 1; row -= 3) { // corridor rows row, row + 1
        for (int i = 1; i <= n - 2; ++i)
            t.depth[i][row] = t.depth[i][row + 1] = -8.0;
        if (row != n - 3) {
            const int joint = backward ? n - 2 : 1; // through the wall above
            t.depth[joint][row + 2] = -8.0;
        }
        backward = !backward;
    }
    t.depth[n - 1][n - 3] = t.depth[n - 1][n - 2] = -8.0; // the mouth on the far edge
    return t;
}

Topography Bay(int n) {
    Topography t{"bay", {}, {}, {}};
    t.depth.Assign(n, n, 0.0);
    t.mapA.Assign(n, n, 0);
    t.mapB.Assign(n, n, 0);
    const double s = n / 4000.0; // shapes scale with the grid
    const double pi = 3.14159265358979323846;
    for (int j = 0; j < n; ++j) {
        for (int i = 0; i < n; ++i) {
            const double x = i, y = j;
            // Sea to the south, land rising to the north of a wavy coast.
            const double coast =
                0.40 * n + 0.03 * n * std::sin(2 * pi * 3 * x / n) + 6 * s * std::sin(x / (9 * s));
            double z = (y - coast) * 0.02 + 0.4 * std::sin(x / (31 * s)) * std::cos(y / (23 * s));
            // The bay: an ellipse carved into the land.
            const double ex = (x - 0.5 * n) / (0.22 * n), ey = (y - 0.45 * n) / (0.16 * n);
            const double e = ex * ex + ey * ey;
            if (e < 1.0)
                z = std::min(z, -12.0 * (1.0 - e) - 0.5);
            // A meandering river from the bay's head to the north edge.
            const double riverX = 0.5 * n + 0.07 * n * std::sin(y / (140 * s));
            if (y > 0.55 * n && y < n - 3 && std::fabs(x - riverX) < 3 * s + 1)
                z = -1.0;
            // Inland lakes below the tide that no water reaches.
            for (int lake = 0; lake < 6; ++lake) {
                const double lx = (0.12 + 0.15 * lake) * n, ly = (0.80 + 0.02 * (lake % 3)) * n;
                if (std::hypot(x - lx, y - ly) < 45 * s && std::fabs(x - riverX) > 60 * s)
                    z = -3.0;
            }
            t.depth[i][j] = z;
        }
    }
    // A canal from the river east into the last lake, with a lock before the lake.
    const int canalJ = static_cast<int>(0.84 * n);
    const int canalFrom = static_cast<int>(0.5 * n + 0.07 * n * std::sin(canalJ / (140 * s)));
    const int canalTo = static_cast<int>(0.87 * n);
    for (int i = canalFrom; i <= canalTo; ++i)
        for (int j = canalJ - 1; j <= canalJ + 1; ++j)
            t.depth[i][j] = -2.0;
    const int lockI = canalTo - static_cast<int>(80 * s);
    for (int j = canalJ - 1; j <= canalJ + 1; ++j) {
        Block(t.mapA, lockI, j, 1, 901); // lock gates: identifiers...
        Block(t.mapB, lockI, j, 1, 0);   // ...of a structure the map has dropped
    }
    // Harbour basins along the bay's north shore behind breakwaters: the odd ones with a
    // mouth, the even ones closed by a breakwater that has sunk, every fourth one intact.
    const int basinJ0 = static_cast<int>(0.55 * n), basinJ1 = basinJ0 + static_cast<int>(60 * s);
    for (int b = 0; b < 8; ++b) {
        const int i0 = static_cast<int>(0.33 * n + b * 90 * s);
        const int i1 = i0 + static_cast<int>(60 * s);
        for (int i = i0; i <= i1; ++i)
            for (int j = basinJ0; j <= basinJ1; ++j)
                t.depth[i][j] = -6.0;
        const int mouth = b % 2 == 1 ? static_cast<int>(10 * s) + 1 : 0;
        Fence(t.mapA, i0, basinJ0, i1, basinJ1, i0 + (i1 - i0) / 2, mouth, 100 + b);
        if (b % 4 == 0)
            Fence(t.mapB, i0, basinJ0, i1, basinJ1, 0, 0, 100);
    }
    // An offshore breakwater with gaps: water behind it stays sea.
    for (int i = static_cast<int>(0.1 * n); i < static_cast<int>(0.3 * n); ++i)
        if (i % static_cast<int>(200 * s + 1) > 20 * s)
            Block(t.mapA, i, static_cast<int>(0.3 * n), 0, 7);
    return t;
}

struct Result {
    double seconds = 1e300;
    long long peak = -1;
    long long counts[3] = {0, 0, 0};
    bool ok = true;
};

Result Measure(const Topography& t, int n, int repeat) {
    Result r;
    Region land;
    land.type = LSM_R;
    for (int k = 0; k < repeat; ++k) {
        land.Set2dStruct(n, n, 0.0, 0.0);
        land.Make2dStruct();
        bool ok = false;
        // As a run calls it: the two maps are copied into the call.
        const double s = Seconds([&] { ok = land.MakeLandMap(t.depth, t.mapA, t.mapB, kTide); });
        r.seconds = std::min(r.seconds, s);
        r.ok = r.ok && ok;
    }
    land.Make2dStruct();
    malloc_trim(0); // what earlier runs freed would otherwise hide this run's needs
    r.peak = PeakBytes([&] { r.ok = land.MakeLandMap(t.depth, t.mapA, t.mapB, kTide) && r.ok; });
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            const double v = land.CellValue(i, j);
            if (v == 0.0 || v == 1.0 || v == 2.0)
                ++r.counts[static_cast<int>(v)];
            else
                r.ok = false;
        }
    return r;
}

} // namespace

int main(int argc, char** argv) {
    int n = 4000;
    int repeat = 3;
    for (int a = 1; a < argc; ++a) {
        if (std::strcmp(argv[a], "--repeat") == 0 && a + 1 < argc)
            repeat = std::max(1, std::atoi(argv[++a]));
        else
            n = std::max(8, std::atoi(argv[a]));
    }
    const double cells = static_cast<double>(n) * n;
    // The maps copied into each call, which a run pays for whatever the algorithm.
    const double copiedBytes = 2.0 * cells * 2 * sizeof(std::int32_t);

    std::printf("Land map of %d x %d cells, tide %d cm, best of %d:\n", n, n, kTide, repeat);
    std::printf("  %-11s %9s %12s %12s %12s %16s\n", "case", "time", "sea (0)", "land (1)",
                "behind (2)", "peak beyond copies");
    double times[3] = {0, 0, 0};
    bool allOk = true;
    int index = 0;
    for (auto make : {Serpentine, Bay, AllSea}) {
        Result r;
        const char* name;
        {
            const Topography t = make(n);
            name = t.name;
            r = Measure(t, n, repeat);
        }
        times[index++] = r.seconds;
        allOk = allOk && r.ok;
        std::printf("  %-11s %7.3f s %12lld %12lld %12lld", name, r.seconds, r.counts[0],
                    r.counts[1], r.counts[2]);
        if (r.peak >= 0)
            std::printf(" %10.1f MB (%.2f B/cell)\n",
                        (static_cast<double>(r.peak) - copiedBytes) / 1e6,
                        (static_cast<double>(r.peak) - copiedBytes) / cells);
        else
            std::printf(" %16s\n", "n/a");
    }

    {
        // What the call's by-value maps cost before any work is done.
        const Topography t = AllSea(n);
        double copy = 1e300;
        for (int k = 0; k < repeat; ++k) {
            copy = std::min(copy, Seconds([&] {
                                Grid2d<std::int32_t, 2> a = t.mapA;
                                Grid2d<std::int32_t, 2> b = t.mapB;
                                gSink = gSink + a.Data()[a.ValueCount() - 1] + b.Data()[0];
                            }));
        }
        std::printf("  (copying the two maps into the call alone: %.3f s)\n", copy);
    }

    const double worst = std::max({times[0], times[1], times[2]});
    const double ratio = times[0] / times[2];
    std::printf("\nGoals:\n");
    std::printf("  every case under 1 s              : %s (slowest %.3f s)\n",
                worst < 1.0 ? "yes" : "NO", worst);
    std::printf("  serpentine <= 1.5 x all sea       : %s (%.2fx)\n", ratio <= 1.5 ? "yes" : "NO",
                ratio);
    std::printf("  every call succeeded              : %s\n", allOk ? "yes" : "NO");
    return 0;
}
