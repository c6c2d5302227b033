#pragma once

// Timing, memory and console helpers shared by the benchmark programs.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

namespace bench {

// "-1234.56" without printf, so that generating millions of grid values takes a moment only.
inline char* AppendFixed2(char* out, long long centimetres) {
    if (centimetres < 0) {
        *out++ = '-';
        centimetres = -centimetres;
    }
    char digits[24];
    int n = 0;
    long long whole = centimetres / 100;
    do {
        digits[n++] = static_cast<char>('0' + whole % 10);
        whole /= 10;
    } while (whole > 0);
    while (n > 0)
        *out++ = digits[--n];
    *out++ = '.';
    *out++ = static_cast<char>('0' + centimetres / 10 % 10);
    *out++ = static_cast<char>('0' + centimetres % 10);
    return out;
}

inline double Seconds(const std::function<void()>& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The shortest of `repeat` runs of `work`; `after` runs untimed after each, so that
// freeing what a run made is not counted against it.
inline double Best(
    int repeat, const std::function<void()>& work, const std::function<void()>& after = [] {}) {
    double best = 1e300;
    for (int r = 0; r < repeat; ++r) {
        best = std::min(best, Seconds(work));
        after();
    }
    return best;
}

// A piece of work to time, and what to run untimed after each run of it.
struct Timed {
    std::function<void()> work;
    std::function<void()> after = [] {};
};

// The shortest of `repeat` runs of each job, the jobs taking turns (A B C A B C ...), so
// that a quiet or busy spell of a shared machine falls on all of them alike and their
// ratios hold from one run of the program to the next.
inline std::vector<double> BestTakingTurns(int repeat, const std::vector<Timed>& jobs) {
    std::vector<double> best(jobs.size(), 1e300);
    for (int r = 0; r < repeat; ++r) {
        for (std::size_t j = 0; j < jobs.size(); ++j) {
            best[j] = std::min(best[j], Seconds(jobs[j].work));
            jobs[j].after();
        }
    }
    return best;
}

// Reads a "VmRSS:" style line of /proc/self/status, in bytes.
inline long long StatusBytes(const char* key) {
    std::ifstream status("/proc/self/status");
    std::string line;
    const std::size_t keyLength = std::strlen(key);
    while (std::getline(status, line))
        if (line.compare(0, keyLength, key) == 0)
            return std::atoll(line.c_str() + keyLength) * 1024;
    return -1;
}

// Peak resident memory above the starting level while `work` runs. Resets the kernel's
// high-water mark first; answers -1 where that is not allowed.
inline long long PeakBytes(const std::function<void()>& work) {
    {
        std::ofstream clear("/proc/self/clear_refs");
        clear << "5";
        if (!clear)
            return -1;
    }
    const long long before = StatusBytes("VmRSS:");
    work();
    const long long peak = StatusBytes("VmHWM:");
    return before < 0 || peak < 0 ? -1 : peak - before;
}

// Console summaries go to /dev/null while this lives.
class Silence {
  public:
    Silence() {
        std::fflush(stdout);
        saved_ = dup(1);
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        close(null);
    }
    ~Silence() {
        std::fflush(stdout);
        dup2(saved_, 1);
        close(saved_);
    }
    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;

  private:
    int saved_;
};

// One run of another program, as a child process.
struct Child {
    double seconds = 1e300;
    long long peakBytes = 0;
    int status = -1;
};

// Runs `args` (a program found on the PATH or by its path, and its arguments) in `dir`
// (empty: here) with its output discarded; wall time, and peak resident memory from wait4.
inline Child RunChild(const std::vector<std::string>& args, const std::string& dir = "") {
    Child child;
    std::fflush(stdout); // or the child's freopen writes the parent's buffered lines again
    child.seconds = Seconds([&] {
        const pid_t pid = fork();
        if (pid == 0) {
            if ((!dir.empty() && chdir(dir.c_str()) != 0) ||
                !std::freopen("/dev/null", "w", stdout) || !std::freopen("/dev/null", "w", stderr))
                _exit(127);
            std::vector<char*> argv;
            for (const std::string& a : args)
                argv.push_back(const_cast<char*>(a.c_str()));
            argv.push_back(nullptr);
            execvp(argv[0], argv.data());
            _exit(127);
        }
        int wstatus = 0;
        rusage usage{};
        wait4(pid, &wstatus, 0, &usage);
        child.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128;
        child.peakBytes = static_cast<long long>(usage.ru_maxrss) * 1024;
    });
    return child;
}

// The options the seaforge-prep benchmarks share: --repeat N, --keep (the temporary
// directory stays), --cells N (at least `minCells`); each starts from its own defaults.
struct PrepBenchArgs {
    int repeat;
    bool keep;
    int cells;
};
inline PrepBenchArgs ParsePrepBenchArgs(int argc, char** argv, PrepBenchArgs args, int minCells) {
    for (int a = 1; a < argc; ++a) {
        const std::string arg = argv[a];
        if (arg == "--repeat" && a + 1 < argc)
            args.repeat = std::max(1, std::atoi(argv[++a]));
        else if (arg == "--keep")
            args.keep = true;
        else if (arg == "--cells" && a + 1 < argc)
            args.cells = std::max(minCells, std::atoi(argv[++a]));
    }
    return args;
}

} // namespace bench
