#include "prep/PointCarrier.hpp"

#include <ogr_spatialref.h>

#include <gtest/gtest.h>

#include <cmath>
#include <memory>

namespace {

// PROJ's own answer for one point, for comparison with the run's service.
std::pair<double, double> ThroughProj(int from, int to, double x, double y) {
    OGRSpatialReference a;
    OGRSpatialReference b;
    a.importFromEPSG(from);
    b.importFromEPSG(to);
    a.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
    b.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
    std::unique_ptr<OGRCoordinateTransformation> t(OGRCreateCoordinateTransformation(&a, &b));
    EXPECT_TRUE(t && t->Transform(1, &x, &y));
    return {x, y};
}

} // namespace

TEST(PrepPointCarrier, ServiceWherePossibleProjElseWithANote) {
    struct Case {
        int from, to;
        double x, y;
        double tolerance; // in the target's units
        bool noted;       // a code outside the service was met
        bool unchanged = false;
    };
    const Case cases[] = {
        {2451, 4612, 0, 0, 1e-8, false},               // the system's origin
        {4612, 2451, 139.9, 36.1, 1e-3, false},        // and back, within a millimetre
        {2451, 2452, 5000, -3000, 0.01, false},        // plane to plane by way of degrees
        {4326, 4612, 140.123, 35.456, 0, false, true}, // one system to the service
        {6677, 4326, 1000, 2000, 1e-8, true},          // JGD2011: PROJ, at its true place
        {4612, 32654, 141.0, 38.0, 0.01, true},
    };
    for (const Case& c : cases) {
        PointCarrier carrier;
        std::vector<double> x = {c.x};
        std::vector<double> y = {c.y};
        std::string why;
        ASSERT_TRUE(carrier.Carry(c.from, c.to, x, y, why)) << c.from << " " << why;
        const auto want = c.unchanged ? std::pair{c.x, c.y} : ThroughProj(c.from, c.to, c.x, c.y);
        EXPECT_NEAR(x[0], want.first, c.tolerance) << c.from << " -> " << c.to;
        EXPECT_NEAR(y[0], want.second, c.tolerance) << c.from << " -> " << c.to;
        EXPECT_EQ(!carrier.OutsideService().empty(), c.noted) << c.from << " -> " << c.to;
    }
}

TEST(PrepPointCarrier, ACodeProjLacksIsRefusedInWords) {
    PointCarrier carrier;
    std::vector<double> x = {1.0};
    std::vector<double> y = {2.0};
    std::string why;
    EXPECT_FALSE(carrier.Carry(99999, 4326, x, y, why));
    EXPECT_EQ(why, "EPSG 99999 is not a coordinate system PROJ knows");
    EXPECT_TRUE(carrier.OutsideService().empty()); // nothing was drawn there to note
}

TEST(PrepPointCarrier, NearLongitude) {
    const double cases[][3] = {{359.5, 0, -0.5}, {-179, 180, 181}, {10, 10, 10}, {190, -170, -170}};
    for (const auto& c : cases)
        EXPECT_DOUBLE_EQ(NearLongitude(c[0], c[1]), c[2]) << c[0] << " near " << c[1];
}
