#include "region/Region.hpp"

#include "inputs/DynamicParam.hpp"
#include "region/RegionTestSupport.hpp"
#include "support/TempDir.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>

namespace {

std::string FileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// (valid time, rise time) per stage; whether a stage is in use does not matter here.
DynamicParam Stages(std::initializer_list<std::pair<double, double>> times) {
    DynamicParam p;
    for (const auto& [valid, rise] : times) {
        p.params.push_back(DYNAMIC_PARAM{0, valid, rise, valid <= 0.0});
    }
    return p;
}

Region Deformation(RType kind, const std::string& name) {
    XML_REGION rec;
    rec.RegionName = name;
    rec.EPSG = 2451;
    return Region(kind, rec);
}

const std::string kSetName = ">>>>>>>>>>>>>>>>>> Set File Name:";

TEST(RegionSetDynamic, StageNamesAndIndexFile) {
    TempDir dir;
    const std::string out = dir.path().string();
    Region v = Deformation(VRT_R, "R01");
    const Printed printed = Capture([&] {
        return v.SetDynamic(
            out, Stages({{30.5, 60.0}, {-5.5, 0.0}, {12345.0, 1.25}, {10.2, 0.0}, {10.9, 2.0}}),
            2451);
    });
    EXPECT_EQ(printed.result, 1);
    EXPECT_EQ(printed.err, "");
    // Truncated toward zero; %04d pads but never cuts; equal seconds share a name.
    EXPECT_EQ(printed.out, "\n" + kSetName + out + "/VRT_R01_0030s.bin\n" + kSetName + out +
                               "/VRT_R01_-005s.bin\n" + kSetName + out + "/VRT_R01_12345s.bin\n" +
                               kSetName + out + "/VRT_R01_0010s.bin\n" + kSetName + out +
                               "/VRT_R01_0010s.bin\n" + out + "/VRT_R01.txt\n" +
                               "<<<<<<<<<<<<<<<<<< Completed.\n");
    EXPECT_EQ(v.outFileName, out + "/VRT_R01.txt");
    EXPECT_EQ(FileBytes(out + "/VRT_R01.txt"),
              "30.500000       60.000000       " + out + "/VRT_R01_0030s.bin\n" +
                  "-5.500000       0.000000        " + out + "/VRT_R01_-005s.bin\n" +
                  "12345.000000    1.250000        " + out + "/VRT_R01_12345s.bin\n" +
                  "10.200000       0.000000        " + out + "/VRT_R01_0010s.bin\n" +
                  "10.900000       2.000000        " + out + "/VRT_R01_0010s.bin\n");
    EXPECT_FALSE(std::filesystem::exists(out + "/VRT_R01_0030s.bin")); // names only

    // Fields wider than 16 columns are not cut; times beyond int are held at its ends.
    Region h = Deformation(HRZ_R, "Bay");
    ASSERT_TRUE(Capture([&] {
                    return h.SetDynamic(out, Stages({{1234567.0, -99999.5}, {1e30, 0}}), 2451);
                }).result);
    EXPECT_EQ(FileBytes(out + "/HRZ_Bay.txt"),
              "1234567.000000  -99999.500000   " + out + "/HRZ_Bay_1234567s.bin\n" +
                  "1000000000000000019884624838656.000000" + "0.000000        " + out +
                  "/HRZ_Bay_2147483647s.bin\n");
}

TEST(RegionSetDynamic, EmptyStageListAndOtherEpsg) {
    TempDir dir;
    const std::string out = dir.path().string();
    Region v = Deformation(VRT_R, "R2");
    Printed printed = Capture([&] { return v.SetDynamic(out, DynamicParam(), 2451); });
    EXPECT_EQ(printed.result, 1);
    EXPECT_EQ(printed.out, "\n" + out + "/VRT_R2.txt\n<<<<<<<<<<<<<<<<<< Completed.\n");
    EXPECT_TRUE(std::filesystem::exists(out + "/VRT_R2.txt"));
    EXPECT_EQ(FileBytes(out + "/VRT_R2.txt"), "");

    // Another coordinate system: no series, nothing printed or written.
    Region other = Deformation(VRT_R, "R3");
    other.outFileName = "previous.bin";
    printed = Capture([&] { return other.SetDynamic(out, Stages({{0, 0}}), 4612); });
    EXPECT_EQ(printed.result, 1);
    EXPECT_EQ(printed.out + printed.err, "");
    EXPECT_EQ(other.outFileName, "");
    EXPECT_FALSE(std::filesystem::exists(out + "/VRT_R3.txt"));
}

TEST(RegionSetDynamic, IndexThatCannotBeCreated) {
    TempDir dir;
    const std::string out = dir.path().string() + "/missing";
    Region v = Deformation(VRT_R, "R4");
    const Printed printed = Capture([&] { return v.SetDynamic(out, Stages({{1, 2}}), 2451); });
    EXPECT_EQ(printed.result, 0);
    EXPECT_EQ(printed.out, "\n" + kSetName + out + "/VRT_R4_0001s.bin\n" + out + "/VRT_R4.txt\n");
    EXPECT_EQ(printed.err,
              kRule + "ERROR:REGION OBJECT METHOD\n" +
                  "  ERROR-DETAIL:Abnormal action at Writing BIN File Method.\n" +
                  "  ERROR-DETAIL:Can not open file.\n" +
                  "  ERROR-DETAIL:Particular attention should be given to \"Region BIN File\".\n" +
                  "  ERROR-DETAIL:Region BIN File > 7\n" + kRule);
    EXPECT_EQ(v.outFileName, out + "/VRT_R4.txt"); // kept from before the failure
}

} // namespace
