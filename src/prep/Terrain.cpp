#include "prep/Terrain.hpp"

#include "prep/PrepError.hpp"
#include "prep/Warp.hpp"
#include "project/Console.hpp"

#include <cpl_error.h>
#include <cpl_string.h>
#include <gdal_priv.h>
#include <gdal_utils.h>
#include <ogr_spatialref.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <limits>
#include <memory>

namespace {

struct TransformDeleter {
    void operator()(OGRCoordinateTransformation* c) const {
        OGRCoordinateTransformation::DestroyCT(c);
    }
};



// The grid command's warp of one source onto `grid` (EPSG 4326), its refusals naming the
// source by its place in the user's list: refused, the warp is done again with the source
// at that place (copies of it before), so that the grid command words the refusal itself.
WarpOutcome WarpAsGrid(const GridGeometry& grid, const WarpSource& source, int position,
                       const std::string& resampling, Grid2d<float>& cells) {
    WarpSettings settings;
    settings.epsg = 4326;
    settings.resampling = resampling;
    try {
        return WarpSources(grid, {source}, settings, cells);
    } catch (const PrepError&) {
        if (position <= 1)
            throw;
        (void)WarpSources(grid, std::vector<WarpSource>(position, source), settings, cells);
        throw; // refused only once: that refusal stands
    }
}

} // namespace

SourceFootprint DescribeSource(const WarpSource& source) {
    CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
    const std::string& path = source.path;
    const OpenedSource opened = OpenSource(source);
    GDALDataset* ds = opened.ds.get();
    double t[6];
    (void)ds->GetGeoTransform(t); // checked by OpenSource
    OGRSpatialReference lonLat;
    lonLat.importFromEPSG(4326);
    lonLat.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
    const OGRSpatialReference& own = opened.srs;
    std::unique_ptr<OGRCoordinateTransformation, TransformDeleter> toLonLat(
        OGRCreateCoordinateTransformation(&own, &lonLat));
    if (!toLonLat)
        throw PrepError("the coordinate system of " + path + " cannot be carried to degrees");
    const int nx = ds->GetRasterXSize();
    const int ny = ds->GetRasterYSize();
    constexpr int kSteps = 32;
    std::vector<double> xs;
    std::vector<double> ys;
    for (int s = 0; s <= kSteps; ++s) {
        const double f = static_cast<double>(s) / kSteps;
        const double px[4] = {f * nx, f * nx, 0.0, double(nx)};
        const double py[4] = {0.0, double(ny), f * ny, f * ny};
        for (int k = 0; k < 4; ++k) {
            xs.push_back(t[0] + px[k] * t[1] + py[k] * t[2]);
            ys.push_back(t[3] + px[k] * t[4] + py[k] * t[5]);
        }
    }
    std::vector<int> ok(xs.size());
    toLonLat->Transform(xs.size(), xs.data(), ys.data(), nullptr, ok.data());
    SourceFootprint f;
    f.lonLat = {std::numeric_limits<double>::infinity(), std::numeric_limits<double>::infinity(),
                -std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity()};
    for (std::size_t k = 0; k < xs.size(); ++k)
        if (ok[k] && std::isfinite(xs[k]) && std::isfinite(ys[k]))
            f.lonLat = {std::min(f.lonLat[0], xs[k]), std::min(f.lonLat[1], ys[k]),
                        std::max(f.lonLat[2], xs[k]), std::max(f.lonLat[3], ys[k])};
    if (!(f.lonLat[2] > f.lonLat[0]))
        throw PrepError("the extent of " + path + " cannot be carried to degrees");
    const double cell = std::max(std::hypot(t[1], t[4]), std::hypot(t[2], t[5]));
    if (own.IsGeographic()) {
        const double lat = 0.5 * (f.lonLat[1] + f.lonLat[3]);
        f.cellMetres = cell * kMetresPerDegree * std::max(std::cos(lat * kPlannerPi / 180), 0.01);
        f.cellMetres = std::max(f.cellMetres, std::hypot(t[4], t[5]) * kMetresPerDegree);
    } else {
        f.cellMetres = cell * own.GetLinearUnits();
    }
    return f;
}

