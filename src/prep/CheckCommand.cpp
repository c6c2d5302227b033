#include "prep/CheckCommand.hpp"

#include "gis/GeoTiff.hpp"
#include "inputs/ConstLineParam.hpp"
#include "inputs/DynamicParam.hpp"
#include "inputs/Fault.hpp"
#include "inputs/Station.hpp"
#include "prep/CheckFindings.hpp"
#include "prep/PrepError.hpp"
#include "prep/ProjectFiles.hpp"
#include "project/Console.hpp"
#include "projection/MapProjection.hpp"
#include "region/TimeSteps.hpp"

#include <cpl_error.h>
#include <ogr_spatialref.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

constexpr const char* kCornerNames[] = {"south-west", "south-east", "north-east", "north-west"};


std::string Trimmed(const char* detail) {
    std::string text = detail;
    const std::string prefix = "  ERROR-DETAIL:";
    return text.rfind(prefix, 0) == 0 ? text.substr(prefix.size()) : text;
}

struct TransformDeleter {
    void operator()(OGRCoordinateTransformation* c) const { OGRCoordinateTransformation::DestroyCT(c); }
};

// The cell-edge box in degrees, its edges followed point by point.
std::optional<std::array<double, 4>> LonLatExtent(const Region& r) {
    const CellExtent e = CellExtentOf(r.org_x, r.org_y, r.gridSize, r.nx, r.ny);
    if (IsGeographic(r.epsg))
        return std::array<double, 4>{e.minX, e.minY, e.maxX, e.maxY};
    CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
    OGRSpatialReference plane;
    OGRSpatialReference lonLat;
    if (plane.importFromEPSG(r.epsg) != OGRERR_NONE || lonLat.importFromEPSG(4326) != OGRERR_NONE)
        return std::nullopt;
    plane.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
    lonLat.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
    std::unique_ptr<OGRCoordinateTransformation, TransformDeleter> toLonLat(
        OGRCreateCoordinateTransformation(&plane, &lonLat));
    if (!toLonLat)
        return std::nullopt;
    std::vector<double> xs;
    std::vector<double> ys;
    for (int s = 0; s <= 32; ++s) {
        const double f = s / 32.0;
        const double x = e.minX + f * (e.maxX - e.minX);
        const double y = e.minY + f * (e.maxY - e.minY);
        xs.insert(xs.end(), {x, x, e.minX, e.maxX});
        ys.insert(ys.end(), {e.minY, e.maxY, y, y});
    }
    if (!toLonLat->Transform(xs.size(), xs.data(), ys.data()))
        return std::nullopt;
    return std::array<double, 4>{*std::min_element(xs.begin(), xs.end()),
                                 *std::min_element(ys.begin(), ys.end()),
                                 *std::max_element(xs.begin(), xs.end()),
                                 *std::max_element(ys.begin(), ys.end())};
}

// The base grid's value at (x, y) in its own system, bilinear between its points; none
// outside them.
std::optional<double> BaseValueAt(const Region& base, double x, double y) {
    const double fx = (x - base.org_x) / base.gridSize;
    const double fy = (y - base.org_y) / base.gridSize;
    if (!(fx >= 0 && fy >= 0 && fx <= base.nx - 1 && fy <= base.ny - 1))
        return std::nullopt;
    const int i = std::min(static_cast<int>(fx), std::max(base.nx - 2, 0));
    const int j = std::min(static_cast<int>(fy), std::max(base.ny - 2, 0));
    const int i1 = std::min(i + 1, base.nx - 1);
    const int j1 = std::min(j + 1, base.ny - 1);
    const double u = fx - i;
    const double v = fy - j;
    return (1 - u) * (1 - v) * base.grid(i, j) + u * (1 - v) * base.grid(i1, j) +
           (1 - u) * v * base.grid(i, j1) + u * v * base.grid(i1, j1);
}

