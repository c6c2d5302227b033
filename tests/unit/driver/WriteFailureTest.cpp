// Runs the program on the example project with one output file blocked, and checks that
// the run ends with the writer's error block and its step's code, and that everything
// written before the failure is what a successful run writes.

#include "inputs/Station.hpp"
#include "region/RegionTestSupport.hpp"
#include "support/RunSeaforge.hpp"
#include "support/TempDir.hpp"

#include <gtest/gtest.h>

#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

using Files = std::map<std::string, std::string>; // path under the run folder -> bytes

const fs::path kExample = fs::path(SEAFORGE_TEST_DATA).parent_path() / "e2e/example/input";
const std::string kCalc = "Example/Calc/";

// The example project warns on standard error before anything is written.
const std::string kWarning =
    ErrorBlock("ERROR:XML PARAMETER IS INCONSISTENCY",
               {"You should make a choice between \"setting Ini Wave Heigh\" or setting "
                "\"Fault Parameter\"."});

std::string CodeBlock(const std::string& message) { return kRule + message + "\n" + kRule; }

// The example, optionally with one station file per region instead of the best-point file.
void CopyExample(const fs::path& to, bool perRegionStations) {
    fs::copy(kExample, to, fs::copy_options::recursive);
    if (!perRegionStations)
        return;
    const fs::path xml = to / "Example.xml";
    std::ifstream in(xml);
    std::string text(std::istreambuf_iterator<char>(in), {});
    const std::string on = "<Monolithic>1</Monolithic>";
    text.replace(text.find(on), on.size(), "<Monolithic>0</Monolithic>");
    std::ofstream(xml, std::ios::trunc) << text;
}

// Regular files under `root`; symbolic links and whatever lies under `skip` are left out.
Files FilesUnder(const fs::path& root, const std::vector<fs::path>& skip = {}) {
    Files files;
    for (auto it = fs::recursive_directory_iterator(root); it != fs::end(it); ++it) {
        if (std::find(skip.begin(), skip.end(), it->path()) != skip.end()) {
            it.disable_recursion_pending();
            continue;
        }
        if (!it->is_symlink() && it->is_regular_file()) {
            std::ifstream in(it->path(), std::ios::binary);
            std::string bytes(std::istreambuf_iterator<char>(in), {});
            // A .dbf header holds the day it was written (bytes 1 to 3).
            if (it->path().extension() == ".dbf" && bytes.size() > 4)
                bytes.replace(1, 3, "YMD");
            files[fs::relative(it->path(), root).string()] = bytes;
        }
    }
    return files;
}

// What a successful run of the example writes, run once per variant.
const Files& Reference(bool perRegionStations) {
    static std::map<bool, TempDir> dirs;
    static std::map<bool, Files> files;
    if (!files.count(perRegionStations)) {
        const fs::path dir = dirs[perRegionStations].path() / "run";
        CopyExample(dir, perRegionStations);
        const SeaforgeRun run = RunSeaforge(dir, {"Example.xml"});
        EXPECT_EQ(run.status, 0) << run.err;
        files[perRegionStations] = FilesUnder(dir);
    }
    return files[perRegionStations];
}

// Every file the failed run left, but the ones in `failed`, is the successful run's file,
// byte for byte, and `before`, written shortly before the failure, is among them.
void ExpectEarlierFilesIntact(const fs::path& dir, const std::vector<fs::path>& failed,
                              bool perRegion, const std::string& before) {
    const Files& reference = Reference(perRegion);
    const Files left = FilesUnder(dir, failed);
    for (const auto& [name, bytes] : left) {
        const auto expected = reference.find(name);
        if (expected == reference.end())
            ADD_FAILURE() << name << " is not written by a successful run";
        else
            EXPECT_TRUE(bytes == expected->second) << name << " differs";
    }
    EXPECT_TRUE(before.empty() || left.count(before) == 1) << before << " missing";
}

struct Blocked {
    std::string file;      // under the run folder
    bool perRegion;        // the example with one station file per region
    std::string expected;  // standard error after the warning
    std::string before;    // a file written shortly before it, "" for none
};

const std::string kStationShape =
    ErrorBlock("ERROR:STATION OBJECT METHOD", {"Abnormal action at Making Shapefile Method.",
                                               "Particular attention should be given to \" \"."});

std::string BinBlock(int type) {
    return ErrorBlock("ERROR:REGION OBJECT METHOD",
                      {"Abnormal action at Writing BIN File Method.", "Can not open file.",
                       "Particular attention should be given to \"Region BIN File\".",
                       "Region BIN File > " + std::to_string(type)});
}

