#include "region/Region.hpp"

#include "region/RegionTestSupport.hpp"

#include <algorithm>
#include <random>
#include <tuple>
#include <vector>

namespace {

const std::string kHead = "ERROR:REGION OBJECT METHOD";

TEST(RegionCheckFileNameTide, LevelAfterTheLastMarker) {
    const std::string head = "Abnormal action at Check Tide Method.";
    const std::string mismatch = ErrorBlock(
        kHead,
        {head, "TideWaterLevel(XML file)& Land Map File Name is INCONSISTENCY .",
         "Particular attention should be given to \"XML file \" and \"Land Map file Name\" ."});
    const std::string noMarker = ErrorBlock(
        kHead, {head, "Particular attention should be given to \"Land Map file Name\" ."});
    // Up to three characters after the last "_P", else the last "_M", read as atol reads them.
    const std::tuple<const char*, int, std::string> rows[] = {
        {"maps/land_P050.bin", 50, ""}, {"maps/land_P050.bin", -50, mismatch},
        {"land_M120.txt", -120, ""},    {"land_P5.dat", 5, ""},
        {"land_P", 0, ""},              {"land_P1234.bin", 123, ""},
        {"land_M050_P050.bin", 50, ""}, {"my_Port/land_M050.bin", 0, ""},
        {"land_p050.bin", 50, noMarker}};
    for (const auto& [name, tide, err] : rows) {
        const Region r = RegionReading(LSM_R, name);
        const Printed printed = Capture([&] { return r.CheckFileNameTide(tide); });
        EXPECT_EQ(printed.result, err.empty()) << name << " " << tide;
        EXPECT_EQ(printed.out + printed.err, err) << name << " " << tide;
    }
    const Region topography = RegionReading(TPG_R, "land_P050.bin");
    EXPECT_EQ(Capture([&] { return topography.CheckFileNameTide(50); }).err,
              ErrorBlock(kHead, {head}));
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

// The map drawn row by row, j = 0 first, a digit per cell.
std::vector<std::string> Picture(int nx, int ny, auto&& value) {
    std::vector<std::string> rows(static_cast<std::size_t>(ny), std::string(nx, '?'));
    for (int j = 0; j < ny; ++j)
        for (int i = 0; i < nx; ++i)
            rows[j][i] = static_cast<char>('0' + static_cast<int>(value(i, j)));
    return rows;
}

std::vector<std::string> Made(const Problem& p) {
    Region land = RegionReading(LSM_R, "");
    land.Set2dStruct(p.nx, p.ny, 0.0, 0.0);
    land.Make2dStruct();
    EXPECT_EQ(Outcome([&] { return land.MakeLandMap(p.depth, p.mapA, p.mapB, p.tide); }), "1||");
    return Picture(p.nx, p.ny, [&](int i, int j) { return land.CellValue(i, j); });
}

TEST(RegionMakeLandMap, SeaLandAndWaterBehindLandOrStructures) {
    Problem p(7, 7, -2.0); // water; a square of land round (2, 2); (4, 4) fenced in
    for (int k = 0; k < 9; ++k)
        p.depth[1 + k % 3][1 + k / 3] = k == 4 ? -2.0 : 1.0;
    const auto fence = [](Flags& f) { f[4][3][0] = f[4][4][0] = f[3][4][1] = f[4][4][1] = 7; };
    fence(p.mapA);
    EXPECT_EQ(Made(p), (std::vector<std::string>{"0000000", "0111000", "0111000", "0111000",
                                                 "0000200", "0000000", "0000000"}));
    fence(p.mapB); // closed in both
    EXPECT_EQ(Made(p)[4], "0000100");
}

TEST(RegionMakeLandMap, TideLevelInSinglePrecision) {
    // Water only where depth - tide < 0; 0.2999999999 is the float of the tide 0.30.
    const std::tuple<double, int, char> rows[] = {
        {0.5, 50, '1'}, {0.49, 50, '0'}, {0.2999999999, 30, '1'}, {1e300, 0, '1'},
        {-1e300, 0, '0'}};
    for (const auto& [depth, tide, expected] : rows) {
        Problem p(1, 1, depth);
        p.tide = tide;
        EXPECT_EQ(Made(p)[0][0], expected) << depth << " " << tide;
    }
}

TEST(RegionMakeLandMap, MismatchedGrids) {
    Region land = RegionReading(LSM_R, "");
    land.Set2dStruct(3, 2, 0.0, 0.0);
    Problem p(3, 2, -1.0);
    p.mapB.Assign(3, 1, 0);
    EXPECT_EQ(Outcome([&] { return land.MakeLandMap(p.depth, p.mapA, p.mapB, 0); }),
              "0||" +
                  ErrorBlock(kHead, {"Abnormal action at Making Land Map Method.",
                                     "Topography, structure maps and Land Map differ in size."}));
}

// The land map as repeated in-place sweeps make it: the reference the flood fill must equal.
std::vector<std::string> Swept(const Problem& p) {
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
        for (bool changed = true; changed;) {
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

TEST(RegionMakeLandMap, EqualsTheSweepsOnRandomGrids) {
    Problem shut(70, 70, -1.0); // all reached at once in the second fill: the queue grows
    shut.mapA.Assign(70, 70, 1);
    EXPECT_EQ(Made(shut), Swept(shut));
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
        const std::vector<std::string> expected = Swept(p);
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
