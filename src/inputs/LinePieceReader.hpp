#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

// Reads the side files named in a project (deformation stages, construction lines, ...)
// the way users' files for them have always been read:
//
// - through a fixed buffer of kBufferBytes bytes (the terminator included), so a line of
//   more than kPieceChars characters arrives in pieces, each counting as a line of its own;
// - a piece whose first character is "#" is a comment;
// - fields are split at blanks and tabs only, so a line's newline stays on its last field
//   (and a blank before the newline leaves a field of its own, "\n");
// - a NUL ends the piece's text.
class LinePieceReader {
  public:
    static constexpr std::size_t kBufferBytes = 1023;
    static constexpr std::size_t kPieceChars = kBufferBytes - 1;

    // Reads `file` (not owned) from its current position.
    explicit LinePieceReader(std::FILE* file);
    LinePieceReader(const LinePieceReader&) = delete;
    LinePieceReader& operator=(const LinePieceReader&) = delete;

    // Moves to the next piece; false at end of file or when reading fails.
    [[nodiscard]] bool Next();
    // Reading stopped on an error rather than at the end (a directory, a bad disk).
    [[nodiscard]] bool Failed() const { return std::ferror(file_) != 0; }
    [[nodiscard]] bool IsComment() const { return buffer_[0] == '#'; }
    // The fields of the current piece, each NUL-terminated, valid until the next Next().
    [[nodiscard]] const std::vector<const char*>& Fields();

  private:
    std::FILE* file_;
    char buffer_[kBufferBytes] = {};
    std::vector<const char*> fields_;
};

// A field read as atol reads it; a value beyond 32 bits keeps its low 32 bits, as the
// 32-bit fields it is stored in always have. Never overflows: strtol saturates first.
[[nodiscard]] std::int32_t FieldInt32(const char* field);
// A field read as strtod reads it.
[[nodiscard]] double FieldReal(const char* field);
