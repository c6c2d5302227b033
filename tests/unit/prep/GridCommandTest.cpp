#include "prep/GridCommand.hpp"

#include "prep/PrepTestSupport.hpp"
#include "support/TempDir.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <limits>

#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;

Outcome RunCaptured(const GridOptions& options) {
    return Captured([&] { return RunGrid(options); });
}

// A geographic source: 100 x 100 pixels of 0.01 degree over 139.5 .. 140.5 E, 34.5 .. 35.5 N,
// or off centre, 40 x 40 pixels of 0.025 degree from 139.4875 E, 35.5125 N.
RasterLayout Geographic(const char* driver = "GTiff", bool offCentre = false) {
    RasterLayout layout;
    layout.driver = driver;
    layout.nx = layout.ny = offCentre ? 40 : 100;
    layout.transform = offCentre ? std::array<double, 6>{139.4875, 0.025, 0, 35.5125, 0, -0.025}
                                 : std::array<double, 6>{139.5, 0.01, 0, 35.5, 0, -0.01};
    return layout;
}
RasterLayout OffCentre(const char* driver = "GTiff") { return Geographic(driver, true); }
// Grows to the north and east: -1000 in the south-west.
double Slope(int column, int line) { return -1000.0 + 3.0 * column + 7.0 * (99 - line); }

GridOptions Standalone(const fs::path& dir, int epsg, double spacing, Bounds bounds,
                       std::vector<std::string> sources, const std::string& output = "out.txt") {
    GridOptions o;
    o.epsg = epsg;
    o.spacing = spacing;
    o.bounds = bounds;
    o.output = (dir / output).string();
    for (std::string& s : sources)
        o.sources.push_back((dir / s).string());
    return o;
}

// A 0.1 degree grid over 139.5 .. 140 E, 34.5 .. 35.5 N, nearest neighbour: the centre of
// cell (i, j) lies in the middle of pixel (4 i + 2, 38 - 4 j), whose value it takes.
GridOptions NearestWest(const TempDir& dir, std::vector<std::string> sources) {
    GridOptions o =
        Standalone(dir.path(), 4326, 0.1, {139.5, 34.5, 140.0, 35.5}, std::move(sources));
    o.resampling = "near";
    return o;
}

// 100 in the column of cell (2, j).
double Hundred(int c, int) { return 90.0 + c; }

} // namespace

// Also with NaN pixels here and there, which hold no data: each cell takes the valid
// pixels around it, as gdalwarp's with -srcnodata nan.
TEST(PrepGrid, EqualsGdalWarpOfTheSameSourceInEveryFormat) {
    struct Case {
        const char* driver;
        const char* file;
        int epsg;
        double spacing;
        Bounds bounds;
        const char* resampling; // what the automatic choice must be
        bool holes;
    };
    const Case cases[] = {
        {"GTiff", "src.tif", 4326, 0.025, {139.6, 34.6, 140.4, 35.3}, "average", false},
        {"netCDF", "src.nc", 2451, 250, {-20000, -150000, 30000, -70000}, "bilinear", false},
        {"AAIGrid", "src.asc", 4326, 0.004, {139.71, 34.83, 139.93, 35.11}, "bilinear", false},
        {"GTiff", "holes.tif", 4326, 0.025, {139.6, 34.6, 140.4, 35.3}, "average", true},
        {"GTiff", "holes.tif", 4326, 0.004, {139.71, 34.83, 139.93, 35.11}, "bilinear", true},
    };
    const auto holes = [](int c, int l) { return (c * 7 + l * 3) % 11 == 0 ? NAN : Slope(c, l); };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.file) + " " + c.resampling);
        TempDir dir;
        MakeRaster((dir.path() / c.file).string(), Geographic(c.driver),
                   c.holes ? std::function<double(int, int)>(holes) : Slope);
        // Where no pixel around a cell is valid, gdalwarp leaves it empty and the command
        // would refuse it: such cells take a value of their own.
        constexpr double kEmpty = 12345;
        GridOptions o = Standalone(dir.path(), c.epsg, c.spacing, c.bounds, {c.file});
        if (c.holes)
            o.fill = kEmpty;
        const Outcome run = RunCaptured(o);
        ASSERT_EQ(run.status, 0) << run.err;
        EXPECT_NE(run.out.find(std::string("(") + c.resampling + ")"), std::string::npos)
            << run.out;

        int nx = 0;
        int ny = 0;
        const std::vector<double> reference =
            GdalWarpReference((dir.path() / c.file).string(), c.epsg, c.bounds, c.spacing,
                              c.resampling, nx, ny, c.holes);
        const Region grid = ReadBack((dir.path() / "out.txt").string(), c.spacing);
        ASSERT_EQ(grid.nx, nx);
        ASSERT_EQ(grid.ny, ny);
        EXPECT_DOUBLE_EQ(grid.org_x, c.bounds[0] + c.spacing / 2);
        EXPECT_DOUBLE_EQ(grid.org_y, c.bounds[1] + c.spacing / 2);
        int differing = 0;
        for (int j = 0; j < ny; ++j)
            for (int i = 0; i < nx; ++i) {
                double expected = reference[static_cast<std::size_t>(ny - 1 - j) * nx + i];
                expected = c.holes && std::isnan(expected) ? kEmpty : expected;
                differing += static_cast<float>(grid.grid(i, j)) != static_cast<float>(expected);
            }
        EXPECT_EQ(differing, 0);
        // The first row is the southern one: the source grows to the north.
        EXPECT_LT(grid.grid(0, 0), grid.grid(0, ny - 1));
    }
}

