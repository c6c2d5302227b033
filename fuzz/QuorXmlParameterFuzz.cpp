// The XML project file: any bytes must end in a parsed project or "Miss Parse".
#include "FuzzSupport.hpp"

#include "project/QuorXmlParameter.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzsupport::QuietConsole();
    const std::string path = fuzzsupport::WriteInput("project.xml", data, size);
    QuorXmlParameter project(path);
    (void)project.exeParse(); // every answer is fine; only a crash or a hang is not
    return 0;
}
