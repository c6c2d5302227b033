// Damaged and hostile inputs of every reader, run through the built program: each ends in
// the reader's error block and the driver's code block, or in the warning or success the
// format defines for it; never a crash, a hang or a run on a grid nobody could hold.

#include "region/RegionTestSupport.hpp"
#include "support/RunSeaforge.hpp"
#include "support/TempDir.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

// The input a project names, in place of the file it expects.
struct Input {
    enum Kind { kFile, kDirectory, kMissing, kUnreadable } kind = kFile;
    std::string bytes;
};
Input File(std::string bytes) { return {Input::kFile, std::move(bytes)}; }
const Input kDirectory{Input::kDirectory, ""};
const Input kMissing{Input::kMissing, ""};

// Where the input goes in the project.
enum class Slot {
    kProjectFile,
    kTopography,
    kRoughness,
    kConstructionLines,
    kLandMap,
    kFault,
    kDynamic,
    kConstLine,
    kStations,
    kExtractPoints,
    kColourTable,
};

// One region R1 of 3 × 2 points at (1000, 2000), spacing 30, with a fault model; `slot`
// names `file`. (A project needs a fault model, and with one the initial wave height is
// never read from a file: that reader is not reached from here.)
std::string ProjectXml(Slot slot, const std::string& file) {
    const auto in = [&](Slot s, const std::string& xml) { return slot == s ? xml : ""; };
    const auto named = [&](const std::string& element) {
        return "<" + element + "><FileName>" + file + "</FileName></" + element + ">";
    };
    const std::string topography = slot == Slot::kTopography ? file : "r1.txt";
    const std::string fault = slot == Slot::kFault ? file : "fault.txt";
    return "<?xml version=\"1.0\"?>\n<Project><ProjectName>Bay</ProjectName>"
           "<DestDir>out</DestDir><CalcParameter><InitialWaveHeightSetting><FaultModel>"
           "<EPSG>4612</EPSG><FileName>" +
           fault +
           "</FileName></FaultModel></InitialWaveHeightSetting><TsunamiCalcSetting>"
           "<TotalTime>600</TotalTime><TimeIncrement>0.2</TimeIncrement></TsunamiCalcSetting>"
           "<Region><RegionNo>1</RegionNo><RegionName>R1</RegionName>"
           "<BaseRegionNo>0</BaseRegionNo><GridSize>30</GridSize><Topography><FileName>" +
           topography + "</FileName></Topography>" +
           in(Slot::kRoughness, named("RoughnessCoefficient")) +
           in(Slot::kConstructionLines, named("ConstructionLineData")) +
           in(Slot::kLandMap, named("LandMap")) + "</Region>" +
           in(Slot::kDynamic, named("DynamicDeformationParameter")) +
           in(Slot::kConstLine, named("ConstructionLineParameter")) +
           "</CalcParameter><CalcOutputSetting>" +
           in(Slot::kStations, "<Dump1d>" + named("StationPos") + "</Dump1d>") +
           in(Slot::kExtractPoints, "<CoastalPoint>" + named("ExtractPoint") + "</CoastalPoint>") +
           "</CalcOutputSetting>" +
           in(Slot::kColourTable, "<GeotiffSetting>" + named("Topography") + "</GeotiffSetting>") +
           "</Project>\n";
}

// Runs the project with `input` at `name` (the project file itself for kProjectFile) in a
// fresh directory holding a sound topography and fault file.
SeaforgeRun RunWith(Slot slot, const std::string& name, const Input& input) {
    TempDir dir;
    dir.Write("r1.txt", "3 2\n1000.0 2000.0\n-10.5 -20.25 5.0\n-1.0 0.0 3.5\n");
    dir.Write("fault.txt", "35.0 139.5 5000 0 30 45 90 10000 5000 1.0 \"F1\"\n");
    const std::string file = slot == Slot::kProjectFile ? "project.xml" : name;
    if (slot != Slot::kProjectFile)
        dir.Write("project.xml", ProjectXml(slot, name));
    if (input.kind == Input::kDirectory)
        fs::create_directory(dir.path() / file);
    if (input.kind == Input::kFile || input.kind == Input::kUnreadable)
        dir.Write(file, input.bytes);
    if (input.kind == Input::kUnreadable)
        fs::permissions(dir.path() / file, fs::perms::none);
    return RunSeaforge(dir.path());
}

