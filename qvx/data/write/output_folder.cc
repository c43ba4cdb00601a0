#include "qvx/data/write/output_folder.h"

#include <boost/filesystem.hpp>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

#include "qvx/support/format.h"

namespace qvx {
namespace {

constexpr mode_t kFileMode = 0666;
constexpr mode_t kFolderMode = 0777;
// A search descriptor: it needs no permission to list the folder.
constexpr int kFolderFlags = O_PATH | O_DIRECTORY | O_CLOEXEC;

template <typename Call>
auto retried(Call call) {
  decltype(call()) result;
  do {
    result = call();
  } while (result == -1 && errno == EINTR);
  return result;
}

FileDescriptor open_root(const std::string& root, bool create) {
  const char* const path = root.empty() ? "." : root.c_str();
  FileDescriptor folder(retried([&] { return open(path, kFolderFlags); }));
  if (folder || !create || errno != ENOENT) return folder;
  boost::system::error_code fault;
  boost::filesystem::create_directories(path, fault);
  return FileDescriptor(retried([&] { return open(path, kFolderFlags); }));
}

FileDescriptor open_subfolder(int folder, const std::string& name, bool create) {
  const auto open_it = [&] { return openat(folder, name.c_str(), kFolderFlags | O_NOFOLLOW); };
  FileDescriptor opened(retried(open_it));
  if (opened || !create || errno != ENOENT) return opened;
  if (mkdirat(folder, name.c_str(), kFolderMode) != 0 && errno != EEXIST) return {};
  return FileDescriptor(retried(open_it));
}

bool is_link_to_something(int folder, const std::string& name) {
  const int saved = errno;
  FileIdentity ignored;
  const bool is_link = look_at(folder, name, ignored) == EntryKind::link;
  errno = saved;
  return is_link;
}

FileIdentity identity_of(const struct stat& status) {
  return {status.st_dev, status.st_ino};
}

// Writes the bytes into a file that has no name yet, or not its own.
bool fill(int descriptor, const void* bytes, std::size_t size, FileIdentity& identity, bool& writing) {
  writing = true;
  struct stat status {};
  if (write_all(descriptor, bytes, size) != size || fstat(descriptor, &status) != 0) return false;
  identity = identity_of(status);
  writing = false;
  return true;
}

// Gives a file its name, unless something has it already.
bool move_to_free_name(int folder, const std::string& from, const std::string& to) {
  if (renameat2(folder, from.c_str(), folder, to.c_str(), RENAME_NOREPLACE) == 0) return true;
  if (errno != EINVAL && errno != ENOSYS) return false;
  if (linkat(folder, from.c_str(), folder, to.c_str(), 0) != 0) return false;
  unlinkat(folder, from.c_str(), 0);
  return true;
}

}  // namespace

std::optional<std::vector<std::string>> path_below(std::string_view path) {
  std::vector<std::string> components;
  std::string_view last;
  while (true) {
    const std::size_t slash = path.find('/');
    last = path.substr(0, slash);
    if (last == "..") {
      if (components.empty()) return std::nullopt;
      components.pop_back();
    } else if (!last.empty() && last != ".") {
      components.emplace_back(last);
    }
    if (slash == std::string_view::npos) break;
    path.remove_prefix(slash + 1);
  }
  if (last.empty() || last == "." || last == "..") return std::nullopt;
  return components;
}

FolderFault open_folder_below(const std::string& root, const std::vector<std::string>& path, bool create,
                              FileDescriptor& folder) {
  folder = open_root(root, create);
  if (!folder) return FolderFault::inaccessible;
  for (std::size_t i = 0; i + 1 < path.size(); ++i) {
    FileDescriptor next = open_subfolder(folder.get(), path[i], create);
    if (!next) {
      const bool leaves = is_link_to_something(folder.get(), path[i]);
      folder.reset();
      return leaves ? FolderFault::leaves : FolderFault::inaccessible;
    }
    folder = std::move(next);
  }
  return FolderFault::none;
}

EntryKind look_at(int folder, const std::string& name, FileIdentity& identity) noexcept {
  struct stat status {};
  if (fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
    return errno == ENOENT ? EntryKind::missing : EntryKind::unknown;
  if (!S_ISLNK(status.st_mode)) {
    identity = identity_of(status);
    return EntryKind::file;
  }
  return fstatat(folder, name.c_str(), &status, 0) == 0 ? EntryKind::link : EntryKind::dangling_link;
}

FileDescriptor open_in(int folder, const std::string& name, int flags) noexcept {
  constexpr int kAlways = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  return FileDescriptor(retried([&] { return openat(folder, name.c_str(), flags | kAlways, kFileMode); }));
}

bool create_in(int folder, const std::string& name, const void* bytes, std::size_t size,
               FileIdentity& identity, bool& writing) {
  writing = false;
  FileDescriptor file(
      retried([&] { return openat(folder, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, kFileMode); }));
  if (!file) {
    const bool unsupported = errno == EOPNOTSUPP || errno == EISDIR || errno == ENOENT || errno == EINVAL;
    return unsupported && create_in_by_rename(folder, name, bytes, size, identity, writing);
  }
  if (!fill(file.get(), bytes, size, identity, writing)) return false;
  const std::string nameless = format_text("/proc/self/fd/%d", file.get());
  if (linkat(AT_FDCWD, nameless.c_str(), folder, name.c_str(), AT_SYMLINK_FOLLOW) == 0) return true;
  const bool no_proc = errno == ENOENT;
  return no_proc && create_in_by_rename(folder, name, bytes, size, identity, writing);
}

bool create_in_by_rename(int folder, const std::string& name, const void* bytes, std::size_t size,
                         FileIdentity& identity, bool& writing) {
  writing = false;
  constexpr int kDrafts = 100;  // interrupted programs of the same number may have left theirs
  std::string draft;
  FileDescriptor file;
  for (int number = 0; number < kDrafts && !file; ++number) {
    draft = format_text(".qvx-%d-%d.new", static_cast<int>(getpid()), number);
    file = open_in(folder, draft, O_WRONLY | O_CREAT | O_EXCL);
    if (!file && errno != EEXIST) return false;
  }
  if (!file) return false;
  if (fill(file.get(), bytes, size, identity, writing) && move_to_free_name(folder, draft, name)) return true;
  const int saved = errno;
  unlinkat(folder, draft.c_str(), 0);
  errno = saved;
  return false;
}

std::size_t write_all(int descriptor, const void* bytes, std::size_t size) noexcept {
  const auto* from = static_cast<const char*>(bytes);
  std::size_t written = 0;
  while (written < size) {
    const ssize_t count = retried([&] { return write(descriptor, from + written, size - written); });
    if (count < 0) break;
    if (count == 0) {
      errno = ENOSPC;
      break;
    }
    written += static_cast<std::size_t>(count);
  }
  return written;
}

}  // namespace qvx
