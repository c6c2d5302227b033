#include "prep/Warp.hpp"

#include "prep/PrepError.hpp"
#include "project/Console.hpp"

#include <cpl_conv.h>
#include <cpl_error.h>
#include <cpl_string.h>
#include <cpl_vsi.h>
#include <gdal_alg.h>
#include <gdal_priv.h>
#include <gdalwarper.h>
#include <ogr_spatialref.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cinttypes>
#include <cmath>
#include <limits>
#include <memory>
#include <mutex>
#include <thread>
#include <type_traits>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

struct NamedAlgorithm {
    const char* name;
    GDALResampleAlg algorithm;
};
constexpr NamedAlgorithm kAlgorithms[] = {
    {"near", GRA_NearestNeighbour}, {"bilinear", GRA_Bilinear}, {"cubic", GRA_Cubic},
    {"cubicspline", GRA_CubicSpline}, {"lanczos", GRA_Lanczos},  {"average", GRA_Average},
    {"rms", GRA_RMS},               {"mode", GRA_Mode},         {"max", GRA_Max},
    {"min", GRA_Min},               {"med", GRA_Med},           {"q1", GRA_Q1},
    {"q3", GRA_Q3},                 {"sum", GRA_Sum},
};

GDALResampleAlg AlgorithmNamed(const std::string& name) {
    for (const NamedAlgorithm& a : kAlgorithms)
        if (name == a.name)
            return a.algorithm;
    throw PrepError("unknown resampling method \"" + name + "\"");
}

// Rows warped at a time once the first source has been laid: the earlier sources only
// fill what the later ones left, so each band is saved, warped and merged back.
constexpr std::size_t kBandBytes = std::size_t{32} << 20;

// What GDAL said last, for a message of our own.
std::string LastGdalError() {
    const char* text = CPLGetLastErrorMsg();
    return text != nullptr && *text != '\0' ? std::string(" (") + text + ")" : std::string();
}

bool IsMarker(double v) { return IsNodataMarker(v); }

// Metres per unit of the units that modellers' sources come in besides metres.
struct UnitFactor {
    const char* name; // lower case
    const char* words;
    double metres;
};
constexpr double kUsSurveyFoot = 1200.0 / 3937.0;
constexpr UnitFactor kUnits[] = {
    {"ft", "feet", 0.3048},
    {"foot", "feet", 0.3048},
    {"feet", "feet", 0.3048},
    {"international foot", "feet", 0.3048},
    {"international feet", "feet", 0.3048},
    {"us survey foot", "US survey feet", kUsSurveyFoot},
    {"us survey feet", "US survey feet", kUsSurveyFoot},
    {"us_survey_foot", "US survey feet", kUsSurveyFoot},
    {"ftus", "US survey feet", kUsSurveyFoot},
    {"us-ft", "US survey feet", kUsSurveyFoot},
    {"us_ft", "US survey feet", kUsSurveyFoot},
    {"survey foot", "US survey feet", kUsSurveyFoot},
    {"foot_us", "US survey feet", kUsSurveyFoot},
};

std::string Lower(std::string text) {
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

// A classic netCDF stores its values uncompressed after the header, so a file shorter
// than them was cut short; the netCDF library reads the missing part as zeros.
void RefuseCutNetCdf(GDALDataset& ds, const std::string& path) {
    if (!EQUAL(ds.GetDriverName(), "netCDF"))
        return;
    CPLStringList files(ds.GetFileList());
    if (files.size() < 1)
        return;
    unsigned char magic[4] = {};
    VSILFILE* file = VSIFOpenL(files[0], "rb");
    if (file == nullptr)
        return;
    const std::size_t got = VSIFReadL(magic, 1, 4, file);
    (void)VSIFCloseL(file); // opened only to read
    VSIStatBufL info;
    if (got != 4 || magic[0] != 'C' || magic[1] != 'D' || magic[2] != 'F' ||
        (magic[3] != 1 && magic[3] != 2 && magic[3] != 5) || VSIStatL(files[0], &info) != 0)
        return;
    GDALRasterBand* band = ds.GetRasterBand(1);
    const double needed = static_cast<double>(ds.GetRasterXSize()) * ds.GetRasterYSize() *
                          GDALGetDataTypeSizeBytes(band->GetRasterDataType());
    if (static_cast<double>(info.st_size) < needed)
        throw PrepError(StringPrintf("%s: the file is cut short: it holds %.0f bytes, fewer than "
                                     "the %.0f its %d x %d values need; copy or download it again",
                                     path.c_str(), static_cast<double>(info.st_size), needed,
                                     ds.GetRasterXSize(), ds.GetRasterYSize()));
}

// Depths or elevations, and in which unit: what the user said, else what the file says.
void ReadValueMeaning(OpenedSource& s, const WarpSource& source) {
    GDALRasterBand* band = s.ds->GetRasterBand(1);
    // netCDF gives a variable's attributes as band metadata (CF: positive = "up" or "down").
    const char* positive = band->GetMetadataItem("positive");
    const char* variable = band->GetMetadataItem("NETCDF_VARNAME");
    if (positive == nullptr && variable != nullptr)
        positive = s.ds->GetMetadataItem((std::string(variable) + "#positive").c_str());
    bool depths = source.depthPositive;
    if (positive != nullptr && EQUAL(positive, "down") && !depths) {
        depths = true;
        s.notes.push_back("depths, positive down as its positive = \"down\" says: turned into "
                          "elevations");
    } else if (positive != nullptr && EQUAL(positive, "up") && depths) {
        s.notes.push_back("taken as depths as --depth-positive says, although its positive = "
                          "\"up\"");
    }
    double scale = 1;
    if (source.zScale) {
        scale = *source.zScale;
        if (scale != 1)
            s.notes.push_back(StringPrintf("values scaled by %.10g (--z-scale)", scale));
    } else {
        const std::string unit = band->GetUnitType() != nullptr ? band->GetUnitType() : "";
        const std::string lower = Lower(unit);
        for (const UnitFactor& u : kUnits)
            if (lower == u.name) {
                scale = u.metres;
                s.notes.push_back(StringPrintf("in %s (its unit \"%s\"): scaled by %.10g to "
                                               "metres",
                                               u.words, unit.c_str(), u.metres));
                break;
            }
    }
    s.factor = depths ? -scale : scale;
}

} // namespace