// What a run must print on standard error, how its standard output must end, its status.
struct Expected {
    std::string err;
    std::string outTail;
    int status = 1;
};

const std::string kSuccess = "\nSuccessful Completion. ( Seaforge Done. )\n";

void ExpectRun(const SeaforgeRun& run, const Expected& want, const std::string& label) {
    EXPECT_EQ(run.err, want.err) << label;
    EXPECT_EQ(run.status, want.status) << label;
    const std::size_t tail = std::min(run.out.size(), want.outTail.size());
    EXPECT_EQ(run.out.substr(run.out.size() - tail), want.outTail) << label;
}

// The driver's block for an error code's message.
std::string Code(const std::string& message) { return ErrorBlock(message); }

// The start of a picture file: binary bytes no reader knows.
const std::string kPicture("\x89PNG\r\n\x1a\n\0\0\0\rIHDR\0\0\0\x03", 20);

// Why a grid read fails: the file cannot be opened (1), a header line has the wrong
// token count (2), or the values do not match the header (3), with the count and sizes.
struct Cause {
    int reason;
    long long dataNum = 0;
    long long nx = 0;
    long long ny = 0;
};
const Cause kCannotOpen{1};
const Cause kBadHeader{2};
Cause Count(long long dataNum, long long nx, long long ny) { return {3, dataNum, nx, ny}; }
const Cause kRead{0}; // read: the run goes on to its end

const std::string kRegion = "ERROR:REGION OBJECT METHOD";
const std::string kReading = "Abnormal action at Reading File Method.";

std::string RegionBlock(const Cause& c, const std::string& path) {
    const std::string format = "You should check the Format of Region File.";
    if (c.reason == 1)
        return ErrorBlock(kRegion, {kReading, "Can not open file.",
                                    "Particular attention should be given to \"Region File\".",
                                    "Region File > " + path});
    if (c.reason == 2)
        return ErrorBlock(kRegion, {kReading, format, "Region File > " + path});
    return ErrorBlock(kRegion, {kReading, format, "Region File  > " + path,
                                "ALL DATA NUM > " + std::to_string(c.dataNum),
                                "          NX > " + std::to_string(c.nx),
                                "          NY > " + std::to_string(c.ny)});
}

// A grid kind read from a file, as the project names it and the driver reports it.
struct GridKind {
    Slot slot;
    std::string name; // without extension
    std::string failure; // what the driver prints after the reader's block
};

const GridKind kPlainKinds[] = {
    {Slot::kTopography, "topo", Code("ERROR:Read Topography")},
    {Slot::kRoughness, "rough", Code("ERROR:Read Roughness Coefficient")},
    {Slot::kLandMap, "land_P000", Code("ERROR:Read Land Map File")}}; // tide level 0
const GridKind kConstructionLines{Slot::kConstructionLines, "lines",
                                  "Read30\n" + Code("ERROR:Read Construction Line Data File")};

struct GridCase {
    const char* label;
    Input input;
    Cause cause;
};

void RunGridCases(const GridKind& kind, const std::string& extension,
                  const std::vector<GridCase>& cases) {
    const std::string path = kind.name + extension;
    const std::string opening = "\n>>>>>>>>>>>>>>>>>> Region Input:" + path + "\n" +
                                (extension == ".bin" ? ">>>> Read Binary File\n" : "");
    for (const GridCase& c : cases) {
        const Expected want = c.cause.reason == 0
                                  ? Expected{"", kSuccess, 0}
                                  : Expected{RegionBlock(c.cause, path) + kind.failure, opening};
        ExpectRun(RunWith(kind.slot, path, c.input), want, path + ": " + c.label);
    }
}

std::string Repeat(const std::string& text, int times) {
    std::string all;
    for (int k = 0; k < times; ++k)
        all += text;
    return all;
}