// Values that are no depth: NaN and infinity (errors of the source), and the markers that
// tools write where they know nothing.
void CheckValues(Report& report, const RegionReport& r, const std::string& label) {
    const Region& t = *r.topography;
    const double* v = t.grid.Data();
    const std::size_t n = t.grid.ValueCount();
    std::size_t notFinite = 0;
    std::size_t firstBad = n;
    std::map<double, std::size_t> markers; // -9999, -32768, |v| >= 1e20
    std::size_t atMin = 0;
    double low = std::numeric_limits<double>::infinity(); // over the cells that are depths
    double high = -low;
    for (std::size_t c = 0; c < n; ++c) {
        if (!std::isfinite(v[c])) {
            if (notFinite++ == 0)
                firstBad = c;
        } else if (v[c] == -9999.0 || v[c] == -32768.0 || std::fabs(v[c]) >= 1e20) {
            ++markers[v[c]];
        } else {
            low = std::min(low, v[c]);
            high = std::max(high, v[c]);
        }
        atMin += v[c] == t.valMin;
    }
    const auto at = [&](std::size_t c) {
        const int i = static_cast<int>(c % static_cast<std::size_t>(t.nx));
        const int j = static_cast<int>(c / static_cast<std::size_t>(t.nx));
        return StringPrintf("cell (%d, %d) at (%.10g, %.10g)", i + 1, j + 1,
                            t.org_x + i * t.gridSize, t.org_y + j * t.gridSize);
    };
    if (notFinite > 0)
        report.Add(Level::Warning, r.record.RegionNo,
                   StringPrintf("%s: %zu cells of %s hold NaN or infinity, the first %s",
                                label.c_str(), notFinite, t.inFileName.c_str(), at(firstBad).c_str()));
    for (const auto& [value, count] : markers)
        report.Add(Level::Warning, r.record.RegionNo,
                   StringPrintf("%s: %zu cells of %s hold %.10g, a nodata marker read as a "
                                "real depth",
                                label.c_str(), count, t.inFileName.c_str(), value));
    // A quarter of the grid at one deepest whole number of a kilometre or more is a fill
    // (-999, -99999, ...), not a sea floor.
    const bool filled = markers.empty() && n > 16 && t.valMin <= -999 &&
                        t.valMin == std::trunc(t.valMin) && t.valMin != t.valMax && atMin * 4 > n;
    if (filled)
        report.Add(Level::Warning, r.record.RegionNo,
                   StringPrintf("%s: %.0f %% of %s holds its deepest value %.10g, which looks "
                                "like a nodata marker",
                                label.c_str(), 100.0 * static_cast<double>(atMin) / static_cast<double>(n),
                                t.inFileName.c_str(), t.valMin));
    if (notFinite > 0 || !markers.empty() || filled || n == 0)
        return;
    if (n > 1 && low == high) {
        report.Add(Level::Warning, r.record.RegionNo,
                   StringPrintf("%s: every one of its %zu cells holds %.10g; a grid of one value "
                                "is no topography (a source without data there, or a fill): "
                                "remake it from a source that covers the region",
                                label.c_str(), n, low));
        return;
    }
    // Deeper than the deepest trench, higher than the highest peak: a source in feet (3.28
    // times the metres) read as metres gives this.
    constexpr double kDeepest = -11000;
    constexpr double kHighest = 9000;
    if (low < kDeepest || high > kHighest)
        report.Add(Level::Warning, r.record.RegionNo,
                   StringPrintf("%s: its values reach %.10g m, %s; a source in feet read as "
                                "metres gives this: remake the grid with `seaforge-prep grid "
                                "--z-scale 0.3048` (or the factor of the source's unit)",
                                label.c_str(), low < kDeepest ? low : high,
                                low < kDeepest ? "deeper than any sea (11000 m)"
                                               : "higher than any land (9000 m)"));
}

