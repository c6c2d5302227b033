#include "prep/OverviewGeoPackage.hpp"

#include "prep/AtomicFile.hpp"
#include "prep/PrepError.hpp"
#include "prep/PointCarrier.hpp"
#include "prep/OverviewPicture.hpp"

#include <cpl_error.h>
#include <gdal_priv.h>
#include <ogrsf_frmts.h>

#include <cstdio>
#include <memory>
#include <optional>
#include <vector>

namespace {

struct Field {
    const char* name;
    OGRFieldType type;
};

OGRLayer* MakeLayer(GDALDataset& ds, const char* name, OGRwkbGeometryType type,
                    OGRSpatialReference& lonLat, std::initializer_list<Field> fields) {
    OGRLayer* layer = ds.CreateLayer(name, &lonLat, type, nullptr);
    if (layer == nullptr)
        return nullptr;
    for (const Field& f : fields) {
        OGRFieldDefn definition(f.name, f.type);
        if (layer->CreateField(&definition) != OGRERR_NONE)
            return nullptr;
    }
    return layer;
}

// Longitudes within -180 .. 180, as a GIS expects them (fault outlines come in 0 .. 360).
std::unique_ptr<OGRPolygon> Polygon(const OverviewRing& ring) {
    auto outline = std::make_unique<OGRLinearRing>();
    for (std::size_t k = 0; k < ring.x.size(); ++k)
        outline->addPoint(NearLongitude(ring.x[k], 0.0), ring.y[k]);
    outline->closeRings();
    auto polygon = std::make_unique<OGRPolygon>();
    polygon->addRingDirectly(outline.release());
    return polygon;
}

void SetOptionalReal(OGRFeature& feature, const char* field, const std::optional<double>& v) {
    if (v)
        feature.SetField(field, *v);
    else
        feature.SetFieldNull(feature.GetFieldIndex(field));
}

bool AddFeature(OGRLayer* layer, OGRFeature& feature, std::unique_ptr<OGRGeometry> geometry) {
    feature.SetGeometryDirectly(geometry.release());
    return layer->CreateFeature(&feature) == OGRERR_NONE;
}

bool WritePoints(GDALDataset& ds, const char* name, const std::vector<OverviewPoint>& points,
                 OGRSpatialReference& lonLat) {
    OGRLayer* layer = MakeLayer(ds, name, wkbPoint, lonLat,
                                {{"name", OFTString}, {"file", OFTString}, {"epsg", OFTInteger},
                                 {"x", OFTReal}, {"y", OFTReal}, {"region", OFTInteger}});
    if (layer == nullptr)
        return false;
    for (const OverviewPoint& p : points) {
        if (!p.onLonLat)
            continue;
        OGRFeatureUniquePtr feature(OGRFeature::CreateFeature(layer->GetLayerDefn()));
        feature->SetField("name", p.name.c_str());
        feature->SetField("file", p.file.c_str());
        feature->SetField("epsg", p.epsg);
        feature->SetField("x", p.x);
        feature->SetField("y", p.y);
        if (p.region)
            feature->SetField("region", *p.region);
        else
            feature->SetFieldNull(feature->GetFieldIndex("region"));
        if (!AddFeature(layer, *feature,
                        std::make_unique<OGRPoint>(NearLongitude(p.lon, 0.0), p.lat)))
            return false;
    }
    return true;
}

bool WriteLayers(GDALDataset& ds, const OverviewScene& scene) {
    OGRSpatialReference lonLat;
    if (lonLat.importFromEPSG(4326) != OGRERR_NONE)
        return false;
    lonLat.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
    OGRLayer* regions =
        MakeLayer(ds, "regions", wkbPolygon, lonLat,
                  {{"number", OFTInteger}, {"name", OFTString}, {"base", OFTInteger},
                   {"epsg", OFTInteger}, {"spacing", OFTReal}, {"nx", OFTInteger},
                   {"ny", OFTInteger}, {"time_step", OFTReal}, {"cfl", OFTReal}});
    if (regions == nullptr)
        return false;
    for (const OverviewRegion& r : scene.regions) {
        if (r.lonLat.empty())
            continue;
        OGRFeatureUniquePtr feature(OGRFeature::CreateFeature(regions->GetLayerDefn()));
        feature->SetField("number", r.number);
        feature->SetField("name", r.name.c_str());
        feature->SetField("base", r.base);
        feature->SetField("epsg", r.epsg);
        feature->SetField("spacing", r.spacing);
        feature->SetField("nx", r.nx);
        feature->SetField("ny", r.ny);
        SetOptionalReal(*feature, "time_step", r.dt);
        SetOptionalReal(*feature, "cfl", r.cfl);
        if (!AddFeature(regions, *feature, Polygon(r.lonLat)))
            return false;
    }
    if (!WritePoints(ds, "stations", scene.stations, lonLat) ||
        !WritePoints(ds, "coastal_points", scene.coastalPoints, lonLat))
        return false;
    OGRLayer* faults = MakeLayer(ds, "faults", wkbPolygon, lonLat,
                                 {{"name", OFTString}, {"slip", OFTReal}, {"file", OFTString},
                                  {"segment", OFTInteger}});
    if (faults == nullptr)
        return false;
    for (const OverviewFault& f : scene.faults) {
        if (f.lonLat.empty())
            continue;
        OGRFeatureUniquePtr feature(OGRFeature::CreateFeature(faults->GetLayerDefn()));
        feature->SetField("name", f.name.c_str());
        feature->SetField("slip", f.slip);
        feature->SetField("file", f.file.c_str());
        feature->SetField("segment", f.segment);
        if (!AddFeature(faults, *feature, Polygon(f.lonLat)))
            return false;
    }
    return true;
}

} // namespace

void WriteOverviewGeoPackage(const std::string& path, const OverviewScene& scene) {
    ReplaceFileAtomically(path, [&](const std::string& temporary) {
        CPLErrorHandlerPusher quiet(CPLQuietErrorHandler);
        CPLErrorReset();
        RegisterGdalOnce();
        GDALDriver* driver = GetGDALDriverManager()->GetDriverByName("GPKG");
        if (driver == nullptr)
            throw PrepError("this GDAL has no GeoPackage driver");
        // The driver makes its own file: the empty temporary only reserved the name.
        std::remove(temporary.c_str());
        GDALDatasetUniquePtr ds(
            driver->Create(temporary.c_str(), 0, 0, 0, GDT_Unknown, nullptr));
        if (!ds)
            return false;
        // One transaction: thousands of points are written at once, not one by one.
        bool ok = ds->StartTransaction() == OGRERR_NONE && WriteLayers(*ds, scene) &&
                  ds->CommitTransaction() == OGRERR_NONE;
        ds.reset(); // the file is complete only once closed
        return ok && CPLGetLastErrorType() != CE_Failure;
    });
}
