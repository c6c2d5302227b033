#pragma once

#include <string>

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
