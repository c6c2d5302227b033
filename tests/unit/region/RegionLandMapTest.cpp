#include "region/Region.hpp"

#include "region/RegionTestSupport.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace {

const std::string kTideHead = kRule + "ERROR:REGION OBJECT METHOD\n" +
                              "  ERROR-DETAIL:Abnormal action at Check Tide Method.\n";

TEST(RegionCheckFileNameTide, Markers) {
    const std::string mismatch =
        kTideHead +
        "  ERROR-DETAIL:TideWaterLevel(XML file)& Land Map File Name is INCONSISTENCY .\n" +
        "  ERROR-DETAIL:Particular attention should be given to \"XML file \" and \"Land Map file Name\" .\n" +
        kRule;
    struct Row {
        const char* name;
        int tide;
        bool matches;
    };
    const Row rows[] = {
        {"maps/land_P050.bin", 50, true},
        {"maps/land_P050.bin", 49, false},
        {"maps/land_P050.bin", -50, false},
        {"maps/land_M050.bin", -50, true},
        {"maps/land_M120.txt", -120, true},
        {"maps/land_M120.txt", 120, false},
        {"land_P5.dat", 5, true}, // the "." stops the number
        {"land_P000.bin", 0, true},
        {"land_M000.bin", 0, true},
        {"land_P", 0, true},              // nothing after the marker reads as 0
        {"land_P12", 12, true},           // fewer than three characters
        {"land_P1234.bin", 123, true},    // only three are read
        {"land_P-12.bin", -12, true},     // as atol reads them
        {"land_P050_M050.bin", 50, true}, // "_P" first, wherever "_M" stands
        {"land_M050_P050.bin", 50, true},
        {"land_P050_M050.bin", -50, false},
        {"my_Port/land_M050.bin", 0, true}, // the last "_P" is a directory's
        {"land_M070_M030.bin", -30, true},  // the last "_M"
    };
    for (const Row& row : rows) {
        const Region r = RegionReading(LSM_R, row.name);
        const Printed printed = Capture([&] { return r.CheckFileNameTide(row.tide); });
        EXPECT_EQ(printed.result, row.matches ? 1 : 0) << row.name << " " << row.tide;
        EXPECT_EQ(printed.out + printed.err, row.matches ? "" : mismatch) << row.name;
    }
}

TEST(RegionCheckFileNameTide, NoMarkerAndWrongKind) {
    for (const char* name : {"land.bin", "land_p050.bin", "land_m050.bin", ""}) {
        const Region r = RegionReading(LSM_R, name);
        const Printed printed = Capture([&] { return r.CheckFileNameTide(0); });
        EXPECT_EQ(printed.result, 0) << name;
        EXPECT_EQ(
            printed.err,
            kTideHead +
                "  ERROR-DETAIL:Particular attention should be given to \"Land Map file Name\" .\n" +
                kRule);
    }
    const Region topography = RegionReading(TPG_R, "land_P050.bin");
    const Printed printed = Capture([&] { return topography.CheckFileNameTide(50); });
    EXPECT_EQ(printed.result, 0);
    EXPECT_EQ(printed.out + printed.err, kTideHead + kRule);
}

using Flags = Grid2d<std::int32_t, 2>;

struct Problem {
    int nx, ny;
    Grid2d<double> depth;
    Flags mapA, mapB;
    int tide = 0;
    Problem(int columns, int rows, double fill) : nx(columns), ny(rows) {
        depth.Assign(nx, ny, fill);
        mapA.Assign(nx, ny, 0);
        mapB.Assign(nx, ny, 0);
    }
};

// Drawn row by row, j = 0 first: '#' land (depth 1), anything else water (depth -1).
Problem Drawn(const std::vector<std::string>& rows) {
    Problem p(static_cast<int>(rows[0].size()), static_cast<int>(rows.size()), 0.0);
    for (int j = 0; j < p.ny; ++j)
        for (int i = 0; i < p.nx; ++i)
            p.depth[i][j] =
                rows[static_cast<std::size_t>(j)][static_cast<std::size_t>(i)] == '#' ? 1.0 : -1.0;
    return p;
}

