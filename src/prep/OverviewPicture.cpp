#include "prep/OverviewPicture.hpp"

#include "prep/AtomicFile.hpp"
#include "prep/PrepError.hpp"
#include "project/Console.hpp"

#include <cairo.h>
#include <fontconfig/fontconfig.h>
#include <cpl_error.h>
#include <cpl_string.h>
#include <cpl_vsi.h>
#include <gdal_priv.h>
#include <gdal_utils.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <set>

namespace {

constexpr double kPi = 3.141592653589793;
constexpr double kMetresPerDegree = 111320.0;
constexpr int kMarginLeft = 84;   // room for the northing labels
constexpr int kMarginTop = 58;    // title and subtitle
constexpr int kMarginBottom = 40; // easting labels
constexpr int kMarginRight = 16;
constexpr int kLegendGap = 28;
constexpr int kLegendWidth = 210;
constexpr int kColourBarHeight = 240;
constexpr double kShadeAltitude = 45.0; // degrees, GDAL's default light
constexpr double kShadeZ = 3.0;         // sea floors are gentle; this shows their form
constexpr double kShadeWeight = 0.7;    // of the hillshade; the rest keeps steep slopes in colour
const char* const kFont = "DejaVu Sans";

struct SurfaceDeleter {
    void operator()(cairo_surface_t* s) const { cairo_surface_destroy(s); }
};
using SurfacePtr = std::unique_ptr<cairo_surface_t, SurfaceDeleter>;
struct ContextDeleter {
    void operator()(cairo_t* c) const { cairo_destroy(c); }
};
using CairoPtr = std::unique_ptr<cairo_t, ContextDeleter>;
// cairo and fontconfig keep every font they loaded until the process ends; released once
// the picture's own objects are gone, so a leak checker sees only what is ours.
struct FontCachesRelease {
    FontCachesRelease() = default;
    FontCachesRelease(const FontCachesRelease&) = delete;
    FontCachesRelease& operator=(const FontCachesRelease&) = delete;
    ~FontCachesRelease() {
        cairo_debug_reset_static_data();
        FcFini();
    }
};
struct DemOptionsDeleter {
    void operator()(GDALDEMProcessingOptions* o) const { GDALDEMProcessingOptionsFree(o); }
};

void SetColour(cairo_t* cr, OverviewColour c, double alpha = 1.0) {
    cairo_set_source_rgba(cr, c.r / 255.0, c.g / 255.0, c.b / 255.0, alpha);
}

// 1, 2 or 5 times a power of ten, near `rough`.
double NiceStep(double rough) {
    const double power = std::pow(10.0, std::floor(std::log10(rough)));
    const double f = rough / power;
    return (f < 1.5 ? 1.0 : f < 3.5 ? 2.0 : f < 7.5 ? 5.0 : 10.0) * power;
}

// ------------------------------------------------------------------------------ relief

// The outer grid resampled to the map's pixels by GDAL, north-up (the first row is the
// northern one): averaging where cells are smaller than pixels; a cubic spline where they
// are larger, as bilinear steps would show every cell edge in the hillshade.
std::vector<float> ResampledGrid(const Region& g, int w, int h) {
    GDALDriver* mem = GetGDALDriverManager()->GetDriverByName("MEM");
    GDALDatasetUniquePtr ds(mem->Create("", g.nx, g.ny, 0, GDT_Float64, nullptr));
    if (!ds)
        throw PrepError("GDAL cannot hold the outer region's grid in memory");
    CPLStringList band; // the grid's own buffer, row j = 0 (the south) first
    band.SetNameValue("DATAPOINTER",
                      CPLSPrintf("%p", static_cast<const void*>(g.grid.Data())));
    if (ds->AddBand(GDT_Float64, band.List()) != CE_None)
        throw PrepError("GDAL cannot hold the outer region's grid in memory");
    GDALRasterIOExtraArg extra;
    INIT_RASTERIO_EXTRA_ARG(extra);
    extra.eResampleAlg = std::int64_t{w} * h < std::int64_t{g.nx} * g.ny ? GRIORA_Average
                                                                           : GRIORA_CubicSpline;
    std::vector<float> south(static_cast<std::size_t>(w) * h);
    if (ds->GetRasterBand(1)->RasterIO(GF_Read, 0, 0, g.nx, g.ny, south.data(), w, h,
                                       GDT_Float32, 0, 0, &extra) != CE_None)
        throw PrepError("GDAL cannot resample the outer region's grid");
    std::vector<float> north(south.size());
    for (int row = 0; row < h; ++row)
        std::copy_n(south.data() + static_cast<std::size_t>(h - 1 - row) * w, w,
                    north.data() + static_cast<std::size_t>(row) * w);
    return north;
}

GDALDatasetUniquePtr RunDem(GDALDataset* elevation, const char* processing,
                            const char* colourFile) {
    CPLStringList args;
    for (const char* a : {"-of", "MEM", "-compute_edges"})
        args.AddString(a);
    if (colourFile == nullptr) {
        args.AddString("-z");
        args.AddString(CPLSPrintf("%g", kShadeZ));
    }
    std::unique_ptr<GDALDEMProcessingOptions, DemOptionsDeleter> options(
        GDALDEMProcessingOptionsNew(args.List(), nullptr));
    GDALDatasetUniquePtr out(GDALDataset::FromHandle(GDALDEMProcessing(
        "", GDALDataset::ToHandle(elevation), processing, colourFile, options.get(), nullptr)));
    if (!out)
        throw PrepError(StringPrintf("GDAL's %s of the outer region failed: %s", processing,
                                     CPLGetLastErrorMsg()));
    return out;
}

std::vector<std::uint8_t> ReadByteBand(GDALDataset* ds, int band, int w, int h) {
    std::vector<std::uint8_t> values(static_cast<std::size_t>(w) * h);
    if (ds->GetRasterBand(band)->RasterIO(GF_Read, 0, 0, w, h, values.data(), w, h, GDT_Byte, 0,
                                          0, nullptr) != CE_None)
        throw PrepError("GDAL cannot read back the shaded relief");
    return values;
}

} // namespace

