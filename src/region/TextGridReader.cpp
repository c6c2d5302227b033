#include "region/TextGridReader.hpp"

#include "region/SecondCore.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

// A second build of the block scan for AVX2 processors, where the compiler can target one.
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define SEAFORGE_VECTOR_BLOCKS 1
#include <immintrin.h>
#else
#define SEAFORGE_VECTOR_BLOCKS 0
#endif

namespace {

// Bytes after the data that block loads near its end may touch; never interpreted.
constexpr std::size_t kPadding = 128;

inline bool IsBlank(char c) { return c == ' ' || c == '\t'; }

// Calls emit(tokenBegin, tokenEnd, position) for every token of one piece.
template <class Emit> inline void ForEachToken(const char* p, const char* end, Emit&& emit) {
    int position = 0;
    for (;;) {
        while (p < end && IsBlank(*p))
            ++p;
        if (p == end)
            return;
        const char* token = p++; // a leading "-" stays with its token
        while (p < end && !IsBlank(*p) && *p != '-')
            ++p;
        emit(token, p, position++);
    }
}

// Eight characters at p as one little-endian word.
inline std::uint64_t Load8(const char* p) {
    std::uint64_t word;
    std::memcpy(&word, p, 8);
    return word;
}

// For a word of characters XOR '0' (digits become 0..9): the high bit of every byte that
// is not a digit. Only the lowest flagged byte is exact (carries run towards later
// characters, past the first non-digit), which is the only one used.
inline std::uint64_t NonDigitBytes(std::uint64_t digits) {
    return ((digits + 0x7676767676767676ULL) | digits) & 0x8080808080808080ULL;
}

// The number written by the `count` digit values (0..9) in the low bytes of `digits`, the
// first character lowest; 1 <= count <= 7.
inline std::uint64_t DigitsValue(std::uint64_t digits, int count) {
    std::uint64_t v = digits << (64 - 8 * count); // leading zeros fill the low bytes
    v = (v & 0x0F0F0F0F0F0F0F0FULL) * 2561 >> 8;
    v = (v & 0x00FF00FF00FF00FFULL) * 6553601 >> 16;
    return (v & 0x0000FFFF0000FFFFULL) * 42949672960001ULL >> 32;
}

inline constexpr std::uint64_t kPow10Int[] = {1, 10, 100, 1000, 10000, 100000, 1000000, 10000000};
constexpr std::uint64_t kZeros = 0x3030303030303030ULL;

// ParsePlainAt for numbers that do not fit in one word: up to seven digits on either side
// of the point, read as two words.
[[gnu::noinline]] const char* ParseLongerAt(const char* token, const char* q, double& value) {
    const std::uint64_t intDigits = Load8(q) ^ kZeros;
    const std::uint64_t intStops = NonDigitBytes(intDigits);
    if (intStops == 0)
        return nullptr;
    const int intCount = __builtin_ctzll(intStops) >> 3;
    std::uint64_t mantissa = intCount > 0 ? DigitsValue(intDigits, intCount) : 0;
    const char* end = q + intCount;
    int fracCount = 0;
    if (*end == '.') {
        const std::uint64_t fracDigits = Load8(end + 1) ^ kZeros;
        const std::uint64_t fracStops = NonDigitBytes(fracDigits);
        if (fracStops == 0)
            return nullptr;
        fracCount = __builtin_ctzll(fracStops) >> 3;
        if (fracCount > 0)
            mantissa = mantissa * kPow10Int[fracCount] + DigitsValue(fracDigits, fracCount);
        end += 1 + fracCount;
    }
    if (intCount + fracCount == 0)
        return nullptr;
    const double magnitude = static_cast<double>(mantissa) / numberparse::kExactPow10[fracCount];
    value = std::bit_cast<double>(std::bit_cast<std::uint64_t>(magnitude) |
                                  static_cast<std::uint64_t>(*token == '-') << 63);
    return end;
}

// The number at `token` when it has the plain shape [sign] digits [. digits] with at most
// seven digits on either side of the point. Such a mantissa and its power of ten are exact
// doubles and one division rounds like strtod (see NumberParse). Answers the position
// after the number, or null for any other shape; the number is strtod's only if what
// follows does not go on as an exponent or a hexadecimal number (see ConvertToken).
// Reads up to 16 bytes past `token`.
[[gnu::always_inline]] inline const char* ParsePlainAt(const char* token, double& value) {
    const bool negative = *token == '-';
    const char* q = token + (negative || *token == '+'); // no branch on the sign
    const std::uint64_t x = Load8(q) ^ kZeros;
    const std::uint64_t stops = NonDigitBytes(x);
    if (stops == 0)
        return ParseLongerAt(token, q, value);
    const int intCount = __builtin_ctzll(stops) >> 3;
    const char* end = q + intCount;
    std::uint64_t digits = x;
    int count = intCount;
    int fracCount = 0;
    if (*end == '.') {
        // The fraction's digits in the same word, moved down over the point.
        const std::uint64_t below = (std::uint64_t{1} << (8 * intCount)) - 1;
        const std::uint64_t merged = (x & below) | ((x >> 8) & ~below);
        const std::uint64_t fracStops = NonDigitBytes(merged) & ~below;
        if (fracStops == 0)
            return ParseLongerAt(token, q, value);
        count = __builtin_ctzll(fracStops) >> 3;
        fracCount = count - intCount;
        digits = merged;
        end += 1 + fracCount;
    }
    if (count == 0)
        return nullptr;
    const double magnitude =
        static_cast<double>(DigitsValue(digits, count)) / numberparse::kExactPow10[fracCount];
    // The sign as a bit, not a branch: signs of grid values follow no pattern.
    value = std::bit_cast<double>(std::bit_cast<std::uint64_t>(magnitude) |
                                  static_cast<std::uint64_t>(negative) << 63);
    return end;
}

// Where the token at `token` ends: at the next blank, tab or "-", or after the newline
// that ends its line. A NUL answers null.
inline const char* TokenEnd(const char* token) {
    const char* end = token;
    if (*end != '\n' && *end != '\0') {
        ++end; // a leading "-" stays with its token
        while (!IsBlank(*end) && *end != '-' && *end != '\n' && *end != '\0')
            ++end;
    }
    if (*end == '\0')
        return nullptr;
    return *end == '\n' ? end + 1 : end;
}

// What the character after a plain number means for it.
enum class CharKind : unsigned char {
    kEndsToken,    // blank, tab, "-": the token ends with the number
    kEndsLine,     // newline: so does the line
    kTokenGoesOn,  // anything else: the token goes on, but strtod stops with the number
    kNumberGoesOn, // "e", "E", "x", "X": strtod may read on
};

constexpr auto kCharKinds = [] {
    std::array<CharKind, 256> kinds{};
    kinds.fill(CharKind::kTokenGoesOn);
    kinds[' '] = kinds['\t'] = kinds['-'] = CharKind::kEndsToken;
    kinds['\n'] = CharKind::kEndsLine;
    kinds['e'] = kinds['E'] = kinds['x'] = kinds['X'] = CharKind::kNumberGoesOn;
    return kinds;
}();

// Whether strtod may read on past a plain number followed by `c`. Not a table lookup in
// the scans themselves: they are also built for newer processors, and a library template
// instantiated there could be the copy an older processor ends up calling.
inline bool NumberGoesOn(char c) {
    return kCharKinds[static_cast<unsigned char>(c)] == CharKind::kNumberGoesOn;
}

// One side's share of a split region, or the room left in a single reader's list: values
// go to [at, limit) of the common list.
struct SliceOut {
    double* at;
    double* limit;
    std::size_t count = 0;
    bool full = false;
};

// Converts the token at `token` and answers where it ends (null at a NUL).
template <class Out>
[[gnu::always_inline]] inline const char* ConvertToken(const char* token, Out& out,
                                                       TokenConverter& convert) {
    double value;
    const char* after = ParsePlainAt(token, value);
    const CharKind next =
        after != nullptr ? kCharKinds[static_cast<unsigned char>(*after)] : CharKind::kNumberGoesOn;
    if (next == CharKind::kEndsToken) {
        out.AddValue(value);
        return after;
    }
    if (next == CharKind::kEndsLine) {
        out.AddValue(value);
        return after + 1;
    }
    const char* end = TokenEnd(token);
    if (end == nullptr)
        return nullptr;
    // strtod stops where the plain number stops unless an exponent or a hexadecimal
    // number goes on; only those and other shapes need the converter.
    out.AddValue(next == CharKind::kTokenGoesOn ? value : convert.Real(token, end));
    return end;
}

// Reads one line token by token. `p` starts a piece of a line that ends with a newline;
// bytes after it are readable. Answers the position after the newline, or null when the
// line holds a NUL and must be read by the exact rules (the caller takes its values back).
template <class Out> const char* ReadLineFast(const char* p, Out& out, TokenConverter& convert) {
    for (;;) {
        while (IsBlank(*p))
            ++p;
        const char* end = ConvertToken(p, out, convert);
        if (end == nullptr)
            return nullptr;
        if (end[-1] == '\n')
            return end;
        p = end;
    }
}

// Bit k of each mask describes character k of a 64-character block.
struct BlockMasks {
    std::uint64_t blank;   // blank or tab
    std::uint64_t dash;    // "-", which always starts a token
    std::uint64_t newline; // ends a line; the next character starts a piece
    std::uint64_t special; // "#" or NUL: rules the block scan does not apply
};

inline BlockMasks Classify(const char* block) {
    BlockMasks m{0, 0, 0, 0};
#if defined(__SSE2__)
    const __m128i space = _mm_set1_epi8(' ');
    const __m128i tab = _mm_set1_epi8('\t');
    const __m128i dash = _mm_set1_epi8('-');
    const __m128i newline = _mm_set1_epi8('\n');
    const __m128i hash = _mm_set1_epi8('#');
    const __m128i nul = _mm_setzero_si128();
    for (int part = 0; part < 4; ++part) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(block + 16 * part));
        const auto bits = [](__m128i eq) {
            return static_cast<std::uint64_t>(static_cast<unsigned>(_mm_movemask_epi8(eq)));
        };
        const int shift = 16 * part;
        m.blank |= bits(_mm_or_si128(_mm_cmpeq_epi8(v, space), _mm_cmpeq_epi8(v, tab))) << shift;
        m.dash |= bits(_mm_cmpeq_epi8(v, dash)) << shift;
        m.newline |= bits(_mm_cmpeq_epi8(v, newline)) << shift;
        m.special |= bits(_mm_or_si128(_mm_cmpeq_epi8(v, hash), _mm_cmpeq_epi8(v, nul))) << shift;
    }
