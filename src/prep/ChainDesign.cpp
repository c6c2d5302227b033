#include "prep/ChainDesign.hpp"

#include "prep/CheckCommand.hpp"
#include "prep/Plan.hpp"
#include "prep/PrepError.hpp"
#include "prep/ProjectFiles.hpp"
#include "project/Console.hpp"
#include "projection/MapProjection.hpp"
#include "region/Region.hpp"
#include "region/TimeSteps.hpp"

#include <proj.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <map>
#include <memory>

namespace {

constexpr double kPi = kPlannerPi;
constexpr int kLeastCells = 100; // a side of any region
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// A spacing as the decimal a modeller reads and the project holds: mantissa × 10^exponent,
// so that multiplying by the ratio stays exact in the text the run parses.
struct Decimal {
    std::int64_t mantissa = 0;
    int exponent = 0;
    [[nodiscard]] std::string Text() const {
        std::string digits = std::to_string(mantissa);
        if (exponent >= 0)
            return digits + std::string(static_cast<std::size_t>(exponent), '0');
        const std::size_t decimals = static_cast<std::size_t>(-exponent);
        if (digits.size() <= decimals)
            digits.insert(0, decimals - digits.size() + 1, '0');
        digits.insert(digits.size() - decimals, ".");
        return digits;
    }
    [[nodiscard]] double Value() const { return std::strtod(Text().c_str(), nullptr); }
    [[nodiscard]] Decimal Times(std::int64_t factor) const { return {mantissa * factor, exponent}; }
};

// `value` to `significant` digits, to the nearest.
Decimal Rounded(double value, int significant) {
    int exponent = static_cast<int>(std::floor(std::log10(value))) - (significant - 1);
    std::int64_t m = std::llround(value / std::pow(10.0, exponent));
    if (m < 1)
        m = 1;
    return {m, exponent};
}

// The decimal the text of `value` shows, exactly.
Decimal Exact(double value) {
    const std::string text = ShortestDecimal(value);
    const std::size_t point = text.find('.');
    Decimal d;
    if (point == std::string::npos) {
        d.mantissa = std::atoll(text.c_str());
        return d;
    }
    d.mantissa = std::atoll((text.substr(0, point) + text.substr(point + 1)).c_str());
    d.exponent = -static_cast<int>(text.size() - point - 1);
    return d;
}

// Twelve significant digits: cell edges that are whole multiples of a decimal spacing
// read as that decimal, not its binary neighbour.
double Tidy(double v) { return std::strtod(StringPrintf("%.12g", v).c_str(), nullptr); }

// The run's projection service between its geographic system and one plane system.
class ServicePair {
  public:
    ServicePair(int geoEpsg, int planeEpsg) {
        SetMapProjectionNotices(false);
        if (mapproject_initialize_using_epsg_(geoEpsg, planeEpsg) == nullptr) {
            mapproject_finalize_();
            throw PrepError(StringPrintf("the run's projection service cannot set up EPSG %d",
                                         planeEpsg));
        }
    }
    ~ServicePair() { mapproject_finalize_(); }
    ServicePair(const ServicePair&) = delete;
    ServicePair& operator=(const ServicePair&) = delete;