TEST(HostileInput, TextGrids) {
    const std::vector<GridCase> cases = {
        {"empty", File(""), kBadHeader},
        {"nx only", File("3"), kBadHeader},
        {"nx only, then a whole grid", File("3\n0 0\n1 2 3 4 5 6\n"), kBadHeader},
        {"one line only", File("3 2\n"), kBadHeader},
        {"org_x only", File("3 2\n1000.0"), kBadHeader},
        {"no values", File("3 2\n1000.0 2000.0"), Count(0, 3, 2)},
        {"values cut", File("3 2\n1000.0 2000.0\n-10.5 -20.25 5.0\n-1.0 0."), Count(5, 3, 2)},
        {"negative nx", File("-3 2\n0 0\n1 2 3 4 5 6\n"), Count(6, -3, 2)},
        // The product of two negative sizes is the number of values given.
        {"negative sizes", File("-3 -2\n0 0\n1 2 3 4 5 6\n"), Count(6, -3, -2)},
        {"largest sizes", File("2147483647 2147483647\n0 0\n1\n"),
         Count(1, 2147483647, 2147483647)},
        {"nx beyond 32 bits keeps its low bits", File("99999999999 1\n0 0\n1\n"),
         Count(1, 1215752191, 1)},
        {"product 2^32 wraps to no values", File("65536 65536\n0 0\n"), Count(0, 65536, 65536)},
        // 65537 × 65537 wraps to 131073 in 32 bits, the number of values given.
        {"product wraps to the count",
         File("65537 65537\n0 0\n" + Repeat("1 ", 131072) + "1\n"), Count(131073, 65537, 65537)},
        // The first piece holds "3" only.
        {"header longer than a piece",
         File("3" + std::string(8189, ' ') + " 2\n0 0\n1 2 3 4 5 6\n"), kBadHeader},
        // 8190 characters are 4095 values, the rest of the line 905 more.
        {"values longer than a piece", File("3 2\n0 0\n" + Repeat("1 ", 4999) + "1\n"),
         Count(5000, 3, 2)},
        {"picture", File(kPicture), kBadHeader},
        {"NUL in the header", File(std::string("3\0 2\n0 0\n1 2 3 4 5 6\n", 21)), kBadHeader},
        {"directory", kDirectory, kCannotOpen},
        {"missing", kMissing, kCannotOpen}};
    for (const GridKind& kind : kPlainKinds)
        RunGridCases(kind, ".txt", cases);
}

// The binary header of a grid at (1000, 2000) with spacing 30.
Bytes BinaryHeader(std::int32_t nx, std::int32_t ny) {
    return Bytes().Header(1000.0, 2000.0, nx, ny, 30.0f);
}

std::string Floats(int count) {
    Bytes values;
    for (int k = 0; k < count; ++k)
        values.Put(static_cast<float>(-k));
    return values.str();
}

TEST(HostileInput, BinaryGrids) {
    const std::string header = BinaryHeader(3, 2).str();
    std::vector<GridCase> cases = {
        {"negative nx", File(BinaryHeader(-3, 2).str() + Floats(6)), Count(0, -3, 2)},
        {"negative sizes", File(BinaryHeader(-3, -2).str() + Floats(6)), Count(0, -3, -2)},
        // 1.6 GB announced by 32 bytes is refused unread.
        {"absurd sizes", File(BinaryHeader(20000, 20000).str() + Floats(1)),
         Count(1, 20000, 20000)},
        {"more than 2^31 values", File(BinaryHeader(65536, 65536).str() + Floats(2)),
         Count(2, 65536, 65536)},
        {"product wraps to the count", File(BinaryHeader(65537, 65537).str() + Floats(131073)),
         Count(131073, 65537, 65537)},
        // Kept: a file merely shorter than announced is read, its last value repeated.
        {"header only", File(header), kRead},
        {"values cut", File(header + Floats(4) + "\x01\x02"), kRead},
        {"directory", kDirectory, kCannotOpen},
        {"missing", kMissing, kCannotOpen}};
    // Cut within and after every header field, down to no bytes at all.
    for (const std::size_t cut : {0, 4, 8, 12, 16, 18, 20, 24, 27})
        cases.push_back({"header cut", File(header.substr(0, cut)), kBadHeader});
    for (const GridKind& kind : kPlainKinds)
        RunGridCases(kind, ".bin", cases);
}

