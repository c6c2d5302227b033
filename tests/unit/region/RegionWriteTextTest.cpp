#include "region/Region.hpp"

#include "project/FilePtr.hpp"
#include "region/RegionTestSupport.hpp"
#include "support/TempDir.hpp"

#include <cmath>
#include <cstring>
#include <limits>
#include <random>

namespace {

// Writes `r` with PutText and reads it back with the run's reader.
Region RoundTrip(const Region& r, const TempDir& dir, std::string* text = nullptr) {
    const std::string path = (dir.path() / "grid.txt").string();
    {
        FilePtr file(std::fopen(path.c_str(), "wb"));
        EXPECT_TRUE(r.PutText(file.get()));
    }
    if (text != nullptr)
        *text = FileBytes(path);
    Region back = RegionReading(TPG_R, path);
    std::int64_t count = 0;
    EXPECT_EQ(back.LoadFile(count), 0);
    return back;
}

} // namespace

TEST(RegionPutText, HeaderThenRowsFromTheSouthTenValuesALine) {
    TempDir dir;
    Region r = RegionReading(TPG_R, "");
    r.Set2dStruct(12, 2, 139.0025, -35.5);
    r.Make2dStruct();
    for (int j = 0; j < 2; ++j)
        for (int i = 0; i < 12; ++i)
            r.grid[i][j] = j * 100 + i - 5.25;
    std::string text;
    const Region back = RoundTrip(r, dir, &text);
    EXPECT_EQ(text, "12 2\n139.0025 -35.5\n"
                    "-5.25 -4.25 -3.25 -2.25 -1.25 -0.25 0.75 1.75 2.75 3.75\n4.75 5.75\n"
                    "94.75 95.75 96.75 97.75 98.75 99.75 100.75 101.75 102.75 103.75\n"
                    "104.75 105.75\n");
    EXPECT_EQ(back.nx, 12);
    EXPECT_EQ(back.grid[11][1], 105.75);
}

TEST(RegionPutText, EveryFloatComesBackWithoutAnExponent) {
    TempDir dir;
    Region r = RegionReading(TPG_R, "");
    const int nx = 100;
    const int ny = 50;
    r.Set2dStruct(nx, ny, 1e-7, 123456789.125);
    r.Make2dStruct();
    std::mt19937 random(7);
    std::uniform_int_distribution<std::uint32_t> bits;
    const float edges[] = {1e-30f, -1e-7f, 1e20f, -3.4e38f, std::numeric_limits<float>::denorm_min(),
                           0.1f, -0.0f, 16777217.0f, 1234.5677f, 2.5e-5f};
    for (int k = 0; k < nx * ny; ++k) {
        float value = 0;
        if (k < 10) {
            value = edges[k];
        } else {
            const std::uint32_t b = bits(random);
            std::memcpy(&value, &b, sizeof value);
            if (!std::isfinite(value))
                value = 1.0f / static_cast<float>(k);
        }
        r.grid[k % nx][k / nx] = value;
    }
    std::string text;
    const Region back = RoundTrip(r, dir, &text);
    EXPECT_EQ(text.find_first_of("eE"), std::string::npos);
    EXPECT_EQ(back.org_x, 1e-7);
    EXPECT_EQ(back.org_y, 123456789.125);
    int differing = 0;
    for (int j = 0; j < ny; ++j)
        for (int i = 0; i < nx; ++i)
            differing += static_cast<float>(back.grid[i][j]) != static_cast<float>(r.grid[i][j]);
    EXPECT_EQ(differing, 0);
}
