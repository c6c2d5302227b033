#include "prep/Warp.hpp"

#include "prep/PrepError.hpp"
#include "project/Console.hpp"

#include <cpl_conv.h>
#include <cpl_error.h>
#include <cpl_string.h>
#include <gdal_alg.h>
#include <gdal_priv.h>
#include <gdalwarper.h>
#include <ogr_spatialref.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>

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

GDALDatasetUniquePtr OpenSource(const std::string& path) {
    CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
    CPLErrorReset();
    GDALDatasetUniquePtr ds(GDALDataset::Open(path.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY));
    if (!ds)
        throw PrepError(path + ": GDAL cannot open it as a raster" + LastGdalError());
    if (ds->GetRasterCount() < 1)
        throw PrepError(path + ": holds no raster band");
    double transform[6];
    if (ds->GetGeoTransform(transform) != CE_None)
        throw PrepError(path + ": has no georeference (no geotransform); give it one, "
                               "for example with gdal_translate -a_ullr");
    if (ds->GetSpatialRef() == nullptr || ds->GetSpatialRef()->IsEmpty())
        throw PrepError(path + ": has no coordinate system; give it one, for example with "
                               "gdal_translate -a_srs EPSG:4326 " + path + " with-system.tif");
    return ds;
}

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
double SourceSpacingAtCentre(GDALDataset& src, const OGRSpatialReference& target,
                             const GridGeometry& grid) {
    CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
    OGRSpatialReference source(*src.GetSpatialRef());
    source.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
    TransformPtr toSource(OGRCreateCoordinateTransformation(&target, &source));
    TransformPtr toTarget(OGRCreateCoordinateTransformation(&source, &target));
    if (!toSource || !toTarget)
        return 0;
    double transform[6];
    src.GetGeoTransform(transform);
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

// Warps band 1 of `src` into lines firstLine .. firstLine + lines - 1 of `dst`, which are
// set to NaN first; cells the source holds no valid data for stay NaN.
void WarpInto(GDALDataset& src, GDALDataset& dst, GDALResampleAlg algorithm,
              const WarpSettings& settings, int firstLine, int lines, double progressFrom,
              double progressTo, const std::string& path) {
    CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
    CPLErrorReset();
    std::unique_ptr<GDALWarpOptions, WarpOptionsDeleter> options(GDALCreateWarpOptions());
    options->hSrcDS = GDALDataset::ToHandle(&src);
    options->hDstDS = GDALDataset::ToHandle(&dst);
    options->nBandCount = 1;
    options->panSrcBands = static_cast<int*>(CPLMalloc(sizeof(int)));
    options->panSrcBands[0] = 1;
    options->panDstBands = static_cast<int*>(CPLMalloc(sizeof(int)));
    options->panDstBands[0] = 1;
    options->eResampleAlg = algorithm;
    options->dfWarpMemoryLimit = settings.memoryLimitBytes;

    GDALRasterBand* band = src.GetRasterBand(1);
    int hasNoData = FALSE;
    const double noData = band->GetNoDataValue(&hasNoData);
    const bool floating = GDALDataTypeIsFloating(band->GetRasterDataType());
    if (hasNoData || (floating && band->GetMaskFlags() == GMF_ALL_VALID)) {
        // A float source without nodata may still hold NaN where it knows nothing.
        options->padfSrcNoDataReal = static_cast<double*>(CPLMalloc(sizeof(double)));
        options->padfSrcNoDataReal[0] = hasNoData ? noData : std::numeric_limits<double>::quiet_NaN();
    }
    options->padfDstNoDataReal = static_cast<double*>(CPLMalloc(sizeof(double)));
    options->padfDstNoDataReal[0] = std::numeric_limits<double>::quiet_NaN();
    options->papszWarpOptions = CSLSetNameValue(options->papszWarpOptions, "INIT_DEST", "NO_DATA");

    // As gdalwarp does: the exact transformation sampled along each row, within an
    // eighth of a cell.
    void* exact = GDALCreateGenImgProjTransformer2(options->hSrcDS, options->hDstDS, nullptr);
    if (exact == nullptr)
        throw PrepError(path + ": its coordinate system cannot be carried to EPSG " +
                        std::to_string(settings.epsg) + LastGdalError());
    std::unique_ptr<void, TransformerDeleter> approx(
        GDALCreateApproxTransformer(GDALGenImgProjTransform, exact, 0.125));
    GDALApproxTransformerOwnsSubtransformer(approx.get(), TRUE);
    options->pfnTransformer = GDALApproxTransform;
    options->pTransformerArg = approx.get();
    GDALWarpResolveWorkingDataType(options.get());

    std::unique_ptr<void, ScaledProgressDeleter> progress;
    if (settings.progress != nullptr) {
        progress.reset(GDALCreateScaledProgress(progressFrom, progressTo, settings.progress,
                                                settings.progressArg));
        options->pfnProgress = GDALScaledProgress;
        options->pProgressArg = progress.get();
    }

    GDALWarpOperation operation;
    if (operation.Initialize(options.get()) != CE_None ||
        operation.ChunkAndWarpImage(0, firstLine, dst.GetRasterXSize(), lines) != CE_None)
        throw PrepError(path + ": the warp failed" + LastGdalError());
}

// A dataset over `cells` itself: line j is grid row j, from the south, so the warp writes
// the region's rows in place with a south-up georeference.
GDALDatasetUniquePtr DatasetOver(Grid2d<double>& cells, const GridGeometry& grid,
                                 const OGRSpatialReference& srs) {
    GDALDriver* mem = GetGDALDriverManager()->GetDriverByName("MEM");
    GDALDatasetUniquePtr ds(mem->Create("", grid.nx, grid.ny, 0, GDT_Float64, nullptr));
    if (!ds)
        throw PrepError("GDAL cannot make an in-memory raster" + LastGdalError());
    char pointer[64];
    std::snprintf(pointer, sizeof pointer, "%p", static_cast<void*>(cells.Data()));
    CPLStringList bandOptions;
    bandOptions.SetNameValue("DATAPOINTER", pointer);
    if (ds->AddBand(GDT_Float64, bandOptions.List()) != CE_None)
        throw PrepError("GDAL cannot make an in-memory raster" + LastGdalError());
    double transform[6] = {grid.orgX - 0.5 * grid.spacing, grid.spacing, 0,
                           grid.orgY - 0.5 * grid.spacing, 0, grid.spacing};
    ds->SetGeoTransform(transform);
    ds->SetSpatialRef(&srs);
    return ds;
}

} // namespace

