// Files below an output folder whose names cannot be trusted: whatever a path holds, nothing outside the
// folder is reached, neither by ".." nor through a symbolic link. The output folder itself may be a link.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/support/file_descriptor.h"

namespace qvx {

// The components of a path below the folder with ".", ".." and repeated slashes resolved as text; the last
// one names a file. Nothing when the path leaves the folder or names no file. Throws std::bad_alloc.
std::optional<std::vector<std::string>> path_below(std::string_view path);

enum class FolderFault {
  none,
  leaves,        // a symbolic link on the way leads somewhere
  inaccessible,  // errno tells why
};

// Opens the folder that holds the file, without following symbolic links below `root`; with `create`, makes
// the folders that are missing, `root` included. Good for the calls that take a folder's descriptor, not for
// listing it. Throws std::bad_alloc.
FolderFault open_folder_below(const std::string& root, const std::vector<std::string>& path, bool create,
                              FileDescriptor& folder);

// Tells one file from another that took its place.
struct FileIdentity {
  dev_t device = 0;
  ino_t number = 0;

  friend bool operator==(const FileIdentity&, const FileIdentity&) = default;
};

enum class EntryKind {
  missing,
  file,           // or anything else that is not a link
  link,           // a symbolic link that leads somewhere
  dangling_link,  // one that leads nowhere
  unknown,        // errno tells why
};

// What a name in a folder stands for. Links are not followed for `identity`, which is set for a file.
EntryKind look_at(int folder, const std::string& name, FileIdentity& identity) noexcept;

// Opens a file in a folder. Fails with ELOOP for a symbolic link and never waits for the other end of a pipe.
FileDescriptor open_in(int folder, const std::string& name, int flags) noexcept;

// Creates a file that holds these bytes from the moment it has its name, so that nobody ever sees a part of
// them. False with errno; `writing` then tells whether writing was what failed.
bool create_in(int folder, const std::string& name, const void* bytes, std::size_t size,
               FileIdentity& identity, bool& writing);
// The same for file systems that know no nameless files, by way of a draft beside the file.
bool create_in_by_rename(int folder, const std::string& name, const void* bytes, std::size_t size,
                         FileIdentity& identity, bool& writing);

// Writes everything, continuing short and interrupted writes. Returns the bytes written; errno tells why they
// are fewer.
std::size_t write_all(int descriptor, const void* bytes, std::size_t size) noexcept;

}  // namespace qvx