// The shade is taken relative to flat ground, so the legend's colours hold on the flat.
ReliefImage MakeRelief(const Region& grid, const MapFrame& f, bool geographic) {
    CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
    RegisterGdalOnce();
    const int w = f.width;
    const int h = f.height;
    std::vector<float> values = ResampledGrid(grid, w, h);
    GDALDriver* mem = GetGDALDriverManager()->GetDriverByName("MEM");
    GDALDatasetUniquePtr elevation(mem->Create("", w, h, 1, GDT_Float32, nullptr));
    if (!elevation || elevation->GetRasterBand(1)->RasterIO(GF_Write, 0, 0, w, h, values.data(),
                                                            w, h, GDT_Float32, 0, 0,
                                                            nullptr) != CE_None)
        throw PrepError("GDAL cannot hold the resampled relief in memory");
    // Pixel sizes in metres, so the hillshade's slopes are true slopes.
    const double midLat = 0.5 * (f.minY + f.maxY) * kPi / 180.0;
    const double toMetresX = geographic ? kMetresPerDegree * std::cos(midLat) : 1.0;
    const double toMetresY = geographic ? kMetresPerDegree : 1.0;
    double transform[6] = {0, (f.maxX - f.minX) / w * toMetresX, 0, 0, 0,
                           -(f.maxY - f.minY) / h * toMetresY};
    elevation->SetGeoTransform(transform);

    const std::string table = CPLSPrintf("/vsimem/seaforge-overview-%p.txt",
                                         static_cast<void*>(elevation.get()));
    std::string text;
    for (const ReliefStop& s : ReliefStops())
        text += CPLSPrintf("%.3f %d %d %d\n", s.elevation, s.colour.r, s.colour.g, s.colour.b);
    VSILFILE* file = VSIFOpenL(table.c_str(), "wb");
    if (file == nullptr)
        throw PrepError("GDAL cannot hold the relief's colour table in memory");
    VSIFWriteL(text.data(), 1, text.size(), file);
    VSIFCloseL(file);
    GDALDatasetUniquePtr colour;
    try {
        colour = RunDem(elevation.get(), "color-relief", table.c_str());
    } catch (...) {
        VSIUnlink(table.c_str());
        throw;
    }
    VSIUnlink(table.c_str());
    GDALDatasetUniquePtr shade = RunDem(elevation.get(), "hillshade", nullptr);

    const std::vector<std::uint8_t> red = ReadByteBand(colour.get(), 1, w, h);
    const std::vector<std::uint8_t> green = ReadByteBand(colour.get(), 2, w, h);
    const std::vector<std::uint8_t> blue = ReadByteBand(colour.get(), 3, w, h);
    const std::vector<std::uint8_t> light = ReadByteBand(shade.get(), 1, w, h);
    const double flat = std::round(1.0 + 254.0 * std::sin(kShadeAltitude * kPi / 180.0));

    ReliefImage image{w, h, std::vector<std::uint32_t>(static_cast<std::size_t>(w) * h)};
    const auto lit = [](std::uint8_t c, double factor) {
        return static_cast<std::uint32_t>(std::clamp(std::lround(c * factor), 0L, 255L));
    };
    for (std::size_t k = 0; k < image.pixels.size(); ++k) {
        const double factor = 1.0 - kShadeWeight + kShadeWeight * light[k] / flat;
        image.pixels[k] = lit(red[k], factor) << 16 | lit(green[k], factor) << 8 |
                          lit(blue[k], factor);
    }
    return image;
}

