#include "qvx/data/write/node_info.h"

#include <fcntl.h>
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

// Where the text goes: the open folder, and its path for messages.
struct Directory {
  int descriptor;
  const std::string& path;
  const MakeRoom& make_room;
};

std::string path_in(const Directory& directory, const std::string& name) {
  return directory.path + "/" + name;
}

bool fail_open(const std::string& path, int error) {
  QVX_LOG(QVX_LOG_ERROR, "[nodeinfo_file] Failed to open file %s for writing: %s", path.c_str(),
          std::strerror(error));
  return false;
}

enum class Target { written, failed, taken };

// With `replace` it writes over a file that has the name, otherwise it leaves that alone.
Target write_file(const Directory& directory, const std::string& name, std::string_view text, bool replace) {
  const std::string path = path_in(directory, name);
  const auto open_with = [&](int flags) {
    return open_in(directory.descriptor, name, O_WRONLY | flags, directory.make_room);
  };
  FileDescriptor file = open_with(O_CREAT | O_EXCL);
  const bool is_new = static_cast<bool>(file);
  if (!file && errno == EEXIST) {
    if (!replace) return Target::taken;
    file = open_with(O_TRUNC);
  }
  if (!file) {
    fail_open(path, errno);
    return Target::failed;
  }
  const bool written = write_all(file.get(), text.data(), text.size()) == text.size();
  int error = errno;
  const bool closed = file.close();
  if (written && closed) return Target::written;
  if (written) error = errno;
  QVX_LOG(QVX_LOG_ERROR, "[nodeinfo_file] Failed to write data to file %s: %s", path.c_str(),
          std::strerror(error));
  if (is_new) unlinkat(directory.descriptor, name.c_str(), 0);
  return Target::failed;
}

bool may_write_another() {
  const char* const allow = qvx_getenv("QVX_ALLOW_MULTIPLE_NODEINFO");
  return allow == nullptr || *allow == '\0' || is_true_switch(allow);
}

// A path cut to its limit would name another place.
bool is_too_long(const Directory& directory, const std::string& name) {
  const std::string path = path_in(directory, name);
  if (path.size() <= kMaxPathLength) return false;
  fail_open(path, ENAMETOOLONG);
  return true;
}

bool write_into(const Directory& directory, const qvx_nodeinfo_cache& cache) {
  const std::string first = "nodeinfo.json";
  if (is_too_long(directory, first)) return false;
  const Target target = write_file(directory, first, *cache.json_text, false);
  if (target != Target::taken) return target == Target::written;
  if (!may_write_another()) return true;
  const std::string second = format_text("nodeinfo.%lu.json", cache.timestamp);
  if (is_too_long(directory, second)) return false;
  return write_file(directory, second, *cache.json_text, true) == Target::written;
}

// Rebuilds the text when the adapters changed; false when it cannot be made.
bool bring_up_to_date(qvx_nodeinfo_cache& cache, const qvx_data_page& page) {
  const auto adapters = page_adapters(page);
  const std::array<std::byte, 16> digest = digest_of(used_entries(adapters));
  if (cache.json_text && digest == cache.adapters_digest) return true;
  const std::uint64_t timestamp = page_first_timestamp(page);
  std::optional<std::string> text = nodeinfo_text(adapters, timestamp);
  if (!text) return false;
  cache.json_text = std::move(text);
  cache.adapters_digest = digest;
  cache.timestamp = timestamp;
  cache.directory.reset();  // nothing of this text is written anywhere yet
  return true;
}

bool fail_allocation() {
  QVX_LOG(QVX_LOG_ERROR, "HCA info: unable to allocate json value");
  return false;
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
    const std::string path = directory;
    if (!bring_up_to_date(cache, page)) return false;
    const FileDescriptor folder = open_to_read(directory, O_PATH | O_DIRECTORY);
    if (!folder) return fail_open(path + "/nodeinfo.json", errno);
    return nodeinfo_write_in(cache, folder.get(), path, page);
  } catch (const std::bad_alloc&) {
    return fail_allocation();
  }
}

bool nodeinfo_write_in(qvx_nodeinfo_cache& cache, int folder, const std::string& directory,
                       const qvx_data_page& page, const MakeRoom& make_room) noexcept {
  try {
    if (!bring_up_to_date(cache, page)) return false;
    if (cache.directory == directory) return true;
    std::string target = directory;
    if (!write_into({folder, directory, make_room}, cache)) return false;
    cache.directory = std::move(target);
    return true;
  } catch (const std::bad_alloc&) {
    return fail_allocation();
  }
}

}  // namespace qvx
