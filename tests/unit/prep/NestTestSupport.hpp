#pragma once

#include "prep/PrepError.hpp"
#include "prep/PrepTestSupport.hpp"

#include <cmath>
#include <functional>
#include <string>

// A made-up coast around a site, running north-south through it: land to the west rising
// 30 m a kilometre, to the east a shelf 20 km wide sloping to 130 m, a steep slope down
// to 3000 m over the next 10 km, then the deep sea; a bay 1 km wide, 10 m deep on its
// axis, cuts 3 km into the land at the site. Elevations in metres, negative below sea
// level, continuous everywhere as real ground is.
struct Coast {
    double lon = 0; // the site, on the coast line at the bay's mouth
    double lat = 0;

    [[nodiscard]] double Elevation(double x, double y) const {
        const double kmPerDegree = 111.195;
        const double east = (x - lon) * kmPerDegree * std::cos(lat * 3.141592653589793 / 180);
        const double north = (y - lat) * kmPerDegree;
        double v;
        if (east < 0)
            v = std::min(500.0, -30.0 * east);
        else if (east < 20)
            v = -6.5 * east;
        else if (east < 30)
            v = -130.0 - 287.0 * (east - 20);
        else
            v = -3000.0 - 10.0 * (east - 30);
        if (east > -3)
            v = std::min(v, -10.0 + 60.0 * std::fabs(north) + 5.0 * std::max(0.0, -east - 2));
        return v;
    }

    // The coast as a GeoTIFF in degrees (EPSG 4326): `cell` degrees a cell over the box
    // lon0 lat0 lon1 lat1 relative to the site; `spoil` (column, line, value), when given,
    // says what pixel (column, line) holds instead.
    void Write(const std::string& path, double cell, double west, double south, double eastEdge,
               double north, const std::function<double(int, int, double)>& spoil = nullptr) const {
        RasterLayout layout;
        layout.nx = static_cast<int>(std::lround((eastEdge - west) / cell));
        layout.ny = static_cast<int>(std::lround((north - south) / cell));
        layout.transform = {lon + west, cell, 0, lat + north, 0, -cell};
        MakeRaster(path, layout, [&](int c, int l) {
            const double v = Elevation(lon + west + (c + 0.5) * cell, lat + north - (l + 0.5) * cell);
            return spoil ? spoil(c, l, v) : v;
        });
    }
};

// What a refusal says; "" when nothing was refused.
template <class Call>
std::string Refusal(Call&& call) {
    try {
        call();
    } catch (const PrepError& e) {
        return e.what();
    }
    return "";
}
