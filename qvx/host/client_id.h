// Who writes data: the name of this host and a port.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "qvx/support/layout_table.h"

namespace qvx {

inline constexpr std::size_t kHostNameSize = 64;

inline constexpr std::array<LayoutField, 2> kClientIdLayout{{
    {"host_name", 0, 64},
    {"port", 64, 2},
}};
inline constexpr std::size_t kClientIdSize = 66;
static_assert(tiles(kClientIdLayout, kClientIdSize));

}  // namespace qvx

struct qvx_client_id_t {
  std::array<char, qvx::kHostNameSize> host_name{};  // at most 63 characters, padded with NUL
  std::uint16_t port = 0;
};
static_assert(sizeof(qvx_client_id_t) == qvx::kClientIdSize);

// Writes the host name into a buffer of `size` bytes and returns the buffer: the value of QVX_HOST_NAME as it
// is, cut to fit, else the system's name up to its first dot. Null when the system's name cannot be read or
// does not fit.
char* qvx_host_name(char* buffer, std::size_t size) noexcept;

// An identity with this host's name and port 0. Null when there is no name or no memory.
qvx_client_id_t* qvx_client_id_create() noexcept;
void qvx_client_id_destroy(qvx_client_id_t* id) noexcept;

// Field names, offsets and sizes, to standard output; a line at level 3 instead when memory is short.
void qvx_client_id_print_layout() noexcept;

namespace qvx {

struct ClientIdDelete {
  void operator()(qvx_client_id_t* id) const noexcept { qvx_client_id_destroy(id); }
};
using ClientIdPtr = std::unique_ptr<qvx_client_id_t, ClientIdDelete>;

}  // namespace qvx