// A nested region against its base: the run's nesting check, the alignment of cells in one
// system or the corner margins across systems, and the depths along its boundary.
void CheckNesting(Report& report, RegionReport& r, RegionReport& base, const CheckOptions& o) {
    const Region& own = *r.topography;
    const Region& b = *base.topography;
    const std::string label = RegionLabel(r.record);
    const std::string baseLabel = RegionLabel(base.record);
    const bool across = own.epsg != b.epsg;
    // Across systems the run's check reads the base's numbers as degrees and converts them
    // into the nested region's plane system; a pair it cannot read so is checked as it
    // reads it, and whether it is accepted is the run's own answer.
    std::string misread;
    if (across && (!IsGeographic(b.epsg) || !IsServicePlaneEpsg(own.epsg))) {
        std::vector<std::string> how;
        if (!IsGeographic(b.epsg))
            how.push_back(StringPrintf("%s's numbers as longitude and latitude on WGS 84",
                                       baseLabel.c_str()));
        if (!IsServicePlaneEpsg(own.epsg))
            how.push_back(StringPrintf("%s's as UTM zone 54 (EPSG 3100)", label.c_str()));
        misread = how[0] + (how.size() > 1 ? " and " + how[1] : std::string());
    }
    const int reason =
        own.ComprisableReason(b.epsg, b.org_x, b.org_y, b.gridSize, b.nx, b.ny);
    if (reason == 0 && !misread.empty())
        report.Add(Level::Warning, r.record.RegionNo,
                   StringPrintf("%s (EPSG %d) in %s (EPSG %d): the run's nesting check accepts "
                                "it, reading %s; its projection service knows only longitude "
                                "and latitude (4326, 4612) around the JGD2000 plane systems "
                                "(2443-2461, 3097-3101)",
                                label.c_str(), own.epsg, baseLabel.c_str(), b.epsg,
                                misread.c_str()));
    if (reason != 0) {
        const CellExtent oe = CellExtentOf(own.org_x, own.org_y, own.gridSize, own.nx, own.ny);
        const CellExtent be = CellExtentOf(b.org_x, b.org_y, b.gridSize, b.nx, b.ny);
        const char* side[] = {"", "western", "southern", "eastern", "northern"};
        const double ownEdge[] = {0, oe.minX, oe.minY, oe.maxX, oe.maxY};
        const double baseEdge[] = {0, be.minX, be.minY, be.maxX, be.maxY};
        report.Add(Level::Error, r.record.RegionNo,
                   reason <= 4
                       ? StringPrintf("%s does not lie inside %s: its %s cell edge %.10g lies "
                                      "beyond the base's %.10g",
                                      label.c_str(), baseLabel.c_str(), side[reason],
                                      ownEdge[reason], baseEdge[reason]) + RunStops(11)
                       : StringPrintf("%s: the run's check across systems does not find every "
                                      "corner among %s's grid points%s",
                                      label.c_str(), baseLabel.c_str(),
                                      misread.empty() ? ""
                                                      : (", reading " + misread).c_str()) +
                             OtherZonesAccepted(own, b) + RunStops(11));
    }

    if (!across) {
        const double ratio = b.gridSize / own.gridSize;
        const double offset = (own.org_x - 0.5 * own.gridSize - (b.org_x - 0.5 * b.gridSize)) / b.gridSize;
        const double offsetY = (own.org_y - 0.5 * own.gridSize - (b.org_y - 0.5 * b.gridSize)) / b.gridSize;
        const auto whole = [](double v) { return std::fabs(v - std::round(v)) <= 1e-6 * std::max(1.0, std::fabs(v)); };
        if (!whole(ratio) || ratio < 1)
            report.Add(Level::Warning, r.record.RegionNo,
                       StringPrintf("%s: its spacing %.10g does not divide %s's spacing %.10g "
                                    "(ratio %.6g)",
                                    label.c_str(), own.gridSize, baseLabel.c_str(), b.gridSize, ratio));
        else if (!whole(offset) || !whole(offsetY))
            report.Add(Level::Warning, r.record.RegionNo,
                       StringPrintf("%s: its cell edges do not fall on %s's cell edges (its "
                                    "south-west edge is %.6g, %.6g base cells from the base's)",
                                    label.c_str(), baseLabel.c_str(), offset, offsetY));
    }

    // Boundary points of the nested grid, and the same carried into the base's system.
    std::vector<double> ownX;
    std::vector<double> ownY;
    std::vector<double> ownValue;
    const auto add = [&](int i, int j) {
        ownX.push_back(own.org_x + i * own.gridSize);
        ownY.push_back(own.org_y + j * own.gridSize);
        ownValue.push_back(own.grid(i, j));
    };
    for (int i = 0; i < own.nx; ++i) {
        add(i, 0);
        if (own.ny > 1)
            add(i, own.ny - 1);
    }
    for (int j = 1; j + 1 < own.ny; ++j) {
        add(0, j);
        if (own.nx > 1)
            add(own.nx - 1, j);
    }
    std::vector<double> baseX = ownX;
    std::vector<double> baseY = ownY;
    if (across) {
        if (!IsGeographic(b.epsg) || !IsServicePlaneEpsg(own.epsg))
            return;
        const CellExtent oe = CellExtentOf(own.org_x, own.org_y, own.gridSize, own.nx, own.ny);
        const double cx[4] = {oe.minX, oe.maxX, oe.maxX, oe.minX};
        const double cy[4] = {oe.minY, oe.minY, oe.maxY, oe.maxY};
        double cornerLon[4];
        double cornerLat[4];
        const std::int32_t n = static_cast<std::int32_t>(ownX.size());
        const std::int32_t four = 4;
        const bool converted =
            mapproject_initialize_using_epsg_(b.epsg, own.epsg) != nullptr &&
            xy2ll_(&n, baseX.data(), baseY.data(), ownX.data(), ownY.data()) == 0 &&
            xy2ll_(&four, cornerLon, cornerLat, cx, cy) == 0;
        mapproject_finalize_();
        if (!converted)
            return;
        // How far each corner is from the limits of the run's search, in base cells: it
        // looks between base points a column inside the west and two inside the east, and
        // a row inside the south and the north.
        for (int c = 0; c < 4; ++c) {
            const double fx = (cornerLon[c] - b.org_x) / b.gridSize;
            const double fy = (cornerLat[c] - b.org_y) / b.gridSize;
            r.cornerMargins.push_back(std::min({fx, (b.nx - 2) - fx, fy, (b.ny - 1) - fy}));
        }
    }
    double worst = -1;
    double sum = 0;
    std::size_t compared = 0;
    std::size_t beyond = 0;
    std::size_t worstAt = 0;
    for (std::size_t k = 0; k < ownX.size(); ++k) {
        const std::optional<double> baseValue = BaseValueAt(b, baseX[k], baseY[k]);
        if (!baseValue || !std::isfinite(ownValue[k]) || !std::isfinite(*baseValue))
            continue;
        const double jump = std::fabs(ownValue[k] - *baseValue);
        sum += jump;
        ++compared;
        if (jump > std::max(o.jumpShare * std::fabs(*baseValue), o.jumpMetres))
            ++beyond;
        if (jump > worst) {
            worst = jump;
            worstAt = k;
        }
    }
    if (compared == 0)
        return;
    r.jumpMax = worst;
    r.jumpMean = sum / static_cast<double>(compared);
    if (beyond > 0)
        report.Add(Level::Warning, r.record.RegionNo,
                   StringPrintf("%s: along its boundary %zu of %zu points differ from %s's depths "
                                "by more than %g %% of the depth or %g m; the largest, %.4g m, at "
                                "(%.10g, %.10g); the mean %.4g m",
                                label.c_str(), beyond, compared, baseLabel.c_str(),
                                o.jumpShare * 100, o.jumpMetres, worst, ownX[worstAt],
                                ownY[worstAt], r.jumpMean));
}