// A land map drawn the same way, a digit per cell.
std::vector<std::string> Picture(int nx, int ny, auto&& value) {
    std::vector<std::string> rows(static_cast<std::size_t>(ny));
    for (int j = 0; j < ny; ++j)
        for (int i = 0; i < nx; ++i) {
            const double v = value(i, j);
            rows[static_cast<std::size_t>(j)] += v == 0.0   ? '0'
                                                 : v == 1.0 ? '1'
                                                 : v == 2.0 ? '2'
                                                            : '?';
        }
    return rows;
}

std::vector<std::string> Made(const Problem& p) {
    Region land = RegionReading(LSM_R, "");
    land.Set2dStruct(p.nx, p.ny, 0.0, 0.0);
    land.Make2dStruct();
    const Printed printed =
        Capture([&] { return land.MakeLandMap(p.depth, p.mapA, p.mapB, p.tide); });
    EXPECT_EQ(printed.result, 1);
    EXPECT_EQ(printed.out + printed.err, "");
    return Picture(p.nx, p.ny, [&](int i, int j) { return land.grid[i][j]; });
}

// Blocks every face around the cells [i0, i1] x [j0, j1].
void Fence(Flags& f, int i0, int j0, int i1, int j1) {
    for (int i = i0; i <= i1; ++i)
        f[i][j0 - 1][0] = f[i][j1][0] = 7;
    for (int j = j0; j <= j1; ++j)
        f[i0 - 1][j][1] = f[i1][j][1] = -1;
}

TEST(RegionMakeLandMap, SeaLandAndEnclosedWater) {
    // The basin behind land counts as land; the bay beside it is sea; the outer ring
    // keeps 0 or 1.
    EXPECT_EQ(Made(Drawn({"~~~~~~~~", "~#####~~", "~#~~~#~#", "~#~~~#~~", "~#####~~", "~~~#~~~#",
                          "~~~~~~~~"})),
              (std::vector<std::string>{"00000000", "01111100", "01111101", "01111100", "01111100",
                                        "00010001", "00000000"}));
    // No interior: nothing but the ring.
    EXPECT_EQ(Made(Drawn({"~", "#", "~"})), (std::vector<std::string>{"0", "1", "0"}));
    EXPECT_EQ(Made(Drawn({"~#~~#"})), (std::vector<std::string>{"01001"}));
    EXPECT_EQ(Made(Drawn({"~~", "~~", "~#"})), (std::vector<std::string>{"00", "00", "01"}));
    // Structures cannot shut in ring cells.
    Problem shut(4, 4, -1.0);
    shut.depth[3][1] = 1.0;
    shut.mapA.Assign(4, 4, 9);
    shut.mapB.Assign(4, 4, 9);
    EXPECT_EQ(Made(shut), (std::vector<std::string>{"0000", "0111", "0110", "0000"}));
}

TEST(RegionMakeLandMap, BasinsBehindStructures) {
    Problem p(6, 6, -2.0);
    p.depth[3][3] = 5.0;
    Fence(p.mapA, 2, 2, 3, 3);
    EXPECT_EQ(Made(p)[2], "002200"); // cut off by the first map, open past the second
    EXPECT_EQ(Made(p)[3], "002100");
    Fence(p.mapB, 2, 2, 3, 3);
    EXPECT_EQ(Made(p)[2], "001100"); // closed in both
    p.mapB[2][2][1] = 0;             // a gap inside the basin changes nothing
    EXPECT_EQ(Made(p)[2], "001100");
    p.mapB[1][2][1] = 0; // a gap in the fence opens it all
    EXPECT_EQ(Made(p)[3], "002100");

    // Two basins in a row; the inner one opens only into the outer one.
    Problem row(9, 5, -1.0);
    Fence(row.mapA, 2, 2, 6, 2);
    row.mapA[4][2][1] = 1;
    row.mapB = row.mapA;
    row.mapB[1][2][1] = 0;
    EXPECT_EQ(Made(row)[2], "002221100");
    row.mapB[4][2][1] = 0;
    EXPECT_EQ(Made(row)[2], "002222200");
}

