#include "region/Region.hpp"

#include "project/Console.hpp"
#include "project/FilePtr.hpp"

#include <cstdio>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace {

// Cell k covers [lower(k), upper(k)] around grid point k, both ends included.
double Lower(int k, double org, double spacing) { return (k - 0.5) * spacing + org; }
double Upper(int k, double org, double spacing) { return (k + 0.5) * spacing + org; }

// The first k in 0 .. count-1 whose cell holds `at`, as a scan from k = 0 finds it.
//
// Coastal extract lists can hold a point per coastal cell, so the search must not cost a
// pass over the row per point. With spacing >= 0 both ends only grow with k, even after
// rounding: the cells that pass the upper test are a tail of the row, and the first of
// them is the answer if any cell is. A NaN fails every comparison, as in the scan. A
// negative spacing, where only rounding can make a cell hold a point, is scanned.
std::optional<int> FirstCellHolding(double at, double org, double spacing, int count) {
    if (!(spacing < 0.0)) {
        int first = 0;
        int past = count > 0 ? count : 0;
        while (first < past) {
            const int mid = first + (past - first) / 2;
            if (at <= Upper(mid, org, spacing))
                past = mid;
            else
                first = mid + 1;
        }
        if (first < count && Lower(first, org, spacing) <= at)
            return first;
        return std::nullopt;
    }
    for (int k = 0; k < count; ++k) {
        if (Lower(k, org, spacing) <= at && at <= Upper(k, org, spacing))
            return k;
    }
    return std::nullopt;
}

// Writes one "i+1, j+1, name" line per point. False when the file cannot be created or
// did not reach the disk in full: the calculator could not tell a cut list from a short
// one, so both are reported alike.
bool WritePointFile(const std::string& path, const std::vector<PosIJ>& points) {
    FilePtr file(std::fopen(path.c_str(), "w"));
    if (!file)
        return false;
    for (const PosIJ& p : points)
        std::fprintf(file.get(), "%d, %d, %s\n", p.i + 1, p.j + 1, p.name.c_str());
    return std::ferror(file.get()) == 0 && std::fclose(file.release()) == 0;
}

} // namespace

bool Region::FitPointToRegion(double x, double y, std::string name, PointType pointType) {
    const std::optional<int> i = FirstCellHolding(x, org_x, gridSize, nx);
    const std::optional<int> j = FirstCellHolding(y, org_y, gridSize, ny);
    if (!i || !j)
        return true;
    switch (pointType) {
    case STATION_POINT:
        stationPoints.push_back(PosIJ{*i, *j, std::move(name)});
        break;
    case EXTRACT_POINT:
        extractPoints.push_back(PosIJ{*i, *j, std::move(name)});
        break;
    default:
        break;
    }
    return true;
}

bool Region::WriteStaFile(std::string dir) {
    staFileName = StringPrintf("%s/Dump1d_R%03d.txt", dir.c_str(), regionNo);
    std::printf("%s\n", staFileName.c_str());
    if (!WritePointFile(staFileName, stationPoints)) {
        PrintErrorBlock({"ERROR:REGION OBJECT METHOD",
                         "  ERROR-DETAIL:Abnormal action at Write Station File Method.",
                         "  ERROR-DETAIL:Can not open file."});
        return false;
    }
    return true;
}

bool Region::WriteExtFile(std::string dir) {
    extFileName = StringPrintf("%s/CoastExtractPoint_%s.txt", dir.c_str(), regionName.c_str());
    std::printf("%s\n", extFileName.c_str());
    if (!WritePointFile(extFileName, extractPoints)) {
        PrintErrorBlock({"ERROR:REGION OBJECT METHOD",
                         "  ERROR-DETAIL:Abnormal action at Write Coast Extract File Method.",
                         "  ERROR-DETAIL:Can not open file."});
        return false;
    }
    return true;
}
