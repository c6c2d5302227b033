#include "projection/MapProjection.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using Points = std::vector<std::array<double, 2>>;

const std::string kJgd2000 = "+proj=longlat +ellps=GRS80 +towgs84=0,0,0,0,0,0,0 +no_defs";
const std::string kWgs84 = "+proj=latlong +ellps=WGS84 +datum=WGS84 +no_defs";
const std::string kTail =
    " +k=0.9999 +x_0=0 +y_0=0 +ellps=GRS80 +towgs84=0,0,0,0,0,0,0 +units=m +no_defs";
constexpr double kMetre = 1e-3, kDegree = 9e-9; // both under a millimetre

std::string Utm(int zone) {
    return "+proj=utm +zone=" + std::to_string(zone) +
           " +ellps=GRS80 +towgs84=0,0,0,0,0,0,0 +units=m +no_defs";
}

// Debian's cs2cs is the reference; a point it refuses comes back as HUGE_VAL.
Points Cs2cs(const std::string& from, const std::string& to, const Points& in) {
    char path[] = "/tmp/cs2cs_inXXXXXX";
    if (std::FILE* file = fdopen(mkstemp(path), "w")) {
        for (const auto& p : in)
            std::fprintf(file, "%.12f %.12f\n", p[0], p[1]);
        std::fclose(file);
    }
    const std::string command =
        "cs2cs -f %.10f " + from + " +to " + to + " < " + path + " 2>/dev/null";
    Points out;
    if (std::FILE* pipe = popen(command.c_str(), "r")) {
        char line[256];
        while (std::fgets(line, sizeof line, pipe)) {
            std::array<double, 2> p{};
            if (std::sscanf(line, "%lf %lf", &p[0], &p[1]) != 2)
                p = {HUGE_VAL, HUGE_VAL};
            out.push_back(p);
        }
        pclose(pipe);
    }
    std::remove(path);
    EXPECT_EQ(out.size(), in.size()) << command;
    out.resize(in.size(), {HUGE_VAL, HUGE_VAL}); // callers index it
    return out;
}

