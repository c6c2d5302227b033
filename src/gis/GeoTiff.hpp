#pragma once

#include <gdal_priv.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

// Draws a grid of doubles as a paletted GeoTIFF: a colour table file splits the values
// into classes, each cell is stored as the one-byte index of its class, and the picture
// is written north-up with its geotransform and EPSG coordinate system.
//
// Use: initialize once, then convertRaster and save for every picture drawn with that
// table. Every failure is one "Error : GeoTiff::..." line on standard output and a false
// answer; GDAL's own messages are kept off the console.
class GeoTiff {
  public:
    // One class: values from `value` up to the next class's bound get this colour.
    struct ColorTable {
        double value = 0.0;
        int red = 0;
        int green = 0;
        int blue = 0;
    };

    GeoTiff();
    virtual ~GeoTiff();
    GeoTiff(const GeoTiff&) = delete;
    GeoTiff& operator=(const GeoTiff&) = delete;

    // Reads the colour table file: one class per line, "<lower bound> <red> <green> <blue>",
    // bounds ascending. At most 256 classes. A colour component outside 0..255 is taken
    // as the nearest of the two; a field that is missing or not a number reads as 0.
    // Kept: a last line without a line end is not used, and a blank line is a class.
    // Lines are read with a 1023-byte buffer, so a line of more than 1022 characters is
    // read as several lines.
    [[nodiscard]] bool initialize(const std::string& colorTableFile);
    // The reading of initialize alone, printing nothing and making no GDAL table: 0 when
    // read, 1 when the file cannot be opened or read, 2 for more than 256 classes.
    [[nodiscard]] int loadColorTable(const std::string& colorTableFile);

    // Classifies nx × ny values given in grid-file order: row j = 0 (the southernmost)
    // first, x fastest, so values[j * nx + i] is the cell at column i (west to east) and
    // row j (south to north). Cells beyond the end of `values` get class 0, as values no
    // class takes (NaN) do.
    [[nodiscard]] bool convertRaster(std::uint32_t nx, std::uint32_t ny,
                                     std::span<const double> values);
    // The same where cell k is values[k * stride]: one value of each cell of a grid that
    // holds several, drawn without copying them out first.
    [[nodiscard]] bool convertRaster(std::uint32_t nx, std::uint32_t ny,
                                     std::span<const double> values, std::size_t stride);

    // The same for cells held as codes: cell k is table[codes[k]]. Each code is one
    // value, so the picture is the one its values would give.
    [[nodiscard]] bool convertCodes(std::uint32_t nx, std::uint32_t ny,
                                    std::span<const std::uint8_t> codes,
                                    std::span<const double> table);

    // The same for a grid held as columns: grid[i] is column i (west to east) listing its
    // values from south to north. The picture is as tall as the first column; cells past
    // the end of a shorter column get class 0.
    [[nodiscard]] bool convertRaster(const std::vector<std::vector<double>>& grid);

    // Writes the picture to `path` as an LZW-compressed GeoTIFF in the system `epsg`.
    // (originX, originY) is the top-left corner of the top-left cell; cellHeight is
    // negative for a north-up picture.
    [[nodiscard]] bool save(const std::string& path, unsigned int epsg, double originX,
                            double originY, double cellWidth, double cellHeight) const;

    // save for a grid of points: (orgX, orgY) is the south-west grid point, points are
    // gridSize apart along x and y, and each point is the centre of its cell, so the
    // picture reaches half a cell beyond the outer points on every side.
    [[nodiscard]] bool saveGrid(const std::string& path, unsigned int epsg, double orgX,
                                double orgY, double gridSize) const;

    std::vector<ColorTable> colorTable; // in file order, index k = line k
    std::unique_ptr<GDALColorTable> gdalColorTable;
    std::vector<std::uint8_t> raster; // class indices, top row first, x fastest
    std::uint32_t xSize = 0;
    std::uint32_t ySize = 0;

  private:
    // Checks the picture can be drawn, sizes the raster and has classifyRows(first, end)
    // fill raster rows [first, end), in two halves on two cores where the picture is large.
    template <class ClassifyRows>
    bool ClassifyWith(std::uint32_t nx, std::uint32_t ny, ClassifyRows classifyRows);
    // rowAt(j, scratch) gives the nx values of grid row j, in place or copied to scratch.
    template <class RowAt> bool Classify(std::uint32_t nx, std::uint32_t ny, RowAt rowAt);
    void SearchClasses(const double* row, std::size_t count, std::uint8_t* out) const;
    [[nodiscard]] std::uint8_t ClassOf(double v) const;

    bool m_ascending = false; // bounds never decrease: classes by binary search
};
