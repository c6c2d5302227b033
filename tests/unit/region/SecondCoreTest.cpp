#include "region/SecondCore.hpp"

#include <gtest/gtest.h>

#include <atomic>

namespace {

// A job is run by the helper exactly once, or taken back and never run; either way the
// helper takes the next job as usual. Which of the two happens depends on the scheduler,
// so many rounds meet both.
TEST(SecondCore, AJobRunsOnceOrIsTakenBackAndNeverRuns) {
    const auto second = SecondCore::StartIfUseful();
    if (!second)
        GTEST_SKIP() << "one core: callers do both halves themselves";
    for (int round = 0; round < 2000; ++round) {
        std::atomic<int> runs = 0;
        std::atomic<int> nextRuns = 0;
        second->Start([&] { ++runs; });
        const bool takenBack = second->TakeBack();
        if (!takenBack)
            second->Wait();
        second->Start([&] { ++nextRuns; });
        second->Wait();
        ASSERT_EQ(runs.load(), takenBack ? 0 : 1) << "round " << round;
        ASSERT_EQ(nextRuns.load(), 1) << "round " << round;
    }
}

} // namespace