#else
    for (int k = 0; k < 64; ++k) {
        const std::uint64_t bit = std::uint64_t{1} << k;
        const char c = block[k];
        m.blank |= IsBlank(c) ? bit : 0;
        m.dash |= c == '-' ? bit : 0;
        m.newline |= c == '\n' ? bit : 0;
        m.special |= (c == '#' || c == '\0') ? bit : 0;
    }
#endif
    return m;
}

// Where tokens start in a 64-character block, of which the characters in `inside` count.
// `breakBefore` says whether the character before the block ends a token (or a line); it
// is updated for the next block.
inline std::uint64_t TokenStarts(const BlockMasks& m, std::uint64_t inside,
                                 std::uint64_t& breakBefore) {
    const std::uint64_t breaks = m.blank | m.newline;
    const std::uint64_t starts = ((~m.blank & ((breaks << 1) | breakBefore)) | m.dash) & inside;
    breakBefore = breaks >> 63;
    return starts;
}

#if SEAFORGE_VECTOR_BLOCKS
// A movemask result of 32 characters as the low bits of a 64-bit mask.
inline std::uint64_t Bits32(int mask) {
    return static_cast<std::uint64_t>(static_cast<std::uint32_t>(mask));
}

// Shuffle orders that put the digits of digits [. digits] at the end of a 16-byte
// register, in order, with zeros before them: order[intCount][fracCount]. Digit k is
// character k before the point and character k + 1 after it.
struct DigitOrder {
    alignas(16) std::uint8_t order[16][16][16];
};

