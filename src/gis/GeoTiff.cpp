#include "gis/GeoTiff.hpp"

#include "region/SecondCore.hpp"

#include <cpl_conv.h>
#include <cpl_error.h>
#include <cpl_string.h>
#include <ogr_spatialref.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <stdexcept>

namespace {

struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

struct CplFree {
    void operator()(char* p) const { CPLFree(p); }
};

constexpr std::size_t kMaxClasses = 256; // one byte per cell
// Pictures of at least this many cells are classified on two cores.
constexpr std::size_t kSplitCells = std::size_t{1} << 20;

// Reads "<bound> <red> <green> <blue>" from the front of `line`. Reading stops at the
// first field that is not a number, leaving it and the fields after it at 0.
GeoTiff::ColorTable ParseClass(const char* line) {
    GeoTiff::ColorTable entry;
    char* end = nullptr;
    entry.value = std::strtod(line, &end);
    if (end == line)
        return entry;
    const char* next = end;
    for (int* component : {&entry.red, &entry.green, &entry.blue}) {
        const long number = std::strtol(next, &end, 10);
        if (end == next)
            break;
        *component = static_cast<int>(std::clamp(number, 0L, 255L));
        next = end;
    }
    return entry;
}

bool NeverDecreasing(const std::vector<GeoTiff::ColorTable>& table) {
    for (std::size_t k = 0; k < table.size(); ++k) {
        if (std::isnan(table[k].value))
            return false;
        if (k > 0 && table[k].value < table[k - 1].value)
            return false;
    }
    return true;
}

} // namespace

GeoTiff::GeoTiff() = default;

GeoTiff::~GeoTiff() = default;

int GeoTiff::loadColorTable(const std::string& colorTableFile) {
    colorTable.clear();
    gdalColorTable.reset();

    FilePtr file(std::fopen(colorTableFile.c_str(), "r"));
    if (!file)
        return 1;
    char line[1023];
    while (std::fgets(line, sizeof line, file.get()) != nullptr) {
        // Kept: a last line without a line end ends the table unread.
        if (std::feof(file.get()))
            break;
        colorTable.push_back(ParseClass(line));
        if (colorTable.size() > kMaxClasses)
            break; // no need to read on: the table is refused below
    }
    // A name that opens but cannot be read (a directory) is no colour table either.
    if (std::ferror(file.get())) {
        colorTable.clear();
        return 1;
    }
    if (colorTable.size() > kMaxClasses) {
        colorTable.clear();
        return 2;
    }
    return 0;
}

bool GeoTiff::initialize(const std::string& colorTableFile) {
    switch (loadColorTable(colorTableFile)) {
    case 0:
        break;
    case 1:
        std::printf("Error : GeoTiff::initialize() -> file open error\n");
        return false;
    default:
        std::printf("Error : GeoTiff::initialize() -> 256 color over\n");
        return false;
    }

    gdalColorTable = std::make_unique<GDALColorTable>(GPI_RGB);
    for (std::size_t k = 0; k < colorTable.size(); ++k) {
        const GDALColorEntry entry{static_cast<short>(colorTable[k].red),
                                   static_cast<short>(colorTable[k].green),
                                   static_cast<short>(colorTable[k].blue), 0};
        gdalColorTable->SetColorEntry(static_cast<int>(k), &entry);
    }
    return true;
}

std::uint8_t GeoTiff::ClassOf(double v) const {
    const std::size_t last = colorTable.size() - 1;
    if (std::isnan(v) || v < colorTable.front().value)
        return 0;
    if (v >= colorTable[last].value)
        return static_cast<std::uint8_t>(last);
    if (m_ascending) {
        // Here bound(0) <= v < bound(last), so the last bound at or below v opens the one
        // class whose range holds v.
        const auto above =
            std::upper_bound(colorTable.begin(), colorTable.end(), v,
                             [](double value, const ColorTable& c) { return value < c.value; });
        return static_cast<std::uint8_t>(above - colorTable.begin() - 1);
    }
    for (std::size_t k = 0; k < last; ++k) {
        if (colorTable[k].value <= v && v < colorTable[k + 1].value)
            return static_cast<std::uint8_t>(k);
    }
    return 0;
}

void GeoTiff::SearchClasses(const double* row, std::size_t count, std::uint8_t* out) const {
    // Neighbouring cells mostly fall in one class (a roughness or land map holds a few
    // values, a sea floor changes slowly), so with bounds in order the class of the last
    // cell is tried first: any v in [lo, hi) has that class, as the search would find.
    // A NaN fails both comparisons and goes to the search.
    const std::size_t last = colorTable.size() - 1;
    double lo = 0.0, hi = 0.0; // empty until a class is found
    std::uint8_t cls = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const double v = row[i];
        if (!(lo <= v && v < hi)) {
            cls = ClassOf(v);
            if (!m_ascending || std::isnan(v)) {
                lo = hi = 0.0;
            } else if (v < colorTable.front().value) {
                lo = -HUGE_VAL;
                hi = colorTable.front().value;
            } else {
                lo = colorTable[cls].value;
                hi = cls == last ? HUGE_VAL : colorTable[cls + 1].value;
            }
        }
        out[i] = cls;
    }
}

