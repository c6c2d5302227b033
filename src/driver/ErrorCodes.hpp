#pragma once

#include <string>

// The one table of run error codes, 1 to 23. A stage of the run throws its code as a bare
// int; the driver's single handler prints the code's line between two rule lines on
// standard error and the program exits with status 1.

// The handler's message for `code`, or an empty string: code 20 deliberately has none,
// and neither has any code outside 1..23.
[[nodiscard]] std::string CodeMessage(int code);

// Rule line, the code's message when it has one, rule line; all on standard error.
void PrintCodeBlock(int code);
