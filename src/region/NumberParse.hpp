#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// Number conversion for grid text files. Users' files are read with the C library's
// rules (strtod for reals, atol for integers): conversion stops at the first character
// that does not fit and gives 0 when nothing fits. Grids hold millions of plain decimals
// such as "-1234.56", so those take an exact short path and everything else goes to the
// C library itself; either way the result is the C library's, bit for bit.

namespace numberparse {

// 10^0 .. 10^22 are exact doubles, the largest powers of ten that are.
inline constexpr double kExactPow10[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                         1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                         1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
inline constexpr std::uint64_t kMaxExactMantissa = std::uint64_t{1} << 53;

inline bool IsDigit(char c) { return static_cast<unsigned char>(c - '0') < 10; }

} // namespace numberparse

// The short path for reals: [+-]digits[.digits] with at most 19 significant digits whose
// integer value m is at most 2^53 and at most 22 fraction digits k, not followed by
// anything strtod would read on (an exponent, a hexadecimal "x"). Then m and 10^k are
// exact doubles and one IEEE division rounds m / 10^k correctly, which is what strtod
// returns. Answers false, leaving `value` alone, for every other token.
[[nodiscard]] inline bool TryParsePlainDecimal(const char* begin, const char* end, double& value) {
    using namespace numberparse;
    const char* p = begin;
    bool negative = false;
    if (p < end && (*p == '-' || *p == '+')) {
        negative = *p == '-';
        ++p;
    }
    std::uint64_t mantissa = 0;
    int significant = 0;
    int fractionDigits = 0;
    bool anyDigit = false;
    for (; p < end && IsDigit(*p); ++p) {
        anyDigit = true;
        if (mantissa == 0 && *p == '0')
            continue;
        if (++significant > 19)
            return false;
        mantissa = mantissa * 10 + static_cast<std::uint64_t>(*p - '0');
    }
    if (p < end && *p == '.') {
        for (++p; p < end && IsDigit(*p); ++p) {
            anyDigit = true;
            ++fractionDigits;
            if (mantissa == 0 && *p == '0')
                continue;
            if (++significant > 19)
                return false;
            mantissa = mantissa * 10 + static_cast<std::uint64_t>(*p - '0');
        }
    }
    if (!anyDigit || fractionDigits > 22 || mantissa > kMaxExactMantissa)
        return false;
    if (p < end && (*p == 'e' || *p == 'E' || *p == 'x' || *p == 'X'))
        return false;
    const double magnitude = static_cast<double>(mantissa) / kExactPow10[fractionDigits];
    value = negative ? -magnitude : magnitude;
    return true;
}

// The short path for integers: [+-]digits with at most 18 digits (no overflow possible).
[[nodiscard]] inline bool TryParsePlainInteger(const char* begin, const char* end, long& value) {
    using numberparse::IsDigit;
    const char* p = begin;
    bool negative = false;
    if (p < end && (*p == '-' || *p == '+')) {
        negative = *p == '-';
        ++p;
    }
    const char* digits = p;
    long magnitude = 0;
    for (; p < end && IsDigit(*p); ++p) {
        if (p - digits == 18)
            return false;
        magnitude = magnitude * 10 + (*p - '0');
    }
    if (p == digits)
        return false;
    value = negative ? -magnitude : magnitude;
    return true;
}

// Converts tokens that need not be NUL-terminated (a token is part of a line buffer).
// Keeps one scratch string so the C library fallback does not allocate per token.
class TokenConverter {
  public:
    // The double strtod gives for the token.
    [[nodiscard]] double Real(const char* begin, const char* end) {
        double value;
        if (TryParsePlainDecimal(begin, end, value))
            return value;
        return RealByCLibrary(begin, end);
    }
    // The long atol gives for the token.
    [[nodiscard]] long Integer(const char* begin, const char* end) {
        long value;
        if (TryParsePlainInteger(begin, end, value))
            return value;
        return IntegerByCLibrary(begin, end);
    }
    [[nodiscard]] double Real(std::string_view token) {
        return Real(token.data(), token.data() + token.size());
    }
    [[nodiscard]] long Integer(std::string_view token) {
        return Integer(token.data(), token.data() + token.size());
    }

  private:
    double RealByCLibrary(const char* begin, const char* end);
    long IntegerByCLibrary(const char* begin, const char* end);

    std::string scratch_;
};
