#pragma once

#include "prep/Placement.hpp"
#include "prep/Warp.hpp"

#include <cstdint>
#include <memory>
#include <optional>
#include <unordered_map>
#include <string>
#include <vector>

// The run's sphere (6 371 000 m): a degree of latitude, and of longitude on the equator.
inline constexpr double kPlannerPi = 3.141592653589793;
inline constexpr double kMetresPerDegree = 6371000.0 * kPlannerPi / 180.0;

// The lie of the land as the planner needs it: elevations (metres, negative below sea
// level) by longitude and latitude, from one source raster carried into degrees.

// Where a source lies and how fine it is, in the system the user gave it or its own.
// Throws PrepError naming the file when GDAL cannot open it or it has no georeference or
// coordinate system.
struct SourceFootprint {
    Bounds lonLat{};         // its extent in degrees, edges followed point by point
    double cellMetres = 0;   // its cell size in metres at its centre (the larger side)
};
[[nodiscard]] SourceFootprint DescribeSource(const WarpSource& source);

class Terrain {
  public:
    virtual ~Terrain() = default;
    // NaN where there is no data.
    [[nodiscard]] virtual double ElevationAt(double lon, double lat) const = 0;
    // The lowest value among the cells whose centres lie in the box (degrees), or the
    // value at its centre when there are none; NaN without data.
    [[nodiscard]] virtual double LowestIn(const Bounds& lonLat) const = 0;
    // The box holding every cell with data.
    [[nodiscard]] virtual Bounds DataExtent() const = 0;
};

// A raster carried into degrees (EPSG 4326) by the grid command's warp, its values taken
// as the grids take them (system, nodata, unit, depths): the whole raster at most
// `mostCells` cells (nearest cells where it is coarsened), or only the part inside
// `window` (degrees) at about its own resolution. Throws PrepError, with the grid
// command's refusals naming the source as source `position` (1 = the first); a window
// holding no data gives a terrain of NaN.
class RasterTerrain final : public Terrain {
  public:
    RasterTerrain(const WarpSource& source, int position, double mostCells = 1e6,
                  const std::optional<Bounds>& window = std::nullopt);
    [[nodiscard]] double ElevationAt(double lon, double lat) const override;
    [[nodiscard]] double LowestIn(const Bounds& lonLat) const override;
    [[nodiscard]] Bounds DataExtent() const override { return extent_; }

  private:
    std::int32_t nx_ = 0;
    std::int32_t ny_ = 0;
    double west_ = 0;  // cell edges
    double north_ = 0;
    double dLon_ = 0;
    double dLat_ = 0; // positive; rows run south from north_
    std::vector<float> cells_; // row-major from the north
    Bounds extent_{};
};

// Several rasters, later ones winning where they hold data, as the grid command stacks
// its sources. Holds at least one layer.
class LayeredTerrain final : public Terrain {
  public:
    explicit LayeredTerrain(std::vector<std::unique_ptr<Terrain>> layers)
        : layers_(std::move(layers)) {}
    [[nodiscard]] double ElevationAt(double lon, double lat) const override;
    [[nodiscard]] double LowestIn(const Bounds& lonLat) const override;
    [[nodiscard]] Bounds DataExtent() const override;

  private:
    std::vector<std::unique_ptr<Terrain>> layers_;
};

// A raster in longitude and latitude read where it is asked, a block at a time, so that the
// planner reads only the parts of a large source it looks at: elevations between cell
// centres bilinearly, the lowest value of a large box from a sparse lattice of cells (one
// every few blocks), the extent from the raster's edges. Values are taken as the grid
// command takes them: nodata (its own or given) becomes NaN, unit, --z-scale and depths
// give the factor, and a marker in a source without nodata is refused in the grid
// command's words. Made by OpenTerrain; not for rotated rasters.
class BlockTerrain final : public Terrain {
  public:
    ~BlockTerrain() override;
    [[nodiscard]] double ElevationAt(double lon, double lat) const override;
    [[nodiscard]] double LowestIn(const Bounds& lonLat) const override;
    [[nodiscard]] Bounds DataExtent() const override { return extent_; }

  private:
    friend std::unique_ptr<Terrain> OpenTerrain(const WarpSource&, int, const Bounds&);
    BlockTerrain() = default;
    [[nodiscard]] double Cell(std::int64_t i, std::int64_t j) const; // NaN outside
    [[nodiscard]] double Lon(double lon) const; // taken to the raster's side of the date line
    [[noreturn]] void RefuseMarker(std::int64_t i, std::int64_t j) const;

    void* dataset_ = nullptr; // GDALDatasetH, owned
    void* band_ = nullptr;    // GDALRasterBandH of band 1
    std::int32_t nx_ = 0;
    std::int32_t ny_ = 0;
    std::int32_t blockX_ = 1;
    std::int32_t blockY_ = 1;
    double transform_[6] = {};
    WarpSource source_;
    int position_ = 1;
    double factor_ = 1; // elevation in metres per value
    bool hasNoData_ = false;
    double noData_ = 0;
    Bounds extent_{};
    mutable std::unordered_map<std::int64_t, std::vector<float>> blocks_;
};

// The terrain of source `position` (1 = the first) of the user's list: a BlockTerrain for
// a north-up raster in longitude and latitude, else the raster carried into degrees whole
// (coarsened) and, at its own resolution, inside `near` (degrees), stacked. Throws
// PrepError.
[[nodiscard]] std::unique_ptr<Terrain> OpenTerrain(const WarpSource& source, int position,
                                                   const Bounds& near);
