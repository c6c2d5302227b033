#include "region/Region.hpp"

#include "region/RegionTestSupport.hpp"
#include "support/TempDir.hpp"

#include <cmath>
#include <tuple>
#include <vector>

namespace {

const std::string kHead = "ERROR:REGION OBJECT METHOD";
const std::string kReading = "Abnormal action at Reading File Method.";
const std::string kFormat = "You should check the Format of Region File.";

// Reads `content`, written as `name`, as a grid of the given kind.
struct Read {
    Printed printed;
    Region region;
};
Read ReadAs(const TempDir& dir, const std::string& content, RType kind = TPG_R,
            const std::string& name = "grid.txt") {
    Region region = RegionReading(kind, dir.Write(name, content));
    Printed printed = Capture([&] { return region.ReadFile(); });
    return {printed, region};
}

// The values of a grid in file order (row j = 0 first, x fastest), as it stores them.
std::vector<double> FileOrder(const Region& r) {
    return std::vector<double>(r.grid.Data(), r.grid.Data() + r.nx * r.ny);
}

TEST(RegionReadFile, TextSummaryAndCells) {
    TempDir dir;
    const Read t = ReadAs(dir, "3 2\n100.5 -200.25\n1 2 3\n4 5 6.5\n");
    EXPECT_EQ(std::to_string(t.printed.result) + t.printed.out + t.printed.err,
              "1\n>>>>>>>>>>>>>>>>>> Region Input:" + t.region.inFileName +
                  "\nnx     :3\nny     :2\norg_x  :100.500000\norg_y  :-200.250000\n"
                  "dataNum:6\nvalMax :6.500000\nvalMin :1.000000\n"
                  "<<<<<<<<<<<<<<<<<< Completed.\n");
    EXPECT_EQ(FileOrder(t.region), (std::vector<double>{1, 2, 3, 4, 5, 6.5}));
    EXPECT_EQ(t.region.gridSize, 10.0); // the project's, not the file's
    EXPECT_EQ(t.region.fileGridSize, 0.0);
}

// Kept, from TextGridReader's rules: what changes a grid's count.
TEST(RegionReadFile, TextLineRules) {
    TempDir dir;
    const std::pair<std::string, std::vector<double>> rows[] = {
        {"1.0-2.0\n1e-3\n", {1.0, -2.0, 1.0, -3.0}}, // "-" starts a number
        {"7 \n\n5\n", {7.0, 0.0, 0.0, 5.0}}};       // a blank before a line end, an empty line
    for (const auto& [data, values] : rows) {
        const Read t = ReadAs(dir, std::to_string(values.size()) + " 1\n0 0\n" + data);
        ASSERT_EQ(t.printed.result, 1) << data << t.printed.err;
        EXPECT_EQ(FileOrder(t.region), values) << data;
    }
}

TEST(RegionReadFile, FailuresByCause) {
    TempDir dir;
    const std::string path = (dir.path() / "grid.txt").string();
    // Header lines with a wrong token count (a blank before the newline is a third).
    for (const char* content : {"100 80 \n0 0\n", "3 2\n"})
        EXPECT_EQ(ReadAs(dir, content).printed.err,
                  ErrorBlock(kHead, {kReading, kFormat, "Region File > " + path}))
            << content;
    // Sizes no grid has match no count, even one whose product wraps to the count in 32 bits.
    for (const auto& [content, nx, ny] : {std::tuple{"-3 -2\n0 0\n1 2 3 4 5 6\n", "-3", "-2"},
                                          {"65536 65536\n0 0\n", "65536", "65536"}})
        EXPECT_EQ(ReadAs(dir, content).printed.err,
                  ErrorBlock(kHead, {kReading, kFormat, "Region File  > " + path,
                                     std::string("ALL DATA NUM > ") + (*nx == '-' ? "6" : "0"),
                                     std::string("          NX > ") + nx,
                                     std::string("          NY > ") + ny}))
            << content;
    // A count mismatch keeps what was read; a header far beyond the file is only counted
    // against, never reserved.
    const Read t = ReadAs(dir, "3 2\n7 8\n1 2\n3 4 5 6\n3\n");
    EXPECT_EQ(t.printed.err,
              ErrorBlock(kHead, {kReading, kFormat, "Region File  > " + path, "ALL DATA NUM > 7",
                                 "          NX > 3", "          NY > 2"}));
    EXPECT_EQ(t.region.valMax, 6.0);
    EXPECT_TRUE(t.region.grid.Empty());
    EXPECT_EQ(ReadAs(dir, "40000 40000\n0 0\n1 2\n").printed.result, 0);

    Region missing = RegionReading(TPG_R, path + ".none");
    EXPECT_EQ(Outcome([&] { return missing.ReadFile(); }),
              "0|\n>>>>>>>>>>>>>>>>>> Region Input:" + path + ".none\n|" +
                  ErrorBlock(kHead, {kReading, "Can not open file.",
                                     "Particular attention should be given to \"Region File\".",
                                     "Region File > " + path + ".none"}));
}

TEST(RegionReadFile, ConstructionLineText) {
    TempDir dir;
    const Read t = ReadAs(dir,
                          "3 1\n0 0 20 0\n2\n# comments are not entries\n1 first entry\n"
                          "2 second entry\n1.5 7 2.5 8\n-1 9\n0.5 10 3 11\n4 12\n",
                          CLD_R);
    ASSERT_EQ(t.printed.result, 1) << t.printed.err;
    EXPECT_EQ(std::tuple(t.region.fileGridSize, t.region.valMax, t.region.valMin),
              std::tuple(10.0, 4.0, -1.0));
    const double values[6] = {1.5, 2.5, -1, 0.5, 3, 4};
    for (int k = 0; k < 6; ++k) {
        EXPECT_EQ(t.region.pairGrid[k / 2][0][k % 2], values[k]);
        EXPECT_EQ(t.region.pairIntGrid[k / 2][0][k % 2], 7 + k);
    }
    // A line with an odd token count leaves a value without its identifier.
    EXPECT_EQ(ReadAs(dir, "1 1\n0 0 1 1\n0\n1.5 7 2.5\n", CLD_R).printed.result, 0);
    // Kept: nx of 1 divides by zero; no error.
    EXPECT_TRUE(std::isinf(ReadAs(dir, "1 1\n0 0 5 0\n0\n1 2 3 4\n", CLD_R).region.fileGridSize));
}

TEST(RegionReadFile, BinaryConstructionLineEntriesAndPairs) {
    TempDir dir;
    Bytes bytes;
    bytes.Header(0, 0, 2, 1, 1.0f).Put(std::int32_t{2});
    for (const auto& [id, name] :
         {std::pair{5, std::string("Sea wall")}, {6, std::string(64, 'x')}}) {
        bytes.Put(std::int32_t{id});
        for (std::size_t k = 0; k < 64; ++k)
            bytes.Put(k < name.size() ? name[k] : '\0');
    }
    for (int k = 0; k < 4; ++k)
        bytes.Put(0.5f * static_cast<float>(k)).Put(std::int32_t{100 + k});
    const Read r = ReadAs(dir, bytes.str(), CLD_R, "cld.bin");
    ASSERT_EQ(r.printed.result, 1) << r.printed.err;
    EXPECT_NE(r.printed.out.find(">>>> Read Binary File\n ID  :5\n Name:Sea wall\n ID  :6\n Name:" +
                                 std::string(64, 'x') + "\nnx     :2\n"),
              std::string::npos);
    EXPECT_EQ(r.region.pairGrid[1][0][1], 1.5);
    EXPECT_EQ(r.region.pairIntGrid[1][0][0], 102);
}

TEST(RegionReadFile, ShortBinaryRepeatsTheLastValueButAbsurdHeadersFail) {
    TempDir dir;
    const Read r =
        ReadAs(dir, Bytes().Header(0, 0, 3, 2, 1.0f).Put(1.0f).Put(2.0f).str(), TPG_R, "short.bin");
    ASSERT_EQ(r.printed.result, 1);
    EXPECT_EQ(FileOrder(r.region), (std::vector<double>{1, 2, 2, 2, 2, 2}));
    // A value whose identifier is cut off was still read.
    const Read cut =
        ReadAs(dir, Bytes().Header(0, 0, 1, 1, 1.0f).Put(0).Put(1.0f).Put(4).Put(2.0f).str(), CLD_R,
               "cut.bin");
    ASSERT_EQ(cut.printed.result, 1);
    EXPECT_EQ(cut.region.pairGrid[0][0][1], 2.0);
    EXPECT_EQ(cut.region.pairIntGrid[0][0][1], 4);
    const std::pair<RType, std::string> bad[] = {
        {TPG_R, Bytes().Put(0.0).Put(0.0).Put(3).str()},                  // header cut short
        {CLD_R, Bytes().Header(0, 0, 1, 1, 1.0f).Put(2147483647).str()}}; // entries
    for (const auto& [kind, file] : bad) {
        const Read t = ReadAs(dir, file, kind, "bad.bin");
        EXPECT_EQ(t.printed.err,
                  ErrorBlock(kHead, {kReading, kFormat, "Region File > " + t.region.inFileName}));
    }
    // A negative size reads nothing; 1.6 GB announced by 32 bytes is refused unread.
    const std::tuple<std::string, const char*, const char*, const char*> mismatched[] = {
        {Bytes().Header(0, 0, -1, 2, 1.0f).Put(1.0f).str(), "0", "-1", "2"},
        {Bytes().Header(0, 0, 20000, 20000, 1.0f).Put(1.0f).str(), "1", "20000", "20000"}};
    for (const auto& [file, count, nx, ny] : mismatched) {
        const Read t = ReadAs(dir, file, TPG_R, "bad.bin");
        EXPECT_EQ(t.printed.err,
                  ErrorBlock(kHead, {kReading, kFormat, "Region File  > " + t.region.inFileName,
                                     std::string("ALL DATA NUM > ") + count,
                                     std::string("          NX > ") + nx,
                                     std::string("          NY > ") + ny}));
    }
}

} // namespace