std::vector<WarpSource> SourcesAsGiven(const SourceOptions& o) {
    std::vector<WarpSource> sources;
    for (const std::string& path : o.sources) {
        WarpSource source;
        source.path = path;
        source.depthPositive = o.depthPositive;
        source.srs = o.sourceSrs;
        source.noData = o.sourceNoData;
        source.zScale = o.zScale;
        source.keepMarkers = o.keepMarkers;
        sources.push_back(source);
    }
    const auto at = [&](const char* option, int k) -> WarpSource& {
        if (k < 1 || static_cast<std::size_t>(k) > sources.size())
            throw PrepError(StringPrintf("%s %d: there are %zu sources", option, k,
                                         sources.size()));
        return sources[static_cast<std::size_t>(k - 1)];
    };
    for (int k : o.depthPositiveSources)
        at("--depth-positive-source", k).depthPositive = true;
    for (const auto& [k, srs] : o.sourceSrsFor)
        at("--srs-source", k).srs = srs;
    for (const auto& [k, value] : o.sourceNoDataFor)
        at("--nodata-source", k).noData = value;
    for (const auto& [k, factor] : o.zScaleFor)
        at("--z-scale-source", k).zScale = factor;
    for (const WarpSource& source : sources)
        if (source.zScale && (!std::isfinite(*source.zScale) || *source.zScale == 0))
            throw PrepError(StringPrintf("--z-scale takes a finite factor other than 0, not %g",
                                         *source.zScale));
    return sources;
}

bool IsNodataMarker(double v) {
    return v == -9999 || v == -32768 || v == -32767 || std::fabs(v) >= 1e20;
}

OpenedSource OpenSource(const WarpSource& source) {
    const std::string& path = source.path;
    GDALAllRegister(); // a no-op once the drivers are in
    CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
    CPLErrorReset();
    OpenedSource s;
    s.ds.reset(GDALDataset::Open(path.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY));
    if (!s.ds)
        throw PrepError(path + ": GDAL cannot open it as a raster" + LastGdalError());
    if (s.ds->GetRasterCount() < 1)
        throw PrepError(path + ": holds no raster band");
    double transform[6];
    if (s.ds->GetGeoTransform(transform) != CE_None)
        throw PrepError(path + ": has no georeference (no geotransform); give it one, "
                               "for example with gdal_translate -a_ullr");
    if (!source.srs.empty()) {
        // A bare number is an EPSG code, as the region's own EPSG element is.
        const bool code = source.srs.find_first_not_of("0123456789") == std::string::npos;
        const std::string definition = code ? "EPSG:" + source.srs : source.srs;
        char* wkt = nullptr;
        if (s.srs.SetFromUserInput(definition.c_str()) != OGRERR_NONE ||
            s.srs.exportToWkt(&wkt) != OGRERR_NONE) {
            CPLFree(wkt);
            throw PrepError(path + ": its coordinate system \"" + source.srs +
                            "\" (--source-srs) is not one GDAL knows");
        }
        s.givenSrsWkt = wkt;
        CPLFree(wkt);
    } else if (s.ds->GetSpatialRef() == nullptr || s.ds->GetSpatialRef()->IsEmpty()) {
        throw PrepError(path + ": has no coordinate system; say which it is with --source-srs "
                               "CODE (for example --source-srs 4326 for longitude and latitude "
                               "in degrees)");
    } else {
        s.srs = *s.ds->GetSpatialRef();
    }
    s.srs.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
    RefuseCutNetCdf(*s.ds, path);
    int tagged = FALSE;
    const double tag = s.ds->GetRasterBand(1)->GetNoDataValue(&tagged);
    s.hasNoData = source.noData.has_value() || tagged;
    s.noData = source.noData ? *source.noData : tag;
    ReadValueMeaning(s, source);
    return s;
}

