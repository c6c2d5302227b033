// Station and coastal extract point lists (one reader serves both).
#include "FuzzSupport.hpp"

#include "inputs/Station.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzsupport::QuietConsole();
    XML_STATION record;
    record.FileName = fuzzsupport::WriteInput("stations.txt", data, size);
    Station station(record);
    (void)station.ReadFile();
    return 0;
}
