// The MD5 digest, which identifies schemas and tells whether node information changed.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

namespace qvx {

// Over a text that comes in pieces.
class Md5 {
 public:
  Md5() noexcept;
  void add(std::string_view bytes) noexcept;
  // Of all that was added. Nothing may be added behind it.
  std::array<std::byte, 16> digest() noexcept;

 private:
  // The state of the library that computes it, whose header stays out of this one.
  alignas(std::max_align_t) std::array<std::byte, 96> state_;
};

std::array<std::byte, 16> md5(std::string_view bytes) noexcept;

}  // namespace qvx
