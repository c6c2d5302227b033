// Dynamic deformation parameter files.
#include "FuzzSupport.hpp"

#include "inputs/DynamicParam.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzsupport::QuietConsole();
    XML_DYNAMIC record;
    record.FileName = fuzzsupport::WriteInput("dynamic.txt", data, size);
    DynamicParam param(record);
    (void)param.ReadFile(0.0); // the end time every run hands in
    return 0;
}