constexpr DigitOrder MakeDigitOrder() {
    DigitOrder t{};
    for (int intCount = 0; intCount < 16; ++intCount)
        for (int fracCount = 0; fracCount < 16; ++fracCount) {
            const int n = intCount + fracCount;
            for (int k = 0; k < 16; ++k) {
                const int digit = k - (16 - n);
                std::uint8_t from = 0x80; // a zero
                if (n <= 15 && digit >= 0)
                    from = static_cast<std::uint8_t>(digit + (digit >= intCount));
                t.order[intCount][fracCount][k] = from;
            }
        }
    return t;
}

constexpr DigitOrder kDigitOrder = MakeDigitOrder();
#endif

inline std::uint64_t InsideMask(const char* block, const char* end) {
    const auto size = static_cast<std::size_t>(end - block);
    return size >= 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << size) - 1;
}

// Set bits of a word, without the library call a build for the oldest x86-64 makes of
// __builtin_popcountll.
inline std::size_t BitCount(std::uint64_t x) {
    x = x - ((x >> 1) & 0x5555555555555555ULL);
    x = (x & 0x3333333333333333ULL) + ((x >> 2) & 0x3333333333333333ULL);
    x = (x + (x >> 4)) & 0x0F0F0F0F0F0F0F0FULL;
    return static_cast<std::size_t>((x * 0x0101010101010101ULL) >> 56);
}