template <class ClassifyRows>
bool GeoTiff::ClassifyWith(std::uint32_t nx, std::uint32_t ny, ClassifyRows classifyRows) {
    raster.clear();
    raster.shrink_to_fit();
    xSize = nx;
    if (xSize == 0) {
        std::printf("Error : GeoTiff::convertRaster() -> x size zero\n");
        return false;
    }
    ySize = ny;
    if (ySize == 0) {
        std::printf("Error : GeoTiff::convertRaster() -> y size zero\n");
        return false;
    }
    if (colorTable.empty()) {
        std::printf("Error : GeoTiff::convertRaster() -> color table size zero\n");
        return false;
    }
    m_ascending = NeverDecreasing(colorTable); // the table is public: decided per picture
    try {
        raster.resize(static_cast<std::size_t>(xSize) * ySize);
    } catch (const std::bad_alloc&) {
        std::printf("Error : GeoTiff::convertRaster() -> Raster array allocation\n");
        return false;
    } catch (const std::length_error&) {
        std::printf("Error : GeoTiff::convertRaster() -> Raster array allocation\n");
        return false;
    }
    // A cell's class depends on its value alone, so a large picture is classified in two
    // halves of rows, the second on the other core where there is one.
    const std::uint32_t half = ySize / 2;
    std::unique_ptr<SecondCore> second =
        raster.size() >= kSplitCells ? SecondCore::StartIfUseful() : nullptr;
    if (second) {
        second->Start([&] { classifyRows(half, ySize); });
        classifyRows(0, half);
        if (second->TakeBack())
            classifyRows(half, ySize);
        else
            second->Wait();
    } else {
        classifyRows(0, ySize);
    }
    return true;
}

template <class RowAt> bool GeoTiff::Classify(std::uint32_t nx, std::uint32_t ny, RowAt rowAt) {
    // Pictures are stored top row first: the northernmost grid row comes first.
    return ClassifyWith(nx, ny, [&](std::uint32_t firstRow, std::uint32_t endRow) {
        std::vector<double> scratch(xSize);
        for (std::uint32_t r = firstRow; r < endRow; ++r) {
            const double* row = rowAt(ySize - 1 - r, scratch.data());
            std::uint8_t* out = raster.data() + static_cast<std::size_t>(r) * xSize;
            SearchClasses(row, xSize, out);
        }
    });
}

bool GeoTiff::convertRaster(std::uint32_t nx, std::uint32_t ny, std::span<const double> values) {
    // Row j in place where the values hold all of it; cells past their end are NaN.
    return Classify(nx, ny, [&](std::uint32_t j, double* scratch) -> const double* {
        const std::size_t at = static_cast<std::size_t>(j) * nx;
        if (at + nx <= values.size())
            return values.data() + at;
        for (std::uint32_t i = 0; i < nx; ++i)
            scratch[i] = at + i < values.size() ? values[at + i] : NAN;
        return scratch;
    });
}

bool GeoTiff::convertRaster(std::uint32_t nx, std::uint32_t ny, std::span<const double> values,
                            std::size_t stride) {
    if (stride <= 1)
        return convertRaster(nx, ny, values);
    return Classify(nx, ny, [&](std::uint32_t j, double* scratch) -> const double* {
        const double* data = values.data();
        const std::size_t size = values.size();
        for (std::uint32_t i = 0; i < nx; ++i) {
            const std::size_t at = (static_cast<std::size_t>(j) * nx + i) * stride;
            scratch[i] = at < size ? data[at] : NAN;
        }
        return scratch;
    });
}

bool GeoTiff::convertCodes(std::uint32_t nx, std::uint32_t ny, std::span<const std::uint8_t> codes,
                           std::span<const double> table) {
    return ClassifyWith(nx, ny, [&](std::uint32_t firstRow, std::uint32_t endRow) {
        // Each code's class is its value's, as the search finds it; a code past the table
        // and a cell past the codes are NaN, class 0.
        std::uint8_t classOf[256] = {};
        SearchClasses(table.data(), std::min<std::size_t>(table.size(), 256), classOf);
        for (std::uint32_t r = firstRow; r < endRow; ++r) {
            const std::size_t at = static_cast<std::size_t>(ySize - 1 - r) * nx;
            std::uint8_t* out = raster.data() + static_cast<std::size_t>(r) * xSize;
            const std::size_t held =
                at < codes.size() ? std::min<std::size_t>(nx, codes.size() - at) : 0;
            for (std::size_t i = 0; i < held; ++i)
                out[i] = classOf[codes[at + i]];
            std::fill(out + held, out + nx, std::uint8_t{0});
        }
    });
}

