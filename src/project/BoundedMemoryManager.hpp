#pragma once

#include <xercesc/framework/MemoryManager.hpp>

#include <cstddef>

// The memory the XML parser works in. A project file comes from somebody else and a few
// hundred bytes of entity declarations can expand to gigabytes, so what one parse may take
// is bounded by the file, not by the machine; past a bound the allocation fails with the
// library's OutOfMemoryException, which the library carries out of the parse like any
// failed allocation, and the reader reports "Miss Parse".
//
// Two bounds, both fixed before the parse starts:
// - held: bytes allocated and not yet freed. This caps memory however the text grows
//   (element content, attribute values, defaults declared in the document type, the
//   document type itself).
// - entity text: every entity the library expands (general or parameter, in content, in
//   an attribute value or in a declared default) gets a reader of its own from this
//   manager. Each is charged as if it read the longest entity declared so far, plus a
//   fixed cost for the reader itself. This caps the time expansions can take where they
//   leave nothing behind: empty entities, or white space that a non-CDATA default
//   collapses.
// Blocks still held when the manager is destroyed are freed with it: the library loses a
// few when an allocation fails halfway through making an entity's reader. So it must
// outlive the parser and the document it made. Not thread-safe; one parse at a time.
class BoundedMemoryManager : public XERCES_CPP_NAMESPACE::MemoryManager {
  public:
    struct Limits {
        std::size_t held;       // bytes
        std::size_t entityText; // characters, as charged above
    };

    // The limits for a document of `fileSize` bytes (0 when unknown).
    [[nodiscard]] static Limits ForDocument(std::size_t fileSize);

    explicit BoundedMemoryManager(Limits limits) : limits_(limits) {}
    ~BoundedMemoryManager() override;
    BoundedMemoryManager(const BoundedMemoryManager&) = delete;
    BoundedMemoryManager& operator=(const BoundedMemoryManager&) = delete;

    void* allocate(XMLSize_t size) override;
    void deallocate(void* block) override;
    // Exceptions may outlive this manager while they unwind past it.
    MemoryManager* getExceptionMemoryManager() override;

    // An entity was declared whose value is `length` characters long.
    void NoteEntity(std::size_t length);
    // The parse is over: from here on nothing is refused, so that reading the finished
    // tree (which copies text out of it) never fails halfway.
    void Lift() { lifted_ = true; }

    std::size_t held() const { return held_; }

  private:
    struct Block;

    Limits limits_;
    Block* blocks_ = nullptr; // every block held, most recent first
    std::size_t held_ = 0;
    std::size_t entityText_ = 0;
    std::size_t longestEntity_ = 0;
    bool lifted_ = false;
};
