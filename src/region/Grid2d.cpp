#include "region/Grid2d.hpp"

#include <cstdint>
#include <new>

#include <sys/mman.h>

namespace {
constexpr std::size_t kHugePage = std::size_t{2} << 20;

std::size_t Rounded(std::size_t bytes) { return (bytes + kHugePage - 1) / kHugePage * kHugePage; }
} // namespace

void* AllocateHuge(std::size_t bytes) {
    const std::size_t size = Rounded(bytes);
    if (size < bytes || size > SIZE_MAX - kHugePage)
        throw std::bad_alloc();
    // One spare huge page of address space, so the block can start on a boundary; the
    // unused ends go straight back.
    void* mapped = mmap(nullptr, size + kHugePage, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED)
        throw std::bad_alloc();
    const auto start = reinterpret_cast<std::uintptr_t>(mapped);
    const std::uintptr_t aligned = (start + kHugePage - 1) / kHugePage * kHugePage;
    if (aligned > start)
        munmap(mapped, aligned - start);
    if (const std::size_t tail = start + kHugePage - aligned; tail > 0)
        munmap(reinterpret_cast<void*>(aligned + size), tail);
    void* block = reinterpret_cast<void*>(aligned);
    // Only advice: where huge pages are off or scarce the block works as it is.
    (void)madvise(block, size, MADV_HUGEPAGE);
    return block;
}

void DeallocateHuge(void* p, std::size_t bytes) noexcept { munmap(p, Rounded(bytes)); }
