#include "projection/MapProjection.hpp"

#include <cmath>
#include <cstddef>
#include <cstdio>
#include <iterator>
#include <memory>
#include <string>

namespace {

struct ContextDeleter {
    void operator()(PJ_CONTEXT* ctx) const { proj_context_destroy(ctx); }
};
using ContextPtr = std::unique_ptr<PJ_CONTEXT, ContextDeleter>;
struct PjDeleter {
    void operator()(PJ* p) const { proj_destroy(p); }
};
using PjPtr = std::unique_ptr<PJ, PjDeleter>;

struct Service {
    // Declared first so it dies last: every PJ below was made in it. It outlives
    // mapproject_finalize_ because the fault writer initialises twice per segment and a
    // fresh context would reopen PROJ's database each time (about four times slower).
    ContextPtr ctx;
    PjPtr pj_ll;
    PjPtr pj_cartes;
    PjPtr llToCartes;   // lon, lat degrees -> easting, northing metres; PJ_INV goes back
    int setupErrno = 0; // why the last initialise gave no pair, answered by every conversion
};
Service service;
bool printNotices = true; // the "default EPSG" and "UTM Zone" lines

constexpr const char* kJgd2000Geographic =
    "+proj=longlat +ellps=GRS80 +towgs84=0,0,0,0,0,0,0 +no_defs";
constexpr const char* kWgs84Geographic = "+proj=latlong +ellps=WGS84 +datum=WGS84 +no_defs";
constexpr const char* kPlaneTail =
    " +k=0.9999 +x_0=0 +y_0=0 +ellps=GRS80 +towgs84=0,0,0,0,0,0,0 +units=m +no_defs";
constexpr const char* kUtmTemplate =
    "+proj=utm +zone=%d +ellps=GRS80 +towgs84=0,0,0,0,0,0,0 +units=m +no_defs";

// JGD2000 plane rectangular systems I to XIX, EPSG 2443 to 2461 in order.
constexpr const char* kPlaneHeads[] = {
    "+proj=tmerc +lat_0=33 +lon_0=129.5",
    "+proj=tmerc +lat_0=33 +lon_0=131",
    "+proj=tmerc +lat_0=36 +lon_0=132.1666666666667",
    "+proj=tmerc +lat_0=33 +lon_0=133.5",
    "+proj=tmerc +lat_0=36 +lon_0=134.3333333333333",
    "+proj=tmerc +lat_0=36 +lon_0=136",
    "+proj=tmerc +lat_0=36 +lon_0=137.1666666666667",
    "+proj=tmerc +lat_0=36 +lon_0=138.5",
    "+proj=tmerc +lat_0=36 +lon_0=139.8333333333333",
    "+proj=tmerc +lat_0=40 +lon_0=140.8333333333333",
    "+proj=tmerc +lat_0=44 +lon_0=140.25",
    "+proj=tmerc +lat_0=44 +lon_0=142.25",
    "+proj=tmerc +lat_0=44 +lon_0=144.25",
    "+proj=tmerc +lat_0=26 +lon_0=142",
    "+proj=tmerc +lat_0=26 +lon_0=127.5",
    "+proj=tmerc +lat_0=26 +lon_0=124",
    "+proj=tmerc +lat_0=26 +lon_0=131",
    "+proj=tmerc +lat_0=20 +lon_0=136",
    "+proj=tmerc +lat_0=26 +lon_0=154",
};
constexpr int kFirstPlaneEpsg = 2443;
constexpr int kPlaneCount = static_cast<int>(std::size(kPlaneHeads));
constexpr int kFirstUtmEpsg = 3097; // JGD2000 / UTM zone 51N; 3101 is zone 55N
constexpr int kFirstUtmZone = 51;
constexpr int kUtmCount = 5;
constexpr int kDefaultUtmZone = 54; // EPSG 3100

[[nodiscard]] std::string UtmDefinition(int zone) {
    char text[128];
    std::snprintf(text, sizeof text, kUtmTemplate, zone);
    return text;
}

[[nodiscard]] std::string PlaneDefinition(int planeEpsg) {
    if (planeEpsg >= kFirstPlaneEpsg && planeEpsg < kFirstPlaneEpsg + kPlaneCount)
        return std::string(kPlaneHeads[planeEpsg - kFirstPlaneEpsg]) + kPlaneTail;
    if (planeEpsg >= kFirstUtmEpsg && planeEpsg < kFirstUtmEpsg + kUtmCount)
        return UtmDefinition(kFirstUtmZone + planeEpsg - kFirstUtmEpsg);
    if (printNotices)
        std::printf("default EPSG:3100\n");
    return UtmDefinition(kDefaultUtmZone);
}

// Kept: a longitude above 180 is shifted down by 180, not wrapped by 360, so 180.5 lands in
// zone 1 and 180.0 in zone 61. Fault files east of the antimeridian rely on zone 1.
[[nodiscard]] int UtmZoneOfLongitude(double longitude) {
    const double shifted = longitude > 180.0 ? longitude - 180.0 : longitude + 180.0;
    const double zone = shifted / 6.0 + 1.0;
    // Converting NaN or an out-of-range value to int is undefined; PROJ refuses zone 0.
    if (!(zone > -2147483648.0 && zone < 2147483648.0))
        return 0;
    return static_cast<int>(zone);
}

// Drops the active pair, keeping the context for the next initialise.
void ReleasePair() {
    service.llToCartes.reset();
    service.pj_ll.reset();
    service.pj_cartes.reset();
    service.setupErrno = 0;
}

// PROJ 9 reads a bare "+proj=..." string as an operation; "+type=crs" makes it the system the
// definition describes, as cs2cs does, so both convert through the same operations.
[[nodiscard]] PJ* SetUpPair(const char* geographic, const std::string& plane) {
    ReleasePair();
    if (!service.ctx) {
        service.ctx.reset(proj_context_create());
        if (!service.ctx) {
            service.setupErrno = PROJ_ERR_OTHER;
            return nullptr;
        }
        proj_log_level(service.ctx.get(), PJ_LOG_NONE);
    }
    PJ_CONTEXT* ctx = service.ctx.get();
    service.pj_ll.reset(proj_create(ctx, (std::string(geographic) + " +type=crs").c_str()));
    service.pj_cartes.reset(proj_create(ctx, (plane + " +type=crs").c_str()));
    if (service.pj_ll && service.pj_cartes) {
        PjPtr op(proj_create_crs_to_crs_from_pj(ctx, service.pj_ll.get(), service.pj_cartes.get(),
                                                nullptr, nullptr));
        // Callers pass longitude first whatever order a system declares.
        if (op)
            service.llToCartes.reset(proj_normalize_for_visualization(ctx, op.get()));
    }
    if (!service.llToCartes) {
        const int cause = proj_context_errno(ctx);
        service.setupErrno = cause != 0 ? cause : PROJ_ERR_OTHER;
        return nullptr;
    }
    return service.pj_cartes.get();
}

// Converts in place; a failed point holds HUGE_VAL, as PROJ marks it.
[[nodiscard]] int Transform(PJ_DIRECTION direction, double* first, double* second,
                            std::size_t count) {
    PJ* op = service.llToCartes.get();
    if (op == nullptr) {
        for (std::size_t i = 0; i < count; ++i)
            first[i] = second[i] = HUGE_VAL;
        return service.setupErrno != 0 ? service.setupErrno : PROJ_ERR_OTHER_API_MISUSE;
    }
    proj_errno_reset(op);
    // Its count includes failed points, so the scan below decides.
    (void)proj_trans_generic(op, direction, first, sizeof(double), count, second, sizeof(double),
                             count, nullptr, 0, 0, nullptr, 0, 0);
    bool failed = false;
    for (std::size_t i = 0; i < count; ++i) {
        if (!std::isfinite(first[i]) || !std::isfinite(second[i])) {
            first[i] = second[i] = HUGE_VAL;
            failed = true;
        }
    }
    if (!failed)
        return 0;
    const int cause = proj_errno(op);
    return cause != 0 ? cause : PROJ_ERR_COORD_TRANSFM;
}

// The number of points to touch, or -1 when the call must not touch any array.
[[nodiscard]] std::ptrdiff_t CheckedCount(const std::int32_t* n, const void* a, const void* b,
                                          const void* c, const void* d) {
    if (n == nullptr)
        return -1;
    if (*n <= 0)
        return 0;
    if (a == nullptr || b == nullptr || c == nullptr || d == nullptr)
        return -1;
    return *n;
}

} // namespace