// Sea cells the run's land map cuts off from open water: below the tide, yet marked as
// land because no water path joins them to the region's outer ring.
void CheckLandMap(Report& report, const RegionReport& r, int tideLevel) {
    const Region& t = *r.topography;
    Region land(LSM_R, r.record);
    land.Set2dStruct(t.nx, t.ny, t.org_x, t.org_y);
    Grid2d<std::int32_t, 2> open;
    open.Assign(t.nx, t.ny, 0);
    if (!land.MakeLandMap(t.grid, open, open, tideLevel) || !land.HasCodes())
        return;
    std::size_t cut = 0;
    std::size_t first = 0;
    std::size_t sea = 0;
    std::size_t openEdge = 0; // sea cells on the outer ring
    const double* depth = t.grid.Data();
    const std::uint8_t* map = land.codeGrid.Data();
    for (std::size_t c = 0, n = t.grid.ValueCount(); c < n; ++c) {
        if (!IsBelowTide(depth[c], tideLevel))
            continue;
        ++sea;
        const int i = static_cast<int>(c % static_cast<std::size_t>(t.nx));
        const int j = static_cast<int>(c / static_cast<std::size_t>(t.nx));
        openEdge += i == 0 || j == 0 || i == t.nx - 1 || j == t.ny - 1;
        if (land.codeValues[map[c]] == 1.0 && cut++ == 0)
            first = c;
    }
    if (cut == 0)
        return;
    // An outermost region's open boundary is the ocean: sea that does not reach it, or
    // mostly does not, is what depths read as heights give (the sea floor becomes hills
    // and the land a basin).
    if (r.record.BaseRegionNo == 0 && cut * 2 > sea) {
        const std::string sign =
            openEdge == 0 ? StringPrintf("its sea does not reach its open boundary: all %zu "
                                         "cells below the tide level are cut off from it",
                                         sea)
                          : StringPrintf("%zu of its %zu cells below the tide level are cut off "
                                         "from its open boundary",
                                         cut, sea);
        report.Add(Level::Warning, r.record.RegionNo,
                   StringPrintf("%s: %s and become land in the run's land map. The topography "
                                "looks upside down, depths read as heights: if the source "
                                "holds depths positive down, remake the grid with "
                                "`seaforge-prep grid --depth-positive`",
                                RegionLabel(r.record).c_str(), sign.c_str()));
        return;
    }
    const int i = static_cast<int>(first % static_cast<std::size_t>(t.nx));
    const int j = static_cast<int>(first / static_cast<std::size_t>(t.nx));
    report.Add(Level::Warning, r.record.RegionNo,
               StringPrintf("%s: %zu sea cell%s cut off from open water and become%s land in "
                            "the run's land map, the first at cell (%d, %d) (%.10g, %.10g)",
                            RegionLabel(r.record).c_str(), cut, cut == 1 ? " is" : "s are",
                            cut == 1 ? "s" : "", i + 1, j + 1,
                            t.org_x + i * t.gridSize, t.org_y + j * t.gridSize));
}

