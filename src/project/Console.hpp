#pragma once

#include <initializer_list>
#include <string>

// Console conventions shared by every component: progress goes to standard output,
// error blocks to standard error, and an error block is always framed by kRuleLine.
// This sits with the project records because every component already depends on them.

inline constexpr const char* kRuleLine =
    "_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/";

// Prints kRuleLine, each line as given (callers pass full literals so grep finds them),
// then kRuleLine again, all to standard error.
void PrintErrorBlock(std::initializer_list<std::string> lines);

// printf into a std::string, for file names built from patterns such as "%s/%s_%s.bin".
[[nodiscard]] std::string StringPrintf(const char* format, ...)
    __attribute__((format(printf, 1, 2)));