bool GeoTiff::convertRaster(const std::vector<std::vector<double>>& grid) {
    if (grid.size() > UINT32_MAX || (!grid.empty() && grid.front().size() > UINT32_MAX)) {
        std::printf("Error : GeoTiff::convertRaster() -> Raster array allocation\n");
        return false;
    }
    const auto nx = static_cast<std::uint32_t>(grid.size());
    const auto ny = grid.empty() ? 0u : static_cast<std::uint32_t>(grid.front().size());
    return Classify(nx, ny, [&](std::uint32_t j, double* scratch) -> const double* {
        for (std::uint32_t i = 0; i < nx; ++i) {
            const std::vector<double>& column = grid[i];
            scratch[i] = j < column.size() ? column[j] : NAN;
        }
        return scratch;
    });
}

bool GeoTiff::save(const std::string& path, unsigned int epsg, double originX, double originY,
                   double cellWidth, double cellHeight) const {
    CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
    if (!gdalColorTable) {
        std::printf("Error : GeoTiff::save() -> GDAL color table null\n");
        return false;
    }
    if (raster.empty()) {
        std::printf("Error : GeoTiff::save() - Raster array null\n");
        return false;
    }

    GDALAllRegister();
    GDALDriver* driver = GetGDALDriverManager()->GetDriverByName("GTiff");
    if (driver == nullptr) {
        std::printf("Error : GeoTiff::save() -> GetGDALDriverManager()->GetDriverByName()\n");
        return false;
    }

    CPLStringList options;
    options.SetNameValue("PROFILE", "GeoTIFF");
    options.SetNameValue("COMPRESS", "LZW");
    const bool fits = xSize <= INT_MAX && ySize <= INT_MAX;
    const int width = fits ? static_cast<int>(xSize) : 0;
    const int height = fits ? static_cast<int>(ySize) : 0;
    GDALDatasetUniquePtr ds(
        fits ? driver->Create(path.c_str(), width, height, 1, GDT_Byte, options.List()) : nullptr);
    if (!ds) {
        std::printf("Error : GeoTiff::save() -> GDALDriver::Create()\n");
        return false;
    }

    double transform[6] = {originX, cellWidth, 0.0, originY, 0.0, cellHeight};
    if (ds->SetGeoTransform(transform) != CE_None) {
        std::printf("Error : GeoTiff::save() -> GDALDataset::SetGeoTransform()\n");
        return false;
    }

    OGRSpatialReference srs;
    srs.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
    if (srs.importFromEPSG(static_cast<int>(epsg)) != OGRERR_NONE) {
        std::printf("Error : GeoTiff::save() -> OGRSpatialReference::importFromEPSG()\n");
        return false;
    }
    char* rawWkt = nullptr;
    const OGRErr exported = srs.exportToWkt(&rawWkt);
    const std::unique_ptr<char, CplFree> wkt(rawWkt);
    if (exported != OGRERR_NONE || ds->SetProjection(wkt.get()) != CE_None) {
        std::printf("Error : GeoTiff::save() -> GDALDataset::SetProjection()\n");
        return false;
    }

    GDALRasterBand* band = ds->GetRasterBand(1);
    if (band == nullptr) {
        std::printf("Error : GeoTiff::save() -> GDALDataset::GetRasterBand()\n");
        return false;
    }
    if (band->SetColorTable(gdalColorTable.get()) != CE_None) {
        std::printf("Error : GeoTiff::save() -> GDALRasterBand::SetColorTable()\n");
        return false;
    }
    // RasterIO takes a writable buffer for both directions; writing only reads it.
    if (band->RasterIO(GF_Write, 0, 0, width, height, const_cast<std::uint8_t*>(raster.data()),
                       width, height, GDT_Byte, 0, 0, nullptr) != CE_None) {
        std::printf("Error : GeoTiff::save() -> GDALRasterBand::RasterIO()\n");
        return false;
    }

    // The compressed cells reach the file only when it is closed, so a failure there
    // (a full disk) is a failed cell write.
    CPLErrorReset();
    ds.reset();
    if (CPLGetLastErrorType() == CE_Failure) {
        std::printf("Error : GeoTiff::save() -> GDALRasterBand::RasterIO()\n");
        return false;
    }
    return true;
}

bool GeoTiff::saveGrid(const std::string& path, unsigned int epsg, double orgX, double orgY,
                       double gridSize) const {
    // The picture's top-left corner is half a cell west and north of the north-west point.
    const double originX = orgX - 0.5 * gridSize;
    const double originY = orgY + (static_cast<double>(ySize) - 0.5) * gridSize;
    return save(path, epsg, originX, originY, gridSize, -gridSize);
}
