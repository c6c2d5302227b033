#pragma once

#include <string>
#include <vector>

// Plain records of the XML project file. Every field carries the name of the element that
// fills it, so the code and the project file speak one vocabulary. Units follow the file:
// seconds, metres, and grid sizes in the unit of the record's coordinate system.

// One grid input of a region: a file, or a constant used everywhere when no file is named.
struct XML_FILESETTING {
    std::string FileName;
    double UniformValue = 0.0;
};

struct XML_REGION {
    int RegionNo = 0;
    std::string RegionName;
    int BaseRegionNo = -1; // 0 after validation means an outermost region
    double GridSize = 0.0;
    int EPSG = 3100; // the reader sets the project's Datum at the moment <Region> is met
    int NonLinearTerm = 0;
    int DispersiveTerm = 0;
    XML_FILESETTING Topography;
    XML_FILESETTING RoughnessCoefficient{"", 0.025};
    XML_FILESETTING WaveHeight;
    XML_FILESETTING ConstructionLineData;
    XML_FILESETTING LandMap;
    // Child elements the reader does not know and passes over ("GridSise",
    // "Topography/FileNmae"), in file order, so that a misspelt one can be named.
    std::vector<std::string> UnknownElements;
};

struct XML_LAYER {
    int LayerNo = 0;
    double GridSize = 0.0;
    int GridRatio = 1;   // not filled by the reader
    double TimeStep = 0; // not filled by the reader
    int TimeIncrementRatio = 1;
};

struct XML_FAULT {
    int CoordinateType = 0; // 1 = latitude-longitude, set by the reader from EPSG
    int EPSG = 3100;
    std::string FileName;
};

// A <StationPos> or <ExtractPoint>: one point list file.
struct XML_STATION {
    int EPSG = 3100;
    std::string FileName;
};

struct XML_DYNAMIC {
    std::string FileName;
};

struct XML_CONSTLINE {
    std::string FileName;
};

// Output switches are on only when exactly 1.
struct XML_OUTPUTSETTING {
    double OutputStartTime = 0.0;
    double Dump1dInterval = 5.0;
    int Buffering = 1;
    int Monolithic = 1;
    int Dump1dWaterHeight = 0;
    int Dump1dTotalDepth = 0;
    int Dump1dWaterDischarge = 0;
    double Dump2dInterval = 300.0;
    int Dump2dWaterHeight = 0;
    int Dump2dWaterDischarge = 0;
    double CoastalInterval = 300.0;
    int CoastalWaterHeight = 0;
    int CoastalWaterHeightArrivalTime = 0;
    std::string CoastalWaterHeightThreshold;
    int CoastalRelativeWaterHeight = 0;
    int CoastalRelativeWaterHeightArrivalTime = 0;
    std::string CoastalRelativeWaterHeightThreshold;
    double LandInterval = 300.0;
    int LandInundation = 0;
    int LandInundationArrivalTime = 0;
    std::string LandInundationThreshold;
};

// Colour table files for the GeoTIFF pictures; an empty name means no picture.
struct XML_GEOTIFFSETTING {
    std::string TopographyColorTable;
    std::string RoughnessColorTable;
    std::string WaveHeightColorTable;
};
