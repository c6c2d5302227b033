#include "prep/ChainDesign.hpp"
#include "prep/Plan.hpp"
#include "prep/NestTestSupport.hpp"
#include "support/TempDir.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>

namespace {

// Made-up ground without files: a plane sloping into the sea eastwards.
class SlopeTerrain final : public Terrain {
  public:
    double ElevationAt(double lon, double) const override { return -2000.0 * (lon - 140.0); }
    double LowestIn(const Bounds& b) const override { return ElevationAt(b[2], 0); }
    Bounds DataExtent() const override { return {139.0, 37.0, 142.0, 41.0}; }
};

// A site on that slope, 30 m cells over its area of interest; `levels` 0: as many as needed.
ChainRules SiteRules(int levels) {
    ChainRules rules;
    rules.siteLon = 140.5;
    rules.siteLat = 39.5;
    rules.interest = {140.49, 39.49, 140.51, 39.51};
    rules.finest = 30;
    rules.levels = levels;
    return rules;
}

ChainRow Row(int number, int epsg, double spacing, double lowest) {
    ChainRow r;
    r.number = number;
    r.base = number - 1;
    r.epsg = epsg;
    r.spacing = spacing;
    r.grid = {0.5 * spacing, 0.5 * spacing, spacing, 100, 100};
    r.lowest = lowest;
    return r;
}

// The time increment is the largest 3-digit value the run's own step rule keeps within the
// limit: one unit more in its third digit breaks the limit somewhere.
TEST(NestChain, TimeIncrementIsTheLargestThreeDigitValue) {
    struct Case {
        std::vector<ChainRow> rows;
        double cfl;
    };
    const Case cases[] = {
        {{Row(1, 2452, 270, -3000), Row(2, 2452, 90, -200), Row(3, 2452, 30, -20)}, 0.8},
        {{Row(1, 4612, 0.0081, -4000), Row(2, 2452, 270, -150), Row(3, 2452, 90, -50)}, 0.8},
        {{Row(1, 4326, 0.0009, -100), Row(2, 4326, 0.0003, -10)}, 0.5},
        {{Row(1, 2452, 90, -5000)}, 1.0},
    };
    for (const Case& c : cases) {
        const double ti = LargestTimeIncrement(c.rows, c.cfl);
        const std::string text = ShortestDecimal(ti);
        int digits = 0;
        for (char ch : text)
            digits += (ch >= '1' && ch <= '9') || (digits > 0 && ch == '0');
        EXPECT_LE(digits, 3) << text;
        std::vector<ChainRow> rows = c.rows;
        WorkOutRowSteps(rows, ti, c.cfl);
        for (const ChainRow& r : rows)
            EXPECT_LE(r.cfl, c.cfl) << text;
        const double unit = std::pow(10.0, std::floor(std::log10(ti)) - 2);
        WorkOutRowSteps(rows, ti + unit, c.cfl);
        double worst = 0;
        for (const ChainRow& r : rows)
            worst = std::max(worst, r.cfl);
        EXPECT_GT(worst, c.cfl) << text;
    }
}

TEST(NestChain, JapanZoneFromPROJsAreaOfUse) {
    struct Case {
        double lon;
        double lat;
        int zone;
    };
    const Case cases[] = {
        {141.89, 39.27, 2452}, // Kamaishi, Iwate: system X
        {139.77, 35.68, 2451}, // Tokyo: system IX
        {138.50, 34.90, 2450}, // Suruga Bay, Shizuoka: system VIII
        {-155.05, 19.72, 0},   // Hilo
        {2.35, 48.85, 0},
    };
    for (const Case& c : cases)
        EXPECT_EQ(JapanZone(c.lon, c.lat), c.zone) << c.lon << " " << c.lat;
}

TEST(NestChain, RulesThatCannotBeMetAreRefused) {
    const SlopeTerrain terrain;
    struct Case {
        const char* what;
        void (*change)(ChainRules&);
    };
    const Case cases[] = {
        {"below 0.5 m", [](ChainRules& r) { r.finest = 0.4; }},
        {"2 or more", [](ChainRules& r) { r.ratio = 1; }},
        {"coarser than the outer", [](ChainRules& r) { r.outerSpacing = 10; }},
        {"more than --max-cells", [](ChainRules& r) { r.maxCells = 1000; }},
    };
    for (const Case& c : cases) {
        ChainRules rules = SiteRules(3);
        c.change(rules);
        const std::string refusal = Refusal([&] { (void)DesignChain(rules, terrain); });
        EXPECT_NE(refusal.find(c.what), std::string::npos) << c.what << ": " << refusal;
    }
}

// Same-system regions split their base's cells, keep the margin, and hold the area of
// interest with 10 cells to spare; the outer region grows towards deep water.
TEST(NestChain, EdgesOnBaseCellsWithTheMargin) {
    const SlopeTerrain terrain;
    const ChainDesign d = DesignChain(SiteRules(4), terrain);
    ASSERT_EQ(d.rows.size(), 4u);
    EXPECT_EQ(d.zone, 2452);
    for (std::size_t k = 1; k < d.rows.size(); ++k) {
        const ChainRow& r = d.rows[k];
        const ChainRow& base = d.rows[k - 1];
        EXPECT_GE(r.marginCells, 10) << r.name;
        EXPECT_GE(r.grid.nx, 100);
        EXPECT_GE(r.grid.ny, 100);
        if (r.epsg != base.epsg)
            continue;
        const Bounds e = CellEdges(r.grid);
        const Bounds b = CellEdges(base.grid);
        for (int side = 0; side < 4; ++side) {
            const double cells = (e[side] - b[side % 2]) / base.spacing;
            EXPECT_NEAR(cells, std::round(cells), 1e-6) << r.name << " side " << side;
        }
    }
    for (const ChainRow& r : d.rows)
        EXPECT_LE(r.cfl, 0.8) << r.name;
    // The sea deepens eastwards: the outer region reaches past 200 m there.
    EXPECT_LT(terrain.ElevationAt(CellEdges(d.rows[0].grid)[2], 0), -200);
}

TEST(NestPlan, RoundTripKeepsEveryFieldAndUnknownSourceOptions) {
    TempDir dir;
    const std::string path = dir.Write("Plan.json", R"({
  "name": "Bay",
  "total_time": 1800,
  "cfl": 0.7,
  "time_increment": 0.25,
  "fault": "../fault.txt",
  "regions": [
    {"number": 1, "name": "Outer", "base": 0, "epsg": 4612, "spacing": 0.0081,
     "bounds": [141.4, 38.8, 142.2, 39.6], "grid": "Outer.txt",
     "sources": ["gebco.nc", {"path": "dem.tif", "depth_positive": true, "source_srs": "EPSG:6668",
                              "nodata": -9999, "z_scale": 0.3048, "keep_markers": true,
                              "smoothing": 2},
                 {"path": "lidar.nc", "nodata": "nan"}]},
    {"number": 2, "name": "Bay", "base": 1, "epsg": 2452, "spacing": 270,
     "bounds": [77760, -93960, 105300, -66420], "grid": "Bay.bin",
     "sources": [{"path": "survey.tif", "resampling": "cubic"}]}
  ]
})");
    const Plan plan = ReadPlan(path);
    EXPECT_EQ(plan.name, "Bay");
    EXPECT_EQ(*plan.timeIncrement, 0.25);
    ASSERT_EQ(plan.regions.size(), 2u);
    EXPECT_EQ(plan.regions[0].spacing, 0.0081);
    const PlanSource& dem = plan.regions[0].sources[1];
    EXPECT_TRUE(dem.depthPositive);
    EXPECT_EQ(dem.srs, "EPSG:6668");
    EXPECT_EQ(dem.noData, -9999.0);
    EXPECT_EQ(dem.zScale, 0.3048);
    EXPECT_TRUE(dem.keepMarkers);
    ASSERT_EQ(dem.pending.size(), 1u);
    EXPECT_EQ(dem.pending[0].first, "smoothing");
    const PlanSource& lidar = plan.regions[0].sources[2];
    ASSERT_TRUE(lidar.noData.has_value());
    EXPECT_TRUE(std::isnan(*lidar.noData));
    EXPECT_FALSE(lidar.zScale || lidar.keepMarkers || !lidar.srs.empty());
    // As the grid command takes them.
    const WarpSource warp = AsWarpSource(dem, "/data/dem.tif");
    EXPECT_EQ(warp.path, "/data/dem.tif");
    EXPECT_TRUE(warp.depthPositive && warp.keepMarkers);
    EXPECT_EQ(warp.srs, "EPSG:6668");
    EXPECT_EQ(warp.noData, -9999.0);
    EXPECT_EQ(warp.zScale, 0.3048);
    EXPECT_EQ(plan.regions[1].sources[0].resampling, "cubic");
    const std::string text = PlanText(plan);
    EXPECT_NE(text.find("\"source_srs\": \"EPSG:6668\""), std::string::npos) << text;
    EXPECT_NE(text.find("\"nodata\": \"nan\""), std::string::npos) << text;
    EXPECT_NE(text.find("0.0081,"), std::string::npos) << text;
    const std::string again = dir.Write("Again.json", text);
    EXPECT_EQ(PlanText(ReadPlan(again)), text);
}

