#include "prep/Progress.hpp"

#include <gtest/gtest.h>

TEST(PrepProgress, GdalsTerminalLineOnStandardErrorOnce) {
    TermProgress state;
    testing::internal::CaptureStderr();
    for (double done : {0.0, 0.05, 0.05, 0.31, 0.999, 1.0, 1.0})
        StderrProgress(done, "", &state);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "0...10...20...30...40...50...60...70...80...90...100 - done.\n");
}