namespace {

// ------------------------------------------------------------------------------ drawing

void Text(cairo_t* cr, double x, double y, const std::string& text, double size,
          bool bold = false, double alignX = 0.0) {
    cairo_select_font_face(cr, kFont, CAIRO_FONT_SLANT_NORMAL,
                           bold ? CAIRO_FONT_WEIGHT_BOLD : CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_font_size(cr, size);
    cairo_text_extents_t extents;
    cairo_text_extents(cr, text.c_str(), &extents);
    cairo_move_to(cr, x - alignX * extents.x_advance, y);
    cairo_show_text(cr, text.c_str());
}

// Text readable on any relief: dark letters on a pale halo.
void HaloText(cairo_t* cr, double x, double y, const std::string& text, double size) {
    cairo_select_font_face(cr, kFont, CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_BOLD);
    cairo_set_font_size(cr, size);
    cairo_move_to(cr, x, y);
    cairo_text_path(cr, text.c_str());
    cairo_set_source_rgba(cr, 1, 1, 1, 0.85);
    cairo_set_line_width(cr, 3.0);
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);
    cairo_stroke_preserve(cr);
    cairo_set_source_rgb(cr, 0.08, 0.08, 0.08);
    cairo_fill(cr);
}

double TextWidth(cairo_t* cr, const std::string& text, double size) {
    cairo_select_font_face(cr, kFont, CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_BOLD);
    cairo_set_font_size(cr, size);
    cairo_text_extents_t extents;
    cairo_text_extents(cr, text.c_str(), &extents);
    return extents.x_advance;
}

void RingPath(cairo_t* cr, const MapFrame& f, const OverviewRing& ring) {
    cairo_new_path(cr);
    for (std::size_t k = 0; k < ring.x.size(); ++k)
        cairo_line_to(cr, f.PixelX(ring.x[k]), f.PixelY(ring.y[k]));
    cairo_close_path(cr);
}

std::string Spacing(double spacing, bool degrees) {
    return degrees ? StringPrintf("%g°", spacing) : StringPrintf("%g m", spacing);
}

void DrawRegionOutlines(cairo_t* cr, const MapFrame& f, const OverviewScene& scene) {
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_MITER);
    for (const OverviewRegion& r : scene.regions) {
        if (r.level == 0 || r.map.empty())
            continue;
        const double dashes[] = {9.0, 5.0};
        cairo_set_dash(cr, dashes, r.refusedNesting ? 2 : 0, 0);
        RingPath(cr, f, r.map);
        cairo_set_source_rgba(cr, 0, 0, 0, 0.55); // a dark rim keeps pale outlines visible
        cairo_set_line_width(cr, 4.5);
        cairo_stroke_preserve(cr);
        SetColour(cr, RegionOutlineColour(r.level));
        cairo_set_line_width(cr, 2.5);
        cairo_stroke(cr);
    }
    cairo_set_dash(cr, nullptr, 0, 0);
}

