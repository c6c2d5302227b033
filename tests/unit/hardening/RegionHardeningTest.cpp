#include "region/Region.hpp"

#include "hardening/HardeningSupport.hpp"

#include <gtest/gtest.h>

#include <string>

namespace {

// A line longer than a piece (8190 characters) is read as pieces, each a line of its own,
// even where a number straddles the cut. Reading such lines used to take time growing with
// the square of their length.
TEST(RegionHardening, LinesLongerThanAPieceAreReadPieceByPiece) {
    std::string longLine;
    for (int k = 0; k < 4094; ++k)
        longLine += "1 ";
    longLine += "123\n"; // the cut falls after "12"
    HardeningFile file("grid.txt", "4098 1\n0 0\n" + longLine + "# 9 9\n4 5\n");
    XML_REGION record;
    record.Topography.FileName = file.path();
    Region region(TPG_R, record);
    const HardeningResult run = RunQuietly([&] { return region.ReadFile(); });
    ASSERT_EQ(run.result, 1) << run.err;
    EXPECT_EQ(region.grid[0][0], 1.0);
    EXPECT_EQ(region.grid[4093][0], 1.0);
    EXPECT_EQ(region.grid[4094][0], 12.0);
    EXPECT_EQ(region.grid[4095][0], 3.0);
    EXPECT_EQ(region.grid[4096][0], 4.0);
    EXPECT_EQ(region.grid[4097][0], 5.0);
    EXPECT_EQ(region.valMax, 12.0);
}

} // namespace
