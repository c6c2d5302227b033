#pragma once

#include "region/Grid2d.hpp"

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// Files a user may already have are replaced only whole: the content goes to
// "<path>.tmp-XXXXXX" beside the target, reaches the disk, and is renamed over the target.
// A symbolic link is written through: the file it ends at is replaced, keeping its
// permission bits. A target that exists but is not a regular file (a directory, device,
// FIFO) is refused before anything is written. On any failure the temporary is removed,
// the target is left as it was, and PrepError names the path and the reason.

// `write` fills the open stream and answers whether every write succeeded.
void WriteFileAtomically(const std::string& path, const std::function<bool(std::FILE*)>& write);

// For writers that open the file themselves (GDAL): `write` is given the temporary's path
// and answers whether the file there is complete.
void ReplaceFileAtomically(const std::string& path,
                           const std::function<bool(const std::string&)>& write);

// The same replacement for content written at offsets, from any thread, while it is still
// being made: a grid's rows as the warp finishes them. Commit makes it the file; a file
// never committed is removed when this goes, leaving the target as it was.
class PendingFile {
  public:
    explicit PendingFile(const std::string& path); // PrepError when it cannot be made
    ~PendingFile();
    PendingFile(const PendingFile&) = delete;
    PendingFile& operator=(const PendingFile&) = delete;

    // Writes `bytes` at `offset`; a failure is kept for Commit. Safe from several threads
    // for ranges apart.
    void WriteAt(const void* data, std::size_t bytes, off_t offset) noexcept;
    // Lets the system start putting what was written in the range on the disk, so that
    // the fsync of Commit finds little left to do.
    void StartWriteBack(off_t offset, off_t bytes) noexcept;
    // `rows` rows of `rowBytes` bytes, one after another at `data`, for `offset` and on,
    // `offsetStride` apart: copied, and written and handed to write-back on a thread of
    // this file's own, so that the caller goes on at once. Beyond a few megabytes waiting,
    // the caller writes them itself.
    void WriteRowsSoon(const void* data, std::size_t rowBytes, int rows, off_t offset,
                       off_t offsetStride) noexcept;
    // Everything written reaches the disk and replaces the target; PrepError otherwise.
    void Commit();

  private:
    struct Rows {
        GridVector<char> bytes; // a large copy keeps to the blocks grids use and reuse
        std::size_t rowBytes;
        int rows;
        off_t offset;
        off_t stride;
    };
    void Write(const char* data, const Rows& where) noexcept;
    void WriteWaiting();
    void StopWriter() noexcept;

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Rows> waiting_;
    std::size_t waitingBytes_ = 0;
    bool stopping_ = false;
    std::thread writer_;

    std::string path_;
    std::string target_;
    std::string temporary_;
    int fd_ = -1;
    std::atomic<int> error_{0}; // the first errno a write met
    bool committed_ = false;
};
