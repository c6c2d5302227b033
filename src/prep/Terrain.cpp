#include "prep/Terrain.hpp"

#include "prep/PrepError.hpp"
#include "project/Console.hpp"

#include <cpl_error.h>
#include <cpl_string.h>
#include <gdal_priv.h>
#include <gdal_utils.h>
#include <ogr_spatialref.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>

namespace {

constexpr double kMetresPerDegree = 6371000.0 * 3.141592653589793 / 180.0;

struct TransformDeleter {
    void operator()(OGRCoordinateTransformation* c) const {
        OGRCoordinateTransformation::DestroyCT(c);
    }
};

GDALDatasetUniquePtr OpenSource(const std::string& path) {
    GDALAllRegister();
    GDALDatasetUniquePtr ds(GDALDataset::Open(path.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY));
    if (!ds)
        throw PrepError("cannot open the elevation source " + path + " as a raster");
    double t[6];
    if (ds->GetGeoTransform(t) != CE_None || ds->GetSpatialRef() == nullptr)
        throw PrepError("the elevation source " + path +
                        " has no georeference or no coordinate system");
    return ds;
}

} // namespace

SourceFootprint DescribeSource(const std::string& path) {
    CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
    GDALDatasetUniquePtr ds = OpenSource(path);
    double t[6];
    (void)ds->GetGeoTransform(t); // checked by OpenSource
    OGRSpatialReference lonLat;
    lonLat.importFromEPSG(4326);
    lonLat.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
    OGRSpatialReference own(*ds->GetSpatialRef());
    own.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
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
        f.cellMetres = cell * kMetresPerDegree * std::max(std::cos(lat * 3.141592653589793 / 180), 0.01);
        f.cellMetres = std::max(f.cellMetres, std::hypot(t[4], t[5]) * kMetresPerDegree);
    } else {
        f.cellMetres = cell * own.GetLinearUnits();
    }
    return f;
}

RasterTerrain::RasterTerrain(const std::string& path, bool depthPositive, double mostCells,
                             const std::optional<Bounds>& window) {
    CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
    GDALDatasetUniquePtr source = OpenSource(path);
    double cells = double(source->GetRasterXSize()) * source->GetRasterYSize();
    CPLStringList args;
    for (const char* a : {"-of", "MEM", "-t_srs", "EPSG:4326", "-ot", "Float32", "-dstnodata",
                          "nan"})
        args.AddString(a);
    double aspect = double(source->GetRasterXSize()) / source->GetRasterYSize();
    if (window) {
        const SourceFootprint f = DescribeSource(path);
        const Bounds w = {std::max((*window)[0], f.lonLat[0]), std::max((*window)[1], f.lonLat[1]),
                          std::min((*window)[2], f.lonLat[2]), std::min((*window)[3], f.lonLat[3])};
        if (!(w[2] > w[0]) || !(w[3] > w[1]))
            return; // no cells: NaN everywhere
        cells *= (w[2] - w[0]) * (w[3] - w[1]) /
                 ((f.lonLat[2] - f.lonLat[0]) * (f.lonLat[3] - f.lonLat[1]));
        aspect = (w[2] - w[0]) / (w[3] - w[1]);
        args.AddString("-te");
        for (double v : w)
            args.AddString(StringPrintf("%.17g", v).c_str());
    }
    args.AddString("-r");
    args.AddString(cells > mostCells ? "near" : "bilinear");
    if (cells > mostCells) {
        const double ny = std::sqrt(mostCells / aspect);
        args.AddString("-ts");
        args.AddString(std::to_string(std::max(1, int(ny * aspect))).c_str());
        args.AddString(std::to_string(std::max(1, int(ny))).c_str());
    }
    GDALWarpAppOptions* options = GDALWarpAppOptionsNew(args.List(), nullptr);
    GDALDatasetH handle = GDALDataset::ToHandle(source.get());
    GDALDatasetUniquePtr warped(
        GDALDataset::FromHandle(GDALWarp("", nullptr, 1, &handle, options, nullptr)));
    GDALWarpAppOptionsFree(options);
    if (!warped)
        throw PrepError("cannot carry " + path + " into longitude and latitude: " +
                        CPLGetLastErrorMsg());
    nx_ = warped->GetRasterXSize();
    ny_ = warped->GetRasterYSize();
    double t[6];
    (void)warped->GetGeoTransform(t); // the warper always sets it
    west_ = t[0];
    north_ = t[3];
    dLon_ = t[1];
    dLat_ = -t[5];
    cells_.resize(static_cast<std::size_t>(nx_) * ny_);
    if (warped->GetRasterBand(1)->RasterIO(GF_Read, 0, 0, nx_, ny_, cells_.data(), nx_, ny_,
                                           GDT_Float32, 0, 0, nullptr) != CE_None)
        throw PrepError("cannot read " + path);
    // Source nodata became NaN in the warp; markers left as values are the grid command's
    // business, the planner only needs the sea.
    int minI = nx_, minJ = ny_, maxI = -1, maxJ = -1;
    for (std::int32_t j = 0; j < ny_; ++j)
        for (std::int32_t i = 0; i < nx_; ++i) {
            float& v = cells_[static_cast<std::size_t>(j) * nx_ + i];
            if (!std::isfinite(v))
                continue;
            if (depthPositive)
                v = -v;
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
        for (float& v : cells) {
            if (!std::isfinite(v) || (hasNoData_ && v == static_cast<float>(noData_)))
                v = std::numeric_limits<float>::quiet_NaN();
            else if (depthPositive_)
                v = -v;
        }
        found = blocks_.emplace(key, std::move(cells)).first;
    }
    const std::int64_t w = std::min<std::int64_t>(blockX_, nx_ - bi * blockX_);
    return found->second[static_cast<std::size_t>((j - bj * blockY_) * w + (i - bi * blockX_))];
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

std::unique_ptr<Terrain> OpenTerrain(const std::string& path, bool depthPositive,
                                     const Bounds& near) {
    {
        CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
        GDALDatasetUniquePtr ds = OpenSource(path);
        double t[6];
        (void)ds->GetGeoTransform(t); // checked by OpenSource
        if (ds->GetSpatialRef()->IsGeographic() && t[2] == 0 && t[4] == 0 && t[1] > 0 &&
            t[5] < 0) {
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
            int hasNoData = 0;
            terrain->noData_ = band->GetNoDataValue(&hasNoData);
            terrain->hasNoData_ = hasNoData != 0;
            terrain->depthPositive_ = depthPositive;
            terrain->extent_ = {t[0], t[3] + terrain->ny_ * t[5], t[0] + terrain->nx_ * t[1], t[3]};
            terrain->band_ = band;
            terrain->dataset_ = GDALDataset::ToHandle(ds.release());
            return terrain;
        }
    }
    std::vector<std::unique_ptr<Terrain>> layers;
    layers.push_back(std::make_unique<RasterTerrain>(path, depthPositive));
    layers.push_back(std::make_unique<RasterTerrain>(path, depthPositive, 4e6, near));
    return std::make_unique<LayeredTerrain>(std::move(layers));
}