bool IsResamplingName(const std::string& name) {
    return std::any_of(std::begin(kAlgorithms), std::end(kAlgorithms),
                       [&](const NamedAlgorithm& a) { return name == a.name; });
}

void CheckSources(const std::vector<WarpSource>& sources) {
    GDALAllRegister();
    for (const WarpSource& source : sources)
        (void)OpenSource(source.path); // closed again: only the checks matter here
}

WarpOutcome WarpSources(const GridGeometry& grid, const std::vector<WarpSource>& sources,
                        const WarpSettings& settings, Grid2d<double>& cells) {
    GDALAllRegister();
    const OGRSpatialReference srs = TargetSystem(settings.epsg);
    std::vector<GDALDatasetUniquePtr> opened;
    for (const WarpSource& source : sources)
        opened.push_back(OpenSource(source.path));

    WarpOutcome outcome;
    for (std::size_t k = 0; k < sources.size(); ++k) {
        SourceShare share;
        share.path = sources[k].path;
        if (!settings.resampling.empty()) {
            share.resampling = settings.resampling;
        } else {
            const double sourceSpacing = SourceSpacingAtCentre(*opened[k], srs, grid);
            share.resampling = sourceSpacing > 0 && grid.spacing > sourceSpacing ? "average"
                                                                                 : "bilinear";
        }
        outcome.sources.push_back(share);
    }

    cells.Assign(grid.nx, grid.ny, std::numeric_limits<double>::quiet_NaN());
    GDALDatasetUniquePtr target = DatasetOver(cells, grid, srs);
    const std::size_t nx = static_cast<std::size_t>(grid.nx);
    const int bandRows = static_cast<int>(
        std::clamp<std::size_t>(kBandBytes / (nx * sizeof(double)), 1, static_cast<std::size_t>(grid.ny)));
    std::vector<double> saved;
    const double perSource = 1.0 / static_cast<double>(sources.size());

    // Last source first: it wins wherever it holds data, each earlier one fills what is
    // still empty, so every cell is decided once and counted for the source it came from.
    for (std::size_t done = 0; done < sources.size(); ++done) {
        const std::size_t k = sources.size() - 1 - done;
        const GDALResampleAlg algorithm = AlgorithmNamed(outcome.sources[k].resampling);
        const double sign = sources[k].depthPositive ? -1.0 : 1.0;
        std::int64_t& count = outcome.sources[k].cells;
        const double progressFrom = static_cast<double>(done) * perSource;

        if (done == 0) {
            WarpInto(*opened[k], *target, algorithm, settings, 0, grid.ny, progressFrom,
                     progressFrom + perSource, sources[k].path);
            double* v = cells.Data();
            for (std::size_t c = 0, n = nx * static_cast<std::size_t>(grid.ny); c < n; ++c)
                if (!std::isnan(v[c])) {
                    v[c] *= sign;
                    ++count;
                }
            continue;
        }
        for (int first = 0; first < grid.ny; first += bandRows) {
            const int rows = std::min(bandRows, grid.ny - first);
            double* band = cells.Data() + static_cast<std::size_t>(first) * nx;
            const std::size_t n = static_cast<std::size_t>(rows) * nx;
            if (std::none_of(band, band + n, [](double v) { return std::isnan(v); }))
                continue;
            saved.assign(band, band + n);
            const double share = perSource * rows / grid.ny;
            const double bandFrom = progressFrom + perSource * first / grid.ny;
            WarpInto(*opened[k], *target, algorithm, settings, first, rows, bandFrom,
                     bandFrom + share, sources[k].path);
            for (std::size_t c = 0; c < n; ++c) {
                if (!std::isnan(saved[c])) {
                    band[c] = saved[c];
                } else if (!std::isnan(band[c])) {
                    band[c] *= sign;
                    ++count;
                }
            }
        }
    }
    if (settings.progress != nullptr)
        settings.progress(1.0, "", settings.progressArg);

    bool first = true;
    for (int j = 0; j < grid.ny; ++j) {
        const double* row = cells.Data() + static_cast<std::size_t>(j) * nx;
        for (int i = 0; i < grid.nx; ++i) {
            if (std::isfinite(row[i]))
                continue;
            ++outcome.uncovered;
            if (first) {
                outcome.uncoveredMinI = outcome.uncoveredMaxI = i;
                outcome.uncoveredMinJ = outcome.uncoveredMaxJ = j;
                first = false;
            }
            outcome.uncoveredMinI = std::min(outcome.uncoveredMinI, i);
            outcome.uncoveredMaxI = std::max(outcome.uncoveredMaxI, i);
            outcome.uncoveredMaxJ = j;
        }
    }
    return outcome;
}