std::string PointFileBlock(const std::string& method) {
    return ErrorBlock("ERROR:REGION OBJECT METHOD",
                      {"Abnormal action at " + method + " Method.", "Can not open file."});
}

// One output of every kind, in the order the run writes them.
const std::vector<Blocked>& Outputs() {
    static const std::vector<Blocked> outputs = {
        {kCalc + "Station_2451.shp", false,
         kStationShape + CodeBlock("ERROR:Read Station List File"), ""},
        {kCalc + "ExtractPoint_2451.dbf", false,
         kStationShape + CodeBlock("ERROR:Read Extract Point File"), kCalc + "Station_2451.shx"},
        {kCalc + "FaultModel001.shp", false,
         ErrorBlock("ERROR:FAULT OBJECT METHOD",
                    {"Abnormal action at Making Shapefile Method.",
                     "Particular attention should be given to \" \"."}) +
             CodeBlock("ERROR:Make Shapefile"),
         kCalc + "ExtractPoint_2451.shx"},
        {kCalc + "TPG_Outer.tiff", false,
         ErrorBlock("ERROR:REGION OBJECT METHOD",
                    {"Abnormal action at Write GeoTIFF Method.",
                     "Particular attention should be given to \"GeotiffSetting\"."}) +
             CodeBlock("ERROR:Make GeoTIFF"),
         kCalc + "FaultModel001.shx"},
        // Kept: a roughness grid that cannot be written reports as the topography.
        {kCalc + "RCF_Outer.bin", false, BinBlock(2) + CodeBlock("ERROR:Read Topography"),
         kCalc + "TPG_Outer.tiff"},
        {kCalc + "IWH_Outer.txt", false,
         BinBlock(9) + CodeBlock("ERROR:Write Wave-Breaker Map File"), kCalc + "LSM_Outer.tiff"},
        {kCalc + "LSM_Harbour.bin", false,
         BinBlock(6) + CodeBlock("ERROR:Write Wave-Breaker Map File"),
         kCalc + "WBHE_Harbour.tiff"},
        // Point files with points in them: an empty file fits even a full disk.
        {kCalc + "Dump1d_R002.txt", true,
         PointFileBlock("Write Station File") + CodeBlock("ERROR:Write Station File"),
         kCalc + "Dump1d_R001.txt"},
        {kCalc + "Dump1d_BEST.txt", false,
         ErrorBlock("ERROR:STATION OBJECT METHOD",
                    {"Abnormal action at Reading File Method.",
                     "Particular attention should be given to \" \"."}) +
             CodeBlock("ERROR:Write Station File"),
         kCalc + "LSM_Harbour.tiff"},
        {kCalc + "CoastExtractPoint_Harbour.txt", false,
         PointFileBlock("Write Coast Extract File") + CodeBlock("ERROR:Write Station File"),
         kCalc + "CoastExtractPoint_Bay.txt"},
        {"IWHConf_Example.txt", false, CodeBlock("ERROR:Write Calculate Prameter TEXT File"),
         kCalc + "CoastExtractPoint_Harbour.txt"},
        {"CalcParameter_Example.txt", false,
         CodeBlock("ERROR:Write Calculate Prameter TEXT File"), "IWHConf_Example.txt"},
    };
    return outputs;
}

// The example copied to a fresh run folder whose destination already exists (an existing
// one is accepted), for a case to block a file in before the run.
struct ExampleRun {
    TempDir dir;
    fs::path run = dir.path() / "run";
    fs::path calc = run / kCalc;
    explicit ExampleRun(bool perRegion) {
        CopyExample(run, perRegion);
        fs::create_directories(calc);
    }
    SeaforgeRun Run() const { return RunSeaforge(run, {"Example.xml"}); }
};

void ExpectFailure(const SeaforgeRun& result, const std::string& expected) {
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, kWarning + expected);
    EXPECT_EQ(result.out.find("Successful Completion."), std::string::npos);
}

// Runs the example with `block` applied to the file of `output` and checks the outcome.
template <class Block> void ExpectBlockedRun(const Blocked& output, Block block) {
    const ExampleRun example(output.perRegion);
    const fs::path blocked = example.run / output.file;
    block(blocked);
    ExpectFailure(example.Run(), output.expected);
    ExpectEarlierFilesIntact(example.run, {blocked}, output.perRegion, output.before);
}

