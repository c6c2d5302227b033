#include "region/Region.hpp"

#include "region/RegionTestSupport.hpp"

#include <cmath>
#include <limits>

namespace {

TEST(Region, UniformFillsLongitudeLatitudeAndSameRegion) {
    XML_REGION rec;
    rec.RoughnessCoefficient = {"", 0.025};
    for (const auto& [epsg, coordType] : {std::pair{4326, 1}, {4612, 1}, {4301, 0}, {3100, 0}}) {
        rec.EPSG = epsg;
        EXPECT_EQ(Region(RCF_R, rec).coordType, coordType) << epsg;
    }
    Region a(RCF_R, rec);
    a.Set2dStruct(4, 3, 100.0, 200.0);
    a.Make2dStruct();
    a.Make2dStruct2();
    a.Make2dStructInt2();
    EXPECT_EQ(a.grid[3][2] + a.pairGrid[3][2][0] + a.pairGrid[0][0][1], 3 * 0.025);
    EXPECT_EQ(a.pairIntGrid[3][2][1], 0); // Kept: zeros, not the uniform value

    // Kept: the same points at another spacing are the same region.
    a.gridSize = 10.0;
    Region b = a;
    b.gridSize = 10.000001;
    EXPECT_TRUE(isSameRegion(&a, &b));
    b.org_x = std::nextafter(100.0, 200.0);
    EXPECT_FALSE(isSameRegion(&a, &b));
    a.org_y = std::numeric_limits<double>::quiet_NaN();
    EXPECT_FALSE(isSameRegion(&a, &a));
    EXPECT_FALSE(isSameRegion(nullptr, &a));
}

} // namespace
