#include "region/Region.hpp"

#include "region/RegionTestSupport.hpp"
#include "support/TempDir.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
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

// Read quietly and reported after, a grid prints what ReadFile prints, nothing before the
// report, and ends the same; a binary construction-line file is left to ReadFile.
TEST(RegionReadFile, QuietReadThenReportIsReadFile) {
    TempDir dir;
    const std::string binary = Bytes().Header(1.5, 2.5, 2, 1, 1.0f).Put(3.0f).Put(4.0f).str();
    const std::tuple<std::string, std::string, RType> cases[] = {
        {"grid.txt", "2 2\n1 2\n-3.5 4 5 6\n", RCF_R},
        {"grid.bin", binary, RCF_R},
        {"short.txt", "2 2\n1 2\n3\n", TPG_R},
        {"header.txt", "2\n", TPG_R},
        {"missing.txt", "", TPG_R}};
    for (const auto& [name, content, kind] : cases) {
        const std::string path =
            name == "missing.txt" ? dir.path().string() + "/missing.txt" : dir.Write(name, content);
        Region once = RegionReading(kind, path);
        const Printed expected = Capture([&] { return once.ReadFile(); });
        Region quiet = RegionReading(kind, path);
        std::int64_t count = 0;
        int failure = 0;
        const Printed reading = Capture([&] { return failure = quiet.ReadFileQuietly(count); });
        EXPECT_EQ(reading.out + reading.err, "") << name;
        ASSERT_GE(failure, 0) << name;
        const Printed report = Capture([&] { return quiet.ReportQuietRead(failure, count); });
        EXPECT_EQ(report.result, expected.result) << name;
        EXPECT_EQ(report.out, expected.out) << name;
        EXPECT_EQ(report.err, expected.err) << name;
        EXPECT_EQ(quiet.grid.ValueCount(), once.grid.ValueCount()) << name;
    }
    Region lines = RegionReading(CLD_R, dir.Write("cld.bin", binary));
    std::int64_t count = 0;
    EXPECT_EQ(lines.ReadFileQuietly(count), -1);
}

