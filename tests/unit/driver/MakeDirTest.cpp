#include "driver/MakeDir.hpp"

#include "support/TempDir.hpp"

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace {

TEST(MakeDir, CreatesParentsAcceptsExistingAndTrailingSlashes) {
    TempDir dir;
    const mode_t mask = umask(0);
    umask(mask);
    EXPECT_TRUE(MakeDir((dir.path() / "a/b//c/").c_str()));
    EXPECT_TRUE(IsExistDir((dir.path() / "a/b/c").c_str()));
    struct stat info {};
    ASSERT_EQ(stat((dir.path() / "a").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0755u & ~mask);
    EXPECT_TRUE(MakeDir(dir.path().c_str()));
}

TEST(MakeDir, RefusesEmptyPathsAndPathsThroughFiles) {
    TempDir dir;
    const std::string file = dir.Write("file", "x");
    EXPECT_FALSE(MakeDir(""));
    EXPECT_FALSE(MakeDir(file.c_str()));
    EXPECT_FALSE(MakeDir((file + "/sub").c_str()));
    EXPECT_FALSE(IsExistDir(file.c_str()));
}

} // namespace
