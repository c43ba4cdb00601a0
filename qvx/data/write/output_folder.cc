#include "qvx/data/write/output_folder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <utility>

#include "qvx/support/format.h"

namespace qvx {
namespace {

constexpr mode_t kFileMode = 0666;
constexpr mode_t kFolderMode = 0777;
constexpr int kNewFileFlags = O_RDWR | O_APPEND | O_CLOEXEC;
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

// Opens, and asks for room as long as the process is out of descriptors.
template <typename Open>
FileDescriptor opened_by(const MakeRoom& make_room, Open open_it) {
  while (true) {
    FileDescriptor opened(retried(open_it));
    if (opened || (errno != EMFILE && errno != ENFILE) || !make_room) return opened;
    const int error = errno;
    if (make_room()) continue;
    errno = error;
    return {};
  }
}

FileDescriptor open_root(const std::string& root, bool create, const MakeRoom& make_room) {
  const char* const path = root.empty() ? "." : root.c_str();
  const auto open_it = [&] { return open(path, kFolderFlags); };
  FileDescriptor folder = opened_by(make_room, open_it);
  if (folder || !create || errno != ENOENT) return folder;
  std::error_code fault;
  std::filesystem::create_directories(path, fault);
  return opened_by(make_room, open_it);
}

FileDescriptor open_subfolder(int folder, const std::string& name, bool create, const MakeRoom& make_room) {
  const auto open_it = [&] { return openat(folder, name.c_str(), kFolderFlags | O_NOFOLLOW); };
  FileDescriptor opened = opened_by(make_room, open_it);
  if (opened || !create || errno != ENOENT) return opened;
  if (mkdirat(folder, name.c_str(), kFolderMode) != 0 && errno != EEXIST) return {};
  return opened_by(make_room, open_it);
}

bool is_link_to_something(int folder, const std::string& name) {
  const int saved = errno;
  FileIdentity ignored;
  const bool is_link = look_at(folder, name, ignored) == EntryKind::link;
  errno = saved;
  return is_link;
}

std::int64_t nanoseconds(const struct statx_timestamp& time) {
  return time.tv_sec * 1000000000 + time.tv_nsec;
}

FileIdentity identity_of(const struct statx& status) {
  FileIdentity identity;
  identity.device = makedev(status.stx_dev_major, status.stx_dev_minor);
  identity.number = status.stx_ino;
  if ((status.stx_mask & STATX_BTIME) != 0) identity.born = nanoseconds(status.stx_btime);
  identity.changed = nanoseconds(status.stx_ctime);
  return identity;
}

constexpr unsigned kStatus = STATX_BASIC_STATS | STATX_BTIME;

bool fill(int descriptor, const void* bytes, std::size_t size, bool& writing) {
  writing = write_all(descriptor, bytes, size) != size;
  return !writing;
}

// What a file system says to a way of making files that it does not have.
bool is_unsupported(int error) {
  return error == EOPNOTSUPP || error == ENOSYS || error == EINVAL || error == EISDIR || error == EPERM ||
         error == ENOENT || error == EMLINK;
}

// The ways to create a file, the best first. Each fails with kNotHere where the file system lacks it.
constexpr int kNotHere = ENOSYS;

FileDescriptor create_nameless(int folder, const std::string& name, const void* bytes, std::size_t size,
                               bool& writing, const MakeRoom& make_room) {
  FileDescriptor file =
      opened_by(make_room, [&] { return openat(folder, ".", O_TMPFILE | kNewFileFlags, kFileMode); });
  if (!file) {
    if (is_unsupported(errno)) errno = kNotHere;
    return {};
  }
  if (!fill(file.get(), bytes, size, writing)) return {};
  const std::string nameless = format_text("/proc/self/fd/%d", file.get());
  if (linkat(AT_FDCWD, nameless.c_str(), folder, name.c_str(), AT_SYMLINK_FOLLOW) == 0) return file;
  if (is_unsupported(errno)) errno = kNotHere;
  return {};
}

// Gives a file its name, unless something has it already.
bool move_to_free_name(int folder, const std::string& from, const std::string& to) {
  if (renameat2(folder, from.c_str(), folder, to.c_str(), RENAME_NOREPLACE) == 0) return true;
  if (!is_unsupported(errno)) return false;
  if (linkat(folder, from.c_str(), folder, to.c_str(), 0) == 0) {
    unlinkat(folder, from.c_str(), 0);
    return true;
  }
  if (is_unsupported(errno)) errno = kNotHere;
  return false;
}

FileDescriptor create_by_rename(int folder, const std::string& name, const void* bytes, std::size_t size,
                                bool& writing, const MakeRoom& make_room) {
  constexpr int kDrafts = 100;  // interrupted programs of the same number may have left theirs
  std::string draft;
  FileDescriptor file;
  for (int number = 0; number < kDrafts && !file; ++number) {
    draft = format_text(".qvx-%d-%d.new", static_cast<int>(getpid()), number);
    file = open_in(folder, draft, kNewFileFlags | O_CREAT | O_EXCL, make_room);
    if (!file && errno != EEXIST) return {};
  }
  if (!file) return {};
  if (fill(file.get(), bytes, size, writing) && move_to_free_name(folder, draft, name)) return file;
  const int saved = errno;
  unlinkat(folder, draft.c_str(), 0);
  errno = saved;
  return {};
}

FileDescriptor create_plainly(int folder, const std::string& name, const void* bytes, std::size_t size,
                              bool& writing, const MakeRoom& make_room) {
  FileDescriptor file = open_in(folder, name, kNewFileFlags | O_CREAT | O_EXCL, make_room);
  if (!file || fill(file.get(), bytes, size, writing)) return file;
  const int saved = errno;
  unlinkat(folder, name.c_str(), 0);
  errno = saved;
  return {};
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
                              FileDescriptor& folder, const MakeRoom& make_room) {
  folder = open_root(root, create, make_room);
  if (!folder) return FolderFault::inaccessible;
  for (std::size_t i = 0; i + 1 < path.size(); ++i) {
    FileDescriptor next = open_subfolder(folder.get(), path[i], create, make_room);
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
  struct statx status {};
  if (statx(folder, name.c_str(), AT_SYMLINK_NOFOLLOW, kStatus, &status) != 0)
    return errno == ENOENT ? EntryKind::missing : EntryKind::unknown;
  if (!S_ISLNK(status.stx_mode)) {
    identity = identity_of(status);
    return EntryKind::file;
  }
  return statx(folder, name.c_str(), 0, kStatus, &status) == 0 ? EntryKind::link : EntryKind::dangling_link;
}

std::optional<FileStatus> status_of(int descriptor) noexcept {
  struct statx status {};
  if (statx(descriptor, "", AT_EMPTY_PATH, kStatus, &status) != 0) return std::nullopt;
  return FileStatus{identity_of(status), status.stx_size, S_ISREG(status.stx_mode)};
}

FileDescriptor open_in(int folder, const std::string& name, int flags, const MakeRoom& make_room) {
  constexpr int kAlways = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  return opened_by(make_room, [&] { return openat(folder, name.c_str(), flags | kAlways, kFileMode); });
}

FileDescriptor create_in(int folder, const std::string& name, const void* bytes, std::size_t size,
                         bool& writing, const MakeRoom& make_room) {
  writing = false;
  for (const auto create : {create_nameless, create_by_rename, create_plainly}) {
    FileDescriptor file = create(folder, name, bytes, size, writing, make_room);
    if (file || writing || errno != kNotHere) return file;
  }
  return {};
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
