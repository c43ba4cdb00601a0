// Numbers as text, exact to the byte and without printf.
//
// Every function writes at `out` without a terminator and returns the position behind the last byte. The
// buffer must offer the stated room, which may exceed the text: the routines store whole words.
#pragma once

#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "qvx/support/number_digits.h"

namespace qvx {

// Room that the JSON and integer functions ask for. The longest text of theirs is 24 bytes.
inline constexpr std::size_t kNumberRoom = 32;
// Room that write_fixed6 asks for: the largest double has 309 digits before the point.
inline constexpr std::size_t kFixedNumberRoom = 352;

// The text that the C format "%1.17g" gives for a finite value. JSON has no text for NaN and the infinities;
// passing one is a fault of the caller.
inline char* write_json_number(char* out, double value);

// The text of the value converted to double, which is how JSON holds every number: exact up to 2^53, rounded
// beyond, in the exponent form from 1e17 on.
inline char* write_json_number(char* out, std::uint64_t value);
inline char* write_json_number(char* out, std::int64_t value);
inline char* write_json_number(char* out, std::uint32_t value);
inline char* write_json_number(char* out, std::int32_t value);

// Plain decimal integers.
inline char* write_decimal(char* out, std::uint64_t value);
inline char* write_decimal(char* out, std::int64_t value);
inline char* write_decimal(char* out, std::uint32_t value);
inline char* write_decimal(char* out, std::int32_t value);

// The text that the C format "%f" gives, for every double; NaN and the infinities print as "nan", "-nan",
// "inf" and "-inf".
char* write_fixed6(char* out, double value);

// ---- the paths worth inlining: integers, which most numbers of telemetry are ----

namespace detail {

// write_json_number for every finite value that is no integer below 1e17, and for -0.
char* write_general(char* out, double value);

// The minus sign where there is one; the value without it.
inline char* write_sign(char* out, bool negative) {
  *out = '-';
  return out + negative;
}

}  // namespace detail

inline char* write_decimal(char* out, std::uint64_t value) {
  return detail::write_unsigned(out, value);
}

inline char* write_decimal(char* out, std::int64_t value) {
  const auto bits = static_cast<std::uint64_t>(value);
  return detail::write_unsigned(detail::write_sign(out, value < 0), value < 0 ? 0 - bits : bits);
}

inline char* write_decimal(char* out, std::uint32_t value) {
  return write_decimal(out, std::uint64_t{value});
}

inline char* write_decimal(char* out, std::int32_t value) {
  return write_decimal(out, std::int64_t{value});
}

inline char* write_json_number(char* out, double value) {
  constexpr double kPlainIntegerEnd = 1e17;  // "%1.17g" turns to the exponent form here
  if (std::fabs(value) < kPlainIntegerEnd) {
    const auto integer = static_cast<std::int64_t>(value);
    // By bits, because -0 keeps its sign.
    if (std::bit_cast<std::uint64_t>(static_cast<double>(integer)) == std::bit_cast<std::uint64_t>(value))
      return write_decimal(out, integer);
  }
  return detail::write_general(out, value);
}

inline char* write_json_number(char* out, std::uint64_t value) {
  constexpr std::uint64_t kExactEnd = std::uint64_t{1} << 53;
  if (value <= kExactEnd) return write_decimal(out, value);
  return write_json_number(out, static_cast<double>(value));
}

inline char* write_json_number(char* out, std::int64_t value) {
  constexpr std::int64_t kExactEnd = std::int64_t{1} << 53;
  if (value >= -kExactEnd && value <= kExactEnd) return write_decimal(out, value);
  return write_json_number(out, static_cast<double>(value));
}

inline char* write_json_number(char* out, std::uint32_t value) {
  return write_decimal(out, value);
}
inline char* write_json_number(char* out, std::int32_t value) {
  return write_decimal(out, value);
}

}  // namespace qvx