// Float and 16-bit sources are warped in floats, others in doubles: each source gives the
// grid the bytes its values as doubles give, averaged or interpolated, with holes.
TEST(PrepGrid, FloatAndIntegerSourcesGiveWhatTheirValuesAsDoublesGive) {
    TempDir dir;
    const auto irregular = [](int c, int l) {
        return c == 40 && l < 30 ? NAN : std::sin(c * 0.37) * 100.0 + l * 1.3 + c * c * 0.001;
    };
    const auto whole = [](int c, int l) { return std::round(std::cos(l * 0.21) * 300.0) + c; };
    const struct {
        GDALDataType type;
        std::function<double(int, int)> value;
    } kinds[] = {{GDT_Float32, irregular}, {GDT_Int16, whole}};
    const struct {
        double spacing;
        Bounds bounds;
    } warps[] = {{0.025, {139.6, 34.6, 140.4, 35.3}}, {0.004, {139.71, 34.83, 139.93, 35.11}}};
    for (const auto& kind : kinds) {
        RasterLayout layout = Geographic();
        layout.type = kind.type;
        MakeRaster((dir.path() / "narrow.tif").string(), layout, kind.value);
        layout.type = GDT_Float64;
        MakeRaster((dir.path() / "wide.tif").string(), layout, kind.value);
        for (const auto& w : warps) {
            SCOPED_TRACE(std::to_string(kind.type) + " at " + std::to_string(w.spacing));
            std::string grids[2];
            for (const int k : {0, 1}) {
                const std::string source = k == 0 ? "narrow.tif" : "wide.tif";
                const Outcome run = RunCaptured(
                    Standalone(dir.path(), 4326, w.spacing, w.bounds, {source}, "out.bin"));
                ASSERT_EQ(run.status, 0) << run.err;
                grids[k] = Slurp(dir.path() / "out.bin");
            }
            EXPECT_GT(grids[0].size(), 1000u);
            EXPECT_TRUE(grids[0] == grids[1]);
        }
    }
}

