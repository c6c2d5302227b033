#include "prep/PointCarrier.hpp"

#include "prep/ProjectFiles.hpp"
#include "project/Console.hpp"
#include "projection/MapProjection.hpp"

#include <cpl_error.h>
#include <ogr_spatialref.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>

namespace {

[[nodiscard]] bool ServiceKnows(int epsg) { return IsGeographic(epsg) || IsServicePlaneEpsg(epsg); }

[[nodiscard]] bool AllFinite(const std::vector<double>& x, const std::vector<double>& y) {
    for (std::size_t k = 0; k < x.size(); ++k)
        if (!std::isfinite(x[k]) || !std::isfinite(y[k]))
            return false;
    return true;
}

// One leg through the service: geographic `geo` to or from the plane system `plane`.
bool ServiceLeg(int geo, int plane, bool toPlane, std::vector<double>& x, std::vector<double>& y) {
    const auto n = static_cast<std::int32_t>(x.size());
    bool ok = mapproject_initialize_using_epsg_(geo, plane) != nullptr;
    if (ok)
        ok = (toPlane ? ll2xy_(&n, x.data(), y.data(), x.data(), y.data())
                      : xy2ll_(&n, x.data(), y.data(), x.data(), y.data())) == 0;
    mapproject_finalize_();
    return ok && AllFinite(x, y);
}

struct TransformDeleter {
    void operator()(OGRCoordinateTransformation* c) const {
        OGRCoordinateTransformation::DestroyCT(c);
    }
};

bool ThroughProj(int fromEpsg, int toEpsg, std::vector<double>& x, std::vector<double>& y,
                 std::string& why) {
    CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
    OGRSpatialReference from;
    OGRSpatialReference to;
    for (auto [srs, epsg] : {std::pair{&from, fromEpsg}, std::pair{&to, toEpsg}}) {
        if (srs->importFromEPSG(epsg) != OGRERR_NONE) {
            why = StringPrintf("EPSG %d is not a coordinate system PROJ knows", epsg);
            return false;
        }
        srs->SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
    }
    std::unique_ptr<OGRCoordinateTransformation, TransformDeleter> transform(
        OGRCreateCoordinateTransformation(&from, &to));
    std::vector<int> ok(x.size());
    if (!transform || !transform->Transform(x.size(), x.data(), y.data(), nullptr, ok.data()) ||
        !AllFinite(x, y)) {
        why = StringPrintf("PROJ cannot carry these points from EPSG %d to EPSG %d", fromEpsg,
                           toEpsg);
        return false;
    }
    return true;
}

} // namespace

bool PointCarrier::Carry(int fromEpsg, int toEpsg, std::vector<double>& x,
                         std::vector<double>& y, std::string& why) {
    why.clear();
    if (x.empty() || fromEpsg == toEpsg || (IsGeographic(fromEpsg) && IsGeographic(toEpsg)))
        return true;
    if (x.size() > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max())) {
        why = "too many points";
        return false;
    }
    if (!ServiceKnows(fromEpsg) || !ServiceKnows(toEpsg)) {
        if (!ThroughProj(fromEpsg, toEpsg, x, y, why))
            return false;
        for (int epsg : {fromEpsg, toEpsg})
            if (!ServiceKnows(epsg))
                outsideService_.insert(epsg);
        return true;
    }
    SetMapProjectionNotices(false);
    bool ok = true;
    if (IsGeographic(fromEpsg)) {
        ok = ServiceLeg(fromEpsg, toEpsg, true, x, y);
    } else if (IsGeographic(toEpsg)) {
        ok = ServiceLeg(toEpsg, fromEpsg, false, x, y);
    } else {
        // Between two plane systems by way of JGD2000 longitude and latitude.
        ok = ServiceLeg(4612, fromEpsg, false, x, y) && ServiceLeg(4612, toEpsg, true, x, y);
    }
    if (!ok)
        why = StringPrintf("the run's projection service cannot carry these points from EPSG "
                           "%d to EPSG %d",
                           fromEpsg, toEpsg);
    return ok;
}

std::string OutsideServiceNote(int epsg) {
    return StringPrintf("EPSG %d is not one of the systems the run's projection service knows "
                        "(the JGD2000 plane systems 2443-2461 and UTM zones 3097-3101): the run "
                        "converts it as UTM zone 54 (EPSG 3100); drawn where PROJ places it",
                        epsg);
}

double NearLongitude(double lon, double centre) {
    return lon - 360.0 * std::round((lon - centre) / 360.0);
}