namespace {

OGRSpatialReference TargetSystem(int epsg) {
    OGRSpatialReference srs;
    CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
    if (srs.importFromEPSG(epsg) != OGRERR_NONE)
        throw PrepError(StringPrintf("EPSG %d is not a coordinate system PROJ knows", epsg));
    srs.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
    return srs;
}

struct TransformDeleter {
    void operator()(OGRCoordinateTransformation* t) const { OGRCoordinateTransformation::DestroyCT(t); }
};
using TransformPtr = std::unique_ptr<OGRCoordinateTransformation, TransformDeleter>;

// The source's pixel size in the grid's units, measured at the grid's centre; 0 when the
// centre does not carry over (the source does not reach it, or the systems do not meet).
double SourceSpacingAtCentre(const OpenedSource& src, const OGRSpatialReference& target,
                             const GridGeometry& grid) {
    CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
    TransformPtr toSource(OGRCreateCoordinateTransformation(&target, &src.srs));
    TransformPtr toTarget(OGRCreateCoordinateTransformation(&src.srs, &target));
    if (!toSource || !toTarget)
        return 0;
    double transform[6];
    src.ds->GetGeoTransform(transform);
    double x = grid.orgX + 0.5 * (grid.nx - 1) * grid.spacing;
    double y = grid.orgY + 0.5 * (grid.ny - 1) * grid.spacing;
    if (!toSource->Transform(1, &x, &y))
        return 0;
    double xs[3] = {x, x + std::fabs(transform[1]), x};
    double ys[3] = {y, y, y + std::fabs(transform[5])};
    int ok[3] = {};
    if (!toTarget->Transform(3, xs, ys, nullptr, ok) || !ok[0] || !ok[1] || !ok[2])
        return 0;
    const double alongX = std::hypot(xs[1] - xs[0], ys[1] - ys[0]);
    const double alongY = std::hypot(xs[2] - xs[0], ys[2] - ys[0]);
    return std::isfinite(alongX) && std::isfinite(alongY) ? std::max(alongX, alongY) : 0;
}

struct WarpOptionsDeleter {
    void operator()(GDALWarpOptions* o) const { GDALDestroyWarpOptions(o); }
};
struct TransformerDeleter {
    void operator()(void* t) const { GDALDestroyApproxTransformer(t); }
};
struct ScaledProgressDeleter {
    void operator()(void* p) const { GDALDestroyScaledProgress(p); }
};

// The source's pixels and lines to the grid's, with the system the user gave in place of
// the file's own; throws when the systems do not meet.
void* ExactTransformer(const OpenedSource& src, GDALDataset& dst, int epsg,
                       const std::string& path) {
    CPLStringList options;
    if (!src.givenSrsWkt.empty())
        options.SetNameValue("SRC_SRS", src.givenSrsWkt.c_str());
    void* exact = GDALCreateGenImgProjTransformer2(GDALDataset::ToHandle(src.ds.get()),
                                                   GDALDataset::ToHandle(&dst), options.List());
    if (exact == nullptr)
        throw PrepError(path + ": its coordinate system cannot be carried to EPSG " +
                        std::to_string(epsg) + LastGdalError());
    return exact;
}

// What the look at each chunk of source pixels does and finds.
struct ChunkLook {
    bool markers = false; // stop at the first nodata marker
    bool nanMask = false; // mark NaN pixels as holding no data, GDAL's nodata masker's way
    bool seen = false;    // a marker was met: the warp stops
    double value = 0;     // the marker
};

// What one scan of source pixels found.
struct Scanned {
    std::size_t marker; // the first marker's place, or the count when there is none
    bool nan;           // whether a NaN came before it
};

// Looks for the first marker (when `markers`) and for NaN among n values. The warper hands
// over hundreds of megabytes of source pixels, so the test runs on a register of values at
// a time and looks closer only from one that holds a marker. The markers are floats
// exactly, and a float reaches 1e20 as a double from the first float that does.
template <class T> Scanned ScanPixels(const T* v, std::size_t n, bool markers) {
    std::size_t c = 0;
    bool nan = false;
#if defined(__SSE2__)
    if constexpr (std::is_same_v<T, float>) {
        float least = 1e20f;
        if (static_cast<double>(least) < 1e20)
            least = std::nextafter(least, std::numeric_limits<float>::infinity());
        const __m128 a = _mm_set1_ps(-9999.0f);
        const __m128 b = _mm_set1_ps(-32768.0f);
        const __m128 d = _mm_set1_ps(-32767.0f);
        const __m128 huge = _mm_set1_ps(least);
        const __m128 magnitude = _mm_castsi128_ps(_mm_set1_epi32(0x7fffffff));
        __m128 nans = _mm_setzero_ps();
        for (; c + 4 <= n; c += 4) {
            const __m128 x = _mm_loadu_ps(v + c);
            nans = _mm_or_ps(nans, _mm_cmpunord_ps(x, x));
            const __m128 far = _mm_cmpge_ps(_mm_and_ps(x, magnitude), huge);
            const __m128 hit = _mm_or_ps(_mm_or_ps(_mm_cmpeq_ps(x, a), _mm_cmpeq_ps(x, b)),
                                         _mm_or_ps(_mm_cmpeq_ps(x, d), far));
            if (markers && _mm_movemask_ps(hit) != 0)
                break; // found below
        }
        nan = _mm_movemask_ps(nans) != 0;
    } else {
        const __m128d a = _mm_set1_pd(-9999);
        const __m128d b = _mm_set1_pd(-32768);
        const __m128d d = _mm_set1_pd(-32767);
        const __m128d huge = _mm_set1_pd(1e20);
        const __m128d magnitude = _mm_castsi128_pd(_mm_set1_epi64x(0x7fffffffffffffffLL));
        __m128d nans = _mm_setzero_pd();
        for (; c + 2 <= n; c += 2) {
            const __m128d x = _mm_loadu_pd(v + c);
            nans = _mm_or_pd(nans, _mm_cmpunord_pd(x, x));
            const __m128d far = _mm_cmpge_pd(_mm_and_pd(x, magnitude), huge);
            const __m128d hit = _mm_or_pd(_mm_or_pd(_mm_cmpeq_pd(x, a), _mm_cmpeq_pd(x, b)),
                                          _mm_or_pd(_mm_cmpeq_pd(x, d), far));
            if (markers && _mm_movemask_pd(hit) != 0)
                break;
        }
        nan = _mm_movemask_pd(nans) != 0;
    }
#endif
    for (; c < n; ++c) {
        if (markers && IsMarker(v[c]))
            return {c, nan};
        nan = nan || std::isnan(v[c]);
    }
    return {n, nan};
}

// Clears the validity bit of every NaN pixel, making the mask first where there is none:
// what GDAL's nodata masker does for a nodata value of NaN, done here only for a chunk
// that holds one. GDAL frees the mask with the chunk.
template <class T> void MaskNaN(GDALWarpKernel& k, const T* v, std::size_t n) {
    if (k.panUnifiedSrcValid == nullptr) {
        const std::size_t words = (n + WARP_EXTRA_ELTS + 31) / 32;
        k.panUnifiedSrcValid = static_cast<GUInt32*>(CPLMalloc(words * sizeof(GUInt32)));
        std::fill(k.panUnifiedSrcValid, k.panUnifiedSrcValid + words, ~GUInt32{0});
    }
    for (std::size_t i = 0; i < n; ++i)
        if (std::isnan(v[i]))
            k.panUnifiedSrcValid[i >> 5] &= ~(GUInt32{1} << (i & 31));
}

// Looks at each chunk of source pixels the warper has read, before it resamples them, so
// markers are caught, and NaN masked, without reading the source a second time. This runs
// while the warp waits, the reading of the next chunk mostly finished: a large chunk's
// second half is looked at on another core.
CPLErr LookAtChunk(void* kernel, void* arg) {
    auto& k = *static_cast<GDALWarpKernel*>(kernel);
    auto* look = static_cast<ChunkLook*>(arg);
    const std::size_t n =
        static_cast<std::size_t>(k.nSrcXSize) * static_cast<std::size_t>(k.nSrcYSize);
    const auto scan = [&](const auto* v) {
        const std::size_t half = n / 2;
        Scanned later{n, false};
        std::thread second;
        if (half >= (std::size_t{1} << 20)) {
            try {
                second = std::thread([&] {
                    later = ScanPixels(v + half, n - half, look->markers);
                    later.marker += half;
                });
            } catch (...) {
                // No thread: the whole chunk is looked at here.
            }
        }
        Scanned found{n, false};
        if (second.joinable()) {
            found = ScanPixels(v, half, look->markers);
            second.join();
            if (found.marker == half)
                found = {later.marker, found.nan || later.nan};
        } else {
            found = ScanPixels(v, n, look->markers);
        }
        if (found.marker < n) {
            look->seen = true;
            look->value = static_cast<double>(v[found.marker]);
            return CE_Failure;
        }
        if (look->nanMask && found.nan)
            MaskNaN(k, v, n);
        return CE_None;
    };
    if (k.eWorkingDataType == GDT_Float32)
        return scan(reinterpret_cast<const float*>(k.papabySrcImage[0]));
    return scan(reinterpret_cast<const double*>(k.papabySrcImage[0]));
}

// What happens to each chunk the warper has made, before it is copied into the grid.
struct ChunkMade {
    double factor = 1;  // unit and sign, applied to working doubles
    bool floats = false; // the working type is float: the chunk holds the grid's values
    const WarpSettings* settings = nullptr; // its chunkDone gets float chunks; or null
    std::atomic<std::int64_t> handedOver{0};
    // The chunks' places, x, y, width, height: cells outside them were never written.
    std::mutex mutex;
    std::vector<std::array<int, 4>> windows;
};
CPLErr OnChunkMade(void* kernel, void* arg) {
    const auto* k = static_cast<const GDALWarpKernel*>(kernel);
    auto* made = static_cast<ChunkMade*>(arg);
    const std::size_t n =
        static_cast<std::size_t>(k->nDstXSize) * static_cast<std::size_t>(k->nDstYSize);
    // Elevations in metres while the values are still doubles, before they are rounded
    // to the grid's floats.
    if (made->factor != 1) {
        auto* v = reinterpret_cast<double*>(k->papabyDstImage[0]);
        for (std::size_t c = 0; c < n; ++c)
            v[c] *= made->factor; // NaN stays NaN
    }
    if (made->floats && made->settings != nullptr) {
        made->settings->chunkDone(k->nDstXOff, k->nDstYOff, k->nDstXSize, k->nDstYSize,
                                  reinterpret_cast<const float*>(k->papabyDstImage[0]));
        made->handedOver += static_cast<std::int64_t>(n);
    }
    const std::lock_guard<std::mutex> lock(made->mutex);
    made->windows.push_back({k->nDstXOff, k->nDstYOff, k->nDstXSize, k->nDstYSize});
    return CE_None;
}

// NaN in every cell that no chunk covered: the cells a warp initialising every chunk to
// NaN leaves NaN, had GDAL left one out.
void FillUnwarped(Grid2d<float>& cells, std::vector<std::array<int, 4>> windows) {
    std::sort(windows.begin(), windows.end());
    const int nx = cells.Columns();
    for (int j = 0; j < cells.Rows(); ++j) {
        float* row = cells.Data() + static_cast<std::size_t>(j) * static_cast<std::size_t>(nx);
        int x = 0; // cells before x are covered or filled
        for (const auto& [wx, wy, width, height] : windows) {
            if (j < wy || j >= wy + height)
                continue;
            std::fill(row + x, row + std::max(x, wx), std::numeric_limits<float>::quiet_NaN());
            x = std::max(x, wx + width);
        }
        std::fill(row + std::min(x, nx), row + nx, std::numeric_limits<float>::quiet_NaN());
    }
}

// What GDAL says in the warper's own threads, which the quiet handler of the thread that
// started the warp does not hear: the last failure of the first thread that failed, so
// the message gives the reason a single thread would have given.
class ThreadErrors {
  public:
    ThreadErrors() : previous_(CPLSetErrorHandlerEx(Hear, this)) {}
    ~ThreadErrors() { CPLSetErrorHandler(previous_); }
    ThreadErrors(const ThreadErrors&) = delete;
    ThreadErrors& operator=(const ThreadErrors&) = delete;

