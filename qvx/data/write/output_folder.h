// Files below an output folder whose names cannot be trusted: whatever a path holds, nothing outside the
// folder is reached, neither by ".." nor through a symbolic link. The output folder itself may be a link.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/support/file_descriptor.h"

namespace qvx {

// Gives a descriptor back when the process has none left; false when there is none to give. What opens files
// here asks it until the file opens. May be empty.
using MakeRoom = std::function<bool()>;

// The components of a path below the folder with ".", ".." and repeated slashes resolved as text; the last
// one names a file. Nothing when the path leaves the folder or names no file. Throws std::bad_alloc.
[[nodiscard]] std::optional<std::vector<std::string>> path_below(std::string_view path);

enum class FolderFault {
  none,
  leaves,        // a symbolic link on the way leads somewhere
  inaccessible,  // errno tells why
};

// Opens the folder that holds the file, without following symbolic links below `root`; with `create`, makes
// the folders that are missing, `root` included. Good for the calls that take a folder's descriptor, not for
// listing it. Throws std::bad_alloc.
[[nodiscard]] FolderFault open_folder_below(const std::string& root, const std::vector<std::string>& path,
                                            bool create, FileDescriptor& folder,
                                            const MakeRoom& make_room = {});

// Tells one file from another that took its place. Numbers of files are used again, so the time of birth
// counts too; where the file system does not keep it, the time of the last change does, and a file that
// somebody else changed is no longer recognised.
struct FileIdentity {
  std::uint64_t device = 0;
  std::uint64_t number = 0;
  std::int64_t born = 0;  // nanoseconds, 0 where it is not kept
  std::int64_t changed = 0;

  friend bool operator==(const FileIdentity& a, const FileIdentity& b) {
    const bool same_time = a.born != 0 || b.born != 0 ? a.born == b.born : a.changed == b.changed;
    return a.device == b.device && a.number == b.number && same_time;
  }
};

enum class EntryKind {
  missing,
  file,           // or anything else that is not a link
  link,           // a symbolic link that leads somewhere
  dangling_link,  // one that leads nowhere
  unknown,        // errno tells why
};

// What a name in a folder stands for. Links are not followed for `identity`, which is set for a file.
[[nodiscard]] EntryKind look_at(int folder, const std::string& name, FileIdentity& identity) noexcept;

struct FileStatus {
  FileIdentity identity;
  std::uint64_t size = 0;
  bool regular = false;
};

// What a descriptor stands for; nothing, with errno, when the system does not tell.
[[nodiscard]] std::optional<FileStatus> status_of(int descriptor) noexcept;

// Opens a file in a folder. Fails with ELOOP for a symbolic link and never waits for the other end of a pipe.
[[nodiscard]] FileDescriptor open_in(int folder, const std::string& name, int flags,
                                     const MakeRoom& make_room = {});

// Creates a file that holds these bytes from the moment it has its name, so that nobody ever sees a part of
// them, and leaves it open for reading and appending. Where the file system knows neither nameless files nor
// a rename that replaces nothing, nor hard links, the name is there before the bytes are. Empty with errno,
// EEXIST when something has the name; `writing` then tells whether writing was what failed.
[[nodiscard]] FileDescriptor create_in(int folder, const std::string& name, const void* bytes,
                                       std::size_t size, bool& writing, const MakeRoom& make_room = {});

// Writes everything, continuing short and interrupted writes. Returns the bytes written; errno tells why they
// are fewer.
[[nodiscard]] std::size_t write_all(int descriptor, const void* bytes, std::size_t size) noexcept;

}  // namespace qvx
