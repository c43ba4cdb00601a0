#include "qvx/data/write/data_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "qvx/support/format.h"
#include "qvx/support/log.h"

namespace qvx {
namespace {

constexpr const char* kLeavesFolder = "path leaves the output folder";
// Up to here zeros are written together with the bytes before them; more of them become a hole.
constexpr std::size_t kWrittenZeros = 64 * 1024;
constexpr std::array<std::byte, kWrittenZeros> kZeros{};

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
  header->event_schema_ids = file.event_schema_ids;
  return header;
}

bool create_with_header(qvx_data_file& file) {
  const std::unique_ptr<qvx_data_file_header> header = make_header(file);
  if (header == nullptr) {
    QVX_LOG(QVX_LOG_ERROR, "[data_file] Failed allocating file header buffer: %s", std::strerror(ENOMEM));
    errno = ENOMEM;
    return false;
  }
  const FileHeaderBytes bytes = file_header_encode(*header);
  bool writing = false;
  if (create_in(file.folder.get(), file.below.back(), bytes.data(), bytes.size(), file.identity, writing)) {
    file.file_size = header->file_size;
    return true;
  }
  const int error = errno;
  if (file.report_errors) {
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

bool create_file(qvx_data_file& file) {
  if (create_with_header(file)) {
    file.newly_created = true;
    return true;
  }
  if (std::exchange(file.report_errors, false)) {
    QVX_LOG(QVX_LOG_ERROR, "[data_file] Failed to create empty data file %s: %s", file.path.c_str(),
            error_text());
  }
  data_file_forget(file);
  return false;
}

// A dangling link is no file, but none can be created in its place either.
bool refuse_dangling_link(qvx_data_file& file) {
  if (std::exchange(file.report_errors, false)) {
    const int error = errno;
    QVX_LOG(QVX_LOG_ERROR, "[data_file] Failed to open file %s for writing: %s", file.path.c_str(),
            std::strerror(error));
    QVX_LOG(QVX_LOG_ERROR, "[data_file] Failed to create empty data file %s: %s", file.path.c_str(),
            std::strerror(error));
  }
  data_file_forget(file);
  return false;
}

// Takes away what an interrupted append left behind the last whole block, if the header never counted it:
// what is appended behind it could not be read.
void remove_interrupted_append(qvx_data_file& file, int descriptor) {
  FileHeaderBytes bytes;
  if (pread(descriptor, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) return;
  const qvx_data_file_header header = file_header_decode(bytes);
  if (!magic_is(header.magic, 'F') || header.block_size != file.block_size || file.block_size == 0) return;
  const std::uint64_t rest = (file.file_size - kFileHeaderSize) % file.block_size;
  const std::uint64_t whole = file.file_size - rest;
  if (rest == 0 || header.file_size > whole) return;
  const FileDescriptor writable = open_in(file.folder.get(), file.below.back(), O_WRONLY);
  if (!writable || ftruncate(writable.get(), static_cast<off_t>(whole)) != 0) return;
  file.file_size = whole;
  QVX_LOG(QVX_LOG_WARNING, "[data_file] Removed %" PRIu64 " bytes of an interrupted append from %s", rest,
          file.path.c_str());
}

void find_size(qvx_data_file& file) {
  const FileDescriptor existing = open_in(file.folder.get(), file.below.back(), O_RDONLY);
  const off_t end = existing ? lseek(existing.get(), 0, SEEK_END) : -1;
  if (!existing) QVX_LOG(QVX_LOG_ERROR, "[data_file] Failed to open %s\n", file.path.c_str());
  if (end < 0) return;
  file.file_size = static_cast<std::uint64_t>(end);
  if (file.file_size > kFileHeaderSize) remove_interrupted_append(file, existing.get());
}

// Opens the file of this path below the root, and creates it if need be.
bool open_path(qvx_data_file& file, std::string_view path) {
  std::optional<std::vector<std::string>> below = path_below(path);
  if (!below) return fail_create(file, kLeavesFolder);
  file.below = std::move(*below);
  switch (open_folder_below(file.root, file.below, true, file.folder)) {
    case FolderFault::none:
      break;
    case FolderFault::leaves:
      return fail_create(file, kLeavesFolder);
    case FolderFault::inaccessible:
      return fail_create(file,
                         ("Inaccessible data path " + file.path.substr(0, file.path.rfind('/'))).c_str());
  }
  switch (look_at(file.folder.get(), file.below.back(), file.identity)) {
    case EntryKind::missing:
    case EntryKind::unknown:
      return create_file(file);
    case EntryKind::dangling_link:
      return refuse_dangling_link(file);
    case EntryKind::link:
      return fail_create(file, kLeavesFolder);
    case EntryKind::file:
      break;
  }
  QVX_LOG(QVX_LOG_DEBUG, "[data_file] Append data to an existing file %s", file.path.c_str());
  find_size(file);
  return true;
}

bool start_file(qvx_data_file& file, std::uint64_t first_timestamp) {
  if (!file.path.empty()) data_file_close(file);
  file.first_timestamp = first_timestamp;
  file.last_timestamp = 0;
  file.file_size = 0;
  file.id = first_timestamp == 0 ? "" : format_text("%" PRIu64, first_timestamp);
  std::string below;
  std::string fault;
  const bool expanded = expand_path_template(file.path_template, path_fields(file), below, fault);
  file.path = join_path(file.root, below);
  return expanded ? open_path(file, below) : fail_create(file, fault.c_str());
}

// Opens the folder again if it was released.
bool have_folder(qvx_data_file& file) {
  return file.folder || open_folder_below(file.root, file.below, false, file.folder) == FolderFault::none;
}

bool is_still_there(qvx_data_file& file) {
  if (!have_folder(file)) return false;
  FileIdentity found;
  const EntryKind kind = look_at(file.folder.get(), file.below.back(), found);
  if (kind == EntryKind::file && found == file.identity) return true;
  if (kind == EntryKind::file || kind == EntryKind::link) errno = ESTALE;
  return false;
}

// Opens the file that has the name now; fails with ESTALE when it is not the one that was opened first.
FileDescriptor open_same(qvx_data_file& file, int flags) {
  if (!have_folder(file)) return {};
  FileDescriptor opened = open_in(file.folder.get(), file.below.back(), flags);
  struct stat status {};
  if (!opened || fstat(opened.get(), &status) != 0) return {};
  errno = ESTALE;
  if (FileIdentity{status.st_dev, status.st_ino} != file.identity) return {};
  errno = EINVAL;
  if (!S_ISREG(status.st_mode)) return {};
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

// Writes both in one piece where the system lets it; returns what was written, with errno if it is less.
std::uint64_t write_with_zeros(int descriptor, Bytes bytes, std::size_t zeros) {
  const std::uint64_t total = bytes.size() + zeros;
  std::uint64_t written = 0;
  while (written < total) {
    const Bytes left = bytes.subspan(std::min<std::size_t>(written, bytes.size()));
    const std::array<iovec, 2> pieces{{
        {const_cast<std::byte*>(left.data()), left.size()},
        {const_cast<std::byte*>(kZeros.data()), static_cast<std::size_t>(total - written) - left.size()},
    }};
    const ssize_t count = writev(descriptor, pieces.data(), static_cast<int>(pieces.size()));
    if (count > 0) {
      written += static_cast<std::uint64_t>(count);
    } else if (count == 0) {
      errno = ENOSPC;
      break;
    } else if (errno != EINTR) {
      break;
    }
  }
  return written;
}

// Appends at `end`; returns what the file grew by, with errno if it is less than all.
std::uint64_t append_at(int descriptor, std::uint64_t end, Bytes bytes, std::uint64_t zeros) {
  const bool hole = zeros > kWrittenZeros;
  std::uint64_t written = write_with_zeros(descriptor, bytes, hole ? 0 : static_cast<std::size_t>(zeros));
  if (!hole || written < bytes.size()) return written;
  if (ftruncate(descriptor, static_cast<off_t>(end + written + zeros)) == 0) written += zeros;
  return written;
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

bool update_header(qvx_data_file& file) {
  const char* const path = file.path.c_str();
  const FileDescriptor opened = open_same(file, O_RDWR);
  if (!opened) {
    QVX_LOG(QVX_LOG_ERROR, "[data_file] Failed opening data file %s: %s", path, error_text());
    return false;
  }
  FileHeaderBytes bytes;
  if (!read_header(opened.get(), bytes)) {
    QVX_LOG(QVX_LOG_ERROR, "[data_file] Failed reading header of data file %s: %s", path, error_text());
    return false;
  }
  qvx_data_file_header header = file_header_decode(bytes);
  if (!validate_header(header)) {
    QVX_LOG(QVX_LOG_ERROR, "[data_file] Header of file %s is invalid. Will not update.", path);
    return false;
  }
  if (header.first_timestamp == 0) header.first_timestamp = file.first_timestamp;
  header.file_size = file.file_size;
  header.last_timestamp = file.last_timestamp;
  bytes = file_header_encode(header);
  if (lseek(opened.get(), 0, SEEK_SET) != 0) {
    QVX_LOG(QVX_LOG_ERROR, "[data_file] Failed moving to the beginning of file %s: %s", path, error_text());
    return false;
  }
  if (write_all(opened.get(), bytes.data(), bytes.size()) != bytes.size()) {
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
  struct stat status {};
  const bool sized = fstat(file.handle.get(), &status) == 0;
  const auto end = static_cast<std::uint64_t>(status.st_size);
  std::uint64_t written = sized ? append_at(file.handle.get(), end, bytes, zeros) : 0;
  if (!sized || written < bytes.size() + zeros) {
    QVX_LOG(QVX_LOG_ERROR, "[data_file] Failed appending data file %s: %s", file.path.c_str(), error_text());
    const std::uint64_t rest = file.block_size != 0 ? written % file.block_size : 0;
    if (rest != 0 && ftruncate(file.handle.get(), static_cast<off_t>(end + written - rest)) == 0)
      written -= rest;
  }
  file.file_size += written;
  if (written != 0) file.header_is_behind = true;
  return written;
}

bool data_file_update_header(qvx_data_file& file) noexcept {
  if (file.path.empty()) return false;
  file.header_is_behind = false;
  try {
    return update_header(file);
  } catch (const std::bad_alloc&) {
    return false;
  }
}

void data_file_close(qvx_data_file& file) noexcept {
  if (file.path.empty()) return;
  data_file_update_header(file);
  data_file_forget(file);
}

void data_file_forget(qvx_data_file& file) noexcept {
  data_file_release(file);
  file.path.clear();
  file.newly_created = false;
  file.header_is_behind = false;
}

void data_file_release(qvx_data_file& file) noexcept {
  file.handle.reset();
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
