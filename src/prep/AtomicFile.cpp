#include "prep/AtomicFile.hpp"

#include "prep/PrepError.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::string Reason(int error) { return std::strerror(error); }

// A temporary beside `path`, with the permissions a new file there would get.
int MakeTemporary(const std::string& path, std::string& temporary) {
    std::vector<char> name(path.begin(), path.end());
    const std::string suffix = ".tmp-XXXXXX";
    name.insert(name.end(), suffix.begin(), suffix.end());
    name.push_back('\0');
    const int fd = mkstemp(name.data());
    if (fd < 0)
        throw PrepError("cannot write " + path + ": " + Reason(errno));
    temporary = name.data();
    const mode_t mask = umask(0);
    umask(mask);
    (void)fchmod(fd, 0666 & ~mask); // mkstemp's 0600 would hide the grid from the group
    return fd;
}

void Commit(const std::string& temporary, const std::string& path) {
    if (std::rename(temporary.c_str(), path.c_str()) != 0) {
        const int error = errno;
        std::remove(temporary.c_str());
        throw PrepError("cannot write " + path + ": " + Reason(error));
    }
}

} // namespace

void WriteFileAtomically(const std::string& path, const std::function<bool(std::FILE*)>& write) {
    std::string temporary;
    const int fd = MakeTemporary(path, temporary);
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
    Commit(temporary, path);
}

void ReplaceFileAtomically(const std::string& path,
                           const std::function<bool(const std::string&)>& write) {
    std::string temporary;
    close(MakeTemporary(path, temporary));
    bool ok = false;
    try {
        ok = write(temporary);
    } catch (...) {
        std::remove(temporary.c_str());
        throw;
    }
    if (ok) {
        const int fd = open(temporary.c_str(), O_RDONLY);
        ok = fd >= 0 && fsync(fd) == 0;
        if (fd >= 0)
            close(fd);
    }
    if (!ok) {
        std::remove(temporary.c_str());
        throw PrepError("cannot write " + path + ": the file could not be written in full");
    }
    Commit(temporary, path);
}
