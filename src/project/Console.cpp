#include "project/Console.hpp"

#include <cstdarg>
#include <cstdio>

void PrintErrorBlock(std::initializer_list<std::string> lines) {
    std::fprintf(stderr, "%s\n", kRuleLine);
    for (const std::string& line : lines)
        std::fprintf(stderr, "%s\n", line.c_str());
    std::fprintf(stderr, "%s\n", kRuleLine);
}

std::string StringPrintf(const char* format, ...) {
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    const int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string text;
    if (length > 0) {
        text.resize(static_cast<size_t>(length));
        // C++17 strings own their terminator slot, so writing length + 1 bytes is fine.
        std::vsnprintf(text.data(), text.size() + 1, format, args);
    }
    va_end(args);
    return text;
}
