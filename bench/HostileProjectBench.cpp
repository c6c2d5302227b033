// Prints the wall time and peak memory of the built Seaforge on each project file of the
// hardening tests whose text grows through entity expansion, and on the large honest ones;
// not a test. Each runs as a child process in a fresh directory beside the minimal
// end-to-end case's side files; the peak comes from wait4.
//
//   seaforge_hostile_bench [--repeat N]    (best time and worst peak of N runs)
//
// Goal: each hostile file ends with "Miss Parse" and status 1 in under 5 s and 512 MiB.
#include "BenchSupport.hpp"

#include "hardening/HostileProjects.hpp"
#include "project/BoundedMemoryManager.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

const fs::path kInput = fs::path(SEAFORGE_E2E_DIR) / "minimal_project" / "input";

std::string Slurp(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

struct Run {
    double seconds = 1e300;
    long long peakBytes = 0;
    int status = -1;
    std::string err;
    std::string outTail;
};

// Runs Seaforge on project.xml in `dir`, its streams in files there.
Run RunOnce(const fs::path& dir) {
    Run run;
    std::fflush(stdout); // or the child's freopen writes the parent's buffered lines again
    int wstatus = 0;
    rusage usage{};
    run.seconds = bench::Seconds([&] {
        const pid_t pid = fork();
        if (pid == 0) {
            if (chdir(dir.c_str()) != 0 || !std::freopen("run.stdout", "w", stdout) ||
                !std::freopen("run.stderr", "w", stderr))
                _exit(127);
            execl(SEAFORGE_BINARY, SEAFORGE_BINARY, "project.xml", static_cast<char*>(nullptr));
            _exit(127);
        }
        wait4(pid, &wstatus, 0, &usage);
    });
    run.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus);
    run.peakBytes = static_cast<long long>(usage.ru_maxrss) * 1024;
    run.err = Slurp(dir / "run.stderr");
    const std::string out = Slurp(dir / "run.stdout");
    run.outTail = out.substr(out.size() - std::min<std::size_t>(out.size(), 42));
    return run;
}

// Best time and worst peak of `repeat` runs of `xml`, each in a fresh directory.
Run Measure(const std::string& xml, int repeat) {
    Run best;
    for (int r = 0; r < repeat; ++r) {
        std::string pattern = (fs::temp_directory_path() / "seaforge-hostile-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            std::fprintf(stderr, "cannot make a directory under %s\n",
                         fs::temp_directory_path().c_str());
            std::exit(1);
        }
        const fs::path dir = pattern;
        for (const char* side : {"fault.txt", "r1.txt"})
            fs::copy_file(kInput / side, dir / side);
        std::ofstream(dir / "project.xml", std::ios::binary) << xml;
        const Run run = RunOnce(dir);
        fs::remove_all(dir);
        const long long worstPeak = std::max(best.peakBytes, run.peakBytes);
        if (run.seconds < best.seconds)
            best = run;
        best.peakBytes = worstPeak;
    }
    return best;
}

void PrintRow(const ProjectGrowth& growth, const std::string& xml, const Run& run,
              const char* verdict) {
    const double held = static_cast<double>(BoundedMemoryManager::ForDocument(xml.size()).held);
    const double size = static_cast<double>(xml.size());
    std::printf("  %-66s %9.*f %s %7.2f s %8.1f MiB %9.0f MiB   %s\n", growth.label,
                size < 1e6 ? 1 : 2, size < 1e6 ? size / 1e3 : size / 1e6, size < 1e6 ? "KB" : "MB",
                run.seconds, static_cast<double>(run.peakBytes) / 1048576.0, held / 1048576.0,
                verdict);
}

} // namespace

int main(int argc, char** argv) {
    int repeat = 1;
    for (int a = 1; a < argc; ++a)
        if (std::strcmp(argv[a], "--repeat") == 0 && a + 1 < argc)
            repeat = std::max(1, std::atoi(argv[++a]));

    const std::string base = Slurp(kInput / "project.xml");
    constexpr double kGoalSeconds = 5.0;
    constexpr long long kGoalBytes = 512LL << 20;
    std::printf("Seaforge on project files grown from the minimal case (best time, worst peak of "
                "%d):\n  %-66s %12s %9s %12s %13s\n",
                repeat, "", "file", "time", "peak", "held bound");
    bool allMet = true;
    for (const ProjectGrowth& growth : ExpandingProjects()) {
        const std::string xml = Grown(base, growth);
        const Run run = Measure(xml, repeat);
        const bool refused = run.status == 1 && run.err.rfind("Miss Parse\n", 0) == 0;
        const bool met = refused && run.seconds < kGoalSeconds && run.peakBytes < kGoalBytes;
        allMet = allMet && met;
        PrintRow(growth, xml, run, !refused ? "NOT REFUSED" : met ? "refused" : "refused, slow");
    }
    for (const ProjectGrowth& growth : HonestLargeProjects()) {
        const std::string xml = Grown(base, growth);
        const Run run = Measure(xml, repeat);
        const bool ran =
            run.status == 0 && run.outTail.find("Successful Completion.") != std::string::npos;
        allMet = allMet && ran;
        PrintRow(growth, xml, run, ran ? "ran" : "FAILED");
    }
    std::printf("Goal: every hostile file refused in under %.0f s and %lld MiB, every honest "
                "one run: %s\n",
                kGoalSeconds, kGoalBytes >> 20, allMet ? "met" : "NOT met");
    return 0;
}