Points Convert(bool toPlane, const Points& in, int* status = nullptr) {
    std::vector<double> a, b, c(in.size()), d(in.size());
    for (const auto& p : in) {
        a.push_back(p[0]);
        b.push_back(p[1]);
    }
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

// Geographic points around (lon0, lat0), plane points around the false origin, both ways.
void ExpectAgreesWithCs2cs(const std::string& geo, const std::string& plane, double lon0,
                           double lat0, const std::string& what) {
    const Points ll = {{lon0, lat0}, {lon0 + 0.45, lat0 + 0.8}, {lon0 - 0.7, lat0 - 0.3}};
    ExpectNear(Convert(true, ll), Cs2cs(geo, plane, ll), kMetre, what + " forward");
    const Points xy = {{0, 0}, {25000.5, -41000.25}, {-60000, 80000}};
    ExpectNear(Convert(false, xy), Cs2cs(plane, geo, xy), kDegree, what + " inverse");
}

TEST(MapProjectionEpsg, EveryPlaneSystemAgreesWithCs2csAndTheEpsgDatabase) {
    struct Row {
        int epsg;
        const char* head;
        double lon0, lat0;
    };
    const Row rows[] = {
        {2443, "+proj=tmerc +lat_0=33 +lon_0=129.5", 129.5, 33},
        {2444, "+proj=tmerc +lat_0=33 +lon_0=131", 131, 33},
        {2445, "+proj=tmerc +lat_0=36 +lon_0=132.1666666666667", 132.17, 36},
        {2446, "+proj=tmerc +lat_0=33 +lon_0=133.5", 133.5, 33},
        {2447, "+proj=tmerc +lat_0=36 +lon_0=134.3333333333333", 134.33, 36},
        {2448, "+proj=tmerc +lat_0=36 +lon_0=136", 136, 36},
        {2449, "+proj=tmerc +lat_0=36 +lon_0=137.1666666666667", 137.17, 36},
        {2450, "+proj=tmerc +lat_0=36 +lon_0=138.5", 138.5, 36},
        {2451, "+proj=tmerc +lat_0=36 +lon_0=139.8333333333333", 139.83, 36},
        {2452, "+proj=tmerc +lat_0=40 +lon_0=140.8333333333333", 140.83, 40},
        {2453, "+proj=tmerc +lat_0=44 +lon_0=140.25", 140.25, 44},
        {2454, "+proj=tmerc +lat_0=44 +lon_0=142.25", 142.25, 44},
        {2455, "+proj=tmerc +lat_0=44 +lon_0=144.25", 144.25, 44},
        {2456, "+proj=tmerc +lat_0=26 +lon_0=142", 142, 26},
        {2457, "+proj=tmerc +lat_0=26 +lon_0=127.5", 127.5, 26},
        {2458, "+proj=tmerc +lat_0=26 +lon_0=124", 124, 26},
        {2459, "+proj=tmerc +lat_0=26 +lon_0=131", 131, 26},
        {2460, "+proj=tmerc +lat_0=20 +lon_0=136", 136, 20},
        {2461, "+proj=tmerc +lat_0=26 +lon_0=154", 154, 26},
        {3097, nullptr, 123, 30},
        {3098, nullptr, 129, 33},
        {3099, nullptr, 135, 35},
        {3100, nullptr, 141, 38},
        {3101, nullptr, 147, 43},
    };
    for (const Row& row : rows) {
        const std::string what = "EPSG:" + std::to_string(row.epsg);
        const bool utm = row.head == nullptr;
        const std::string plane = utm ? Utm(row.epsg - 3046) : row.head + kTail;
        ASSERT_NE(mapproject_initialize_using_epsg_(4612, row.epsg), nullptr) << what;
        ExpectAgreesWithCs2cs(kJgd2000, plane, row.lon0, row.lat0, what);
        // The database takes latitude first and gives the plane systems northing first.
        const Points reference = Cs2cs("EPSG:4612", what, {{row.lat0 + 0.3, row.lon0 + 0.2}});
        const Points xy = Convert(true, {{row.lon0 + 0.2, row.lat0 + 0.3}});
        ExpectNear(xy, {utm ? reference[0] : std::array{reference[0][1], reference[0][0]}}, kMetre,
                   what + " database");
        mapproject_finalize_();
    }
}

TEST(MapProjectionEpsg, UnknownCodesFallBackWithTheirLines) {
    struct Row {
        int geo, plane;
        const char* line;
        std::string geoString, planeString;
    };
    const std::string plane9 = "+proj=tmerc +lat_0=36 +lon_0=139.8333333333333" + kTail;
    const Row rows[] = {
        {4612, 2451, "", kJgd2000, plane9},
        {4326, 2451, "", kWgs84, plane9},
        // Kept: the line names 4612 while WGS84 is taken.
        {0, 2451, "default EPSG:4612\n", kWgs84, plane9},
        {4612, 2442, "default EPSG:3100\n", kJgd2000, Utm(54)},
        {4612, 3102, "default EPSG:3100\n", kJgd2000, Utm(54)},
        {2451, 4612, "default EPSG:4612\ndefault EPSG:3100\n", kWgs84, Utm(54)},
    };
    for (const Row& row : rows) {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        (void)mapproject_initialize_using_epsg_(row.geo, row.plane); // checked by converting
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        EXPECT_EQ(testing::internal::GetCapturedStdout(), row.line) << row.geo << " " << row.plane;
        const Points ll = {{140.1, 36.4}, {141.9, 38.2}};
        ExpectNear(Convert(true, ll), Cs2cs(row.geoString, row.planeString, ll), kMetre,
                   std::to_string(row.geo) + " " + std::to_string(row.plane));
        mapproject_finalize_();
    }
}

TEST(MapProjectionLongitude, ZoneLineOnTheRangeBoundaries) {
    const std::pair<double, int> rows[] = {
        {135, 53}, {139.7, 54}, {141, 54},        {144, 55},    {132, 53}, {131.9999999, 52},
        {138, 54}, {0, 31},     {-0.0000001, 30}, {-180, 1},    {174, 60}, {179.999, 60},
        {180, 61}, {180.5, 1},  {186, 2},         {185.999, 1}, {-181, 0}, {NAN, 0}};
    for (const auto& [longitude, zone] : rows) {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        PJ* plane = mapproject_initialize_using_longi_(longitude);
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "Deformation Calc. UTM Zone:" + std::to_string(zone) + "\n")
            << longitude;
        EXPECT_EQ(err, "") << "PROJ talked on " << longitude;
        EXPECT_EQ(plane != nullptr, zone >= 1 && zone <= 60) << longitude;
        mapproject_finalize_();
    }
}