TEST(NestPlan, InvalidPlansAreRefusedWithThePlace) {
    const std::string region = R"({"number": 1, "name": "Outer", "base": 0, "epsg": 4326,
        "spacing": 0.01, "bounds": [0, 0, 1, 1], "grid": "o.txt", "sources": ["a.tif"]})";
    // A plan of that one region with `from` in it replaced by `to`.
    const auto with = [&region](const std::string& from, const std::string& to) {
        std::string edited = region;
        edited.replace(edited.find(from), from.size(), to);
        return R"({"name": "P", "regions": [)" + edited + "]}";
    };
    struct Case {
        std::string text;
        const char* message;
    };
    const Case cases[] = {
        {"{", "not valid JSON"},
        {R"({"regions": [)" + region + "]}", "\"name\" is missing"},
        {R"({"name": "P", "regions": []})", "at least one region"},
        {R"({"name": "P", "cfl": 1.5, "regions": [)" + region + "]}", "0 .. 1"},
        {R"({"name": "P", "regions": [)" + region + "," + region + "]}", "regions[1].number"},
        {with(R"("number": 1, "name": "Outer", "base": 0)",
              R"("number": 2, "name": "N", "base": 1)"),
         "base region 1 is not listed before it"},
        {with("[0, 0, 1, 1]", "[1, 0, 0, 1]"), "regions[0].bounds"},
        {with(R"(["a.tif"])", R"([{"path": "a.tif", "nodata": "none"}])"),
         "regions[0].sources[0].nodata"},
        {with(R"(["a.tif"])", R"([{"path": "a.tif", "z_scale": 0}])"), "a factor other than 0"},
    };
    TempDir dir;
    for (const Case& c : cases) {
        const std::string path = dir.Write("Plan.json", c.text);
        const std::string refusal = Refusal([&] { (void)ReadPlan(path); });
        EXPECT_NE(refusal.find(c.message), std::string::npos) << c.text << ": " << refusal;
    }
}

