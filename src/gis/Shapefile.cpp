#include "gis/Shapefile.hpp"

#include <cpl_conv.h>
#include <cpl_error.h>
#include <cpl_string.h>
#include <cpl_vsi.h>
#include <ogr_geometry.h>
#include <ogr_spatialref.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <vector>

namespace {

constexpr const char* kNoDriver =
    "Error : Shapefile::create() -> OGRSFDriverRegistrar::GetRegistrar()->GetDriverByName()";

// A folder of its own per shapefile, so that no two writers share staged files.
std::string NewStagingFolder() {
    static unsigned long next = 0;
    return "/vsimem/seaforge-shapefile-" + std::to_string(++next);
}

// Writes `size` bytes as the file `path`; answers the call that failed, or nullptr.
const char* StoreFile(const std::string& path, const GByte* data, std::size_t size) {
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr)
        return "fopen";
    // Flushed here, so that a full disk shows as the write it is.
    const bool written =
        (size == 0 || std::fwrite(data, 1, size, file) == size) && std::fflush(file) == 0;
    if (!written) {
        std::fclose(file);
        return "fwrite";
    }
    return std::fclose(file) == 0 ? nullptr : "fclose";
}

// Stores the staged files of `from` in the folder `to` ("" for the working directory),
// in name order, and a staged folder (the driver makes one for a path without ".shp") as
// a folder. Stops at the first file that cannot be stored, after its line.
bool StoreFolder(const std::string& from, const std::string& to) {
    const CPLStringList listed(VSIReadDir(from.c_str()));
    std::vector<std::string> names;
    for (int k = 0; k < listed.size(); ++k)
        names.emplace_back(listed[k]);
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
        const std::string staged = from + "/" + name;
        const std::string stored = to.empty() ? name : to + "/" + name;
        VSIStatBufL status;
        if (VSIStatL(staged.c_str(), &status) != 0)
            continue;
        if (VSI_ISDIR(status.st_mode)) {
            if (::mkdir(stored.c_str(), 0755) != 0 && errno != EEXIST) {
                std::printf("Error : Shapefile::close() -> mkdir(%s)\n", stored.c_str());
                return false;
            }
            if (!StoreFolder(staged, stored))
                return false;
            continue;
        }
        vsi_l_offset size = 0;
        const GByte* data = VSIGetMemFileBuffer(staged.c_str(), &size, FALSE);
        if (const char* failed = StoreFile(stored, data, static_cast<std::size_t>(size))) {
            std::printf("Error : Shapefile::close() -> %s(%s)\n", failed, stored.c_str());
            return false;
        }
    }
    return true;
}

} // namespace

Shapefile::Shapefile() {
    CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
    GDALAllRegister();
}

Shapefile::~Shapefile() { (void)close(); } // a failure has printed its line