TEST(PrepGrid, LaterSourcesWinWhereTheyHoldDataAndEarlierOnesFillTheRest) {
    TempDir dir;
    // 1 wherever the grid reads it; a source of one number would be refused.
    MakeRaster((dir.path() / "regional.tif").string(), Geographic(),
               [](int c, int l) { return c + l == 0 ? 2.0 : 1.0; });
    // A plane-system survey with a nodata hole in its middle, inside the grid's west half.
    RasterLayout survey;
    survey.nx = 10;
    survey.ny = 10;
    survey.epsg = 2451;
    survey.transform = {0, 100, 0, -90000, 0, -100};
    survey.noData = -9999;
    MakeRaster((dir.path() / "survey.tif").string(), survey,
               [](int c, int l) {
                   return c >= 4 && c < 6 && l >= 4 && l < 6 ? -9999.0 : c + l == 0 ? 3.0 : 2.0;
               });
    GridOptions o = Standalone(dir.path(), 2451, 100, {0, -91000, 2000, -90000},
                               {"regional.tif", "survey.tif"});
    o.resampling = "near";
    const Outcome run = RunCaptured(o);
    ASSERT_EQ(run.status, 0) << run.err;
    const Region grid = ReadBack(o.output, 100);
    ASSERT_EQ(grid.nx, 20);
    ASSERT_EQ(grid.ny, 10);
    // Row j from the south is survey line 9 - j.
    for (int j = 0; j < 10; ++j)
        for (int i = 0; i < 20; ++i) {
            const bool hole = i >= 4 && i < 6 && 9 - j >= 4 && 9 - j < 6;
            const double measured = i == 0 && j == 9 ? 3.0 : 2.0;
            EXPECT_EQ(grid.grid(i, j), i < 10 && !hole ? measured : 1.0) << i << " " << j;
        }
    EXPECT_NE(run.out.find("survey.tif (near): 96 cells, 48.0 %"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("regional.tif (near): 104 cells, 52.0 %"), std::string::npos);
}

TEST(PrepGrid, DepthsPositiveDownBecomeElevations) {
    TempDir dir;
    // The grid's cells take the source's pixels at their centres, never pixel (0, 0).
    MakeRaster((dir.path() / "a.tif").string(), Geographic(),
               [](int c, int l) { return c + l == 0 ? 41.0 : 40.0; });
    RasterLayout westHalf = Geographic("AAIGrid");
    westHalf.noData = -9999;
    MakeRaster((dir.path() / "b.asc").string(), westHalf,
               [](int c, int l) { return c + l == 0 ? 26.0 : c < 50 ? 25.0 : -9999.0; });
    struct Case {
        bool all;
        std::vector<int> which;
        double west, east; // expected cell values
    };
    const Case cases[] = {{true, {}, -25, -40}, {false, {2}, -25, 40}, {false, {1}, 25, -40}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.west);
        GridOptions o = Standalone(dir.path(), 4326, 0.1, {139.5, 34.5, 140.5, 35.5},
                                   {"a.tif", "b.asc"});
        o.depthPositive = c.all;
        o.depthPositiveSources = c.which;
        o.resampling = "near";
        ASSERT_EQ(RunCaptured(o).status, 0);
        const Region grid = ReadBack(o.output, 0.1);
        EXPECT_EQ(grid.grid(0, 0), c.west);
        EXPECT_EQ(grid.grid(9, 9), c.east);
    }
}

TEST(PrepGrid, UncoveredCellsAreAnErrorUnlessFilledOnPurpose) {
    TempDir dir;
    MakeRaster((dir.path() / "src.tif").string(), Geographic(), Slope);
    GridOptions o = Standalone(dir.path(), 4326, 0.1, {140.0, 35.0, 140.8, 35.4}, {"src.tif"});
    o.resampling = "near";
    const Outcome refused = RunCaptured(o);
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err, "seaforge-prep: 12 of 32 cells are covered by no source with valid "
                           "data, within x 140.5 .. 140.8, y 35 .. 35.4 (cell edges, EPSG 4326); "
                           "add a source that covers them, or give them a value on purpose with "
                           "--fill VALUE\n");
    EXPECT_EQ(refused.out, "");
    EXPECT_FALSE(fs::exists(o.output));

    o.fill = -5000;
    const Outcome filled = RunCaptured(o);
    ASSERT_EQ(filled.status, 0) << filled.err;
    EXPECT_NE(filled.out.find("filled       12 cells (37.5 %) with -5000"), std::string::npos);
    const Region grid = ReadBack(o.output, 0.1);
    EXPECT_EQ(grid.grid(7, 3), -5000);
    EXPECT_NE(grid.grid(4, 3), -5000);

    // Even where no source holds data, and every cell holds the same value.
    o.bounds = Bounds{150, 10, 151, 11};
    o.fill = -4000;
    const Outcome flat = RunCaptured(o);
    ASSERT_EQ(flat.status, 0) << flat.err;
    EXPECT_NE(flat.out.find("  values       -4000 .. -4000\n"), std::string::npos) << flat.out;
}

