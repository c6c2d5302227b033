#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

// What every reader target needs: the readers take file names, so each input is written
// to a file first, and their console output is thrown away so that printing does not set
// the pace of a campaign.
namespace fuzzsupport {

// Sends the readers' console output to /dev/null, once per process. Standard output goes
// at the descriptor. Standard error cannot: libFuzzer and the sanitizers report crashes,
// hangs and memory limits on descriptor 2, so only the C stream the readers print their
// error blocks through is pointed elsewhere (glibc lets a program reassign it).
inline void QuietConsole() {
    static const bool done = [] {
        const int null = open("/dev/null", O_WRONLY);
        if (null < 0)
            std::abort();
        std::fflush(stdout);
        dup2(null, STDOUT_FILENO);
        close(null);
        std::FILE* quiet = std::fopen("/dev/null", "w");
        if (quiet == nullptr)
            std::abort();
        stderr = quiet;
        return true;
    }();
    (void)done;
}

// A directory of this process's own, so parallel jobs never share an input file; removed
// when the process ends normally.
inline const std::filesystem::path& WorkDir() {
    // Never destroyed, so the exit handler that removes it can still name it.
    static const std::filesystem::path* const dir = [] {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "seaforge-fuzz-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr)
            std::abort();
        std::atexit([] {
            std::error_code ignored;
            std::filesystem::remove_all(WorkDir(), ignored);
        });
        return new std::filesystem::path(pattern);
    }();
    return *dir;
}

// Writes the input as `name` in the work directory and answers its path.
inline std::string WriteInput(const char* name, const std::uint8_t* data, std::size_t size) {
    const std::string path = (WorkDir() / name).string();
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr)
        std::abort();
    if (size > 0 && std::fwrite(data, 1, size, file) != size)
        std::abort();
    if (std::fclose(file) != 0)
        std::abort();
    return path;
}

} // namespace fuzzsupport
