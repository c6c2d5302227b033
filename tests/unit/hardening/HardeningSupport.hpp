#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

// A file in a fresh directory of its own, removed with it when the case ends.
class HardeningFile {
  public:
    HardeningFile(const std::string& name, const std::string& content) {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "seaforge-hardening-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr)
            throw std::runtime_error("mkdtemp failed");
        dir_ = pattern;
        path_ = (dir_ / name).string();
        std::ofstream(path_, std::ios::binary) << content;
    }
    ~HardeningFile() {
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }
    HardeningFile(const HardeningFile&) = delete;
    HardeningFile& operator=(const HardeningFile&) = delete;

    const std::string& path() const { return path_; }

  private:
    std::filesystem::path dir_;
    std::string path_;
};

// What one call printed on standard error, and its result.
struct HardeningResult {
    int result;
    std::string err;
};

template <class Call> HardeningResult RunQuietly(Call&& call) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int result = static_cast<int>(call());
    (void)testing::internal::GetCapturedStdout();
    return {result, testing::internal::GetCapturedStderr()};
}
