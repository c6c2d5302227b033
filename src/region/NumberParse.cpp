#include "region/NumberParse.hpp"

#include <cstdlib>

double TokenConverter::RealByCLibrary(const char* begin, const char* end) {
    scratch_.assign(begin, end); // the C library needs the terminator the token lacks
    return std::strtod(scratch_.c_str(), nullptr);
}

long TokenConverter::IntegerByCLibrary(const char* begin, const char* end) {
    scratch_.assign(begin, end);
    // atol is strtol in base 10; strtol also defines what happens on overflow.
    return std::strtol(scratch_.c_str(), nullptr, 10);
}