TEST(PrepGrid, AFailedRunLeavesTheOldGridWhole) {
    TempDir dir;
    MakeRaster((dir.path() / "src.tif").string(), Geographic(), Slope);
    const std::string old = dir.Write("out.bin", "a good grid");
    GridOptions o = Standalone(dir.path(), 4326, 0.1, {140.0, 35.0, 140.8, 35.4}, {"src.tif"},
                               "out.bin");
    EXPECT_EQ(RunCaptured(o).status, 1); // uncovered cells
    o.output = (dir.path() / "missing" / "out.bin").string();
    o.bounds = Bounds{139.6, 34.6, 140.4, 35.4};
    const Outcome unwritable = RunCaptured(o);
    EXPECT_EQ(unwritable.status, 1);
    EXPECT_EQ(unwritable.err,
              "seaforge-prep: cannot write " + o.output + ": No such file or directory\n");
    EXPECT_EQ(Slurp(old), "a good grid");
    EXPECT_EQ(Names(dir.path()), (std::vector<std::string>{"out.bin", "src.tif"}));

    o.output = old;
    ASSERT_EQ(RunCaptured(o).status, 0);
    const Region grid = ReadBack(old);
    EXPECT_EQ(grid.nx, 8);
    EXPECT_FLOAT_EQ(static_cast<float>(grid.gridSize), 0.1f); // the binary header's spacing
}

