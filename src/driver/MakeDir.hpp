#pragma once

// Creates `path` level by level (mode 0755), like mkdir -p. False for an empty path or when
// the whole path is not a directory at the end; true at once when it already is one.
[[nodiscard]] bool MakeDir(const char* path);

// True when `path` names an existing directory.
[[nodiscard]] bool IsExistDir(const char* path);
