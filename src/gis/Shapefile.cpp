#include "gis/Shapefile.hpp"

#include <cpl_error.h>
#include <ogr_geometry.h>
#include <ogr_spatialref.h>

#include <sys/stat.h>

#include <cstdio>

namespace {

constexpr const char* kNoDriver =
    "Error : Shapefile::create() -> OGRSFDriverRegistrar::GetRegistrar()->GetDriverByName()";

} // namespace

Shapefile::Shapefile() {
    CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
    GDALAllRegister();
}

Shapefile::~Shapefile() { close(); }

bool Shapefile::create(const std::string& path, ShapeType type, unsigned int epsg) {
    CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
    close();
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
    if (exists && S_ISDIR(existing.st_mode)) {
        std::printf("Error : Shapefile::create() -> OGRSFDriver::CreateDataSource()\n");
        m_type = 0;
        return false;
    }
    m_dataSource.reset(driver->Create(path.c_str(), 0, 0, 0, GDT_Unknown, nullptr));
    if (!m_dataSource) {
        std::printf("Error : Shapefile::create() -> OGRSFDriver::CreateDataSource()\n");
        m_type = 0;
        return false;
    }

    // A new single-file data source writes nothing until its layer exists, so closing it
    // after a failure below leaves no partial files.
    OGRSpatialReference srs;
    srs.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
    if (srs.importFromEPSG(static_cast<int>(epsg)) != OGRERR_NONE) {
        std::printf("Error : Shapefile::create() -> OGRSpatialReference::importFromEPSG()\n");
        close();
        return false;
    }

    m_layer =
        m_dataSource->CreateLayer("Layer", &srs, static_cast<OGRwkbGeometryType>(type), nullptr);
    if (m_layer == nullptr) {
        std::printf("Error : Shapefile::create() -> OGRDataSource::CreateLayer()\n");
        close();
        return false;
    }

    OGRFieldDefn nameField("Name", OFTString);
    nameField.SetWidth(32);
    if (m_layer->CreateField(&nameField) != OGRERR_NONE) {
        std::printf("Error : Shapefile::create() -> OGRLayer::CreateField(Name)\n");
        close();
        return false;
    }
    if (type == POLYGON) {
        // Kept: width 32 and no decimals, so the file stores the slip rounded to a whole
        // number, as every earlier release wrote it.
        OGRFieldDefn slipField("Slip", OFTReal);
        slipField.SetWidth(32);
        if (m_layer->CreateField(&slipField) != OGRERR_NONE) {
            std::printf("Error : Shapefile::create() -> OGRLayer::CreateField(Slip)\n");
            close();
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

void Shapefile::close() {
    CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
    m_layer = nullptr;
    m_dataSource.reset();
    m_type = 0;
}