    [[nodiscard]] std::string Reason() {
        const std::lock_guard<std::mutex> lock(mutex_);
        return text_.empty() ? std::string() : " (" + text_ + ")";
    }

  private:
    static void CPL_STDCALL Hear(CPLErr level, CPLErrorNum, const char* text) {
        auto* self = static_cast<ThreadErrors*>(CPLGetErrorHandlerUserData());
        if (self == nullptr || level < CE_Failure || text == nullptr)
            return;
        const std::lock_guard<std::mutex> lock(self->mutex_);
        if (self->text_.empty() || self->thread_ == std::this_thread::get_id()) {
            self->thread_ = std::this_thread::get_id();
            self->text_ = text;
        }
    }

    CPLErrorHandler previous_;
    std::mutex mutex_;
    std::thread::id thread_;
    std::string text_;
};

// Warps band 1 of `src` into lines firstLine .. firstLine + lines - 1 of `dst`, which are
// set to NaN first; cells the source holds no valid data for stay NaN. A source without
// nodata stops at the first marker it holds where the grid reads it, unless it keeps them.
void WarpInto(const OpenedSource& src, const WarpSource& source, int position,
              GDALDataset& dst, GDALResampleAlg algorithm, const WarpSettings& settings,
              int firstLine, int lines, double progressFrom, double progressTo,
              ChunkMade* made = nullptr) {
    const std::string& path = source.path;
    CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
    CPLErrorReset();
    std::unique_ptr<GDALWarpOptions, WarpOptionsDeleter> options(GDALCreateWarpOptions());
    options->hSrcDS = GDALDataset::ToHandle(src.ds.get());
    options->hDstDS = GDALDataset::ToHandle(&dst);
    options->nBandCount = 1;
    options->panSrcBands = static_cast<int*>(CPLMalloc(sizeof(int)));
    options->panSrcBands[0] = 1;
    options->panDstBands = static_cast<int*>(CPLMalloc(sizeof(int)));
    options->panDstBands[0] = 1;
    options->eResampleAlg = algorithm;
    options->dfWarpMemoryLimit = settings.memoryLimitBytes;

    GDALRasterBand* band = src.ds->GetRasterBand(1);
    const bool floating = GDALDataTypeIsFloating(band->GetRasterDataType());
    ChunkLook look;
    look.markers = !src.hasNoData && !source.keepMarkers;
    if (src.hasNoData) {
        options->padfSrcNoDataReal = static_cast<double*>(CPLMalloc(sizeof(double)));
        options->padfSrcNoDataReal[0] = src.noData;
    } else {
        // A float source without nodata may still hold NaN where it knows nothing. The
        // look that reads every pixel for markers masks them too, in the rare chunk that
        // holds one, rather than GDAL's masker reading every pixel once more.
        look.nanMask = floating && band->GetMaskFlags() == GMF_ALL_VALID;
    }
    options->padfDstNoDataReal = static_cast<double*>(CPLMalloc(sizeof(double)));
    options->padfDstNoDataReal[0] = std::numeric_limits<double>::quiet_NaN();
    options->papszWarpOptions = CSLSetNameValue(options->papszWarpOptions, "INIT_DEST", "NO_DATA");
    // Every core resamples its share of each chunk's rows, while the next chunk is read.
    options->papszWarpOptions =
        CSLSetNameValue(options->papszWarpOptions, "NUM_THREADS", "ALL_CPUS");

    // As gdalwarp does: the exact transformation sampled along each row, within an
    // eighth of a cell.
    void* exact = ExactTransformer(src, dst, settings.epsg, path);
    std::unique_ptr<void, TransformerDeleter> approx(
        GDALCreateApproxTransformer(GDALGenImgProjTransform, exact, 0.125));
    GDALApproxTransformerOwnsSubtransformer(approx.get(), TRUE);
    options->pfnTransformer = GDALApproxTransform;
    options->pTransformerArg = approx.get();
    // The kernels resample in doubles whatever the working type, which only holds the
    // source pixels and the results: floats hold a float or 16-bit source exactly, and
    // round each result to the grid's float once, as doubles rounded when the chunk is
    // handed over would, with half the memory to fill and read. A unit or sign is applied
    // to the doubles, before that rounding, and a source of doubles needs them.
    double factor = src.factor;
    const GDALDataType type = band->GetRasterDataType();
    const bool floatsHold = factor == 1 && (type == GDT_Float32 || type == GDT_Byte ||
                                            type == GDT_Int16 || type == GDT_UInt16);
    options->eWorkingDataType = floatsHold ? GDT_Float32 : GDT_Float64;
    ChunkMade own;
    if (made == nullptr)
        made = &own;
    made->factor = factor;
    made->floats = floatsHold;
    if (factor != 1 || made != &own) {
        options->pfnPostWarpChunkProcessor = OnChunkMade;
        options->pPostWarpProcessorArg = made;
    }
    if (look.markers || look.nanMask) {
        options->pfnPreWarpChunkProcessor = LookAtChunk;
        options->pPreWarpProcessorArg = &look;
    }

    std::unique_ptr<void, ScaledProgressDeleter> progress;
    if (settings.progress != nullptr) {
        progress.reset(GDALCreateScaledProgress(progressFrom, progressTo, settings.progress,
                                                settings.progressArg));
        options->pfnProgress = GDALScaledProgress;
        options->pProgressArg = progress.get();
    }

    ThreadErrors threadErrors;
    GDALWarpOperation operation;
    const bool warped =
        operation.Initialize(options.get()) == CE_None &&
        operation.ChunkAndWarpMulti(0, firstLine, dst.GetRasterXSize(), lines) == CE_None;
    if (look.seen)
        throw PrepError(StringPrintf(
            "%s: holds %.9g where the grid reads it, which marks missing data in many files, "
            "but the source has no nodata tag, so it would be resampled into real cells; name "
            "the marker with --source-nodata %.9g (or --nodata-source %d %.9g), or take such "
            "values as real with --keep-markers",
            path.c_str(), look.value, look.value, position, look.value));
    if (!warped) {
        const std::string reason = LastGdalError();
        throw PrepError(path + ": the warp failed" +
                        (reason.empty() ? threadErrors.Reason() : reason));
    }
}

// Whether every valid value of the whole source is one number, `value`, read a few lines
// at a time until a second number shows. A failed read ends in PrepError with GDAL's
// reason: a damaged file must not pass for one of zeros.
bool HoldsOneNumber(const OpenedSource& src, const std::string& path, double& value) {
    CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
    CPLErrorReset();
    GDALRasterBand* band = src.ds->GetRasterBand(1);
    const int width = src.ds->GetRasterXSize();
    const int height = src.ds->GetRasterYSize();
    const int step = static_cast<int>(std::clamp<std::size_t>(
        kBandBytes / (static_cast<std::size_t>(width) * sizeof(double)), 1,
        static_cast<std::size_t>(height)));
    std::vector<double> lines;
    bool seen = false;
    for (int y = 0; y < height; y += step) {
        const int count = std::min(step, height - y);
        lines.resize(static_cast<std::size_t>(width) * static_cast<std::size_t>(count));
        if (band->RasterIO(GF_Read, 0, y, width, count, lines.data(), width, count,
                           GDT_Float64, 0, 0, nullptr) != CE_None)
            throw PrepError(path + ": GDAL cannot read its values; the file may be damaged or "
                                   "cut short" + LastGdalError());
        for (double v : lines) {
            if (std::isnan(v) || (src.hasNoData && v == src.noData))
                continue;
            if (seen && v != value)
                return false;
            value = v;
            seen = true;
        }
    }
    return seen;
}

// A dataset over `cells` itself: line j is grid row j, from the south, so the warp writes
// the region's rows in place with a south-up georeference. The warper works in doubles
// and rounds each cell to a float as it hands a chunk over: the value the grid file
// stores, with no copy of the grid in doubles.
GDALDatasetUniquePtr DatasetOver(Grid2d<float>& cells, const GridGeometry& grid,
                                 const OGRSpatialReference& srs) {
    GDALDriver* mem = GetGDALDriverManager()->GetDriverByName("MEM");
    GDALDatasetUniquePtr ds(mem->Create("", grid.nx, grid.ny, 0, GDT_Float32, nullptr));
    if (!ds)
        throw PrepError("GDAL cannot make an in-memory raster" + LastGdalError());
    char pointer[64];
    std::snprintf(pointer, sizeof pointer, "%p", static_cast<void*>(cells.Data()));
    CPLStringList bandOptions;
    bandOptions.SetNameValue("DATAPOINTER", pointer);
    if (ds->AddBand(GDT_Float32, bandOptions.List()) != CE_None)
        throw PrepError("GDAL cannot make an in-memory raster" + LastGdalError());
    double transform[6] = {grid.orgX - 0.5 * grid.spacing, grid.spacing, 0,
                           grid.orgY - 0.5 * grid.spacing, 0, grid.spacing};
    ds->SetGeoTransform(transform);
    ds->SetSpatialRef(&srs);
    return ds;
}

// The lowest and highest value a source gave the grid.
struct Span {
    double low = std::numeric_limits<double>::infinity();
    double high = -std::numeric_limits<double>::infinity();
    void Add(double v) {
        low = std::min(low, v);
        high = std::max(high, v);
    }
};

// A row's lowest and highest value other than NaN, and how many of its values are NaN and
// how many are not finite, gathered four values at a time: a grid's rows are looked at
// once each while still in the cache.
struct RowFigures {
    double low = std::numeric_limits<double>::infinity();
    double high = -std::numeric_limits<double>::infinity();
    std::size_t nan = 0;
    std::size_t notFinite = 0;

