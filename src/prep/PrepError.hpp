#pragma once

#include <cstdio>
#include <new>
#include <stdexcept>
#include <string>

// What ends a command of seaforge-prep: one line for standard error, in the user's words
// (what is wrong, with which file or region, and what to do). The command prints it after
// "seaforge-prep: " and ends with status 1.
class PrepError : public std::runtime_error {
  public:
    explicit PrepError(const std::string& message) : std::runtime_error(message) {}
};

// A command's exit status: what `command` answers, or 1 after its PrepError's line, or
// after "not enough memory for this <what>" when memory ran out.
template <class Command> int ReportingErrors(const char* what, Command command) {
    try {
        return command();
    } catch (const PrepError& e) {
        std::fprintf(stderr, "seaforge-prep: %s\n", e.what());
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "seaforge-prep: not enough memory for this %s\n", what);
    }
    return 1;
}
