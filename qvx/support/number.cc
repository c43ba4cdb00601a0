#include "qvx/support/number.h"

#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>

#include "qvx/support/number_tables.h"

namespace qvx {
namespace {

using detail::eight_digits;
using detail::kPowersOfTen;
using detail::PowerOfTen;
using detail::text_of;
using detail::write_sign;

__extension__ typedef unsigned __int128 Uint128;

constexpr int kMantissaBits = 52;
constexpr int kExponentBias = 1023;
constexpr unsigned kExponentMask = 0x7FF;
constexpr std::uint64_t kMantissaMask = (std::uint64_t{1} << kMantissaBits) - 1;
constexpr std::uint64_t kHiddenBit = std::uint64_t{1} << kMantissaBits;

constexpr std::uint64_t kTenTo8 = 100'000'000;
constexpr std::uint64_t kTenTo16 = kTenTo8 * kTenTo8;

// Both formulas hold in the range that occurs here; scripts/make_number_tables.py --check proves it.
constexpr int floor_log10_of_power_of_two(int e) {
  return e * 1262611 >> 22;
}
constexpr int floor_log2_of_power_of_ten(int q) {
  return q * 1741647 >> 19;
}

constexpr const PowerOfTen& power_of_ten(int q) {
  return kPowersOfTen[q - detail::kFirstPowerOfTen];
}

// ---- 17 significant digits ----

// digits * 10^(exponent - 16), with digits in [10^16, 10^17).
struct Decimal17 {
  std::uint64_t digits;
  int exponent;
};

// Of the values in [2^e, 2^(e + 1)).
struct Binade {
  std::uint64_t low_end;  // the last significand below the power of ten inside, if there is one
  std::int16_t decimal;   // exponent of the values below that power
  // How far the product with the power of ten is to be shifted for twice the digits, below that power and
  // from it on.
  std::array<std::uint8_t, 2> shift;
};

constexpr std::uint8_t shift_of(int exponent, int decimal) {
  return static_cast<std::uint8_t>(61 - exponent - floor_log2_of_power_of_ten(16 - decimal));  // 5 to 9
}

// By the biased exponent, of normal doubles.
constexpr auto kBinades = [] {
  std::array<Binade, kExponentMask> binades{};
  for (unsigned biased = 1; biased < kExponentMask; ++biased) {
    const int exponent = static_cast<int>(biased) - kExponentBias;
    const int low = floor_log10_of_power_of_two(exponent);
    // Where the table holds a power exactly its lower half is zero, elsewhere that half is not.
    const PowerOfTen& next = power_of_ten(low + 1);
    const bool is_inside = floor_log2_of_power_of_ten(low + 1) == exponent;
    binades[biased] = {is_inside ? next.high - (next.low == 0) : UINT64_MAX,
                       static_cast<std::int16_t>(low),
                       {shift_of(exponent, low), shift_of(exponent, low + 1)}};
  }
  return binades;
}();

// Rounds significand * 2^(biased - bias - 63), the value of a normal double, to 17 digits, ties to even.
// False where the table is too coarse to tell how. Free of branches that depend on the digits.
bool round_to_17_digits(std::uint64_t significand, unsigned biased, Decimal17& result) {
  const Binade& binade = kBinades[biased];
  const bool is_above = significand > binade.low_end;
  const int decimal = binade.decimal + is_above;
  const unsigned shift = binade.shift[is_above];
  const int k = 16 - decimal;
  const PowerOfTen& power = power_of_ten(k);

  // The 192 bits upper:middle:low are the value * 10^k * 2^(129 + shift). The rounding of the table makes
  // them too small, by less than one unit of the middle word.
  const Uint128 lower_product = Uint128{significand} * power.low;
  const Uint128 product = Uint128{significand} * power.high + static_cast<std::uint64_t>(lower_product >> 64);
  const auto upper = static_cast<std::uint64_t>(product >> 64);
  const auto middle = static_cast<std::uint64_t>(product);

  const std::uint64_t halves = upper >> shift;
  std::uint64_t digits = (halves + 1) / 2;
  if (middle == 0 || middle == UINT64_MAX) [[unlikely]] {
    // Only an exact product can be told from a tie here; 5^55 is the last power below 2^128.
    if (k < 0 || k > 55) return false;
    const std::uint64_t below_half = upper & ((std::uint64_t{1} << shift) - 1);
    const bool tie =
        (halves & 1) != 0 && (below_half | middle | static_cast<std::uint64_t>(lower_product)) == 0;
    if (tie) digits &= ~std::uint64_t{1};
  }
  result = {digits, decimal};
  if (digits == 10 * kTenTo16) [[unlikely]]
    result = {kTenTo16, decimal + 1};
  return true;
}

// ---- laying the digits out as "%1.17g" does ----

// The 17 digits: the leading one, and the others as eight_digits gives them.
struct DigitWords {
  std::uint32_t leading;
  std::uint64_t first;
  std::uint64_t second;
};

DigitWords split_digits(std::uint64_t digits) {
  const std::uint64_t nine = digits / kTenTo8;
  const std::uint64_t leading = nine / kTenTo8;
  return {static_cast<std::uint32_t>(leading),
          eight_digits(static_cast<std::uint32_t>(nine - leading * kTenTo8)),
          eight_digits(static_cast<std::uint32_t>(digits - nine * kTenTo8))};
}

// How many of the 17 digits are left without the trailing zeros.
unsigned significant_digits(const DigitWords& words) {
  if (words.second != 0) return 17 - static_cast<unsigned>(std::countr_zero(words.second)) / 8;
  if (words.first != 0) return 9 - static_cast<unsigned>(std::countr_zero(words.first)) / 8;
  return 1;
}

char digit(std::uint32_t value) {
  return static_cast<char>('0' + value);
}

// "ddd.ddd" for a value from 1 on that is no integer: there is a digit behind the point.
char* write_with_point_inside(char* out, const DigitWords& words, int exponent) {
  const auto before = static_cast<unsigned>(exponent);  // digits between the leading one and the point
  const std::uint64_t first = text_of(words.first);
  const std::uint64_t second = text_of(words.second);
  out[0] = digit(words.leading);
  store_le(out + 1, first);
  if (before < 8) {
    // The part of the first word behind the point moves by one.
    out[1 + before] = '.';
    store_le(out + 2 + before, first >> (8 * before));
    store_le(out + 10, second);
  } else {
    store_le(out + 9, second);
    out[1 + before] = '.';
    store_le(out + 2 + before, second >> (8 * (before - 8)));
  }
  return out + significant_digits(words) + 1;
}

// "0.000ddd" for an exponent from -4 to -1.
char* write_with_leading_zeros(char* out, const DigitWords& words, int exponent) {
  std::memcpy(out, "0.000000", 8);
  out += 1 - exponent;
  out[0] = digit(words.leading);
  store_le(out + 1, text_of(words.first));
  store_le(out + 9, text_of(words.second));
  return out + significant_digits(words);
}

// "d.ddde+xx"; the exponent has two digits at least, the point stands only before a digit.
char* write_with_exponent(char* out, const DigitWords& words, int exponent) {
  out[0] = digit(words.leading);
  out[1] = '.';
  store_le(out + 2, text_of(words.first));
  store_le(out + 10, text_of(words.second));
  const unsigned count = significant_digits(words);
  out += count == 1 ? 1 : count + 1;
  *out++ = 'e';
  *out++ = exponent < 0 ? '-' : '+';
  auto rest = static_cast<std::uint32_t>(exponent < 0 ? -exponent : exponent);
  if (rest >= 100) {
    *out++ = digit(rest / 100);
    rest %= 100;
  }
  *out++ = digit(rest / 10);
  *out++ = digit(rest % 10);
  return out;
}

// ---- six decimals ----

char* write_fixed6_by_library(char* out, double value) {
  if (std::isnan(value)) {
    out = write_sign(out, std::signbit(value));
    std::memcpy(out, "nan", 3);
    return out + 3;
  }
  return std::to_chars(out, out + kFixedNumberRoom, value, std::chars_format::fixed, 6).ptr;
}

// value * 10^6 / 2^shift, rounded to the nearest integer, ties to even, for value < 2^53 and shift > 64.
std::uint64_t millionths_of_small(std::uint64_t value, int shift) {
  constexpr int kVanishing = 75;  // 2^53 * 10^6 is below 2^73
  if (shift >= kVanishing) return 0;
  const Uint128 scaled = Uint128{value} * 1'000'000;
  const auto whole = static_cast<std::uint64_t>(scaled >> shift);
  const Uint128 remainder = scaled - (Uint128{whole} << shift);
  const Uint128 half = Uint128{1} << (shift - 1);
  return whole + (remainder > half - (whole & 1));
}

}  // namespace

namespace detail {

char* write_general(char* out, double value) {
  const auto bits = std::bit_cast<std::uint64_t>(value);
  const unsigned biased = static_cast<unsigned>(bits >> kMantissaBits) & kExponentMask;
  Decimal17 decimal;
  // Zero and subnormal numbers have exponent 0.
  if (biased == 0 || biased == kExponentMask ||
      !round_to_17_digits((bits | kHiddenBit) << (63 - kMantissaBits), biased, decimal)) [[unlikely]]
    return std::to_chars(out, out + kNumberRoom, value, std::chars_format::general, 17).ptr;

  out = write_sign(out, bits >> 63 != 0);
  const DigitWords words = split_digits(decimal.digits);
  if (decimal.exponent >= 0 && decimal.exponent < 16)
    return write_with_point_inside(out, words, decimal.exponent);
  if (decimal.exponent < 0 && decimal.exponent >= -4)
    return write_with_leading_zeros(out, words, decimal.exponent);
  return write_with_exponent(out, words, decimal.exponent);
}

}  // namespace detail

char* write_fixed6(char* out, double value) {
  const auto bits = std::bit_cast<std::uint64_t>(value);
  const unsigned biased = static_cast<unsigned>(bits >> kMantissaBits) & kExponentMask;
  if (biased >= kExponentBias + 63) [[unlikely]]
    return write_fixed6_by_library(out, value);
  out = write_sign(out, bits >> 63 != 0);

  // The value is mantissa / 2^shift.
  const std::uint64_t mantissa = biased == 0 ? bits & kMantissaMask : (bits & kMantissaMask) | kHiddenBit;
  const int shift = kExponentBias + kMantissaBits - static_cast<int>(biased == 0 ? 1 : biased);
  std::uint64_t whole = 0;
  std::uint64_t millionths = 0;
  if (shift <= 0) {
    whole = mantissa << -shift;
  } else if (shift <= 64) {
    whole = shift < 64 ? mantissa >> shift : 0;
    // The shift drops the whole part; what is left is the fraction in units of 2^-64.
    const Uint128 product = Uint128{mantissa << (64 - shift)} * 1'000'000;
    constexpr std::uint64_t kHalf = std::uint64_t{1} << 63;
    const auto remainder = static_cast<std::uint64_t>(product);
    millionths = static_cast<std::uint64_t>(product >> 64);
    millionths += remainder > kHalf - (millionths & 1);
    if (millionths == 1'000'000) {
      millionths = 0;
      ++whole;
    }
  } else {
    millionths = millionths_of_small(mantissa, shift);
  }

  out = detail::write_unsigned(out, whole);
  // The first two of the eight digits are zero; the second of them gives its place to the point.
  constexpr std::uint64_t kFromZeroToPoint = std::uint64_t{'0' - '.'} << 8;
  store_le(out, (text_of(eight_digits(static_cast<std::uint32_t>(millionths))) - kFromZeroToPoint) >> 8);
  return out + 7;
}

}  // namespace qvx
