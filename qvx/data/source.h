// The source that produced data: an identifier and a tag.
#pragma once

#include <array>
#include <string_view>

#include "qvx/data/file_header.h"

// Both texts are padded with NUL. Those that come out of files may fill their field without a terminator.
struct qvx_source {
  std::array<char, qvx::kSourceIdSize> id{};
  std::array<char, qvx::kSourceTagSize> tag{};

  friend bool operator==(const qvx_source&, const qvx_source&) = default;
};

namespace qvx {

// The text of a NUL-padded field: up to the first NUL, or all of it. Views the field.
template <std::size_t kSize>
std::string_view field_text(const std::array<char, kSize>& field) noexcept {
  const std::string_view all(field.data(), kSize);
  return all.substr(0, all.find('\0'));
}

// A record of both texts, cut at 64 and 16 characters.
qvx_source make_source(std::string_view id, std::string_view tag) noexcept;

}  // namespace qvx