// Station and coastal point lists: what the run cannot read, points it drops because no
// region of their system holds them, points whose cell is land, and lists that write one
// shapefile name.
void CheckPointLists(Report& report, const std::vector<XML_STATION>& lists, bool coastal,
                     int tideLevel) {
    const char* what = coastal ? "coastal point" : "station";
    const int code = coastal ? 17 : 7;
    std::map<int, std::string> shapefileOwner;
    for (const XML_STATION& rec : lists) {
        const auto [previous, fresh] = shapefileOwner.emplace(rec.EPSG, rec.FileName);
        if (!fresh)
            report.Add(Level::Warning, 0,
                       StringPrintf("the %s lists %s and %s are both in EPSG %d, so both write %s; "
                                    "the run keeps only the last",
                                    what, previous->second.c_str(), rec.FileName.c_str(), rec.EPSG,
                                    StringPrintf(coastal ? "ExtractPoint_%04d.shp" : "Station_%04d.shp",
                                                 rec.EPSG).c_str()));
        Station list(rec);
        const int cause = list.LoadFile();
        if (cause < 0) {
            report.Add(Level::Warning, 0,
                       StringPrintf("cannot open the %s list %s: the run warns and goes on without "
                                    "its points",
                                    what, rec.FileName.c_str()));
            continue;
        }
        if (cause > 0) {
            report.Add(Level::Error, 0,
                       StringPrintf("the %s list %s %s", what, rec.FileName.c_str(),
                                    cause == 2 ? "has a line with fewer than three fields"
                                               : "cannot be read") + RunStops(code));
            continue;
        }
        // A region of the list's system without its grid may hold any of its points:
        // nothing is said of them then, its missing grid is the finding.
        bool allRead = true;
        for (const RegionReport& r : report.regions)
            allRead = allRead && (r.topography || r.record.EPSG != rec.EPSG);
        if (!allRead)
            continue;
        for (const PosXY& point : list.points) {
            bool held = false;
            // The cell the run takes the point's water from: a station's in the
            // highest-numbered region holding it, a coastal point's in the highest-numbered
            // region of its system, if that holds it.
            const RegionReport* cellRegion = nullptr;
            PosIJ cell;
            for (RegionReport& r : report.regions) {
                if (!r.topography || r.topography->epsg != rec.EPSG)
                    continue;
                // The run's own fitting decides; what it adds is taken back at once.
                std::vector<PosIJ>& fitted =
                    coastal ? r.topography->extractPoints : r.topography->stationPoints;
                const std::size_t before = fitted.size();
                r.topography->FitPointToRegion(point.x, point.y, point.name,
                                               coastal ? EXTRACT_POINT : STATION_POINT);
                const bool here = fitted.size() > before;
                held = held || here;
                if (here) {
                    cellRegion = &r;
                    cell = fitted.back();
                } else if (coastal) {
                    cellRegion = nullptr;
                }
                fitted.resize(before);
            }
            if (!held) {
                report.Add(Level::Warning, 0,
                           StringPrintf("%s %s (%.10g, %.10g) of %s lies outside every region of "
                                        "EPSG %d: the run drops it",
                                        what, point.name.c_str(), point.x, point.y,
                                        rec.FileName.c_str(), rec.EPSG));
                continue;
            }
            if (cellRegion == nullptr)
                continue;
            const double elevation = cellRegion->topography->grid(cell.i, cell.j);
            if (std::isfinite(elevation) && !IsBelowTide(elevation, tideLevel))
                report.Add(Level::Warning, cellRegion->record.RegionNo,
                           StringPrintf("%s %s (%.10g, %.10g) of %s lies on land: its cell (%d, "
                                        "%d) in %s holds %.6g m, above the tide level (%g m); "
                                        "move it onto a sea cell, or check its coordinates",
                                        what, point.name.c_str(), point.x, point.y,
                                        rec.FileName.c_str(), cell.i + 1, cell.j + 1,
                                        RegionLabel(cellRegion->record).c_str(), elevation,
                                        tideLevel * 0.01));
        }
    }
}

// The run's memory and output, from the grids it makes: every topography lives to the end,
// one region's other grids at a time; the output is the binary grids and pictures it writes.
void Estimate(Report& report, const QuorXmlParameter& project) {
    double output = 0;
    std::vector<RunRegionSize> sizes;
    const XML_GEOTIFFSETTING& pictures = project.GeotiffSetting;
    for (const RegionReport& r : report.regions) {
        if (!r.topography)
            continue;
        const double cells = static_cast<double>(r.topography->nx) * r.topography->ny;
        const bool lines = !r.record.ConstructionLineData.FileName.empty();
        sizes.push_back({cells, lines});
        const double bin = 28 + 4 * cells;
        output += r.record.RoughnessCoefficient.FileName.empty() ? bin : 0;
        output += r.record.LandMap.FileName.empty() ? bin : 0;
        output += lines ? 2 * (28 + 8 * cells) : 0;
        const int drawn = !pictures.TopographyColorTable.empty() +
                          !pictures.RoughnessColorTable.empty() +
                          (pictures.WaveHeightColorTable.empty() ? 0 : (lines ? 4 : 2));
        output += drawn * cells; // one byte a cell before compression
    }
    report.peakBytes = EstimatedPeakBytes(sizes);
    report.outputBytes = output;
}

// A side file the run reads before any region: `cause` is its reader's answer (0 read, 2
// a line of the wrong form, anything else unreadable); the run stops with `code`.
void ReportSideFile(Report& report, int cause, const char* what, const std::string& file,
                    const char* badForm, int code) {
    if (cause != 0)
        report.Add(Level::Error, 0,
                   StringPrintf("the %s %s %s", what, file.c_str(),
                                cause == 2 ? badForm : "cannot be read") +
                       RunStops(code));
}

} // namespace

