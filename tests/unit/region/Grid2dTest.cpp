#include "region/Grid2d.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>

// Grids past the large-block size take fresh memory and leave zeros unwritten; whatever
// the grid held before, and whichever way it is filled, every cell must read as filled.
TEST(Grid2d, LargeGridsReadAsFilledAfterReuse) {
    constexpr int nx = 1500, ny = 1000; // 12 MB of doubles, 24 MB of int32 pairs
    ASSERT_TRUE(UninitialisedAllocator<double>::IsHuge(std::size_t{nx} * ny));

    Grid2d<double> g;
    g.Assign(nx, ny, 7.5);
    EXPECT_EQ(g[nx - 1][ny - 1], 7.5);
    g[3][4] = 1.0;
    g.Assign(nx, ny, 0.0);
    EXPECT_EQ(g[3][4], 0.0);
    EXPECT_EQ(g[0][0], 0.0);
    g.Assign(nx, ny, -0.0); // not zero bytes: must be written
    EXPECT_TRUE(std::signbit(g[nx / 2][ny / 2]));

    Grid2d<std::int32_t, 2> pairs;
    pairs.Assign(nx, ny, 9);
    pairs.Assign(nx, ny, 0);
    EXPECT_EQ(pairs[nx - 1][ny - 1][1], 0);
    pairs[nx - 1][ny - 1][1] = 4; // fresh memory is writable to its last value
    EXPECT_EQ(pairs(nx - 1, ny - 1)[1], 4);

    Grid2d<double> copy = g;
    EXPECT_TRUE(std::signbit(copy[1][1]));

    // The block of a grid just released is kept for the next one, values and all; a grid
    // of zeros must still read as zeros.
    Grid2d<double> released;
    released.Assign(nx, ny, 3.0);
    released.Release();
    Grid2d<double> zeros;
    zeros.Assign(nx, ny, 0.0);
    for (int i = 0; i < nx; i += 97)
        for (int j = 0; j < ny; j += 89)
            ASSERT_EQ(zeros[i][j], 0.0) << i << " " << j;
    EXPECT_EQ(zeros[nx - 1][ny - 1], 0.0);
}
