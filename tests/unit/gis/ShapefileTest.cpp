#include "gis/Shapefile.hpp"

#include "gis/GisTestSupport.hpp"
#include "support/TempDir.hpp"

#include <filesystem>
#include <functional>

namespace {

namespace fs = std::filesystem;

// Clockwise (an outer ring as shapefiles store it), last vertex not repeating the first.
const double kXs[5] = {0.0, 0.0, 5.0, 10.0, 10.0};
const double kYs[5] = {0.0, 10.0, 12.0, 10.0, 0.0};

TEST(Shapefile, PolygonFieldsAndClosedRingReadBack) {
    TempDir dir;
    const std::string path = dir.path().string() + "/FaultModel001.shp";
    EXPECT_EQ(Outcome([&] {
                  Shapefile shp; // the destructor completes the files
                  return shp.create(path, Shapefile::POLYGON, 3100) &&
                         shp.writePolygon("F", "Slip", 1.75, kXs, kYs);
              }),
              "1||");

    GDALDatasetUniquePtr ds = OpenDataset(path, GDAL_OF_VECTOR);
    ASSERT_TRUE(ds);
    EXPECT_EQ(wkbFlatten(ds->GetLayer(0)->GetGeomType()), wkbPolygon);
    const OGRFeatureDefn* defn = ds->GetLayer(0)->GetLayerDefn();
    ASSERT_EQ(defn->GetFieldCount(), 2);
    for (const auto& [k, name, type] : {std::tuple{0, "Name", OFTString}, {1, "Slip", OFTReal}}) {
        EXPECT_STREQ(defn->GetFieldDefn(k)->GetNameRef(), name);
        EXPECT_EQ(defn->GetFieldDefn(k)->GetType(), type);
        EXPECT_EQ(defn->GetFieldDefn(k)->GetWidth(), 32);
    }
    int epsg = 0;
    const auto features = FeaturesOf(path, &epsg);
    EXPECT_EQ(epsg, 3100);
    ASSERT_EQ(features.size(), 1u);
    EXPECT_EQ(features[0].slip, 2.0); // Kept: no decimals in the slip field
    ASSERT_EQ(features[0].vertices.size(), 6u);
    for (int k = 0; k < 6; ++k)
        EXPECT_EQ(features[0].vertices[k], std::make_pair(kXs[k % 5], kYs[k % 5])) << k;
}

TEST(Shapefile, RefusalsInTurn) {
    TempDir dir;
    const std::string d = dir.path().string(), file = dir.Write("plain", "x");
    fs::create_directory(dir.path() / "taken.shp");
    fs::create_directory(dir.path() / "blocked.dbf");
    Shapefile shp;
    auto point = [&] { return shp.writePoint("p", Point{}); };
    auto polygon = [&] { return shp.writePolygon("q", "Slip", 1.0, kXs, kYs); };
    auto close = [&] { return shp.close(); };
    auto create = [&](std::string path, Shapefile::ShapeType type, unsigned epsg) {
        return [&shp, path, type, epsg] { return shp.create(path, type, epsg); };
    };
    const std::string kNoPoint =
        "0|Error : Shapefile::writePoint() -> Layer null or Type not POINT\n|";
    const std::string kNoPolygon =
        "0|Error : Shapefile::writePolygon() -> Layer null or Type not POLYGON\n|";
    // Files are stored in name order, so the .dbf is the first a bad folder refuses.
    const auto kNotStored = [](const std::string& stem) {
        return "0|Error : Shapefile::close() -> fopen(" + stem + ".dbf)\n|";
    };
    const std::string kNoSource =
        "0|Error : Shapefile::create() -> OGRSFDriver::CreateDataSource()\n|";
    const std::pair<std::function<bool()>, std::string> steps[] = {
        {point, kNoPoint},
        {polygon, kNoPolygon},
        {create(d + "/x.shp", Shapefile::POINT, 999999),
         "0|Error : Shapefile::create() -> OGRSpatialReference::importFromEPSG()\n|"},
        {point, kNoPoint}, // the failed create left it closed
        {close, "1||"},    // and nothing to store
        // A folder that is a file or is missing fails the creation, as on disk.
        {create(file + "/x.shp", Shapefile::POINT, 3100), kNoSource},
        {create(d + "/missing/x.shp", Shapefile::POINT, 3100), kNoSource},
        {point, kNoPoint},
        // A directory would take the layer inside it under another name.
        {create(d + "/taken.shp", Shapefile::POINT, 3100), kNoSource},
        {close, "1||"}, // nothing to store
        // A file that cannot be stored at close: a directory in place of the .dbf.
        {create(d + "/blocked.shp", Shapefile::POINT, 3100), "1||"},
        {point, "1||"},
        {close, kNotStored(d + "/blocked")},
        {create(d + "/poly.shp", Shapefile::POLYGON, 3100), "1||"},
        {point, kNoPoint},
        {create(d + "/point.shp", Shapefile::POINT, 3100), "1||"},
        {polygon, kNoPolygon},
        {close, "1||"},
    };
    for (size_t k = 0; k < std::size(steps); ++k)
        EXPECT_EQ(Outcome(steps[k].first), steps[k].second) << k;
    for (const char* left : {"x.shp", "x.dbf", "x.shx", "x.prj", "taken.shp/Layer.shp"})
        EXPECT_FALSE(fs::exists(dir.path() / left)) << left;
    for (const char* stored : {"poly.shp", "poly.dbf", "point.shp", "point.shx", "point.prj"})
        EXPECT_TRUE(fs::is_regular_file(dir.path() / stored)) << stored;
}

} // namespace
