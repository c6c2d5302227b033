// Fault model files.
#include "FuzzSupport.hpp"

#include "inputs/Fault.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzsupport::QuietConsole();
    XML_FAULT record;
    record.FileName = fuzzsupport::WriteInput("fault.txt", data, size);
    Fault fault(record);
    (void)fault.ReadFile();
    return 0;
}