TEST(WriteFailure, DirectoryInPlaceOfEachOutput) {
    for (const Blocked& output : Outputs()) {
        // A shapefile that cannot be made is not a failed write; see below.
        if (output.file.ends_with(".shp"))
            continue;
        SCOPED_TRACE(output.file);
        // Not empty: the best-point file is removed first when it can be read.
        ExpectBlockedRun(output, [](const fs::path& at) {
            fs::create_directory(at);
            std::ofstream(at / "keep") << "x";
        });
    }
}

// A shapefile that cannot be made refuses each feature and the run carries on, as for a
// system it cannot describe: nothing was written, so nothing is truncated.
TEST(WriteFailure, DirectoryInPlaceOfShapefileRefusesItsFeatures) {
    const ExampleRun example(false);
    fs::create_directory(example.calc / "Station_2451.shp");
    const SeaforgeRun result = example.Run();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, kWarning);
    EXPECT_NE(result.out.find("Error : Shapefile::create() -> OGRSFDriver::CreateDataSource()\n"
                              "Error : Shapefile::writePoint() -> Layer null or Type not POINT\n"),
              std::string::npos);
    EXPECT_NE(result.out.find("Successful Completion."), std::string::npos);
    EXPECT_FALSE(fs::exists(example.calc / "Station_2451.dbf"));
}

TEST(WriteFailure, FullDiskUnderEachOutput) {
    if (!fs::is_character_file("/dev/full"))
        GTEST_SKIP() << "this machine has no /dev/full";
    for (const Blocked& output : Outputs()) {
        // The best-point file is removed before it is written, link and all.
        if (output.file.ends_with("Dump1d_BEST.txt"))
            continue;
        SCOPED_TRACE(output.file);
        // Opening /dev/full succeeds; every write to it fails as on a full disk.
        ExpectBlockedRun(output, [](const fs::path& at) { fs::create_symlink("/dev/full", at); });
    }
}

TEST(WriteFailure, ReadOnlyDestination) {
    TempDir probe;
    fs::permissions(probe.path(), fs::perms::owner_read | fs::perms::owner_exec);
    std::FILE* written = std::fopen((probe.path() / "x").c_str(), "w");
    if (written != nullptr)
        std::fclose(written);
    if (geteuid() == 0 || written != nullptr)
        GTEST_SKIP() << "a read-only folder does not stop this user (root ignores permissions)";
    // The shapefiles come first and are refused feature by feature, as a folder that
    // cannot take them is; the first checked write is the topography's picture.
    const ExampleRun example(false);
    fs::permissions(example.calc, fs::perms::owner_read | fs::perms::owner_exec);
    ExpectFailure(example.Run(), Outputs()[3].expected);
}

// The destination folder on a small file system filled to the last block before the run.
TEST(WriteFailure, GenuinelyFullDisk) {
    const Blocked& first = Outputs().front();
    const ExampleRun example(first.perRegion);
    const fs::path& calc = example.calc;
    if (mount("tmpfs", calc.c_str(), "tmpfs", 0, "size=64k") != 0)
        GTEST_SKIP() << "this machine does not let the test mount a file system";
    struct Unmount {
        fs::path at;
        ~Unmount() { umount2(at.c_str(), MNT_DETACH); }
    } unmount{calc};
    {
        std::ofstream filler(calc / "filler", std::ios::binary);
        const std::string block(4096, 'x');
        while (filler.write(block.data(), block.size()) && filler.flush()) {
        }
    }
    const SeaforgeRun result = example.Run();
    ExpectFailure(result, first.expected);
    // The first file the shapefile stores is the one the disk has no room for.
    EXPECT_NE(result.out.find("Error : Shapefile::close() -> fwrite(" + kCalc +
                              "Station_2451.dbf)\n"),
              std::string::npos);
    ExpectEarlierFilesIntact(example.run, {calc / "filler", calc / "Station_2451.dbf"},
                             first.perRegion, "");
}

// The run removes a best-point file it finds before writing, so a full disk under it is
// seen only here.
TEST(WriteFailure, BestPointListOnFullDisk) {
    if (!fs::is_character_file("/dev/full"))
        GTEST_SKIP() << "this machine has no /dev/full";
    Station list{XML_STATION{}};
    list.points = {PosXY{1.0, 2.0, "gauge"}};
    EXPECT_EQ(Outcome([&] { return list.WriteBestPoint("/dev/full"); }),
              "0||" + ErrorBlock("ERROR:STATION OBJECT METHOD",
                                 {"Abnormal action at Reading File Method.",
                                  "Particular attention should be given to \" \"."}));
}

} // namespace