TEST(RegionMakeLandMap, DiagonalStepsGoRoundOneCorner) {
    // Water in the middle of 3 x 3 land and in one corner, joined by the diagonal step
    // only, through either of two pairs of faces {i, j, k}.
    struct Corner {
        int i, j;
        int pair1[2][3], pair2[2][3];
    };
    const Corner corners[] = {
        {0, 0, {{0, 0, 0}, {0, 1, 1}}, {{1, 0, 0}, {0, 0, 1}}},
        {2, 0, {{2, 0, 0}, {1, 1, 1}}, {{1, 0, 0}, {1, 0, 1}}},
        {2, 2, {{2, 1, 0}, {1, 1, 1}}, {{1, 1, 0}, {1, 2, 1}}},
        {0, 2, {{0, 1, 0}, {0, 1, 1}}, {{1, 1, 0}, {0, 2, 1}}},
    };
    for (const Corner& c : corners) {
        auto middle = [&](std::initializer_list<const int*> blocked) {
            Problem p(3, 3, 1.0);
            p.depth[1][1] = p.depth[c.i][c.j] = -1.0;
            for (const int* f : blocked)
                p.mapA[f[0]][f[1]][f[2]] = 1;
            return Made(p)[1][1];
        };
        EXPECT_EQ(middle({}), '0') << c.i << c.j;
        EXPECT_EQ(middle({c.pair1[0], c.pair1[1]}), '0') << c.i << c.j;
        EXPECT_EQ(middle({c.pair2[0], c.pair2[1]}), '0') << c.i << c.j;
        EXPECT_EQ(middle({c.pair1[0], c.pair2[0]}), '2') << c.i << c.j;
        EXPECT_EQ(middle({c.pair1[1], c.pair2[1]}), '2') << c.i << c.j;
        EXPECT_EQ(middle({c.pair1[0], c.pair2[1]}), '2') << c.i << c.j;
    }
}

TEST(RegionMakeLandMap, TideLevelInSinglePrecision) {
    // Water only where depth - tide < 0; 0.2999999999 is the float of the tide 0.30.
    struct Row {
        double depth;
        int tide;
        char expected;
    };
    for (const Row& row : {Row{0.5, 50, '1'}, Row{0.49, 50, '0'}, Row{-1.19, -120, '1'},
                           Row{-1.21, -120, '0'}, Row{0.0, 0, '1'}, Row{-1e-9, 0, '0'},
                           Row{0.2999999999, 30, '1'}, Row{1e300, 0, '1'}, Row{-1e300, 0, '0'}}) {
        Problem p(1, 1, row.depth);
        p.tide = row.tide;
        EXPECT_EQ(Made(p)[0][0], row.expected) << row.depth << " " << row.tide;
    }
}

TEST(RegionMakeLandMap, EmptyAndMismatchedGrids) {
    Region land = RegionReading(LSM_R, "");
    Grid2d<double> depth;
    Flags flags, shorter;
    EXPECT_TRUE(land.MakeLandMap(depth, flags, flags, 0)); // no cells: nothing to do
    land.Set2dStruct(3, 2, 0.0, 0.0);
    depth.Assign(3, 2, -1.0);
    flags.Assign(3, 2, 0);
    shorter.Assign(3, 1, 0);
    for (int which = 0; which < 3; ++which) {
        Grid2d<double> d = depth;
        if (which == 0)
            d.Assign(2, 3, -1.0);
        const Printed printed = Capture([&] {
            return land.MakeLandMap(d, which == 1 ? shorter : flags, which == 2 ? shorter : flags,
                                    0);
        });
        EXPECT_EQ(printed.result, 0) << which;
        EXPECT_EQ(printed.out + printed.err,
                  kRule + "ERROR:REGION OBJECT METHOD\n" +
                      "  ERROR-DETAIL:Abnormal action at Making Land Map Method.\n" +
                      "  ERROR-DETAIL:Topography, structure maps and Land Map differ in size.\n" +
                      kRule);
    }
    ASSERT_TRUE(land.MakeLandMap(depth, flags, flags, 0)); // not sized yet: sized here
    EXPECT_EQ(land.grid[2][1], 0.0);
}