namespace portable {

inline BlockMasks ClassifyBlock(const char* block) { return Classify(block); }
[[gnu::always_inline]] inline const char* ParseToken(const char* token, double& value) {
    return ParsePlainAt(token, value);
}

#include "region/TextGridBlocks.inc"

} // namespace portable

#if SEAFORGE_VECTOR_BLOCKS
// The same scan built for processors with AVX2: 32 characters classified per instruction,
// and each number parsed in one 16-byte register. Chosen at run time where it is the faster
// (BestScan).
#if defined(__clang__)
#pragma clang attribute push(__attribute__((target("avx2,bmi,popcnt"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx2,bmi,popcnt")
#endif
namespace vector {

inline BlockMasks ClassifyBlock(const char* block) {
    const __m256i space = _mm256_set1_epi8(' ');
    const __m256i tab = _mm256_set1_epi8('\t');
    const __m256i dash = _mm256_set1_epi8('-');
    const __m256i newline = _mm256_set1_epi8('\n');
    const __m256i hash = _mm256_set1_epi8('#');
    const __m256i nul = _mm256_setzero_si256();
    BlockMasks m{0, 0, 0, 0};
    for (int half = 0; half < 2; ++half) {
        const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(block + 32 * half));
        const int shift = 32 * half;
        m.blank |= Bits32(_mm256_movemask_epi8(
                       _mm256_or_si256(_mm256_cmpeq_epi8(v, space), _mm256_cmpeq_epi8(v, tab))))
                   << shift;
        m.dash |= Bits32(_mm256_movemask_epi8(_mm256_cmpeq_epi8(v, dash))) << shift;
        m.newline |= Bits32(_mm256_movemask_epi8(_mm256_cmpeq_epi8(v, newline))) << shift;
        m.special |= Bits32(_mm256_movemask_epi8(
                         _mm256_or_si256(_mm256_cmpeq_epi8(v, hash), _mm256_cmpeq_epi8(v, nul))))
                     << shift;
    }
    return m;
}