RasterTerrain::RasterTerrain(const WarpSource& source, int position, double mostCells,
                             const std::optional<Bounds>& window) {
    const std::string& path = source.path;
    double cells = 0;
    {
        CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
        const OpenedSource opened = OpenSource(source);
        cells = double(opened.ds->GetRasterXSize()) * opened.ds->GetRasterYSize();
    }
    const SourceFootprint f = DescribeSource(source);
    Bounds w = f.lonLat;
    if (window) {
        w = {std::max((*window)[0], w[0]), std::max((*window)[1], w[1]),
             std::min((*window)[2], w[2]), std::min((*window)[3], w[3])};
        if (!(w[2] > w[0]) || !(w[3] > w[1]))
            return; // no cells: NaN everywhere
        cells *= (w[2] - w[0]) * (w[3] - w[1]) /
                 ((f.lonLat[2] - f.lonLat[0]) * (f.lonLat[3] - f.lonLat[1]));
    }
    // Square cells in degrees, as many as the source has there but at most `mostCells`,
    // carried by the grid command's own warp, so that the source's system, nodata, unit
    // and sign are taken as the grids will take them.
    const bool coarsened = cells > mostCells;
    const double spacing =
        std::sqrt((w[2] - w[0]) * (w[3] - w[1]) / std::max(1.0, std::min(cells, mostCells)));
    GridGeometry grid;
    grid.spacing = spacing;
    grid.nx = std::max(1, static_cast<int>(std::ceil((w[2] - w[0]) / spacing)));
    grid.ny = std::max(1, static_cast<int>(std::ceil((w[3] - w[1]) / spacing)));
    grid.orgX = w[0] + 0.5 * spacing;
    grid.orgY = w[1] + 0.5 * spacing;
    Grid2d<float> warped;
    (void)WarpAsGrid(grid, source, position, coarsened ? "near" : "bilinear", warped);
    nx_ = grid.nx;
    ny_ = grid.ny;
    west_ = w[0];
    north_ = w[1] + grid.ny * spacing;
    dLon_ = spacing;
    dLat_ = spacing;
    cells_.resize(static_cast<std::size_t>(nx_) * ny_);
    int minI = nx_, minJ = ny_, maxI = -1, maxJ = -1;
    for (std::int32_t j = 0; j < ny_; ++j)
        for (std::int32_t i = 0; i < nx_; ++i) {
            const double v = warped(i, ny_ - 1 - j); // rows from the north here
            cells_[static_cast<std::size_t>(j) * nx_ + i] = static_cast<float>(v);
            if (!std::isfinite(v))
                continue;
            minI = std::min(minI, i);
            maxI = std::max(maxI, i);
            minJ = std::min(minJ, j);
            maxJ = std::max(maxJ, j);
        }
    if (maxI < 0) {
        if (!window)
            throw PrepError("the elevation source " + path + " holds no valid data");
        cells_.clear();
    }
    extent_ = {west_ + minI * dLon_, north_ - (maxJ + 1) * dLat_, west_ + (maxI + 1) * dLon_,
               north_ - minJ * dLat_};
}

