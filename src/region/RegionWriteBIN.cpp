#include "region/Region.hpp"

#include "project/Console.hpp"
#include "project/FilePtr.hpp"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

// The calculators read these files in host order on the same little-endian machines.
static_assert(std::endian::native == std::endian::little);
static_assert(sizeof(float) == 4 && sizeof(double) == 8);

namespace {

// Collects fixed-width values and hands them to the stream in large blocks, so a grid of
// millions of cells costs a few hundred writes and no copy of the grid.
class BlockWriter {
  public:
    explicit BlockWriter(std::FILE* file) : file_(file) {}
    BlockWriter(const BlockWriter&) = delete;
    BlockWriter& operator=(const BlockWriter&) = delete;

    template <class T> void Put(T value) {
        if (used_ + sizeof(T) > kBlockBytes)
            Flush();
        std::memcpy(block_.get() + used_, &value, sizeof(T));
        used_ += sizeof(T);
    }

    // Puts valueAt(0) .. valueAt(count - 1), each an Out.
    template <class Out, class ValueAt> void PutEach(std::size_t count, const ValueAt& valueAt) {
        static_assert(kBlockBytes % sizeof(Out) == 0);
        for (std::size_t first = 0; first < count;) {
            if (used_ == kBlockBytes)
                Flush();
            const std::size_t n = std::min((kBlockBytes - used_) / sizeof(Out), count - first);
            Out converted[kChunk];
            for (std::size_t done = 0; done < n; done += kChunk) {
                const std::size_t m = std::min(kChunk, n - done);
                for (std::size_t k = 0; k < m; ++k)
                    converted[k] = valueAt(first + done + k);
                std::memcpy(block_.get() + used_, converted, m * sizeof(Out));
                used_ += m * sizeof(Out);
            }
            first += n;
        }
    }

    // Puts `count` values narrowed to Out, or `count` zeros when `values` is null.
    template <class Out, class In> void PutAll(const In* values, std::size_t count) {
        PutEach<Out>(count, [values](std::size_t k) {
            return values ? static_cast<Out>(values[k]) : Out{};
        });
    }

    // Puts `count` codes as the floats of the values they stand for.
    void PutCodes(const std::uint8_t* codes, std::size_t count, const std::vector<double>& table) {
        float narrowed[256] = {};
        for (std::size_t k = 0; k < table.size() && k < 256; ++k)
            narrowed[k] = static_cast<float>(table[k]);
        PutEach<float>(count, [&](std::size_t k) { return narrowed[codes[k]]; });
    }

    // Hands the collected block to the stream. A short write is remembered rather than
    // reported at once: the rest of the grid is skipped and the caller decides.
    void Flush() {
        if (used_ > 0 && !failed_ && std::fwrite(block_.get(), 1, used_, file_) != used_)
            failed_ = true;
        used_ = 0;
    }

    // Whether every byte put so far reached the stream.
    [[nodiscard]] bool Failed() const { return failed_; }

  private:
    static constexpr std::size_t kBlockBytes = std::size_t{1} << 18;
    static constexpr std::size_t kChunk = 256;

    std::FILE* file_;
    std::unique_ptr<unsigned char[]> block_ = std::make_unique<unsigned char[]>(kBlockBytes);
    std::size_t used_ = 0;
    bool failed_ = false;
};

// Cells in file order. A grid that does not hold nx × ny cells (freed, or never filled)
// is written as zeros, so the file always has the size its header announces.
template <class Out, class Grid>
void PutCells(BlockWriter& writer, const Grid& cells, int nx, int ny, int perCell) {
    const std::size_t count = static_cast<std::size_t>(std::max(nx, 0)) *
                              static_cast<std::size_t>(std::max(ny, 0)) *
                              static_cast<std::size_t>(perCell);
    writer.PutAll<Out>(cells.HasShape(nx, ny) ? cells.Data() : nullptr, count);
}

} // namespace

bool Region::PutBIN(std::FILE* file) const {
    BlockWriter writer(file);
    writer.Put(org_x);
    writer.Put(org_y);
    writer.Put(nx);
    writer.Put(ny);
    writer.Put(static_cast<float>(gridSize));
    switch (type) {
    case TPG_R:
    case RCF_R:
    case LSM_R:
        if (HasCodes())
            writer.PutCodes(codeGrid.Data(), codeGrid.ValueCount(), codeValues);
        else
            PutCells<float>(writer, grid, nx, ny, 1);
        break;
    case WBH_R:
        PutCells<float>(writer, pairGrid, nx, ny, 2);
        break;
    case WBM_R:
        PutCells<std::int32_t>(writer, pairIntGrid, nx, ny, 2);
        break;
    default:
        // The deformation and wave-height kinds reach the calculators by other files;
        // only their header is written here.
        break;
    }
    writer.Flush();
    return !writer.Failed();
}

int Region::WriteBIN(std::string dir) {
    const std::string tag = typeTag.substr(0, 3);
    outFileName = StringPrintf("%s/%s_%s.bin", dir.c_str(), tag.c_str(), regionName.c_str());
    std::printf(">>>>>>>>>>>>>>>>>> Write File:%s\n", outFileName.c_str());
    try {
        FilePtr file(std::fopen(outFileName.c_str(), "wb"));
        if (!file)
            throw 1;
        std::printf("     FILE_NUM:1/1\n");
        std::printf("    BIN_X_NUM:%d\n", nx);
        std::printf("    BIN_Y_NUM:%d\n", ny);
        // A calculator cannot tell a cut grid from a whole one, so a full disk or a
        // failed close is the same failure as a file that cannot be opened.
        if (!PutBIN(file.get()) || std::fflush(file.get()) != 0 ||
            std::fclose(file.release()) != 0)
            throw 1;
    } catch (int) { // 1: the file cannot be created or written in full
        PrintErrorBlock(
            {"ERROR:REGION OBJECT METHOD",
             "  ERROR-DETAIL:Abnormal action at Writing BIN File Method.",
             "  ERROR-DETAIL:Can not open file.",
             "  ERROR-DETAIL:Particular attention should be given to \"Region BIN File\".",
             "  ERROR-DETAIL:Region BIN File > " + std::to_string(type)});
        return 0;
    }
    std::printf("<<<<<<<<<<<<<<<<<< Completed.\n");
    return 1;
}
