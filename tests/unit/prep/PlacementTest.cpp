#include "prep/Placement.hpp"
#include "prep/PrepError.hpp"

#include <gtest/gtest.h>

#include <cmath>

TEST(Placement, CoverBoundsCountsWholeCellsFromTheSouthWest) {
    struct Case {
        Bounds bounds;
        double spacing;
        int nx, ny;
    };
    const Case cases[] = {
        {{141.4, 38.7, 142.2, 39.5}, 0.0025, 320, 320}, // decimal bounds, whole cells apart
        {{70000, -105000, 77200, -97800}, 30, 240, 240},
        {{0, 0, 10.5, 3}, 1, 11, 3},         // rounded outward to the east
        {{0, 0, 10.000001, 3.0000000000001}, 1, 11, 3}, // only x is past the tolerance
        {{0, 0, 0.2, 0.1}, 1, 1, 1},
    };
    for (const Case& c : cases) {
        const GridGeometry g = CoverBounds(c.bounds, c.spacing);
        EXPECT_EQ(g.nx, c.nx) << c.bounds[2];
        EXPECT_EQ(g.ny, c.ny) << c.bounds[3];
        EXPECT_DOUBLE_EQ(g.orgX, c.bounds[0] + c.spacing / 2);
        EXPECT_DOUBLE_EQ(g.orgY, c.bounds[1] + c.spacing / 2);
    }
}

TEST(Placement, RefusesBoundsNoGridCanHold) {
    const std::pair<Bounds, double> bad[] = {
        {{1, 0, 0, 1}, 1},      {{0, 0, 1, 1}, 0},      {{0, 0, 1, 1}, -1},
        {{0, 0, NAN, 1}, 1},    {{0, 0, 1e12, 1}, 1e-3},
    };
    for (const auto& [bounds, spacing] : bad)
        EXPECT_THROW((void)CoverBounds(bounds, spacing), PrepError) << bounds[2] << " " << spacing;
}

TEST(Placement, NestedCellEdgesFallOnBaseCellEdges) {
    // Base: cell edges at 141.0 + k * 0.01 (points at 141.005 ...).
    const GridGeometry base{141.005, 38.005, 0.01, 100, 100};
    const BasePlacement p = PlaceOnBase({141.2133, 38.3071, 141.3302, 38.4}, 0.002, base);
    EXPECT_EQ(p.ratio, 5);
    const Bounds edges = CellEdges(p.grid);
    // Widened outward to base edges 141.21 .. 141.34 and 38.30 .. 38.40 (a bound on an
    // edge stays there).
    EXPECT_NEAR(edges[0], 141.21, 1e-9);
    EXPECT_NEAR(edges[1], 38.30, 1e-9);
    EXPECT_NEAR(edges[2], 141.34, 1e-9);
    EXPECT_NEAR(edges[3], 38.40, 1e-9);
    EXPECT_EQ(p.grid.nx, 13 * 5);
    EXPECT_EQ(p.grid.ny, 10 * 5);
    EXPECT_EQ(p.firstBaseI, 21);
    EXPECT_EQ(p.firstBaseJ, 30);
    for (double e : {edges[0], edges[2]}) {
        const double k = (e - 141.0) / 0.01;
        EXPECT_NEAR(k, std::round(k), 1e-9);
    }
}

TEST(Placement, BaseSpacingMustBeAWholeMultiple) {
    const GridGeometry base{0.5, 0.5, 90, 100, 100};
    EXPECT_EQ(PlaceOnBase({0, 0, 900, 900}, 30, base).ratio, 3);
    EXPECT_EQ(PlaceOnBase({0, 0, 900, 900}, 90, base).ratio, 1);
    try {
        (void)PlaceOnBase({0, 0, 900, 900}, 40, base);
        FAIL() << "a ratio of 2.25 was accepted";
    } catch (const PrepError& e) {
        EXPECT_STREQ(e.what(), "the base region's spacing 90 is not a whole multiple of this "
                               "region's spacing 40 (ratio 2.25): a nested region must split "
                               "every base cell into whole cells");
    }
    EXPECT_THROW((void)PlaceOnBase({0, 0, 900, 900}, 180, base), PrepError); // coarser
}
