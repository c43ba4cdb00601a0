#include "qvx/host/adapters.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/support/file_descriptor.h"
#include "qvx/support/log.h"
#include "qvx/support/string_array.h"
#include "qvx/support/text.h"

namespace qvx {
namespace {

// One read, since an attribute of the kernel comes whole. 0 at the end of the file, negative on failure.
ssize_t read_once(const FileDescriptor& file, std::span<char> to) {
  ssize_t count = 0;
  do {
    errno = 0;
    count = read(file.get(), to.data(), to.size());
  } while (count < 0 && errno == EINTR);
  return count;
}

struct CloseFolder {
  void operator()(DIR* folder) const { closedir(folder); }
};

// The names that the pattern "<root>/*" matches, sorted, those of folders with a '/' behind them; nothing,
// with errno set, when the folder cannot be read. Not by glob(), which the C library lets free its names
// twice, and so end the process, when memory is short. Throws std::bad_alloc.
std::optional<std::vector<std::string>> matches_in(const char* root) {
  std::vector<std::string> names;
  const std::unique_ptr<DIR, CloseFolder> folder(opendir(root));
  if (folder == nullptr) return errno == ENOTDIR ? std::optional(names) : std::nullopt;
  for (;;) {
    errno = 0;
    const dirent* const entry = readdir(folder.get());
    if (entry == nullptr) break;
    if (entry->d_name[0] == '.') continue;
    struct stat status {};
    const bool is_folder =
        fstatat(dirfd(folder.get()), entry->d_name, &status, 0) == 0 && S_ISDIR(status.st_mode);
    names.push_back(std::string(entry->d_name) + (is_folder ? "/" : ""));
  }
  if (errno != 0) return std::nullopt;
  std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
    return std::strcoll(a.c_str(), b.c_str()) < 0;
  });
  return names;
}

// The adapter that a match names. Deliberately that of the folder around it when it is no folder itself.
std::string device_name(std::string_view root, std::string_view match) {
  if (match.ends_with('/')) return std::string(match.substr(0, match.size() - 1));
  return std::string(root.substr(root.rfind('/') + 1));
}

// The names of the adapters; null on failure, which is logged.
StringArrayPtr adapter_names(const char* root) {
  StringArrayPtr names = make_string_array();
  if (names == nullptr) {
    QVX_LOG(QVX_LOG_ERROR, "HCA info: failed to allocate memory for HCA names array");
    return nullptr;
  }
  try {
    const std::optional<std::vector<std::string>> matches = matches_in(root);
    if (!matches) {
      QVX_LOG(QVX_LOG_ERROR, "HCA info: globing read failed: %s", std::strerror(errno));
      return nullptr;
    }
    if (matches->empty()) {
      QVX_LOG(QVX_LOG_WARNING, "HCA info: globing found no matches of '%s/*'", root);
      return nullptr;
    }
    for (const std::string& match : *matches)
      if (!append(names, device_name(root, match).c_str())) return nullptr;
    return names;
  } catch (const std::bad_alloc&) {
    QVX_LOG(QVX_LOG_ERROR, "HCA info: globing ran out of space");
    return nullptr;
  }
}

void fill_entry(const char* root, const char* device, qvx_adapter_info& entry) {
  const std::size_t length = std::strlen(device);
  if (length > kAdapterNameSize) {
    QVX_LOG(QVX_LOG_WARNING, "HCA info: name %s does not fit %zu buffer", device, kAdapterNameSize);
  }
  std::memcpy(entry.name.data(), device, std::min(length, kAdapterNameSize));
  read_guid_file(entry.system_image_guid, "%s/%s/sys_image_guid", root, device);
  read_guid_file(entry.node_guid, "%s/%s/node_guid", root, device);
  read_guid_file(entry.port_1_guid, "%s/%s/ports/%d/gids/0", root, device, 1);
  read_guid_file(entry.port_2_guid, "%s/%s/ports/%d/gids/0", root, device, 2);
}

void print_field(std::FILE* stream, int index, const char* label, std::span<const char> field) {
  std::fprintf(stream, "info[%d].%-17s = %.*s\n", index, label, static_cast<int>(field.size()), field.data());
}

}  // namespace

qvx_adapter_info adapter_decode(std::span<const std::byte, kAdapterEntrySize> bytes) noexcept {
  const std::byte* const from = bytes.data();
  qvx_adapter_info adapter;
  load_field<kAdapterEntryLayout, "name">(from, adapter.name);
  load_field<kAdapterEntryLayout, "node_guid">(from, adapter.node_guid);
  load_field<kAdapterEntryLayout, "system_image_guid">(from, adapter.system_image_guid);
  load_field<kAdapterEntryLayout, "port_1_guid">(from, adapter.port_1_guid);
  load_field<kAdapterEntryLayout, "port_2_guid">(from, adapter.port_2_guid);
  return adapter;
}

