#pragma once

#include <gdal_priv.h>
#include <ogr_spatialref.h>
#include <ogrsf_frmts.h>

#include "region/RegionTestSupport.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

// Written files are read back through GDAL, as a GIS opens them.
inline GDALDatasetUniquePtr OpenDataset(const std::string& path, unsigned int kind) {
    GDALAllRegister();
    return GDALDatasetUniquePtr(GDALDataset::Open(path.c_str(), kind | GDAL_OF_READONLY));
}

// The EPSG code a reader finds for the file's coordinate system, or 0.
inline int EpsgOf(const OGRSpatialReference* srs) {
    if (srs == nullptr)
        return 0;
    OGRSpatialReference copy(*srs);
    if (copy.GetAuthorityCode(nullptr) == nullptr)
        (void)copy.AutoIdentifyEPSG();
    const char* code = copy.GetAuthorityCode(nullptr);
    return code ? std::atoi(code) : 0;
}

// A feature as read back: "Name", "Slip" (0 without that field), and the vertices of
// its point or of its polygon's outer ring.
struct ReadFeature {
    std::string name;
    double slip = 0.0;
    std::vector<std::pair<double, double>> vertices;
};

// The features of the shapefile's single layer; none when it cannot be opened.
inline std::vector<ReadFeature> FeaturesOf(const std::string& path, int* epsg = nullptr) {
    GDALDatasetUniquePtr ds = OpenDataset(path, GDAL_OF_VECTOR);
    EXPECT_TRUE(ds && ds->GetLayerCount() == 1) << path;
    if (!ds || ds->GetLayerCount() != 1)
        return {};
    OGRLayer* layer = ds->GetLayer(0);
    if (epsg)
        *epsg = EpsgOf(layer->GetSpatialRef());
    std::vector<ReadFeature> features;
    for (auto& feature : *layer) {
        ReadFeature f{feature->GetFieldAsString("Name"), 0.0, {}};
        if (feature->GetFieldIndex("Slip") >= 0)
            f.slip = feature->GetFieldAsDouble("Slip");
        const OGRGeometry* g = feature->GetGeometryRef();
        if (g && wkbFlatten(g->getGeometryType()) == wkbPoint)
            f.vertices.emplace_back(g->toPoint()->getX(), g->toPoint()->getY());
        const OGRLinearRing* ring = g && wkbFlatten(g->getGeometryType()) == wkbPolygon
                                        ? g->toPolygon()->getExteriorRing()
                                        : nullptr;
        for (int k = 0; ring && k < ring->getNumPoints(); ++k)
            f.vertices.emplace_back(ring->getX(k), ring->getY(k));
        features.push_back(std::move(f));
    }
    return features;
}
