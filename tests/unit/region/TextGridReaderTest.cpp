#include "region/TextGridReader.hpp"

#include "support/TempDir.hpp"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

// The values as the C library reads the file: fgets with an 8191-byte buffer, "#" pieces
// skipped, every "-" made " -", tokens split at blanks and tabs, strtod.
std::vector<double> ReferenceValues(const std::string& path) {
    FilePtr file(std::fopen(path.c_str(), "r"));
    std::vector<double> values;
    char piece[8191];
    while (std::fgets(piece, sizeof piece, file.get())) {
        if (piece[0] == '#')
            continue;
        std::string line;
        for (const char* c = piece; *c; ++c)
            line += *c == '-' ? std::string(" -") : std::string(1, *c);
        std::size_t at = 0;
        for (;;) {
            at = line.find_first_not_of(" \t", at);
            if (at == std::string::npos)
                break;
            const std::size_t end = line.find_first_of(" \t", at);
            const std::string token = line.substr(at, end - at);
            values.push_back(std::strtod(token.c_str(), nullptr));
            at = end;
        }
    }
    return values;
}

GridValues ReadAll(const std::string& path, std::size_t bufferBytes, bool secondCore,
                   std::size_t room) {
    FilePtr file(std::fopen(path.c_str(), "r"));
    TextGridReader reader(file.get(), bufferBytes, secondCore);
    GridValues values;
    values.Prepare(1u << 30, room, false);
    reader.ReadValues(values);
    values.Finish(reader.Helper());
    return values;
}

// Lines of random tokens, mostly plain decimals, with every rule of the format somewhere:
// runs of blanks and tabs, blanks before line ends, "-" joined to the previous number,
// comments, CR LF, exponents, NULs and lines far longer than a piece.
std::string RandomGridText(unsigned seed, int lines) {
    std::mt19937 random(seed);
    const auto pick = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
    const std::vector<std::string> odd = {
        "1e5",        "0x1F", "inf", "nan", ".",   "+2",   "12345678.9",
        "1.12345678", "007",  "-0",  "3.",  ".25", "1.5e", "99999999999999999999",
        "abc"};
    const std::vector<std::string> separators = {" ", " ", " ", "  ", "\t", " \t "};
    std::string text;
    for (int l = 0; l < lines; ++l) {
        if (pick(40) == 0) {
            text += "# a comment -1.5 2\n";
            continue;
        }
        const int tokens = pick(50) == 0 ? 2000 : 1 + pick(14);
        for (int t = 0; t < tokens; ++t) {
            if (t > 0)
                text += pick(10) == 0 ? "" : separators[static_cast<std::size_t>(pick(6))];
            if (pick(25) == 0) {
                text += odd[static_cast<std::size_t>(pick(static_cast<int>(odd.size())))];
                continue;
            }
            if (pick(2) == 0)
                text += '-';
            text += std::to_string(pick(100000));
            if (pick(5) != 0) {
                text += '.';
                for (int d = pick(4); d >= 0; --d)
                    text += static_cast<char>('0' + pick(10));
            }
        }
        if (pick(8) == 0)
            text += ' ';
        if (pick(200) == 0)
            text += std::string(1, '\0') + "7 8";
        text += pick(30) == 0 ? "\r\n" : "\n";
    }
    return text + "1.5 -2.5"; // a last line without a newline
}

TEST(TextGridReader, ValuesAreTheCLibrarysOnEitherPath) {
    TempDir dir;
    for (unsigned seed : {1u, 2u, 3u}) {
        const std::string path = dir.Write("grid.txt", RandomGridText(seed, 6000));
        const std::vector<double> expected = ReferenceValues(path);
        ASSERT_GT(expected.size(), 10000u);
        // A buffer just above the smallest allowed, so that lines straddle many refills,
        // and too little room at first, so that the list has to grow.
        for (bool secondCore : {false, true}) {
            const GridValues got = ReadAll(path, 20000, secondCore, 1000);
            ASSERT_EQ(got.valueCount, static_cast<std::int64_t>(expected.size())) << seed;
            ASSERT_EQ(got.values.size(), expected.size());
            EXPECT_EQ(
                std::memcmp(got.values.data(), expected.data(), expected.size() * sizeof(double)),
                0)
                << "seed " << seed << (secondCore ? " on two cores" : " on one core");
        }
    }
}

TEST(TextGridReader, TwoCoresGiveTheSameValuesAndExtremes) {
    TempDir dir;
    std::string text;
    std::mt19937 random(7);
    for (int l = 0; l < 200000; ++l) {
        for (int t = 0; t < 10; ++t)
            text += std::to_string(static_cast<int>(random() % 2000000) - 1000000) + "." +
                    std::to_string(random() % 10) + std::to_string(random() % 10) +
                    (t < 9 ? " " : "\n");
        if (l % 50000 == 49999)
            text += "# comment in the middle\n";
    }
    const std::string path = dir.Write("big.txt", text);
    const GridValues one = ReadAll(path, TextGridReader::kDefaultBufferBytes, false, 2000000);
    const GridValues two = ReadAll(path, TextGridReader::kDefaultBufferBytes, true, 2000000);
    ASSERT_EQ(one.valueCount, 2000000);
    ASSERT_EQ(two.valueCount, 2000000);
    EXPECT_EQ(std::memcmp(one.values.data(), two.values.data(), 2000000 * sizeof(double)), 0);
    EXPECT_EQ(one.extremes.Max(), two.extremes.Max());
    EXPECT_EQ(one.extremes.Min(), two.extremes.Min());
}

} // namespace
