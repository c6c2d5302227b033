// Region grid files. The first byte picks the shape, the rest is the file:
// bit 0 set reads it as a binary grid (the name ends in ".bin"), clear as a text grid;
// bit 1 set reads construction-line data (value and identifier pairs), clear topography.
// Seeds start with "0" (text), "1" (binary), "2" (construction-line text) or "3"
// (construction-line binary).
#include "FuzzSupport.hpp"

#include "region/Region.hpp"

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
    return 0;
}