// Labels go last, over the marks, so a crowd of points cannot hide which region is which.
void DrawRegionLabels(cairo_t* cr, const MapFrame& f, const OverviewScene& scene) {
    for (const OverviewRegion& r : scene.regions) {
        if (r.level == 0 || r.map.empty())
            continue;
        double x0 = 1e300, y0 = 1e300, x1 = -1e300, y1 = -1e300;
        for (std::size_t k = 0; k < r.map.x.size(); ++k) {
            x0 = std::min(x0, f.PixelX(r.map.x[k]));
            x1 = std::max(x1, f.PixelX(r.map.x[k]));
            y0 = std::min(y0, f.PixelY(r.map.y[k]));
            y1 = std::max(y1, f.PixelY(r.map.y[k]));
        }
        std::string label = StringPrintf("%d %s, ", r.number, r.name.c_str()) +
                            Spacing(r.spacing, r.epsg == 4326 || r.epsg == 4612);
        if (r.dt)
            label += StringPrintf(", Δt %g s", *r.dt);
        if (r.refusedNesting)
            label += " (outside its base)";
        constexpr double kSize = 12.0;
        const double width = TextWidth(cr, label, kSize);
        // Inside the top-left corner when it fits there, else just above the outline.
        const bool inside = x1 - x0 > width + 10 && y1 - y0 > 2.5 * kSize;
        const double x = std::clamp(x0 + 5, f.left + 2.0, f.left + f.width - width - 2);
        const double y = inside ? y0 + kSize + 5 : std::max(f.top + kSize + 2, y0 - 6);
        HaloText(cr, x, y, label, kSize);
    }
}

void DrawFaults(cairo_t* cr, const MapFrame& f, const OverviewScene& scene) {
    for (const OverviewFault& fault : scene.faults) {
        if (fault.map.empty())
            continue;
        RingPath(cr, f, fault.map);
        cairo_set_source_rgba(cr, 1.0, 0.35, 0.0, 0.25);
        cairo_fill_preserve(cr);
        cairo_set_source_rgb(cr, 0.65, 0.0, 0.0);
        cairo_set_line_width(cr, 2.0);
        cairo_stroke(cr);
    }
}

void StationPath(cairo_t* cr, double x, double y) {
    cairo_move_to(cr, x, y - 7.5);
    cairo_line_to(cr, x + 6.5, y + 4.5);
    cairo_line_to(cr, x - 6.5, y + 4.5);
    cairo_close_path(cr);
}

void CoastalPath(cairo_t* cr, double x, double y) {
    cairo_new_sub_path(cr);
    cairo_arc(cr, x, y, 4.5, 0, 2 * kPi);
    cairo_close_path(cr);
}

// One mark drawn once and stamped, centred on a whole pixel, at every point: thousands of
// points then cost what copying their pixels costs, not one rasterisation each.
template <class Shape>
void Marks(cairo_t* cr, const std::vector<std::pair<double, double>>& at, OverviewColour fill,
           Shape shape) {
    if (at.empty())
        return;
    constexpr int kSide = 21; // holds the largest mark with its outline
    constexpr double kCentre = kSide / 2.0;
    SurfacePtr stamp(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, kSide, kSide));
    CairoPtr pen(cairo_create(stamp.get()));
    shape(pen.get(), kCentre, kCentre);
    SetColour(pen.get(), fill);
    cairo_fill_preserve(pen.get());
    cairo_set_source_rgb(pen.get(), 0, 0, 0);
    cairo_set_line_width(pen.get(), 1.25);
    cairo_stroke(pen.get());
    for (const auto& [x, y] : at) {
        const double left = std::floor(x) + 0.5 - kCentre;
        const double top = std::floor(y) + 0.5 - kCentre;
        cairo_set_source_surface(cr, stamp.get(), left, top);
        cairo_rectangle(cr, left, top, kSide, kSide);
        cairo_fill(cr);
    }
}

void DrawPoints(cairo_t* cr, const MapFrame& f, const OverviewScene& scene) {
    const auto where = [&](const std::vector<OverviewPoint>& points, bool fitted) {
        std::vector<std::pair<double, double>> at;
        for (const OverviewPoint& p : points)
            if (p.onMap && p.region.has_value() == fitted)
                at.emplace_back(f.PixelX(p.mapX), f.PixelY(p.mapY));
        return at;
    };
    Marks(cr, where(scene.coastalPoints, false), kNoCellFill, CoastalPath);
    Marks(cr, where(scene.coastalPoints, true), kCoastalPointFill, CoastalPath);
    Marks(cr, where(scene.stations, false), kNoCellFill, StationPath);
    Marks(cr, where(scene.stations, true), kStationFill, StationPath);
}

