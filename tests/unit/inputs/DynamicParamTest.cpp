#include "inputs/DynamicParam.hpp"

#include "region/RegionTestSupport.hpp"
#include "support/TempDir.hpp"

#include <valarray>
#include <vector>

namespace {

const std::string kReadFrame = "\n>>>>>>>>>>>>> Fault Dynamic Parameter Input:\n";
const std::string kClass = "ERROR:DYNAMICPARAM OBJECT METHOD";
const std::string kReading = "Abnormal action at Reading File Method.";
const std::string kCompleted = "<<<<<<<<<<<<<<<<<< Completed.\n";

std::string Read(DynamicParam& p, const std::string& path, double endTime) {
    p = DynamicParam(XML_DYNAMIC{path});
    return Outcome([&] { return p.ReadFile(endTime); });
}

TEST(DynamicParamReadFile, StagesBeforeTheEndTimeAreInUseAndPrinted) {
    TempDir dir;
    const std::string path = dir.Write("s.txt", "# order valid rise\n1 0.0 30\n"
                                                "2\t-5.5\t10 extra\n3 10 1234567\n4 20 0");
    const std::string firstTwo = "order       :1\n valid time :0\n rise  time :30\n"
                                 "order       :2\n valid time :-5.5\n rise  time :10\n";
    DynamicParam p;
    // At or before 0 always in use; the end time itself is outside.
    EXPECT_EQ(Read(p, path, 0.0), "1|" + kReadFrame + firstTwo + kCompleted + "|");
    ASSERT_EQ(p.params.size(), 4u); // stages out of use stay in the list
    EXPECT_EQ(p.params[2].riseTime, 1234567.0);
    EXPECT_EQ(Read(p, path, 20.0),
              "1|" + kReadFrame + firstTwo +
                  "order       :3\n valid time :10\n rise  time :1.23457e+06\n" + kCompleted + "|");
    EXPECT_FALSE(p.params[3].inUse);
    // Orders keep their low 32 bits after strtol saturates.
    Read(p, dir.Write("s.txt", "4294967297 1 2\n99999999999999999999 1 2\n-7x 1e1 .5\n"), 0.0);
    ASSERT_EQ(p.params.size(), 3u);
    EXPECT_EQ((std::vector{p.params[0].order, p.params[1].order, p.params[2].order}),
              (std::vector{1, -1, -7}));
    EXPECT_EQ(p.params[2].validTime + p.params[2].riseTime, 10.5);
}

TEST(DynamicParamReadFile, FailuresListNothingButKeepEarlierStages) {
    TempDir dir;
    DynamicParam p;
    for (const char* text : {"1 0 0\n2 5\n3 0 0\n", "1 0 0\n\n3 0 0\n"}) {
        EXPECT_EQ(Read(p, dir.Write("s.txt", text), 0.0),
                  "0|" + kReadFrame + "|" +
                      ErrorBlock(kClass, {kReading, "You should check the Format of Dynamic "
                                                    "Parameter File."}));
        EXPECT_EQ(p.params.size(), 1u);
    }
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
        p.params.push_back(DYNAMIC_PARAM{0, row.start, row.rise, true});
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
    p.params.assign(3, DYNAMIC_PARAM{0, 0.0, 0.0, true});
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
