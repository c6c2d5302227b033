#pragma once

#include <gdal_priv.h>
#include <ogrsf_frmts.h>

#include <cstdint>
#include <string>

// A vertex or a point feature, in the units of the shapefile's EPSG system.
struct Point {
    double x = 0.0;
    double y = 0.0;
};

// Writes one ESRI shapefile of named points (stations, extract points) or of five-vertex
// polygons with a name and one real attribute (fault outlines).
//
// The attribute table is "Name" (string, width 32) on every layer and "Slip" (real,
// width 32) on polygon layers. Every failure is one "Error : Shapefile::..." line on
// standard output and a false answer; GDAL's own messages are kept off the console.
// Use: create, any number of writePoint or writePolygon, close (or let it go out of scope,
// which stores the files as close does but cannot answer).
//
// The driver does not report a write that fails when its files are closed (a full disk),
// so the files are built in memory and close stores them with checked writes.
class Shapefile {
  public:
    // Values of the OGR geometry types they are passed as.
    enum ShapeType : std::uint32_t {
        POINT = 1,
        POLYGON = 3,
    };

    Shapefile();
    virtual ~Shapefile();
    Shapefile(const Shapefile&) = delete;
    Shapefile& operator=(const Shapefile&) = delete;

    // Opens a new shapefile at `path` (a ".shp" path) with one layer of `type` in the
    // coordinate system `epsg`. A shapefile already at `path` is replaced, never appended
    // to. On failure the object is left closed.
    [[nodiscard]] bool create(const std::string& path, ShapeType type, unsigned int epsg);

    // Adds a point feature; refused unless a POINT layer is open.
    [[nodiscard]] bool writePoint(const std::string& name, const Point& p);

    // Adds a polygon feature whose outer ring is the five vertices (xs[k], ys[k]), closed
    // if the last differs from the first, with "Name" = name and the field `field` =
    // value. Refused unless a POLYGON layer is open.
    [[nodiscard]] bool writePolygon(const std::string& name, const std::string& field,
                                    const double& value, const double* xs, const double* ys);

    // Completes the .shp, .shx, .dbf and .prj files and stores them beside `path`, in
    // that name order. False when one of them cannot be stored in full, after the line
    // "Error : Shapefile::close() -> fopen(<file>)" (or fwrite, fclose) naming it; the
    // files stored before it stay. Also false, without a further line, after a create
    // that found a directory at `path`. True when nothing is open.
    [[nodiscard]] bool close();

  private:
    void Discard();

    GDALDatasetUniquePtr m_dataSource; // on m_staging
    OGRLayer* m_layer = nullptr;       // owned by m_dataSource
    std::uint32_t m_type = 0;          // ShapeType of the open layer, 0 when closed
    std::string m_staging;             // in-memory folder the driver writes to
    std::string m_destination;         // folder close stores the files in
};