TEST(PrepGrid, BadInputEndsInOneLine) {
    TempDir dir;
    RasterLayout noSystem = Geographic();
    noSystem.epsg = 0;
    MakeRaster((dir.path() / "nosrs.tif").string(), noSystem, Slope);
    MakeRaster((dir.path() / "src.tif").string(), Geographic(), Slope);
    MakeRaster((dir.path() / "one.tif").string(), Geographic(), [](int, int) { return 3.0; });
    MakeRaster((dir.path() / "flatwest.tif").string(), Geographic(),
               [](int c, int l) { return c < 50 ? -100.0 : Slope(c, l); });
    // Cut short as a download can leave them: the netCDF library reads what is missing as
    // zeros without a word, libtiff says it cannot read a strip.
    MakeRaster((dir.path() / "cut.nc").string(), Geographic("netCDF"), Slope);
    CutShort((dir.path() / "cut.nc").string(), 3000);
    MakeRaster((dir.path() / "cut.tif").string(), Geographic(), Slope);
    CutShort((dir.path() / "cut.tif").string(), 20000);
    dir.Write("text.tif", "not a raster");
    const std::string src = (dir.path() / "src.tif").string();
    struct Case {
        std::vector<std::string> sources;
        Bounds bounds;
        std::string expected;
        std::function<void(GridOptions&)> change = nullptr;
    };
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const Bounds west = {139.6, 34.6, 140, 35};
    const Case cases[] = {
        {{"nosrs.tif"}, west, "nosrs.tif: has no coordinate system; say which it is with --source-srs"},
        {{"src.tif", "gone.tif"}, west, "gone.tif: GDAL cannot open it as a raster"},
        {{"text.tif"}, west, "text.tif: GDAL cannot open it as a raster"},
        {{"src.tif"}, {150, 10, 151, 11}, "no source holds valid data inside the bounds"},
        {{"src.tif"}, {140, 35, 139, 36}, "the bounds 140 35 139 36 are empty or reversed"},
        {{"project.xml", "src.tif"}, west, "give --region N to build one"},
        // A float a cell, and a text grid's doubles besides.
        {{"src.tif"}, {0, 0, 100000, 100000}, "needs 11175.9 GiB of memory, more than this machine has"},
        {{"src.tif"}, {0, 0, 100000, 100000}, "needs 3725.3 GiB of memory, more than this machine has",
         [&](GridOptions& o) { o.output = (dir.path() / "out.bin").string(); }},
        {{"one.tif"}, west, "one.tif: every value it holds is 3; a source of one number"},
        {{"flatwest.tif"}, west, "every one of the 16 cells would hold -100: the sources are flat"},
        {{"cut.nc"}, west, "cut.nc: the file is cut short: it holds 3000 bytes, fewer than the 40000"},
        {{"cut.tif"}, west, "cut.tif: the warp failed (" + (dir.path() / "cut.tif").string() +
                            ", band 1: IReadBlock failed"},
        {{"src.tif"}, west, "--fill takes a finite number of metres, not nan",
         [&](GridOptions& o) { o.fill = nan; }},
        {{"src.tif"}, west, "--fill takes a finite number of metres, not inf",
         [](GridOptions& o) { o.fill = std::numeric_limits<double>::infinity(); }},
        {{"src.tif"}, west, "--z-scale takes a finite factor other than 0, not 0",
         [](GridOptions& o) { o.zScaleFor = {{1, 0.0}}; }},
        {{"src.tif"}, west, "cells would hold elevations beyond the 3.4e38 a grid file's floats",
         [](GridOptions& o) { o.zScale = 1e300; }},
        {{"src.tif"}, west, "--nodata-source 2: there are 1 sources",
         [](GridOptions& o) { o.sourceNoDataFor = {{2, -1.0}}; }},
        {{"src.tif"}, west, "src.tif: its coordinate system \"EPSG:99999\" (--source-srs) is not one",
         [](GridOptions& o) { o.sourceSrs = "EPSG:99999"; }},
        {{"src.tif"}, west, "--size 0 5: give NX NY, both at least 1",
         [](GridOptions& o) { o.bounds.reset(), o.origin = {139.65, 34.65}, o.size = {0, 5}; }},
        {{"src.tif"}, west, "--size goes with --origin X Y",
         [](GridOptions& o) { o.size = {4, 4}; }},
        {{"src.tif"}, west, "--bounds-lonlat 34.6 139.6 35 140 lie on no source, but 139.6 34.6 "
                            "140 35 do: they look like latitude first",
         [](GridOptions& o) { o.bounds.reset(), o.boundsLonLat = Bounds{34.6, 139.6, 35, 140}; }},
    };
    for (const Case& c : cases) {
        GridOptions o = Standalone(dir.path(), 4326, 0.1, c.bounds, c.sources, "out.txt");
        if (c.change)
            c.change(o);
        const Outcome run = RunCaptured(o);
        EXPECT_EQ(run.status, 1) << c.expected;
        EXPECT_NE(run.err.find(c.expected), std::string::npos) << run.err;
        EXPECT_EQ(run.err.rfind("seaforge-prep: ", 0), 0u) << run.err;
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
        EXPECT_FALSE(fs::exists(dir.path() / "out.txt"));
    }
}