TEST(HostileInput, ConstructionLineData) {
    const std::string origin = "3 2\n1000 2000 1060 2030\n";
    RunGridCases(
        kConstructionLines, ".txt",
        {{"origin without its end", File("3 2\n1000 2000\n"), kBadHeader},
         {"no entry count", File(origin), kBadHeader},
         {"entries beyond the file", File(origin + "2000000000\n1 Wall\n"), Count(0, 3, 2)},
         // The spacing divides by nx - 1.
         {"most negative nx", File("-2147483648 1\n0 0 0 0\n0\n"), Count(0, -2147483648LL, 1)},
         // Twelve values but eleven identifiers: the last value has no identifier to pair.
         {"identifier missing",
          File(origin + "0\n1 1 2 2 3 3 4 4 5 5 6 6\n7 7 8 8 9 9 10 10 11 11 12\n"),
          Count(12, 3, 2)},
         {"picture", File(kPicture), kBadHeader},
         {"directory", kDirectory, kCannotOpen}});
    const std::string header = BinaryHeader(3, 2).str();
    RunGridCases(
        kConstructionLines, ".bin",
        {{"header cut", File(header.substr(0, 20)), kBadHeader},
         {"entries beyond the file", File(header + Bytes().Put(2147483647).str()), kBadHeader},
         {"negative ny", File(BinaryHeader(3, -2).str() + Bytes().Put(0).str()), Count(0, 3, -2)},
         // Two values per cell take 40000 × 40000 past 2^31; the file holds one pair.
         {"pairs beyond 2^31",
          File(BinaryHeader(40000, 40000).str() + Bytes().Put(0).Put(1.0f).Put(7).str()),
          Count(1, 40000, 40000)},
         {"missing", kMissing, kCannotOpen}});
}

// A reader of a side file named in the project.
struct SideReader {
    Slot slot;
    std::string opening; // its line on standard output
    std::string head;
    std::string file; // as its messages name it
    std::string failure;
    std::string line; // one sound line
    bool missingIsWarning = false;
};

const SideReader kSideReaders[] = {
    {Slot::kFault, "\n>>>>>>>>>>>>>>>>>> Fault Input:\n", "ERROR:FAULT OBJECT METHOD", "Fault File",
     Code("ERROR:Read Fault Parameter"), "35.0 139.5 5000 0 30 45 90 10000 5000 1.0 \"F1\"\n"},
    {Slot::kDynamic, "\n>>>>>>>>>>>>> Fault Dynamic Parameter Input:\n",
     "ERROR:DYNAMICPARAM OBJECT METHOD", "Dynamic Parameter File",
     Code("ERROR:Read Dyanmic Deformation Parameter File"), "1 0.0 30.0\n"},
    {Slot::kConstLine, "\n>>>>>>>>>>>>> ConstLine Parameter File Input:\n",
     "ERROR:CONSTLINEPARAM OBJECT METHOD", "ConstLine Parameter File",
     Code("ERROR:Read Construction Line Parameter File"), "1 0.0 0 Wall\n"},
    {Slot::kStations, "\n>>>>>>>>>>>>>>>>>> Station Input:\n", "ERROR:STATION OBJECT METHOD",
     "Station File", Code("ERROR:Read Station List File"), "1000 2000 ST01\n", true},
    {Slot::kExtractPoints, "\n>>>>>>>>>>>>>>>>>> Station Input:\n", "ERROR:STATION OBJECT METHOD",
     "Station File", Code("ERROR:Read Extract Point File"), "1030 2000 CP01\n", true}};

Expected BadFormat(const SideReader& r) {
    return {ErrorBlock(r.head, {kReading, "You should check the Format of " + r.file + "."}) +
                r.failure,
            r.opening};
}

// A list that cannot be opened is only a warning; every other side file is needed.
Expected CannotOpen(const SideReader& r) {
    if (r.missingIsWarning)
        return {" WARNING:Can not open file.\n"
                " WARNING:Particular attention should be given to \"Station File\".\n",
                kSuccess, 0};
    return {ErrorBlock(r.head, {kReading, "Can not open file.",
                                "Particular attention should be given to \"" + r.file + "\"."}) +
                r.failure,
            r.opening};
}

