#include "region/TextGridReader.hpp"

#include "support/TempDir.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
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
        for (std::size_t at = 0; (at = line.find_first_not_of(" \t", at)) != line.npos;) {
            const std::size_t end = line.find_first_of(" \t", at);
            values.push_back(std::strtod(line.substr(at, end - at).c_str(), nullptr));
            at = end;
        }
    }
    return values;
}

// Each build of the scan by name, and the one chosen at start-up, which is one of them.
constexpr TextGridReader::Instructions kEveryScan[] = {TextGridReader::Instructions::kPortable,
                                                       TextGridReader::Instructions::kVector,
                                                       TextGridReader::Instructions::kBest};

GridValues ReadAll(const std::string& path, std::size_t bufferBytes, bool secondCore,
                   std::size_t room, TextGridReader::Instructions instructions) {
    FilePtr file(std::fopen(path.c_str(), "r"));
    TextGridReader reader(file.get(), bufferBytes, secondCore, instructions);
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
    const std::vector<std::string> odd = {"1e5", "0x1F", "inf", "nan", ".", "+2", "12345678.9",
                                          "1.12345678", "007", "-0", "3.", ".25", "1.5e",
                                          "99999999999999999999", "abc", "1.5E3", "2X", "1.2.3",
                                          "-.5", "+.5", "-0.00", "9007199254740993",
                                          "999999999999999", "1234567890123456",
                                          "12345678.123456", "12345678.1234567", "5.x"};
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
        Extremes extremes;
        for (double v : expected)
            extremes.Add(v);
        for (int run = 0; run < 6; ++run) {
            const bool secondCore = run % 2 == 1;
            const auto instructions = kEveryScan[run / 2];
            const GridValues got = ReadAll(path, 20000, secondCore, 1000, instructions);
            const std::string what = "seed " + std::to_string(seed) +
                                     (secondCore ? " two" : " one") + " scan " +
                                     std::to_string(run / 2);
            ASSERT_EQ(got.valueCount, static_cast<std::int64_t>(expected.size())) << what;
            ASSERT_EQ(got.values.size(), expected.size());
            EXPECT_EQ(std::memcmp(got.values.data(), expected.data(), 8 * expected.size()), 0)
                << what;
            const double pairs[2][2] = {{got.extremes.Max(), got.extremes.Min()},
                                        {extremes.Max(), extremes.Min()}};
            EXPECT_EQ(std::memcmp(pairs[0], pairs[1], sizeof pairs[0]), 0) << what;
        }
    }
}

// Every split of up to 17 digits around a point, signed and not, so that each shape the
// vector scan takes (at most 15 characters after the sign) and each it hands on is met.
TEST(TextGridReader, EveryDigitCountOnEitherPath) {
    std::mt19937 random(7);
    std::string text;
    for (int sign = 0; sign < 2; ++sign)
        for (int intCount = 0; intCount <= 17; ++intCount)
            for (int fracCount = -1; fracCount <= 17; ++fracCount) { // -1: no point
                for (int copy = 0; copy < 3; ++copy) {
                    std::string token = sign ? "-" : "";
                    for (int d = 0; d < intCount; ++d)
                        token += static_cast<char>('0' + random() % 10);
                    if (fracCount >= 0)
                        token += '.';
                    for (int d = 0; d < fracCount; ++d)
                        token += static_cast<char>('0' + random() % 10);
                    text += token + (copy == 2 ? "\n" : " ");
                }
            }
    TempDir dir;
    const std::string path = dir.Write("digits.txt", text);
    const std::vector<double> expected = ReferenceValues(path);
    for (const auto instructions : kEveryScan) {
        const GridValues got = ReadAll(path, 1 << 20, false, 1 << 20, instructions);
        ASSERT_EQ(got.valueCount, static_cast<std::int64_t>(expected.size()));
        EXPECT_EQ(std::memcmp(got.values.data(), expected.data(), 8 * expected.size()), 0);
    }
}

// The choice is made once and only where there is one to make.
TEST(TextGridReader, ScanChoiceIsMeasuredOnlyWhereThereAreTwoBuilds) {
    const TextGridReader::ScanChoice& choice = TextGridReader::BestScan();
    EXPECT_EQ(&choice, &TextGridReader::BestScan());
    EXPECT_EQ(choice.measured, TextGridReader::VectorBlocksAvailable());
    if (choice.measured) {
        EXPECT_GT(choice.sampleBytes, 0u);
        EXPECT_GT(choice.vectorSeconds, 0.0);
        EXPECT_GT(choice.portableSeconds, 0.0);
        EXPECT_EQ(choice.vector, choice.vectorSeconds <= choice.portableSeconds);
    } else {
        EXPECT_FALSE(choice.vector);
    }
}

} // namespace