Report CheckProject(const CheckOptions& o) {
    Report report;
    report.project = o.project;
    QuorXmlParameter project("");
    try {
        project = ReadProject(o.project);
    } catch (const PrepError& e) {
        report.Add(Level::Error, 0, std::string(e.what()));
        return report;
    }
    const int rule = project.checkXMLRule();
    if (rule != 0)
        report.Add(Level::Error, 0,
                   "the project is incomplete: " + Trimmed(QuorXmlParameter::checkXMLDetail(rule)) +
                       RunStops(1));
    const std::optional<int> invalidRegion = CheckRegionElements(report, project, rule);

    for (const XML_FAULT& rec : project.Faults) {
        Fault fault(rec);
        ReportSideFile(report, fault.LoadFile(), "fault model file", rec.FileName,
                       "has a malformed line", 2);
    }

    // The deformation stages and construction-line parameters the run reads next.
    if (!project.Dynamic.FileName.empty()) {
        DynamicParam dynamic(project.Dynamic);
        ReportSideFile(report, dynamic.LoadFile(0.0), "dynamic deformation parameter file",
                       project.Dynamic.FileName, "has a line with fewer than three fields", 18);
    }
    if (!project.ConstLine.FileName.empty()) {
        ConstLineParam constLine(project.ConstLine);
        ReportSideFile(report, constLine.LoadFile(), "construction-line parameter file",
                       project.ConstLine.FileName, "has a line with fewer than four fields", 19);
    }

    // The colour tables the run draws its pictures with.
    const XML_GEOTIFFSETTING& pictures = project.GeotiffSetting;
    for (const std::string& table : {pictures.TopographyColorTable, pictures.RoughnessColorTable,
                                     pictures.WaveHeightColorTable}) {
        GeoTiff reader;
        ReportSideFile(report, table.empty() ? 0 : reader.loadColorTable(table),
                       "colour table file", table, "holds more than 256 classes", 8);
    }

    const int tide = TideLevelOf(project.TideWaterLevel);
    for (const auto& [regionNo, rec] : project.Regions) {
        RegionReport r;
        r.record = rec;
        const std::string label = RegionLabel(rec);
        std::error_code error;
        if ((invalidRegion && *invalidRegion == regionNo) || rec.Topography.FileName.empty()) {
            // Its record is what is wrong (the run's validation says so); what its grid
            // would give follows from that.
            report.regions.push_back(std::move(r));
            continue;
        }
        if (!std::filesystem::exists(rec.Topography.FileName, error) && !error) {
            report.Add(Level::Error, regionNo,
                       StringPrintf("%s has no grid yet: %s does not exist; make it with "
                                    "`seaforge-prep grid %s --region %d --bounds XMIN YMIN XMAX "
                                    "YMAX SOURCE...`",
                                    label.c_str(), rec.Topography.FileName.c_str(),
                                    o.project.c_str(), regionNo) +
                           RunStops(3));
            report.regions.push_back(std::move(r));
            continue;
        }
        std::string why;
        Region topography = ReadRegionGrid(TPG_R, rec, why);
        if (!why.empty()) {
            report.Add(Level::Error, regionNo, label + ": " + why + RunStops(3));
        } else {
            r.topography = std::move(topography);
            r.lonLat = LonLatExtent(*r.topography);
        }
        report.regions.push_back(std::move(r));
    }

    for (RegionReport& r : report.regions) {
        if (!r.topography)
            continue;
        const XML_REGION& rec = r.record;
        const std::string label = RegionLabel(rec);
        std::string why;
        CheckSystem(report, r);
        CheckFileSpacing(report, r);
        CheckValues(report, r, label);
        if (rec.BaseRegionNo > 0) {
            RegionReport* base = report.Find(rec.BaseRegionNo);
            if (base == nullptr)
                report.Add(Level::Error, rec.RegionNo,
                           StringPrintf("%s names base region %d, which the project lacks",
                                        label.c_str(), rec.BaseRegionNo) + RunStops(11));
            else if (base->topography)
                CheckNesting(report, r, *base, o);
        }
        // The other grids the run reads must lie on the topography's points.
        struct Side {
            RType kind;
            const std::string& file;
            int code;
            const char* name;
        };
        const Side sides[] = {
            {RCF_R, rec.RoughnessCoefficient.FileName, 14, "roughness"},
            {CLD_R, rec.ConstructionLineData.FileName, 23, "construction-line"},
            {LSM_R, rec.LandMap.FileName, 21, "land map"},
            {IWH_R, project.Faults.empty() ? rec.WaveHeight.FileName : std::string(), 13,
             "wave height"},
        };
        for (const Side& side : sides) {
            if (side.file.empty())
                continue;
            Region grid(side.kind, rec);
            if (side.kind == LSM_R && grid.TideNameFailure(tide) != 0) {
                report.Add(Level::Error, rec.RegionNo,
                           StringPrintf("%s: the land map %s does not state the tide level %d "
                                        "(TideWaterLevel %g) in its name as _P%d or _M%d",
                                        label.c_str(), side.file.c_str(), tide,
                                        project.TideWaterLevel, std::abs(tide), std::abs(tide)) +
                               RunStops(side.code));
                continue;
            }
            grid = ReadRegionGrid(side.kind, rec, why);
            if (!why.empty())
                report.Add(Level::Error, rec.RegionNo,
                           label + ": the " + side.name + " grid: " + why + RunStops(side.code));
            else if (!isSameRegion(&*r.topography, &grid))
                report.Add(Level::Error, rec.RegionNo,
                           StringPrintf("%s: the %s grid %s has %d x %d points from (%.10g, "
                                        "%.10g), the topography %d x %d from (%.10g, %.10g)",
                                        label.c_str(), side.name, side.file.c_str(), grid.nx,
                                        grid.ny, grid.org_x, grid.org_y, r.topography->nx,
                                        r.topography->ny, r.topography->org_x,
                                        r.topography->org_y) +
                               RunStops(side.code));
        }
        if (rec.LandMap.FileName.empty() && rec.ConstructionLineData.FileName.empty())
            CheckLandMap(report, r, tide);
    }

    // Time steps, as the run works them out over the regions it could read.
    std::map<int, Region> topographies;
    for (const RegionReport& r : report.regions)
        if (r.topography)
            topographies.emplace(r.record.RegionNo, StepView(*r.topography));
    const bool allRead = topographies.size() == report.regions.size();
    const TimeStepOutcome steps =
        WorkOutTimeSteps(topographies, project.TimeIncrement, project.TimeNestingCFLLimit, false);
    if (steps.failed) {
        const char* details[] = {"", "TimeNestingCFLLimit lies outside 0 .. 1",
                                 "TimeIncrement is not positive",
                                 "its spacing in metres is not positive"};
        const XML_REGION& rec = report.Find(steps.regionNo)->record;
        report.Add(Level::Error, steps.regionNo,
                   RegionLabel(rec) + ": its time step cannot be computed: " +
                       details[std::clamp(steps.reason, 0, 3)] + RunStops(10));
    } else if (allRead) {
        double worstCfl = 0;
        for (auto& [regionNo, t] : topographies) {
            RegionReport* r = report.Find(regionNo);
            r->topography->dt = t.dt;
            r->topography->timeRatio = t.timeRatio;
            r->topography->stepRatio = t.stepRatio;
            r->topography->dxMeter = t.dxMeter;
            r->topography->cfl = t.cfl;
            r->timeStep = true;
            worstCfl = std::max(worstCfl, std::isfinite(t.cfl) ? t.cfl : 0.0);
        }
        if (worstCfl > o.cflLimit) {
            // CFL numbers grow with the time increment; the ratios may change with it, so
            // the suggestion is tried as the run would compute it, and lowered until it holds.
            const double suggestion =
                SuggestTimeIncrement(topographies, project.TimeIncrement * o.cflLimit / worstCfl,
                                     project.TimeNestingCFLLimit, o.cflLimit);
            for (const auto& [regionNo, t] : topographies)
                if (t.cfl > o.cflLimit)
                    report.Add(Level::Warning, regionNo,
                               StringPrintf("%s: CFL number %.3g is above %g, so the calculation "
                                            "is unstable (time step %g s on %.4g m cells, %.4g m "
                                            "deep); a TimeIncrement of %.4g s or less brings every "
                                            "region to %g",
                                            RegionLabel(report.Find(regionNo)->record).c_str(),
                                            t.cfl, o.cflLimit, t.dt,
                                            static_cast<double>(t.dxMeter), -t.valMin, suggestion,
                                            o.cflLimit));
        }
    }

    for (const RegionReport& r : report.regions)
        if (r.topography)
            CheckDryRegion(report, r, tide);
    CheckPointLists(report, project.StationPos, false, tide);
    CheckPointLists(report, project.ExtractPoints, true, tide);
    Estimate(report, project);
    return report;
}

