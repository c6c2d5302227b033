#include "driver/ErrorCodes.hpp"

#include <gtest/gtest.h>

namespace {

const std::string kRule = "_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/\n";

std::string BlockOf(int code) {
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    PrintCodeBlock(code);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    return testing::internal::GetCapturedStderr();
}

TEST(PrintCodeBlock, MessageBetweenRuleLines) {
    EXPECT_EQ(BlockOf(1), kRule + "ERROR:XML Parse\n" + kRule);
    EXPECT_EQ(BlockOf(6), kRule + "ERROR:Write Calculate Prameter TEXT File\n" + kRule);
    EXPECT_EQ(BlockOf(18), kRule + "ERROR:Read Dyanmic Deformation Parameter File\n" + kRule);
    EXPECT_EQ(BlockOf(19), kRule + "ERROR:Read Construction Line Parameter File\n" + kRule);
    EXPECT_EQ(BlockOf(21), kRule + "ERROR:Read Land Map File\n" + kRule);
    EXPECT_EQ(BlockOf(23), kRule + "ERROR:Read Construction Line Data File\n" + kRule);
}

TEST(PrintCodeBlock, CodesWithoutMessageGiveTwoRuleLines) {
    for (int code : {20, 0, 24, -1, -2147483647 - 1})
        EXPECT_EQ(BlockOf(code), kRule + kRule) << "code " << code;
}

TEST(CodeMessage, EveryDefinedCodeButTwentyHasOne) {
    for (int code = 1; code <= 23; ++code) {
        if (code == 20)
            EXPECT_EQ(CodeMessage(code), "");
        else
            EXPECT_EQ(CodeMessage(code).rfind("ERROR:", 0), 0u) << "code " << code;
    }
    EXPECT_EQ(CodeMessage(11), "ERROR:Comprisable:NG");
    EXPECT_EQ(CodeMessage(22), "ERROR:Calc Hydraulic Filter");
}

} // namespace