// Kept, from TextGridReader's rules: what changes a grid's count. A line longer than a
// piece (8190 characters) is read as pieces, each a line of its own, even where a number
// straddles the cut; such lines once took time growing with the square of their length.
TEST(RegionReadFile, TextLineRules) {
    TempDir dir;
    std::vector<double> pieces(4094, 1.0);
    pieces.insert(pieces.end(), {12, 3, 4, 5}); // the cut falls after "12"
    std::string longLine;
    for (int k = 0; k < 4094; ++k)
        longLine += "1 ";
    const std::pair<std::string, std::vector<double>> rows[] = {
        {"1.0-2.0\n1e-3\n", {1.0, -2.0, 1.0, -3.0}}, // "-" starts a number
        {"7 \n\n5\n", {7.0, 0.0, 0.0, 5.0}},       // a blank before a line end, an empty line
        {longLine + "123\n# 9 9\n4 5\n", pieces}};
    for (const auto& [data, values] : rows) {
        const Read t = ReadAs(dir, std::to_string(values.size()) + " 1\n0 0\n" + data);
        ASSERT_EQ(t.printed.result, 1) << data.size() << t.printed.err;
        EXPECT_EQ(FileOrder(t.region), values) << data.size();
        EXPECT_EQ(t.region.valMax, *std::max_element(values.begin(), values.end()));
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
    // A count mismatch keeps what was read; a header far beyond the file is only counted
    // against, never reserved.
    const Read t = ReadAs(dir, "3 2\n7 8\n1 2\n3 4 5 6\n3\n");
    EXPECT_EQ(t.printed.err,
              ErrorBlock(kHead, {kReading, kFormat, "Region File  > " + path, "ALL DATA NUM > 7",
                                 "          NX > 3", "          NY > 2"}));
    EXPECT_EQ(t.region.valMax, 6.0);
    EXPECT_TRUE(t.region.grid.Empty());
    EXPECT_EQ(ReadAs(dir, "40000 40000\n0 0\n1 2\n").printed.result, 0);
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

TEST(RegionReadFile, ShortBinaryRepeatsTheLastValue) {
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
}

// Grids of a million values and more are read by both cores, each its own half: whole,
// short by records and a partial one, values and pairs alike, they must read as the
// plain sequential rules say, extremes included.
TEST(RegionReadFile, LargeBinaryReadOnBothCoresAsSequentially) {
    TempDir dir;
    constexpr int nx = 1100, ny = 1000; // past the size that is split
    constexpr std::size_t cells = std::size_t{nx} * ny;
    for (const RType kind : {TPG_R, CLD_R}) {
        const std::size_t perCell = kind == CLD_R ? 2 : 1; // construction lines: two pairs
        const std::size_t count = cells * perCell;
        std::vector<float> values(count);
        for (std::size_t k = 0; k < count; ++k)
            values[k] = static_cast<float>(static_cast<int>(k * 7919 % 20011) - 10000) / 100.0f;
        values[0] = -0.0f;
        values[count / 3] = NAN; // not first: passed over by the extremes
        values[count / 5] = -500.0f; // the extremes lie in different halves
        values[count * 3 / 4] = 500.0f;
        const std::size_t record = perCell == 2 ? 8 : 4;
        // Whole, or short by ten records and all but 5 bytes (a pair's value) or 1 byte.
        for (const std::size_t cut : {std::size_t{0}, 10 * record + 3}) {
            SCOPED_TRACE(std::to_string(kind) + " cut " + std::to_string(cut));
            Bytes bytes;
            bytes.Header(0, 0, nx, ny, 1.0f);
            if (perCell == 2)
                bytes.Put(std::int32_t{0});
            for (std::size_t k = 0; k < count; ++k) {
                bytes.Put(values[k]);
                if (perCell == 2)
                    bytes.Put(static_cast<std::int32_t>(k % 97));
            }
            const std::string file = bytes.str().substr(0, bytes.str().size() - cut);
            const Read r = ReadAs(dir, file, kind, "large.bin");
            ASSERT_EQ(r.printed.result, 1) << r.printed.err;
            // Records past the end repeat the last whole one; a cut pair whose value is
            // whole gives its value.
            const std::size_t whole = cut == 0 ? count : count - 11;
            const double last = perCell == 2 && cut != 0 ? values[whole] : values[whole - 1];
            double max = -HUGE_VAL, min = HUGE_VAL;
            for (std::size_t k = 0; k < count; ++k) {
                const double expected = k < whole ? values[k] : last;
                const std::size_t cell = k / perCell, slot = k % perCell;
                const int i = static_cast<int>(cell % nx), j = static_cast<int>(cell / nx);
                const double got =
                    perCell == 2 ? r.region.pairGrid[i][j][slot] : r.region.grid[i][j];
                ASSERT_TRUE(std::memcmp(&got, &expected, sizeof got) == 0 ||
                            (std::isnan(got) && std::isnan(expected)))
                    << k << ": " << got << " vs " << expected;
                if (perCell == 2) {
                    ASSERT_EQ(r.region.pairIntGrid[i][j][slot],
                              static_cast<int>((k < whole ? k : whole - 1) % 97))
                        << k;
                }
                if (!std::isnan(expected)) {
                    max = std::max(max, expected);
                    min = std::min(min, expected);
                }
            }
            EXPECT_EQ(r.region.valMax, max);
            EXPECT_EQ(r.region.valMin, min);
        }
    }
}

// A text grid large enough to be read on both cores: its extremes are gathered by each
// side on the way and must be those of the whole sequence.
TEST(RegionReadFile, LargeTextExtremesFromBothSides) {
    TempDir dir;
    constexpr int nx = 1000, ny = 1500; // about 11 MB of text
    std::string text = std::to_string(nx) + " " + std::to_string(ny) + "\n0 0\n";
    for (int k = 0; k < nx * ny; ++k) {
        const int v = k == 100 ? -99999 : k == nx * ny - 100 ? 99999 : k * 37 % 1000;
        text += std::to_string(v) + ".25" + (k % nx == nx - 1 ? "\n" : " ");
    }
    const Read r = ReadAs(dir, text);
    ASSERT_EQ(r.printed.result, 1) << r.printed.err;
    EXPECT_EQ(r.region.valMax, 99999.25);
    EXPECT_EQ(r.region.valMin, -99999.25);
    EXPECT_EQ(r.region.grid[nx - 1][ny - 1], (nx * ny - 1) * 37 % 1000 + 0.25);
}

// Grids of few values read as codes give what the values would: the cells bit for bit,
// the lines printed, the binary and text grids written and the picture drawn. Past the
// first 256 distinct values the codes are undone, also after their values' memory has
// been given back or moved ahead of the reader (a 257th value after two million).
TEST(RegionReadFile, FewValuesHeldAsCodesGiveWhatTheValuesGive) {
    TempDir dir;
    constexpr int nx = 2000, ny = 1300; // past the first steps of coding
    const std::string classes = [&] {
        std::string text;
        for (int k = 0; k < 12; ++k)
            text += std::to_string(k * 0.01 - 0.005) + " " + std::to_string(k) + " 0 0\n";
        return dir.Write("classes.clr", text);
    }();
    const auto few = [](int k) {
        static const char* const kValues[] = {"0.025", "0.04", "-0", "0", "0.1", "0.030000000001"};
        return std::string(kValues[k * 7 % 6]);
    };
    struct Case {
        const char* name;
        std::function<std::string(int)> value; // the k-th value in file order
        bool binary;
        bool coded;
    };
    const Case cases[] = {
        {"few", few, false, true},
        {"many from the start", [](int k) { return std::to_string(k % 1000) + ".5"; }, false, false},
        {"many after two million",
         [&](int k) { return k < 2300000 ? few(k) : std::to_string(k); }, false, false},
        {"few, binary", few, true, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::string file;
        if (c.binary) {
            Bytes bytes;
            bytes.Header(0, 0, nx, ny, 10.0f);
            for (int k = 0; k < nx * ny; ++k)
                bytes.Put(std::stof(c.value(k)));
            file = dir.Write("grid.bin", bytes.str());
        } else {
            file = std::to_string(nx) + " " + std::to_string(ny) + "\n0 0\n";
            for (int k = 0; k < nx * ny; ++k)
                file += c.value(k) + (k % 10 == 9 ? "\n" : " ");
            file = dir.Write("grid.txt", file);
        }
        Region plain = RegionReading(RCF_R, file);
        Region coded = RegionReading(RCF_R, file);
        coded.fewValues = true;
        const Printed p = Capture([&] { return plain.ReadFile(); });
        const Printed q = Capture([&] { return coded.ReadFile(); });
        ASSERT_EQ(p.result, 1) << p.err;
        EXPECT_EQ(q.out + q.err, p.out + p.err);
        ASSERT_EQ(coded.HasCodes(), c.coded);
        EXPECT_EQ(coded.grid.Empty(), c.coded);
        for (int j = 0; j < ny; ++j)
            for (int i = 0; i < nx; ++i) {
                const double a = plain.CellValue(i, j), b = coded.CellValue(i, j);
                ASSERT_EQ(std::memcmp(&a, &b, sizeof a), 0) << i << ", " << j;
            }
        EXPECT_EQ(Written([&](std::FILE* f) { return coded.PutBIN(f); }),
                  Written([&](std::FILE* f) { return plain.PutBIN(f); }));
        EXPECT_EQ(Written([&](std::FILE* f) { return coded.PutText(f); }),
                  Written([&](std::FILE* f) { return plain.PutText(f); }));
        for (Region* r : {&plain, &coded}) {
            r->epsg = 3100;
            r->regionName = r == &plain ? "plain" : "coded";
            ASSERT_EQ(Outcome([&] { return r->WriteGeoTIFF(dir.path().string(), classes, ""); }),
                      "1||");
        }
        EXPECT_EQ(FileBytes((dir.path() / "RCF_coded.tiff").string()),
                  FileBytes((dir.path() / "RCF_plain.tiff").string()));
    }
}

} // namespace
