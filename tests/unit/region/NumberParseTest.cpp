#include "region/NumberParse.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

std::uint64_t Bits(double value) {
    std::uint64_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

// The tokens of a list that separates them with "|".
std::vector<std::string> Split(const std::string& list) {
    std::vector<std::string> tokens(1);
    for (char c : list) {
        if (c == '|')
            tokens.emplace_back();
        else
            tokens.back() += c;
    }
    return tokens;
}

// Converts through a copy that carries blanks after the token, as tokens do inside a line.
double Converted(TokenConverter& convert, const std::string& token) {
    const std::string line = token + "   ";
    return convert.Real(line.data(), line.data() + token.size());
}

TEST(NumberParse, AwkwardTokensConvertAsStrtod) {
    const std::vector<std::string> tokens = Split(
        "0|-0|+3|.5|5.|-.5|007.50|000|-000.000|1.5e|1.5e3|1.5E+3|2e|1e400|1e-400|0x1A|0X1p3|0x|"
        "inf|-inf|infinity|nan|NaN|-nan|.|+|-||\n|\r\n|12\n|12\r\n|-3.25\r\n|abc|1.2.3|1..|"
        "1.5abc|0.1|0.30000000000000004|2.5|0.5|9007199254740992|9007199254740993|"
        "9007199254740993.0|4503599627370496.5|1234567.1234567|12345678.5|"
        "0.0000000000000000000001|0.00000000000000000000001|123456789012345678901234567890|"
        "1.7976931348623157e308|2.2250738585072011e-308|4.9e-324|\0015");
    TokenConverter convert;
    for (const std::string& token : tokens)
        EXPECT_EQ(Bits(Converted(convert, token)), Bits(std::strtod(token.c_str(), nullptr)))
            << "[" << token << "]";
}

TEST(NumberParse, PlainDecimalsTakeTheShortPathAndMatchStrtod) {
    std::mt19937_64 random(20240601);
    TokenConverter convert;
    int shortPath = 0;
    const int kTokens = 300000;
    for (int n = 0; n < kTokens; ++n) {
        std::string token = (random() % 3 == 0) ? "-" : (random() % 7 == 0 ? "+" : "");
        const int intDigits = static_cast<int>(random() % 12);
        const int fracDigits = static_cast<int>(random() % 12);
        for (int k = 0; k < intDigits; ++k)
            token += static_cast<char>('0' + random() % 10);
        if (fracDigits > 0 || random() % 4 == 0)
            token += '.';
        for (int k = 0; k < fracDigits; ++k)
            token += static_cast<char>('0' + random() % 10);
        if (random() % 5 == 0)
            token += "\n";
        double fast = 0.0;
        shortPath += TryParsePlainDecimal(token.data(), token.data() + token.size(), fast);
        ASSERT_EQ(Bits(Converted(convert, token)), Bits(std::strtod(token.c_str(), nullptr)))
            << "[" << token << "]";
    }
    EXPECT_GT(shortPath, kTokens / 2); // the common shapes do not fall back
}

TEST(NumberParse, IntegersConvertAsAtol) {
    const std::vector<std::string> tokens =
        Split("0|-0|+7|12\n|007|-42|123456789012345678|9223372036854775807|9223372036854775808|"
              "-9223372036854775809|99999999999999999999|0x10|\n5|abc||-|3.9|2147483648");
    TokenConverter convert;
    for (const std::string& token : tokens) {
        const std::string line = token + " ";
        EXPECT_EQ(convert.Integer(line.data(), line.data() + token.size()),
                  std::strtol(token.c_str(), nullptr, 10))
            << "[" << token << "]";
    }
}

} // namespace
