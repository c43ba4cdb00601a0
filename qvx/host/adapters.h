// The host channel adapters of this machine, as the kernel lists them under /sys/class/infiniband.
#pragma once

#include <array>
#include <cstddef>
#include <cstdio>
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

// Finds the adapters of this machine in the order of their names and fills the entries from the first on; the
// others are cleared. Readers stop at the first empty name. A GUID that cannot be read stays empty. Always 0.
int qvx_discover_adapters(qvx_adapter_info* entries, int capacity) noexcept;

// One line per field of every entry that has a name.
void qvx_print_adapters(std::FILE* stream, const qvx_adapter_info* entries, int count) noexcept;

// The has_smi attribute of a port, deliberately turned round: 1 when it reads '0', 0 when it reads anything
// else or does not exist, -1 when it cannot be read. Always 0 for the device "hcx4_0".
int qvx_has_smi(const char* device, int port) noexcept;

namespace qvx {

using AdapterBytes = std::array<std::byte, kAdapterEntrySize>;

qvx_adapter_info adapter_decode(std::span<const std::byte, kAdapterEntrySize> bytes) noexcept;
AdapterBytes adapter_encode(const qvx_adapter_info& adapter) noexcept;

inline constexpr const char* kAdapterRoot = "/sys/class/infiniband";

// The same with the folder that lists the adapters.
int discover_adapters(const char* root, std::span<qvx_adapter_info> entries) noexcept;
int has_smi(const char* root, const char* device, int port) noexcept;

// Reads the 16 hexadecimal digits of a GUID, or of a GID without its subnet prefix, from the file whose path
// the printf format gives. False, with the digits left alone, when there is nothing to read; only a file that
// cannot be opened is not worth a message.
bool read_guid_file(std::array<char, kGuidSize>& digits, const char* path_format, ...) noexcept
    __attribute__((format(printf, 2, 3)));

}  // namespace qvx