// A flat sea floor 100 m deep with a steep-sided pit 400 m deep, 0.004 degrees across,
// centred at (`pitLon`, 12) (none when NaN); outside Japan, so every region is geographic.
class PitTerrain final : public Terrain {
  public:
    explicit PitTerrain(double pitLon) : pitLon_(pitLon) {}
    double ElevationAt(double lon, double lat) const override {
        if (std::isnan(pitLon_))
            return -100;
        const double distance = std::hypot(lon - pitLon_, lat - 12);
        return -100 - 300 * std::clamp(1 - distance / 0.004, 0.0, 1.0);
    }
    double LowestIn(const Bounds&) const override { return -400; }
    Bounds DataExtent() const override { return {-32, 10, -28, 14}; }

  private:
    double pitLon_;
};

ChainRules PitRules() {
    ChainRules rules;
    rules.siteLon = -30;
    rules.siteLat = 12;
    rules.interest = {-30.005, 11.995, -29.995, 12.005};
    rules.finest = 30;
    rules.levels = 3;
    rules.outerDepth = 50; // the flat floor is deep enough for the outer region
    return rules;
}

// A nested edge that would fall on a steep slope moves off it, a base cell at a time.
TEST(NestChain, NestedEdgeMovesOffASteepSlope) {
    const ChainDesign plain = DesignChain(PitRules(), PitTerrain(std::nan("")));
    const ChainRow& before = plain.rows[1];
    const double edge = CellEdges(before.grid)[0];
    const ChainDesign moved = DesignChain(PitRules(), PitTerrain(edge));
    const ChainRow& after = moved.rows[1];
    const double base = moved.rows[0].spacing;
    EXPECT_LT(CellEdges(after.grid)[0], edge - 0.9 * base) << "the western edge moved west";
    EXPECT_NEAR(CellEdges(after.grid)[2], CellEdges(before.grid)[2], 1e-9) << "the others stay";
    EXPECT_LT(after.edgeJump, 5.0);
    EXPECT_TRUE(moved.warnings.empty()) << moved.warnings.front();
    const double cells = (CellEdges(after.grid)[0] - CellEdges(moved.rows[0].grid)[0]) / base;
    EXPECT_NEAR(cells, std::round(cells), 1e-6) << "still on the base's cell edges";
}