bool Shapefile::create(const std::string& path, ShapeType type, unsigned int epsg) {
    CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
    (void)close(); // a failure has printed its line; this shapefile starts afresh
    m_type = type;

    GDALDriver* driver = GetGDALDriverManager()->GetDriverByName("ESRI Shapefile");
    if (driver == nullptr) {
        std::printf("%s\n", kNoDriver);
        m_type = 0;
        return false;
    }

    struct stat existing {};
    const bool exists = ::stat(path.c_str(), &existing) == 0;
    if (exists && S_ISREG(existing.st_mode))
        (void)driver->Delete(path.c_str()); // what it could not remove makes Create fail

    // The driver would take a directory at `path` as a folder of shapefiles and write the
    // layer inside it under another name; no caller wants that, so it is refused.
    // The files are staged in memory until close, so a folder that is not there or not
    // writable has to be found now, where writing straight to disk would have failed.
    const std::string destination = CPLGetPath(path.c_str());
    struct stat folder {};
    const char* const folderPath = destination.empty() ? "." : destination.c_str();
    const bool placeable = ::stat(folderPath, &folder) == 0 && S_ISDIR(folder.st_mode) &&
                           ::access(folderPath, W_OK | X_OK) == 0;
    if ((exists && S_ISDIR(existing.st_mode)) || !placeable) {
        std::printf("Error : Shapefile::create() -> OGRSFDriver::CreateDataSource()\n");
        m_type = 0;
        return false;
    }
    m_staging = NewStagingFolder();
    m_destination = destination;
    const std::string staged = m_staging + "/" + CPLGetFilename(path.c_str());
    (void)VSIMkdir(m_staging.c_str(), 0755); // a failure shows as Create's
    m_dataSource.reset(driver->Create(staged.c_str(), 0, 0, 0, GDT_Unknown, nullptr));
    if (!m_dataSource) {
        std::printf("Error : Shapefile::create() -> OGRSFDriver::CreateDataSource()\n");
        Discard();
        return false;
    }

    // Nothing reaches the destination before close, so a failure below leaves no files.
    OGRSpatialReference srs;
    srs.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
    if (srs.importFromEPSG(static_cast<int>(epsg)) != OGRERR_NONE) {
        std::printf("Error : Shapefile::create() -> OGRSpatialReference::importFromEPSG()\n");
        Discard();
        return false;
    }

    m_layer =
        m_dataSource->CreateLayer("Layer", &srs, static_cast<OGRwkbGeometryType>(type), nullptr);
    if (m_layer == nullptr) {
        std::printf("Error : Shapefile::create() -> OGRDataSource::CreateLayer()\n");
        Discard();
        return false;
    }

    OGRFieldDefn nameField("Name", OFTString);
    nameField.SetWidth(32);
    if (m_layer->CreateField(&nameField) != OGRERR_NONE) {
        std::printf("Error : Shapefile::create() -> OGRLayer::CreateField(Name)\n");
        Discard();
        return false;
    }
    if (type == POLYGON) {
        // Kept: width 32 and no decimals, so the file stores the slip rounded to a whole
        // number, as every earlier release wrote it.
        OGRFieldDefn slipField("Slip", OFTReal);
        slipField.SetWidth(32);
        if (m_layer->CreateField(&slipField) != OGRERR_NONE) {
            std::printf("Error : Shapefile::create() -> OGRLayer::CreateField(Slip)\n");
            Discard();
            return false;
        }
    }
    return true;
}

bool Shapefile::writePoint(const std::string& name, const Point& p) {
    CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
    if (m_layer == nullptr || m_type != POINT) {
        std::printf("Error : Shapefile::writePoint() -> Layer null or Type not POINT\n");
        return false;
    }
    OGRFeatureUniquePtr feature(OGRFeature::CreateFeature(m_layer->GetLayerDefn()));
    feature->SetField("Name", name.c_str());
    OGRPoint point(p.x, p.y);
    feature->SetGeometry(&point);
    if (m_layer->CreateFeature(feature.get()) != OGRERR_NONE) {
        std::printf("Error : Shapefile::writePoint() -> OGRLayer::CreateFeature()\n");
        return false;
    }
    return true;
}

bool Shapefile::writePolygon(const std::string& name, const std::string& field, const double& value,
                             const double* xs, const double* ys) {
    CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
    if (m_layer == nullptr || m_type != POLYGON) {
        std::printf("Error : Shapefile::writePolygon() -> Layer null or Type not POLYGON\n");
        return false;
    }
    OGRFeatureUniquePtr feature(OGRFeature::CreateFeature(m_layer->GetLayerDefn()));
    feature->SetField("Name", name.c_str());
    feature->SetField(field.c_str(), value); // a field the layer lacks is left out
    OGRLinearRing ring;
    for (int k = 0; k < 5; ++k)
        ring.addPoint(xs[k], ys[k]);
    ring.closeRings();
    OGRPolygon polygon;
    polygon.addRing(&ring);
    feature->SetGeometry(&polygon);
    if (m_layer->CreateFeature(feature.get()) != OGRERR_NONE) {
        std::printf("Error : Shapefile::writePolygon() -> OGRLayer::CreateFeature()\n");
        return false;
    }
    return true;
}

bool Shapefile::close() {
    CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
    bool stored = true;
    if (m_dataSource) {
        m_layer = nullptr;
        m_dataSource.reset(); // completes the staged files
        stored = StoreFolder(m_staging, m_destination);
    }
    Discard();
    return stored;
}

void Shapefile::Discard() {
    CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
    m_layer = nullptr;
    m_dataSource.reset();
    m_type = 0;
    if (!m_staging.empty())
        (void)VSIRmdirRecursive(m_staging.c_str()); // memory only: nothing to report
    m_staging.clear();
}
