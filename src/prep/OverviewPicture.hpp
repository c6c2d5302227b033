#pragma once

#include "prep/OverviewScene.hpp"

#include <cstdint>
#include <string>
#include <vector>

// The overview as a PNG: the outer region's topography in colour relief with hillshade
// (GDAL's DEM processing), every nested region's outline with its name, spacing and time
// step, stations and coastal points as marks, fault outlines, and a legend with the
// colour scale (cairo).

struct OverviewColour {
    unsigned char r;
    unsigned char g;
    unsigned char b;
};
inline constexpr OverviewColour kStationFill{255, 255, 255};
inline constexpr OverviewColour kCoastalPointFill{0, 220, 220};
inline constexpr OverviewColour kNoCellFill{150, 150, 150}; // a point no region takes
inline constexpr OverviewColour kBackground{255, 255, 255};
// Outline of a region nested `level` deep (1: in the outer region).
[[nodiscard]] OverviewColour RegionOutlineColour(int level);

// The relief's colours: elevation in metres (negative below sea level), linear between
// stops; flat ground is drawn in exactly these colours, slopes lit from the north-west.
struct ReliefStop {
    double elevation;
    OverviewColour colour;
};
[[nodiscard]] const std::vector<ReliefStop>& ReliefStops();

// Where the map lies in the picture. Pixel coordinates run from the picture's top-left
// corner; a geographic map is drawn with its east-west degrees shortened by the cosine of
// its middle latitude, so shapes keep their proportions.
struct MapFrame {
    double minX = 0; // extent, in the outer region's system
    double minY = 0;
    double maxX = 0;
    double maxY = 0;
    int left = 0; // map rectangle, pixels
    int top = 0;
    int width = 0;
    int height = 0;
    int pictureWidth = 0;
    int pictureHeight = 0;
    [[nodiscard]] double PixelX(double x) const {
        return left + (x - minX) / (maxX - minX) * width;
    }
    [[nodiscard]] double PixelY(double y) const {
        return top + (maxY - y) / (maxY - minY) * height;
    }
};
inline constexpr int kMinPictureWidth = 600;
inline constexpr int kMaxPictureWidth = 8000;
[[nodiscard]] MapFrame LayOutMap(const OverviewScene& scene, int pictureWidth);

// The outer region's relief for the map `frame`: colour relief times hillshade, one
// 0x00RRGGBB pixel per map pixel, rows from the north. Made apart from the picture so the
// second core can make it while the rest of the project is read. Throws PrepError.
struct ReliefImage {
    int width = 0;
    int height = 0;
    std::vector<std::uint32_t> pixels;
};
[[nodiscard]] ReliefImage MakeRelief(const Region& grid, const MapFrame& frame, bool geographic);

// GDALAllRegister unless drivers are registered already: the picture and the GeoPackage
// are written on two threads, and registering again scans the plugin folders unguarded.
void RegisterGdalOnce();

// Draws the scene `pictureWidth` pixels wide and writes it to `path` as a whole (beside
// it first, then renamed), with `relief` when it was made for this frame, else making it.
// Throws PrepError when it cannot be drawn or written.
void WriteOverviewPicture(const std::string& path, const OverviewScene& scene, int pictureWidth,
                          const ReliefImage* relief = nullptr);