    void ToPlane(std::vector<double>& a, std::vector<double>& b) const {
        const std::int32_t n = static_cast<std::int32_t>(a.size());
        if (ll2xy_(&n, a.data(), b.data(), a.data(), b.data()) != 0)
            throw PrepError("the run's projection service cannot convert the chain's corners");
    }
    void ToLonLat(std::vector<double>& a, std::vector<double>& b) const {
        const std::int32_t n = static_cast<std::int32_t>(a.size());
        std::vector<double> x = a;
        std::vector<double> y = b;
        if (xy2ll_(&n, a.data(), b.data(), x.data(), y.data()) != 0)
            throw PrepError("the run's projection service cannot convert the chain's corners");
    }
};

// Points along the edges of a box, 16 a side.
void EdgePoints(const Bounds& b, std::vector<double>& xs, std::vector<double>& ys) {
    xs.clear();
    ys.clear();
    constexpr int kSteps = 16;
    for (int s = 0; s <= kSteps; ++s) {
        const double f = static_cast<double>(s) / kSteps;
        const double x = b[0] + f * (b[2] - b[0]);
        const double y = b[1] + f * (b[3] - b[1]);
        xs.insert(xs.end(), {x, x, b[0], b[2]});
        ys.insert(ys.end(), {b[1], b[3], y, y});
    }
}

Bounds BoxOf(const std::vector<double>& xs, const std::vector<double>& ys) {
    Bounds out = {std::numeric_limits<double>::infinity(), std::numeric_limits<double>::infinity(),
                  -std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity()};
    for (std::size_t k = 0; k < xs.size(); ++k) {
        if (!std::isfinite(xs[k]) || !std::isfinite(ys[k]))
            throw PrepError("the run's projection service cannot convert the chain's corners");
        out = {std::min(out[0], xs[k]), std::min(out[1], ys[k]), std::max(out[2], xs[k]),
               std::max(out[3], ys[k])};
    }
    return out;
}

// A box carried from one system to another (degrees to a plane system, or back), as the
// box holding its edges; both systems are the geographic one or `zone`.
Bounds Carry(const Bounds& b, int from, int to, int zone) {
    if (IsGeographic(from) == IsGeographic(to))
        return b;
    std::vector<double> xs;
    std::vector<double> ys;
    EdgePoints(b, xs, ys);
    const ServicePair service(4612, zone);
    if (IsGeographic(from))
        service.ToPlane(xs, ys);
    else
        service.ToLonLat(xs, ys);
    return BoxOf(xs, ys);
}

// Outward to whole multiples of `unit`.
Bounds Snap(const Bounds& b, double unit) {
    const auto down = [unit](double v) {
        const double k = v / unit;
        return std::fabs(k - std::round(k)) < 1e-9 ? std::round(k) : std::floor(k);
    };
    const auto up = [unit](double v) {
        const double k = v / unit;
        return std::fabs(k - std::round(k)) < 1e-9 ? std::round(k) : std::ceil(k);
    };
    return {Tidy(down(b[0]) * unit), Tidy(down(b[1]) * unit), Tidy(up(b[2]) * unit),
            Tidy(up(b[3]) * unit)};
}

// At least kLeastCells of `spacing` a side, widened about its centre.
Bounds Widened(Bounds b, double spacing) {
    const double least = kLeastCells * spacing;
    for (int axis = 0; axis < 2; ++axis) {
        const double size = b[axis + 2] - b[axis];
        if (size < least) {
            b[axis] -= 0.5 * (least - size);
            b[axis + 2] += 0.5 * (least - size);
        }
    }
    return b;
}

Bounds Padded(const Bounds& b, double pad) { return {b[0] - pad, b[1] - pad, b[2] + pad, b[3] + pad}; }

bool Inside(const Bounds& inner, const Bounds& outer) {
    return inner[0] >= outer[0] && inner[1] >= outer[1] && inner[2] <= outer[2] &&
           inner[3] <= outer[3];
}

double Cells(const Bounds& b, double spacing) {
    return std::round((b[2] - b[0]) / spacing) * std::round((b[3] - b[1]) / spacing);
}

// The region as the run's Region holds it, for its time-step and nesting code.
Region RunRegion(const ChainRow& row) {
    XML_REGION record;
    record.RegionNo = row.number;
    record.RegionName = row.name;
    record.BaseRegionNo = row.base;
    record.EPSG = row.epsg;
    record.GridSize = row.spacing;
    Region r(TPG_R, record);
    r.Set2dStruct(row.grid.nx, row.grid.ny, row.grid.orgX, row.grid.orgY);
    r.valMin = row.lowest;
    return r;
}

// Whether the run's nesting check accepts `row` in `base` (geometry only).
bool NestingAccepts(const ChainRow& row, const ChainRow& base) {
    SetMapProjectionNotices(false);
    const Region r = RunRegion(row);
    return r.ComprisableReason(base.epsg, base.grid.orgX, base.grid.orgY, base.grid.spacing,
                               base.grid.nx, base.grid.ny) == 0;
}

Bounds LonLatOf(const ChainRow& row, int zone) {
    return Carry(CellEdges(row.grid), row.epsg, 4326, zone);
}

constexpr int kEdgeSamples = 101; // points looked at along a side

// The shallowest water along the box's boundary cells (positive metres), NaN when none
// is water, and how many of its water points lie deeper than `depth`.
struct EdgeWater {
    double shallowest = kNaN;
    int water = 0;
    int deep = 0;
    int data = 0;
};
EdgeWater WaterAlong(const Terrain& terrain, double x0, double y0, double x1, double y1,
                     double depth) {
    EdgeWater w;
    for (int s = 0; s < kEdgeSamples; ++s) {
        const double f = static_cast<double>(s) / (kEdgeSamples - 1);
        const double v = terrain.ElevationAt(x0 + f * (x1 - x0), y0 + f * (y1 - y0));
        if (!std::isfinite(v))
            continue;
        ++w.data;
        if (v < 0) {
            ++w.water;
            if (-v > depth)
                ++w.deep;
            if (!(-v >= w.shallowest))
                w.shallowest = -v;
        }
    }
    return w;
}

// The four sides of a degree box as lines through its boundary cells' centres.
EdgeWater SideWater(const Terrain& terrain, const Bounds& b, double s, int side, double depth) {
    const double h = 0.5 * s;
    switch (side) {
    case 0: return WaterAlong(terrain, b[0] + h, b[1] + h, b[0] + h, b[3] - h, depth); // west
    case 1: return WaterAlong(terrain, b[0] + h, b[1] + h, b[2] - h, b[1] + h, depth); // south
    case 2: return WaterAlong(terrain, b[2] - h, b[1] + h, b[2] - h, b[3] - h, depth); // east
    default: return WaterAlong(terrain, b[0] + h, b[3] - h, b[2] - h, b[3] - h, depth); // north
    }
}

const char* const kSideNames[] = {"western", "southern", "eastern", "northern"};

// The depth jump check measures along one side of a nested region, estimated from the
// terrain: the region's boundary points against the base's cells (each the mean of the
// ground over it) interpolated between their centres. The base's cells are taken on the
// lattice of `baseSpacing` in the region's own system. `excess` is the largest jump over
// check's threshold at that point (above 1: check would warn).
struct SideJump {
    double excess = 0;
    double jump = 0;
};
SideJump JumpAlong(const Terrain& terrain, const Bounds& box, int epsg, int zone, double s,
                   double baseSpacing, int side) {
    const double h = 0.5 * s;
    const bool vertical = side == 0 || side == 2;
    const double fixed = side == 0 ? box[0] + h : side == 2 ? box[2] - h : side == 1 ? box[1] + h : box[3] - h;
    const double from = vertical ? box[1] + h : box[0] + h;
    const double to = vertical ? box[3] - h : box[2] - h;
    const int n = static_cast<int>(std::round((to - from) / s)) + 1;
    const int stride = std::max(1, n / 200);
    constexpr int kPerPoint = 1 + 4 * 9;
    std::vector<double> xs;
    std::vector<double> ys;
    std::vector<double> weights; // bilinear weight of each base cell, per point
    const double S = baseSpacing;
    for (int k = 0; k < n; k += stride) {
        const double px = vertical ? fixed : from + k * s;
        const double py = vertical ? from + k * s : fixed;
        xs.push_back(px);
        ys.push_back(py);
        const double fx = px / S - 0.5;
        const double fy = py / S - 0.5;
        const double i0 = std::floor(fx);
        const double j0 = std::floor(fy);
        const double u = fx - i0;
        const double v = fy - j0;
        weights.insert(weights.end(), {(1 - u) * (1 - v), u * (1 - v), (1 - u) * v, u * v});
        for (int c = 0; c < 4; ++c) {
            const double cx = (i0 + (c % 2) + 0.5) * S;
            const double cy = (j0 + (c / 2) + 0.5) * S;
            for (int a = -1; a <= 1; ++a)
                for (int b = -1; b <= 1; ++b) {
                    xs.push_back(cx + a * S / 3);
                    ys.push_back(cy + b * S / 3);
                }
        }
    }
    if (!IsGeographic(epsg)) {
        const ServicePair service(4612, zone);
        service.ToLonLat(xs, ys);
    }
    const CheckOptions check; // its default threshold
    SideJump worst;
    for (std::size_t p = 0; p * kPerPoint < xs.size(); ++p) {
        const std::size_t at = p * kPerPoint;
        const double own = terrain.ElevationAt(xs[at], ys[at]);
        double base = 0;
        bool known = std::isfinite(own);
        for (int c = 0; c < 4 && known; ++c) {
            double sum = 0;
            int count = 0;
            for (int q = 0; q < 9; ++q) {
                const std::size_t k = at + 1 + static_cast<std::size_t>(c * 9 + q);
                const double v = terrain.ElevationAt(xs[k], ys[k]);
                if (std::isfinite(v)) {
                    sum += v;
                    ++count;
                }
            }
            known = count > 0;
            base += weights[p * 4 + static_cast<std::size_t>(c)] * (count > 0 ? sum / count : 0);
        }
        if (!known)
            continue;
        const double jump = std::fabs(own - base);
        const double excess = jump / std::max(check.jumpShare * std::fabs(base), check.jumpMetres);
        if (excess > worst.excess)
            worst = {excess, jump};
    }
    return worst;
}

// Each side of a nested region moved outward a base cell at a time, up to 12, until the
// jump check measures along it stays well under its threshold; where none does, the
// position with the smallest jump. Answers the largest jump left, and a warning per side
// that gave way.
double AvoidSteepEdges(const Terrain& terrain, Bounds& box, int epsg, int zone, double s,
                       double baseSpacing, const std::string& label,
                       std::vector<std::string>& warnings) {
    constexpr double kWanted = 0.8; // the estimate is rough: keep clear of the threshold
    constexpr int kMostMoves = 12;
    double largest = 0;
    for (int side = 0; side < 4; ++side) {
        Bounds best = box;
        SideJump bestJump = JumpAlong(terrain, box, epsg, zone, s, baseSpacing, side);
        Bounds trial = box;
        for (int move = 0; move < kMostMoves && bestJump.excess > kWanted; ++move) {
            const int axis = side % 2;
            if (side < 2)
                trial[axis] = Tidy(trial[axis] - baseSpacing);
            else
                trial[axis + 2] = Tidy(trial[axis + 2] + baseSpacing);
            const SideJump j = JumpAlong(terrain, trial, epsg, zone, s, baseSpacing, side);
            if (j.excess < bestJump.excess) {
                bestJump = j;
                best = trial;
            }
        }
        box = best;
        largest = std::max(largest, bestJump.jump);
        if (bestJump.excess > 1)
            warnings.push_back(StringPrintf(
                "%s: its %s edge lies on steep ground however far it moves (up to %d base "
                "cells): depths there differ from its base's by about %.0f m, more than check "
                "lets pass",
                label.c_str(), kSideNames[side], kMostMoves, bestJump.jump));
    }
    return largest;
}

std::string RegionName(int level, int levels) {
    if (level == 0)
        return "Outer";
    if (level == levels - 1)
        return "Site";
    return StringPrintf("Nest%d", level);
}

} // namespace

