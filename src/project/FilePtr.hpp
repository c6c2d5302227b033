#pragma once

#include <cstdio>
#include <memory>

// A C stream closed when its owner goes, so no early return leaks a handle. Where a
// write must be known to have reached the disk, check std::ferror and close it by hand.
struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;
