#include "region/Region.hpp"

#include "project/Console.hpp"
#include "project/FilePtr.hpp"
#include "region/GridValues.hpp"
#include "region/SecondCore.hpp"
#include "region/TextGridReader.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <algorithm>
#include <bit>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <vector>

static_assert(std::endian::native == std::endian::little);

namespace {

// Local causes of a failed read; each picks its detail lines in ReadFile.
constexpr int kCannotOpen = 1;
constexpr int kBadFormat = 2;
constexpr int kCountMismatch = 3;

constexpr std::size_t kBinaryHeaderBytes = 8 + 8 + 4 + 4 + 4;
constexpr std::size_t kEntryNameBytes = 64;
constexpr std::size_t kEntryBytes = 4 + kEntryNameBytes;
constexpr std::size_t kBinaryBufferBytes = std::size_t{4} << 20;
constexpr std::int64_t kSplitTextBytes = std::int64_t{8} << 20;
constexpr std::size_t kSplitBinaryValues = std::size_t{1} << 20;
// Values to make room for when a text stream has no size to go by; the list grows.
constexpr std::size_t kRoomWithoutSize = std::size_t{1} << 16;

// A binary file shorter than its header announces is read anyway and its last value
// repeated; but a header announcing far more than the file could ever have held is not a
// short file, it is not a grid file, and believing it would exhaust memory. Values are
// held as doubles, twice their width in the file, so a believed file costs at most four
// times its size (plus the slack that lets small hand-made grids be short by any amount).
constexpr std::int64_t kShortfallFactor = 2;
constexpr std::int64_t kShortfallAllowance = std::int64_t{1} << 20;

[[nodiscard]] bool Believable(std::int64_t announcedBytes, std::int64_t fileBytes) {
    return announcedBytes <= kShortfallFactor * fileBytes + kShortfallAllowance;
}

// Size of a regular file, or -1 when the stream has no fixed size (a pipe, a device).
[[nodiscard]] std::int64_t RegularFileSize(std::FILE* file) {
    struct stat info;
    if (fstat(fileno(file), &info) != 0 || !S_ISREG(info.st_mode))
        return -1;
    return static_cast<std::int64_t>(info.st_size);
}

[[nodiscard]] bool IsDirectory(std::FILE* file) {
    struct stat info;
    return fstat(fileno(file), &info) == 0 && S_ISDIR(info.st_mode);
}

// The values a header announces, nx × ny × perCell, or -1 when nx and ny describe no
// grid a run could hold (a negative size, or more values than a count of int can say).
// Such a header still ends in the count check: no number of values matches it.
[[nodiscard]] std::int64_t AnnouncedValues(int nx, int ny, int perCell) {
    if (nx < 0 || ny < 0)
        return -1;
    const std::int64_t count = std::int64_t{nx} * ny * perCell;
    return count > INT_MAX ? -1 : count;
}

template <class T> T Load(const unsigned char* bytes) {
    T value;
    std::memcpy(&value, bytes, sizeof(T));
    return value;
}

// Reads `bytes` bytes at `offset` of a regular file without moving its stream; false when
// the file ends first or a read fails.
[[nodiscard]] bool ReadBytesAt(int fd, off_t offset, unsigned char* into, std::size_t bytes) {
    while (bytes > 0) {
        const ssize_t got = pread(fd, into, bytes, offset);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return false;
        into += got;
        offset += got;
        bytes -= static_cast<std::size_t>(got);
    }
    return true;
}

// Widens records [first, first + n) of the records at `at` into values[first, ...) with
// `convert`, a bounded buffer at a time, and gives their extremes.
template <class Convert>
[[nodiscard]] bool ReadRecordsAt(int fd, off_t at, std::size_t first, std::size_t n,
                                 std::size_t recordBytes, const Convert& convert,
                                 const double* values, Extremes& extremes) {
    const std::size_t chunk = kBinaryBufferBytes / 2 / recordBytes;
    auto buffer = std::make_unique<unsigned char[]>(std::min(n, chunk) * recordBytes);
    for (std::size_t k = first; k < first + n; k += chunk) {
        const std::size_t m = std::min(chunk, first + n - k);
        if (!ReadBytesAt(fd, at + static_cast<off_t>(k * recordBytes), buffer.get(),
                         m * recordBytes))
            return false;
        convert(buffer.get(), k, m);
        extremes.Append(ExtremesOf(values + k, m));
    }
    return true;
}

// Binary grid: header, then nx × ny floats, or for construction-line data the entry list
// and 2 × nx × ny (float value, int32 identifier) pairs. Answers 0 or a local cause.
int ReadBinaryGrid(Region& region, GridValues& out, bool echo) {
    FilePtr file(std::fopen(region.inFileName.c_str(), "rb"));
    if (echo)
        std::printf(">>>> Read Binary File\n");
    if (!file || IsDirectory(file.get()))
        return kCannotOpen;
    std::FILE* f = file.get();

    unsigned char header[kBinaryHeaderBytes];
    if (std::fread(header, 1, sizeof header, f) != sizeof header)
        return kBadFormat;
    region.org_x = Load<double>(header);
    region.org_y = Load<double>(header + 8);
    region.nx = Load<std::int32_t>(header + 16);
    region.ny = Load<std::int32_t>(header + 20);
    region.gridSize = Load<float>(header + 24);
    region.fileGridSize = region.gridSize;

    const bool pairs = region.type == CLD_R;
    const std::size_t recordBytes = pairs ? 8 : 4;
    // A negative size reads no value (dataNum 0), so the count check fails as it would
    // after reading.
    if (region.nx < 0 || region.ny < 0)
        return kCountMismatch;
    const std::int64_t count = AnnouncedValues(region.nx, region.ny, pairs ? 2 : 1);
    const std::int64_t fileBytes = RegularFileSize(f);
    std::int64_t consumed = static_cast<std::int64_t>(kBinaryHeaderBytes);

    // Kept: past the header nothing is checked; a value the file no longer holds repeats
    // the last one read (0 before any).
    std::int32_t entries = 0;
    if (pairs) {
        unsigned char number[4] = {};
        consumed += static_cast<std::int64_t>(std::fread(number, 1, 4, f));
        entries = std::max(Load<std::int32_t>(number), 0);
    }
    const std::int64_t valuesAt = consumed + std::int64_t{entries} * kEntryBytes;
    // An entry list no file could hold would print lines without end: not a grid file.
    if (fileBytes >= 0 && !Believable(valuesAt, fileBytes))
        return kBadFormat;
    // More values than the file could hold, or than a grid can: refused unread, and
    // reported as the mismatch it is, with the whole values the file does hold.
    const std::int64_t announced =
        valuesAt + std::max<std::int64_t>(count, 0) * static_cast<std::int64_t>(recordBytes);
    if (count < 0 || (fileBytes >= 0 && !Believable(announced, fileBytes))) {
        if (fileBytes >= 0)
            out.valueCount = std::max<std::int64_t>(fileBytes - valuesAt, 0) /
                             static_cast<std::int64_t>(recordBytes);
        return kCountMismatch;
    }

    std::int32_t id = 0;
    char name[kEntryNameBytes] = {};
    for (std::int32_t e = 0; e < entries; ++e) {
        unsigned char entry[kEntryBytes];
        const std::size_t got = std::fread(entry, 1, kEntryBytes, f);
        consumed += static_cast<std::int64_t>(got);
        // A stream of unknown size is judged once it has ended.
        if (got < kEntryBytes && !Believable(valuesAt, consumed))
            return kBadFormat;
        if (got >= 4)
            id = Load<std::int32_t>(entry);
        if (got == kEntryBytes)
            std::memcpy(name, entry + 4, kEntryNameBytes);
        if (echo) {
            std::printf(" ID  :%d\n", id);
            std::printf(" Name:%.*s\n", static_cast<int>(strnlen(name, kEntryNameBytes)), name);
        }
    }

    const std::size_t total = static_cast<std::size_t>(count);
    out.Prepare(total, total, pairs);
    double* const values = out.values.data();
    std::int32_t* const ids = out.ids.data();
    const bool valuesFresh = out.valuesFresh;
    const bool idsFresh = out.idsFresh;
    const auto convert = [&](const unsigned char* record, std::size_t first, std::size_t n) {
        if (pairs) {
            // Zeros are left to fresh lists, which hold them already (a float's zero
            // bits are a double's).
            for (std::size_t k = first; k < first + n; ++k, record += 8) {
                const std::uint32_t valueBits = Load<std::uint32_t>(record);
                const std::int32_t cellId = Load<std::int32_t>(record + 4);
                if (valueBits != 0 || !valuesFresh)
                    values[k] = Load<float>(record);
                if (cellId != 0 || !idsFresh)
                    ids[k] = cellId;
            }
        } else {
            for (std::size_t k = first; k < first + n; ++k, record += 4)
                values[k] = Load<float>(record);
        }
    };
    // Large grids are widened on both cores, each side into its own cells.
    std::unique_ptr<SecondCore> second =
        total >= kSplitBinaryValues ? SecondCore::StartIfUseful() : nullptr;
    std::size_t done = 0;
    const unsigned char* partial = nullptr; // a last, incomplete record
    std::size_t partialBytes = 0;
    unsigned char lastRecord[8];
    bool readAll = false;
    if (second && fileBytes >= 0) {
        // Each core reads its own half of a regular file, so no copy waits for the other
        // side, and takes the extremes of what it widened while it is still in cache.
        const off_t at = ftello(f);
        const std::int64_t available = at < 0 ? -1 : std::max<std::int64_t>(fileBytes - at, 0);
        const std::size_t whole =
            available < 0 ? 0 : std::min(total, static_cast<std::size_t>(available) / recordBytes);
        const std::size_t rest = available < 0 ? 0 : static_cast<std::size_t>(available) - whole * recordBytes;
        const std::size_t half = whole / 2;
        Extremes earlier, later;
        bool laterRead = false;
        if (available >= 0) {
            const auto readLater = [&] {
                laterRead = ReadRecordsAt(fileno(f), at, half, whole - half, recordBytes, convert,
                                          values, later);
            };
            second->Start(readLater);
            const bool earlierRead =
                ReadRecordsAt(fileno(f), at, 0, half, recordBytes, convert, values, earlier);
            // A helper still waiting for a core leaves its half to this thread.
            if (second->TakeBack())
                readLater();
            else
                second->Wait();
            const bool lastRead =
                whole == total ||
                ReadBytesAt(fileno(f), at + static_cast<off_t>(whole * recordBytes), lastRecord,
                            std::min(rest, recordBytes - 1));
            if (earlierRead && laterRead && lastRead) {
                readAll = true;
                done = whole;
                consumed += static_cast<std::int64_t>(whole * recordBytes);
                if (whole < total) {
                    partial = lastRecord;
                    partialBytes = std::min(rest, recordBytes - 1);
                    consumed += static_cast<std::int64_t>(partialBytes);
                }
                out.NoteExtremes(0, half, earlier);
                out.NoteExtremes(half, whole - half, later);
            }
        }
    }
    auto buffer = std::make_unique<unsigned char[]>(readAll ? 0 : kBinaryBufferBytes);
    while (!readAll && done < total) {
        const std::size_t want = std::min((total - done) * recordBytes, kBinaryBufferBytes);
        const std::size_t got = std::fread(buffer.get(), 1, want, f);
        const std::size_t records = got / recordBytes;
        consumed += static_cast<std::int64_t>(got);
        const std::size_t half = second ? records / 2 : 0;
        const auto convertLater = [&, half, records] {
            convert(buffer.get() + half * recordBytes, done + half, records - half);
        };
        if (half > 0)
            second->Start(convertLater);
        convert(buffer.get(), done, half > 0 ? half : records);
        if (half > 0 && second->TakeBack())
            convertLater();
        else if (half > 0)
            second->Wait();
        done += records;
        if (got < want) {
            partial = buffer.get() + records * recordBytes;
            partialBytes = got % recordBytes;
            break;
        }
    }
    if (done < total) {
        if (!Believable(announced, consumed)) {
            out.valueCount = static_cast<std::int64_t>(done);
            return kCountMismatch;
        }
        double lastValue = done > 0 ? values[done - 1] : 0.0;
        if (pairs && partialBytes >= 4)
            lastValue = Load<float>(partial); // read, though its identifier is missing
        std::fill(values + done, values + total, lastValue);
        if (pairs)
            std::fill(ids + done, ids + total, done > 0 ? ids[done - 1] : 0);
    }

    out.valueCount = count;
    out.idCount = pairs ? count : 0;
    out.Finish(second.get());
    return 0;
}

// Text grid; see TextGridReader for the line rules. Answers 0 or a local cause.
int ReadTextGrid(Region& region, GridValues& out) {
    // Kept: the flag is set again here although nothing reads it after this point.
    region.noFileName = true;
    FilePtr file(std::fopen(region.inFileName.c_str(), "r"));
    if (!file || IsDirectory(file.get()))
        return kCannotOpen;
    const std::int64_t fileBytes = RegularFileSize(file.get());

    // A second core pays once a grid is a few million values.
    const bool large = fileBytes >= kSplitTextBytes;
    TextGridReader reader(file.get(), TextGridReader::kDefaultBufferBytes, large);
    TokenConverter convert;
    std::vector<std::string_view> tokens;
    const bool pairs = region.type == CLD_R;

    // A missing header line has no tokens, so it is a wrong count like any other.
    if (!reader.NextLine(tokens) || tokens.size() != 2)
        return kBadFormat;
    region.nx = static_cast<std::int32_t>(convert.Integer(tokens[0]));
    region.ny = static_cast<std::int32_t>(convert.Integer(tokens[1]));
    // A size no grid can have is read on all the same (nothing of it stored), so that the
    // count check reports it with the number of values the file holds.
    const std::int64_t count = std::max<std::int64_t>(
        AnnouncedValues(region.nx, region.ny, pairs ? 2 : 1), 0);

    if (!reader.NextLine(tokens) || tokens.size() < (pairs ? 4u : 2u))
        return kBadFormat;
    region.org_x = convert.Real(tokens[0]);
    region.org_y = convert.Real(tokens[1]);
    if (pairs) {
        region.end_x = convert.Real(tokens[2]);
        region.end_y = convert.Real(tokens[3]);
        // Kept: nx of 1 divides by zero and gives an infinite or undefined spacing.
        region.fileGridSize =
            (region.end_x - region.org_x) / (static_cast<double>(region.nx) - 1.0);

        if (!reader.NextLine(tokens) || tokens.empty())
            return kBadFormat;
        const long entries = convert.Integer(tokens[0]);
        for (long e = 0; e < entries; ++e)
            if (!reader.SkipLine())
                break;
    }

    // Every value takes at least two characters but in contrived files ("---"), so this
    // never sizes the lists beyond what the file could hold.
    const std::size_t total = static_cast<std::size_t>(count);
    const std::size_t room =
        fileBytes >= 0 ? static_cast<std::size_t>(fileBytes) / 2 + 1 : kRoomWithoutSize;
    out.Prepare(total, room, pairs);
    if (pairs)
        reader.ReadValuePairs(out);
    else
        reader.ReadValues(out);
    out.Finish(reader.Helper());
    return 0;
}

} // namespace

