// Region grid files. The first byte picks the shape, the rest is the file:
// bit 0 set reads it as a binary grid (the name ends in ".bin"), clear as a text grid;
// bit 1 set reads construction-line data (value and identifier pairs), clear topography.
// Seeds start with "0" (text), "1" (binary), "2" (construction-line text) or "3"
// (construction-line binary).
// A text grid's values are also read with each build of the line scan, which must agree
// bit for bit.
#include "FuzzSupport.hpp"

#include "project/FilePtr.hpp"
#include "region/GridValues.hpp"
#include "region/Region.hpp"
#include "region/TextGridReader.hpp"

#include <cstring>

namespace {

GridValues ReadValues(const std::string& path, TextGridReader::Instructions instructions) {
    FilePtr file(std::fopen(path.c_str(), "r"));
    GridValues values;
    if (!file)
        return values;
    // A small buffer, so that lines straddle refills.
    TextGridReader reader(file.get(), 1 << 14, false, instructions);
    values.Prepare(1 << 20, 1 << 10, false);
    reader.ReadValues(values);
    values.Finish();
    return values;
}

void CompareScans(const std::string& path) {
    const GridValues portable = ReadValues(path, TextGridReader::Instructions::kPortable);
    const GridValues best = ReadValues(path, TextGridReader::Instructions::kBest);
    if (portable.valueCount != best.valueCount || portable.values.size() != best.values.size() ||
        std::memcmp(portable.values.data(), best.values.data(),
                    portable.values.size() * sizeof(double)) != 0)
        __builtin_trap();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzsupport::QuietConsole();
    if (size == 0)
        return 0;
    const bool binary = (data[0] & 1) != 0;
    const RType kind = (data[0] & 2) != 0 ? CLD_R : TPG_R;
    XML_REGION record;
    record.RegionName = "fuzz";
    record.GridSize = 90.0;
    const std::string path =
        fuzzsupport::WriteInput(binary ? "grid.bin" : "grid.txt", data + 1, size - 1);
    record.Topography.FileName = path;
    record.ConstructionLineData.FileName = path;
    Region region(kind, record);
    (void)region.ReadFile();
    if (!binary && kind == TPG_R)
        CompareScans(path);
    return 0;
}
