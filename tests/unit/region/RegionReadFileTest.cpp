#include "region/Region.hpp"

#include "region/RegionTestSupport.hpp"
#include "support/TempDir.hpp"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

namespace {

const std::string kReadHead = "ERROR:REGION OBJECT METHOD\n"
                              "  ERROR-DETAIL:Abnormal action at Reading File Method.\n";

std::string FormatBlock(const std::string& path) {
    return kRule + kReadHead + "  ERROR-DETAIL:You should check the Format of Region File.\n" +
           "  ERROR-DETAIL:Region File > " + path + "\n" + kRule;
}

// The values of a grid in file order (row j = 0 first, x fastest).
std::vector<double> FileOrder(const Region& r) {
    std::vector<double> values;
    for (int j = 0; j < r.ny; ++j)
        for (int i = 0; i < r.nx; ++i)
            values.push_back(r.grid[i][j]);
    return values;
}

// Reads `content` as a TPG_R text grid; the grid's values, or a failure.
struct TextRead {
    Printed printed;
    Region region;
};
TextRead ReadText(const TempDir& dir, const std::string& content, RType kind = TPG_R) {
    Region region = RegionReading(kind, dir.Write("grid.txt", content));
    Printed printed = Capture([&] { return region.ReadFile(); });
    return {printed, region};
}

TEST(RegionReadFile, TextSummaryAndCells) {
    TempDir dir;
    const std::string path = dir.Write("topo.txt", "3 2\n100.5 -200.25\n1 2 3\n4 5 6.5\n");
    Region r = RegionReading(TPG_R, path);
    r.noFileName = false;
    const Printed p = Capture([&] { return r.ReadFile(); });
    EXPECT_EQ(p.result, 1);
    EXPECT_EQ(p.err, "");
    EXPECT_EQ(p.out, "\n>>>>>>>>>>>>>>>>>> Region Input:" + path +
                         "\nnx     :3\nny     :2\norg_x  :100.500000\norg_y  :-200.250000\n"
                         "dataNum:6\nvalMax :6.500000\nvalMin :1.000000\n"
                         "<<<<<<<<<<<<<<<<<< Completed.\n");
    EXPECT_EQ(r.grid[0][0], 1.0);
    EXPECT_EQ(r.grid[2][0], 3.0);
    EXPECT_EQ(r.grid[0][1], 4.0);
    EXPECT_EQ(r.grid(2, 1), 6.5);
    EXPECT_TRUE(r.noFileName); // Kept: reading a text grid sets it again
    EXPECT_EQ(r.gridSize, 10.0);
    EXPECT_EQ(r.fileGridSize, 0.0);
}

TEST(RegionReadFile, MissingFileIsCauseOne) {
    TempDir dir;
    const std::string path = (dir.path() / "none.txt").string();
    Region r = RegionReading(TPG_R, path);
    const Printed p = Capture([&] { return r.ReadFile(); });
    EXPECT_EQ(p.result, 0);
    EXPECT_EQ(p.out, "\n>>>>>>>>>>>>>>>>>> Region Input:" + path + "\n");
    EXPECT_EQ(p.err,
              kRule + kReadHead + "  ERROR-DETAIL:Can not open file.\n" +
                  "  ERROR-DETAIL:Particular attention should be given to \"Region File\".\n" +
                  "  ERROR-DETAIL:Region File > " + path + "\n" + kRule);

    Region asDirectory = RegionReading(TPG_R, dir.path().string());
    EXPECT_EQ(Capture([&] { return asDirectory.ReadFile(); }).result, 0);
    Region binaryMissing = RegionReading(TPG_R, path + ".bin");
    const Printed b = Capture([&] { return binaryMissing.ReadFile(); });
    EXPECT_EQ(b.out, "\n>>>>>>>>>>>>>>>>>> Region Input:" + path + ".bin\n>>>> Read Binary File\n");
    EXPECT_NE(b.err.find("Can not open file."), std::string::npos);
}

TEST(RegionReadFile, HeaderLinesWithWrongTokenCountAreCauseTwo) {
    TempDir dir;
    for (const std::string content : {
             "100 80 \n0 0\n",            // a blank before the newline is a third token
             "100\n0 0\n",                // one token
             "3 2\n5\n1 2 3 4 5 6\n",     // origin line with one token
             "",                          // no header at all
             "3 2\n",                     // no origin line
             "-3 -2\n0 0\n1 2 3 4 5 6\n", // no grid has negative sizes
             "100000 100000\n0 0\n1\n",   // more values than a count can say
         }) {
        const TextRead t = ReadText(dir, content);
        EXPECT_EQ(t.printed.result, 0) << content;
        EXPECT_EQ(t.printed.err, FormatBlock((dir.path() / "grid.txt").string())) << content;
    }
}

TEST(RegionReadFile, CountMismatchIsCauseThreeAndKeepsWhatWasRead) {
    TempDir dir;
    // Kept: the blank before the first line end is a seventh value, 0.
    const TextRead t = ReadText(dir, "3 2\n7 8\n1.0 2.0 \n3 4 5 6\n");
    const std::string path = (dir.path() / "grid.txt").string();
    EXPECT_EQ(t.printed.result, 0);
    EXPECT_EQ(t.printed.err,
              kRule + kReadHead + "  ERROR-DETAIL:You should check the Format of Region File.\n" +
                  "  ERROR-DETAIL:Region File  > " + path + "\n" +
                  "  ERROR-DETAIL:ALL DATA NUM > 7\n" + "  ERROR-DETAIL:          NX > 3\n" +
                  "  ERROR-DETAIL:          NY > 2\n" + kRule);
    EXPECT_EQ(t.region.nx, 3);
    EXPECT_EQ(t.region.org_y, 8.0);
    EXPECT_EQ(t.region.valMax, 6.0);
    EXPECT_EQ(t.region.valMin, 0.0);
    EXPECT_TRUE(t.region.grid.Empty());

    // A header far beyond the file's size is only counted against, never reserved.
    EXPECT_EQ(ReadText(dir, "40000 40000\n0 0\n1 2\n").printed.result, 0);
}

TEST(RegionReadFile, TextLineRules) {
    struct Case {
        std::string data;
        std::vector<double> values;
    };
    const std::vector<Case> cases = {
        {"1.0-2.0\n3 4\n", {1.0, -2.0, 3.0, 4.0}},          // Kept: "-" starts a number
        {"1.0e-3 7\n", {1.0, -3.0, 7.0}},                   // so exponents split
        {"7 \n", {7.0, 0.0}},                               // Kept: blank before line end
        {"# c\n5\t6\n# x\n", {5.0, 6.0}},                   // comments anywhere, tabs
        {"5 #6\n", {5.0, 0.0}},                             // "#" inside a line is a token
        {"5 6", {5.0, 6.0}},                                // last line without newline
        {"5 6 ", {5.0, 6.0}},                               // ... and its blank is nothing
        {"5 6\r\n", {5.0, 6.0}},                            // CR stays in the last token
        {"\n5 6\n", {0.0, 5.0, 6.0}},                       // an empty line reads as one 0
        {std::string("5 6\0 9\n7\n", 10), {5.0, 6.0, 7.0}}, // NUL ends the line's text
        {"+3 .5 5. 007.50 0x1A inf\n", {3.0, 0.5, 5.0, 7.5, 26.0, HUGE_VAL}},
    };
    TempDir dir;
    for (const Case& c : cases) {
        const std::string header = std::to_string(c.values.size()) + " 1\n0 0\n";
        const TextRead t = ReadText(dir, header + c.data);
        ASSERT_EQ(t.printed.result, 1) << c.data << t.printed.err;
        EXPECT_EQ(FileOrder(t.region), c.values) << c.data;
    }
    const TextRead negativeZero = ReadText(dir, "1 1\n0 0\n-0\n");
    EXPECT_TRUE(std::signbit(negativeZero.region.grid[0][0]));
}

TEST(RegionReadFile, LongLinesArePiecesOf8190Characters) {
    std::string ones;
    for (int k = 0; k < 4094; ++k)
        ones += "1 ";
    TempDir dir;
    // The piece ends after 8190 characters, inside "234": two values, 23 and 4.
    TextRead t = ReadText(dir, "4096 1\n0 0\n" + ones + "234\n");
    ASSERT_EQ(t.printed.result, 1) << t.printed.err;
    EXPECT_EQ(t.region.grid[4093][0], 1.0);
    EXPECT_EQ(t.region.grid[4094][0], 23.0);
    EXPECT_EQ(t.region.grid[4095][0], 4.0);
    // A piece that starts with "#" is a comment even in the middle of a line.
    t = ReadText(dir, "4095 1\n0 0\n" + ones + "1 #5\n");
    ASSERT_EQ(t.printed.result, 1) << t.printed.err;
    // A line of exactly 8190 characters leaves its newline as a piece: one more 0.
    t = ReadText(dir, "4096 1\n0 0\n" + ones + "12\n");
    ASSERT_EQ(t.printed.result, 1) << t.printed.err;
    EXPECT_EQ(t.region.grid[4094][0], 12.0);
    EXPECT_EQ(t.region.grid[4095][0], 0.0);
}

TEST(RegionReadFile, ConstructionLineText) {
    TempDir dir;
    const std::string content = "3 1\n"
                                "0 0 20 0\n"
                                "2\n"
                                "# comments are not entries\n"
                                "1 first entry\n"
                                "2 second entry\n"
                                "1.5 7 2.5 8\n"
                                "-1 9\n"
                                "0.5 10 3 11\n"
                                "4 12\n";
    const TextRead t = ReadText(dir, content, CLD_R);
    ASSERT_EQ(t.printed.result, 1) << t.printed.err;
    EXPECT_NE(t.printed.out.find("dataNum:6\nvalMax :4.000000\nvalMin :-1.000000\n"),
              std::string::npos);
    const Region& r = t.region;
    EXPECT_EQ(r.fileGridSize, 10.0);
    EXPECT_EQ(r.end_x, 20.0);
    EXPECT_EQ(r.gridSize, 10.0);
    const double values[3][2] = {{1.5, 2.5}, {-1.0, 0.5}, {3.0, 4.0}};
    const int ids[3][2] = {{7, 8}, {9, 10}, {11, 12}};
    for (int i = 0; i < 3; ++i) {
        for (int k = 0; k < 2; ++k) {
            EXPECT_EQ(r.pairGrid[i][0][k], values[i][k]) << i << k;
            EXPECT_EQ(r.pairIntGrid[i][0][k], ids[i][k]) << i << k;
        }
    }
    // A line with an odd token count leaves a value without its identifier.
    EXPECT_EQ(ReadText(dir, "1 1\n0 0 1 1\n0\n1.5 7 2.5\n", CLD_R).printed.result, 0);
    // Kept: nx of 1 divides by zero; no error.
    const TextRead single = ReadText(dir, "1 1\n0 0 5 0\n0\n1 2 3 4\n", CLD_R);
    EXPECT_EQ(single.printed.result, 1);
    EXPECT_TRUE(std::isinf(single.region.fileGridSize));
    EXPECT_EQ(ReadText(dir, "1 1\n0 0 5\n0\n1 2 3 4\n", CLD_R).printed.result, 0);
}

TEST(RegionReadFile, BinaryWhenBinOccursAfterTheFirstCharacter) {
    TempDir dir;
    const std::string grid = Bytes().Header(1.5, 2.5, 2, 1, 0.5f).Put(3.0f).Put(4.0f).str();
    Region r = RegionReading(TPG_R, dir.Write("grid.bin.txt", grid));
    const Printed p = Capture([&] { return r.ReadFile(); });
    ASSERT_EQ(p.result, 1) << p.err;
    EXPECT_NE(p.out.find(">>>> Read Binary File\nnx     :2\n"), std::string::npos);
    EXPECT_EQ(r.grid[1][0], 4.0);
    EXPECT_EQ(r.gridSize, 0.5);
    EXPECT_EQ(r.fileGridSize, 0.5);

    // Kept: a path that is just ".bin" is read as text.
    dir.Write(".bin", "1 1\n0 0\n9\n");
    char* previous = getcwd(nullptr, 0);
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    Region dotBin = RegionReading(TPG_R, ".bin");
    const Printed t = Capture([&] { return dotBin.ReadFile(); });
    EXPECT_EQ(chdir(previous), 0);
    std::free(previous);
    EXPECT_EQ(t.result, 1);
    EXPECT_EQ(t.out.find("Binary"), std::string::npos);
    EXPECT_EQ(dotBin.grid[0][0], 9.0);
}

TEST(RegionReadFile, BinaryConstructionLineEntriesAndPairs) {
    TempDir dir;
    Bytes bytes;
    bytes.Header(0, 0, 2, 1, 1.0f).Put(std::int32_t{2});
    for (const auto& [id, name] :
         {std::pair{5, std::string("Sea wall")}, std::pair{6, std::string(64, 'x')}}) {
        std::string field = name;
        field.resize(64, '\0');
        bytes.Put(std::int32_t{id});
        for (char c : field)
            bytes.Put(c);
    }
    for (int k = 0; k < 4; ++k)
        bytes.Put(0.5f * static_cast<float>(k)).Put(std::int32_t{100 + k});
    Region r = RegionReading(CLD_R, dir.Write("cld.bin", bytes.str()));
    const Printed p = Capture([&] { return r.ReadFile(); });
    ASSERT_EQ(p.result, 1) << p.err;
    EXPECT_NE(p.out.find(">>>> Read Binary File\n ID  :5\n Name:Sea wall\n ID  :6\n Name:" +
                         std::string(64, 'x') + "\nnx     :2\n"),
              std::string::npos);
    EXPECT_EQ(r.pairGrid[1][0][1], 1.5);
    EXPECT_EQ(r.pairIntGrid[1][0][0], 102);
}

TEST(RegionReadFile, ShortBinaryRepeatsTheLastValue) {
    TempDir dir;
    Region r = RegionReading(
        TPG_R, dir.Write("short.bin", Bytes().Header(0, 0, 3, 2, 1.0f).Put(1.0f).Put(2.0f).str()));
    ASSERT_EQ(Capture([&] { return r.ReadFile(); }).result, 1);
    EXPECT_EQ(r.grid[1][0], 2.0);
    EXPECT_EQ(r.grid[2][1], 2.0);

    Region empty =
        RegionReading(TPG_R, dir.Write("header.bin", Bytes().Header(0, 0, 3, 2, 1.0f).str()));
    ASSERT_EQ(Capture([&] { return empty.ReadFile(); }).result, 1);
    EXPECT_EQ(empty.grid[2][1], 0.0);

    // A value whose identifier is cut off was still read.
    Bytes cut;
    cut.Header(0, 0, 1, 1, 1.0f).Put(std::int32_t{0}).Put(1.0f).Put(std::int32_t{4}).Put(2.0f);
    Region cld = RegionReading(CLD_R, dir.Write("cut.bin", cut.str()));
    ASSERT_EQ(Capture([&] { return cld.ReadFile(); }).result, 1);
    EXPECT_EQ(cld.pairGrid[0][0][1], 2.0);
    EXPECT_EQ(cld.pairIntGrid[0][0][1], 4);
}

TEST(RegionReadFile, AbsurdBinaryHeadersAreFormatErrors) {
    TempDir dir;
    const std::vector<std::string> files = {
        Bytes().Put(0.0).Put(0.0).Put(std::int32_t{3}).str(),     // header cut short
        Bytes().Header(0, 0, -1, 2, 1.0f).Put(1.0f).str(),        // negative size
        Bytes().Header(0, 0, 100000, 100000, 1.0f).str(),         // count overflows
        Bytes().Header(0, 0, 20000, 20000, 1.0f).Put(1.0f).str(), // 1.6 GB from 32 bytes
        Bytes().Header(0, 0, 1, 1, 1.0f).Put(std::int32_t{2147483647}).str(), // entries
    };
    for (std::size_t k = 0; k < files.size(); ++k) {
        const std::string path = dir.Write("bad" + std::to_string(k) + ".bin", files[k]);
        Region r = RegionReading(k == 4 ? CLD_R : TPG_R, path);
        const Printed p = Capture([&] { return r.ReadFile(); });
        EXPECT_EQ(p.result, 0) << k;
        EXPECT_EQ(p.err, FormatBlock(path)) << k;
    }
}

} // namespace