double RasterTerrain::ElevationAt(double lon, double lat) const {
    if (cells_.empty())
        return std::numeric_limits<double>::quiet_NaN();
    // Bilinear between cell centres, as the grid command resamples onto finer cells; the
    // nearest cell where a neighbour holds no data.
    const double fx = (lon - west_) / dLon_ - 0.5;
    const double fy = (north_ - lat) / dLat_ - 0.5;
    const double nearestI = std::floor(fx + 0.5);
    const double nearestJ = std::floor(fy + 0.5);
    if (!(nearestI >= 0 && nearestI < nx_ && nearestJ >= 0 && nearestJ < ny_))
        return std::numeric_limits<double>::quiet_NaN();
    const auto at = [&](double i, double j) {
        i = std::clamp(i, 0.0, double(nx_ - 1));
        j = std::clamp(j, 0.0, double(ny_ - 1));
        return double{cells_[static_cast<std::size_t>(j) * nx_ + static_cast<std::size_t>(i)]};
    };
    const double i0 = std::floor(fx);
    const double j0 = std::floor(fy);
    const double u = fx - i0;
    const double v = fy - j0;
    const double value = (1 - u) * (1 - v) * at(i0, j0) + u * (1 - v) * at(i0 + 1, j0) +
                         (1 - u) * v * at(i0, j0 + 1) + u * v * at(i0 + 1, j0 + 1);
    return std::isfinite(value) ? value : at(nearestI, nearestJ);
}

double LayeredTerrain::ElevationAt(double lon, double lat) const {
    for (auto layer = layers_.rbegin(); layer != layers_.rend(); ++layer) {
        const double v = (*layer)->ElevationAt(lon, lat);
        if (std::isfinite(v))
            return v;
    }
    return std::numeric_limits<double>::quiet_NaN();
}

double LayeredTerrain::LowestIn(const Bounds& b) const {
    double lowest = std::numeric_limits<double>::quiet_NaN();
    for (const auto& layer : layers_) {
        const double v = layer->LowestIn(b);
        if (std::isfinite(v) && !(v >= lowest))
            lowest = v;
    }
    return lowest;
}

Bounds LayeredTerrain::DataExtent() const {
    Bounds out = layers_.front()->DataExtent();
    for (const auto& layer : layers_) {
        const Bounds e = layer->DataExtent();
        if (!(e[2] > e[0]))
            continue; // a window without data
        out = {std::min(out[0], e[0]), std::min(out[1], e[1]), std::max(out[2], e[2]),
               std::max(out[3], e[3])};
    }
    return out;
}

double RasterTerrain::LowestIn(const Bounds& b) const {
    if (cells_.empty())
        return std::numeric_limits<double>::quiet_NaN();
    const auto clampI = [&](double v) { return std::clamp(v, 0.0, double(nx_)); };
    const auto clampJ = [&](double v) { return std::clamp(v, 0.0, double(ny_)); };
    const int i0 = int(clampI(std::ceil((b[0] - west_) / dLon_ - 0.5)));
    const int i1 = int(clampI(std::floor((b[2] - west_) / dLon_ - 0.5) + 1));
    const int j0 = int(clampJ(std::ceil((north_ - b[3]) / dLat_ - 0.5)));
    const int j1 = int(clampJ(std::floor((north_ - b[1]) / dLat_ - 0.5) + 1));
    double lowest = std::numeric_limits<double>::quiet_NaN();
    for (int j = j0; j < j1; ++j)
        for (int i = i0; i < i1; ++i) {
            const double v = cells_[static_cast<std::size_t>(j) * nx_ + i];
            if (std::isfinite(v) && !(v >= lowest))
                lowest = v;
        }
    if (std::isnan(lowest))
        return ElevationAt(0.5 * (b[0] + b[2]), 0.5 * (b[1] + b[3]));
    return lowest;
}

BlockTerrain::~BlockTerrain() {
    if (dataset_ != nullptr)
        GDALClose(static_cast<GDALDatasetH>(dataset_));
}

double BlockTerrain::Lon(double lon) const {
    if (lon < extent_[0] && lon + 360 <= extent_[2])
        return lon + 360;
    if (lon > extent_[2] && lon - 360 >= extent_[0])
        return lon - 360;
    return lon;
}

