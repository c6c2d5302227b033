#pragma once

#include "project/XmlRecords.hpp"
#include "region/Grid2d.hpp"
#include "region/InstantVal2d.hpp"
#include "region/PointType.hpp"
#include "region/PosIJ.hpp"

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

class DynamicParam; // inputs/DynamicParam.hpp

// Grid kind of a Region. The values are written into configuration files and error
// messages, so they never change. A default-constructed Region has kind 0.
enum RType {
    TPG_R = 1, // topography (depth / elevation)
    RCF_R = 2, // roughness coefficient
    CLD_R = 3, // construction-line data: two (value, identifier) pairs per cell
    WBM_R = 4, // wave-breaker map, computed
    WBH_R = 5, // wave-breaker height, computed
    LSM_R = 6, // land map
    VRT_R = 7, // vertical deformation
    HRZ_R = 8, // horizontal deformation
    IWH_R = 9, // initial wave height
};

// One grid layer (kind) of one computational region. The nine layers of a region are
// separate objects sharing its number, name, coordinate system and geometry.
//
// Geometry: grid point (i, j) lies at (org_x + i × gridSize, org_y + j × gridSize), in the
// units of `epsg` (degrees when coordType is 1, else metres). i runs along x, j along y;
// files hold rows of constant j with x fastest, starting at org_y.
//
// Cells: every grid is one contiguous buffer owned by this object (copies are deep) and
// indexed grid[i][j] or grid(i, j). The per-face pair grids hold two values per cell,
// read as pairGrid[i][j][k]: k = 0 for the face towards (i, j + 1), k = 1 towards (i + 1, j).
//
// Operations print their own progress on standard output and their own
// "ERROR:REGION OBJECT METHOD" block on standard error, and answer with their result.
// Methods live in sources named for the operation (RegionReadFile.cpp, RegionWriteBIN.cpp,
// RegionFill.cpp, ...).
class Region {
  public:
    Region();
    // Takes the kind's tag, input file and uniform value from the record.
    Region(RType kind, const XML_REGION& rec);

    // Region.cpp
    // Sets the four geometry fields only; the cells are left as they are.
    void Set2dStruct(int newNx, int newNy, double newOrgX, double newOrgY);
    // Whether the single-value cells are held as codes (codeGrid) rather than in grid.
    [[nodiscard]] bool HasCodes() const { return codeGrid.HasShape(nx, ny); }
    // Cell (i, j) of a single-value grid, in either form.
    [[nodiscard]] double CellValue(int i, int j) const {
        return HasCodes() ? codeValues[codeGrid(i, j)] : grid(i, j);
    }
    // Frees the cells once the run no longer needs them (geometry and names stay), and
    // the value buffers of the deformation stages.
    void FreeVecMem();
    [[nodiscard]] int TempMethod();

    // RegionReadFile.cpp
    // Loads inFileName, a binary grid when ".bin" occurs in the path after its first
    // character, else a text grid. Sets nx, ny, org_x, org_y, the cells, valMax and valMin
    // (a binary file also gridSize and fileGridSize), prints the "Region Input:" summary
    // and returns 1; returns 0 after printing the error block. Never throws.
    [[nodiscard]] int ReadFile();
    // The reading of ReadFile without its summary and error block: 0 when read, else the
    // cause ReadFile reports (1 cannot open, 2 header format, 3 value count);
    // `valueCount` receives the number of values read. With `echo`, the binary reader's
    // own lines are printed as ReadFile prints them.
    [[nodiscard]] int LoadFile(std::int64_t& valueCount, bool echo = false);
    // ReadFile in two steps, for a grid read while another thread is busy: the reading,
    // printing nothing (-1 when this grid cannot be read so: a binary construction-line
    // file, whose reading prints its entries), then everything ReadFile prints, with its
    // result.
    [[nodiscard]] int ReadFileQuietly(std::int64_t& valueCount);
    [[nodiscard]] int ReportQuietRead(int failure, std::int64_t valueCount);

