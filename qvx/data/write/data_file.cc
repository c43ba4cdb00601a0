#include "qvx/data/write/data_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include "qvx/data/write/append_blocks.h"
#include "qvx/support/file_lock.h"
#include "qvx/support/format.h"
#include "qvx/support/log.h"

namespace qvx {
namespace {

constexpr const char* kLeavesFolder = "path leaves the output folder";
// Names that a path may take before its data count as lost. Nobody but a hostile file comes that far.
constexpr std::uint32_t kMaxNumber = 10000;

const char* error_text() {
  return std::strerror(errno);
}

// Logs why no file could be created, once in a row of failures, and forgets the path.
bool fail_create(qvx_data_file& file, const char* reason) {
  if (std::exchange(file.report_errors, false)) {
    QVX_LOG(QVX_LOG_ERROR, "[data_file] Failed to create data file %s: %s", file.path.c_str(), reason);
  }
  data_file_forget(file);
  return false;
}

PathFields path_fields(const qvx_data_file& file) {
  return {file.node, file.source_id, file.source_tag, file.port, file.first_timestamp, file.id};
}

// Copies at most all but the last byte of the field, which stays terminated.
template <std::size_t kSize>
void set_text(std::array<char, kSize>& field, std::string_view text) {
  std::copy_n(text.begin(), std::min(text.size(), kSize - 1), field.begin());
}

// The header that a new file begins with; null when memory is short.
std::unique_ptr<qvx_data_file_header> make_header(const qvx_data_file& file) {
  std::unique_ptr<qvx_data_file_header> header = create_header();
  if (header == nullptr) return nullptr;
  header->first_timestamp = file.first_timestamp;
  header->block_size = file.block_size;
  set_text(header->source_id, file.source_id);
  set_text(header->source_tag, file.source_tag);
  header->counters_schema_id = file.counters_schema_id;
  header->event_schema_ids = file.schemas.for_header();
  return header;
}

FileKind kind_of(const qvx_data_file& file) {
  return {file.block_size, file.counters_schema_id, file.schemas};
}

std::string_view as_key(const FileKind& kind) {
  static_assert(std::has_unique_object_representations_v<FileKind>);
  return {reinterpret_cast<const char*>(&kind), sizeof kind};
}

// Creates the file of the path. EEXIST is told by errno only: somebody else was first.
bool create_with_header(qvx_data_file& file) {
  const std::unique_ptr<qvx_data_file_header> header = make_header(file);
  if (header == nullptr) {
    QVX_LOG(QVX_LOG_ERROR, "[data_file] Failed allocating file header buffer: %s", std::strerror(ENOMEM));
    errno = ENOMEM;
    return false;
  }
  const FileHeaderBytes bytes = file_header_encode(*header);
  bool writing = false;
  file.handle =
      create_in(file.folder.get(), file.below.back(), bytes.data(), bytes.size(), writing, file.make_room);
  const std::optional<FileStatus> status = file.handle ? status_of(file.handle.get()) : std::nullopt;
  if (status) {
    file.file_size = header->file_size;
    file.identity = status->identity;
    return true;
  }
  const int error = errno;
  if (file.report_errors && error != EEXIST) {
    if (writing) {
      QVX_LOG(QVX_LOG_ERROR, "[data_file] Failed writing header of the data file %s: %s", file.path.c_str(),
              error_text());
    } else {
      QVX_LOG(QVX_LOG_ERROR, "[data_file] Failed to open file %s for writing: %s", file.path.c_str(),
              error_text());
    }
  }
  errno = error;
  return false;
}

bool fail_create_empty(qvx_data_file& file) {
  if (std::exchange(file.report_errors, false)) {
    QVX_LOG(QVX_LOG_ERROR, "[data_file] Failed to create empty data file %s: %s", file.path.c_str(),
            error_text());
  }
  data_file_forget(file);
  return false;
}

// A dangling link is no file, but none can be created in its place either.
bool refuse_dangling_link(qvx_data_file& file) {
  errno = ENOENT;
  if (file.report_errors) {
    QVX_LOG(QVX_LOG_ERROR, "[data_file] Failed to open file %s for writing: %s", file.path.c_str(),
            error_text());
    errno = ENOENT;
  }
  return fail_create_empty(file);
}

// Cuts off what follows the last whole block; nobody else may be writing.
bool cut_to(qvx_data_file& file, std::uint64_t whole) {
  const FileDescriptor writable = open_in(file.folder.get(), file.below.back(), O_WRONLY, file.make_room);
  if (!writable || ftruncate(writable.get(), static_cast<off_t>(whole)) != 0) return false;
  QVX_LOG(QVX_LOG_WARNING, "[data_file] Removed %" PRIu64 " bytes of an interrupted append from %s",
          file.file_size - whole, file.path.c_str());
  file.file_size = whole;
  return true;
}

// Whether the file that has the name takes the data that are to come. One that cannot be looked at does: that
// nothing can be appended to it shows then.
bool takes_data(qvx_data_file& file) {
  const FileDescriptor existing = open_in(file.folder.get(), file.below.back(), O_RDONLY, file.make_room);
  if (!existing) {
    QVX_LOG(QVX_LOG_ERROR, "[data_file] Failed to open %s\n", file.path.c_str());
    file.lost = true;
    return true;
  }
  // With the lock nobody is in the middle of appending.
  const FileLock lock(existing.get());
  const std::optional<FileStatus> status = status_of(existing.get());
  if (!status || !status->regular) return true;
  file.file_size = status->size;
  file.identity = status->identity;
  const FileKind kind = kind_of(file);
  const KnownFiles::File* const known =
      file.known_files != nullptr ? file.known_files->find(file.expanded_path, as_key(kind)) : nullptr;
  if (known != nullptr && known->size == status->size) return true;
  const ExistingFile found = look_at_existing(existing.get(), status->size, kind);
  if (found.taking != Taking::whole || found.whole == status->size) return found.taking != Taking::not_at_all;
  return lock && cut_to(file, found.whole);
}

enum class Opening { open, failed, other_name };

// Opens the file of the path, in its folder, or creates it.
Opening open_name(qvx_data_file& file) {
  constexpr int kAttempts = 100;  // while others create and remove the same name
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    switch (look_at(file.folder.get(), file.below.back(), file.identity)) {
      case EntryKind::missing:
      case EntryKind::unknown:
        if (create_with_header(file)) {
          file.newly_created = true;
          file.report_errors = true;
          return Opening::open;
        }
        if (errno == EEXIST) continue;
        fail_create_empty(file);
        return Opening::failed;
      case EntryKind::dangling_link:
        refuse_dangling_link(file);
        return Opening::failed;
      case EntryKind::link:
        fail_create(file, kLeavesFolder);
        return Opening::failed;
      case EntryKind::file:
        if (!takes_data(file)) return Opening::other_name;
        QVX_LOG(QVX_LOG_DEBUG, "[data_file] Append data to an existing file %s", file.path.c_str());
        return Opening::open;
    }
  }
  errno = EEXIST;
  fail_create_empty(file);
  return Opening::failed;
}

void set_number(qvx_data_file& file, const std::string& name, std::uint32_t number) {
  file.below.back() = numbered_name(name, number);
  file.path = file.expanded_path.substr(0, file.expanded_path.rfind('/') + 1) + file.below.back();
  file.number = number;
}

// Leaves a note of what the file holds now.
void note_content(qvx_data_file& file) {
  if (file.known_files == nullptr) return;
  const FileKind kind = kind_of(file);
  file.known_files->note(file.expanded_path, as_key(kind), {file.number, file.file_size});
}

// Opens the file of the name, or of the first numbered one that takes the data.
bool open_numbered(qvx_data_file& file) {
  const std::string name = file.below.back();
  std::uint32_t taken = 0;
  if (file.known_files != nullptr) {
    const KnownFiles::File* const known = file.known_files->find(file.expanded_path, as_key(kind_of(file)));
    taken = file.known_files->taken(file.expanded_path);
    if (known != nullptr) {
      set_number(file, name, known->number);
      const Opening opening = open_name(file);
      if (opening != Opening::other_name) return opening == Opening::open;
    }
  }
  for (std::uint32_t number = taken + 1; number <= kMaxNumber; ++number) {
    set_number(file, name, number);
    const Opening opening = open_name(file);
    if (opening == Opening::failed) return false;
    if (opening == Opening::open) note_content(file);
    if (file.known_files != nullptr) file.known_files->note_taken(file.expanded_path, number);
    if (opening == Opening::open) return true;
  }
  errno = EEXIST;
  return fail_create_empty(file);
}

// Opens the file of this path below the root, and creates it if need be.
bool open_path(qvx_data_file& file, std::string_view path) {
  std::optional<std::vector<std::string>> below = path_below(path);
  if (!below) return fail_create(file, kLeavesFolder);
  file.below = std::move(*below);
  switch (open_folder_below(file.root, file.below, true, file.folder, file.make_room)) {
    case FolderFault::none:
      return open_numbered(file);
    case FolderFault::leaves:
      return fail_create(file, kLeavesFolder);
    case FolderFault::inaccessible:
      return fail_create(file,
                         ("Inaccessible data path " + file.path.substr(0, file.path.rfind('/'))).c_str());
  }
  return false;
}

bool start_file(qvx_data_file& file, std::uint64_t first_timestamp) {
  data_file_close(file);
  file.first_timestamp = first_timestamp;
  file.last_timestamp = 0;
  file.file_size = 0;
  file.id = first_timestamp == 0 ? "" : format_text("%" PRIu64, first_timestamp);
  std::string below;
  std::string fault;
  const bool expanded = expand_path_template(file.path_template, path_fields(file), below, fault);
  file.path = join_path(file.root, below);
  file.expanded_path = file.path;
  return expanded ? open_path(file, below) : fail_create(file, fault.c_str());
}

// Opens the folder again if it was released.
bool have_folder(qvx_data_file& file) {
  return file.folder ||
         open_folder_below(file.root, file.below, false, file.folder, file.make_room) == FolderFault::none;
}

// Whether a file is the open one. While that is held open its number is nobody else's.
bool is_open_file(const qvx_data_file& file, const FileIdentity& found) {
  const std::optional<FileStatus> held = file.handle ? status_of(file.handle.get()) : std::nullopt;
  return found == (held ? held->identity : file.identity);
}

bool is_still_there(qvx_data_file& file) {
  if (!have_folder(file)) return false;
  FileIdentity found;
  const EntryKind kind = look_at(file.folder.get(), file.below.back(), found);
  if (kind == EntryKind::file && is_open_file(file, found)) return true;
  if (kind == EntryKind::file || kind == EntryKind::link) errno = ESTALE;
  return false;
}

// Opens the file that has the name now; fails with ESTALE when it is not the one that was opened first.
FileDescriptor open_same(qvx_data_file& file, int flags) {
  if (!have_folder(file)) return {};
  FileDescriptor opened = open_in(file.folder.get(), file.below.back(), flags, file.make_room);
  const std::optional<FileStatus> status = opened ? status_of(opened.get()) : std::nullopt;
  if (!status) return {};
  errno = ESTALE;
  if (!is_open_file(file, status->identity)) return {};
  errno = EINVAL;
  if (!status->regular) return {};
  return opened;
}

bool open_handle(qvx_data_file& file) {
  if (file.handle) return true;
  file.handle = open_same(file, O_WRONLY | O_APPEND);
  if (file.handle) {
    file.report_errors = true;
    return true;
  }
  if (std::exchange(file.report_errors, false)) {
    QVX_LOG(QVX_LOG_ERROR, "[data_file] Failed to open data file %s for writing: %s", file.path.c_str(),
            error_text());
  }
  return false;
}

bool read_header(int descriptor, FileHeaderBytes& bytes) {
  std::size_t total = 0;
  while (total < bytes.size()) {
    errno = 0;
    const ssize_t count = read(descriptor, bytes.data() + total, bytes.size() - total);
    if (count == 0 || (count < 0 && errno != EINTR)) return false;
    if (count > 0) total += static_cast<std::size_t>(count);
  }
  return true;
}

bool rewrite_header(qvx_data_file& file, int descriptor) {
  const char* const path = file.path.c_str();
  const FileLock lock(descriptor);
  FileHeaderBytes bytes;
  if (!read_header(descriptor, bytes)) {
    QVX_LOG(QVX_LOG_ERROR, "[data_file] Failed reading header of data file %s: %s", path, error_text());
    return false;
  }
  qvx_data_file_header header = file_header_decode(bytes);
  if (!validate_header(header)) {
    QVX_LOG(QVX_LOG_ERROR, "[data_file] Header of file %s is invalid. Will not update.", path);
    return false;
  }
  // Others may have appended, too.
  const std::optional<FileStatus> status = status_of(descriptor);
  if (status) file.file_size = status->size;
  if (header.first_timestamp == 0) header.first_timestamp = file.first_timestamp;
  header.file_size = file.file_size;
  header.last_timestamp = file.last_timestamp;
  bytes = file_header_encode(header);
  if (lseek(descriptor, 0, SEEK_SET) != 0) {
    QVX_LOG(QVX_LOG_ERROR, "[data_file] Failed moving to the beginning of file %s: %s", path, error_text());
    return false;
  }
  if (write_all(descriptor, bytes.data(), bytes.size()) != bytes.size()) {
    QVX_LOG(QVX_LOG_ERROR, "[data_file] Failed writing data page header to file %s: %s", path, error_text());
    return false;
  }
  return true;
}

// What is kept to recognise the file later.
void note_identity(qvx_data_file& file, int descriptor) {
  if (const std::optional<FileStatus> status = status_of(descriptor)) file.identity = status->identity;
}

bool update_header(qvx_data_file& file) {
  const char* const path = file.path.c_str();
  FileDescriptor opened = open_same(file, O_RDWR);
  if (!opened) {
    QVX_LOG(QVX_LOG_ERROR, "[data_file] Failed opening data file %s: %s", path, error_text());
    return false;
  }
  if (!rewrite_header(file, opened.get())) return false;
  note_identity(file, opened.get());
  if (!opened.close()) {
    QVX_LOG(QVX_LOG_ERROR, "[data_file] Failed writing data page header to file %s: %s", path, error_text());
    return false;
  }
  QVX_LOG(QVX_LOG_DEBUG, "[data_file] updated header %s with last_ts :%" PRIu64, path, file.last_timestamp);
  return true;
}

}  // namespace