    // Whether the figures decide the row as a scan value by value would: every value but
    // NaN is finite, and neither extreme is a zero, whose sign only the order of a scan
    // decides when both zeros occur.
    [[nodiscard]] bool Plain() const { return notFinite == nan && low != 0 && high != 0; }
};

RowFigures FiguresOf(const float* row, std::size_t n) {
    RowFigures f;
    std::size_t c = 0;
#if defined(__SSE2__)
    __m128 low = _mm_set1_ps(std::numeric_limits<float>::infinity());
    __m128 high = _mm_set1_ps(-std::numeric_limits<float>::infinity());
    __m128i nan = _mm_setzero_si128();
    __m128i notFinite = _mm_setzero_si128();
    const __m128 magnitude = _mm_castsi128_ps(_mm_set1_epi32(0x7fffffff));
    const __m128 largest = _mm_set1_ps(std::numeric_limits<float>::max());
    for (; c + 4 <= n; c += 4) {
        const __m128 x = _mm_loadu_ps(row + c);
        low = _mm_min_ps(x, low); // NaN in x leaves the bound as it was
        high = _mm_max_ps(x, high);
        nan = _mm_sub_epi32(nan, _mm_castps_si128(_mm_cmpunord_ps(x, x)));
        notFinite = _mm_sub_epi32(
            notFinite, _mm_castps_si128(_mm_cmpnle_ps(_mm_and_ps(x, magnitude), largest)));
    }
    float lanes[4];
    _mm_storeu_ps(lanes, low);
    f.low = std::min({lanes[0], lanes[1], lanes[2], lanes[3]});
    _mm_storeu_ps(lanes, high);
    f.high = std::max({lanes[0], lanes[1], lanes[2], lanes[3]});
    std::int32_t counts[4];
    _mm_storeu_si128(reinterpret_cast<__m128i*>(counts), nan);
    f.nan = static_cast<std::size_t>(counts[0]) + static_cast<std::size_t>(counts[1]) +
            static_cast<std::size_t>(counts[2]) + static_cast<std::size_t>(counts[3]);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(counts), notFinite);
    f.notFinite = static_cast<std::size_t>(counts[0]) + static_cast<std::size_t>(counts[1]) +
                  static_cast<std::size_t>(counts[2]) + static_cast<std::size_t>(counts[3]);
#endif
    for (; c < n; ++c) {
        if (std::isnan(row[c])) {
            ++f.nan;
            ++f.notFinite;
            continue;
        }
        f.low = std::min(double{row[c]}, f.low);
        f.high = std::max(double{row[c]}, f.high);
        if (!std::isfinite(row[c]))
            ++f.notFinite;
    }
    return f;
}

