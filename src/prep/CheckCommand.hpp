#pragma once

#include "prep/CheckFindings.hpp"

#include <cstdio>
#include <string>
#include <vector>

// `seaforge-prep check`: what a run of the project would refuse, and what it would let
// through that is likely wrong, found with the run's own code and without writing anything.
struct CheckOptions {
    std::string project;
    bool json = false;        // the report as JSON on standard output
    double cflLimit = 1.0;    // a region's CFL number above this is unstable
    double jumpShare = 0.10;  // a nested region's boundary depth may differ from its base's
    double jumpMetres = 5.0;  // by the larger of this share of the local depth and this
};

// 0 when there is no finding, 1 when the run would fail, 2 when there are only warnings.
// The report goes to standard output; nothing else is printed.
[[nodiscard]] int RunCheck(const CheckOptions& options);

// RunCheck in parts, for commands that use the check's measures themselves: the report
// gathered (nothing printed), printed as RunCheck prints it (answering its status), and
// its status.
[[nodiscard]] Report CheckProject(const CheckOptions& options);
int PrintCheck(const Report& report, bool json, std::FILE* out = stdout);
[[nodiscard]] int CheckStatus(const Report& report);

// The report's lines, as its text shows them: the estimate, one finding, the counts.
[[nodiscard]] std::string EstimateLine(const Report& report);
[[nodiscard]] std::string FindingLine(const Finding& finding);
[[nodiscard]] std::string CountLine(const Report& report);

// The run's peak memory for regions of these sizes: every topography lives to the end,
// one region's other grids at a time.
struct RunRegionSize {
    double cells = 0;               // grid points
    bool constructionLines = false; // the region has construction-line data
};
[[nodiscard]] double EstimatedPeakBytes(const std::vector<RunRegionSize>& regions);
// "peak memory about N MiB"
[[nodiscard]] std::string PeakMemoryText(double bytes);
