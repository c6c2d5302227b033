#include "projection/MapProjection.hpp"

#include "region/RegionTestSupport.hpp"

#include <array>
#include <cmath>
#include <vector>

namespace {

using Points = std::vector<std::array<double, 2>>;
constexpr double kMetre = 1e-3, kDegree = 9e-9; // both under a millimetre
const std::array<double, 2> kRefused{HUGE_VAL, HUGE_VAL};

// Debian's cs2cs is the reference; a point it refuses comes back as HUGE_VAL.
Points Cs2cs(const std::string& from, const std::string& to, const Points& in) {
    char path[] = "/tmp/cs2cs_inXXXXXX";
    if (std::FILE* file = fdopen(mkstemp(path), "w")) {
        for (const auto& p : in)
            std::fprintf(file, "%.12f %.12f\n", p[0], p[1]);
        std::fclose(file);
    }
    const std::string command = "cs2cs -f %.10f " + from + " +to " + to + " <" + path;
    Points out;
    if (std::FILE* pipe = popen((command + " 2>/dev/null").c_str(), "r")) {
        char line[256];
        for (std::array<double, 2> p{}; std::fgets(line, sizeof line, pipe); out.push_back(p))
            if (std::sscanf(line, "%lf %lf", &p[0], &p[1]) != 2)
                p = kRefused;
        pclose(pipe);
    }
    std::remove(path);
    EXPECT_EQ(out.size(), in.size()) << command;
    out.resize(in.size(), kRefused); // callers index it
    return out;
}

// The EPSG database's answer between JGD2000 and a plane system, in this service's axis
// order: the database takes latitude first and gives the plane rectangular systems (below
// 3000) northing first.
Points Database(int plane, bool toPlane, Points in) {
    const auto swap = [&](Points& points, bool geographic) {
        for (auto& p : points)
            if (geographic || plane < 3000)
                std::swap(p[0], p[1]);
    };
    swap(in, toPlane);
    const std::string geo = "EPSG:4612", other = "EPSG:" + std::to_string(plane);
    Points out = toPlane ? Cs2cs(geo, other, in) : Cs2cs(other, geo, in);
    swap(out, !toPlane);
    return out;
}

Points Convert(bool toPlane, const Points& in, int* status = nullptr) {
    std::vector<double> a, b, c(in.size()), d(in.size());
    for (const auto& p : in)
        a.push_back(p[0]), b.push_back(p[1]);
    const std::int32_t n = static_cast<std::int32_t>(in.size());
    const int result = toPlane ? ll2xy_(&n, a.data(), b.data(), c.data(), d.data())
                               : xy2ll_(&n, c.data(), d.data(), a.data(), b.data());
    if (status)
        *status = result;
    Points out;
    for (std::size_t i = 0; i < in.size(); ++i)
        out.push_back({c[i], d[i]});
    return out;
}

void ExpectNear(const Points& got, const Points& want, double tolerance, const std::string& what) {
    ASSERT_EQ(got.size(), want.size()) << what;
    for (std::size_t i = 0; i < got.size(); ++i)
        for (int k : {0, 1})
            EXPECT_NEAR(got[i][k], want[i][k], tolerance) << what << " point " << i;
}

// Initialises quietly and gives what was printed.
std::string Initialize(int geo, int plane) {
    return Outcome([&] { return mapproject_initialize_using_epsg_(geo, plane) != nullptr; });
}

TEST(MapProjectionEpsg, EveryPlaneSystemAgreesWithTheEpsgDatabaseBothWays) {
    // Each system's code and a point near its origin.
    const std::array<double, 3> systems[] = {
        {2443, 129.5, 33},  {2444, 131, 33},    {2445, 132.17, 36}, {2446, 133.5, 33},
        {2447, 134.33, 36}, {2448, 136, 36},    {2449, 137.17, 36}, {2450, 138.5, 36},
        {2451, 139.83, 36}, {2452, 140.83, 40}, {2453, 140.25, 44}, {2454, 142.25, 44},
        {2455, 144.25, 44}, {2456, 142, 26},    {2457, 127.5, 26},  {2458, 124, 26},
        {2459, 131, 26},    {2460, 136, 20},    {2461, 154, 26},    {3097, 123, 30},
        {3098, 129, 33},    {3099, 135, 35},    {3100, 141, 38},    {3101, 147, 43}};
    for (const auto& [code, lon0, lat0] : systems) {
        const int plane = static_cast<int>(code);
        const std::string what = "EPSG:" + std::to_string(plane);
        EXPECT_EQ(Initialize(4612, plane), "1||") << what;
        const Points ll = {{lon0, lat0}, {lon0 + 0.45, lat0 + 0.8}, {lon0 - 0.7, lat0 - 0.3}};
        const Points xy = Convert(true, ll);
        ExpectNear(xy, Database(plane, true, ll), kMetre, what + " forward");
        const Points near = {{xy[1][0] + 25000.5, xy[1][1] - 41000.25}, xy[2]};
        ExpectNear(Convert(false, near), Database(plane, false, near), kDegree, what + " inverse");
        mapproject_finalize_();
    }
}

TEST(MapProjectionEpsg, UnknownCodesFallBackWithTheirLines) {
    // Kept: every geographic code but 4612 takes WGS84 (within a millimetre of JGD2000 here),
    // although the line names 4612.
    const std::tuple<int, int, const char*, int> rows[] = {
        {4326, 2451, "", 2451},
        {0, 2451, "default EPSG:4612\n", 2451},
        {2451, 3102, "default EPSG:4612\ndefault EPSG:3100\n", 3100}};
    for (const auto& [geo, plane, line, taken] : rows) {
        EXPECT_EQ(Initialize(geo, plane), "1|" + std::string(line) + "|") << geo << " " << plane;
        const Points ll = {{140.1, 36.4}, {141.9, 38.2}};
        ExpectNear(Convert(true, ll), Database(taken, true, ll), kMetre, std::to_string(plane));
        mapproject_finalize_();
    }
}

TEST(MapProjectionLongitude, ZoneOnTheRangeBoundariesAndNoWrappingBack) {
    const std::pair<double, int> rows[] = {
        {135, 53}, {131.9999999, 52}, {0, 31},  {-0.0000001, 30}, {-180, 1}, {179.999, 60},
        {180, 61}, {180.5, 1},        {186, 2}, {185.999, 1},     {-181, 0}, {NAN, 0}};
    for (const auto& [longitude, zone] : rows) { // PROJ itself says nothing
        EXPECT_EQ(Outcome([&] { return mapproject_initialize_using_longi_(longitude) != nullptr; }),
                  std::to_string(zone >= 1 && zone <= 60) + "|Deformation Calc. UTM Zone:" +
                      std::to_string(zone) + "\n|")
            << longitude;
        mapproject_finalize_();
    }
    (void)Outcome([] { return mapproject_initialize_using_longi_(180.5) != nullptr; }); // zone 1
    const Points east = {{180.0, 35}, {181.0, -20}, {200.0, 10}, {179.999, 0}};
    const Points twins = {{-180.0, 35}, {-179.0, -20}, {-160.0, 10}, {179.999, 0}};
    const Points xy = Convert(true, east);
    ExpectNear(xy,
               Cs2cs("+proj=longlat +ellps=GRS80 +towgs84=0,0,0,0,0,0,0 +no_defs",
                     "+proj=utm +zone=1 +ellps=GRS80 +towgs84=0,0,0,0,0,0,0 +units=m +no_defs",
                     twins),
               kMetre, "east of 180");
    // Kept: no wrapping back; the fault outlines add 360 themselves.
    ExpectNear(Convert(false, {xy[1]}), {twins[1]}, kDegree, "back west of 180");
    mapproject_finalize_();
}

TEST(MapProjectionFailure, UnconvertiblePointsAreHugeValAndTheRestConvert) {
    mapproject_finalize_(); // harmless without a pair, and twice
    mapproject_finalize_();
    (void)Initialize(4612, 2443);
    (void)Initialize(4612, 2451); // replaces the first pair
    int status = -1;
    const Points good = {{139.7, 35.7}};
    const Points plane9 = Convert(true, good, &status);
    EXPECT_EQ(status, 0);
    ExpectNear(plane9, Database(2451, true, good), kMetre, "system IX");
    const Points xy = Convert(true, {{139.7, 95}, good[0], {NAN, 35}}, &status);
    EXPECT_NE(status, 0);
    EXPECT_EQ(xy, (Points{kRefused, plane9[0], kRefused}));
    // Counts write no further than given.
    double in[2] = {139.7, 35.7}, out[2] = {-1, -1}, outY[2] = {-1, -1};
    const std::int32_t zero = 0, negative = -5, one = 1;
    EXPECT_EQ(ll2xy_(&zero, in, in, out, outY) + xy2ll_(&negative, out, outY, in, in), 0);
    EXPECT_NE(ll2xy_(nullptr, in, in, out, outY), 0);
    EXPECT_NE(xy2ll_(&one, out, outY, nullptr, in), 0);
    EXPECT_EQ(out[0] + outY[0], -2) << "nothing written yet";
    EXPECT_EQ(ll2xy_(&one, in, in + 1, out, outY), 0);
    EXPECT_EQ((std::array{out[0], out[1] + outY[1]}), (std::array{plane9[0][0], -2.0}));
    mapproject_finalize_();
    // No pair after finalising, or when PROJ refuses the zone: every point fails alike.
    for (bool zone61 : {false, true}) {
        if (zone61)
            (void)Outcome([] { return mapproject_initialize_using_longi_(180.0) != nullptr; });
        EXPECT_EQ(Convert(true, good, &status)[0], kRefused);
        EXPECT_NE(status, 0);
        EXPECT_EQ(Convert(false, plane9, &status)[0], kRefused);
        EXPECT_NE(status, 0);
        mapproject_finalize_();
    }
}

} // namespace
