#include "region/GridValues.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();

bool SameBits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

Extremes OneByOne(const std::vector<double>& values, std::size_t from, std::size_t to) {
    Extremes e;
    for (std::size_t k = from; k < to; ++k)
        e.Add(values[k]);
    return e;
}

TEST(GridValues, ExtremesKeepTheFirstOfEqualValuesAndAFirstNaN) {
    EXPECT_TRUE(std::signbit(OneByOne({-0.0, 0.0}, 0, 2).Max()));
    EXPECT_FALSE(std::signbit(OneByOne({-1.0, 0.0, -0.0}, 0, 3).Max()));
    EXPECT_TRUE(std::isnan(OneByOne({kNaN, 5.0, -5.0}, 0, 3).Min()));
    EXPECT_EQ(OneByOne({1.0, kNaN, 5.0}, 0, 3).Max(), 5.0);
    EXPECT_EQ(Extremes().Max(), 0.0);
}

TEST(GridValues, ExtremesOfPartsEqualOneScan) {
    std::mt19937 random(11);
    for (int round = 0; round < 300; ++round) {
        std::vector<double> values(1 + random() % 40);
        for (double& v : values) {
            const unsigned kind = random() % 10;
            v = kind == 0 ? kNaN : kind == 1 ? 0.0 : kind == 2 ? -0.0 : double(random() % 7) - 3.0;
        }
        const Extremes whole = OneByOne(values, 0, values.size());
        const Extremes scanned = ExtremesOf(values.data(), values.size());
        ASSERT_TRUE(SameBits(scanned.Max(), whole.Max()) && SameBits(scanned.Min(), whole.Min()))
            << "round " << round;
        for (std::size_t split = 0; split <= values.size(); ++split) {
            Extremes joined = ExtremesOf(values.data(), split);
            joined.Append(OneByOne(values, split, values.size()));
            ASSERT_TRUE(SameBits(joined.Max(), whole.Max()) && SameBits(joined.Min(), whole.Min()))
                << "round " << round << " split " << split;
        }
    }
}

TEST(GridValues, StoresOnlyTheAnnouncedCountButCountsAndScansAll) {
    GridValues g;
    g.Prepare(3, 1, false);
    for (double v : {4.0, 2.0, 9.0, -7.0, 8.0})
        g.AddValue(v);
    const GridValues::Mark mark = g.Here();
    g.AddValue(-100.0);
    g.Restore(mark); // a line read again takes its values back
    g.Finish();
    EXPECT_EQ(g.valueCount, 5);
    EXPECT_EQ(g.values.size(), 3u);
    EXPECT_EQ(g.values[2], 9.0);
    EXPECT_EQ(g.extremes.Max(), 9.0);
    EXPECT_EQ(g.extremes.Min(), -7.0);
}

} // namespace