bool data_file_need_new_file(const qvx_data_file& file, std::uint64_t now) noexcept {
  if (file.first_timestamp == 0) return true;
  if (file.file_size >= file.file_size_limit) return true;
  if (file.first_timestamp > now) {
    // The missing blank is deliberate.
    QVX_LOG(QVX_LOG_WARNING, "first_timestamp %" PRIu64 "is greater than current timestamp: %" PRIu64,
            file.first_timestamp, now);
    return true;
  }
  if (now - file.first_timestamp >= file.file_time_limit) return true;
  return file.path.empty();
}

bool data_file_open_for(qvx_data_file& file, std::uint64_t first_timestamp,
                        std::uint64_t last_timestamp) noexcept {
  try {
    if (!file.path.empty() && !is_still_there(file)) {
      QVX_LOG(QVX_LOG_ERROR, "[data_file] Failed opening data file %s: %s", file.path.c_str(), error_text());
      file.lost = true;
      data_file_forget(file);
    }
    if (data_file_need_new_file(file, first_timestamp) && !start_file(file, first_timestamp)) return false;
    file.last_timestamp = last_timestamp;
    return true;
  } catch (const std::bad_alloc&) {
    return fail_create(file, std::strerror(ENOMEM));
  }
}

std::uint64_t data_file_append(qvx_data_file& file, Bytes bytes, std::uint64_t zeros) noexcept {
  if (file.path.empty() || !open_handle(file)) return 0;
  const Appended result = append_blocks(file.handle.get(), bytes, zeros, file.block_size);
  if (result.error != 0) {
    QVX_LOG(QVX_LOG_ERROR, "[data_file] Failed appending data file %s: %s", file.path.c_str(),
            std::strerror(result.error));
  }
  file.file_size = result.file_size;
  note_identity(file, file.handle.get());
  if (result.written != 0) file.header_is_behind = true;
  // Data behind a part of a block would be read as something else.
  if (result.ragged) data_file_close(file);
  return result.written;
}