// ParsePlainAt in one register: the 16 characters after the sign are classified at once,
// and the digits, moved past the point to the end of the register by one shuffle, are
// summed in three multiply-add steps. Takes digits [. digits] of at most 15 characters
// with at least one digit, so the mantissa stays below 10^15 < 2^53 and one division
// rounds like strtod; answers null for any other shape. Reads 17 bytes from `token`.
[[gnu::always_inline]] inline const char* ParseToken(const char* token, double& value) {
    const bool negative = *token == '-';
    const char* q = token + negative;
    const __m128i text = _mm_loadu_si128(reinterpret_cast<const __m128i*>(q));
    const __m128i digits = _mm_sub_epi8(text, _mm_set1_epi8('0'));
    const __m128i isDigit = _mm_cmpeq_epi8(_mm_min_epu8(digits, _mm_set1_epi8(9)), digits);
    // Bit k: character k is not a digit. Bits past the register count as non-digits, so
    // every count below stops by 16.
    const unsigned stops = ~static_cast<unsigned>(_mm_movemask_epi8(isDigit));
    const auto intCount = static_cast<unsigned>(__builtin_ctz(stops));
    const unsigned point = q[intCount] == '.';
    const unsigned fracCount =
        point != 0 ? static_cast<unsigned>(__builtin_ctz(stops >> (intCount + 1))) : 0;
    const unsigned length = intCount + point + fracCount;
    if (length > 15 || intCount + fracCount == 0)
        return nullptr;
    const __m128i order =
        _mm_load_si128(reinterpret_cast<const __m128i*>(kDigitOrder.order[intCount][fracCount]));
    const __m128i ordered = _mm_shuffle_epi8(digits, order); // 0 ... 0 d1 d2 ... dn
    const __m128i pairs = _mm_maddubs_epi16(ordered, _mm_set1_epi16(0x010A)); // 10, 1
    const __m128i fours = _mm_madd_epi16(pairs, _mm_set1_epi32(0x00010064));  // 100, 1
    const __m128i eights =
        _mm_madd_epi16(_mm_packs_epi32(fours, fours), _mm_set1_epi32(0x00012710)); // 10000, 1
    const auto both = static_cast<std::uint64_t>(_mm_cvtsi128_si64(eights));
    const std::uint64_t mantissa = (both & 0xFFFFFFFFu) * 100000000u + (both >> 32);
    const double magnitude = static_cast<double>(static_cast<std::int64_t>(mantissa)) /
                             numberparse::kExactPow10[fracCount];
    value = __builtin_bit_cast(double, __builtin_bit_cast(std::uint64_t, magnitude) |
                                           static_cast<std::uint64_t>(negative) << 63);
    return q + length;
}

#include "region/TextGridBlocks.inc"

} // namespace vector
#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif
#endif // SEAFORGE_VECTOR_BLOCKS

bool ReadBlocks(const char* begin, const char* end, SliceOut& out, TokenConverter& convert,
                bool vectorBlocks) {
#if SEAFORGE_VECTOR_BLOCKS
    if (vectorBlocks)
        return vector::ReadBlocks(begin, end, out, convert);
#endif
    (void)vectorBlocks;
    return portable::ReadBlocks(begin, end, out, convert);
}

std::size_t CountTokens(const char* begin, const char* end, bool vectorBlocks) {
#if SEAFORGE_VECTOR_BLOCKS
    if (vectorBlocks)
        return vector::CountBlockTokens(begin, end);
#endif
    (void)vectorBlocks;
    return portable::CountBlockTokens(begin, end);
}

// Grid text as users' files hold it: lines of ten depths and heights in metres with two
// decimals, now and then a short value. The same bytes on every run.
std::vector<char> SampleGridText(std::size_t bytes) {
    std::vector<char> text;
    text.reserve(bytes + 64 + kPadding);
    std::uint32_t state = 12345;
    const auto next = [&] {
        state = state * 1664525u + 1013904223u;
        return state >> 8;
    };
    while (text.size() < bytes) {
        for (int k = 0; k < 10; ++k) {
            char token[24];
            const std::uint32_t r = next();
            const int length =
                r % 16 == 0 ? std::snprintf(token, sizeof token, "%u", r % 10)
                            : std::snprintf(token, sizeof token, "%s%u.%02u", r % 5 == 0 ? "" : "-",
                                            (r >> 4) % 6000, (r >> 17) % 100);
            text.insert(text.end(), token, token + length);
            text.push_back(k == 9 ? '\n' : ' ');
        }
    }
    text.resize(text.size() + kPadding, '\0'); // readable, never read as text
    return text;
}

