#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

// What one run of the built program printed on each stream, and its exit status.
struct SeaforgeRun {
    std::string out;
    std::string err;
    int status = -1;
};

// Runs the built program `binary` in `workDir` with `args`, the streams going to files
// there so that a long output cannot stall the run.
inline SeaforgeRun RunProgram(const char* binary, const std::filesystem::path& workDir,
                              const std::vector<std::string>& args) {
    const std::filesystem::path outFile = workDir / ".run-stdout";
    const std::filesystem::path errFile = workDir / ".run-stderr";
    const pid_t pid = fork();
    if (pid < 0)
        throw std::runtime_error("fork failed");
    if (pid == 0) {
        if (chdir(workDir.c_str()) != 0 ||
            freopen(outFile.c_str(), "wb", stdout) == nullptr ||
            freopen(errFile.c_str(), "wb", stderr) == nullptr)
            _exit(127);
        std::vector<char*> argv{const_cast<char*>(binary)};
        for (const std::string& arg : args)
            argv.push_back(const_cast<char*>(arg.c_str()));
        argv.push_back(nullptr);
        execv(binary, argv.data());
        _exit(127);
    }
    int wstatus = 0;
    if (waitpid(pid, &wstatus, 0) != pid)
        throw std::runtime_error("waitpid failed");
    const auto slurp = [](const std::filesystem::path& path) {
        std::ifstream in(path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    };
    SeaforgeRun run{slurp(outFile), slurp(errFile),
                    WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus)};
    std::filesystem::remove(outFile);
    std::filesystem::remove(errFile);
    return run;
}

// Runs the built Seaforge in `workDir` with `args` (the project file, normally).
inline SeaforgeRun RunSeaforge(const std::filesystem::path& workDir,
                               const std::vector<std::string>& args = {"project.xml"}) {
    return RunProgram(SEAFORGE_BINARY, workDir, args);
}
