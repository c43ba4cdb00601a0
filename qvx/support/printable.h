// Where text in files ends that ends before its first byte that is not printable in the C locale: ' ' to '~'.
// Without branches on the bytes, as where texts end is hard to foretell.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

#include "qvx/support/bytes.h"

namespace qvx {

// How many bytes of a word, as load_le gives it, stand before the first that is not printable: at most 8.
inline std::size_t printable_in(std::uint64_t word) {
  constexpr std::uint64_t kOnes = 0x0101010101010101;
  constexpr std::uint64_t kHighBits = kOnes * 0x80;
  const std::uint64_t low = word & ~kHighBits;
  // The high bit of each byte tells: from ' ' on, from '\x7F' on, beyond ASCII.
  const std::uint64_t stops = (~(low + kOnes * 0x60) | (low + kOnes) | word) & kHighBits;
  const std::uint64_t before = (stops - 1) & ~stops & kHighBits;
  return static_cast<std::size_t>((before >> 7) * kOnes >> 56);
}

// The same of `size` bytes, 8 to 16 of them: of two words that may overlap.
inline std::size_t printable_in_8_to_16(const std::byte* from, std::size_t size) {
  const std::size_t first = printable_in(load_le<std::uint64_t>(from));
  const std::size_t last = size - 8 + printable_in(load_le<std::uint64_t>(from + size - 8));
  const std::size_t is_whole = first / 8;
  return first + ((last - first) & -is_whole);
}

// The same of any number of bytes.
inline std::size_t printable_in(const std::byte* from, std::size_t size) {
  std::size_t at = 0;
  for (; size - at > 16; at += 16)
    if (const std::size_t some = printable_in_8_to_16(from + at, 16); some != 16) return at + some;
  if (size - at >= 8) return at + printable_in_8_to_16(from + at, size - at);
  for (; at < size; ++at) {
    const auto byte = std::to_integer<unsigned char>(from[at]);
    if (byte < 0x20 || byte > 0x7E) break;
  }
  return at;
}

}  // namespace qvx