// What the finished grid holds: the span of its values and the box of the cells no source
// covers (cell indices), gathered row by row, rows in order from the south.
struct Coverage {
    Span values;
    std::int64_t uncovered = 0;
    std::int64_t beyondFloat = 0;
    std::int32_t minI = 0;
    std::int32_t minJ = 0;
    std::int32_t maxI = 0;
    std::int32_t maxJ = 0;

    void AddRow(const float* row, int j, int nx) {
        AddRow(row, j, nx, FiguresOf(row, static_cast<std::size_t>(nx)));
    }

    // The same, with the row's figures already gathered.
    void AddRow(const float* row, int j, int nx, const RowFigures& f) {
        if (!f.Plain()) {
            for (int i = 0; i < nx; ++i) {
                if (std::isfinite(row[i]))
                    values.Add(double{row[i]});
                else if (std::isnan(row[i]))
                    AddUncovered(i, i, j, 1);
                else
                    ++beyondFloat;
            }
            return;
        }
        if (f.nan < static_cast<std::size_t>(nx)) {
            values.Add(f.low);
            values.Add(f.high);
        }
        if (f.nan > 0) {
            int first = 0;
            while (!std::isnan(row[first]))
                ++first;
            int lastNan = nx - 1;
            while (!std::isnan(row[lastNan]))
                --lastNan;
            AddUncovered(first, lastNan, j, static_cast<std::int64_t>(f.nan));
        }
    }

