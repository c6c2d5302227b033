// Whether a nesting is accepted, asked of the run and of `seaforge-prep check` on the same
// hand-made projects: they must never disagree, whatever the two codes.
#include "prep/PrepTestSupport.hpp"
#include "projection/MapProjection.hpp"

#include "support/RunSeaforge.hpp"
#include "support/TempDir.hpp"

#include <nlohmann/json.hpp>

namespace {

bool Degrees(int epsg) { return epsg == 4326 || epsg == 4612 || epsg == 6668; }

// (lon, lat) in `epsg` as a modeller gets it: PROJ for a code it knows, the run's own
// conversion (UTM zone 54) for one it does not.
std::array<double, 2> Place(int epsg, double lon, double lat) {
    if (Degrees(epsg))
        return {lon, lat};
    CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
    OGRSpatialReference from;
    OGRSpatialReference to;
    from.importFromEPSG(4612);
    from.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
    if (to.importFromEPSG(epsg) == OGRERR_NONE) {
        to.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
        std::unique_ptr<OGRCoordinateTransformation> ct(
            OGRCreateCoordinateTransformation(&from, &to));
        double x = lon;
        double y = lat;
        EXPECT_TRUE(ct && ct->Transform(1, &x, &y));
        return {x, y};
    }
    SetMapProjectionNotices(false);
    std::array<double, 2> xy{};
    const std::int32_t one = 1;
    (void)mapproject_initialize_using_epsg_(4612, epsg);
    EXPECT_EQ(ll2xy_(&one, &lon, &lat, &xy[0], &xy[1]), 0);
    mapproject_finalize_();
    return xy;
}

// Region 1 in `baseEpsg` over 140 .. 141 E, 35 .. 36 N (20 x 20 points); region 2 in
// `nestedEpsg`, 10 x 10 points with its north-east corner at (lon, lat) as `placedEpsg`
// puts it (0: its own code).
void WriteProject(const TempDir& dir, int baseEpsg, int nestedEpsg, double lon = 140.525,
                  double lat = 35.525, int placedEpsg = 0) {
    const auto depth = [](int i, int j) { return i == 3 && j == 3 ? -99.0 : -100.0; };
    const double baseSpacing = Degrees(baseEpsg) ? 0.05 : 5000;
    const std::array<double, 2> centre = Place(baseEpsg, 140.5, 35.5);
    dir.Write("base.txt", GridText(20, 20, centre[0] - 9.5 * baseSpacing,
                                   centre[1] - 9.5 * baseSpacing, depth));
    const double spacing = Degrees(nestedEpsg) ? 0.005 : 500;
    const std::array<double, 2> corner = Place(placedEpsg ? placedEpsg : nestedEpsg, lon, lat);
    dir.Write("nested.txt", GridText(10, 10, corner[0] - 9.5 * spacing,
                                     corner[1] - 9.5 * spacing, depth));
    dir.Write("fault.txt", "35.5 140.5 5000 0 30 45 90 10000 5000 1.0 \"F1\"\n");
    const auto region = [](int no, int base, int epsg, double gridSize, const char* file) {
        char text[320];
        std::snprintf(text, sizeof text,
                      "<Region><RegionNo>%d</RegionNo><RegionName>R%d</RegionName><BaseRegionNo>"
                      "%d</BaseRegionNo><EPSG>%d</EPSG><GridSize>%g</GridSize><Topography>"
                      "<FileName>%s</FileName></Topography></Region>\n",
                      no, no, base, epsg, gridSize, file);
        return std::string(text);
    };
    dir.Write("project.xml",
              "<Project><ProjectName>P</ProjectName><DestDir>out</DestDir><CalcParameter>"
              "<InitialWaveHeightSetting><FaultModel><EPSG>4612</EPSG><FileName>fault.txt"
              "</FileName></FaultModel></InitialWaveHeightSetting><TsunamiCalcSetting><TotalTime>"
              "600</TotalTime><TimeIncrement>0.5</TimeIncrement></TsunamiCalcSetting>\n" +
                  region(1, 0, baseEpsg, baseSpacing, "base.txt") +
                  region(2, 1, nestedEpsg, spacing, "nested.txt") +
                  "</CalcParameter></Project>\n");
}

struct Verdicts {
    bool runAccepts;
    bool checkAccepts;
    nlohmann::json report;
};

Verdicts AskBoth(const TempDir& dir) {
    const SeaforgeRun run = RunSeaforge(dir.path());
    const SeaforgeRun check = RunProgram(SEAFORGE_PREP_BINARY, dir.path(),
                                         {"check", "project.xml", "--json"});
    nlohmann::json report = nlohmann::json::parse(check.out);
    bool refused = false;
    for (const nlohmann::json& f : report["findings"])
        refused = refused || f["message"].get<std::string>().find("\"ERROR:Comprisable:NG\"") !=
                                 std::string::npos;
    // Nothing but the nesting may stop the run here: it succeeds exactly when accepted.
    EXPECT_EQ(run.status, run.err.find("ERROR:Comprisable:NG") != std::string::npos ? 1 : 0)
        << run.err;
    EXPECT_EQ(check.status == 1, refused) << check.out;
    return {run.status == 0, !refused, report};
}

} // namespace

