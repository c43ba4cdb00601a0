// The host channel adapters of this machine, as the kernel lists them under /sys/class/infiniband.
#pragma once

#include <array>
#include <cstddef>
#include <span>

#include "qvx/support/layout_table.h"

namespace qvx {

inline constexpr std::size_t kAdapterNameSize = 20;
inline constexpr std::size_t kGuidSize = 16;

inline constexpr std::array<LayoutField, 5> kAdapterEntryLayout{{
    {"name", 0, 20},
    {"node_guid", 20, 16},
    {"system_image_guid", 36, 16},
    {"port_1_guid", 52, 16},
    {"port_2_guid", 68, 16},
}};
inline constexpr std::size_t kAdapterEntrySize = 84;
static_assert(tiles(kAdapterEntryLayout, kAdapterEntrySize));

}  // namespace qvx

// One adapter. The texts are padded with NUL and not terminated when they fill their field. An entry with an
// empty name ends a list; an empty port 2 GUID means one port.
struct qvx_adapter_info {
  std::array<char, qvx::kAdapterNameSize> name{};
  std::array<char, qvx::kGuidSize> node_guid{};
  std::array<char, qvx::kGuidSize> system_image_guid{};
  std::array<char, qvx::kGuidSize> port_1_guid{};
  std::array<char, qvx::kGuidSize> port_2_guid{};

  friend bool operator==(const qvx_adapter_info&, const qvx_adapter_info&) = default;
};

namespace qvx {

using AdapterBytes = std::array<std::byte, kAdapterEntrySize>;

qvx_adapter_info adapter_decode(std::span<const std::byte, kAdapterEntrySize> bytes) noexcept;
AdapterBytes adapter_encode(const qvx_adapter_info& adapter) noexcept;

}  // namespace qvx