bool data_file_update_header(qvx_data_file& file) noexcept {
  if (file.path.empty()) return false;
  file.header_is_behind = false;
  try {
    if (!update_header(file)) return false;
    note_content(file);
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

void data_file_close(qvx_data_file& file) noexcept {
  if (file.path.empty()) return;
  if (!data_file_update_header(file)) file.lost = true;
  data_file_forget(file);
}

void data_file_forget(qvx_data_file& file) noexcept {
  data_file_release(file);
  file.path.clear();
  file.newly_created = false;
  file.header_is_behind = false;
}

void data_file_release(qvx_data_file& file) noexcept {
  if (!file.handle.close()) {
    QVX_LOG(QVX_LOG_ERROR, "[data_file] Failed appending data file %s: %s", file.path.c_str(), error_text());
    file.lost = true;
  }
  file.folder.reset();
}

std::optional<std::string> data_file_expand_path(const qvx_data_file& file) noexcept {
  try {
    std::string below;
    std::string fault;
    if (!expand_path_template(file.path_template, path_fields(file), below, fault)) return std::nullopt;
    return join_path(file.root, below);
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

std::string data_file_folder(const qvx_data_file& file) {
  std::string folder = join_path(file.root, "");
  for (std::size_t i = 0; i + 1 < file.below.size(); ++i)
    folder += file.below[i] + "/";
  folder.pop_back();
  return folder;
}

std::string join_path(std::string_view root, std::string_view path) {
  std::string joined(root.empty() ? "." : root);
  if (!joined.ends_with('/')) joined += '/';
  return joined.append(path);
}

}  // namespace qvx
