#include "region/Region.hpp"

#include "project/Console.hpp"
#include "projection/MapProjection.hpp"
#include "region/NestingSearch.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <limits>

namespace {

// Finishes the projection service however the search ends.
struct ProjectionSession {
    ProjectionSession(std::int32_t geoEpsg, std::int32_t planeEpsg)
        : ready(mapproject_initialize_using_epsg_(geoEpsg, planeEpsg) != nullptr) {}
    ~ProjectionSession() { mapproject_finalize_(); }
    ProjectionSession(const ProjectionSession&) = delete;
    ProjectionSession& operator=(const ProjectionSession&) = delete;

    const bool ready;
};

// True when every corner of `own` is found among the base points carried into the plane
// system `planeEpsg`. Prints only what the projection service prints when set up.
[[nodiscard]] bool CornersFoundAcross(std::int32_t geoEpsg, std::int32_t planeEpsg,
                                      const NestingBase& base, const CellExtent& own) {
    const ProjectionSession session(geoEpsg, planeEpsg);
    // Without a usable pair every point would come back HUGE_VAL, and no box holds a
    // corner then.
    if (!session.ready)
        return false;
    if (base.nx < 6)
        return false;
    // The service takes the base grid in one call counted in 32 bits; a grid it cannot
    // count is refused rather than converted in pieces for minutes.
    if (std::int64_t{base.nx} * base.ny > std::numeric_limits<std::int32_t>::max())
        return false;
    const NestingCorners corners = {{{own.minX, own.minY},
                                     {own.maxX, own.minY},
                                     {own.maxX, own.maxY},
                                     {own.minX, own.maxY}}};
    try {
        const CornersFound found = FindNestingCorners(base, corners, planeEpsg);
        return std::all_of(found.begin(), found.end(), [](bool f) { return f; });
    } catch (const std::exception&) {
        return false; // out of memory for the search: the corners stay unconfirmed
    }
}

// 1-based index of the first base point beyond `org` along one axis, or 0 when none is.
// Kept: the position grows by repeated addition, not index × step; on long axes the
// rounding it accumulates decides points that fall on org, and projects were set up so.
[[nodiscard]] std::int32_t ConnectIndex(double baseOrg, double step, std::int32_t count,
                                        double org) {
    if (std::isnan(org))
        return 0; // nothing is beyond it
    double at = baseOrg;
    for (std::int32_t i = 0; i < count; ++i) {
        if (at > org)
            return i + 1;
        const double next = at + step;
        if (!(next > at))
            return 0; // a step that cannot move forward never gets beyond org
        at = next;
    }
    return 0;
}

} // namespace

// Counts go through double so that an absurd count cannot overflow.
CellExtent CellExtentOf(double orgX, double orgY, double gridSize, std::int32_t nx,
                        std::int32_t ny) {
    return {orgX - 0.5 * gridSize, orgY - 0.5 * gridSize,
            (static_cast<double>(nx) - 1 + 0.5) * gridSize + orgX,
            (static_cast<double>(ny) - 1 + 0.5) * gridSize + orgY};
}

int Region::ComprisableReason(int baseEpsg, double baseOrgX, double baseOrgY,
                              double baseGridSize, int baseNx, int baseNy) const {
    const CellExtent own = CellExtentOf(org_x, org_y, gridSize, nx, ny);
    const CellExtent base = CellExtentOf(baseOrgX, baseOrgY, baseGridSize, baseNx, baseNy);
    if (epsg == baseEpsg) {
        // No tolerance: a nested region may share an edge with its base.
        if (base.minX > own.minX)
            return 1;
        if (base.minY > own.minY)
            return 2;
        if (own.maxX > base.maxX)
            return 3;
        if (own.maxY > base.maxY)
            return 4;
        return 0;
    }
    return CornersFoundAcross(baseEpsg, epsg, {baseOrgX, baseOrgY, baseGridSize, baseNx, baseNy},
                              own)
               ? 0
               : 5;
}

