#include "prep/AtomicFile.hpp"

#include "prep/PrepError.hpp"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::string Reason(int error) { return std::strerror(error); }

const char* KindOf(mode_t mode) {
    if (S_ISDIR(mode))
        return "a directory";
    if (S_ISCHR(mode))
        return "a character device";
    if (S_ISBLK(mode))
        return "a block device";
    if (S_ISFIFO(mode))
        return "a FIFO";
    if (S_ISSOCK(mode))
        return "a socket";
    return "not a regular file";
}

// Where the content must land: the file a chain of symbolic links ends at (a link that
// dangles names the file to create), so the rename replaces that file, not the link.
// Only a regular file is replaced: renaming over a device or a FIFO would remove the node.
struct Destination {
    std::string path;
    std::optional<mode_t> mode; // the replaced file's permission bits
};

Destination Resolve(const std::string& given) {
    std::string path = given;
    for (int hops = 0;; ++hops) {
        struct stat info {};
        if (lstat(path.c_str(), &info) != 0) {
            if (errno == ENOENT)
                return {path, std::nullopt};
            throw PrepError("cannot write " + given + ": " + Reason(errno));
        }
        if (S_ISLNK(info.st_mode)) {
            if (hops == 40)
                throw PrepError("cannot write " + given + ": " + Reason(ELOOP));
            std::vector<char> target(PATH_MAX + 1);
            const ssize_t n = readlink(path.c_str(), target.data(), PATH_MAX);
            if (n < 0)
                throw PrepError("cannot write " + given + ": " + Reason(errno));
            std::string next(target.data(), static_cast<std::size_t>(n));
            const std::size_t slash = path.rfind('/');
            if (!next.empty() && next.front() != '/' && slash != std::string::npos)
                next = path.substr(0, slash + 1) + next;
            path = next;
            continue;
        }
        if (!S_ISREG(info.st_mode))
            throw PrepError("cannot write " + given + ": it is " + KindOf(info.st_mode) +
                            ", and only a regular file is replaced");
        return {path, info.st_mode & 07777};
    }
}

// A temporary beside the file it will replace, with that file's permission bits, or those
// a new file there would get.
int MakeTemporary(const std::string& given, const Destination& to, std::string& temporary) {
    std::vector<char> name(to.path.begin(), to.path.end());
    const std::string suffix = ".tmp-XXXXXX";
    name.insert(name.end(), suffix.begin(), suffix.end());
    name.push_back('\0');
    const int fd = mkstemp(name.data());
    if (fd < 0)
        throw PrepError("cannot write " + given + ": " + Reason(errno));
    temporary = name.data();
    mode_t mode = 0;
    if (to.mode) {
        mode = *to.mode;
    } else {
        const mode_t mask = umask(0);
        umask(mask);
        mode = 0666 & ~mask; // mkstemp's 0600 would hide the grid from the group
    }
    (void)fchmod(fd, mode); // the content matters more than its bits: a failure is not fatal
    return fd;
}

void CommitTemporary(const std::string& temporary, const std::string& given,
                     const Destination& to) {
    if (std::rename(temporary.c_str(), to.path.c_str()) != 0) {
        const int error = errno;
        std::remove(temporary.c_str());
        throw PrepError("cannot write " + given + ": " + Reason(error));
    }
}

} // namespace

void WriteFileAtomically(const std::string& path, const std::function<bool(std::FILE*)>& write) {
    const Destination to = Resolve(path);
    std::string temporary;
    const int fd = MakeTemporary(path, to, temporary);
    std::FILE* file = fdopen(fd, "wb");
    if (file == nullptr) {
        const int error = errno;
        close(fd);
        std::remove(temporary.c_str());
        throw PrepError("cannot write " + path + ": " + Reason(error));
    }
    errno = 0;
    bool ok = write(file) && std::fflush(file) == 0 && fsync(fileno(file)) == 0;
    int error = errno;
    if (std::fclose(file) != 0 && ok) {
        ok = false;
        error = errno;
    }
    if (!ok) {
        std::remove(temporary.c_str());
        throw PrepError("cannot write " + path + ": " +
                        (error != 0 ? Reason(error) : std::string("a write failed")));
    }
    CommitTemporary(temporary, path, to);
}

