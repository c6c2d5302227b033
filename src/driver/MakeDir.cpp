#include "driver/MakeDir.hpp"

#include <string>
#include <sys/stat.h>

bool IsExistDir(const char* path) {
    struct stat info {};
    return stat(path, &info) == 0 && S_ISDIR(info.st_mode);
}

bool MakeDir(const char* path) {
    if (path == nullptr || *path == '\0')
        return false;
    if (IsExistDir(path))
        return true;
    const std::string full(path);
    for (size_t end = 1; end <= full.size(); ++end) {
        if (end < full.size() && full[end] != '/')
            continue;
        const std::string prefix = full.substr(0, end);
        // A failed mkdir is not an error yet: the final test says whether the path exists.
        if (!IsExistDir(prefix.c_str()))
            (void)mkdir(prefix.c_str(), 0755);
    }
    return IsExistDir(path);
}