std::string AxisLabel(double value, double step, bool degrees) {
    if (degrees) {
        const int decimals = std::max(0, static_cast<int>(std::ceil(-std::log10(step) - 1e-9)));
        return StringPrintf("%.*f°", decimals, value);
    }
    return step >= 1000 ? StringPrintf("%g km", value / 1000) : StringPrintf("%g m", value);
}

void DrawFrameAndTicks(cairo_t* cr, const MapFrame& f, bool degrees) {
    cairo_set_source_rgb(cr, 0.2, 0.2, 0.2);
    cairo_set_line_width(cr, 1.0);
    cairo_rectangle(cr, f.left - 0.5, f.top - 0.5, f.width + 1, f.height + 1);
    cairo_stroke(cr);
    const double stepX = NiceStep((f.maxX - f.minX) / std::max(2, f.width / 140));
    for (double v = std::ceil(f.minX / stepX) * stepX; v <= f.maxX + 1e-9 * stepX; v += stepX) {
        const double px = std::round(f.PixelX(v)) + 0.5;
        cairo_move_to(cr, px, f.top + f.height + 1);
        cairo_line_to(cr, px, f.top + f.height + 6);
        cairo_stroke(cr);
        Text(cr, px, f.top + f.height + 19, AxisLabel(v, stepX, degrees), 11, false, 0.5);
    }
    const double stepY = NiceStep((f.maxY - f.minY) / std::max(2, f.height / 110));
    for (double v = std::ceil(f.minY / stepY) * stepY; v <= f.maxY + 1e-9 * stepY; v += stepY) {
        const double py = std::round(f.PixelY(v)) + 0.5;
        cairo_move_to(cr, f.left - 1, py);
        cairo_line_to(cr, f.left - 6, py);
        cairo_stroke(cr);
        Text(cr, f.left - 9, py + 4, AxisLabel(v, stepY, degrees), 11, false, 1.0);
    }
}

void DrawScaleBar(cairo_t* cr, const MapFrame& f, bool degrees) {
    // Metres per pixel along the map's middle latitude (the map keeps proportions).
    const double perPixel = (degrees ? kMetresPerDegree : 1.0) * (f.maxY - f.minY) / f.height;
    const double metres = NiceStep(perPixel * f.width / 5);
    const double length = metres / perPixel;
    const double x = f.left + 12;
    const double y = f.top + f.height - 14;
    cairo_set_source_rgba(cr, 1, 1, 1, 0.8);
    cairo_rectangle(cr, x - 6, y - 20, length + 12, 28);
    cairo_fill(cr);
    for (int half = 0; half < 2; ++half) {
        cairo_rectangle(cr, x + half * length / 2, y, length / 2, 5);
        if (half == 0)
            cairo_set_source_rgb(cr, 0.1, 0.1, 0.1);
        else
            cairo_set_source_rgb(cr, 1, 1, 1);
        cairo_fill_preserve(cr);
        cairo_set_source_rgb(cr, 0.1, 0.1, 0.1);
        cairo_set_line_width(cr, 1);
        cairo_stroke(cr);
    }
    Text(cr, x + length / 2, y - 6,
         metres >= 1000 ? StringPrintf("%g km", metres / 1000) : StringPrintf("%g m", metres),
         11, false, 0.5);
}