    // RegionWriteBIN.cpp
    // Writes "<dir>/<first three of typeTag>_<regionName>.bin" (header, then the cells of
    // TPG_R, RCF_R, LSM_R as floats, WBH_R as float pairs, WBM_R as int32 pairs; other
    // kinds get the header only) and stores that path in outFileName, even on failure.
    // Returns 1, or 0 after the "Can not open file." error block when the file cannot be
    // created or written in full.
    [[nodiscard]] int WriteBIN(std::string dir);
    // The file WriteBIN writes, onto an open stream, printing nothing; false when a write
    // failed. The caller flushes and closes.
    [[nodiscard]] bool PutBIN(std::FILE* file) const;

    // RegionWriteText.cpp
    // This grid as a text grid the reader takes back: "nx ny", "org_x org_y", then rows of
    // constant j from j = 0, x fastest, at most ten values a line, each row on new lines.
    // Cells are the floats the binary writer stores, as the shortest plain decimal that
    // reads back to them (never an exponent: the reader splits "1e-3" at the minus sign).
    // A grid without nx × ny cells is written as zeros. Prints nothing; false when a
    // write failed.
    [[nodiscard]] bool PutText(std::FILE* file) const;

    // RegionCalcDT.cpp
    // Time step of the region from the time step handed in (seconds) and the nesting CFL
    // limit: sets dxMeter, dt, timeRatio (3 when the limit allows three steps, else 1) and
    // cfl. Returns false after the "Calculate CFL" error block.
    [[nodiscard]] bool CalcDT(double timeIncrement, double cflLimit);
    void SetStepRatio(int ratio); // the parent region's timeRatio
    // The computation of CalcDT alone, printing nothing: 0 when the members are set, else
    // CalcDT's detail code (1 limit outside 0 .. 1, 2 time increment not positive, 3
    // spacing in metres not positive; dxMeter is already set then).
    [[nodiscard]] int TimeStepFailure(double timeIncrement, double cflLimit);

    // RegionCheckComprisable.cpp
    // True, after printing "Comprisable:OK", when this grid's cells lie inside the base
    // region's cells; false after the "Check Comprisable" error block. With another EPSG
    // code the base code names the geographic system and this region's the plane system.
    [[nodiscard]] bool CheckComprisable(int baseEpsg, double baseOrgX, double baseOrgY,
                                        double baseGridSize, int baseNx, int baseNy);
    // The test of CheckComprisable alone, printing nothing of its own: 0 when this grid
    // lies inside the base region, else the reason CheckComprisable reports (1 west, 2
    // south, 3 east, 4 north, 5 a corner not found across systems).
    [[nodiscard]] int ComprisableReason(int baseEpsg, double baseOrgX, double baseOrgY,
                                        double baseGridSize, int baseNx, int baseNy) const;
    // Sets connectI and connectJ, the 1-based base grid position where this grid starts;
    // false after the "Search Connecting Point" error block when either is not found.
    [[nodiscard]] bool SearchConnectPos(double baseOrgX, double baseOrgY, double baseGridSize,
                                        int baseNx, int baseNy);

    // RegionWriteConf.cpp: this grid's lines of the two configuration files (topography
    // grids name the region; the other kinds their file). Always true.
    bool WriteIWHConf(std::FILE* stream) const;
    bool WriteCalParam(std::FILE* stream) const;

    // RegionFill.cpp: cells for the kinds that have no input file, sized nx × ny.
    void Make2dStruct();     // grid: uniformValue everywhere
    void Make2dStruct2();    // pairGrid: uniformValue, uniformValue in every cell
    void Make2dStructInt2(); // pairIntGrid: 0, 0 in every cell

