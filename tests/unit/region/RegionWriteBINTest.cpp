#include "region/Region.hpp"

#include "region/RegionTestSupport.hpp"
#include "support/TempDir.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

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
    for (int j = 0; j < 2; ++j) {
        for (int i = 0; i < 3; ++i) {
            r.grid[i][j] = 10 * j + i;
            r.pairGrid[i][j][0] = 10 * j + i;
            r.pairGrid[i][j][1] = -(10 * j + i);
            r.pairIntGrid[i][j][0] = 10 * j + i;
            r.pairIntGrid[i][j][1] = 100 + 10 * j + i;
        }
    }
    return r;
}

std::string FileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

template <class T> T At(const std::string& bytes, std::size_t offset) {
    T value;
    std::memcpy(&value, bytes.data() + offset, sizeof(T));
    return value;
}

TEST(RegionWriteBIN, NameMessagesAndHeader) {
    TempDir dir;
    Region r = Filled(TPG_R);
    const Printed p = Capture([&] { return r.WriteBIN(dir.path().string()); });
    const std::string path = dir.path().string() + "/TPG_R1.bin";
    EXPECT_EQ(p.result, 1);
    EXPECT_EQ(p.err, "");
    EXPECT_EQ(p.out, ">>>>>>>>>>>>>>>>>> Write File:" + path +
                         "\n     FILE_NUM:1/1\n    BIN_X_NUM:3\n    BIN_Y_NUM:2\n"
                         "<<<<<<<<<<<<<<<<<< Completed.\n");
    EXPECT_EQ(r.outFileName, path);
    const std::string bytes = FileBytes(path);
    ASSERT_EQ(bytes.size(), 52u);
    EXPECT_EQ(At<double>(bytes, 0), 139.25);
    EXPECT_EQ(At<double>(bytes, 8), -35.5);
    EXPECT_EQ(At<std::int32_t>(bytes, 16), 3);
    EXPECT_EQ(At<std::int32_t>(bytes, 20), 2);
    EXPECT_EQ(At<float>(bytes, 24), 0.1f); // the nearest float, about 0.100000001
    EXPECT_NE(static_cast<double>(At<float>(bytes, 24)), 0.1);
}

TEST(RegionWriteBIN, CellsByKindInRowsOfConstantJ) {
    TempDir dir;
    for (RType kind : {TPG_R, RCF_R, LSM_R}) {
        Region r = Filled(kind);
        ASSERT_EQ(Capture([&] { return r.WriteBIN(dir.path().string()); }).result, 1);
        const std::string bytes = FileBytes(r.outFileName);
        ASSERT_EQ(bytes.size(), 52u) << kind;
        for (int k = 0; k < 6; ++k)
            EXPECT_EQ(At<float>(bytes, 28 + 4 * k), static_cast<float>(10 * (k / 3) + k % 3));
    }
    Region heights = Filled(WBH_R);
    ASSERT_EQ(Capture([&] { return heights.WriteBIN(dir.path().string()); }).result, 1);
    std::string bytes = FileBytes(dir.path().string() + "/WBH_R1.bin");
    ASSERT_EQ(bytes.size(), 76u);
    EXPECT_EQ(At<float>(bytes, 28 + 8 * 4), 11.0f); // cell (1, 1), element 0
    EXPECT_EQ(At<float>(bytes, 28 + 8 * 4 + 4), -11.0f);

    Region map = Filled(WBM_R);
    ASSERT_EQ(Capture([&] { return map.WriteBIN(dir.path().string()); }).result, 1);
    bytes = FileBytes(dir.path().string() + "/WBM_R1.bin");
    ASSERT_EQ(bytes.size(), 76u);
    EXPECT_EQ(At<std::int32_t>(bytes, 28 + 8 * 2), 2);
    EXPECT_EQ(At<std::int32_t>(bytes, 28 + 8 * 5 + 4), 112);

    for (RType kind : {CLD_R, VRT_R, HRZ_R, IWH_R}) {
        Region r = Filled(kind);
        ASSERT_EQ(Capture([&] { return r.WriteBIN(dir.path().string()); }).result, 1);
        EXPECT_EQ(std::filesystem::file_size(r.outFileName), 28u) << kind;
    }
    // Cells no longer held are written as zeros, so the size still matches the header.
    Region freed = Filled(TPG_R);
    freed.FreeVecMem();
    ASSERT_EQ(Capture([&] { return freed.WriteBIN(dir.path().string()); }).result, 1);
    bytes = FileBytes(freed.outFileName);
    ASSERT_EQ(bytes.size(), 52u);
    EXPECT_EQ(At<float>(bytes, 48), 0.0f);
}

TEST(RegionWriteBIN, ReadBackGivesTheGrid) {
    TempDir dir;
    Region written = Filled(TPG_R);
    written.grid[2][1] = -1234.56; // narrowed to the nearest float
    ASSERT_EQ(Capture([&] { return written.WriteBIN(dir.path().string()); }).result, 1);
    Region read = RegionReading(TPG_R, written.outFileName);
    const Printed p = Capture([&] { return read.ReadFile(); });
    ASSERT_EQ(p.result, 1) << p.err;
    EXPECT_EQ(read.nx, 3);
    EXPECT_EQ(read.ny, 2);
    EXPECT_EQ(read.org_x, 139.25);
    EXPECT_EQ(read.gridSize, static_cast<double>(0.1f));
    EXPECT_TRUE(isSameRegion(&written, &read));
    for (int j = 0; j < 2; ++j)
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(read.grid[i][j], static_cast<double>(static_cast<float>(written.grid[i][j])));
    EXPECT_NE(p.out.find("valMin :-1234.560059\n"), std::string::npos);
}

TEST(RegionWriteBIN, UncreatableFileGivesTheKindNumber) {
    TempDir dir;
    Region r = Filled(WBM_R);
    const std::string missing = (dir.path() / "no" / "such").string();
    const Printed p = Capture([&] { return r.WriteBIN(missing); });
    EXPECT_EQ(p.result, 0);
    EXPECT_EQ(r.outFileName, missing + "/WBM_R1.bin"); // stored before the open
    EXPECT_EQ(p.out, ">>>>>>>>>>>>>>>>>> Write File:" + missing + "/WBM_R1.bin\n");
    EXPECT_EQ(p.err,
              kRule + "ERROR:REGION OBJECT METHOD\n" +
                  "  ERROR-DETAIL:Abnormal action at Writing BIN File Method.\n" +
                  "  ERROR-DETAIL:Can not open file.\n" +
                  "  ERROR-DETAIL:Particular attention should be given to \"Region BIN File\".\n" +
                  "  ERROR-DETAIL:Region BIN File > 4\n" + kRule);
}

} // namespace
