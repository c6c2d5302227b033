// Speed and memory of the region grid reader and writer on a large generated grid.
//
//   seaforge_bench [nx ny] [--repeat N] [--keep]
//
// Writes a bathymetry-like text grid (default 4000 × 4000 values with two decimals) into
// a fresh directory under $TMPDIR, times Region::ReadFile on it against merely reading its
// bytes and against a plain std::getline + strtod loop, writes its binary twin with
// Region::WriteBIN, times reading that back against merely reading its bytes and against
// filling fresh memory of the grid's size (what any reader pays for the grid itself), and
// prints the peak memory of each call and which goals are met. Every timing is the best
// of --repeat runs (default 3); a reader and the baselines it is judged against take
// turns, so that a busy spell of the machine does not fall on one of them only. The
// grid's console summaries go to /dev/null meanwhile.

#include "BenchSupport.hpp"
#include "project/FilePtr.hpp"
#include "region/GridValues.hpp"
#include "region/Region.hpp"
#include "region/TextGridReader.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

using bench::AppendFixed2;
using bench::Best;
using bench::BestTakingTurns;
using bench::PeakBytes;
using bench::Seconds;
using bench::Silence;

constexpr std::size_t kReadBufferBytes = std::size_t{1} << 20; // as the reader's own
constexpr int kValuesPerLine = 10;

// Results nobody reads, so that the baselines are not optimised away.
volatile double gSink = 0.0;


// Depth in hundredths of a metre: a shelf falling to an abyssal plain, with ridges and
// islands so that rows differ and a few values are above sea level.
long long Centimetres(int i, int j, int nx, int ny) {
    const double x = static_cast<double>(i) / nx;
    const double y = static_cast<double>(j) / ny;
    const double shelf = -6000.0 * (1.0 - std::exp(-4.0 * x));
    const double relief = 800.0 * std::sin(23.0 * x + 7.0 * y) * std::cos(17.0 * y - 3.0 * x);
    const double noise = static_cast<double>((i * 7919 + j * 104729) % 997) / 10.0;
    return std::llround((shelf + relief + noise) * 100.0);
}

bool WriteTextGrid(const std::string& path, int nx, int ny) {
    FilePtr file(std::fopen(path.c_str(), "w"));
    if (!file)
        return false;
    std::fprintf(file.get(), "%d %d\n139.000000 35.000000\n", nx, ny);
    // Lines of ten values, as grid files are wrapped to stay far below the reader's
    // 8190-character line pieces.
    std::vector<char> row(static_cast<std::size_t>(nx) * 24 + 2);
    for (int j = 0; j < ny; ++j) {
        char* out = row.data();
        for (int i = 0; i < nx; ++i) {
            out = AppendFixed2(out, Centimetres(i, j, nx, ny));
            *out++ = (i % kValuesPerLine == kValuesPerLine - 1 || i == nx - 1) ? '\n' : ' ';
        }
        std::fwrite(row.data(), 1, static_cast<std::size_t>(out - row.data()), file.get());
    }
    return std::fclose(file.release()) == 0;
}

// What the machine takes to hand over the file's bytes through the same size of buffer.
std::size_t ReadBytes(const std::string& path) {
    FilePtr file(std::fopen(path.c_str(), "rb"));
    std::vector<char> buffer(kReadBufferBytes);
    std::size_t total = 0;
    while (const std::size_t got = std::fread(buffer.data(), 1, buffer.size(), file.get())) {
        total += got;
        gSink = gSink + buffer[got - 1];
    }
    return total;
}

// The plain way: std::getline, then strtod along the line. Skips the two header lines.
std::size_t GetlineStrtod(const std::string& path, std::vector<double>* keep) {
    std::ifstream in(path);
    std::string line;
    std::size_t count = 0;
    double sum = 0.0;
    for (int header = 0; header < 2 && std::getline(in, line); ++header) {
    }
    while (std::getline(in, line)) {
        const char* p = line.c_str();
        for (;;) {
            char* end;
            const double value = std::strtod(p, &end);
            if (end == p)
                break;
            sum += value;
            ++count;
            if (keep)
                keep->push_back(value);
            p = end;
        }
    }
    gSink = gSink + sum;
    return count;
}

void PrintLine(const char* what, double seconds, double bytes, double values, long long peak) {
    std::printf("  %-34s %8.3f s %9.1f MB/s", what, seconds, bytes / seconds / 1e6);
    if (values > 0)
        std::printf(" %7.1f M values/s", values / seconds / 1e6);
    else
        std::printf("%19s", "");
    if (peak >= 0)
        std::printf("   peak %8.1f MB", static_cast<double>(peak) / 1e6);
    std::printf("\n");
}

} // namespace

