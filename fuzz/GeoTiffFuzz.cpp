// Colour table files. A table that loads is also used to classify a few awkward values,
// since the table alone decides how classes are looked up (ordered or not, NaN bounds).
#include "FuzzSupport.hpp"

#include "gis/GeoTiff.hpp"

#include <limits>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzsupport::QuietConsole();
    const std::string path = fuzzsupport::WriteInput("colors.txt", data, size);
    GeoTiff picture;
    if (!picture.initialize(path))
        return 0;
    constexpr double kInf = std::numeric_limits<double>::infinity();
    const std::vector<std::vector<double>> grid = {
        {-kInf, -1.0, 0.0},
        {10.0, 255.5, std::numeric_limits<double>::quiet_NaN()},
        {1e300, kInf, -0.0},
    };
    (void)picture.convertRaster(grid);
    return 0;
}
