#include "region/Region.hpp"

#include "region/NumberParse.hpp"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <string>

namespace {

// The reader splits a line at every "-", so "1e-3" would come back as two values: every
// number is written as a plain decimal, never with an exponent. Short lines keep far from
// the reader's line length, past which it splits a line into pieces.
constexpr int kValuesPerLine = 10;

// A double as the shortest plain decimal strtod gives back exactly.
void AppendDouble(std::string& out, double value) {
    char text[400]; // a finite double has at most 309 + 17 digits in plain decimal
    const auto result = std::to_chars(text, text + sizeof text, value, std::chars_format::fixed);
    out.append(text, result.ptr);
}

// A cell as the shortest plain decimal that the reader (strtod, then the binary writer's
// narrowing to float) turns back into the same float. The shortest float decimal could in
// principle land on a double that rounds to the neighbouring float, so each is checked.
void AppendFloat(std::string& out, float value, TokenConverter& converter) {
    char text[128]; // a finite float has at most 39 + 9 digits in plain decimal
    const auto result = std::to_chars(text, text + sizeof text, value, std::chars_format::fixed);
    if (!std::isfinite(value) || static_cast<float>(converter.Real(text, result.ptr)) == value) {
        out.append(text, result.ptr);
        return;
    }
    for (int digits = 1; digits <= 60; ++digits) {
        char longer[160];
        const int n = std::snprintf(longer, sizeof longer, "%.*f", digits, double{value});
        if (static_cast<float>(converter.Real(longer, longer + n)) == value) {
            out.append(longer, static_cast<std::size_t>(n));
            return;
        }
    }
    out.append(text, result.ptr);
}

} // namespace

bool Region::PutText(std::FILE* file) const {
    std::string block = std::to_string(nx) + " " + std::to_string(ny) + "\n";
    AppendDouble(block, org_x);
    block += ' ';
    AppendDouble(block, org_y);
    block += '\n';
    const bool filled = grid.HasShape(nx, ny);
    const bool coded = HasCodes();
    TokenConverter converter;
    for (int j = 0; j < ny; ++j) {
        for (int i = 0; i < nx; ++i) {
            const float value = coded    ? static_cast<float>(codeValues[codeGrid(i, j)])
                                : filled ? static_cast<float>(grid(i, j))
                                         : 0.0f;
            AppendFloat(block, value, converter);
            block += (i + 1 == nx || (i + 1) % kValuesPerLine == 0) ? '\n' : ' ';
        }
        if (block.size() > (std::size_t{1} << 18)) {
            if (std::fwrite(block.data(), 1, block.size(), file) != block.size())
                return false;
            block.clear();
        }
    }
    return std::fwrite(block.data(), 1, block.size(), file) == block.size();
}
