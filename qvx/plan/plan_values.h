// The values of plan steps as text. Internal to the record plan: everything here is inlined into its inner
// loop.
#pragma once

#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "qvx/plan/record_plan.h"
#include "qvx/support/bytes.h"
#include "qvx/support/number.h"

namespace qvx {

// Copies up to `length` bytes, ending before the first that is not printable in the C locale. With `kEscape`,
// quotes and backslashes get a backslash; `out` needs 2 × length + 8 bytes of room.
template <bool kEscape>
inline char* write_printable(char* out, const std::byte* from, std::size_t length) {
  constexpr std::uint64_t kOnes = 0x0101010101010101;
  constexpr std::uint64_t kHighBits = kOnes * 0x80;
  // The high bit of the first zero byte of a word is set; bits above it may be wrong.
  constexpr auto first_zero = [](std::uint64_t word) { return (word - kOnes) & ~word; };
  const std::byte* const end = from + length;
  while (end - from >= 8) {
    const auto word = load_le<std::uint64_t>(from);
    std::uint64_t stops = ((word - kOnes * 0x20) & ~word) | word | first_zero(word ^ kOnes * 0x7F);
    if constexpr (kEscape) stops |= first_zero(word ^ kOnes * '"') | first_zero(word ^ kOnes * '\\');
    stops &= kHighBits;
    std::memcpy(out, from, 8);
    if (stops == 0) {
      out += 8;
      from += 8;
      continue;
    }
    const int clean = std::countr_zero(stops) / 8;
    out += clean;
    from += clean;
    const char stop = static_cast<char>(*from);
    if (!kEscape || (stop != '"' && stop != '\\')) return out;
    *out++ = '\\';
    *out++ = stop;
    ++from;
  }
  for (; from != end; ++from) {
    const auto byte = std::to_integer<unsigned char>(*from);
    if (byte < 0x20 || byte > 0x7E) return out;
    if (kEscape && (byte == '"' || byte == '\\')) *out++ = '\\';
    *out++ = static_cast<char>(byte);
  }
  return out;
}

inline char* write_json_double(char* out, double value) {
  if (!std::isfinite(value)) [[unlikely]]
    return nullptr;
  return write_json_number(out, value);
}

// For kinds up to `last_plain` only. Null when a JSON number cannot be made of the value. The count is read
// only where it is needed.
[[gnu::always_inline]] inline char* write_plan_value(StepKind kind, const std::byte* from,
                                                     const std::uint32_t& count, char* out) {
  switch (kind) {
    case StepKind::literal:
      return out;
    case StepKind::u8:
      return write_decimal(out, std::uint64_t{load_le<std::uint8_t>(from)});
    case StepKind::i8:
      return write_decimal(out, std::int64_t{load_le<std::int8_t>(from)});
    case StepKind::u16:
      return write_decimal(out, std::uint64_t{load_le<std::uint16_t>(from)});
    case StepKind::i16:
      return write_decimal(out, std::int64_t{load_le<std::int16_t>(from)});
    case StepKind::u32:
      return write_decimal(out, std::uint64_t{load_le<std::uint32_t>(from)});
    case StepKind::i32:
      return write_decimal(out, std::int64_t{load_le<std::int32_t>(from)});
    case StepKind::u64:
      return write_decimal(out, load_le<std::uint64_t>(from));
    case StepKind::i64:
      return write_decimal(out, load_le<std::int64_t>(from));
    case StepKind::json_u64:
      return write_json_number(out, load_le<std::uint64_t>(from));
    case StepKind::json_i64:
      return write_json_number(out, load_le<std::int64_t>(from));
    case StepKind::json_f32:
      return write_json_double(out, double{load_le<float>(from)});
    case StepKind::json_f64:
      return write_json_double(out, load_le<double>(from));
    case StepKind::influx_bool: {
      const std::string_view text = load_le<std::uint8_t>(from) != 0 ? "true" : "false";
      std::memcpy(out, text.data(), text.size());
      return out + text.size();
    }
    case StepKind::influx_f32:
      return write_fixed6(out, double{load_le<float>(from)});
    case StepKind::influx_f64:
      return write_fixed6(out, load_le<double>(from));
    case StepKind::json_characters:
      return write_printable<true>(out, from, count);
    case StepKind::influx_characters:
      return write_printable<false>(out, from, count);
    case StepKind::check_f32:
      return std::isfinite(load_le<float>(from)) ? out : nullptr;
    case StepKind::check_f64:
      return std::isfinite(load_le<double>(from)) ? out : nullptr;
    default:
      __builtin_unreachable();  // which saves a compare per value
  }
}

inline bool plan_value_has_text(StepKind kind, const std::byte* from) {
  switch (kind) {
    case StepKind::json_f32:
    case StepKind::check_f32:
      return std::isfinite(load_le<float>(from));
    case StepKind::json_f64:
    case StepKind::check_f64:
      return std::isfinite(load_le<double>(from));
    default:
      return true;
  }
}

}  // namespace qvx
