#include "region/Region.hpp"

#include "region/RegionTestSupport.hpp"
#include "support/TempDir.hpp"

namespace {

// A 3 x 2 region of the given kind with every cell array filled: grid value 10 j + i,
// pair values (10 j + i, -(10 j + i)), integer pairs (10 j + i, 100 + 10 j + i).
Region Filled(RType kind) {
    Region r = RegionReading(kind, "");
    r.Set2dStruct(3, 2, 139.25, -35.5);
    r.gridSize = 0.1;
    r.Make2dStruct();
    r.Make2dStruct2();
    r.Make2dStructInt2();
    for (int k = 0; k < 6; ++k) {
        const int i = k % 3, j = k / 3, v = 10 * j + i;
        r.grid[i][j] = r.pairGrid[i][j][0] = r.pairIntGrid[i][j][0] = v;
        r.pairGrid[i][j][1] = -v;
        r.pairIntGrid[i][j][1] = 100 + v;
    }
    return r;
}

template <class T> T At(const std::string& bytes, std::size_t offset) {
    T value;
    std::memcpy(&value, bytes.data() + offset, sizeof(T));
    return value;
}

TEST(RegionWriteBIN, HeaderThenCellsInRowsOfConstantJByKind) {
    TempDir dir;
    const std::string d = dir.path().string();
    Region r = Filled(TPG_R);
    EXPECT_EQ(Outcome([&] { return r.WriteBIN(d); }),
              "1|>>>>>>>>>>>>>>>>>> Write File:" + d + "/TPG_R1.bin\n     FILE_NUM:1/1\n"
              "    BIN_X_NUM:3\n    BIN_Y_NUM:2\n<<<<<<<<<<<<<<<<<< Completed.\n|");
    std::string bytes = FileBytes(r.outFileName);
    ASSERT_EQ(bytes.size(), 52u);
    EXPECT_EQ(bytes.substr(0, 28), Bytes().Header(139.25, -35.5, 3, 2, 0.1f).str());
    for (RType kind : {RCF_R, LSM_R}) {
        Region other = Filled(kind);
        ASSERT_EQ(Capture([&] { return other.WriteBIN(d); }).result, 1);
        EXPECT_EQ(FileBytes(other.outFileName).substr(28), bytes.substr(28)) << kind;
    }
    for (int k = 0; k < 6; ++k)
        EXPECT_EQ(At<float>(bytes, 28 + 4 * k), static_cast<float>(10 * (k / 3) + k % 3));
    // Two values a cell: heights as floats, the breaker map as integers.
    Region heights = Filled(WBH_R), map = Filled(WBM_R);
    ASSERT_EQ(Capture([&] { return heights.WriteBIN(d) + map.WriteBIN(d); }).result, 2);
    bytes = FileBytes(d + "/WBH_R1.bin");
    ASSERT_EQ(bytes.size(), 76u);
    EXPECT_EQ(At<float>(bytes, 28 + 8 * 4), 11.0f); // cell (1, 1)
    EXPECT_EQ(At<float>(bytes, 28 + 8 * 4 + 4), -11.0f);
    bytes = FileBytes(d + "/WBM_R1.bin");
    ASSERT_EQ(bytes.size(), 76u);
    EXPECT_EQ(At<std::int32_t>(bytes, 28 + 8 * 5 + 4), 112);
    // Kinds without cells of their own write the header only.
    for (RType kind : {CLD_R, VRT_R, HRZ_R, IWH_R}) {
        Region header = Filled(kind);
        ASSERT_EQ(Capture([&] { return header.WriteBIN(d); }).result, 1);
        EXPECT_EQ(FileBytes(header.outFileName).size(), 28u) << kind;
    }
    // Cells no longer held are written as zeros, so the size still matches the header.
    Region freed = Filled(TPG_R);
    freed.FreeVecMem();
    ASSERT_EQ(Capture([&] { return freed.WriteBIN(d); }).result, 1);
    bytes = FileBytes(freed.outFileName);
    ASSERT_EQ(bytes.size(), 52u);
    EXPECT_EQ(bytes.substr(28), std::string(24, '\0'));
}

TEST(RegionWriteBIN, UncreatableFileGivesTheKindNumber) {
    TempDir dir;
    Region r = Filled(WBM_R);
    const std::string missing = (dir.path() / "no" / "such").string();
    EXPECT_EQ(Outcome([&] { return r.WriteBIN(missing); }),
              "0|>>>>>>>>>>>>>>>>>> Write File:" + missing + "/WBM_R1.bin\n|" +
                  ErrorBlock("ERROR:REGION OBJECT METHOD",
                             {"Abnormal action at Writing BIN File Method.", "Can not open file.",
                              "Particular attention should be given to \"Region BIN File\".",
                              "Region BIN File > 4"}));
    EXPECT_EQ(r.outFileName, missing + "/WBM_R1.bin"); // stored before the open
}

} // namespace
