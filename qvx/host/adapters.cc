#include "qvx/host/adapters.h"

#include <cstring>
#include <string_view>

namespace qvx {
namespace {

template <std::size_t kSize>
consteval std::size_t at(const char (&name)[kSize]) {
  return offset_of(kAdapterEntryLayout, std::string_view(name, kSize - 1));
}

template <std::size_t kSize>
void take(std::array<char, kSize>& field, const std::byte* from) {
  std::memcpy(field.data(), from, kSize);
}

template <std::size_t kSize>
void put(std::byte* to, const std::array<char, kSize>& field) {
  std::memcpy(to, field.data(), kSize);
}

}  // namespace

qvx_adapter_info adapter_decode(std::span<const std::byte, kAdapterEntrySize> bytes) noexcept {
  const std::byte* const from = bytes.data();
  qvx_adapter_info adapter;
  take(adapter.name, from + at("name"));
  take(adapter.node_guid, from + at("node_guid"));
  take(adapter.system_image_guid, from + at("system_image_guid"));
  take(adapter.port_1_guid, from + at("port_1_guid"));
  take(adapter.port_2_guid, from + at("port_2_guid"));
  return adapter;
}

AdapterBytes adapter_encode(const qvx_adapter_info& adapter) noexcept {
  AdapterBytes bytes;
  std::byte* const to = bytes.data();
  put(to + at("name"), adapter.name);
  put(to + at("node_guid"), adapter.node_guid);
  put(to + at("system_image_guid"), adapter.system_image_guid);
  put(to + at("port_1_guid"), adapter.port_1_guid);
  put(to + at("port_2_guid"), adapter.port_2_guid);
  return bytes;
}

}  // namespace qvx