// The outer region holds every fault outline; one beyond the data is named in a warning
// and the region stops at the data.
TEST(NestChain, OuterRegionHoldsTheFaults) {
    const SlopeTerrain terrain;
    ChainRules rules = SiteRules(3);
    rules.faults = {{"1 (Near)", {141.2, 38.1, 141.6, 38.4}}};
    ChainDesign d = DesignChain(rules, terrain);
    Bounds outer = CellEdges(d.rows[0].grid);
    EXPECT_LE(outer[0], 141.2);
    EXPECT_LE(outer[1], 38.1 - 10 * d.rows[0].spacing + 1e-9);
    EXPECT_GE(outer[2], 141.6 + 10 * d.rows[0].spacing - 1e-9);
    EXPECT_TRUE(d.warnings.empty()) << d.warnings.front();

    // Data ending a few cells east of the site cut the regions short, and say so.
    class ShortTerrain final : public Terrain {
      public:
        double ElevationAt(double lon, double lat) const override {
            return lon > 140.52 ? std::nan("") : SlopeTerrain().ElevationAt(lon, lat);
        }
        double LowestIn(const Bounds&) const override { return -1000; }
        Bounds DataExtent() const override { return {139.0, 37.0, 140.52, 41.0}; }
    };
    const ChainDesign cut = DesignChain(rules, ShortTerrain());
    bool named = false;
    for (const std::string& w : cut.warnings)
        named = named || w.find("fewer than 100 a side: the data end there") != std::string::npos;
    EXPECT_TRUE(named);

    rules.faults.push_back({"2 (Far)", {141.8, 39.0, 142.6, 39.2}});
    d = DesignChain(rules, terrain);
    outer = CellEdges(d.rows[0].grid);
    EXPECT_LE(outer[2], 142.0 + d.rows[0].spacing);
    ASSERT_EQ(d.warnings.size(), 1u);
    EXPECT_NE(d.warnings[0].find("fault segment 2 (Far) reaches"), std::string::npos)
        << d.warnings[0];
}

// Without --levels the chain grows until its outer spacing reaches the source's cells, or
// --outer-spacing.
TEST(NestChain, LevelsFromTheSourceOrTheOuterSpacing) {
    const SlopeTerrain terrain;
    ChainRules rules = SiteRules(0);
    struct Case {
        double sourceMetres;
        double outerSpacing;
        std::size_t levels;
    };
    for (const Case& c : {Case{800, 0, 4}, Case{810, 0, 4}, Case{811, 0, 5}, Case{50, 0, 2},
                          Case{800, 270, 3}}) {
        rules.sourceMetres = c.sourceMetres;
        rules.outerSpacing = c.outerSpacing;
        EXPECT_EQ(DesignChain(rules, terrain).rows.size(), c.levels)
            << c.sourceMetres << " " << c.outerSpacing;
    }
}

} // namespace
