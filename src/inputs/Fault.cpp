#include "inputs/Fault.hpp"

#include "gis/Shapefile.hpp"
#include "inputs/LinePieceReader.hpp"
#include "project/Console.hpp"
#include "project/FilePtr.hpp"
#include "projection/MapProjection.hpp"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>

namespace {

// The value the outlines have always been computed with; the full-precision pi would
// move the corners of long segments.
constexpr double kPi = 3.14159265359;

// The five vertices of a segment's surface outline, in the plane of its reference point.
struct Outline {
    double x[5];
    double y[5];
};

Outline OutlineOf(const FAULT_PARAM& seg, double x0, double y0) {
    const double wh = seg.width * std::cos(seg.dip * kPi / 180.0);
    const double a = -seg.strike * kPi / 180.0;
    const double s = std::sin(a);
    const double c = std::cos(a);
    // (u, v): v along strike, u across it towards the dip; the reference point closes the
    // ring, so the outline lies to the right of the strike direction.
    const double u[5] = {0.0, 0.0, wh, wh, 0.0};
    const double v[5] = {0.0, seg.length, seg.length, 0.0, 0.0};
    Outline outline{};
    for (int k = 0; k < 5; ++k) {
        outline.x[k] = x0 - v[k] * s + u[k] * c;
        outline.y[k] = y0 + v[k] * c + u[k] * s;
    }
    return outline;
}

void PrintMakingShapefileBlock() {
    PrintErrorBlock({"ERROR:FAULT OBJECT METHOD",
                     "  ERROR-DETAIL:Abnormal action at Making Shapefile Method.",
                     "  ERROR-DETAIL:Particular attention should be given to \" \"."});
}

} // namespace

Fault::Fault() = default;

Fault::Fault(const XML_FAULT& rec)
    : epsg(rec.EPSG), coordType(rec.CoordinateType), fileName(rec.FileName) {}

Fault::~Fault() = default;

int Fault::LoadFile() {
    FilePtr file(std::fopen(fileName.c_str(), "r"));
    if (!file)
        return 1;
    LinePieceReader reader(file.get());
    while (reader.Next()) {
        if (reader.IsComment())
            continue;
        // Kept: only blanks and tabs separate fields, so a name in the last column
        // carries the line end into the segment and the shapefile.
        const std::vector<const char*>& fields = reader.Fields();
        if (fields.size() < 11) // a line without a name is as malformed as a short one
            return 2;
        FAULT_PARAM seg;
        // Kept: the file lists latitude first.
        seg.lat = FieldReal(fields[0]);
        seg.lon = FieldReal(fields[1]);
        seg.value3 = FieldReal(fields[2]);
        seg.value4 = FieldReal(fields[3]);
        seg.strike = FieldReal(fields[4]);
        seg.dip = FieldReal(fields[5]);
        seg.value7 = FieldReal(fields[6]);
        seg.length = FieldReal(fields[7]);
        seg.width = FieldReal(fields[8]);
        seg.slip = FieldReal(fields[9]);
        seg.name = fields[10];
        strReplace(seg.name, "\"", "");
        if (fields.size() > 12) {
            seg.option1 = FieldReal(fields[11]);
            seg.option2 = FieldReal(fields[12]);
        }
        segments.push_back(seg);
    }
    if (reader.Failed())
        return 1;
    endTime = 0.0;
    return 0;
}

bool Fault::ReadFile() {
    try {
        std::printf("\n>>>>>>>>>>>>>>>>>> Fault Input:\n");
        if (const int cause = LoadFile())
            throw cause;
        std::printf("<<<<<<<<<<<<<<<<<< Completed.\n");
        return true;
    } catch (int cause) {
        if (cause == 1)
            PrintErrorBlock({
                "ERROR:FAULT OBJECT METHOD",
                "  ERROR-DETAIL:Abnormal action at Reading File Method.",
                "  ERROR-DETAIL:Can not open file.",
                "  ERROR-DETAIL:Particular attention should be given to \"Fault File\".",
            });
        else
            PrintErrorBlock({"ERROR:FAULT OBJECT METHOD",
                             "  ERROR-DETAIL:Abnormal action at Reading File Method.",
                             "  ERROR-DETAIL:You should check the Format of Fault File."});
        return false;
    }
}

bool Fault::SegmentOutline(const FAULT_PARAM& seg, double x[5], double y[5], bool echo) const {
    const std::int32_t one = 1;
    double x0 = seg.lon;
    double y0 = seg.lat;
    if (coordType == 1) {
        // The outline is drawn in metres, in the UTM zone of the reference point.
        mapproject_initialize_using_longi_(seg.lon);
        const int failed = ll2xy_(&one, &seg.lon, &seg.lat, &x0, &y0);
        if (echo)
            std::printf("lon0:%g lat0:%g\n", seg.lon, seg.lat);
        mapproject_finalize_();
        if (failed != 0)
            return false;
    }
    Outline outline = OutlineOf(seg, x0, y0);
    if (coordType == 1) {
        const std::int32_t five = 5;
        double lon[5];
        double lat[5];
        mapproject_initialize_using_longi_(seg.lon);
        const int failed = xy2ll_(&five, lon, lat, outline.x, outline.y);
        mapproject_finalize_();
        if (failed != 0)
            return false;
        for (int k = 0; k < 5; ++k) {
            // Longitudes east of 180 stay east (0..360) for sources across the date line.
            outline.x[k] = lon[k] < 0.0 ? lon[k] + 360.0 : lon[k];
            outline.y[k] = lat[k];
        }
    }
    std::copy(outline.x, outline.x + 5, x);
    std::copy(outline.y, outline.y + 5, y);
    return true;
}

bool Fault::MakeShapefile(std::string path) {
    try {
        Shapefile shp;
        (void)shp.create(path, Shapefile::POLYGON, static_cast<unsigned int>(epsg));
        for (const FAULT_PARAM& seg : segments) {
            double x[5];
            double y[5];
            if (!SegmentOutline(seg, x, y, true))
                throw 1;
            // Kept: a refused polygon shows only as the writer's own line.
            (void)shp.writePolygon(seg.name, "Slip", seg.slip, x, y);
        }
        // Files that did not reach the disk in full would pass for the fault model.
        if (!shp.close())
            throw 1;
        return true;
    } catch (int) {
        PrintMakingShapefileBlock();
        return false;
    } catch (const std::exception&) { // GDAL out of memory: reported as ours
        PrintMakingShapefileBlock();
        return false;
    }
}

void Fault::FreeVecMem() { std::vector<FAULT_PARAM>().swap(segments); }

int Fault::TempMethod() { return 0; }

void Fault::strReplace(std::string& text, const std::string& from, const std::string& to) {
    if (from.empty())
        return;
    std::string::size_type at = 0;
    while ((at = text.find(from, at)) != std::string::npos) {
        text.replace(at, from.size(), to);
        at += to.size();
    }
}
