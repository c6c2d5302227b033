#include "prep/Progress.hpp"

#include <algorithm>
#include <cstdio>

int StderrProgress(double complete, const char* /*message*/, void* arg) {
    auto* state = static_cast<TermProgress*>(arg);
    const int ticks = static_cast<int>(std::clamp(complete, 0.0, 1.0) * 40.0);
    while (state->ticksShown < ticks) {
        const int tick = ++state->ticksShown;
        if (tick % 4 == 0)
            std::fprintf(stderr, "%d", tick / 4 * 10);
        else
            std::fputc('.', stderr);
    }
    if (ticks == 40 && state->ticksShown == 40) {
        std::fputs(" - done.\n", stderr);
        state->ticksShown = 41; // said once
    }
    std::fflush(stderr);
    return 1;
}
