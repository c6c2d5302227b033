// Construction-line parameter files.
#include "FuzzSupport.hpp"

#include "inputs/ConstLineParam.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzsupport::QuietConsole();
    XML_CONSTLINE record;
    record.FileName = fuzzsupport::WriteInput("constline.txt", data, size);
    ConstLineParam param(record);
    (void)param.ReadFile();
    return 0;
}
