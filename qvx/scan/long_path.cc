#include "qvx/scan/long_path.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <string>
#include <string_view>
#include <utility>

#include "qvx/support/file_descriptor.h"

namespace qvx {
namespace {

constexpr std::size_t kPieceEnd = PATH_MAX - 1;

// Calls use(folder, rest) with a rest of the path that is short enough, as seen from the folder.
template <typename Use>
int with_short_rest(const char* path, Use use) {
  std::string_view rest = path;
  FileDescriptor folder;
  while (rest.size() > kPieceEnd) {
    const std::size_t slash = rest.rfind('/', kPieceEnd);
    if (slash == rest.npos || slash == 0) {
      errno = ENAMETOOLONG;
      return -1;
    }
    const std::string piece(rest.substr(0, slash));
    FileDescriptor next(
        openat(folder ? folder.get() : AT_FDCWD, piece.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!next) return -1;
    folder = std::move(next);
    rest.remove_prefix(slash);
    rest.remove_prefix(std::min(rest.find_first_not_of('/'), rest.size()));
  }
  if (!folder) return use(AT_FDCWD, path);
  // What is left ends where the path ends; nothing is left of a path that ends in slashes.
  return use(folder.get(), rest.empty() ? "." : rest.data());
}

}  // namespace

int open_path(const char* path, int flags) {
  return with_short_rest(path, [flags](int folder, const char* rest) { return openat(folder, rest, flags); });
}

int stat_path(const char* path, struct stat& status) {
  return with_short_rest(
      path, [&status](int folder, const char* rest) { return fstatat(folder, rest, &status, 0); });
}

}  // namespace qvx
