#include "prep/BuildCommand.hpp"
#include "prep/NestCommand.hpp"
#include "prep/Plan.hpp"

#include "prep/NestTestSupport.hpp"
#include "support/RunSeaforge.hpp"
#include "support/TempDir.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>

namespace fs = std::filesystem;

namespace {

std::string Slurp(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// A coast with a coarse source over the whole chain and a finer one near the site, and
// a fault off the coast.
struct Place {
    const char* name;
    double lon;
    double lat;
    int zone; // the JGD2000 plane system expected for the finer regions; 0 outside Japan
};

void WriteInputs(const TempDir& dir, const Place& p) {
    const Coast coast{p.lon, p.lat};
    coast.Write((dir.path() / "coarse.tif").string(), 0.01, -1.0, -1.0, 1.5, 1.0);
    coast.Write((dir.path() / "survey.tif").string(), 0.0005, -0.08, -0.08, 0.08, 0.08);
    char fault[200];
    std::snprintf(fault, sizeof fault,
                  "# lat lon depth unused strike dip rake length width slip name\n"
                  "%.3f %.3f 15000 0 190 15 90 40000 20000 4.0 \"Offshore\"\n",
                  p.lat + 0.1, p.lon + 0.5);
    dir.Write("fault.txt", fault);
}

NestOptions Options(const TempDir& dir, const Place& p, const std::string& out = "out") {
    NestOptions o;
    o.site = std::array<double, 2>{p.lon, p.lat};
    o.radius = "1km";
    o.finest = 30;
    o.levels = 4;
    o.name = "Coast";
    o.output = (dir.path() / out).string();
    o.fault = (dir.path() / "fault.txt").string();
    o.sources = {(dir.path() / "coarse.tif").string(), (dir.path() / "survey.tif").string()};
    o.quiet = true;
    return o;
}

std::vector<double> CflNumbers(const std::string& console) {
    std::vector<double> numbers;
    const std::regex line(R"( CFL number : +([-0-9.naif]+))");
    for (auto m = std::sregex_iterator(console.begin(), console.end(), line);
         m != std::sregex_iterator(); ++m)
        numbers.push_back(std::stod((*m)[1]));
    return numbers;
}

std::size_t Count(const std::string& text, const std::string& what) {
    std::size_t n = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

class NestPlace : public testing::TestWithParam<Place> {};

// The whole way from a place to a run: the chain's systems and spacings, the project the
// run reads and completes with every nesting accepted and every CFL number within the
// limit, and check finding nothing.
TEST_P(NestPlace, ChainRunsAndChecksClean) {
    const Place& place = GetParam();
    TempDir dir;
    WriteInputs(dir, place);
    testing::internal::CaptureStderr();
    const int status = RunNest(Options(dir, place));
    const std::string err = testing::internal::GetCapturedStderr();
    const fs::path out = dir.path() / "out";
    EXPECT_EQ(status, 0) << err << Slurp(out / "Check.txt");

    const Plan plan = ReadPlan((out / kPlanName).string());
    ASSERT_EQ(plan.regions.size(), 4u);
    EXPECT_EQ(plan.regions[0].epsg, place.zone != 0 ? 4612 : 4326);
    for (std::size_t k = 1; k < plan.regions.size(); ++k) {
        const PlanRegion& r = plan.regions[k];
        const PlanRegion& base = plan.regions[k - 1];
        EXPECT_EQ(r.base, base.number);
        EXPECT_EQ(r.epsg, place.zone != 0 ? place.zone : 4326) << r.name;
        // Short decimals, never a rounded third: 0.0003, 0.0009, 90, 270.
        EXPECT_LE(ShortestDecimal(r.spacing).size(), 7u) << r.spacing;
        if (r.epsg == base.epsg) {
            EXPECT_NEAR(base.spacing, 3 * r.spacing, 1e-15 * base.spacing) << r.name;
        }
    }
    if (place.zone == 0) {
        // The area of interest with 10 finest cells to spare.
        const PlanRegion& finest = plan.regions.back();
        const double dLat = 1000 / 111195.0 + 10 * finest.spacing;
        EXPECT_LE(finest.bounds[1], place.lat - dLat);
        EXPECT_GE(finest.bounds[3], place.lat + dLat);
        EXPECT_LE(finest.bounds[0], place.lon - 10 * finest.spacing);
    }
    EXPECT_EQ(Slurp(out / "Plan.json").find(out.string()), std::string::npos)
        << "sources are named from the plan's folder";
    EXPECT_TRUE(fs::exists(out / "Overview.png"));
    EXPECT_TRUE(fs::exists(out / "Overview.gpkg"));
    EXPECT_NE(Slurp(out / "Check.txt").find("0 errors, 0 warnings"), std::string::npos)
        << Slurp(out / "Check.txt");

    const SeaforgeRun run = RunSeaforge(out, {"Coast.xml"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("Successful Completion."), std::string::npos);
    EXPECT_EQ(Count(run.out, "Comprisable:OK"), 3u);
    const std::vector<double> cfl = CflNumbers(run.out);
    ASSERT_EQ(cfl.size(), 4u) << run.out;
    for (double c : cfl)
        EXPECT_LE(c, 0.8);
}

INSTANTIATE_TEST_SUITE_P(Places, NestPlace,
                         testing::Values(Place{"Sanriku", 141.89, 39.27, 2452},
                                         Place{"Hawaii", -155.05, 19.72, 0}),
                         [](const testing::TestParamInfo<Place>& place) {
                             return std::string(place.param.name);
                         });

} // namespace
