#include "region/Region.hpp"

#include "inputs/DynamicParam.hpp"
#include "region/RegionTestSupport.hpp"
#include "support/TempDir.hpp"

#include <filesystem>

namespace {

// (valid time, rise time) per stage.
DynamicParam Stages(std::initializer_list<std::pair<double, double>> times) {
    DynamicParam p;
    for (const auto& [valid, rise] : times)
        p.params.push_back(DYNAMIC_PARAM{0, valid, rise, true});
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
    const std::string out = dir.path().string(), v = out + "/HRZ_R01";
    Region r = Deformation(HRZ_R, "R01");
    // Seconds truncated toward zero, %04d padding but never cutting, held at int's ends;
    // fields wider than 16 columns are not cut.
    EXPECT_EQ(Outcome([&] {
                  return r.SetDynamic(out, Stages({{30.5, 60.0}, {-5.5, 0.0}, {1e30, -99999.5}}),
                                      2451);
              }),
              "1|\n" + kSetName + v + "_0030s.bin\n" + kSetName + v + "_-005s.bin\n" + kSetName +
                  v + "_2147483647s.bin\n" + v + ".txt\n<<<<<<<<<<<<<<<<<< Completed.\n|");
    EXPECT_EQ(r.outFileName, v + ".txt");
    EXPECT_EQ(FileBytes(v + ".txt"),
              "30.500000       60.000000       " + v + "_0030s.bin\n" +
                  "-5.500000       0.000000        " + v + "_-005s.bin\n" +
                  "1000000000000000019884624838656.000000-99999.500000   " + v +
                  "_2147483647s.bin\n");
    EXPECT_FALSE(std::filesystem::exists(v + "_0030s.bin")); // names only
}

TEST(RegionSetDynamic, OtherEpsgAndUncreatableIndex) {
    TempDir dir;
    // Another coordinate system: no series, nothing printed or written.
    Region other = Deformation(VRT_R, "R3");
    other.outFileName = "previous.bin";
    EXPECT_EQ(Outcome([&] {
                  return other.SetDynamic(dir.path().string(), Stages({{0, 0}}), 4612);
              }),
              "1||");
    EXPECT_EQ(other.outFileName, "");
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));

    Region missing = Deformation(VRT_R, "R4");
    const std::string no = dir.path().string() + "/missing";
    EXPECT_EQ(Outcome([&] { return missing.SetDynamic(no, Stages({{1, 2}}), 2451); }),
              "0|\n" + kSetName + no + "/VRT_R4_0001s.bin\n" + no + "/VRT_R4.txt\n|" +
                  ErrorBlock("ERROR:REGION OBJECT METHOD",
                             {"Abnormal action at Writing BIN File Method.", "Can not open file.",
                              "Particular attention should be given to \"Region BIN File\".",
                              "Region BIN File > 7"}));
    EXPECT_EQ(missing.outFileName, no + "/VRT_R4.txt"); // kept from before the failure
}

} // namespace