double BlockTerrain::Cell(std::int64_t i, std::int64_t j) const {
    if (i < 0 || j < 0 || i >= nx_ || j >= ny_)
        return std::numeric_limits<double>::quiet_NaN();
    const std::int64_t bi = i / blockX_;
    const std::int64_t bj = j / blockY_;
    const std::int64_t key = bj * ((nx_ + blockX_ - 1) / blockX_) + bi;
    auto found = blocks_.find(key);
    if (found == blocks_.end()) {
        // At most 256 blocks held: a few tens of megabytes.
        if (blocks_.size() >= 256)
            blocks_.clear();
        const int x0 = static_cast<int>(bi * blockX_);
        const int y0 = static_cast<int>(bj * blockY_);
        const int w = std::min<int>(blockX_, nx_ - x0);
        const int h = std::min<int>(blockY_, ny_ - y0);
        std::vector<float> cells(static_cast<std::size_t>(w) * h,
                                 std::numeric_limits<float>::quiet_NaN());
        CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
        if (GDALRasterIO(static_cast<GDALRasterBandH>(band_), GF_Read, x0, y0, w, h,
                         cells.data(), w, h, GDT_Float32, 0, 0) != CE_None)
            std::fill(cells.begin(), cells.end(), std::numeric_limits<float>::quiet_NaN());
        for (std::size_t c = 0; c < cells.size(); ++c) {
            float& v = cells[c];
            if (std::isnan(v) || (hasNoData_ && v == static_cast<float>(noData_)))
                v = std::numeric_limits<float>::quiet_NaN();
            else if (!hasNoData_ && !source_.keepMarkers && IsNodataMarker(v))
                RefuseMarker(x0 + static_cast<int>(c % w), y0 + static_cast<int>(c / w));
            else
                v = std::isfinite(v) ? static_cast<float>(v * factor_)
                                     : std::numeric_limits<float>::quiet_NaN();
        }
        found = blocks_.emplace(key, std::move(cells)).first;
    }
    const std::int64_t w = std::min<std::int64_t>(blockX_, nx_ - bi * blockX_);
    return found->second[static_cast<std::size_t>((j - bj * blockY_) * w + (i - bi * blockX_))];
}

void BlockTerrain::RefuseMarker(std::int64_t i, std::int64_t j) const {
    // The grid command refuses it where its grid reads it; a patch of cells around it
    // (wide enough for a shift between geographic datums) makes it say so in its own words.
    constexpr int kHalf = 16;
    GridGeometry grid;
    grid.spacing = transform_[1];
    grid.nx = 2 * kHalf + 1;
    grid.ny = 2 * kHalf + 1;
    grid.orgX = transform_[0] + (static_cast<double>(i) + 0.5 - kHalf) * transform_[1];
    grid.orgY = transform_[3] + (static_cast<double>(j) + 0.5) * transform_[5] - kHalf * transform_[1];
    Grid2d<float> cells;
    (void)WarpAsGrid(grid, source_, position_, "near", cells);
    throw PrepError(source_.path + ": holds a nodata marker but has no nodata tag; name it "
                                   "with --source-nodata, or take such values as real with "
                                   "--keep-markers");
}

double BlockTerrain::ElevationAt(double lon, double lat) const {
    const double fx = (Lon(lon) - transform_[0]) / transform_[1] - 0.5;
    const double fy = (lat - transform_[3]) / transform_[5] - 0.5;
    if (!(fx > -1 && fy > -1 && fx < nx_ && fy < ny_))
        return std::numeric_limits<double>::quiet_NaN();
    const std::int64_t i0 = static_cast<std::int64_t>(std::floor(fx));
    const std::int64_t j0 = static_cast<std::int64_t>(std::floor(fy));
    const double u = fx - static_cast<double>(i0);
    const double v = fy - static_cast<double>(j0);
    const auto at = [&](std::int64_t i, std::int64_t j) {
        return Cell(std::clamp<std::int64_t>(i, 0, nx_ - 1), std::clamp<std::int64_t>(j, 0, ny_ - 1));
    };
    const double value = (1 - u) * (1 - v) * at(i0, j0) + u * (1 - v) * at(i0 + 1, j0) +
                         (1 - u) * v * at(i0, j0 + 1) + u * v * at(i0 + 1, j0 + 1);
    if (std::isfinite(value))
        return value;
    return at(static_cast<std::int64_t>(std::floor(fx + 0.5)),
              static_cast<std::int64_t>(std::floor(fy + 0.5)));
}