TextGridReader::ScanChoice ChooseScan() {
    TextGridReader::ScanChoice choice;
    if (!TextGridReader::VectorBlocksAvailable())
        return choice;
    using Clock = std::chrono::steady_clock;
    const Clock::time_point began = Clock::now();
    // Small enough to stay in the first-level caches, as a reader's slice of a buffer
    // mostly does, and to take well under a millisecond a pass.
    constexpr std::size_t kSampleBytes = std::size_t{32} << 10;
    const std::vector<char> text = SampleGridText(kSampleBytes);
    const std::size_t length = text.size() - kPadding;
    std::vector<double> values(length / 2 + 1);
    TokenConverter convert;
    const auto pass = [&](bool vector) {
        SliceOut out{values.data(), values.data() + values.size()};
        const Clock::time_point start = Clock::now();
        (void)ReadBlocks(text.data(), text.data() + length, out, convert, vector);
        return std::chrono::duration<double>(Clock::now() - start).count();
    };
    // Turns, and the best pass of each: a pass the machine interrupted, or the first ones
    // while the caches and the wide registers warm up, is not held against either build.
    constexpr int kRounds = 8;
    double best[2] = {1e300, 1e300};
    for (int round = 0; round < kRounds; ++round)
        for (const bool vector : {round % 2 == 0, round % 2 != 0})
            best[vector] = std::min(best[vector], pass(vector));
    choice.measured = true;
    choice.vectorSeconds = best[1];
    choice.portableSeconds = best[0];
    choice.vector = best[1] <= best[0];
    choice.sampleBytes = length;
    choice.choosingSeconds = std::chrono::duration<double>(Clock::now() - began).count();
    return choice;
}

} // namespace

TextGridReader::TextGridReader(std::FILE* file, std::size_t bufferBytes, bool useSecondCore,
                               Instructions instructions)
    : file_(file), capacity_(std::max(bufferBytes, 2 * kPieceChars + 2)),
      buffer_(std::make_unique<char[]>(capacity_ + kPadding)),
      second_(useSecondCore ? SecondCore::StartIfUseful() : nullptr),
      vectorBlocks_(instructions == Instructions::kVector
                        ? VectorBlocksAvailable()
                        : instructions == Instructions::kBest && BestScan().vector) {}

const TextGridReader::ScanChoice& TextGridReader::BestScan() {
    static const ScanChoice choice = ChooseScan();
    return choice;
}

bool TextGridReader::VectorBlocksAvailable() {
#if SEAFORGE_VECTOR_BLOCKS
    static const bool has = [] {
        __builtin_cpu_init();
        return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi") &&
               __builtin_cpu_supports("popcnt");
    }();
    return has;
#else
    return false;
#endif
}

TextGridReader::~TextGridReader() = default;

void TextGridReader::Refill() {
    if (spareReady_) {
        // The second core has already moved the rest of this buffer there and read on.
        std::swap(buffer_, spare_);
        start_ = 0;
        stop_ = spareStop_;
        spareReady_ = false;
    } else {
        const std::size_t left = stop_ - start_;
        std::memmove(buffer_.get(), buffer_.get() + start_, left);
        start_ = 0;
        stop_ = left;
    }
    while (!endOfFile_ && stop_ < capacity_) {
        const std::size_t got = std::fread(buffer_.get() + stop_, 1, capacity_ - stop_, file_);
        stop_ += got;
        if (got == 0)
            endOfFile_ = true; // a read error ends the file too
    }
}

bool TextGridReader::NextPiece(const char*& begin, const char*& end) {
    for (;;) {
        const std::size_t available = stop_ - start_;
        const char* first = buffer_.get() + start_;
        const void* newline = std::memchr(first, '\n', std::min(available, kPieceChars));
        if (newline == nullptr && available < kPieceChars && !endOfFile_) {
            Refill();
            continue;
        }
        if (available == 0)
            return false;
        std::size_t length = newline ? static_cast<const char*>(newline) - first + 1
                                     : std::min(available, kPieceChars);
        start_ += length;
        if (*first == '#')
            continue;
        if (const void* nul = std::memchr(first, '\0', length))
            length = static_cast<std::size_t>(static_cast<const char*>(nul) - first);
        begin = first;
        end = first + length;
        return true;
    }
}