  private:
    void AddUncovered(int firstI, int lastI, int j, std::int64_t count) {
        if (uncovered == 0) {
            minI = firstI;
            maxI = lastI;
            minJ = j;
        }
        uncovered += count;
        minI = std::min(minI, firstI);
        maxI = std::max(maxI, lastI);
        maxJ = j;
    }
};

// Counts the values a source gave a row (all but NaN) and notes their span; answers the
// row's figures.
RowFigures TakeRow(const float* row, std::size_t nx, Span& span, std::int64_t& count) {
    const RowFigures f = FiguresOf(row, nx);
    if (f.Plain()) {
        if (f.nan < nx) {
            span.Add(f.low);
            span.Add(f.high);
        }
        count += static_cast<std::int64_t>(nx - f.nan);
        return f;
    }
    for (std::size_t c = 0; c < nx; ++c)
        if (!std::isnan(row[c])) {
            span.Add(double{row[c]});
            ++count;
        }
    return f;
}

} // namespace

bool IsResamplingName(const std::string& name) {
    return std::any_of(std::begin(kAlgorithms), std::end(kAlgorithms),
                       [&](const NamedAlgorithm& a) { return name == a.name; });
}

void CheckSources(const std::vector<WarpSource>& sources) {
    GDALAllRegister();
    for (const WarpSource& source : sources)
        (void)OpenSource(source); // closed again: only the checks matter here
}

bool SourcesMeet(const std::vector<WarpSource>& sources, const Bounds& lonLat) {
    GDALAllRegister();
    OGRSpatialReference wgs84;
    {
        CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
        wgs84.importFromEPSG(4326);
    }
    wgs84.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
    for (const WarpSource& source : sources) {
        OpenedSource src;
        try {
            src = OpenSource(source);
        } catch (const PrepError&) {
            continue; // reported where the source is warped
        }
        CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
        TransformPtr toLonLat(OGRCreateCoordinateTransformation(&src.srs, &wgs84));
        if (!toLonLat)
            continue;
        double t[6];
        src.ds->GetGeoTransform(t);
        constexpr int kSteps = 16;
        std::vector<double> xs;
        std::vector<double> ys;
        for (int a = 0; a <= kSteps; ++a)
            for (int b = 0; b <= kSteps; ++b) {
                const double p = src.ds->GetRasterXSize() * static_cast<double>(a) / kSteps;
                const double l = src.ds->GetRasterYSize() * static_cast<double>(b) / kSteps;
                xs.push_back(t[0] + p * t[1] + l * t[2]);
                ys.push_back(t[3] + p * t[4] + l * t[5]);
            }
        std::vector<int> ok(xs.size());
        toLonLat->Transform(xs.size(), xs.data(), ys.data(), nullptr, ok.data());
        Bounds extent = {std::numeric_limits<double>::infinity(),
                         std::numeric_limits<double>::infinity(),
                         -std::numeric_limits<double>::infinity(),
                         -std::numeric_limits<double>::infinity()};
        for (std::size_t k = 0; k < xs.size(); ++k)
            if (ok[k] && std::isfinite(xs[k]) && std::isfinite(ys[k]))
                extent = {std::min(extent[0], xs[k]), std::min(extent[1], ys[k]),
                          std::max(extent[2], xs[k]), std::max(extent[3], ys[k])};
        if (lonLat[0] < extent[2] && lonLat[2] > extent[0] && lonLat[1] < extent[3] &&
            lonLat[3] > extent[1])
            return true;
    }
    return false;
}

