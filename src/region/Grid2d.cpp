#include "region/Grid2d.hpp"

#include <cstdlib>
#include <new>

#include <sys/mman.h>

namespace {
constexpr std::size_t kHugePage = std::size_t{2} << 20;
}

void* AllocateHuge(std::size_t bytes) {
    const std::size_t rounded = (bytes + kHugePage - 1) / kHugePage * kHugePage;
    if (rounded < bytes)
        throw std::bad_alloc();
    void* p = std::aligned_alloc(kHugePage, rounded);
    if (p == nullptr)
        throw std::bad_alloc();
    // Only advice: where huge pages are off or scarce the block works as it is.
    (void)madvise(p, rounded, MADV_HUGEPAGE);
    return p;
}

void DeallocateHuge(void* p) noexcept { std::free(p); }