namespace {

std::string LevelName(Level level) { return level == Level::Error ? "error" : "warning"; }

void PrintText(const Report& report, std::FILE* out) {
    std::fprintf(out, "Project %s\n\n", report.project.c_str());
    std::fprintf(out, "%4s  %-12s %4s %6s %13s %10s  %-44s  %-36s  %-21s %8s %5s %6s\n", "no", "name",
                "base", "EPSG", "points", "spacing", "extent (cell edges, own system)",
                "extent (longitude, latitude)", "values", "dt [s]", "ratio", "CFL");
    for (const RegionReport& r : report.regions) {
        std::fprintf(out, "%4d  %-12s %4d %6d", r.record.RegionNo, r.record.RegionName.c_str(),
                    r.record.BaseRegionNo, r.record.EPSG);
        if (!r.topography) {
            std::fprintf(out, "  (grid not read)\n");
            continue;
        }
        const Region& t = *r.topography;
        const CellExtent e = CellExtentOf(t.org_x, t.org_y, t.gridSize, t.nx, t.ny);
        const std::string points = StringPrintf("%d x %d", t.nx, t.ny);
        const std::string own =
            StringPrintf("%.9g .. %.9g, %.9g .. %.9g", e.minX, e.maxX, e.minY, e.maxY);
        const std::string lonLat =
            r.lonLat ? StringPrintf("%.5f .. %.5f, %.5f .. %.5f", (*r.lonLat)[0], (*r.lonLat)[2],
                                    (*r.lonLat)[1], (*r.lonLat)[3])
                     : std::string("-");
        const std::string values = StringPrintf("%.6g .. %.6g", t.valMin, t.valMax);
        std::fprintf(out, " %13s %10.6g  %-44s  %-36s  %-21s", points.c_str(), t.gridSize, own.c_str(),
                    lonLat.c_str(), values.c_str());
        if (r.timeStep)
            std::fprintf(out, " %8.4g %5d %6.3g\n", t.dt, t.stepRatio, t.cfl);
        else
            std::fprintf(out, " %8s %5s %6s\n", "-", "-", "-");
    }
    bool notes = false;
    for (const RegionReport& r : report.regions) {
        if (!r.jumpMax && r.cornerMargins.empty())
            continue;
        if (!notes)
            std::fprintf(out, "\n");
        notes = true;
        std::fprintf(out, "%s in its base:", RegionLabel(r.record).c_str());
        if (r.jumpMax)
            std::fprintf(out, " boundary depths differ by at most %.4g m, %.4g m on average;", *r.jumpMax,
                        r.jumpMean);
        if (!r.cornerMargins.empty()) {
            std::fprintf(out, " corners inside the run's search by");
            for (std::size_t c = 0; c < r.cornerMargins.size(); ++c)
                std::fprintf(out, "%s %s %.3g", c ? "," : "", kCornerNames[c], r.cornerMargins[c]);
            std::fprintf(out, " base cells;");
        }
        std::fprintf(out, "\n");
    }
    std::fprintf(out, "\n%s\n", EstimateLine(report).c_str());
    std::fprintf(out, "\n");
    for (const Finding& f : report.findings)
        std::fprintf(out, "%s\n", FindingLine(f).c_str());
    std::fprintf(out, "%s%s\n", report.findings.empty() ? "" : "\n", CountLine(report).c_str());
}

void PrintJson(const Report& report, std::FILE* to) {
    nlohmann::ordered_json out;
    out["project"] = report.project;
    out["regions"] = nlohmann::ordered_json::array();
    for (const RegionReport& r : report.regions) {
        nlohmann::ordered_json region = {{"number", r.record.RegionNo},
                                         {"name", r.record.RegionName},
                                         {"base", r.record.BaseRegionNo},
                                         {"epsg", r.record.EPSG}};
        if (r.topography) {
            const Region& t = *r.topography;
            const CellExtent e = CellExtentOf(t.org_x, t.org_y, t.gridSize, t.nx, t.ny);
            region["nx"] = t.nx;
            region["ny"] = t.ny;
            region["spacing"] = t.gridSize;
            region["extent"] = {e.minX, e.minY, e.maxX, e.maxY};
            if (r.lonLat)
                region["extent_lonlat"] = *r.lonLat;
            region["min"] = t.valMin;
            region["max"] = t.valMax;
            if (r.timeStep) {
                region["dt"] = t.dt;
                region["step_ratio"] = t.stepRatio;
                region["cfl"] = t.cfl;
            }
            if (r.jumpMax) {
                region["boundary_jump_max"] = *r.jumpMax;
                region["boundary_jump_mean"] = r.jumpMean;
            }
            if (!r.cornerMargins.empty())
                region["corner_margins"] = r.cornerMargins;
        }
        out["regions"].push_back(region);
    }
    out["findings"] = nlohmann::ordered_json::array();
    int errors = 0;
    int warnings = 0;
    for (const Finding& f : report.findings) {
        out["findings"].push_back(
            {{"level", LevelName(f.level)}, {"region", f.region}, {"message", f.message}});
        (f.level == Level::Error ? errors : warnings) += 1;
    }
    out["estimate"] = {{"peak_memory_bytes", report.peakBytes},
                       {"output_bytes", report.outputBytes}};
    out["errors"] = errors;
    out["warnings"] = warnings;
    std::fprintf(to, "%s\n", out.dump(2).c_str());
}

} // namespace