bool TextGridReader::NextLine(std::vector<std::string_view>& tokens) {
    tokens.clear();
    const char* begin;
    const char* end;
    if (!NextPiece(begin, end))
        return false;
    ForEachToken(begin, end, [&](const char* token, const char* tokenEnd, int) {
        tokens.emplace_back(token, static_cast<std::size_t>(tokenEnd - token));
    });
    return true;
}

bool TextGridReader::SkipLine() {
    const char* begin;
    const char* end;
    return NextPiece(begin, end);
}

void TextGridReader::AddPieceValues(const char* begin, const char* end, GridValues& out) {
    ForEachToken(begin, end, [&](const char* token, const char* tokenEnd, int) {
        out.AddValue(convert_.Real(token, tokenEnd));
    });
}

void TextGridReader::FillSpare(const char* rest, std::size_t restLength) {
    if (!spare_)
        spare_ = std::make_unique<char[]>(capacity_ + kPadding);
    std::memcpy(spare_.get(), rest, restLength);
    spareStop_ = restLength;
    while (!endOfFile_ && spareStop_ < capacity_) {
        const std::size_t got =
            std::fread(spare_.get() + spareStop_, 1, capacity_ - spareStop_, file_);
        spareStop_ += got;
        if (got == 0)
            endOfFile_ = true;
    }
    spareReady_ = true;
}

void TextGridReader::ReadLinesExactly(const char* begin, const char* end, GridValues& out) {
    const char* p = begin;
    while (p < end) {
        const char* newline =
            static_cast<const char*>(std::memchr(p, '\n', static_cast<std::size_t>(end - p)));
        const std::size_t lineLength = static_cast<std::size_t>(newline - p) + 1;
        // Only a line that is one piece is tried whole: trying a line of pieces whole again
        // from each of its pieces would take time growing with the square of its length.
        if (*p != '#' && lineLength <= kPieceChars) {
            const GridValues::Mark mark = out.Here();
            if (const char* next = ReadLineFast(p, out, convert_)) {
                p = next;
                continue;
            }
            out.Restore(mark);
        }
        // A comment, a NUL, or a line of pieces: this piece by the piece rules.
        const std::size_t length = std::min(lineLength, kPieceChars);
        if (*p != '#') {
            const void* nul = std::memchr(p, '\0', length);
            AddPieceValues(p, nul ? static_cast<const char*>(nul) : p + length, out);
        }
        p += length;
    }
}

bool TextGridReader::ReadLinesByBlock(const char* begin, const char* end, GridValues& out) {
    const auto base = static_cast<std::size_t>(out.valueCount);
    if (base >= out.values.size())
        return false;
    double* const values = out.values.data();
    SliceOut slice{values + base, values + out.values.size()};
    if (!ReadBlocks(begin, end, slice, convert_, vectorBlocks_))
        return false;
    out.valueCount += static_cast<std::int64_t>(slice.count);
    // Taken while the values are still in cache.
    out.NoteExtremes(base, slice.count, ExtremesOf(values + base, slice.count));
    return true;
}

