#include "region/Region.hpp"

#include "project/Console.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace {

constexpr double kPi = 3.141592653589793;
constexpr double kEarthRadius = 6371000.0; // metres
constexpr double kTwiceGravity = 19.6;     // 2 g, m/s^2: the wave speed is sqrt(2 g h)

} // namespace

int Region::TimeStepFailure(double timeIncrement, double cflLimit) {
    if (cflLimit < 0.0 || cflLimit > 1.0)
        return 1;
    if (timeIncrement <= 0.0)
        return 2;
    if (coordType == 0) {
        dxMeter = static_cast<float>(gridSize);
    } else {
        // The poleward edge has the narrowest east-west spacing, so the strictest CFL.
        const double lat = std::max(std::fabs((ny - 1) * gridSize + org_y), std::fabs(org_y));
        dxMeter = static_cast<float>(gridSize / 180.0 * kPi * kEarthRadius *
                                     std::cos(lat / 180.0 * kPi));
    }
    if (dxMeter <= 0.0f)
        return 3;
    // No clamping: a grid without any point below zero gives the speed the arithmetic gives.
    const double courant = (timeIncrement / dxMeter) * std::sqrt(-valMin * kTwiceGravity);
    if (cflLimit > 3.0 * courant) {
        timeRatio = 3;
        dt = timeIncrement * 3.0;
    } else {
        timeRatio = 1;
        dt = timeIncrement;
    }
    cfl = timeRatio * courant;
    return 0;
}

bool Region::CalcDT(double timeIncrement, double cflLimit) {
    try {
        if (const int reason = TimeStepFailure(timeIncrement, cflLimit)) {
            if (reason == 3)
                std::printf("************** here:%s DX:%g\n", regionName.c_str(), gridSize);
            throw reason;
        }
        return true;
    } catch (int reason) {
        const char* detail = "";
        switch (reason) {
        case 1: detail = "  ERROR-DETAIL:Can not calculate CFL."; break;
        case 2: detail = "  ERROR-DETAIL:Particular attention should be given to \"TimeIncrement\"."; break;
        case 3: detail = "  ERROR-DETAIL:Particular attention should be given to \"GridSize\"."; break;
        }
        PrintErrorBlock({"ERROR:REGION OBJECT METHOD",
                         "  ERROR-DETAIL:Abnormal action at Calculate CFL Method.", detail});
        return false;
    }
}

void Region::SetStepRatio(int ratio) { stepRatio = ratio; }