// The colour bar shows the stops around the grid's values, evenly spaced, each segment
// shaded as the relief interpolates it; the shoreline's two stops share one place.
double DrawColourBar(cairo_t* cr, double x, double y, const Region& relief) {
    const std::vector<ReliefStop>& stops = ReliefStops();
    std::size_t first = 0;
    std::size_t last = stops.size() - 1;
    while (first + 1 < last && stops[first + 1].elevation <= relief.valMin)
        ++first;
    while (last > first + 1 && stops[last - 1].elevation >= relief.valMax)
        --last;
    std::vector<int> place(stops.size(), 0); // slots above the lowest stop shown
    for (std::size_t s = first + 1; s <= last; ++s)
        place[s] = place[s - 1] + (stops[s].elevation - stops[s - 1].elevation < 1.0 ? 0 : 1);
    Text(cr, x, y, "Elevation", 13, true);
    y += 12;
    const double step = kColourBarHeight / static_cast<double>(place[last]);
    const auto at = [&](std::size_t s) { return y + (place[last] - place[s]) * step; };
    constexpr double kBarWidth = 20;
    for (std::size_t s = first; s < last; ++s) {
        if (place[s + 1] == place[s])
            continue;
        cairo_pattern_t* gradient = cairo_pattern_create_linear(0, at(s), 0, at(s + 1));
        for (std::size_t k : {s, s + 1}) {
            const OverviewColour c = stops[k].colour;
            cairo_pattern_add_color_stop_rgb(gradient, k == s ? 0.0 : 1.0, c.r / 255.0,
                                             c.g / 255.0, c.b / 255.0);
        }
        cairo_rectangle(cr, x, at(s + 1), kBarWidth, step);
        cairo_set_source(cr, gradient);
        cairo_fill(cr);
        cairo_pattern_destroy(gradient);
    }
    cairo_set_source_rgb(cr, 0.2, 0.2, 0.2);
    cairo_set_line_width(cr, 1);
    cairo_rectangle(cr, x + 0.5, y + 0.5, kBarWidth - 1, kColourBarHeight - 1);
    cairo_stroke(cr);
    for (std::size_t s = first; s <= last; ++s) {
        if (s < last && place[s + 1] == place[s])
            continue; // labelled by the upper stop of the pair
        const double yStop = std::round(at(s)) + 0.5;
        cairo_move_to(cr, x + kBarWidth, yStop);
        cairo_line_to(cr, x + kBarWidth + 5, yStop);
        cairo_stroke(cr);
        Text(cr, x + kBarWidth + 8, yStop + 4, StringPrintf("%g m", stops[s].elevation), 11);
    }
    return y + kColourBarHeight + 30;
}

double DrawLegend(cairo_t* cr, const MapFrame& f, const OverviewScene& scene) {
    const double x = f.left + f.width + kLegendGap;
    double y = f.top + 14;
    if (scene.relief != nullptr)
        y = DrawColourBar(cr, x, y, *scene.relief);
    std::set<int> levels;
    bool refused = false;
    for (const OverviewRegion& r : scene.regions)
        if (r.level > 0 && !r.map.empty()) {
            levels.insert(r.level);
            refused = refused || r.refusedNesting;
        }
    const auto entry = [&](const std::string& text, auto&& symbol) {
        symbol(x + 12, y - 4);
        cairo_set_source_rgb(cr, 0.1, 0.1, 0.1);
        Text(cr, x + 32, y, text, 12);
        y += 22;
    };
    const auto line = [&](OverviewColour colour, bool dashed) {
        return [=](double cx, double cy) {
            const double dashes[] = {6.0, 3.0};
            cairo_set_dash(cr, dashes, dashed ? 2 : 0, 0);
            cairo_move_to(cr, cx - 12, cy);
            cairo_line_to(cr, cx + 12, cy);
            cairo_set_source_rgba(cr, 0, 0, 0, 0.55);
            cairo_set_line_width(cr, 4.5);
            cairo_stroke_preserve(cr);
            SetColour(cr, colour);
            cairo_set_line_width(cr, 2.5);
            cairo_stroke(cr);
            cairo_set_dash(cr, nullptr, 0, 0);
        };
    };
    if (!levels.empty())
        Text(cr, x, y, "Regions", 13, true), y += 20;
    for (int level : levels)
        entry(level == 1 ? std::string("nested in the outer one")
                         : StringPrintf("nested %d deep", level),
              line(RegionOutlineColour(level), false));
    if (refused)
        entry("outside its base", line(RegionOutlineColour(*levels.rbegin()), true));
    const bool anyStation = std::any_of(scene.stations.begin(), scene.stations.end(),
                                        [](const OverviewPoint& p) { return p.onMap; });
    const bool anyCoastal = std::any_of(scene.coastalPoints.begin(), scene.coastalPoints.end(),
                                        [](const OverviewPoint& p) { return p.onMap; });
    const auto noCell = [](const OverviewPoint& p) { return p.onMap && !p.region; };
    const bool anyNoCell = std::any_of(scene.stations.begin(), scene.stations.end(), noCell) ||
                           std::any_of(scene.coastalPoints.begin(), scene.coastalPoints.end(), noCell);
    const bool anyFault = std::any_of(scene.faults.begin(), scene.faults.end(),
                                      [](const OverviewFault& t) { return !t.map.empty(); });
    if (anyStation || anyCoastal || anyFault)
        y += 6, Text(cr, x, y, "Inputs", 13, true), y += 20;
    if (anyStation)
        entry("station", [&](double cx, double cy) { Marks(cr, {{cx, cy}}, kStationFill, StationPath); });
    if (anyCoastal)
        entry("coastal point",
              [&](double cx, double cy) { Marks(cr, {{cx, cy}}, kCoastalPointFill, CoastalPath); });
    if (anyNoCell)
        entry("in no region of its system",
              [&](double cx, double cy) { Marks(cr, {{cx, cy}}, kNoCellFill, CoastalPath); });
    if (anyFault)
        entry("fault segment", [&](double cx, double cy) {
            cairo_rectangle(cr, cx - 10, cy - 6, 20, 12);
            cairo_set_source_rgba(cr, 1.0, 0.35, 0.0, 0.25);
            cairo_fill_preserve(cr);
            cairo_set_source_rgb(cr, 0.6, 0.0, 0.0);
            cairo_set_line_width(cr, 1.6);
            cairo_stroke(cr);
        });
    return y;
}

