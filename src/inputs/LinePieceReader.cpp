#include "inputs/LinePieceReader.hpp"

#include <cstdlib>
#include <cstring>

LinePieceReader::LinePieceReader(std::FILE* file) : file_(file) {}

bool LinePieceReader::Next() {
    fields_.clear();
    if (std::fgets(buffer_, static_cast<int>(sizeof buffer_), file_) == nullptr) {
        buffer_[0] = '\0';
        return false;
    }
    return true;
}

const std::vector<const char*>& LinePieceReader::Fields() {
    if (!fields_.empty())
        return fields_;
    // The separators are overwritten with NULs, so each field converts on its own and a
    // conversion cannot read on into the next field.
    char* p = buffer_;
    for (;;) {
        p += std::strspn(p, " \t");
        if (*p == '\0')
            break;
        fields_.push_back(p);
        p += std::strcspn(p, " \t");
        if (*p == '\0')
            break;
        *p++ = '\0';
    }
    return fields_;
}

std::int32_t FieldInt32(const char* field) {
    const long value = std::strtol(field, nullptr, 10);
    return static_cast<std::int32_t>(value); // modulo 2^32 since C++20
}

double FieldReal(const char* field) { return std::strtod(field, nullptr); }