// The land map as the repeated in-place sweeps make it, step by step: the reference the
// flood fill must equal. `sweeps` counts the sweeps of both fills.
std::vector<std::string> Swept(const Problem& p, int& sweeps) {
    const int nx = p.nx, ny = p.ny;
    std::vector<std::vector<float>> h(nx, std::vector<float>(ny));
    std::vector<std::vector<double>> m(nx, std::vector<double>(ny));
    for (int i = 0; i < nx; ++i)
        for (int j = 0; j < ny; ++j) {
            h[i][j] = static_cast<float>(p.depth[i][j]) - static_cast<float>(p.tide * 0.01);
            m[i][j] = h[i][j] < 0 ? -1.0 : 1.0;
            if ((i == 0 || i == nx - 1 || j == 0 || j == ny - 1) && h[i][j] < 0)
                m[i][j] = 0.0;
        }
    auto fill = [&](const Flags& f, auto changes, auto source, double value) {
        auto o0 = [&](int i, int j) { return f[i][j][0] == 0; };
        auto o1 = [&](int i, int j) { return f[i][j][1] == 0; };
        for (bool changed = true; changed; ++sweeps) {
            changed = false;
            for (int i = 1; i <= nx - 2; ++i)
                for (int j = 1; j <= ny - 2; ++j) {
                    if (changes(i, j) &&
                        ((source(i, j - 1) && o0(i, j - 1)) || (source(i + 1, j) && o1(i, j)) ||
                         (source(i, j + 1) && o0(i, j)) || (source(i - 1, j) && o1(i - 1, j)) ||
                         (source(i - 1, j - 1) && ((o0(i - 1, j - 1) && o1(i - 1, j)) ||
                                                   (o0(i, j - 1) && o1(i - 1, j - 1)))) ||
                         (source(i + 1, j - 1) &&
                          ((o0(i + 1, j - 1) && o1(i, j)) || (o0(i, j - 1) && o1(i, j - 1)))) ||
                         (source(i + 1, j + 1) &&
                          ((o0(i + 1, j) && o1(i, j)) || (o0(i, j) && o1(i, j + 1)))) ||
                         (source(i - 1, j + 1) &&
                          ((o0(i - 1, j) && o1(i - 1, j)) || (o0(i, j) && o1(i - 1, j + 1)))))) {
                        m[i][j] = value;
                        changed = true;
                    }
                }
        }
    };
    fill(
        p.mapA, [&](int i, int j) { return m[i][j] == -1.0; },
        [&](int i, int j) { return m[i][j] == 0.0; }, 0.0);
    for (auto& column : m)
        std::replace(column.begin(), column.end(), -1.0, 1.0);
    fill(
        p.mapB, [&](int i, int j) { return m[i][j] == 1.0 && h[i][j] < 0; },
        [&](int i, int j) { return m[i][j] == 0.0 || m[i][j] == 2.0; }, 2.0);
    return Picture(nx, ny, [&](int i, int j) { return m[i][j]; });
}

// Square rings one cell apart, each with one gap, on alternate sides, so the water
// winds half way round every ring; walls of land, or, with `byStructures`, of water
// cells fenced in by the first map.
Problem Rings(int n, bool byStructures) {
    Problem p(n, n, -1.0);
    for (int r = 2; 2 * r < n - 1; r += 2)
        for (int i = r; i < n - r; ++i)
            for (int j = r; j < n - r; ++j) {
                const bool onRing = i == r || j == r || i == n - 1 - r || j == n - 1 - r;
                const bool gap =
                    (r / 2 % 2 == 0) ? (i == r && j == r + 1) : (i == n - 1 - r && j == n - 2 - r);
                if (!onRing || gap)
                    continue;
                if (byStructures)
                    Fence(p.mapA, i, j, i, j);
                else
                    p.depth[i][j] = 1.0;
            }
    return p;
}

