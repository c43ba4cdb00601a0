// Arithmetic on sizes that come out of files and schemas: it stops at the largest value instead of wrapping.
#pragma once

#include <cmath>
#include <concepts>
#include <cstdint>
#include <limits>

namespace qvx {

inline std::uint64_t saturating_add(std::uint64_t a, std::uint64_t b) {
  std::uint64_t sum = 0;
  return __builtin_add_overflow(a, b, &sum) ? std::numeric_limits<std::uint64_t>::max() : sum;
}

inline std::uint64_t saturating_multiply(std::uint64_t a, std::uint64_t b) {
  std::uint64_t product = 0;
  return __builtin_mul_overflow(a, b, &product) ? std::numeric_limits<std::uint64_t>::max() : product;
}

// The integer part of a JSON number as an unsigned integer. Numbers below 0 give 0, those too large the
// largest value, which is what the conversion instruction of 64-bit Arm does.
template <std::unsigned_integral T>
T saturate_to(double value) {
  if (!(value > 0)) return 0;
  if (value >= std::ldexp(1.0, std::numeric_limits<T>::digits)) return std::numeric_limits<T>::max();
  return static_cast<T>(value);
}

}  // namespace qvx
