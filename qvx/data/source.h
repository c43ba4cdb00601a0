// The source that produced data: an identifier and a tag, and how they are determined.
//
// Nothing here throws. Failures are logged.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "qvx/data/file_header.h"

// Both texts are padded with NUL. Those that come out of files may fill their field without a terminator.
struct qvx_source {
  std::array<char, qvx::kSourceIdSize> id{};
  std::array<char, qvx::kSourceTagSize> tag{};

  friend bool operator==(const qvx_source&, const qvx_source&) = default;
};

namespace qvx {

// A record of both texts, cut at 64 and 16 characters.
qvx_source make_source(std::string_view id, std::string_view tag) noexcept;

// Fills in the source id, at most 63 characters and then NUL: the given text, else QVX_SOURCE_ID, else the
// host name. A null or empty text is passed over. False when there is no host name either; the field is then
// clear.
[[nodiscard]] bool source_id_resolve(std::array<char, kSourceIdSize>& to, const char* given) noexcept;

// Writes "<id>:<tag>" and a terminator; false when that is more than `capacity` bytes.
[[nodiscard]] bool source_key_text(const qvx_source& source, char* to, std::size_t capacity) noexcept;

}  // namespace qvx