TEST(HostileInput, SideFiles) {
    for (const SideReader& r : kSideReaders) {
        const std::size_t blank = r.line.find(' ');
        const std::pair<const char*, Input> malformed[] = {
            {"line cut", File(r.line.substr(0, r.line.find(' ', blank + 1)))},
            {"sound line, then a cut one", File(r.line + "1 2")},
            {"blank line", File(r.line + "\n")},
            {"picture", File(kPicture)},
            // The first 1022 characters hold one field only.
            {"line longer than a piece",
             File(r.line.substr(0, blank) + std::string(1100, ' ') + r.line.substr(blank))}};
        for (const auto& [label, input] : malformed)
            ExpectRun(RunWith(r.slot, "side.txt", input), BadFormat(r), r.file + ": " + label);
        for (const Input& input : {File(""), File("# comments only\n")})
            ExpectRun(RunWith(r.slot, "side.txt", input), {"", kSuccess, 0}, r.file + ": empty");
        for (const Input& input : {kDirectory, kMissing})
            ExpectRun(RunWith(r.slot, "side.txt", input), CannotOpen(r), r.file + ": not a file");
    }
}

// A colour table the picture cannot be drawn with: the GeoTIFF writer's line on standard
// output, then the region's block.
Expected ColourTableFailure(const std::string& line) {
    return {ErrorBlock(kRegion, {"Abnormal action at Write GeoTIFF Method.",
                                 "Particular attention should be given to \"GeotiffSetting\"."}) +
                Code("ERROR:Make GeoTIFF"),
            "Error : GeoTiff::" + line + "\n"};
}

TEST(HostileInput, ColourTables) {
    const Expected drawn{"", kSuccess, 0};
    const Expected noClass = ColourTableFailure("convertRaster() -> color table size zero");
    const Expected unopened = ColourTableFailure("initialize() -> file open error");
    const std::pair<const char*, std::pair<Input, Expected>> cases[] = {
        {"empty", {File(""), noClass}},
        // Kept: a last line without a line end is not used.
        {"one line without its end", {File("0 0 0 255"), noClass}},
        {"257 classes",
         {File(Repeat("0 1 2 3\n", 257)), ColourTableFailure("initialize() -> 256 color over")}},
        {"256 classes", {File(Repeat("0 1 2 3\n", 256)), drawn}},
        // Malformed lines are classes all the same; a long line is read in pieces.
        {"picture", {File(kPicture), drawn}},
        {"line longer than a piece", {File("-5" + std::string(3000, ' ') + "1 2 3\n"), drawn}},
        {"directory", {kDirectory, unopened}},
        {"missing", {kMissing, unopened}}};
    for (const auto& [label, c] : cases)
        ExpectRun(RunWith(Slot::kColourTable, "table.clr", c.first), c.second, label);
}

TEST(HostileInput, UnreadableFiles) {
    if (geteuid() == 0)
        GTEST_SKIP() << "root reads files of mode 000";
    const Input unreadable{Input::kUnreadable, "3 2\n0 0\n1 2 3 4 5 6\n"};
    ExpectRun(RunWith(Slot::kProjectFile, "", unreadable),
              {"Miss Parse\n" + Code("ERROR:XML Parse"), "\n>>>>>>>>>>>>>>>>>> XML Input:\n"},
              "project file");
    ExpectRun(RunWith(Slot::kTopography, "topo.txt", unreadable),
              {RegionBlock(kCannotOpen, "topo.txt") + Code("ERROR:Read Topography"),
               "\n>>>>>>>>>>>>>>>>>> Region Input:topo.txt\n"},
              "topography");
    for (const SideReader& r : kSideReaders)
        ExpectRun(RunWith(r.slot, "side.txt", unreadable), CannotOpen(r), r.file);
    ExpectRun(RunWith(Slot::kColourTable, "table.clr", unreadable),
              ColourTableFailure("initialize() -> file open error"), "colour table");
}

} // namespace
