#include "qvx/support/number.h"

#include <charconv>
#include <cmath>
#include <cstring>

namespace qvx {
namespace {

// Integers below this print as plain digits under "%1.17g".
constexpr double kIntegerTextEnd = 1e17;

}  // namespace

char* write_json_number(char* out, double value) {
  if (std::fabs(value) < kIntegerTextEnd) {
    const auto integer = static_cast<std::int64_t>(value);
    if (static_cast<double>(integer) == value && (integer != 0 || !std::signbit(value)))
      return write_decimal(out, integer);
  }
  return std::to_chars(out, out + kNumberRoom, value, std::chars_format::general, 17).ptr;
}

char* write_json_number(char* out, std::uint64_t value) {
  constexpr std::uint64_t kExactEnd = std::uint64_t{1} << 53;
  if (value <= kExactEnd) return write_decimal(out, value);
  return write_json_number(out, static_cast<double>(value));
}

char* write_json_number(char* out, std::int64_t value) {
  constexpr std::int64_t kExactEnd = std::int64_t{1} << 53;
  if (value >= -kExactEnd && value <= kExactEnd) return write_decimal(out, value);
  return write_json_number(out, static_cast<double>(value));
}

char* write_decimal(char* out, std::uint64_t value) {
  return std::to_chars(out, out + kNumberRoom, value).ptr;
}

char* write_decimal(char* out, std::int64_t value) {
  return std::to_chars(out, out + kNumberRoom, value).ptr;
}

char* write_fixed6(char* out, double value) {
  if (std::isnan(value)) {
    if (std::signbit(value)) *out++ = '-';
    std::memcpy(out, "nan", 3);
    return out + 3;
  }
  return std::to_chars(out, out + kFixedNumberRoom, value, std::chars_format::fixed, 6).ptr;
}

}  // namespace qvx