double BlockTerrain::LowestIn(const Bounds& b) const {
    const auto column = [&](double lon) { return (Lon(lon) - transform_[0]) / transform_[1]; };
    const auto row = [&](double lat) { return (lat - transform_[3]) / transform_[5]; };
    // The cells whose centres lie in the box, as RasterTerrain takes them.
    const auto first = [](double f) { return static_cast<std::int64_t>(std::ceil(f - 0.5)); };
    const auto past = [](double f) { return static_cast<std::int64_t>(std::floor(f - 0.5)) + 1; };
    const std::int64_t i0 = std::max<std::int64_t>(0, first(column(b[0])));
    const std::int64_t i1 = std::min<std::int64_t>(nx_, past(column(b[2])));
    const std::int64_t j0 = std::max<std::int64_t>(0, first(row(b[3])));
    const std::int64_t j1 = std::min<std::int64_t>(ny_, past(row(b[1])));
    if (i1 <= i0 || j1 <= j0)
        return ElevationAt(0.5 * (b[0] + b[2]), 0.5 * (b[1] + b[3]));
    // Every cell of a box of a few dozen blocks; beyond, a lattice touching one block in
    // four along each axis.
    const std::int64_t blocks = ((i1 - i0) / blockX_ + 1) * ((j1 - j0) / blockY_ + 1);
    const std::int64_t stepX = blocks <= 64 ? 1 : 4 * blockX_ + 1;
    const std::int64_t stepY = blocks <= 64 ? 1 : 4 * blockY_ + 1;
    double lowest = std::numeric_limits<double>::quiet_NaN();
    for (std::int64_t j = j0; j < j1; j += stepY)
        for (std::int64_t i = i0; i < i1; i += stepX) {
            const double v = Cell(i, j);
            if (std::isfinite(v) && !(v >= lowest))
                lowest = v;
        }
    return std::isnan(lowest) ? ElevationAt(0.5 * (b[0] + b[2]), 0.5 * (b[1] + b[3])) : lowest;
}

std::unique_ptr<Terrain> OpenTerrain(const WarpSource& source, int position, const Bounds& near) {
    {
        CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
        OpenedSource opened = OpenSource(source);
        GDALDatasetUniquePtr& ds = opened.ds;
        double t[6];
        (void)ds->GetGeoTransform(t); // checked by OpenSource
        if (opened.srs.IsGeographic() && t[2] == 0 && t[4] == 0 && t[1] > 0 && t[5] < 0) {
            std::unique_ptr<BlockTerrain> terrain(new BlockTerrain());
            GDALRasterBand* band = ds->GetRasterBand(1);
            int bx = 1;
            int by = 1;
            band->GetBlockSize(&bx, &by);
            // Strips of one row are read a few hundred rows at a time.
            terrain->blockX_ = std::max(1, bx);
            terrain->blockY_ = by < 16 ? 256 : by;
            if (terrain->blockX_ < 16)
                terrain->blockX_ = 256;
            terrain->nx_ = ds->GetRasterXSize();
            terrain->ny_ = ds->GetRasterYSize();
            std::copy(t, t + 6, terrain->transform_);
            terrain->hasNoData_ = opened.hasNoData;
            terrain->noData_ = opened.noData;
            terrain->factor_ = opened.factor;
            terrain->source_ = source;
            terrain->position_ = position;
            terrain->extent_ = {t[0], t[3] + terrain->ny_ * t[5], t[0] + terrain->nx_ * t[1], t[3]};
            terrain->band_ = band;
            terrain->dataset_ = GDALDataset::ToHandle(ds.release());
            return terrain;
        }
    }
    std::vector<std::unique_ptr<Terrain>> layers;
    layers.push_back(std::make_unique<RasterTerrain>(source, position));
    layers.push_back(std::make_unique<RasterTerrain>(source, position, 4e6, near));
    return std::make_unique<LayeredTerrain>(std::move(layers));
}