    // RegionLandMap.cpp
    // True when this is a land map (LSM_R) whose inFileName states the tide level
    // `tideLevel` (hundredths of the topography's unit): the last "_P" and up to three
    // characters after it, read as atol reads them, state a positive level; a name
    // without "_P" states a negative one by its last "_M". Kept: "_P" wins wherever an
    // "_M" stands. Prints the "Check Tide" error block otherwise.
    [[nodiscard]] bool CheckFileNameTide(int tideLevel) const;
    // The test of CheckFileNameTide alone, printing nothing: 0 when the name states the
    // level, 1 not a land map, 2 no "_P" or "_M" marker, 3 another level.
    [[nodiscard]] int TideNameFailure(int tideLevel) const;
    // Fills `grid` (nx × ny, sized by Make2dStruct) with the land map of the topography
    // `depth` (depth[i][j], i along x) at the tide level `tideLevel` (hundredths of the
    // depth unit, compared in single precision): 0.0 below the tide and joined to the
    // outer ring's water, 2.0 below the tide and cut off by the structures of `mapA` but
    // joined past those of `mapB`, 1.0 elsewhere. mapX[i][j][0] != 0 blocks the step
    // (i, j)-(i, j + 1), mapX[i][j][1] != 0 the step (i, j)-(i + 1, j); a diagonal step
    // goes round either corner whose two faces are open. Both maps are the caller's
    // copies. Cells of the outer ring keep 0.0 or 1.0. The map is held in codeGrid over
    // the values 0.0, 1.0 and 2.0. Time and memory grow with the cell count only (one
    // byte per cell besides the inputs). False after the "Making Land Map" error block
    // when the grids are not all nx × ny.
    [[nodiscard]] bool MakeLandMap(const Grid2d<double>& depth, Grid2d<std::int32_t, 2> mapA,
                                   Grid2d<std::int32_t, 2> mapB, int tideLevel);

    // RegionSetDynamic.cpp
    // Names the stage grids "<dir>/<first three of typeTag>_<regionName>_<validTime>s.bin"
    // and writes the index "<dir>/<tag>_<regionName>.txt" (valid time, rise time, grid
    // name per stage), which becomes outFileName; prints the names on standard output.
    // A region whose epsg is not the deformation's `deformationEpsg` only gets outFileName
    // blanked. False after the "Writing BIN File" error block ("Can not open file.") when
    // the index cannot be created or written in full.
    [[nodiscard]] bool SetDynamic(std::string dir, DynamicParam param, int deformationEpsg);

    // RegionFitPoint.cpp
    // Appends (i, j, name) to stationPoints (STATION_POINT) or extractPoints
    // (EXTRACT_POINT) when the point (x, y), in the units of epsg, lies in cell (i, j):
    // within half a gridSize of grid point (i, j) along x and along y, bounds included, a
    // point on the border of two cells going to the lower index. A point outside, or of
    // another type, is left out; nothing checks for duplicates. Always true.
    bool FitPointToRegion(double x, double y, std::string name, PointType pointType);
    // Write "<dir>/Dump1d_R<regionNo as %03d>.txt" from stationPoints, and
    // "<dir>/CoastExtractPoint_<regionName>.txt" from extractPoints: one line
    // "<i + 1>, <j + 1>, <name>" per point (1-based, as the calculator counts), an empty
    // file when there are none. Print the path on standard output and store it in
    // staFileName or extFileName, even on failure. False after the "Write Station File" or
    // "Write Coast Extract File" error block ("Can not open file.") when the file cannot
    // be created or written in full.
    [[nodiscard]] bool WriteStaFile(std::string dir);
    [[nodiscard]] bool WriteExtFile(std::string dir);

    // RegionWriteGeoTIFF.cpp
    // Draws this grid as "<dir>/<first three of typeTag><component>_<regionName>.tiff"
    // with the colour table file `colorTableFile`, north-up in the system epsg, each grid
    // point the centre of its cell. Drawn: grid for TPG_R, RCF_R and LSM_R; the sum of the
    // deformation stages for VRT_R, HRZ_R and IWH_R; for WBH_R the first value of each
    // pair when `component` is "N", the second for "E", else zeros. Other kinds have
    // nothing to draw and fail. Prints nothing on success; false after the writer's
    // "Error : GeoTiff::..." line and the "Write GeoTIFF" error block.
    [[nodiscard]] bool WriteGeoTIFF(const std::string& dir, const std::string& colorTableFile,
                                    const std::string& component);