// Text grids, and binary grids, which a lone source writes as the warp goes.
TEST(PrepGrid, WritesThroughLinksAndReplacesOnlyRegularFiles) {
    for (const std::string ext : {".txt", ".bin"}) {
        SCOPED_TRACE(ext);
        TempDir dir;
        MakeRaster((dir.path() / "src.tif").string(), Geographic(), Slope);
        GridOptions o = Standalone(dir.path(), 4326, 0.1, {139.6, 34.6, 140, 35}, {"src.tif"});

        // A link to a grid elsewhere: the grid is replaced, keeping its mode; the link stays.
        const std::string real = dir.Write("grids/real" + ext, "old grid");
        fs::permissions(real,
                        fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
        fs::create_symlink("grids/real" + ext, dir.path() / ("link" + ext));
        o.output = (dir.path() / ("link" + ext)).string();
        o.geotiff = (dir.path() / "link.tif").string();
        fs::create_symlink("grids/real.tif", o.geotiff); // dangling: names the file to make
        const Outcome linked = RunCaptured(o);
        ASSERT_EQ(linked.status, 0) << linked.err;
        EXPECT_TRUE(fs::is_symlink(o.output));
        EXPECT_TRUE(fs::is_symlink(o.geotiff));
        EXPECT_EQ(ReadBack(real, 0.1).nx, 4);
        EXPECT_EQ(fs::status(real).permissions(),
                  fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
        EXPECT_TRUE(fs::is_regular_file(dir.path() / "grids" / "real.tif"));
        o.geotiff.clear();

        // Renaming over these would remove the node; a FIFO is never opened, so never
        // waited on. A binary grid names its file ".bin": devices through links so named.
        const std::string fifo = (dir.path() / ("fifo" + ext)).string();
        ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
        fs::create_directory(dir.path() / ("folder" + ext));
        std::string devices[] = {"/dev/null", "/dev/full"};
        if (ext == ".bin") {
            for (std::string& device : devices) {
                const fs::path link = dir.path() / (fs::path(device).filename().string() + ext);
                fs::create_symlink(device, link);
                device = link.string();
            }
        }
        struct Case {
            std::string path;
            const char* kind;
        };
        const Case cases[] = {{devices[0], "a character device"},
                              {devices[1], "a character device"},
                              {fifo, "a FIFO"},
                              {(dir.path() / ("folder" + ext)).string(), "a directory"}};
        for (const Case& c : cases) {
            o.output = c.path;
            const Outcome refused = RunCaptured(o);
            EXPECT_EQ(refused.status, 1);
            EXPECT_EQ(refused.err, "seaforge-prep: cannot write " + c.path + ": it is " +
                                       c.kind + ", and only a regular file is replaced\n");
            const fs::file_type kind = fs::status(c.path).type();
            EXPECT_TRUE(kind == fs::file_type::character || kind == fs::file_type::fifo ||
                        kind == fs::file_type::directory)
                << c.path;
        }
        std::vector<std::string> names = {"fifo" + ext, "folder" + ext, "grids", "link.tif",
                                          "link" + ext, "src.tif"};
        if (ext == ".bin")
            names.insert(names.end(), {"full.bin", "null.bin"});
        std::sort(names.begin(), names.end());
        EXPECT_EQ(Names(dir.path()), names);
    }
}

TEST(PrepGrid, ExtentFromLonLatOrExactPointsAndAGeoTiffBeside) {
    TempDir dir;
    MakeRaster((dir.path() / "src.tif").string(), Geographic(), Slope);

    // Longitude-latitude bounds become the plane box that holds them: its corners are the
    // lon-lat box's extreme points, whole cells of 500 m from its south-west corner.
    GridOptions lonLat = Standalone(dir.path(), 2451, 500, {}, {"src.tif"});
    lonLat.bounds.reset();
    lonLat.boundsLonLat = Bounds{139.7, 34.8, 140.2, 35.2};
    ASSERT_EQ(RunCaptured(lonLat).status, 0);
    const Region plane = ReadBack(lonLat.output, 500);
    // From cs2cs over the same 65 points a side: easting -12200.081 .. 33550.294 (the
    // south-west and north-east corners), northing -133124.204 (on the central meridian,
    // where the parallel 34.8 N lies lowest) .. -88690.829.
    EXPECT_NEAR(plane.org_x - 250, -12200.081, 0.01);
    EXPECT_NEAR(plane.org_y - 250, -133124.204, 0.01);
    EXPECT_EQ(plane.nx, 92);
    EXPECT_EQ(plane.ny, 89);

    // Exact points: grid point (0, 0) at the origin, and a north-up float GeoTIFF beside.
    GridOptions exact = Standalone(dir.path(), 4326, 0.05, {}, {"src.tif"}, "exact.bin");
    exact.bounds.reset();
    exact.origin = std::array<double, 2>{139.625, 34.675};
    exact.size = std::array<int, 2>{6, 4};
    exact.geotiff = (dir.path() / "exact.tif").string();
    ASSERT_EQ(RunCaptured(exact).status, 0);
    const Region grid = ReadBack(exact.output);
    EXPECT_EQ(grid.org_x, 139.625);
    EXPECT_EQ(grid.org_y, 34.675);
    ASSERT_EQ(grid.nx, 6);
    ASSERT_EQ(grid.ny, 4);
    GDALDatasetUniquePtr tiff(GDALDataset::Open(exact.geotiff.c_str(), GDAL_OF_RASTER));
    ASSERT_NE(tiff, nullptr);
    double transform[6];
    ASSERT_EQ(tiff->GetGeoTransform(transform), CE_None);
    EXPECT_DOUBLE_EQ(transform[0], 139.6);
    EXPECT_DOUBLE_EQ(transform[3], 34.85);
    EXPECT_DOUBLE_EQ(transform[5], -0.05);
    EXPECT_STREQ(tiff->GetSpatialRef()->GetAuthorityCode(nullptr), "4326");
    for (const auto& [column, line] : {std::pair{0, 0}, {5, 0}, {2, 3}}) {
        float pixel = 0;
        ASSERT_EQ(tiff->GetRasterBand(1)->RasterIO(GF_Read, column, line, 1, 1, &pixel, 1, 1,
                                                   GDT_Float32, 0, 0, nullptr),
                  CE_None);
        EXPECT_EQ(pixel, static_cast<float>(grid.grid(column, 3 - line))) << column << " " << line;
    }
}

TEST(PrepGrid, ValuesBecomeElevationsInMetres) {
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
        MakeDescribedRaster((dir.path() / name).string(), OffCentre(c.driver), c.description,
                            Hundred);
        GridOptions o = NearestWest(dir, {name});
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

TEST(PrepGrid, UntaggedMarkersAreRefusedUnlessNamedOrKept) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    struct Case {
        double marker;
        bool underGrid; // the marked pixels lie where the grid reads, or off it
        std::function<void(GridOptions&)> change;
        std::string refused; // the marker as the refusal shows it, or "": written
        double cell;         // else: cell (1, 3), which reads a marked pixel
    };
    const Case cases[] = {
        {-9999, true, nullptr, "-9999", 0},
        {-32768, true, nullptr, "-32768", 0},
        {-32767, true, nullptr, "-32767", 0},
        {1e20, true, nullptr, "1.00000002e+20", 0}, // as a float source holds it
        {-3e38, true, nullptr, "-3.00000001e+38", 0},
        {-9999, false, nullptr, "", -56},
        {nan, true, nullptr, "", 96}, // a float source's NaN needs no tag
        {-9999, true, [](GridOptions& o) { o.sourceNoData = -9999; }, "", 96},
        {-32768, true, [](GridOptions& o) { o.sourceNoDataFor = {{2, -32768.0}}; }, "", 96},
        {-9999, true, [](GridOptions& o) { o.keepMarkers = true; }, "", -9999},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.marker) + (c.underGrid ? " under the grid" : " off it"));
        TempDir dir;
        MakeRaster((dir.path() / "regional.tif").string(), OffCentre(), Hundred);
        // The survey's marked pixels: those of cells (1..2, 3..4), or columns the grid never
        // reads.
        MakeRaster((dir.path() / "survey.tif").string(), OffCentre(), [&](int col, int l) {
            const bool marked = c.underGrid ? col >= 4 && col < 12 && l >= 20 && l < 28
                                            : col >= 30 && l >= 20;
            return marked ? c.marker : -50.0 - col;
        });
        GridOptions o = NearestWest(dir, {"regional.tif", "survey.tif"});
        if (c.change)
            c.change(o);
        const Outcome run = RunCaptured(o);
        if (!c.refused.empty()) {
            EXPECT_EQ(run.status, 1);
            EXPECT_EQ(run.err, "seaforge-prep: " + o.sources[1] + ": holds " + c.refused +
                                   " where the grid reads it, which marks missing data in many "
                                   "files, but the source has no nodata tag, so it would be "
                                   "resampled into real cells; name the marker with "
                                   "--source-nodata " + c.refused + " (or --nodata-source 2 " +
                                   c.refused + "), or take such values as real with "
                                   "--keep-markers\n");
            EXPECT_FALSE(fs::exists(o.output));
            continue;
        }
        ASSERT_EQ(run.status, 0) << run.err;
        const Region grid = ReadBack(o.output, 0.1);
        EXPECT_EQ(grid.grid(1, 3), c.cell);
        EXPECT_EQ(grid.grid(3, 3), -64.0);
    }
}

