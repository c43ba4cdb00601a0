// Paths of any length: the system takes those shorter than PATH_MAX, longer ones are gone along in pieces.
#pragma once

#include <sys/stat.h>

namespace qvx {

// As open() and stat() of the whole path; -1, with errno set, on failure. Of a longer path each piece may
// follow as many links as the system allows for one path. Throw std::bad_alloc.
[[nodiscard]] int open_path(const char* path, int flags);
[[nodiscard]] int stat_path(const char* path, struct stat& status);

}  // namespace qvx
