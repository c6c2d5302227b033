#include "region/TimeSteps.hpp"

TimeStepOutcome WorkOutTimeSteps(std::map<int, Region>& topographies, double timeIncrement,
                                 double nestingCflLimit, bool echo) {
    const auto step = [echo](Region& r, double increment, double limit) {
        if (echo)
            return r.CalcDT(increment, limit) ? 0 : -1;
        return r.TimeStepFailure(increment, limit);
    };
    if (topographies.empty())
        return {};
    auto region = topographies.rbegin();
    // A limit of 0 keeps the innermost region at exactly TimeIncrement.
    if (const int reason = step(region->second, timeIncrement, 0.0))
        return {true, region->first, reason};
    int previousEpsg = region->second.epsg;
    double previousDt = region->second.dt;
    for (++region; region != topographies.rend(); ++region) {
        // A change of coordinate system between neighbours forbids the factor 3.
        const double limit = region->second.epsg == previousEpsg ? nestingCflLimit : 0.0;
        if (const int reason = step(region->second, previousDt, limit))
            return {true, region->first, reason};
        previousEpsg = region->second.epsg;
        previousDt = region->second.dt;
    }
    for (auto r = topographies.rbegin(); r != topographies.rend(); ++r) {
        Region& nested = r->second;
        if (nested.baseRegionNo == 0) {
            nested.SetStepRatio(1);
        } else {
            // A number that names no region gives an empty grid's ratio, 0.
            const auto base = topographies.find(nested.baseRegionNo);
            nested.SetStepRatio(base != topographies.end() ? base->second.timeRatio : 0);
        }
    }
    return {};
}