int JapanZone(double lon, double lat, Bounds* areaOfUse) {
    // Areas of use are boxes, and neighbouring systems' boxes overlap: of those holding the
    // point, the system whose central meridian is nearest distorts least.
    PJ_CONTEXT* ctx = proj_context_create();
    proj_log_level(ctx, PJ_LOG_NONE);
    int best = 0;
    double bestDistance = std::numeric_limits<double>::infinity();
    for (int code = 2443; code <= 2461; ++code) {
        PJ* crs = proj_create_from_database(ctx, "EPSG", std::to_string(code).c_str(),
                                            PJ_CATEGORY_CRS, 0, nullptr);
        double w = 0, s = 0, e = 0, n = 0;
        const bool known = crs != nullptr &&
                           proj_get_area_of_use(ctx, crs, &w, &s, &e, &n, nullptr) != 0;
        double meridian = kNaN;
        if (known) {
            PJ* operation = proj_crs_get_coordoperation(ctx, crs);
            const int index = operation == nullptr
                                  ? -1
                                  : proj_coordoperation_get_param_index(
                                        ctx, operation, "Longitude of natural origin");
            if (index >= 0)
                (void)proj_coordoperation_get_param(ctx, operation, index, nullptr, nullptr,
                                                    nullptr, &meridian, nullptr, nullptr,
                                                    nullptr, nullptr, nullptr, nullptr);
            proj_destroy(operation);
        }
        proj_destroy(crs);
        if (!known || lon < w || lon > e || lat < s || lat > n)
            continue;
        const double distance = std::isfinite(meridian) ? std::fabs(lon - meridian) : 1e3;
        if (distance < bestDistance) {
            bestDistance = distance;
            best = code;
            if (areaOfUse != nullptr)
                *areaOfUse = {w, s, e, n};
        }
    }
    proj_context_destroy(ctx);
    return best;
}