WarpOutcome WarpSources(const GridGeometry& grid, const std::vector<WarpSource>& sources,
                        const WarpSettings& settings, Grid2d<float>& cells) {
    GDALAllRegister();
    const OGRSpatialReference srs = TargetSystem(settings.epsg);
    std::vector<OpenedSource> opened;
    for (const WarpSource& source : sources)
        opened.push_back(OpenSource(source));

    WarpOutcome outcome;
    for (std::size_t k = 0; k < sources.size(); ++k) {
        SourceShare share;
        share.path = sources[k].path;
        share.notes = opened[k].notes;
        if (!settings.resampling.empty()) {
            share.resampling = settings.resampling;
        } else {
            const double sourceSpacing = SourceSpacingAtCentre(opened[k], srs, grid);
            share.resampling = sourceSpacing > 0 && grid.spacing > sourceSpacing ? "average"
                                                                                 : "bilinear";
        }
        outcome.sources.push_back(share);
    }

    // The first warp writes every cell, each chunk set to NaN before it is warped: the
    // grid's memory is first touched there, as the warper hands the chunks over while it
    // warps the next, rather than filled beforehand on one core.
    {
        GridVector<float> unwritten(static_cast<std::size_t>(grid.nx) *
                                    static_cast<std::size_t>(grid.ny));
        cells.Adopt(grid.nx, grid.ny, std::move(unwritten));
    }
    GDALDatasetUniquePtr target = DatasetOver(cells, grid, srs);

    // Bands of rows as many as 32 MB of doubles hold, fixed like the warper's chunks: the
    // warper approximates the transformation within each band it is given, so other bands
    // would move the last bits of some cells.
    const std::size_t nx = static_cast<std::size_t>(grid.nx);
    const int bandRows = static_cast<int>(
        std::clamp<std::size_t>(kBandBytes / (nx * sizeof(double)), 1, static_cast<std::size_t>(grid.ny)));
    std::vector<float> saved;
    std::vector<Span> spans(sources.size());
    Coverage coverage;
    const double perSource = 1.0 / static_cast<double>(sources.size());

    // Last source first: it wins wherever it holds data, each earlier one fills what is
    // still empty, so every cell is decided once and counted for the source it came from.
    // Each row is looked at while it is still in the cache: its new cells counted and, by
    // the last source to reach it, its coverage noted.
    for (std::size_t done = 0; done < sources.size(); ++done) {
        const std::size_t k = sources.size() - 1 - done;
        const bool last = done + 1 == sources.size();
        const GDALResampleAlg algorithm = AlgorithmNamed(outcome.sources[k].resampling);
        std::int64_t& count = outcome.sources[k].cells;
        Span& span = spans[k];
        const double progressFrom = static_cast<double>(done) * perSource;

        if (done == 0) {
            ChunkMade made;
            if (sources.size() == 1 && settings.chunkDone)
                made.settings = &settings;
            WarpInto(opened[k], sources[k], static_cast<int>(k + 1), *target, algorithm,
                     settings, 0, grid.ny, progressFrom, progressFrom + perSource, &made);
            outcome.handedOver = made.handedOver;
            FillUnwarped(cells, std::move(made.windows));
            for (int j = 0; j < grid.ny; ++j) {
                const float* row = cells.Data() + static_cast<std::size_t>(j) * nx;
                const RowFigures figures = TakeRow(row, nx, span, count);
                if (last)
                    coverage.AddRow(row, j, grid.nx, figures);
            }
            continue;
        }
        for (int first = 0; first < grid.ny; first += bandRows) {
            const int rows = std::min(bandRows, grid.ny - first);
            float* band = cells.Data() + static_cast<std::size_t>(first) * nx;
            const std::size_t n = static_cast<std::size_t>(rows) * nx;
            if (std::none_of(band, band + n, [](float v) { return std::isnan(v); })) {
                for (int r = 0; last && r < rows; ++r)
                    coverage.AddRow(band + static_cast<std::size_t>(r) * nx, first + r, grid.nx);
                continue;
            }
            saved.assign(band, band + n);
            const double share = perSource * rows / grid.ny;
            const double bandFrom = progressFrom + perSource * first / grid.ny;
            WarpInto(opened[k], sources[k], static_cast<int>(k + 1), *target, algorithm,
                     settings, first, rows, bandFrom, bandFrom + share);
            for (int r = 0; r < rows; ++r) {
                const std::size_t from = static_cast<std::size_t>(r) * nx;
                float* row = band + from;
                const float* before = saved.data() + from;
                for (std::size_t c = 0; c < nx; ++c) {
                    if (!std::isnan(before[c])) {
                        row[c] = before[c];
                    } else if (!std::isnan(row[c])) {
                        span.Add(double{row[c]});
                        ++count;
                    }
                }
                if (last)
                    coverage.AddRow(row, first + r, grid.nx);
            }
        }
    }
    if (settings.progress != nullptr)
        settings.progress(1.0, "", settings.progressArg);

    // A source that gave the grid one value (within the rounding of resampling weights)
    // may hold only that number: an empty export, or a damaged file read as zeros.
    for (std::size_t k = 0; k < sources.size(); ++k) {
        const Span& span = spans[k];
        double value = 0;
        if (outcome.sources[k].cells > 0 &&
            span.high - span.low <= 1e-9 * std::max(1.0, std::fabs(span.high)) &&
            HoldsOneNumber(opened[k], sources[k].path, value))
            throw PrepError(StringPrintf("%s: every value it holds is %.10g; a source of one "
                                         "number is no topography (an empty export, or a file "
                                         "read wrongly); leave it out or export it again",
                                         sources[k].path.c_str(), value));
    }

    outcome.uncovered = coverage.uncovered;
    outcome.beyondFloat = coverage.beyondFloat;
    outcome.uncoveredMinI = coverage.minI;
    outcome.uncoveredMinJ = coverage.minJ;
    outcome.uncoveredMaxI = coverage.maxI;
    outcome.uncoveredMaxJ = coverage.maxJ;
    const bool covered = coverage.values.low <= coverage.values.high;
    outcome.valMin = covered ? coverage.values.low : std::numeric_limits<double>::quiet_NaN();
    outcome.valMax = covered ? coverage.values.high : std::numeric_limits<double>::quiet_NaN();
    return outcome;
}