    RType type;
    std::string typeTag; // "TPG-R" ...; its first three characters name output files
    std::string regionName;
    std::int32_t regionNo;
    std::int32_t baseRegionNo; // 0 for an outermost region
    std::int32_t epsg;
    std::int32_t coordType; // 1: longitude-latitude degrees (EPSG 4326, 4612), 0: metres
    double gridSize;        // spacing, in the units of epsg

    // Time step of the region.
    double dt;
    std::int32_t timeRatio;
    std::int32_t stepRatio;
    float dxMeter;
    double cfl;

    std::int32_t nx; // grid points along x
    std::int32_t ny; // grid points along y
    double org_x;    // coordinates of grid point (0, 0)
    double org_y;
    double end_x; // last grid point, stated by a construction-line text header
    double end_y;
    double fileGridSize; // spacing stated by the grid file; 0 when it states none

    // 1-based position of this region's first point inside its base region.
    std::int32_t connectI;
    std::int32_t connectJ;

    std::vector<InstantVal2d> dynamicSeries; // time stages of a deformation grid

    Grid2d<double> grid;                 // one value per cell
    // A single-value grid of few distinct values held as one byte a cell: cell (i, j)
    // is codeValues[codeGrid(i, j)], and `grid` is then empty. The land map a run makes
    // is held so; the writers and pictures take either form.
    Grid2d<std::uint8_t> codeGrid;
    std::vector<double> codeValues;
    Grid2d<double, 2> pairGrid;          // CLD_R values, WBH_R heights
    Grid2d<std::int32_t> intGrid;        // integer cells; no step of a run fills it
    Grid2d<std::int32_t, 2> pairIntGrid; // CLD_R identifiers, WBM_R map, land marks

    double valMax; // extremes of the values read
    double valMin;

    std::string outFileName; // what the configuration files name: input, then written path
    std::int32_t nonLinear;
    std::int32_t dispersive;
    std::string inFileName;
    // The reader holds the cells as codes (codeGrid) when the file holds at most 256
    // distinct values, as roughness classes do; set by whoever reads the grid.
    bool fewValues = false;
    bool noFileName; // no input file: the cells come from uniformValue
    double uniformValue;

    // Stations and coastal extract points fitted to this region, and their files.
    std::vector<PosIJ> stationPoints;
    std::vector<PosIJ> extractPoints;
    std::string staFileName;
    std::string extFileName;

  private:
    // ReadFile's summary or error block for what LoadFile answered; its result.
    int ReportRead(int failure, std::int64_t valueCount);
};

// Cell-edge extent of a grid whose points are the centres of square cells of side
// gridSize, as the nesting check compares them.
struct CellExtent {
    double minX;
    double minY;
    double maxX;
    double maxY;
};
[[nodiscard]] CellExtent CellExtentOf(double orgX, double orgY, double gridSize, std::int32_t nx,
                                      std::int32_t ny);

// TideWaterLevel as the land map and the land-map file names work with it: truncated
// towards zero, held within int.
[[nodiscard]] int TideLevelOf(double tideWaterLevel);
// Whether the land map counts a cell of this depth as water at `tideLevel` (hundredths).
[[nodiscard]] bool IsBelowTide(double depth, int tideLevel);

// Kept: a grid file is binary when ".bin" occurs in its path after the first character,
// so "grid.bin.txt" is binary and a path that is just ".bin" is text.
[[nodiscard]] bool IsBinaryGridPath(const std::string& path);

// True when the two grids lie on the same points: nx, ny, org_x and org_y equal exactly.
// Kept: gridSize is not compared, so a grid whose file states a rounded spacing matches.
[[nodiscard]] bool isSameRegion(const Region* a, const Region* b);