TEST(PrepCheckNesting, CheckAndRunAgreeForEveryPairOfCodes) {
    struct Pair {
        int base;
        int nested;
        bool accepted; // as the run decides it
    };
    const Pair pairs[] = {
        {4612, 4612, true},   {2451, 2451, true},  {99999, 99999, true}, // one system
        {4612, 2451, true},   {4326, 2451, true},  {4612, 2452, true},   // degrees, JGD2000
        {2451, 2452, false},  {99999, 2451, false},                      // plane base
        {4326, 4612, false},  {4612, 6668, false},                       // degrees in degrees
        {6668, 2451, true},                      // JGD2011: metres to the run, degrees here
        {4612, 32654, true},  {4612, 32653, false}, // UTM: all taken as zone 54
        {4612, 99999, true},                        // unknown: zone 54 too
    };
    for (const Pair& pair : pairs) {
        SCOPED_TRACE(std::to_string(pair.base) + " / " + std::to_string(pair.nested));
        TempDir dir;
        WriteProject(dir, pair.base, pair.nested);
        const Verdicts v = AskBoth(dir);
        EXPECT_EQ(v.runAccepts, v.checkAccepts);
        EXPECT_EQ(v.runAccepts, pair.accepted);
    }
}

// The run looks for a corner among base points from the first column to the third last
// and from the third row to the last: the margins name how far inside those limits each
// corner is, so a corner half a base cell beyond the eastern or northern limit is refused
// with a margin of -0.5 and one half a cell inside is accepted with 0.5.
TEST(PrepCheckNesting, CornerMarginsOnTheNorthAndEastAreTheRunsLimits) {
    struct Corner {
        double lon;
        double lat;
        double margin; // of the north-east corner, base cells
    };
    const double east = 140.025 + 18 * 0.05; // base column 18 of 20
    const double north = 35.025 + 19 * 0.05; // base row 19 of 20
    const Corner corners[] = {{east - 0.025, 35.6, 0.5},
                              {east + 0.025, 35.6, -0.5},
                              {140.6, north - 0.025, 0.5},
                              {140.6, north + 0.025, -0.5}};
    for (const Corner& c : corners) {
        SCOPED_TRACE(std::to_string(c.lon) + " " + std::to_string(c.lat));
        TempDir dir;
        WriteProject(dir, 4612, 2451, c.lon, c.lat);
        const Verdicts v = AskBoth(dir);
        EXPECT_EQ(v.runAccepts, c.margin > 0);
        const nlohmann::json& margins = v.report["regions"][1]["corner_margins"];
        ASSERT_EQ(margins.size(), 4u) << v.report.dump();
        EXPECT_NEAR(margins[2].get<double>(), c.margin, 0.05);
    }
}

// A grid made in JGD2000 zone VIII but declared in zone IX: refused, and the refusal names
// the zone in which the run would find its corners.
TEST(PrepCheckNesting, ARefusedPlaneRegionNamesTheZoneItFitsIn) {
    TempDir dir;
    WriteProject(dir, 4612, 2451, 140.525, 35.525, 2450);
    const Verdicts v = AskBoth(dir);
    EXPECT_FALSE(v.runAccepts);
    const std::string message = v.report["findings"].back()["message"];
    EXPECT_NE(message.find("; read in EPSG 2450 (JGD2000 / Japan Plane Rectangular CS VIII) its "
                           "corners are found: is its grid made in that zone? (the run stops"),
              std::string::npos)
        << message;
}
