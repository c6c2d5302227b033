#pragma once

#include "region/GridValues.hpp"
#include "region/NumberParse.hpp"

#include <cstddef>
#include <cstdio>
#include <memory>
#include <string_view>
#include <vector>

class SecondCore;

// Reads a grid text file through one bounded buffer, with the line rules users' grid
// files have always been written for:
//
// - Lines are read in pieces of at most 8190 characters; a longer line gives several
//   pieces, and each piece is a line of its own. A piece ends after its newline.
// - A piece whose first character is "#" is a comment and is not a line at all.
// - A NUL ends the piece's text (the rest of the piece is not looked at).
// - Kept: every "-" is read as " -", so "1.5-2.0" gives 1.5 and -2.0 (and "1.0e-3" gives
//   1.0e and -3; grid files use plain decimals).
// - Kept: tokens are split at blanks and tabs only. The newline belongs to the last token,
//   and a blank before the newline leaves a token of its own that reads as 0.
// - Tokens convert as strtod (reals) and atol (integers) convert them.
//
// Large files may be parsed by two threads, and runs of plain lines by the processor's
// vector instructions where it has AVX2 and they are the faster there; the values are the
// same either way.
class TextGridReader {
  public:
    // Which build of the line scan to use: the faster of the two on this processor, the
    // one every processor runs, or the AVX2 one (the portable one where the processor
    // lacks AVX2). The last two are there to compare the builds and to test both.
    enum class Instructions { kBest, kPortable, kVector };

    // How kBest chose. Vector instructions are not faster on every processor that has
    // them, so both builds are timed once per process on a small generated block of grid
    // text, taking turns, and the faster is kept.
    struct ScanChoice {
        bool vector = false;        // kBest runs the AVX2 build
        bool measured = false;      // both builds were timed (the processor has AVX2)
        double vectorSeconds = 0.0; // best pass of each build over the sample
        double portableSeconds = 0.0;
        double choosingSeconds = 0.0; // the whole choice: making the sample and timing
        std::size_t sampleBytes = 0;
    };

    // Longest piece of a line, in characters.
    static constexpr std::size_t kPieceChars = 8190;
    static constexpr std::size_t kDefaultBufferBytes = std::size_t{1} << 20;

    // Reads `file` (not owned) from its current position. `useSecondCore` lets the values
    // be parsed by two threads where the machine has two cores.
    explicit TextGridReader(std::FILE* file, std::size_t bufferBytes = kDefaultBufferBytes,
                            bool useSecondCore = false,
                            Instructions instructions = Instructions::kBest);
    ~TextGridReader();
    TextGridReader(const TextGridReader&) = delete;
    TextGridReader& operator=(const TextGridReader&) = delete;

    // Tokens of the next line, as views valid until the next call. False at end of file.
    [[nodiscard]] bool NextLine(std::vector<std::string_view>& tokens);
    // Passes over the next line. False at end of file.
    [[nodiscard]] bool SkipLine();
    // Every token of every remaining line, as a real.
    void ReadValues(GridValues& out);
    // Every remaining line as alternating tokens: even positions (0, 2, ...) are reals,
    // odd positions integer identifiers; the position starts again at 0 on every line.
    void ReadValuePairs(GridValues& out);
    // Whether this processor runs the vector build at all.
    [[nodiscard]] static bool VectorBlocksAvailable();
    // The choice of kBest, made on first use.
    [[nodiscard]] static const ScanChoice& BestScan();
    // The helper thread, if any, for the caller's own work on the values.
    [[nodiscard]] SecondCore* Helper() const { return second_.get(); }

  private:
    // The next piece that is not a comment, [begin, end) with any NUL cut off.
    [[nodiscard]] bool NextPiece(const char*& begin, const char*& end);
    void Refill();
    // Copies the unread rest of the buffer into the spare one and fills it from the file.
    void FillSpare(const char* rest, std::size_t restLength);
    void AddPieceValues(const char* begin, const char* end, GridValues& out);
    // Whole lines [begin, end), line by line, falling back to the piece rules per line.
    void ReadLinesExactly(const char* begin, const char* end, GridValues& out);
    // Whole lines [begin, end) by blocks on this thread; false, with nothing added, when
    // they need the exact rules.
    [[nodiscard]] bool ReadLinesByBlock(const char* begin, const char* end, GridValues& out);
    // The same with part of the lines on the second core.
    [[nodiscard]] bool ReadLinesSplit(const char* begin, const char* end, GridValues& out);

    std::FILE* file_;
    std::size_t capacity_;
    std::unique_ptr<char[]> buffer_;
    std::size_t start_ = 0; // first byte not yet handed out
    std::size_t stop_ = 0;  // end of the bytes read
    bool endOfFile_ = false;
    std::unique_ptr<char[]> spare_; // filled ahead by the second core
    std::size_t spareStop_ = 0;
    bool spareReady_ = false;
    TokenConverter convert_;
    TokenConverter secondConvert_; // used on the second core only
    std::unique_ptr<SecondCore> second_;
    bool vectorBlocks_;
};