void WorkOutRowSteps(std::vector<ChainRow>& rows, double timeIncrement, double cflLimit) {
    std::map<int, Region> regions;
    for (const ChainRow& row : rows)
        regions.emplace(row.number, RunRegion(row));
    const TimeStepOutcome outcome = WorkOutTimeSteps(regions, timeIncrement, cflLimit, false);
    if (outcome.failed)
        throw PrepError(StringPrintf("the run cannot work out the time step of region %d "
                                     "(reason %d)",
                                     outcome.regionNo, outcome.reason));
    for (ChainRow& row : rows) {
        const Region& r = regions.at(row.number);
        row.dxMeter = r.dxMeter;
        row.dt = r.dt;
        row.stepRatio = r.stepRatio;
        row.cfl = r.cfl;
    }
}

double LargestTimeIncrement(const std::vector<ChainRow>& rows, double cflLimit) {
    // With every ratio 1 each region's CFL number is the time increment times its own
    // Courant rate, and a region's step is never below the time increment: so no larger
    // increment than the limit over the fastest rate can do.
    std::vector<ChainRow> trial = rows;
    WorkOutRowSteps(trial, 1.0, 0.0);
    double fastest = 0;
    for (const ChainRow& row : trial)
        if (std::isfinite(row.cfl))
            fastest = std::max(fastest, row.cfl);
    if (!(fastest > 0))
        return 1.0; // no water anywhere: nothing limits the step
    Decimal d = Rounded(cflLimit / fastest, 3);
    if (d.mantissa > 999) {
        d.mantissa /= 10;
        ++d.exponent;
    }
    while (d.Value() > cflLimit / fastest)
        --d.mantissa;
    for (int attempt = 0; attempt < 100000 && d.mantissa > 0; ++attempt) {
        WorkOutRowSteps(trial, d.Value(), cflLimit);
        bool holds = true;
        for (const ChainRow& row : trial)
            if (row.cfl > cflLimit)
                holds = false;
        if (holds)
            return d.Value();
        if (--d.mantissa < 100) {
            d.mantissa = 999;
            --d.exponent;
        }
    }
    throw PrepError("no time increment keeps every region's CFL number within the limit");
}