bool IsBinaryGridPath(const std::string& path) {
    const std::size_t binAt = path.rfind(".bin");
    return binAt != std::string::npos && binAt > 0;
}

int Region::LoadFile(std::int64_t& valueCount, bool echo) {
    GridValues data;
    if (fewValues && type != CLD_R)
        data.Code();
    int failure = 0;
    try {
        const bool binary = IsBinaryGridPath(inFileName);
        if (const int cause = binary ? ReadBinaryGrid(*this, data, echo) : ReadTextGrid(*this, data))
            throw cause;

        valMax = data.extremes.Max();
        valMin = data.extremes.Min();
        // Sizes no grid can have (negative, or past what an int counts) match no count,
        // however many values a file holds.
        const std::int64_t expected = AnnouncedValues(nx, ny, type == CLD_R ? 2 : 1);
        if (expected < 0 || data.valueCount != expected)
            throw kCountMismatch;
        if (type == CLD_R) {
            // Identifiers sit at odd positions, so a line with an odd token count leaves
            // a value without one.
            if (data.idCount != expected)
                throw kCountMismatch;
            pairGrid.Adopt(nx, ny, std::move(data.values));
            pairIntGrid.Adopt(nx, ny, std::move(data.ids));
        } else if (data.CodeRest()) {
            grid.Release();
            codeGrid.Adopt(nx, ny, std::move(data.codes));
            codeValues.resize(data.codeTable.Count());
            for (std::size_t code = 0; code < codeValues.size(); ++code)
                codeValues[code] = data.codeTable.ValueOf(code);
        } else {
            codeGrid.Release();
            grid.Adopt(nx, ny, std::move(data.values));
        }
    } catch (const std::bad_alloc&) {
        // A header that passed every check but still asks for more memory than there is.
        failure = kBadFormat;
    } catch (int cause) {
        failure = cause;
    }
    valueCount = data.valueCount;
    return failure;
}