// Corridors of length w joined alternately at their ends and entered at the far corner,
// so the water runs against the sweeps: along x in a w x h grid, else along y.
Problem Serpentine(int w, int h, bool alongX) {
    Problem p(alongX ? w : h, alongX ? h : w, 1.0);
    auto water = [&](int x, int y) { (alongX ? p.depth[x][y] : p.depth[y][x]) = -1.0; };
    water(w - 1, h - 2);
    bool backward = true;
    for (int row = h - 2; row >= 1; row -= 2, backward = !backward) {
        for (int x = 1; x <= w - 2; ++x)
            water(x, row);
        if (row >= 3)
            water(backward ? 1 : w - 2, row - 1);
    }
    return p;
}

TEST(RegionMakeLandMap, EqualsTheSweepsOnAwkwardShapes) {
    std::vector<Problem> problems;
    for (int n : {5, 10, 17, 24}) {
        problems.push_back(Rings(n, false));
        problems.push_back(Rings(n, true));
    }
    Problem opened = Rings(17, true);
    opened.mapB = opened.mapA;
    // One wall cell of the innermost ring opens past the second map.
    opened.mapB[8][5][0] = opened.mapB[8][6][0] = opened.mapB[7][6][1] = opened.mapB[8][6][1] = 0;
    problems.push_back(opened);
    for (bool alongX : {true, false}) {
        problems.push_back(Serpentine(31, 30, alongX));
        problems.push_back(Serpentine(7, 30, alongX));
    }
    for (int n : {1, 2, 3, 17}) {
        problems.push_back(Problem(1, n, -1.0));
        problems.push_back(Problem(n, 1, -1.0));
        problems.push_back(Problem(n, n, 2.0));  // all land
        problems.push_back(Problem(n, n, -2.0)); // all sea
    }
    int mostSweeps = 0;
    for (const Problem& p : problems) {
        int sweeps = 0;
        const std::vector<std::string> expected = Swept(p, sweeps);
        mostSweeps = std::max(mostSweeps, sweeps);
        EXPECT_EQ(Made(p), expected) << p.nx << " x " << p.ny;
    }
    EXPECT_GT(mostSweeps, 200); // shapes that need few sweeps would prove little
}

TEST(RegionMakeLandMap, EqualsTheSweepsOnRandomGrids) {
    std::mt19937 rng(20240611);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    int cutOff = 0, behind = 0;
    for (int n = 0; n < 2500; ++n) {
        std::uniform_int_distribution<int> side(1, n < 2000 ? 14 : 40);
        Problem p(side(rng), side(rng), 0.0);
        const double wet = unit(rng), densityA = unit(rng) * 0.7, densityB = unit(rng) * densityA;
        p.tide = std::uniform_int_distribution<int>(-150, 150)(rng);
        for (int i = 0; i < p.nx; ++i)
            for (int j = 0; j < p.ny; ++j) {
                // Mostly clear of the tide level, sometimes right at it.
                const double offset = unit(rng) < wet ? -3.0 * unit(rng) : 3.0 * unit(rng);
                p.depth[i][j] = p.tide * 0.01 + (unit(rng) < 0.05 ? 0.0 : offset);
                for (int k = 0; k < 2; ++k) {
                    if (unit(rng) < densityA)
                        p.mapA[i][j][k] = std::uniform_int_distribution<int>(-5, 5)(rng) | 1;
                    if (unit(rng) < densityB)
                        p.mapB[i][j][k] = 1 + static_cast<int>(unit(rng) * 200);
                }
            }
        int sweeps = 0;
        const std::vector<std::string> expected = Swept(p, sweeps);
        ASSERT_EQ(Made(p), expected) << "grid " << n << ": " << p.nx << " x " << p.ny;
        for (const std::string& row : expected) {
            cutOff += static_cast<int>(std::count(row.begin(), row.end(), '1'));
            behind += static_cast<int>(std::count(row.begin(), row.end(), '2'));
        }
    }
    EXPECT_GT(behind, 1000); // every class turned up
    EXPECT_GT(cutOff, 1000);
}

} // namespace
