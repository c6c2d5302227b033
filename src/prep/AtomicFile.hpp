#pragma once

#include <cstdio>
#include <functional>
#include <string>

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
