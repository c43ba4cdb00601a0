#include "qvx/data/write/node_info.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

#include "qvx/data/source.h"
#include "qvx/support/bytes.h"
#include "qvx/support/env.h"
#include "qvx/support/format.h"
#include "qvx/support/json_text.h"
#include "qvx/support/json_value.h"
#include "qvx/support/log.h"
#include "qvx/support/md5.h"
#include "qvx/support/text.h"

namespace qvx {
namespace {

constexpr std::size_t kMaxPathLength = 999;

std::span<const qvx_adapter_info> used_entries(std::span<const qvx_adapter_info> adapters) {
  const auto end = std::find_if(adapters.begin(), adapters.end(),
                                [](const qvx_adapter_info& adapter) { return adapter.name[0] == '\0'; });
  return {adapters.begin(), end};
}

std::array<std::byte, 16> digest_of(std::span<const qvx_adapter_info> adapters) {
  std::string bytes;
  for (const qvx_adapter_info& adapter : adapters)
    bytes += as_text(adapter_encode(adapter));
  return md5(bytes);
}

// Sets "<device>.<member>". The device name comes out of a page and may be anything.
bool set_member(json::Object& root, std::string_view device, const char* member, std::string_view text) {
  std::optional<json::Value> value = json::Value::string(text);
  const std::string path = std::string(device).append(".").append(member);
  if (value && json::is_valid_utf8(device) && root.set_dotted(path, std::move(*value))) return true;
  QVX_LOG(QVX_LOG_ERROR, "HCA info: unable to set '%s' field", member);
  return false;
}

bool set_adapter(json::Object& root, const qvx_adapter_info& adapter) {
  const std::string_view device = field_text(adapter.name);
  const std::string_view second_port = field_text(adapter.port_2_guid);
  return set_member(root, device, "node_guid", field_text(adapter.node_guid)) &&
         set_member(root, device, "system_image_guid", field_text(adapter.system_image_guid)) &&
         set_member(root, device, "port_1_guid", field_text(adapter.port_1_guid)) &&
         (second_port.empty() || set_member(root, device, "port_2_guid", second_port));
}

bool write_all(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = write(descriptor, text.data(), text.size());
    if (count < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    text.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

bool exists(const char* path) {
  struct stat status {};
  return lstat(path, &status) == 0;
}

bool write_file(const char* path, std::string_view text) {
  const bool is_new = !exists(path);
  const int descriptor = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666);
  if (descriptor < 0) {
    QVX_LOG(QVX_LOG_ERROR, "[nodeinfo_file] Failed to open file %s for writing: %s", path,
            std::strerror(errno));
    return false;
  }
  bool written = write_all(descriptor, text);
  int error = errno;
  if (close(descriptor) != 0 && written && errno != EINTR) {
    written = false;
    error = errno;
  }
  if (!written) {
    QVX_LOG(QVX_LOG_ERROR, "[nodeinfo_file] Failed to write data to file %s: %s", path, std::strerror(error));
    if (is_new) unlink(path);
  }
  return written;
}

// Where the text goes; empty when the setting forbids a second file.
std::string target_path(const std::string& directory, std::uint64_t timestamp) {
  const std::string first = directory + "/nodeinfo.json";
  if (!exists(first.c_str())) return first;
  const char* const allow = qvx_getenv("QVX_ALLOW_MULTIPLE_NODEINFO");
  if (allow != nullptr && *allow != '\0' && !is_true_switch(allow)) return {};
  return format_text("%s/nodeinfo.%lu.json", directory.c_str(), timestamp);
}

bool write_into(const std::string& directory, const qvx_nodeinfo_cache& cache) {
  const std::string path = target_path(directory, cache.timestamp);
  if (path.empty()) return true;
  // A path cut to its limit would name another place.
  if (path.size() > kMaxPathLength) {
    QVX_LOG(QVX_LOG_ERROR, "[nodeinfo_file] Failed to open file %s for writing: %s", path.c_str(),
            std::strerror(ENAMETOOLONG));
    return false;
  }
  return write_file(path.c_str(), *cache.json_text);
}

}  // namespace

std::optional<std::string> nodeinfo_text(std::span<const qvx_adapter_info> adapters,
                                         std::uint64_t timestamp) noexcept {
  try {
    json::Object root;
    if (!root.set_number("timestamp", static_cast<double>(timestamp))) {
      QVX_LOG(QVX_LOG_ERROR, "HCA info: unable to set 'timestamp' field");
      return std::nullopt;
    }
    for (const qvx_adapter_info& adapter : used_entries(adapters)) {
      if (!set_adapter(root, adapter)) return std::nullopt;
    }
    std::optional<std::string> text = json::to_text(json::Value(std::move(root)), json::Style::pretty);
    if (!text) throw std::bad_alloc();
    return text;
  } catch (const std::bad_alloc&) {
    QVX_LOG(QVX_LOG_ERROR, "HCA info: unable to allocate json value");
    return std::nullopt;
  }
}

bool nodeinfo_write(qvx_nodeinfo_cache& cache, const char* directory, const qvx_data_page& page) noexcept {
  try {
    const auto adapters = page_adapters(page);
    const std::array<std::byte, 16> digest = digest_of(used_entries(adapters));
    std::string target = directory;
    if (!cache.json_text || digest != cache.adapters_digest) {
      const std::uint64_t timestamp = page_first_timestamp(page);
      std::optional<std::string> text = nodeinfo_text(adapters, timestamp);
      if (!text) return false;
      cache.json_text = std::move(text);
      cache.adapters_digest = digest;
      cache.timestamp = timestamp;
      cache.directory.reset();  // nothing of this text is written anywhere yet
    } else if (target == cache.directory) {
      return true;
    }
    if (!write_into(target, cache)) return false;
    cache.directory = std::move(target);
    return true;
  } catch (const std::bad_alloc&) {
    QVX_LOG(QVX_LOG_ERROR, "HCA info: unable to allocate json value");
    return false;
  }
}

}  // namespace qvx