double EstimatedPeakBytes(const std::vector<RunRegionSize>& regions) {
    double topographies = 0;
    double largestRegion = 0;
    for (const RunRegionSize& r : regions) {
        topographies += 8 * r.cells;
        // Roughness and land map (8 bytes a cell each), the structure maps (8 each, as pairs
        // of int32), with construction lines their values and heights (16 each).
        largestRegion =
            std::max(largestRegion, r.cells * (8 + 8 + 16 + 1 + (r.constructionLines ? 48 : 0)));
    }
    return topographies + largestRegion + 64.0 * 1024 * 1024;
}

std::string PeakMemoryText(double bytes) {
    return StringPrintf("peak memory about %.0f MiB", bytes / 1048576.0);
}

std::string EstimateLine(const Report& report) {
    return "Estimated run: " + PeakMemoryText(report.peakBytes) +
           StringPrintf(", output at most %.1f MiB", report.outputBytes / 1048576.0);
}

std::string FindingLine(const Finding& f) {
    return StringPrintf("%-8s %s", LevelName(f.level).c_str(), f.message.c_str());
}

std::string CountLine(const Report& report) {
    int errors = 0;
    int warnings = 0;
    for (const Finding& f : report.findings)
        (f.level == Level::Error ? errors : warnings) += 1;
    return StringPrintf("%d error%s, %d warning%s", errors, errors == 1 ? "" : "s", warnings,
                        warnings == 1 ? "" : "s");
}

int PrintCheck(const Report& report, bool json, std::FILE* out) {
    if (json)
        PrintJson(report, out);
    else
        PrintText(report, out);
    return CheckStatus(report);
}

int CheckStatus(const Report& report) {
    bool warning = false;
    for (const Finding& f : report.findings) {
        if (f.level == Level::Error)
            return 1;
        warning = true;
    }
    return warning ? 2 : 0;
}

int RunCheck(const CheckOptions& options) {
    SetMapProjectionNotices(false);
    return PrintCheck(CheckProject(options), options.json);
}