int Region::ReadFile() {
    std::printf("\n>>>>>>>>>>>>>>>>>> Region Input:%s\n", inFileName.c_str());
    std::int64_t valueCount = 0;
    const int failure = LoadFile(valueCount, true);
    return ReportRead(failure, valueCount);
}

int Region::ReadFileQuietly(std::int64_t& valueCount) {
    // Only the binary reader prints while it reads, and for construction lines more than
    // one fixed line; those are read by ReadFile itself.
    if (type == CLD_R && IsBinaryGridPath(inFileName))
        return -1;
    return LoadFile(valueCount, false);
}

int Region::ReportQuietRead(int failure, std::int64_t valueCount) {
    std::printf("\n>>>>>>>>>>>>>>>>>> Region Input:%s\n", inFileName.c_str());
    if (IsBinaryGridPath(inFileName))
        std::printf(">>>> Read Binary File\n");
    return ReportRead(failure, valueCount);
}

int Region::ReportRead(int failure, std::int64_t valueCount) {
    if (failure) {
        const std::string& path = inFileName;
        switch (failure) {
        case kCannotOpen:
            PrintErrorBlock(
                {"ERROR:REGION OBJECT METHOD",
                 "  ERROR-DETAIL:Abnormal action at Reading File Method.",
                 "  ERROR-DETAIL:Can not open file.",
                 "  ERROR-DETAIL:Particular attention should be given to \"Region File\".",
                 "  ERROR-DETAIL:Region File > " + path});
            break;
        case kBadFormat:
            PrintErrorBlock({"ERROR:REGION OBJECT METHOD",
                             "  ERROR-DETAIL:Abnormal action at Reading File Method.",
                             "  ERROR-DETAIL:You should check the Format of Region File.",
                             "  ERROR-DETAIL:Region File > " + path});
            break;
        default:
            // Kept: two blanks before ">" here, one in the other causes.
            PrintErrorBlock({"ERROR:REGION OBJECT METHOD",
                             "  ERROR-DETAIL:Abnormal action at Reading File Method.",
                             "  ERROR-DETAIL:You should check the Format of Region File.",
                             "  ERROR-DETAIL:Region File  > " + path,
                             "  ERROR-DETAIL:ALL DATA NUM > " + std::to_string(valueCount),
                             "  ERROR-DETAIL:          NX > " + std::to_string(nx),
                             "  ERROR-DETAIL:          NY > " + std::to_string(ny)});
            break;
        }
        return 0;
    }

    std::printf("nx     :%d\n", nx);
    std::printf("ny     :%d\n", ny);
    std::printf("org_x  :%lf\n", org_x);
    std::printf("org_y  :%lf\n", org_y);
    std::printf("dataNum:%d\n", static_cast<int>(valueCount));
    std::printf("valMax :%lf\n", valMax);
    std::printf("valMin :%lf\n", valMin);
    std::printf("<<<<<<<<<<<<<<<<<< Completed.\n");
    return 1;
}
