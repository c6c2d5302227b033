#pragma once

#include <cstdio>
#include <functional>
#include <string>

extern const std::string program; // "Seaforge"
extern const std::string version; // "1.1.938"

// The 45 "=" framed program line, on standard output.
void PrintBanner();

// The usage text, on standard output; main prints it for any argument count but one.
void PrintUsage();
void usage(std::FILE* stream);

// One whole run on the project file `xmlFileName`: owns every object of the run and runs
// the stages in their fixed order. A failing stage throws its error code (an int, see
// ErrorCodes.hpp) after the component has printed its own error block; the objects are
// destroyed by the unwinding before the caller prints the code's block.
// `stageDone`, when given, hears the name of each stage as it ends (the end-to-end
// benchmark times the stages with it); it prints nothing.
using StageObserver = std::function<void(const std::string& stage)>;
void RunProject(const char* xmlFileName, const StageObserver& stageDone = {});
