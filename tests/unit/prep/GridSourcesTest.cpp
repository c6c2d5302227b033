#include "prep/GridCommand.hpp"

#include "prep/PrepTestSupport.hpp"
#include "support/TempDir.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

struct Outcome {
    int status;
    std::string out;
    std::string err;
};

Outcome RunCaptured(const GridOptions& options) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = RunGrid(options);
    std::string out = testing::internal::GetCapturedStdout();
    return {status, out, testing::internal::GetCapturedStderr()};
}

// 40 x 40 pixels of 0.025 degrees from 139.4875 E, 35.5125 N.
RasterLayout Layout(const char* driver) {
    RasterLayout layout;
    layout.driver = driver;
    layout.nx = 40;
    layout.ny = 40;
    layout.transform = {139.4875, 0.025, 0, 35.5125, 0, -0.025};
    return layout;
}

// A 0.1 degree grid over 139.5 .. 140 E, 34.5 .. 35.5 N, nearest neighbour: the centre of
// cell (i, j) lies in the middle of pixel (4 i + 2, 38 - 4 j), whose value it takes.
GridOptions Options(const TempDir& dir, std::vector<std::string> sources) {
    GridOptions o;
    o.epsg = 4326;
    o.spacing = 0.1;
    o.bounds = Bounds{139.5, 34.5, 140.0, 35.5};
    o.output = (dir.path() / "out.txt").string();
    o.resampling = "near";
    for (const std::string& s : sources)
        o.sources.push_back((dir.path() / s).string());
    return o;
}

// 100 in the column of cell (2, j).
double Hundred(int c, int) { return 90.0 + c; }

} // namespace

TEST(PrepGridSources, ValuesBecomeElevationsInMetres) {
    using Metadata = std::vector<std::pair<std::string, std::string>>;
    const Metadata down = {{"positive", "down"}};
    const Metadata downInFeet = {{"positive", "down"}, {"units", "ft"}};
    struct Case {
        const char* driver;
        RasterDescription description;
        std::function<void(GridOptions&)> change;
        double expected;
        const char* note; // the summary's line under the source, or ""
    };
    const Case cases[] = {
        {"GTiff", {"ft", {}}, nullptr, 30.48, "in feet (its unit \"ft\"): scaled by 0.3048 to metres"},
        {"GTiff", {"international foot", {}}, nullptr, 30.48, "in feet (its unit \"international foot\")"},
        {"GTiff", {"US survey foot", {}}, nullptr, 100 * 1200.0 / 3937,
         "in US survey feet (its unit \"US survey foot\"): scaled by 0.3048006096 to metres"},
        {"GTiff", {"ftUS", {}}, [](GridOptions& o) { o.zScale = 1; }, 100, ""},
        {"GTiff", {"m", {}}, [](GridOptions& o) { o.zScaleFor = {{1, 2.0}}; }, 200,
         "values scaled by 2 (--z-scale)"},
        {"netCDF", {"", down}, nullptr, -100,
         "depths, positive down as its positive = \"down\" says: turned into elevations"},
        {"netCDF", {"", down}, [](GridOptions& o) { o.depthPositive = true; }, -100, ""},
        {"netCDF", {"", downInFeet}, nullptr, -30.48, "in feet (its unit \"ft\")"},
        {"netCDF", {"", {{"positive", "up"}}}, nullptr, 100, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.driver) + " " + c.note);
        TempDir dir;
        const std::string name = std::string("src.") + (c.driver[0] == 'G' ? "tif" : "nc");
        MakeDescribedRaster((dir.path() / name).string(), Layout(c.driver), c.description,
                            Hundred);
        GridOptions o = Options(dir, {name});
        if (c.change)
            c.change(o);
        const Outcome run = RunCaptured(o);
        ASSERT_EQ(run.status, 0) << run.err;
        const Region grid = ReadBack(o.output, 0.1);
        EXPECT_FLOAT_EQ(static_cast<float>(grid.grid(2, 7)), static_cast<float>(c.expected));
        const std::size_t source = run.out.find("  source ");
        const std::size_t noteAt = run.out.find("\n               ", source);
        if (*c.note == '\0')
            EXPECT_EQ(noteAt, std::string::npos) << run.out;
        else
            EXPECT_NE(run.out.find(std::string("\n               ") + c.note, source),
                      std::string::npos)
                << run.out;
    }
}