bool TextGridReader::ReadLinesSplit(const char* begin, const char* end, GridValues& out) {
    // The second core also counts the tokens before its share and reads on, so its share
    // is the smaller one.
    const char* middle = begin + (end - begin) * 3 / 5;
    const char* split = static_cast<const char*>(
                            std::memchr(middle, '\n', static_cast<std::size_t>(end - middle))) +
                        1;
    const auto base = static_cast<std::size_t>(out.valueCount);
    if (split == end || base >= out.values.size())
        return ReadLinesByBlock(begin, end, out);

    // The second core takes the lines after `split` and writes their values after those
    // of the lines before it, which it counts first; no value is written by both sides.
    // Then it reads on into the spare buffer, which the next Refill takes over.
    double* const values = out.values.data();
    double* const limit = values + out.values.size();
    // Each side works on its own locals and reports once: counters written by both
    // threads into one cache line would cost more than the split gains.
    bool laterRead = false;
    std::size_t earlierCount = 0;
    std::size_t laterCount = 0;
    Extremes laterExtremes;
    const char* const rest = buffer_.get() + start_;
    const std::size_t restLength = stop_ - start_;
    second_->Start([&] {
        const std::size_t ahead = CountTokens(begin, split, vectorBlocks_);
        bool read = false;
        SliceOut later{limit, limit};
        if (ahead <= static_cast<std::size_t>(limit - values) - base) {
            later.at = values + base + ahead;
            read = ReadBlocks(split, end, later, secondConvert_, vectorBlocks_);
            if (read)
                laterExtremes = ExtremesOf(values + base + ahead, later.count);
        }
        earlierCount = ahead;
        laterCount = later.count;
        laterRead = read;
        FillSpare(rest, restLength);
    });
    SliceOut earlier{values + base, limit};
    const bool earlierRead = ReadBlocks(begin, split, earlier, convert_, vectorBlocks_);
    const Extremes earlierExtremes =
        earlierRead ? ExtremesOf(values + base, earlier.count) : Extremes();
    if (second_->TakeBack()) {
        // The helper is still waiting for a core: the later lines are read here, straight
        // after the earlier ones, and the next buffer is filled by Refill as usual.
        if (!earlierRead)
            return false;
        SliceOut later{values + base + earlier.count, limit};
        if (!ReadBlocks(split, end, later, convert_, vectorBlocks_))
            return false;
        out.valueCount += static_cast<std::int64_t>(earlier.count + later.count);
        out.NoteExtremes(base, earlier.count, earlierExtremes);
        out.NoteExtremes(base + earlier.count, later.count,
                         ExtremesOf(values + base + earlier.count, later.count));
        return true;
    }
    second_->Wait();
    // Both sides meet the same token starts, so a side that read all its lines wrote
    // exactly its share and the earlier one stopped where the later one began.
    if (!earlierRead || !laterRead || earlier.count != earlierCount)
        return false;
    out.valueCount += static_cast<std::int64_t>(earlierCount + laterCount);
    out.NoteExtremes(base, earlierCount, earlierExtremes);
    out.NoteExtremes(base + earlierCount, laterCount, laterExtremes);
    return true;
}

void TextGridReader::ReadValues(GridValues& out) {
    for (;;) {
        Refill();
        const std::size_t available = stop_ - start_;
        if (available == 0)
            return;
        const char* first = buffer_.get() + start_;
        const char* lastNewline = static_cast<const char*>(memrchr(first, '\n', available));
        if (lastNewline == nullptr) {
            // A last line without a newline, or a line longer than the buffer: its pieces
            // one at a time by the piece rules.
            const char* begin;
            const char* end;
            if (NextPiece(begin, end))
                AddPieceValues(begin, end, out);
            continue;
        }
        // Every line of [first, linesEnd) ends with a newline, which stops every number;
        // the bytes after the buffer's data are readable padding.
        const char* linesEnd = lastNewline + 1;
        start_ += static_cast<std::size_t>(linesEnd - first);
        const bool read = second_ ? ReadLinesSplit(first, linesEnd, out)
                                  : ReadLinesByBlock(first, linesEnd, out);
        if (!read)
            ReadLinesExactly(first, linesEnd, out);
    }
}

void TextGridReader::ReadValuePairs(GridValues& out) {
    const char* begin;
    const char* end;
    while (NextPiece(begin, end)) {
        ForEachToken(begin, end, [&](const char* token, const char* tokenEnd, int position) {
            if (position % 2 == 0)
                out.AddPairedValue(convert_.Real(token, tokenEnd));
            else
                out.AddId(static_cast<std::int32_t>(convert_.Integer(token, tokenEnd)));
        });
    }
}