AdapterBytes adapter_encode(const qvx_adapter_info& adapter) noexcept {
  AdapterBytes bytes;
  std::byte* const to = bytes.data();
  store_field<kAdapterEntryLayout, "name">(to, adapter.name);
  store_field<kAdapterEntryLayout, "node_guid">(to, adapter.node_guid);
  store_field<kAdapterEntryLayout, "system_image_guid">(to, adapter.system_image_guid);
  store_field<kAdapterEntryLayout, "port_1_guid">(to, adapter.port_1_guid);
  store_field<kAdapterEntryLayout, "port_2_guid">(to, adapter.port_2_guid);
  return bytes;
}

int discover_adapters(const char* root, std::span<qvx_adapter_info> entries) noexcept {
  std::fill(entries.begin(), entries.end(), qvx_adapter_info{});
  const StringArrayPtr names = adapter_names(root);
  if (names == nullptr) return 0;
  std::span<char* const> devices = strings(names);
  if (devices.size() > entries.size()) {
    QVX_LOG(QVX_LOG_WARNING, "HCA info: %zu of %zu found HCAs will not fit array of %d elements",
            devices.size() - entries.size(), devices.size(), static_cast<int>(entries.size()));
    devices = devices.first(entries.size());
  }
  for (std::size_t i = 0; i < devices.size(); ++i)
    fill_entry(root, devices[i], entries[i]);
  return 0;
}

bool read_guid_file(std::array<char, kGuidSize>& digits, const char* path_format, ...) noexcept {
  va_list args;
  va_start(args, path_format);
  const std::optional<std::string> path = qvx_expand_template_v(path_format, args);
  va_end(args);
  if (!path) {
    QVX_LOG(QVX_LOG_WARNING, "HCA info: failed to expand template %s", path_format);
    return false;
  }
  const FileDescriptor file = open_to_read(path->c_str());
  if (!file) return false;
  std::array<char, 40> content;
  const ssize_t count = read_once(file, content);
  if (count <= 0) {
    QVX_LOG(QVX_LOG_ERROR, "HCA info: failed to read file %s: %s", path->c_str(), std::strerror(errno));
    return false;
  }
  // A GID has four groups of digits before those of the GUID. A group is four digits and a colon.
  constexpr std::size_t kPrefixSize = 20;
  constexpr std::size_t kGroupSize = 5;
  std::string_view groups(content.data(), static_cast<std::size_t>(count));
  if (groups.size() > kPrefixSize) groups.remove_prefix(kPrefixSize);
  auto to = digits.begin();
  for (std::size_t i = 0; i < groups.size() && to != digits.end(); ++i) {
    if (i % kGroupSize != kGroupSize - 1) *to++ = groups[i];
  }
  return true;
}

int has_smi(const char* root, const char* device, int port) noexcept {
  if (std::string_view(device) == "hcx4_0") return 0;
  const std::optional<std::string> path = qvx_expand_template("%s/%s/ports/%d/has_smi", root, device, port);
  if (!path) return -1;
  struct stat status {};
  if (stat(path->c_str(), &status) != 0) return 0;
  const FileDescriptor file = open_to_read(path->c_str());
  if (!file) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to open has_smi file: %s with %s:%d", path->c_str(), device, port);
    return -1;
  }
  std::array<char, 1> value{};
  if (read_once(file, value) <= 0) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to read has_smi file: %s with %s:%d", path->c_str(), device, port);
    return -1;
  }
  return value[0] == '0' ? 1 : 0;
}

}  // namespace qvx

int qvx_discover_adapters(qvx_adapter_info* entries, int capacity) noexcept {
  const std::size_t size = entries != nullptr && capacity > 0 ? static_cast<std::size_t>(capacity) : 0;
  return qvx::discover_adapters(qvx::kAdapterRoot, {entries, size});
}

void qvx_print_adapters(std::FILE* stream, const qvx_adapter_info* entries, int count) noexcept {
  for (int i = 0; i < count; ++i) {
    const qvx_adapter_info& entry = entries[i];
    if (entry.name[0] == '\0') continue;
    qvx::print_field(stream, i, "hca_name", entry.name);
    qvx::print_field(stream, i, "node_guid", entry.node_guid);
    qvx::print_field(stream, i, "system_image_guid", entry.system_image_guid);
    qvx::print_field(stream, i, "port_1_guid", entry.port_1_guid);
    qvx::print_field(stream, i, "port_2_guid", entry.port_2_guid);
  }
}

int qvx_has_smi(const char* device, int port) noexcept {
  return qvx::has_smi(qvx::kAdapterRoot, device, port);
}
