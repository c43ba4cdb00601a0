// Decimal integers, eight digits at a time in one 64-bit word.
#pragma once

#include <array>
#include <bit>
#include <cstdint>

#include "qvx/support/bytes.h"

namespace qvx::detail {

inline constexpr std::uint64_t kAsciiZeros = 0x3030303030303030;

// The eight digits of a value below 10^8, one a byte, the leading digit in the highest byte. The value is cut
// into groups of four, two and one digits; every cut is a division by multiply and shift in all lanes of the
// word at once (the scheme of Paul Khuong's "How to print integers really fast", 2017).
constexpr std::uint64_t eight_digits(std::uint32_t value) {
  // A cut turns each lane x into ((x / d) << w) + x % d, which is x + (x / d) * ((1 << w) - d).
  const std::uint64_t fours = value + std::uint64_t{value / 10000} * ((std::uint64_t{1} << 32) - 10000);
  const std::uint64_t hundreds = (fours * 10486 >> 20) & 0x0000007F0000007F;
  const std::uint64_t twos = fours + hundreds * ((1 << 16) - 100);
  const std::uint64_t tens = (twos * 103 >> 10) & 0x000F000F000F000F;
  return twos + tens * ((1 << 8) - 10);
}

constexpr std::uint64_t swap_bytes(std::uint64_t word) {
  word = (word & 0x00FF00FF00FF00FF) << 8 | (word >> 8 & 0x00FF00FF00FF00FF);
  word = (word & 0x0000FFFF0000FFFF) << 16 | (word >> 16 & 0x0000FFFF0000FFFF);
  return word << 32 | word >> 32;
}

// Eight digits as text, for store_le: the leading digit in the lowest byte.
constexpr std::uint64_t text_of(std::uint64_t digits) {
  return swap_bytes(digits) + kAsciiZeros;
}

inline char* write_eight_digits(char* out, std::uint32_t value) {
  store_le(out, text_of(eight_digits(value)));
  return out + 8;
}

// Writes the digits of a value below 10^8 without leading zeros, and zero as "0". Touches eight bytes.
inline char* write_leading_digits(char* out, std::uint32_t value) {
  constexpr std::uint64_t kLastDigit = std::uint64_t{1} << 56;
  const std::uint64_t digits = swap_bytes(eight_digits(value));
  const auto skipped = static_cast<unsigned>(std::countr_zero(digits | kLastDigit));
  store_le(out, (digits + kAsciiZeros) >> (skipped & 56));
  return out + (8 - skipped / 8);
}

// The texts of the numbers below 1000, which half of all telemetry is: up to three characters for store_le,
// and how many they are in the highest byte.
inline constexpr auto kShortTexts = [] {
  std::array<std::uint32_t, 1000> texts{};
  for (std::uint32_t value = 0; value < texts.size(); ++value) {
    std::uint32_t characters = 0;
    std::uint32_t count = 0;
    for (std::uint32_t rest = value; count == 0 || rest != 0; rest /= 10, ++count)
      characters = characters << 8 | ('0' + rest % 10);
    texts[value] = characters | count << 24;
  }
  return texts;
}();

// Touches at most 24 bytes.
inline char* write_unsigned(char* out, std::uint64_t value) {
  constexpr std::uint64_t kEight = 100'000'000;
  if (value < kShortTexts.size()) {
    const std::uint32_t text = kShortTexts[value];
    store_le(out, text);
    return out + (text >> 24);
  }
  if (value < kEight) return write_leading_digits(out, static_cast<std::uint32_t>(value));
  const std::uint64_t upper = value / kEight;
  const auto lower = static_cast<std::uint32_t>(value % kEight);
  if (upper < kEight) {
    out = write_leading_digits(out, static_cast<std::uint32_t>(upper));
  } else {
    out = write_leading_digits(out, static_cast<std::uint32_t>(upper / kEight));
    out = write_eight_digits(out, static_cast<std::uint32_t>(upper % kEight));
  }
  return write_eight_digits(out, lower);
}

}  // namespace qvx::detail