bool IsServicePlaneEpsg(int epsg) {
    return (epsg >= kFirstPlaneEpsg && epsg < kFirstPlaneEpsg + kPlaneCount) ||
           (epsg >= kFirstUtmEpsg && epsg < kFirstUtmEpsg + kUtmCount);
}

void SetMapProjectionNotices(bool print) { printNotices = print; }

extern "C" {

PJ* mapproject_initialize_using_epsg_(std::int32_t geoEpsg, std::int32_t planeEpsg) {
    // Kept: every code but 4612 takes WGS84 although the line names 4612; the line is left
    // out only for 4326, which asked for WGS84.
    const char* geographic = kWgs84Geographic;
    if (geoEpsg == 4612)
        geographic = kJgd2000Geographic;
    else if (geoEpsg != 4326 && printNotices)
        std::printf("default EPSG:4612\n");
    const std::string plane = PlaneDefinition(planeEpsg);
    return SetUpPair(geographic, plane);
}

PJ* mapproject_initialize_using_longi_(double longitude) {
    const int zone = UtmZoneOfLongitude(longitude);
    if (printNotices)
        std::printf("Deformation Calc. UTM Zone:%d\n", zone);
    return SetUpPair(kJgd2000Geographic, UtmDefinition(zone)); // PROJ refuses zones 0 and 61
}

int ll2xy_(const std::int32_t* n, const double* lon, const double* lat, double* x, double* y) {
    const std::ptrdiff_t count = CheckedCount(n, lon, lat, x, y);
    if (count < 0)
        return PROJ_ERR_OTHER_API_MISUSE;
    for (std::ptrdiff_t i = 0; i < count; ++i) {
        // Grids east of the antimeridian are given up to 360; PROJ expects -180..180.
        x[i] = lon[i] >= 180.0 ? lon[i] - 360.0 : lon[i];
        y[i] = lat[i];
    }
    if (count == 0)
        return 0;
    return Transform(PJ_FWD, x, y, static_cast<std::size_t>(count));
}

int xy2ll_(const std::int32_t* n, double* lon, double* lat, const double* x, const double* y) {
    const std::ptrdiff_t count = CheckedCount(n, lon, lat, x, y);
    if (count < 0)
        return PROJ_ERR_OTHER_API_MISUSE;
    for (std::ptrdiff_t i = 0; i < count; ++i) {
        lon[i] = x[i];
        lat[i] = y[i];
    }
    if (count == 0)
        return 0;
    return Transform(PJ_INV, lon, lat, static_cast<std::size_t>(count));
}

void mapproject_finalize_(void) { ReleasePair(); }

} // extern "C"