double MarginInBase(const ChainRow& row, const ChainRow& base) {
    const Bounds b = CellEdges(base.grid);
    Bounds own = CellEdges(row.grid);
    if (IsGeographic(row.epsg) != IsGeographic(base.epsg))
        own = Carry(own, row.epsg, base.epsg, IsGeographic(row.epsg) ? base.epsg : row.epsg);
    const double s = base.grid.spacing;
    return std::min({(own[0] - b[0]) / s, (own[1] - b[1]) / s, (b[2] - own[2]) / s,
                     (b[3] - own[3]) / s});
}

ChainDesign DesignChain(const ChainRules& rules, const Terrain& terrain) {
    if (rules.ratio < 2)
        throw PrepError(StringPrintf("the ratio must be 2 or more, not %d", rules.ratio));
    if (!(rules.finest >= 0.5))
        throw PrepError(StringPrintf("a finest spacing of %g m is below 0.5 m", rules.finest));
    if (rules.outerSpacing > 0 && rules.outerSpacing < rules.finest)
        throw PrepError(StringPrintf("the finest spacing %g m is coarser than the outer spacing "
                                     "%g m",
                                     rules.finest, rules.outerSpacing));
    int levels = rules.levels;
    if (levels == 0) {
        const double outer = rules.outerSpacing > 0 ? rules.outerSpacing : rules.sourceMetres;
        levels = 2;
        while (levels < 8 && rules.finest * std::pow(rules.ratio, levels - 1) < outer * 0.999)
            ++levels;
    }
    if (levels < 1 || levels > 12)
        throw PrepError(StringPrintf("a chain of %d levels cannot be made (1 to 12)", levels));

    ChainDesign design;
    Bounds zoneArea{};
    design.zone = JapanZone(rules.siteLon, rules.siteLat, &zoneArea);
    const int geographic = design.zone != 0 ? 4612 : 4326;
    if (design.zone == 0)
        design.notes.push_back("every region is geographic (EPSG 4326): outside Japan the run's "
                               "projection service converts plane systems as UTM zone 54 only");
    const double cosLat = std::cos(rules.siteLat * kPi / 180.0);
    const Decimal finestMetres = Exact(rules.finest);

    // Finest first: each region holds the one inside it with the margin to spare.
    std::vector<ChainRow> rows(static_cast<std::size_t>(levels));
    std::vector<Decimal> spacing(rows.size());
    for (int k = levels - 1; k >= 0; --k) {
        ChainRow& row = rows[static_cast<std::size_t>(k)];
        const bool finest = k == levels - 1;
        const ChainRow* child = finest ? nullptr : &rows[static_cast<std::size_t>(k + 1)];
        std::int64_t factor = 1;
        for (int n = 0; n < levels - 1 - k; ++n)
            factor *= rules.ratio;
        const auto boxIn = [&](int epsg, double s, bool outermost) {
            Bounds need;
            double pad;
            if (finest) {
                need = Carry(rules.interest, 4326, epsg, design.zone);
                pad = 10 * s;
            } else {
                need = Carry(CellEdges(child->grid), child->epsg, epsg, design.zone);
                pad = rules.margin * s;
            }
            const double unit = outermost ? s : s * rules.ratio;
            const Bounds keep = Snap(Padded(need, pad), unit);
            Bounds box = Snap(Widened(Padded(need, pad), s), unit);
            // The least size gives way to the data's end, the margin does not.
            const Bounds data = Carry(terrain.DataExtent(), 4326, epsg, design.zone);
            for (int side = 0; side < 4; ++side) {
                const bool low = side < 2;
                if (low && box[side] < data[side])
                    box[side] = std::min(Tidy(std::ceil(data[side] / unit - 1e-9) * unit), keep[side]);
                if (!low && box[side] > data[side])
                    box[side] = std::max(Tidy(std::floor(data[side] / unit + 1e-9) * unit), keep[side]);
            }
            return box;
        };
        const std::string label = StringPrintf("region %d (%s)", k + 1, RegionName(k, levels).c_str());
        std::vector<std::string> steep;
        const auto nestedBox = [&](int epsg, double s) {
            Bounds box = boxIn(epsg, s, k == 0);
            steep.clear();
            row.edgeJump = k == 0 ? kNaN
                                  : AvoidSteepEdges(terrain, box, epsg, design.zone, s,
                                                    s * rules.ratio, label, steep);
            return box;
        };
        bool placed = false;
        if (design.zone != 0 && k > 0 && (finest || !IsGeographic(child->epsg))) {
            spacing[static_cast<std::size_t>(k)] = finestMetres.Times(factor);
            const double s = spacing[static_cast<std::size_t>(k)].Value();
            const Bounds box = nestedBox(design.zone, s);
            if (Inside(Carry(box, design.zone, 4326, design.zone), zoneArea)) {
                row.epsg = design.zone;
                row.spacing = s;
                row.grid = CoverBounds(box, s);
                placed = true;
            }
        }
        if (!placed) {
            Decimal& d = spacing[static_cast<std::size_t>(k)];
            if (finest)
                d = Rounded(rules.finest / (kMetresPerDegree * cosLat), 1);
            else if (IsGeographic(child->epsg))
                d = spacing[static_cast<std::size_t>(k + 1)].Times(rules.ratio);
            else
                d = Rounded(rules.ratio * child->spacing / (kMetresPerDegree * cosLat), 2);
            row.epsg = geographic;
            row.spacing = d.Value();
            row.grid = CoverBounds(nestedBox(geographic, row.spacing), row.spacing);
            // Across systems the run looks for the corners among the base's points: widen
            // until its own check finds them all.
            for (int grow = 0; child != nullptr && !IsGeographic(child->epsg) && grow < 50 &&
                               !NestingAccepts(*child, row);
                 ++grow) {
                Bounds b = CellEdges(row.grid);
                b = Padded(b, row.spacing * (k == 0 ? 1 : rules.ratio));
                row.grid = CoverBounds(b, row.spacing);
            }
        }
        design.warnings.insert(design.warnings.end(), steep.begin(), steep.end());
        row.number = k + 1;
        row.base = k;
        row.name = RegionName(k, levels);
    }

    const auto totalCells = [&] {
        double cells = 0;
        for (const ChainRow& row : rows)
            cells += double(row.grid.nx) * row.grid.ny;
        return cells;
    };
    if (totalCells() > rules.maxCells)
        throw PrepError(StringPrintf("the chain needs %.0f cells, more than --max-cells %.0f: "
                                     "ask for a coarser --finest, a smaller area or more --levels",
                                     totalCells(), rules.maxCells));

    // The outer region reaches deep water on every side where the data and the cell budget
    // allow: a side is far enough once most of its water lies deeper than outerDepth.
    ChainRow& outer = rows.front();
    const double s = outer.spacing;
    const Bounds data = terrain.DataExtent();
    Bounds box = CellEdges(outer.grid);
    // It holds every fault outline, with the margin, as far as the data reach.
    for (const auto& [name, fault] : rules.faults) {
        const Bounds wanted = Padded(fault, rules.margin * s);
        const Bounds held = {std::max(wanted[0], data[0]), std::max(wanted[1], data[1]),
                             std::min(wanted[2], data[2]), std::min(wanted[3], data[3])};
        const Bounds grown = Snap({std::min(box[0], held[0]), std::min(box[1], held[1]),
                                   std::max(box[2], held[2]), std::max(box[3], held[3])},
                                  s);
        // Whole cells inside the data where the fault pushed past them.
        for (int side = 0; side < 4; ++side) {
            const bool low = side < 2;
            double& edge = box[side];
            if (grown[side] == edge)
                continue;
            edge = grown[side];
            if (low ? edge < data[side] : edge > data[side])
                edge = Tidy((low ? std::ceil(data[side] / s - 1e-9) : std::floor(data[side] / s + 1e-9)) * s);
        }
        const double beyond = std::max({data[0] - fault[0], data[1] - fault[1],
                                        fault[2] - data[2], fault[3] - data[3]});
        if (beyond > 0)
            design.warnings.push_back(StringPrintf(
                "region 1 (Outer): the fault segment %s reaches %.1f km beyond the elevation "
                "data, so the outer region stops at the data and does not hold all of it",
                name.c_str(), beyond * kMetresPerDegree * cosLat / 1000));
    }
    if (totalCells() - double(outer.grid.nx) * outer.grid.ny + Cells(box, s) > rules.maxCells)
        throw PrepError("holding every fault outline takes the chain past --max-cells; give a "
                        "coarser --outer-spacing or more --levels");
    bool stopped[4] = {false, false, false, false};
    const char* why[4] = {"", "", "", ""};
    for (int round = 0; round < 200; ++round) {
        bool moved = false;
        for (int side = 0; side < 4; ++side) {
            if (stopped[side])
                continue;
            const EdgeWater w = SideWater(terrain, box, s, side, rules.outerDepth);
            if (w.water == 0 || 2 * w.deep >= w.water)
                continue;
            if (w.data < kEdgeSamples) { // a side partly past the data goes no further
                stopped[side] = true;
                why[side] = "the data end there";
                continue;
            }
            const bool low = side < 2;
            const int axis = side % 2;
            if (low ? box[axis] <= data[axis] : box[axis + 2] >= data[axis + 2]) {
                stopped[side] = true;
                why[side] = "the data end there";
                continue;
            }
            const double size = box[axis + 2] - box[axis];
            const double step = std::max(1.0, std::round(0.1 * size / s)) * s;
            Bounds next = box;
            // Never past the data's last whole cell.
            if (low)
                next[axis] = std::max(Tidy(next[axis] - step),
                                      Tidy(std::ceil(data[axis] / s - 1e-9) * s));
            else
                next[axis + 2] = std::min(Tidy(next[axis + 2] + step),
                                          Tidy(std::floor(data[axis + 2] / s + 1e-9) * s));
            if (next == box) {
                stopped[side] = true;
                why[side] = "the data end there";
                continue;
            }
            if (totalCells() - Cells(box, s) + Cells(next, s) > rules.maxCells) {
                stopped[side] = true;
                why[side] = "the cell budget (--max-cells) ends there";
                continue;
            }
            box = next;
            moved = true;
        }
        if (!moved)
            break;
    }
    outer.grid = CoverBounds(box, s);
    for (int side = 0; side < 4; ++side) {
        const EdgeWater w = SideWater(terrain, box, s, side, rules.outerDepth);
        if (w.water > 0 && 2 * w.deep < w.water)
            design.warnings.push_back(StringPrintf(
                "region 1 (Outer): its %s boundary reaches water only %.0f m deep at its "
                "shallowest, most of it shallower than %g m: %s",
                kSideNames[side], w.shallowest, rules.outerDepth,
                stopped[side] ? why[side] : "it stopped growing"));
    }

    for (std::size_t k = 0; k < rows.size(); ++k) {
        ChainRow& row = rows[k];
        const Bounds lonLat = LonLatOf(row, design.zone);
        row.lowest = terrain.LowestIn(lonLat);
        double shallowest = kNaN;
        for (int side = 0; side < 4; ++side) {
            const double h = 0.5 * (IsGeographic(row.epsg) ? row.spacing : row.spacing / kMetresPerDegree);
            const EdgeWater w = SideWater(terrain, lonLat, 2 * h, side, rules.outerDepth);
            if (std::isfinite(w.shallowest))
                shallowest = std::isnan(shallowest) ? w.shallowest : std::min(shallowest, w.shallowest);
        }
        row.shallowestEdge = shallowest;
        row.marginCells = k == 0 ? kNaN : MarginInBase(row, rows[k - 1]);
        if (!std::isfinite(row.lowest))
            throw PrepError(StringPrintf("region %d (%s) lies where the coarsest source holds "
                                         "no data",
                                         row.number, row.name.c_str()));
    }
    for (const ChainRow& row : rows)
        if (row.grid.nx < kLeastCells || row.grid.ny < kLeastCells)
            design.warnings.push_back(StringPrintf(
                "region %d (%s): %d x %d cells, fewer than %d a side: the data end there",
                row.number, row.name.c_str(), row.grid.nx, row.grid.ny, kLeastCells));
    design.timeIncrement = LargestTimeIncrement(rows, rules.cfl);
    WorkOutRowSteps(rows, design.timeIncrement, rules.cfl);
    design.rows = std::move(rows);
    return design;
}

