// The MD5 digest, which identifies schemas and tells whether node information changed.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

namespace qvx {

std::array<std::byte, 16> md5(std::string_view bytes) noexcept;

}  // namespace qvx
