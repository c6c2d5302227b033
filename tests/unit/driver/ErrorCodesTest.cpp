#include "driver/ErrorCodes.hpp"

#include "region/RegionTestSupport.hpp"

namespace {

TEST(PrintCodeBlock, MessageBetweenRuleLinesOnStderr) {
    const std::pair<int, std::string> rows[] = {
        {1, "ERROR:XML Parse\n"},
        {6, "ERROR:Write Calculate Prameter TEXT File\n"}, // kept spellings
        {18, "ERROR:Read Dyanmic Deformation Parameter File\n"},
        {23, "ERROR:Read Construction Line Data File\n"},
        {20, ""}, // no message: two rule lines
        {0, ""},
        {24, ""},
        {-2147483647 - 1, ""},
    };
    for (const auto& [code, message] : rows) {
        const Printed p = Capture([&] { return PrintCodeBlock(code), 0; });
        EXPECT_EQ(p.out, "") << code;
        EXPECT_EQ(p.err, kRule + message + kRule) << code;
    }
    for (int code = 1; code <= 23; ++code)
        EXPECT_EQ(CodeMessage(code).rfind("ERROR:", 0), code == 20 ? std::string::npos : 0u)
            << code;
}

} // namespace