std::string ChainTable(const std::vector<ChainRow>& rows) {
    std::string out = StringPrintf(
        "%3s  %-8s %5s  %-12s %10s  %11s  %-46s %9s %8s %5s %6s %9s %7s %8s\n", "no", "name",
        "EPSG", "spacing", "metres", "points", "extent (cell edges, own system)", "deepest",
        "dt [s]", "ratio", "CFL", "edge min", "margin", "jump");
    for (const ChainRow& r : rows) {
        const Bounds e = CellEdges(r.grid);
        const int digits = IsGeographic(r.epsg) ? 6 : 0;
        out += StringPrintf(
            "%3d  %-8s %5d  %-12s %10.1f  %5d x %-5d  %-46s %9.1f %8.4g %5d %6.3f %9s %7s %8s\n",
            r.number, r.name.c_str(), r.epsg, ShortestDecimal(r.spacing).c_str(),
            double{r.dxMeter}, r.grid.nx, r.grid.ny,
            StringPrintf("%.*f .. %.*f, %.*f .. %.*f", digits, e[0], digits, e[2], digits, e[1],
                         digits, e[3])
                .c_str(),
            -r.lowest, r.dt, r.stepRatio, r.cfl,
            std::isnan(r.shallowestEdge) ? "land" : StringPrintf("%.1f m", r.shallowestEdge).c_str(),
            std::isnan(r.marginCells) ? "-" : StringPrintf("%.1f", r.marginCells).c_str(),
            std::isnan(r.edgeJump) ? "-" : StringPrintf("%.1f m", r.edgeJump).c_str());
    }
    return out;
}