// The drawn picture as a PNG through GDAL, at zlib's fastest level: cairo's own writer
// takes its default level, which costs as long as drawing the whole map.
bool WritePng(const std::string& path, cairo_surface_t* picture) {
    CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
    CPLErrorReset();
    const int w = cairo_image_surface_get_width(picture);
    const int h = cairo_image_surface_get_height(picture);
    const int stride = cairo_image_surface_get_stride(picture);
    const unsigned char* data = cairo_image_surface_get_data(picture);
    std::vector<std::uint8_t> rgb(static_cast<std::size_t>(w) * h * 3);
    for (int row = 0; row < h; ++row) {
        const auto* in = reinterpret_cast<const std::uint32_t*>(data + static_cast<std::ptrdiff_t>(row) * stride);
        std::uint8_t* out = rgb.data() + static_cast<std::size_t>(row) * w * 3;
        for (int col = 0; col < w; ++col) {
            out[3 * col] = static_cast<std::uint8_t>(in[col] >> 16);
            out[3 * col + 1] = static_cast<std::uint8_t>(in[col] >> 8);
            out[3 * col + 2] = static_cast<std::uint8_t>(in[col]);
        }
    }
    GDALDriver* mem = GetGDALDriverManager()->GetDriverByName("MEM");
    GDALDriver* png = GetGDALDriverManager()->GetDriverByName("PNG");
    if (mem == nullptr || png == nullptr)
        return false;
    GDALDatasetUniquePtr pixels(mem->Create("", w, h, 3, GDT_Byte, nullptr));
    if (!pixels || pixels->RasterIO(GF_Write, 0, 0, w, h, rgb.data(), w, h, GDT_Byte, 3, nullptr,
                                    3, static_cast<GSpacing>(w) * 3, 1, nullptr) != CE_None)
        return false;
    CPLStringList options;
    options.SetNameValue("ZLEVEL", "1");
    GDALDatasetUniquePtr file(
        png->CreateCopy(path.c_str(), pixels.get(), FALSE, options.List(), nullptr, nullptr));
    if (!file)
        return false;
    file.reset(); // the file is complete only once closed
    return CPLGetLastErrorType() != CE_Failure;
}

} // namespace

void RegisterGdalOnce() {
    if (GetGDALDriverManager()->GetDriverCount() == 0)
        GDALAllRegister();
}

OverviewColour RegionOutlineColour(int level) {
    static constexpr OverviewColour kLevels[] = {
        {230, 20, 50}, {255, 145, 0}, {255, 235, 40}, {215, 60, 255}};
    return kLevels[static_cast<std::size_t>(std::clamp(level, 1, 4) - 1)];
}

const std::vector<ReliefStop>& ReliefStops() {
    // Deep blue to pale blue at the shore, then green lowlands to brown and white heights;
    // the shoreline is a sharp step so the coast reads at a glance.
    static const std::vector<ReliefStop> kStops = {
        {-8000, {8, 29, 88}},    {-4000, {25, 60, 140}},   {-2000, {40, 95, 175}},
        {-1000, {60, 125, 205}}, {-200, {100, 165, 228}},  {-50, {150, 200, 240}},
        {-0.01, {200, 232, 250}}, {0, {80, 150, 80}},      {50, {125, 175, 95}},
        {200, {195, 195, 125}},  {500, {175, 135, 85}},    {1000, {140, 100, 70}},
        {2000, {205, 205, 205}}, {4000, {255, 255, 255}}};
    return kStops;
}