int main(int argc, char** argv) {
    int nx = 4000;
    int ny = 4000;
    int repeat = 3;
    bool keepFiles = false;
    std::vector<int> sizes;
    for (int a = 1; a < argc; ++a) {
        if (std::strcmp(argv[a], "--keep") == 0)
            keepFiles = true;
        else if (std::strcmp(argv[a], "--repeat") == 0 && a + 1 < argc)
            repeat = std::max(1, std::atoi(argv[++a]));
        else
            sizes.push_back(std::atoi(argv[a]));
    }
    if (sizes.size() == 2 && sizes[0] > 0 && sizes[1] > 0) {
        nx = sizes[0];
        ny = sizes[1];
    }

    std::string dir = (std::filesystem::temp_directory_path() / "seaforge-bench-XXXXXX").string();
    if (mkdtemp(dir.data()) == nullptr) {
        std::fprintf(stderr, "cannot make a directory under %s\n",
                     std::filesystem::temp_directory_path().c_str());
        return 1;
    }
    const std::string textPath = dir + "/bench_grid.txt";
    std::printf("Generating a %d x %d text grid in %s ...\n", nx, ny, dir.c_str());
    if (!WriteTextGrid(textPath, nx, ny)) {
        std::fprintf(stderr, "cannot write %s\n", textPath.c_str());
        return 1;
    }
    const double values = static_cast<double>(nx) * ny;
    const double gridBytes = values * sizeof(double);
    const double textBytes = static_cast<double>(std::filesystem::file_size(textPath));

    XML_REGION rec;
    rec.RegionName = "BENCH";
    rec.GridSize = 0.1;
    rec.Topography.FileName = textPath;

    // Text grid: the reader and its two baselines take turns.
    std::size_t baselineCount = 0;
    int readOk = 1; // every ReadFile call, text and binary
    std::optional<Region> region;
    const auto readRegion = [&] {
        region.emplace(TPG_R, rec);
        Silence quiet;
        readOk &= region->ReadFile();
    };
    const auto dropRegion = [&] { region.reset(); };
    // The reader with each build of its scan, as ReadFile runs it (both cores).
    const auto readWith = [&](TextGridReader::Instructions instructions, bool bothCores) {
        FilePtr file(std::fopen(textPath.c_str(), "r"));
        TextGridReader reader(file.get(), TextGridReader::kDefaultBufferBytes, bothCores,
                              instructions);
        GridValues read;
        if (reader.SkipLine() && reader.SkipLine()) {
            read.Prepare(static_cast<std::size_t>(values), static_cast<std::size_t>(values), false);
            reader.ReadValues(read);
            read.Finish(reader.Helper());
        }
        readOk &= read.valueCount == static_cast<std::int64_t>(values);
    };
    const bool hasVector = TextGridReader::VectorBlocksAvailable();
    std::vector<bench::Timed> textJobs = {
        {[&] { (void)ReadBytes(textPath); }},
        {[&] { baselineCount = GetlineStrtod(textPath, nullptr); }},
        {readRegion, dropRegion},
        {[&] { readWith(TextGridReader::Instructions::kBest, false); }},
        {[&] { readWith(TextGridReader::Instructions::kPortable, true); }}};
    if (hasVector)
        textJobs.push_back({[&] { readWith(TextGridReader::Instructions::kVector, true); }});
    const std::vector<double> textTimes = BestTakingTurns(repeat, textJobs);
    const double rawText = textTimes[0];
    const double plain = textTimes[1];
    const double textRead = textTimes[2];
    const double oneCoreRead = textTimes[3];
    const double portableRead = textTimes[4];
    const double vectorRead = hasVector ? textTimes[5] : -1.0;
    std::vector<double> kept;
    const double plainKept = Best(
        repeat, [&] { (void)GetlineStrtod(textPath, &kept); },
        [&] { std::vector<double>().swap(kept); });
    Region text(TPG_R, rec);
    ReleaseSpareHugeBlock(); // or the grid would take the block of the last one
    long long textPeak = PeakBytes([&] {
        Silence quiet;
        readOk &= text.ReadFile();
    });

    // The reader's values must be strtod's, bit for bit.
    bool identical = readOk == 1 && baselineCount == static_cast<std::size_t>(values);
    if (identical) {
        std::vector<double> expected;
        expected.reserve(baselineCount);
        (void)GetlineStrtod(textPath, &expected);
        identical =
            expected.size() == text.grid.ValueCount() &&
            std::memcmp(expected.data(), text.grid.Data(), expected.size() * sizeof(double)) == 0;
    }

    // Binary twin.
    int writeOk = 1;
    const double write = Best(repeat, [&] {
        Silence quiet;
        writeOk &= text.WriteBIN(dir);
    });
    ReleaseSpareHugeBlock();
    const long long writePeak = PeakBytes([&] {
        Silence quiet;
        writeOk &= text.WriteBIN(dir);
    });
    const std::string binPath = text.outFileName;
    const double binBytes = static_cast<double>(std::filesystem::file_size(binPath));
    rec.Topography.FileName = binPath;
    // The least any reader pays for the grid itself: fresh grid storage, written once.
    GridVector<double> cells;
    const std::vector<double> binTimes = BestTakingTurns(
        repeat, {{[&] { (void)ReadBytes(binPath); }},
                 {[&] {
                      cells.resize(static_cast<std::size_t>(values));
                      std::fill(cells.begin(), cells.end(), 1.0);
                  },
                  [&] { GridVector<double>().swap(cells); }},
                 {readRegion, dropRegion}});
    const double rawBin = binTimes[0];
    const double freshGrid = binTimes[1];
    const double binRead = binTimes[2];
    Region twin(TPG_R, rec);
    ReleaseSpareHugeBlock();
    const long long binPeak = PeakBytes([&] {
        Silence quiet;
        readOk &= twin.ReadFile();
    });
    bool twinMatches = readOk == 1 && twin.grid.ValueCount() == text.grid.ValueCount();
    for (std::size_t k = 0; twinMatches && k < twin.grid.ValueCount(); ++k)
        twinMatches = twin.grid.Data()[k] == static_cast<float>(text.grid.Data()[k]);

    std::printf("\nRegion grid I/O, %d x %d values (grid storage %.1f MB), best of %d:\n", nx, ny,
                gridBytes / 1e6, repeat);
    std::printf(" text file %.1f MB\n", textBytes / 1e6);
    PrintLine("read bytes only (1 MiB buffer)", rawText, textBytes, 0, -1);
    PrintLine("std::getline + strtod loop", plain, textBytes, values, -1);
    PrintLine("  the same, keeping the values", plainKept, textBytes, values, -1);
    PrintLine("Region::ReadFile (text)", textRead, textBytes, values, textPeak);
    PrintLine("  its reader on one core", oneCoreRead, textBytes, values, -1);
    PrintLine("  its reader, portable scan", portableRead, textBytes, values, -1);
    if (hasVector)
        PrintLine("  its reader, AVX2 scan", vectorRead, textBytes, values, -1);
    std::printf(" binary file %.1f MB\n", binBytes / 1e6);
    PrintLine("Region::WriteBIN", write, binBytes, values, writePeak);
    PrintLine("read bytes only (1 MiB buffer)", rawBin, binBytes, 0, -1);
    PrintLine("fill fresh grid storage, no file", freshGrid, gridBytes, values, -1);
    PrintLine("Region::ReadFile (binary)", binRead, binBytes, values, binPeak);
    const TextGridReader::ScanChoice& choice = TextGridReader::BestScan();
    std::printf(" cores: %u; text scan chosen: %s", std::thread::hardware_concurrency(),
                choice.vector ? "AVX2" : "portable");
    if (choice.measured)
        std::printf(" (faster at start-up over a %.0f KB sample: AVX2 %.1f us, portable %.1f us; "
                    "choosing took %.2f ms)\n",
                    static_cast<double>(choice.sampleBytes) / 1e3, choice.vectorSeconds * 1e6,
                    choice.portableSeconds * 1e6, choice.choosingSeconds * 1e3);
    else
        std::printf(" (this processor has no AVX2)\n");
    if (hasVector) {
        const bool rightChoice = (choice.vector ? vectorRead : portableRead) <=
                                 std::min(vectorRead, portableRead) * 1.02;
        std::printf(" on this grid the %s scan was the faster (%.2fx the other)%s\n",
                    vectorRead <= portableRead ? "AVX2" : "portable",
                    std::max(vectorRead, portableRead) / std::min(vectorRead, portableRead),
                    rightChoice ? "" : ": the start-up choice missed it");
    }

    const double memoryLimit = 1.5 * gridBytes + static_cast<double>(kReadBufferBytes);
    const auto verdict = [](bool met) { return met ? "met" : "NOT met"; };
    std::printf("\nGoals:\n");
    std::printf("  text read >= 8x the getline + strtod loop : %4.1fx (%.1fx the loop keeping "
                "its values)   %s\n",
                plain / textRead, plainKept / textRead, verdict(plain / textRead >= 8.0));
    std::printf("  binary read <= 4x reading its bytes       : %4.1fx (%.1fx filling fresh grid "
                "storage)   %s\n",
                binRead / rawBin, binRead / freshGrid, verdict(binRead <= 4.0 * rawBin));
    if (textPeak >= 0 && binPeak >= 0) {
        std::printf("  peak memory <= 1.5 x grid + buffer        : text %.2fx, binary %.2fx "
                    "of the grid   %s\n",
                    static_cast<double>(textPeak) / gridBytes,
                    static_cast<double>(binPeak) / gridBytes,
                    verdict(textPeak <= memoryLimit && binPeak <= memoryLimit));
    } else {
        std::printf("  peak memory: not measurable here (/proc/self/clear_refs refused)\n");
    }
    std::printf("  values identical to strtod                : %s\n", identical ? "yes" : "NO");
    std::printf("  binary twin holds the values as floats    : %s\n", twinMatches ? "yes" : "NO");
    std::printf("  every call succeeded                      : %s\n",
                readOk && writeOk ? "yes" : "NO");

    if (keepFiles) {
        std::printf("\nFiles kept in %s\n", dir.c_str());
    } else {
        std::error_code ignored;
        std::filesystem::remove_all(dir, ignored);
    }
    return readOk && writeOk && identical && twinMatches ? 0 : 1;
}
