#include "region/Region.hpp"

#include "gis/GeoTiff.hpp"
#include "project/Console.hpp"

#include <algorithm>
#include <cstdint>
#include <new>
#include <optional>
#include <span>
#include <stdexcept>
#include <vector>

namespace {

// The values a picture shows, nx × ny in grid-file order.
struct Picture {
    std::uint32_t nx = 0;
    std::uint32_t ny = 0;
    std::vector<double> composed; // values made for the picture, when not a grid's own
    std::span<const double> values;
    std::size_t stride = 1; // cell k is values[k * stride]
    std::span<const std::uint8_t> codes; // or cell k is values[codes[k]]
};

std::uint32_t CountOf(int n) { return n > 0 ? static_cast<std::uint32_t>(n) : 0u; }

// A region-sized picture of zeros to compose into. Negative sizes count as 0, which the
// writer refuses as an empty picture.
Picture Zeros(int nx, int ny) {
    Picture p{CountOf(nx), CountOf(ny), {}, {}, 1, {}};
    p.composed.assign(static_cast<std::size_t>(p.nx) * p.ny, 0.0);
    p.values = p.composed;
    return p;
}

// What the region's kind draws; nothing for the kinds that are not pictures. Throws
// std::bad_alloc or std::length_error when the region is too large to compose.
std::optional<Picture> PictureOf(const Region& r, const std::string& component) {
    switch (r.type) {
    case TPG_R:
    case RCF_R:
    case LSM_R:
        if (r.HasCodes()) {
            return Picture{CountOf(r.nx), CountOf(r.ny), {}, r.codeValues, 1,
                           std::span<const std::uint8_t>(r.codeGrid.Data(),
                                                         r.codeGrid.ValueCount())};
        }
        // Drawn in the grid's own shape: a freed grid has its columns but no rows, and
        // the writer refuses it as it refuses any empty picture.
        return Picture{CountOf(r.grid.Columns()),
                       CountOf(r.grid.Rows()),
                       {},
                       std::span<const double>(r.grid.Data(), r.grid.ValueCount()),
                       1,
                       {}};
    case VRT_R:
    case HRZ_R:
    case IWH_R: {
        // The stages add up to the deformation the calculator ends with. A stage holds
        // its first `count` values, and never more than its buffer.
        Picture p = Zeros(r.nx, r.ny);
        for (const InstantVal2d& stage : r.dynamicSeries) {
            const std::size_t held = std::min({static_cast<std::size_t>(std::max(stage.count, 0)),
                                               stage.values.size(), p.composed.size()});
            for (std::size_t k = 0; k < held; ++k)
                p.composed[k] += static_cast<double>(stage.values[k]);
        }
        return p;
    }
    case WBH_R: {
        // One face per picture; cells the pair grid does not hold stay 0. A pair grid on
        // the region's own points is drawn in place, one face of every pair.
        const int face = component == "N" ? 0 : component == "E" ? 1 : -1;
        if (face >= 0 && r.nx > 0 && r.ny > 0 && r.pairGrid.HasShape(r.nx, r.ny))
            return Picture{CountOf(r.nx),
                           CountOf(r.ny),
                           {},
                           std::span<const double>(r.pairGrid.Data(), r.pairGrid.ValueCount())
                               .subspan(static_cast<std::size_t>(face)),
                           2,
                           {}};
        Picture p = Zeros(r.nx, r.ny);
        if (face < 0)
            return p;
        const int columns = std::min(r.nx, r.pairGrid.Columns());
        const int rows = std::min(r.ny, r.pairGrid.Rows());
        for (int j = 0; j < rows; ++j) {
            for (int i = 0; i < columns; ++i)
                p.composed[static_cast<std::size_t>(j) * p.nx + static_cast<std::size_t>(i)] =
                    r.pairGrid(i, j)[face];
        }
        return p;
    }
    default:
        // Construction lines and the wave-breaker map are no pictures: the writer's save
        // then refuses the missing raster.
        return std::nullopt;
    }
}

} // namespace

bool Region::WriteGeoTIFF(const std::string& dir, const std::string& colorTableFile,
                          const std::string& component) {
    try {
        std::optional<Picture> picture;
        try {
            picture = PictureOf(*this, component);
        } catch (const std::bad_alloc&) {
            throw 2;
        } catch (const std::length_error&) {
            throw 2;
        }

        GeoTiff tiff;
        if (!tiff.initialize(colorTableFile))
            throw 1;
        if (picture && !(picture->codes.empty()
                             ? tiff.convertRaster(picture->nx, picture->ny, picture->values,
                                                  picture->stride)
                             : tiff.convertCodes(picture->nx, picture->ny, picture->codes,
                                                 picture->values)))
            throw 1;

        const std::string tag = typeTag.substr(0, 3) + component;
        const std::string path =
            StringPrintf("%s/%s_%s.tiff", dir.c_str(), tag.c_str(), regionName.c_str());
        // org_x, org_y is the centre of the south-west cell; the picture reaches half a
        // cell beyond the outer grid points.
        const double originX = org_x - 0.5 * gridSize;
        const double originY = org_y + (ny - 0.5) * gridSize;
        if (!tiff.save(path, static_cast<unsigned int>(epsg), originX, originY, gridSize,
                       -gridSize))
            throw 1;
    } catch (int cause) { // 1: the writer refused (its line says why), 2: no memory
        if (cause == 1)
            PrintErrorBlock(
                {"ERROR:REGION OBJECT METHOD",
                 "  ERROR-DETAIL:Abnormal action at Write GeoTIFF Method.",
                 "  ERROR-DETAIL:Particular attention should be given to \"GeotiffSetting\"."});
        else
            PrintErrorBlock({"ERROR:REGION OBJECT METHOD",
                             "  ERROR-DETAIL:Abnormal action at Write GeoTIFF Method.",
                             "  ERROR-DETAIL:Particular attention should be given to \" \"."});
        return false;
    }
    return true;
}