MapFrame LayOutMap(const OverviewScene& scene, int pictureWidth) {
    MapFrame f;
    f.minX = scene.minX;
    f.minY = scene.minY;
    f.maxX = scene.maxX;
    f.maxY = scene.maxY;
    // Kept above zero: a latitude past the pole is the input's mistake, not a reason to fail.
    const double shorten = scene.geographic
                               ? std::max(0.05, std::cos(0.5 * (f.minY + f.maxY) * kPi / 180.0))
                               : 1.0;
    const double worldW = (f.maxX - f.minX) * shorten;
    const double worldH = f.maxY - f.minY;
    const double roomW = pictureWidth - kMarginLeft - kLegendGap - kLegendWidth - kMarginRight;
    const double roomH = 1.25 * roomW; // a tall region makes a tall picture, within reason
    const double scale = std::min(roomW / worldW, roomH / worldH);
    f.width = std::max(1, static_cast<int>(std::lround(worldW * scale)));
    f.height = std::max(1, static_cast<int>(std::lround(worldH * scale)));
    f.left = kMarginLeft;
    f.top = kMarginTop;
    f.pictureWidth = pictureWidth;
    f.pictureHeight = kMarginTop + std::max(f.height, 520) + kMarginBottom;
    return f;
}

void WriteOverviewPicture(const std::string& path, const OverviewScene& scene, int pictureWidth,
                          const ReliefImage* relief) {
    if (pictureWidth < kMinPictureWidth || pictureWidth > kMaxPictureWidth)
        throw PrepError(StringPrintf("--width %d: give %d to %d pixels", pictureWidth,
                                     kMinPictureWidth, kMaxPictureWidth));
    const MapFrame f = LayOutMap(scene, pictureWidth);
    const FontCachesRelease fonts; // declared before the surface and context: dies after them
    SurfacePtr picture(
        cairo_image_surface_create(CAIRO_FORMAT_RGB24, f.pictureWidth, f.pictureHeight));
    CairoPtr cr(cairo_create(picture.get()));
    if (cairo_status(cr.get()) != CAIRO_STATUS_SUCCESS)
        throw PrepError("not enough memory for the picture");
    SetColour(cr.get(), kBackground);
    cairo_paint(cr.get());

    cairo_save(cr.get());
    cairo_rectangle(cr.get(), f.left, f.top, f.width, f.height);
    cairo_clip(cr.get());
    if (scene.relief != nullptr) {
        ReliefImage own;
        if (relief == nullptr || relief->width != f.width || relief->height != f.height) {
            own = MakeRelief(*scene.relief, f, scene.geographic);
            relief = &own;
        }
        SurfacePtr layer(cairo_image_surface_create_for_data(
            reinterpret_cast<unsigned char*>(const_cast<std::uint32_t*>(relief->pixels.data())),
            CAIRO_FORMAT_RGB24, relief->width, relief->height, relief->width * 4));
        cairo_set_source_surface(cr.get(), layer.get(), f.left, f.top);
        cairo_paint(cr.get());
    } else {
        cairo_set_source_rgb(cr.get(), 0.9, 0.9, 0.9);
        cairo_paint(cr.get());
    }
    DrawFaults(cr.get(), f, scene);
    DrawRegionOutlines(cr.get(), f, scene);
    DrawPoints(cr.get(), f, scene);
    DrawRegionLabels(cr.get(), f, scene);
    DrawScaleBar(cr.get(), f, scene.geographic);
    cairo_restore(cr.get());

    DrawFrameAndTicks(cr.get(), f, scene.geographic);
    cairo_set_source_rgb(cr.get(), 0.05, 0.05, 0.05);
    Text(cr.get(), f.left, 24, scene.title, 17, true);
    cairo_set_source_rgb(cr.get(), 0.3, 0.3, 0.3);
    Text(cr.get(), f.left, 44, scene.subtitle, 12);
    DrawLegend(cr.get(), f, scene);

    cairo_surface_flush(picture.get());
    if (cairo_status(cr.get()) != CAIRO_STATUS_SUCCESS)
        throw PrepError(StringPrintf("cairo cannot draw the picture: %s",
                                     cairo_status_to_string(cairo_status(cr.get()))));
    ReplaceFileAtomically(
        path, [&](const std::string& temporary) { return WritePng(temporary, picture.get()); });
}
