#pragma once

// GDAL's terminal progress line ("0...10...20...30...40...50...60...70...80...90...100 -
// done."), the one every GDAL user knows, written to standard error so standard output
// keeps only what a command reports. A GDALProgressFunc; `arg` is a TermProgress.
struct TermProgress {
    int ticksShown = -1; // of 40, one per 2.5 %
};
int StderrProgress(double complete, const char* message, void* arg);