TEST(PrepGridSources, UntaggedMarkersAreRefusedUnlessNamedOrKept) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    enum class Expect { Refused, FallsThrough, Kept };
    struct Case {
        double marker;
        bool underGrid; // the marked pixels lie where the grid reads, or off it
        std::function<void(GridOptions&)> change;
        Expect expect;
    };
    const Case cases[] = {
        {-9999, true, nullptr, Expect::Refused},
        {-32768, true, nullptr, Expect::Refused},
        {-32767, true, nullptr, Expect::Refused},
        {1e20, true, nullptr, Expect::Refused},
        {-3e38, true, nullptr, Expect::Refused},
        {-9999, false, nullptr, Expect::FallsThrough},
        {nan, true, nullptr, Expect::FallsThrough}, // a float source's NaN needs no tag
        {-9999, true, [](GridOptions& o) { o.sourceNoData = -9999; }, Expect::FallsThrough},
        {-32768, true, [](GridOptions& o) { o.sourceNoDataFor = {{2, -32768.0}}; },
         Expect::FallsThrough},
        {-9999, true, [](GridOptions& o) { o.keepMarkers = true; }, Expect::Kept},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.marker) + (c.underGrid ? " under the grid" : " off it"));
        TempDir dir;
        MakeRaster((dir.path() / "regional.tif").string(), Layout("GTiff"), Hundred);
        // The survey's marked pixels: those of cells (1..2, 3..4), or columns the grid never
        // reads.
        MakeRaster((dir.path() / "survey.tif").string(), Layout("GTiff"), [&](int col, int l) {
            const bool marked = c.underGrid ? col >= 4 && col < 12 && l >= 20 && l < 28
                                            : col >= 30 && l >= 20;
            return marked ? c.marker : -50.0 - col;
        });
        GridOptions o = Options(dir, {"regional.tif", "survey.tif"});
        if (c.change)
            c.change(o);
        const Outcome run = RunCaptured(o);
        if (c.expect == Expect::Refused) {
            EXPECT_EQ(run.status, 1);
            EXPECT_EQ(run.err.rfind("seaforge-prep: " + o.sources[1] + ": 64 of its values where "
                                    "the grid reads it hold ", 0), 0u) << run.err;
            EXPECT_NE(run.err.find(", which marks missing data in many files, but the source "
                                   "has no nodata tag, so they would be resampled into real "
                                   "cells; name the marker with --source-nodata "),
                      std::string::npos) << run.err;
            EXPECT_NE(run.err.find("(or --nodata-source 2 "), std::string::npos) << run.err;
            EXPECT_NE(run.err.find("or take such values as real with --keep-markers\n"),
                      std::string::npos) << run.err;
            EXPECT_FALSE(fs::exists(o.output));
            continue;
        }
        ASSERT_EQ(run.status, 0) << run.err;
        const Region grid = ReadBack(o.output, 0.1);
        const double marked = c.expect == Expect::Kept ? c.marker
                              : c.underGrid            ? 96.0
                                                       : -56.0;
        EXPECT_EQ(grid.grid(1, 3), marked);
        EXPECT_EQ(grid.grid(3, 3), -64.0);
    }
}

TEST(PrepGridSources, AGridWithoutSystemTakesTheOneGiven) {
    // As GMT writes a grid: x and y in degrees, no coordinate system.
    TempDir dir;
    RasterLayout gmt = Layout("netCDF");
    gmt.epsg = 0;
    MakeRaster((dir.path() / "gmt.nc").string(), gmt, [](int c, int l) { return -10.0 * c - l; });
    GridOptions o = Options(dir, {"gmt.nc"});
    const Outcome refused = RunCaptured(o);
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err, "seaforge-prep: " + o.sources[0] + ": has no coordinate system; say "
                           "which it is with --source-srs CODE (for example --source-srs 4326 "
                           "for longitude and latitude in degrees)\n");
    for (const auto& given : {std::function<void(GridOptions&)>(
                                  [](GridOptions& g) { g.sourceSrs = "4326"; }),
                              std::function<void(GridOptions&)>([](GridOptions& g) {
                                  g.sourceSrsFor = {{1, "EPSG:4326"}};
                              })}) {
        GridOptions with = o;
        given(with);
        const Outcome run = RunCaptured(with);
        ASSERT_EQ(run.status, 0) << run.err;
        const Region grid = ReadBack(o.output, 0.1);
        EXPECT_EQ(grid.grid(2, 7), -110.0); // pixel (10, 10)
    }
}