void ReplaceFileAtomically(const std::string& path,
                           const std::function<bool(const std::string&)>& write) {
    const Destination to = Resolve(path);
    std::string temporary;
    close(MakeTemporary(path, to, temporary));
    bool ok = false;
    try {
        ok = write(temporary);
    } catch (...) {
        std::remove(temporary.c_str());
        throw;
    }
    if (ok) {
        // A writer that made the file anew (GDAL) gave it the umask's bits.
        if (to.mode)
            (void)chmod(temporary.c_str(), *to.mode);
        const int fd = open(temporary.c_str(), O_RDONLY);
        ok = fd >= 0 && fsync(fd) == 0;
        if (fd >= 0)
            close(fd);
    }
    if (!ok) {
        std::remove(temporary.c_str());
        throw PrepError("cannot write " + path + ": the file could not be written in full");
    }
    CommitTemporary(temporary, path, to);
}

PendingFile::PendingFile(const std::string& path) : path_(path) {
    const Destination to = Resolve(path);
    target_ = to.path;
    fd_ = MakeTemporary(path, to, temporary_);
}

PendingFile::~PendingFile() {
    StopWriter();
    if (committed_)
        return;
    if (fd_ >= 0)
        close(fd_);
    std::remove(temporary_.c_str());
}

void PendingFile::WriteAt(const void* data, std::size_t bytes, off_t offset) noexcept {
    const auto* from = static_cast<const char*>(data);
    for (std::size_t left = bytes; left > 0;) {
        const ssize_t n = pwrite(fd_, from, left, offset);
        if (n <= 0) {
            int expected = 0;
            error_.compare_exchange_strong(expected, n < 0 ? errno : ENOSPC);
            return;
        }
        from += n;
        left -= static_cast<std::size_t>(n);
        offset += n;
    }
}

void PendingFile::StartWriteBack(off_t offset, off_t bytes) noexcept {
    (void)sync_file_range(fd_, offset, bytes, SYNC_FILE_RANGE_WRITE);
}

namespace {
// What may wait for the writer thread: the grid's chunks are a few megabytes each.
constexpr std::size_t kMostWaiting = std::size_t{16} << 20;
} // namespace

void PendingFile::Write(const char* data, const Rows& where) noexcept {
    if (where.stride == static_cast<off_t>(where.rowBytes)) // rows that follow each other
        WriteAt(data, where.rowBytes * static_cast<std::size_t>(where.rows), where.offset);
    else
        for (int r = 0; r < where.rows; ++r)
            WriteAt(data + static_cast<std::size_t>(r) * where.rowBytes, where.rowBytes,
                    where.offset + r * where.stride);
    StartWriteBack(where.offset,
                   (where.rows - 1) * where.stride + static_cast<off_t>(where.rowBytes));
}

void PendingFile::WriteRowsSoon(const void* data, std::size_t rowBytes, int rows, off_t offset,
                                off_t offsetStride) noexcept {
    if (rows <= 0)
        return;
    const std::size_t bytes = rowBytes * static_cast<std::size_t>(rows);
    Rows where{{}, rowBytes, rows, offset, offsetStride};
    try {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (waitingBytes_ + bytes <= kMostWaiting) {
            if (!writer_.joinable())
                writer_ = std::thread([this] { WriteWaiting(); });
            const auto* from = static_cast<const char*>(data);
            where.bytes.assign(from, from + bytes);
            waitingBytes_ += bytes;
            waiting_.push_back(std::move(where));
            wake_.notify_one();
            return;
        }
    } catch (...) {
        // No thread or no memory for the copy: written here and now instead.
    }
    Write(static_cast<const char*>(data), where);
}

void PendingFile::WriteWaiting() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] { return stopping_ || !waiting_.empty(); });
        if (waiting_.empty())
            return; // stopping, and nothing left
        Rows rows = std::move(waiting_.front());
        waiting_.pop_front();
        lock.unlock();
        Write(rows.bytes.data(), rows);
        lock.lock();
        waitingBytes_ -= rows.bytes.size();
    }
}

void PendingFile::StopWriter() noexcept {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_one();
    if (writer_.joinable())
        writer_.join();
}

void PendingFile::Commit() {
    StopWriter(); // every row written first
    int error = error_.load();
    if (error == 0 && fsync(fd_) != 0)
        error = errno;
    if (close(fd_) != 0 && error == 0)
        error = errno;
    fd_ = -1;
    if (error != 0) {
        std::remove(temporary_.c_str());
        committed_ = true; // nothing left to remove
        throw PrepError("cannot write " + path_ + ": " + Reason(error));
    }
    committed_ = true;
    CommitTemporary(temporary_, path_, Destination{target_, std::nullopt});
}
