#include "inputs/DynamicParam.hpp"

#include "region/RegionTestSupport.hpp"
#include "support/TempDir.hpp"

#include <gtest/gtest.h>

#include <string>
#include <valarray>
#include <vector>

namespace {

const std::string kReadFrame = "\n>>>>>>>>>>>>> Fault Dynamic Parameter Input:\n";
const std::string kCompleted = "<<<<<<<<<<<<<<<<<< Completed.\n";
const std::string kFirstTwo = "order       :1\n valid time :0\n rise  time :30\n"
                              "order       :2\n valid time :-5.5\n rise  time :10\n";

std::string Block(const std::string& cause) {
    return kRule + "ERROR:DYNAMICPARAM OBJECT METHOD\n" +
           "  ERROR-DETAIL:Abnormal action at Reading File Method.\n" + cause + kRule;
}
const std::string kFormatBlock =
    Block("  ERROR-DETAIL:You should check the Format of Dynamic Parameter File.\n");

Printed Read(DynamicParam& p, const TempDir& dir, const std::string& text, double endTime) {
    p = DynamicParam(XML_DYNAMIC{dir.Write("stages.txt", text)});
    return Capture([&] { return p.ReadFile(endTime); });
}

DYNAMIC_PARAM Stage(double validTime, double riseTime) {
    DYNAMIC_PARAM stage;
    stage.validTime = validTime;
    stage.riseTime = riseTime;
    return stage;
}

TEST(DynamicParamReadFile, StagesInUseArePrinted) {
    const char* const stages = "# order valid rise\n"
                               "1 0.0 30\n"
                               "2\t-5.5\t10 extra\n"
                               "3 10 1234567\n"
                               "4 20 0";
    TempDir dir;
    DynamicParam p;
    p.lastTime = 99.0;
    // At an end time of 0 only stages starting at or before 0 are in use.
    Printed printed = Read(p, dir, stages, 0.0);
    EXPECT_EQ(printed.result, 1);
    EXPECT_EQ(printed.out, kReadFrame + kFirstTwo + kCompleted);
    EXPECT_EQ(printed.err, "");
    EXPECT_TRUE(p.hasFile);
    EXPECT_EQ(p.lastTime, 0.0);
    ASSERT_EQ(p.params.size(), 4u); // stages out of use stay in the list
    EXPECT_EQ(p.params[2].order, 3);
    EXPECT_EQ(p.params[2].riseTime, 1234567.0);
    EXPECT_FALSE(p.params[2].inUse);
    // The end time itself is outside.
    printed = Read(p, dir, stages, 20.0);
    EXPECT_EQ(printed.out, kReadFrame + kFirstTwo +
                               "order       :3\n valid time :10\n rise  time :1.23457e+06\n" +
                               kCompleted);
    EXPECT_FALSE(p.params[3].inUse);

    EXPECT_EQ(Read(p, dir, "# only\n#1 0 0\n", 0.0).out, kReadFrame + kCompleted);
    EXPECT_TRUE(p.params.empty());
}

TEST(DynamicParamReadFile, Conversions) {
    TempDir dir;
    DynamicParam p;
    ASSERT_EQ(Read(p, dir, "4294967297 1 2\n99999999999999999999 1 2\n-7x 1e1 .5\n", 0.0).result,
              1);
    ASSERT_EQ(p.params.size(), 3u);
    EXPECT_EQ(p.params[0].order, 1);  // low 32 bits
    EXPECT_EQ(p.params[1].order, -1); // saturated at the long range, then cut to 32 bits
    EXPECT_EQ(p.params[2].order, -7);
    EXPECT_EQ(p.params[2].validTime, 10.0);
    EXPECT_EQ(p.params[2].riseTime, 0.5);
}

TEST(DynamicParamReadFile, FormatErrorsKeepEarlierStages) {
    TempDir dir;
    DynamicParam p;
    const std::string first = "1 0 0";
    const std::string texts[] = {
        "1 0 0\n2 5\n3 0 0\n", "1 0 0\n\n3 0 0\n",
        // The rest of a line longer than 1022 characters is a line of its own ...
        first + std::string(1022 - first.size(), ' ') + "2 3\n",
        // ... and, kept, a line of exactly 1022 leaves its newline as a blank line.
        first + std::string(1022 - first.size(), ' ') + "\n2 0 0\n"};
    for (const std::string& text : texts) {
        const Printed printed = Read(p, dir, text, 0.0);
        EXPECT_EQ(printed.result, 0);
        EXPECT_EQ(printed.out, kReadFrame); // nothing listed once a line fails
        EXPECT_EQ(printed.err, kFormatBlock);
        ASSERT_EQ(p.params.size(), 1u);
        EXPECT_EQ(p.params[0].order, 1);
    }
    EXPECT_EQ(Read(p, dir, first + std::string(1021 - first.size(), ' ') + "\n2 0 0\n", 0.0).result,
              1);
    EXPECT_EQ(p.params.size(), 2u);
}

TEST(DynamicParamReadFile, FileThatCannotBeRead) {
    TempDir dir;
    // Absent, or a directory, which opens but cannot be read.
    for (const std::string& path : {dir.path().string() + "/absent.txt", dir.path().string()}) {
        DynamicParam p(XML_DYNAMIC{path});
        const Printed printed = Capture([&] { return p.ReadFile(0.0); });
        EXPECT_EQ(printed.result, 0);
        EXPECT_EQ(printed.out, kReadFrame);
        EXPECT_EQ(
            printed.err,
            Block(
                "  ERROR-DETAIL:Can not open file.\n"
                "  ERROR-DETAIL:Particular attention should be given to \"Dynamic Parameter File\".\n"));
    }
}

TEST(DynamicParam, SetZeroAppendsAndCopiesAreIndependent) {
    DynamicParam p;
    EXPECT_FALSE(p.hasFile);
    p.params.push_back(Stage(5.0, 1.0));
    const Printed printed = Capture([&] { return p.SetZero(); });
    EXPECT_EQ(printed.result, 1);
    EXPECT_EQ(printed.out, "\n>>>>>>>>>>>>> Fault Dynamic Parameter Set Zero:\n");
    ASSERT_EQ(p.params.size(), 2u); // not cleared first
    EXPECT_EQ(p.params[1].order, 0);
    EXPECT_EQ(p.params[1].validTime, 0.0);
    EXPECT_EQ(p.params[1].riseTime, 0.0);
    EXPECT_TRUE(p.params[1].inUse);

    const DynamicParam copy(p);
    p.params[0].validTime = 9.0;
    p.FreeVecMem();
    EXPECT_TRUE(p.params.empty());
    ASSERT_EQ(copy.params.size(), 2u);
    EXPECT_EQ(copy.params[0].validTime, 5.0);
}

TEST(DynamicParamCalcDynamicAct, StageWeights) {
    struct Row {
        double start, rise, time, dt;
        float weight;
    };
    const Row rows[] = {
        {0, 0, 50, 5, 1.0f},   // instantaneous at 0: always whole
        {10, 20, 15, 5, 1.0f}, // step inside the rise
        {10, 20, 8, 4, 0.5f},  // step over the start
        {10, 20, 28, 4, 0.5f}, // step over the end
        {10, 20, 5, 5, 0.0f},  // step ends exactly at the start
        {10, 20, 30, 5, 0.0f}, // at the end
        {10, 0, 8, 4, 1.0f},   // instantaneous inside the step: no overlap, whole
        {10, 0, 10, 5, 0.0f},  // instantaneous at the step's start: already over
        {10, -5, 0, 20, 0.0f}, // negative overlap
    };
    for (const Row& row : rows) {
        DynamicParam p;
        p.params.push_back(Stage(row.start, row.rise));
        std::valarray<float> source{2.0f, -4.0f};
        std::vector<InstantVal2d> targets(1); // sized like the source on first use
        ASSERT_TRUE(p.CalcDynamicAct(0, 0, row.time, row.dt, source, targets));
        EXPECT_EQ(targets[0].count, 2);
        EXPECT_EQ(targets[0].values, (std::vector<float>{row.weight * 2.0f, row.weight * -4.0f}))
            << row.start << " " << row.rise << " " << row.time;
        EXPECT_EQ(p.lastTime, row.time + row.dt);
    }
}

TEST(DynamicParamCalcDynamicAct, AccumulatesIntoWhatTheSlicesHold) {
    DynamicParam p;
    p.params.assign(3, Stage(0.0, 0.0));
    p.lastTime = 100.0;
    std::valarray<float> source{1.0f, 2.0f, 3.0f};
    std::vector<InstantVal2d> targets(2); // the third stage has none: skipped
    targets[0] = {3, {10.0f, 20.0f, 30.0f}};
    targets[1] = {1, {5.0f}}; // shorter than the source: only its own cell
    ASSERT_TRUE(p.CalcDynamicAct(1, 2, 0.0, 1.0, source, targets));
    EXPECT_EQ(targets[0].values, (std::vector<float>{11.0f, 22.0f, 33.0f}));
    EXPECT_EQ(targets[1].values, (std::vector<float>{6.0f}));
    EXPECT_EQ(p.lastTime, 100.0); // only ever advanced
}

} // namespace
