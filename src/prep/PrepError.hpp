#pragma once

#include <stdexcept>
#include <string>

// What ends a command of seaforge-prep: one line for standard error, in the user's words
// (what is wrong, with which file or region, and what to do). The command prints it after
// "seaforge-prep: " and ends with status 1.
class PrepError : public std::runtime_error {
  public:
    explicit PrepError(const std::string& message) : std::runtime_error(message) {}
};
