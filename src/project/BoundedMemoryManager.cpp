#include "project/BoundedMemoryManager.hpp"

#include <xercesc/internal/XMLReader.hpp>
#include <xercesc/util/OutOfMemoryException.hpp>
#include <xercesc/util/PlatformUtils.hpp>

#include <cstddef>
#include <cstdlib>
#include <limits>

using namespace XERCES_CPP_NAMESPACE;

namespace {

constexpr std::size_t kMiB = std::size_t{1} << 20;

// What the expansions may add on top of the file's own tree. A project's tree takes well
// under a megabyte; a file that needs more is made to grow.
constexpr std::size_t kHeldBeyondFile = 64 * kMiB;
// What the file's own markup and text may take: the most any file without entities was
// measured to need is 92 times its size (unique element names, one per line; empty
// elements 78, plain text 4.5 to 9), so such a file should never meet the bound.
constexpr std::size_t kHeldPerFileByte = 128;
// Characters that entity readers may be charged in all. White space that a default
// collapses costs about 7 ns a character, so this is about a second of scanning; a project
// using a few thousand short entities is charged a few million, and the 10000 references
// the library allows in content fit whenever the longest entity is under 9 K characters.
constexpr std::size_t kEntityTextLimit = 128 * kMiB;
// An empty expansion still costs a reader of 160 KiB: this lets 32768 of them through.
constexpr std::size_t kReaderCost = 4096;

// The library allocates each entity's reader through the parser's manager as one block of
// this size (XMemory puts the manager's address in front of the object). Nothing else
// tells a manager that an expansion starts; BoundedMemoryManagerTest checks it still holds.
const std::size_t kReaderBlock =
    XMLPlatformUtils::alignPointerForNewBlockAllocation(sizeof(MemoryManager*)) + sizeof(XMLReader);

std::size_t SaturatingAdd(std::size_t a, std::size_t b) {
    return a > std::numeric_limits<std::size_t>::max() - b ? std::numeric_limits<std::size_t>::max()
                                                           : a + b;
}

} // namespace

// In front of every block: its size, so that deallocate knows what it gives back, and its
// place in the list of blocks held. Aligned as malloc aligns, so the block after it is too.
struct alignas(std::max_align_t) BoundedMemoryManager::Block {
    Block* previous;
    Block* next;
    std::size_t size;
};

BoundedMemoryManager::~BoundedMemoryManager() {
    while (blocks_ != nullptr) {
        Block* const next = blocks_->next;
        std::free(blocks_);
        blocks_ = next;
    }
}

BoundedMemoryManager::Limits BoundedMemoryManager::ForDocument(std::size_t fileSize) {
    const std::size_t perFile =
        fileSize > std::numeric_limits<std::size_t>::max() / kHeldPerFileByte
            ? std::numeric_limits<std::size_t>::max()
            : fileSize * kHeldPerFileByte;
    return {SaturatingAdd(kHeldBeyondFile, perFile), kEntityTextLimit};
}

void* BoundedMemoryManager::allocate(XMLSize_t size) {
    if (!lifted_) {
        if (size > limits_.held - held_)
            throw OutOfMemoryException();
        if (size == kReaderBlock) {
            const std::size_t charge = SaturatingAdd(longestEntity_, kReaderCost);
            if (charge > limits_.entityText - entityText_)
                throw OutOfMemoryException();
            entityText_ += charge;
        }
    }
    if (size > std::numeric_limits<std::size_t>::max() - sizeof(Block))
        throw OutOfMemoryException();
    Block* const block = static_cast<Block*>(std::malloc(sizeof(Block) + size));
    if (block == nullptr)
        throw OutOfMemoryException();
    *block = {nullptr, blocks_, size};
    if (blocks_ != nullptr)
        blocks_->previous = block;
    blocks_ = block;
    held_ += size;
    return block + 1;
}

void BoundedMemoryManager::deallocate(void* p) {
    if (p == nullptr)
        return;
    Block* const block = static_cast<Block*>(p) - 1;
    (block->previous != nullptr ? block->previous->next : blocks_) = block->next;
    if (block->next != nullptr)
        block->next->previous = block->previous;
    held_ -= block->size;
    std::free(block);
}

MemoryManager* BoundedMemoryManager::getExceptionMemoryManager() {
    return XMLPlatformUtils::fgMemoryManager;
}

void BoundedMemoryManager::NoteEntity(std::size_t length) {
    if (length > longestEntity_)
        longestEntity_ = length;
}