bool Region::CheckComprisable(int baseEpsg, double baseOrgX, double baseOrgY,
                              double baseGridSize, int baseNx, int baseNy) {
    const CellExtent own = CellExtentOf(org_x, org_y, gridSize, nx, ny);
    const CellExtent base = CellExtentOf(baseOrgX, baseOrgY, baseGridSize, baseNx, baseNy);
    try {
        if (const int reason =
                ComprisableReason(baseEpsg, baseOrgX, baseOrgY, baseGridSize, baseNx, baseNy))
            throw reason;
        std::printf("Comprisable:OK\n");
        return true;
    } catch (int reason) {
        switch (reason) {
        case 1:
            PrintErrorBlock({"ERROR:REGION OBJECT METHOD",
                             "  ERROR-DETAIL:Abnormal action at Check Comprisable Method.",
                             "  ERROR-DETAIL:Comprisable dimX:NG",
                             StringPrintf("  ERROR-DETAIL:Base Min.X:%g", base.minX),
                             StringPrintf("  ERROR-DETAIL:     Min.X:%g", own.minX)});
            break;
        case 2:
            PrintErrorBlock({"ERROR:REGION OBJECT METHOD",
                             "  ERROR-DETAIL:Abnormal action at Check Comprisable Method.",
                             "  ERROR-DETAIL:Comprisable dimY:NG",
                             StringPrintf("  ERROR-DETAIL:Base Min.Y:%g", base.minY),
                             StringPrintf("  ERROR-DETAIL:     Min.Y:%g", own.minY)});
            break;
        case 3:
            PrintErrorBlock({"ERROR:REGION OBJECT METHOD",
                             "  ERROR-DETAIL:Abnormal action at Check Comprisable Method.",
                             "  ERROR-DETAIL:Comprisable dimX:NG",
                             StringPrintf("  ERROR-DETAIL:Base Max.X:%g", base.maxX),
                             StringPrintf("  ERROR-DETAIL:     Max.X:%g", own.maxX)});
            break;
        case 4:
            PrintErrorBlock({"ERROR:REGION OBJECT METHOD",
                             "  ERROR-DETAIL:Abnormal action at Check Comprisable Method.",
                             "  ERROR-DETAIL:Comprisable dimY:NG",
                             StringPrintf("  ERROR-DETAIL:Base Max.Y:%g", base.maxY),
                             StringPrintf("  ERROR-DETAIL:     Max.Y:%g", own.maxY)});
            break;
        default:
            PrintErrorBlock({"ERROR:REGION OBJECT METHOD",
                             "  ERROR-DETAIL:Abnormal action at Check Comprisable Method.",
                             "  ERROR-DETAIL:Comprisable :NG",
                             StringPrintf("  ERROR-DETAIL:Setting Region EPSG:%d", epsg)});
            break;
        }
        return false;
    }
}

bool Region::SearchConnectPos(double baseOrgX, double baseOrgY, double baseGridSize,
                              int baseNx, int baseNy) {
    try {
        connectI = ConnectIndex(baseOrgX, baseGridSize, baseNx, org_x);
        std::printf("ConnectI:%d\n", connectI);
        if (connectI == 0)
            throw 1;
        connectJ = ConnectIndex(baseOrgY, baseGridSize, baseNy, org_y);
        std::printf("ConnectJ:%d\n", connectJ);
        if (connectJ == 0)
            throw 1;
        return true;
    } catch (int reason) {
        if (reason == 1)
            PrintErrorBlock({"ERROR:REGION OBJECT METHOD",
                             "  ERROR-DETAIL:Abnormal action at Search Connecting Point Method.",
                             "  ERROR-DETAIL:Can not find Connect Point.",
                             "  ERROR-DETAIL:Particular attention should be given to \"Connect Point of Topography File\"."});
        else // no step raises another reason; its block is kept for completeness
            PrintErrorBlock({"ERROR:REGION OBJECT METHOD",
                             "  ERROR-DETAIL:Abnormal action at Search Connecting Point Method.",
                             "  ERROR-DETAIL:Particular attention should be given to \" \"."});
        return false;
    }
}
