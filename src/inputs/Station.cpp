#include "inputs/Station.hpp"

#include "gis/Shapefile.hpp"
#include "inputs/LinePieceReader.hpp"
#include "project/Console.hpp"
#include "project/FilePtr.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>

#include <sys/stat.h>

namespace {

// Line ends separate fields too, so a name in the last column is clean.
std::vector<std::string> SplitFields(LinePieceReader& reader) {
    std::vector<std::string> fields;
    for (const char* field : reader.Fields()) {
        for (const char* p = field; *p != '\0';) {
            const std::size_t length = std::strcspn(p, "\r\n");
            if (length > 0)
                fields.emplace_back(p, length);
            p += length;
            p += std::strspn(p, "\r\n");
        }
    }
    return fields;
}

[[nodiscard]] bool IsDirectory(std::FILE* file) {
    struct stat info;
    return fstat(fileno(file), &info) == 0 && S_ISDIR(info.st_mode);
}

} // namespace

Station::Station(const XML_STATION& rec) : epsg(rec.EPSG), fileName(rec.FileName) {}

Station::~Station() = default;

int Station::LoadFile() {
    FilePtr file(std::fopen(fileName.c_str(), "r"));
    // A directory opens as a stream but is no list either.
    if (file && IsDirectory(file.get()))
        file.reset();
    if (!file)
        return -1;
    LinePieceReader reader(file.get());
    while (reader.Next()) {
        if (reader.IsComment())
            continue;
        const std::vector<std::string> fields = SplitFields(reader);
        if (fields.size() < 3)
            return 2;
        PosXY point;
        point.x = FieldReal(fields[0].c_str());
        point.y = FieldReal(fields[1].c_str());
        point.name = fields[2];
        points.push_back(point);
    }
    return reader.Failed() ? 1 : 0;
}

bool Station::ReadFile() {
    try {
        std::printf("\n>>>>>>>>>>>>>>>>>> Station Input:\n");
        const int cause = LoadFile();
        if (cause < 0) {
            // A project may name a list that is not made yet; the run goes on without it.
            std::fprintf(stderr, " WARNING:Can not open file.\n");
            std::fprintf(stderr,
                         " WARNING:Particular attention should be given to \"Station File\".\n");
            std::printf("<<<<<<<<<<<<<<<<<< Completed.\n");
            return true;
        }
        if (cause > 0)
            throw cause;
        std::printf("Input %zuStations.\n", points.size());
        std::printf("<<<<<<<<<<<<<<<<<< Completed.\n");
        return true;
    } catch (int cause) {
        if (cause == 1)
            PrintErrorBlock({
                "ERROR:STATION OBJECT METHOD",
                "  ERROR-DETAIL:Abnormal action at Reading File Method.",
                "  ERROR-DETAIL:Can not open file.",
                "  ERROR-DETAIL:Particular attention should be given to \"Station File\".",
            });
        else
            PrintErrorBlock({"ERROR:STATION OBJECT METHOD",
                             "  ERROR-DETAIL:Abnormal action at Reading File Method.",
                             "  ERROR-DETAIL:You should check the Format of Station File."});
        return false;
    }
}

bool Station::MakeShapefile(std::string path) {
    try {
        Shapefile shp;
        (void)shp.create(path, Shapefile::POINT, static_cast<unsigned int>(epsg));
        for (const PosXY& point : points)
            (void)shp.writePoint(point.name, Point{point.x, point.y}); // refusals show per point
        // Files that did not reach the disk in full would pass for the station list.
        if (!shp.close())
            throw 1;
        return true;
    } catch (int) { // 1: the files could not be stored (the writer's line names the file)
        PrintErrorBlock({"ERROR:STATION OBJECT METHOD",
                         "  ERROR-DETAIL:Abnormal action at Making Shapefile Method.",
                         "  ERROR-DETAIL:Particular attention should be given to \" \"."});
        return false;
    } catch (const std::exception&) { // GDAL out of memory: reported as ours
        PrintErrorBlock({"ERROR:STATION OBJECT METHOD",
                         "  ERROR-DETAIL:Abnormal action at Making Shapefile Method.",
                         "  ERROR-DETAIL:Particular attention should be given to \" \"."});
        return false;
    }
}

bool Station::WriteBestPoint(std::string path) {
    FilePtr file(std::fopen(path.c_str(), "a"));
    if (!file) {
        // Kept: the method line says "Reading" although this writes.
        PrintErrorBlock({"ERROR:STATION OBJECT METHOD",
                         "  ERROR-DETAIL:Abnormal action at Reading File Method.",
                         "  ERROR-DETAIL:Particular attention should be given to \" \"."});
        return false;
    }
    for (const PosXY& point : points) {
        // Widened so that no index read from anywhere can overflow when made 1-based.
        std::fprintf(file.get(), "%lld, %lld, %s, %d\n", static_cast<long long>(point.bestI) + 1,
                     static_cast<long long>(point.bestJ) + 1, point.name.c_str(),
                     point.bestRegionNo);
    }
    // A list cut short by a full disk is reported as one that cannot be opened: the
    // calculator would take it for the whole list.
    if (std::ferror(file.get()) != 0 || std::fclose(file.release()) != 0) {
        PrintErrorBlock({"ERROR:STATION OBJECT METHOD",
                         "  ERROR-DETAIL:Abnormal action at Reading File Method.",
                         "  ERROR-DETAIL:Particular attention should be given to \" \"."});
        return false;
    }
    return true;
}

int Station::TempMethod() { return 0; }