TEST(PrepGrid, AGridWithoutSystemTakesTheOneGiven) {
    // As GMT writes a grid: x and y in degrees, no coordinate system.
    TempDir dir;
    RasterLayout gmt = OffCentre("netCDF");
    gmt.epsg = 0;
    MakeRaster((dir.path() / "gmt.nc").string(), gmt, [](int c, int l) { return -10.0 * c - l; });
    GridOptions o = NearestWest(dir, {"gmt.nc"});
    const Outcome refused = RunCaptured(o);
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err, "seaforge-prep: " + o.sources[0] + ": has no coordinate system; say "
                           "which it is with --source-srs CODE (for example --source-srs 4326 "
                           "for longitude and latitude in degrees)\n");
    for (const bool forAll : {true, false}) {
        GridOptions with = o;
        if (forAll)
            with.sourceSrs = "4326";
        else
            with.sourceSrsFor = {{1, "EPSG:4326"}};
        const Outcome run = RunCaptured(with);
        ASSERT_EQ(run.status, 0) << run.err;
        const Region grid = ReadBack(o.output, 0.1);
        EXPECT_EQ(grid.grid(1, 3), -86.0); // pixel (6, 26)
    }
}

// The command writes its float cells itself, straight from the grid it warped into: the
// bytes must be those the run's own writer gives the same grid, header included.
TEST(PrepGrid, BinaryGridBytesAreTheRunWritersBytes) {
    struct Shape {
        int nx;
        int ny;
        double orgX;
        double orgY;
        double spacing;
    };
    const Shape shapes[] = {{1, 1, 0.5, -0.5, 1}, {7, 3, 139.0125, 34.5125, 0.025},
                            {64, 33, 44010, -139990, 20}};
    for (const Shape& s : shapes) {
        SCOPED_TRACE(s.nx);
        Region region(TPG_R, XML_REGION{});
        region.Set2dStruct(s.nx, s.ny, s.orgX, s.orgY);
        region.gridSize = s.spacing;
        region.grid.Assign(s.nx, s.ny, 0.0);
        std::vector<float> cells(static_cast<std::size_t>(s.nx) * s.ny);
        for (std::size_t c = 0; c < cells.size(); ++c) {
            cells[c] = c % 5 == 4 ? -0.0f : static_cast<float>(-1234.5678 + 0.37 * c);
            region.grid.Data()[c] = cells[c];
        }
        char* made[2] = {};
        std::size_t sizes[2] = {};
        std::FILE* run = open_memstream(&made[0], &sizes[0]);
        std::FILE* prep = open_memstream(&made[1], &sizes[1]);
        ASSERT_TRUE(region.PutBIN(run));
        ASSERT_TRUE(PutBinaryGrid(prep, s.orgX, s.orgY, s.nx, s.ny, s.spacing, cells.data()));
        std::fclose(run);
        std::fclose(prep);
        const std::string runBytes(made[0], sizes[0]);
        const std::string prepBytes(made[1], sizes[1]);
        std::free(made[0]);
        std::free(made[1]);
        EXPECT_EQ(prepBytes.size(), 28 + 4 * cells.size());
        EXPECT_TRUE(prepBytes == runBytes);
    }
}