TEST(MapProjectionLongitude, ConvertsInTheChosenZoneWithoutWrappingBack) {
    (void)mapproject_initialize_using_longi_(141.2); // zone 54
    ExpectAgreesWithCs2cs(kJgd2000, Utm(54), 141.2, 38.3, "zone 54");
    (void)mapproject_initialize_using_longi_(180.5); // zone 1
    const Points east = {{180.0, 35}, {181.0, -20}, {200.0, 10}, {179.999, 0}};
    const Points twins = {{-180.0, 35}, {-179.0, -20}, {-160.0, 10}, {179.999, 0}};
    const Points xy = Convert(true, east);
    ExpectNear(xy, Cs2cs(kJgd2000, Utm(1), twins), kMetre, "east of 180");
    // Kept: no wrapping back; the fault outlines add 360 themselves.
    ExpectNear(Convert(false, {xy[1]}), {twins[1]}, kDegree, "back west of 180");
    mapproject_finalize_();
}

TEST(MapProjectionFailure, UnconvertiblePointsAreHugeValAndTheRestConvert) {
    (void)mapproject_initialize_using_epsg_(4612, 2451);
    int status = -1;
    const Points good = {{139.7, 35.7}};
    const Points plane9 = Convert(true, good, &status);
    EXPECT_EQ(status, 0);
    const Points xy = Convert(true, {{139.7, 95}, good[0], {NAN, 35}}, &status);
    EXPECT_NE(status, 0);
    ExpectNear({xy[1]}, plane9, 0, "good point among bad ones");
    for (std::size_t i : {0u, 2u})
        EXPECT_EQ(xy[i], (std::array{HUGE_VAL, HUGE_VAL})) << i;
    mapproject_finalize_();
    // No pair after finalising, or when PROJ refuses the zone: every point fails alike.
    for (bool zone61 : {false, true}) {
        if (zone61)
            (void)mapproject_initialize_using_longi_(180.0);
        EXPECT_EQ(Convert(true, good, &status)[0], (std::array{HUGE_VAL, HUGE_VAL}));
        EXPECT_NE(status, 0);
        EXPECT_EQ(Convert(false, plane9, &status)[0], (std::array{HUGE_VAL, HUGE_VAL}));
        EXPECT_NE(status, 0);
        mapproject_finalize_();
    }
}

TEST(MapProjectionFailure, CountsWriteNoFurtherThanGiven) {
    (void)mapproject_initialize_using_epsg_(4612, 2451);
    double in[2] = {139.7, 35.7}, out[2] = {-1, -1}, outY[2] = {-1, -1};
    const std::int32_t zero = 0, negative = -5, one = 1;
    EXPECT_EQ(ll2xy_(&zero, in, in, out, outY), 0);
    EXPECT_EQ(xy2ll_(&negative, out, outY, in, in), 0);
    EXPECT_NE(ll2xy_(nullptr, in, in, out, outY), 0);
    EXPECT_NE(xy2ll_(&one, out, outY, nullptr, in), 0);
    EXPECT_EQ(out[0] + outY[0], -2) << "nothing written yet";
    EXPECT_EQ(ll2xy_(&one, in, in + 1, out, outY), 0);
    EXPECT_NE(out[0], -1);
    EXPECT_EQ(out[1] + outY[1], -2) << "second point written";
    mapproject_finalize_();
}

TEST(MapProjectionLifecycle, FinalizeWithoutInitializeAndRepeatedPairs) {
    mapproject_finalize_();
    mapproject_finalize_();
    const Points ll = {{139.9, 36.1}};
    const Points want =
        Cs2cs(kJgd2000, "+proj=tmerc +lat_0=36 +lon_0=139.8333333333333" + kTail, ll);
    for (int round = 0; round < 3; ++round) {
        (void)mapproject_initialize_using_epsg_(4612, 2443);
        (void)mapproject_initialize_using_epsg_(4612, 2451); // replaces the first pair
        ExpectNear(Convert(true, ll), want, kMetre, "round " + std::to_string(round));
        mapproject_finalize_();
        mapproject_finalize_();
    }
}

} // namespace
