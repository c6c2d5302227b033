#include "region/Grid2d.hpp"

#include <cstdint>
#include <mutex>
#include <new>

#include <sys/mman.h>

namespace {

std::size_t Rounded(std::size_t bytes) {
    return (bytes + kHugePageBytes - 1) / kHugePageBytes * kHugePageBytes;
}

// The last block given back, kept for the next grid. A run frees one grid and then reads
// the next of the same size; a block the process already has is written at memory speed,
// while fresh pages are first zeroed by the kernel, which on virtual machines costs more
// than parsing the grid's text. At most one block is kept, and it is unmapped before any
// block it cannot serve is mapped, so the peak never holds a spare beside a new grid.
std::mutex gSpareMutex;
void* gSpare = nullptr;
std::size_t gSpareSize = 0;
thread_local bool tFreshOnly = false;
thread_local bool tSparse = false;

void* MapFresh(std::size_t size) {
    // One spare huge page of address space, so the block can start on a boundary; the
    // unused ends go straight back.
    void* mapped = mmap(nullptr, size + kHugePageBytes, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED)
        throw std::bad_alloc();
    const auto start = reinterpret_cast<std::uintptr_t>(mapped);
    const std::uintptr_t aligned = (start + kHugePageBytes - 1) / kHugePageBytes * kHugePageBytes;
    if (aligned > start)
        munmap(mapped, aligned - start);
    if (const std::size_t tail = start + kHugePageBytes - aligned; tail > 0)
        munmap(reinterpret_cast<void*>(aligned + size), tail);
    void* block = reinterpret_cast<void*>(aligned);
    // Only advice: where huge pages are off or scarce the block works as it is.
    if (!tSparse)
        (void)madvise(block, size, MADV_HUGEPAGE);
    return block;
}
} // namespace

FreshHugeBlocks::FreshHugeBlocks(Use use) : savedFresh_(tFreshOnly), savedSparse_(tSparse) {
    tFreshOnly = true;
    tSparse = use == kSparse;
}
FreshHugeBlocks::~FreshHugeBlocks() {
    tFreshOnly = savedFresh_;
    tSparse = savedSparse_;
}

void* AllocateHuge(std::size_t bytes) {
    const std::size_t size = Rounded(bytes);
    if (size < bytes || size > SIZE_MAX - kHugePageBytes)
        throw std::bad_alloc();
    {
        const std::lock_guard<std::mutex> lock(gSpareMutex);
        if (gSpare != nullptr) {
            void* spare = gSpare;
            const std::size_t spareSize = gSpareSize;
            gSpare = nullptr;
            gSpareSize = 0;
            if (!tFreshOnly && spareSize >= size) {
                if (spareSize > size)
                    munmap(static_cast<char*>(spare) + size, spareSize - size);
                // A spare that held a sparse grid is in small pages until advised.
                (void)madvise(spare, size, MADV_HUGEPAGE);
                return spare;
            }
            munmap(spare, spareSize);
        }
    }
    return MapFresh(size);
}

namespace {
// Keeps `p` (or nothing) as the spare block; the one it replaces is unmapped outside the
// lock.
void ReplaceSpare(void* p, std::size_t size) noexcept {
    void* old = nullptr;
    std::size_t oldSize = 0;
    {
        const std::lock_guard<std::mutex> lock(gSpareMutex);
        old = gSpare;
        oldSize = gSpareSize;
        gSpare = p;
        gSpareSize = size;
    }
    if (old != nullptr)
        munmap(old, oldSize);
}
} // namespace

void DeallocateHuge(void* p, std::size_t bytes) noexcept { ReplaceSpare(p, Rounded(bytes)); }

void ReleaseSpareHugeBlock() noexcept { ReplaceSpare(nullptr, 0); }
