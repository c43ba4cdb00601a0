#include "qvx/support/number.h"

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <random>
#include <string>
#include <string_view>

namespace {

// Buffers of exactly the promised room between guard bytes; a write beyond makes the text a message.
constexpr std::size_t kGuard = 64;
constexpr char kGuardByte = '\x5A';

template <std::size_t kRoom, typename Write>
std::string text_by(Write write) {
  std::array<char, kGuard + kRoom + kGuard> memory;
  memory.fill(kGuardByte);
  char* const out = memory.data() + kGuard;
  const std::string text(out, write(out));
  for (std::size_t i = 0; i < kGuard; ++i) {
    if (memory[i] != kGuardByte) return "wrote in front of the room";
    if (memory[kGuard + kRoom + i] != kGuardByte) return "wrote behind the room";
  }
  return text;
}

template <typename T>
std::string json(T value) {
  return text_by<qvx::kNumberRoom>([=](char* out) { return qvx::write_json_number(out, value); });
}

template <typename T>
std::string decimal(T value) {
  return text_by<qvx::kNumberRoom>([=](char* out) { return qvx::write_decimal(out, value); });
}

std::string fixed6(double value) {
  return text_by<qvx::kFixedNumberRoom>([=](char* out) { return qvx::write_fixed6(out, value); });
}

template <typename T>
std::string printed(const char* format, T value) {
  char text[400];
  const int length = std::snprintf(text, sizeof text, format, value);
  return {text, static_cast<std::size_t>(length)};
}

constexpr std::int64_t kInt64Min = std::numeric_limits<std::int64_t>::min();

// ---- "%1.17g": texts by hand ----

struct DoubleText {
  double value;
  std::string_view text;
};

TEST(JsonNumber, IntegersPrintAsPlainDigitsBelow1e17) {
  constexpr DoubleText kCases[] = {
      {0.0, "0"},
      {1.0, "1"},
      {-1.0, "-1"},
      {9.0, "9"},
      {10.0, "10"},
      {-99999999.0, "-99999999"},
      {100000000.0, "100000000"},
      {1e15, "1000000000000000"},
      {9007199254740991.0, "9007199254740991"},
      {9007199254740992.0, "9007199254740992"},
      {9007199254740994.0, "9007199254740994"},
      {1e16, "10000000000000000"},
      {-1e16, "-10000000000000000"},
      {99999999999999984.0, "99999999999999984"},
  };
  for (const auto& c : kCases)
    EXPECT_EQ(json(c.value), c.text);
}

TEST(JsonNumber, NegativeZeroKeepsItsSign) {
  EXPECT_EQ(json(-0.0), "-0");
}

TEST(JsonNumber, IntegersFrom1e17OnTakeTheExponentForm) {
  constexpr DoubleText kCases[] = {
      {99999999999999999.0, "1e+17"},  // rounds up when it becomes a double
      {1e17, "1e+17"},
      {100000000000000016.0, "1.0000000000000002e+17"},
      {123456789012345678.0, "1.2345678901234568e+17"},
      {9223372036854775808.0, "9.2233720368547758e+18"},
      {18446744073709551616.0, "1.8446744073709552e+19"},
      {1e21, "1e+21"},
      {1e22, "1e+22"},
      {-1e22, "-1e+22"},
      {1e23, "9.9999999999999992e+22"},
      {1e100, "1e+100"},
      {1e300, "1.0000000000000001e+300"},
  };
  for (const auto& c : kCases)
    EXPECT_EQ(json(c.value), c.text);
}

TEST(JsonNumber, FractionsPrintSeventeenDigitsWithoutTrailingZeros) {
  constexpr DoubleText kCases[] = {
      {0.1, "0.10000000000000001"},
      {0.5, "0.5"},
      {-2.5, "-2.5"},
      {9.5, "9.5"},
      {1.0 / 3, "0.33333333333333331"},
      {2.0 / 3, "0.66666666666666663"},
      {1234.5678, "1234.5678"},
      {123456.7890625, "123456.7890625"},
      {12345678.5, "12345678.5"},
      {123456789.25, "123456789.25"},
      {1000000000.1, "1000000000.1"},
      {4503599627370495.5, "4503599627370495.5"},
      {0.99999999999999989, "0.99999999999999989"},
      {1.0000000000000002, "1.0000000000000002"},
  };
  for (const auto& c : kCases)
    EXPECT_EQ(json(c.value), c.text);
}

TEST(JsonNumber, ExponentFormBeginsBelowOneTenThousandth) {
  constexpr DoubleText kCases[] = {
      {0.01, "0.01"},
      {0.0001, "0.0001"},
      {-0.00012345, "-0.00012344999999999999"},
      {0.00099999999999999, "0.00099999999999999005"},
      {9.9999999999999991e-05, "9.9999999999999991e-05"},
      {6.103515625e-05, "6.103515625e-05"},
      {0.00001, "1.0000000000000001e-05"},
      {1.430511474609375e-06, "1.430511474609375e-06"},
      {1e-7, "9.9999999999999995e-08"},
      {1e-100, "1e-100"},
  };
  for (const auto& c : kCases)
    EXPECT_EQ(json(c.value), c.text);
}

TEST(JsonNumber, TiesGoToTheEvenDigit) {
  EXPECT_EQ(json(1.00000762939453125), "1.0000076293945312");
  EXPECT_EQ(json(1.00002288818359375), "1.0000228881835938");
  EXPECT_EQ(json(-2.00000762939453125), "-2.0000076293945312");
}

TEST(JsonNumber, DoublesJustBelowAPowerOfTenRoundUpToIt) {
  EXPECT_EQ(json(1e-14), "1e-14");
  EXPECT_EQ(json(1e-70), "1e-70");
  EXPECT_EQ(json(1e-305), "1e-305");
  EXPECT_EQ(json(1e98), "1e+98");
  EXPECT_EQ(json(-1e220), "-1e+220");
}

TEST(JsonNumber, EndsOfTheRange) {
  EXPECT_EQ(json(DBL_MAX), "1.7976931348623157e+308");
  EXPECT_EQ(json(-DBL_MAX), "-1.7976931348623157e+308");
  EXPECT_EQ(json(DBL_MIN), "2.2250738585072014e-308");
  EXPECT_EQ(json(2.2250738585072009e-308), "2.2250738585072009e-308");
  EXPECT_EQ(json(5e-324), "4.9406564584124654e-324");
  EXPECT_EQ(json(-5e-324), "-4.9406564584124654e-324");
}

// ---- integer types ----

TEST(JsonNumber, UnsignedIntegersBeyond2To53RoundToDouble) {
  const struct {
    std::uint64_t value;
    std::string_view text;
  } kCases[] = {
      {0, "0"},
      {7, "7"},
      {9007199254740991, "9007199254740991"},
      {9007199254740992, "9007199254740992"},
      {9007199254740993, "9007199254740992"},
      {9007199254740995, "9007199254740996"},
      {9999999999999999, "10000000000000000"},
      {12345678901234567, "12345678901234568"},
      {99999999999999991, "99999999999999984"},
      {99999999999999992, "1e+17"},
      {99999999999999999, "1e+17"},
      {123456789012345678, "1.2345678901234568e+17"},
      {9223372036854775807, "9.2233720368547758e+18"},
      {18446744073709550591U, "1.844674407370955e+19"},
      {UINT64_MAX, "1.8446744073709552e+19"},
  };
  for (const auto& c : kCases)
    EXPECT_EQ(json(c.value), c.text);
}

TEST(JsonNumber, SignedIntegersBeyond2To53RoundToDouble) {
  const struct {
    std::int64_t value;
    std::string_view text;
  } kCases[] = {
      {0, "0"},
      {-1, "-1"},
      {-9007199254740991, "-9007199254740991"},
      {-9007199254740992, "-9007199254740992"},
      {-9007199254740993, "-9007199254740992"},
      {9007199254740993, "9007199254740992"},
      {-99999999999999999, "-1e+17"},
      {INT64_MAX, "9.2233720368547758e+18"},
      {kInt64Min, "-9.2233720368547758e+18"},
  };
  for (const auto& c : kCases)
    EXPECT_EQ(json(c.value), c.text);
}

TEST(JsonNumber, NarrowTypesPrintTheirValue) {
  EXPECT_EQ(json(UINT32_MAX), "4294967295");
  EXPECT_EQ(json(INT32_MIN), "-2147483648");
  EXPECT_EQ(json(std::int8_t{-128}), "-128");
  EXPECT_EQ(json(std::uint16_t{65535}), "65535");
  EXPECT_EQ(json(0.1F), "0.10000000149011612");
  EXPECT_EQ(json(3.4028234663852886e38F), "3.4028234663852886e+38");
}

TEST(Decimal, EveryLengthOfUnsignedIntegers) {
  const struct {
    std::uint64_t value;
    std::string_view text;
  } kCases[] = {
      {0, "0"},
      {9, "9"},
      {10, "10"},
      {100, "100"},
      {1234, "1234"},
      {99999, "99999"},
      {100000, "100000"},
      {7654321, "7654321"},
      {99999999, "99999999"},
      {100000000, "100000000"},
      {1234567890, "1234567890"},
      {12345678901, "12345678901"},
      {123456789012, "123456789012"},
      {1234567890123, "1234567890123"},
      {12345678901234, "12345678901234"},
      {123456789012345, "123456789012345"},
      {9999999999999999, "9999999999999999"},
      {10000000000000000, "10000000000000000"},
      {123456789012345678, "123456789012345678"},
      {1000000000000000000, "1000000000000000000"},
      {10000000000000000000U, "10000000000000000000"},
      {UINT64_MAX, "18446744073709551615"},
  };
  for (const auto& c : kCases)
    EXPECT_EQ(decimal(c.value), c.text);
}

TEST(Decimal, SignedIntegersUpToBothEnds) {
  EXPECT_EQ(decimal(std::int64_t{0}), "0");
  EXPECT_EQ(decimal(std::int64_t{-7}), "-7");
  EXPECT_EQ(decimal(std::int64_t{-100000000}), "-100000000");
  EXPECT_EQ(decimal(INT64_MAX), "9223372036854775807");
  EXPECT_EQ(decimal(kInt64Min), "-9223372036854775808");
  EXPECT_EQ(decimal(UINT32_MAX), "4294967295");
  EXPECT_EQ(decimal(INT32_MIN), "-2147483648");
}

// ---- "%f": texts by hand ----

TEST(Fixed6, SixDecimalsAlways) {
  constexpr DoubleText kCases[] = {
      {0.0, "0.000000"},
      {-0.0, "-0.000000"},
      {0.5, "0.500000"},
      {-2.5, "-2.500000"},
      {1.0 / 3, "0.333333"},
      {1234567.1234565, "1234567.123457"},
      {1e15 + 0.5, "1000000000000000.500000"},
      {4503599627370495.5, "4503599627370495.500000"},
      {9007199254740992.0, "9007199254740992.000000"},
      {1e-300, "0.000000"},
      {5e-324, "0.000000"},
      {-5e-324, "-0.000000"},
  };
  for (const auto& c : kCases)
    EXPECT_EQ(fixed6(c.value), c.text);
}

TEST(Fixed6, RoundsTheExactValueTiesToEven) {
  constexpr DoubleText kCases[] = {
      {0.0078125, "0.007812"},  // ties
      {0.0234375, "0.023438"},
      {0.0390625, "0.039062"},
      {4.0078125, "4.007812"},
      {123456.7890625, "123456.789062"},
      {0.0000005, "0.000000"},  // a little below the half
      {-0.0000005, "-0.000000"},
      {4.9999999999999998e-7, "0.000000"},
      {5.0000000000000004e-7, "0.000001"},
      {0.0000015, "0.000002"},
      {2.5e-7, "0.000000"},
      {7.5e-7, "0.000001"},
      {0.0000625, "0.000063"},
      {0.0001220703125, "0.000122"},
      {0.0003662109375, "0.000366"},
  };
  for (const auto& c : kCases)
    EXPECT_EQ(fixed6(c.value), c.text);
}

TEST(Fixed6, RoundingCarriesIntoTheWholePart) {
  EXPECT_EQ(fixed6(0.9999994999), "0.999999");
  EXPECT_EQ(fixed6(0.99999951), "1.000000");
  EXPECT_EQ(fixed6(-99.99999951), "-100.000000");
  EXPECT_EQ(fixed6(99999999.9999999), "100000000.000000");
}

TEST(Fixed6, LargeDoublesPrintEveryDigit) {
  EXPECT_EQ(fixed6(9223372036854774784.0), "9223372036854774784.000000");
  EXPECT_EQ(fixed6(9223372036854775808.0), "9223372036854775808.000000");
  EXPECT_EQ(fixed6(-9223372036854775808.0), "-9223372036854775808.000000");
  EXPECT_EQ(fixed6(1e19), "10000000000000000000.000000");
  EXPECT_EQ(fixed6(1e23), "99999999999999991611392.000000");
  EXPECT_EQ(
      fixed6(-DBL_MAX),
      "-179769313486231570814527423731704356798070567525844996598917476803157260780028538760589558632766"
      "878171540458953514382464234321326889464182768467546703537516986049910576551282076245490090389328"
      "944075868508455133942304583236903222948165808559332123348274797826204144723168738177180919299881"
      "250404026184124858368.000000");
}

TEST(Fixed6, NanAndInfinitiesHaveTheirNames) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double infinity = std::numeric_limits<double>::infinity();
  EXPECT_EQ(fixed6(std::copysign(nan, 1.0)), "nan");
  EXPECT_EQ(fixed6(std::copysign(nan, -1.0)), "-nan");
  EXPECT_EQ(fixed6(infinity), "inf");
  EXPECT_EQ(fixed6(-infinity), "-inf");
}

// ---- against the C library ----

// Compares every function with printf, value by value; says the first differences only.
class AgainstPrintf : public testing::Test {
 protected:
  void compare(double value) {
    if (!std::isfinite(value)) return;
    check(json(value), printed("%1.17g", value));
    check(fixed6(value), printed("%f", value));
  }

  void compare_integer(std::uint64_t bits) {
    const auto value = static_cast<std::int64_t>(bits);
    check(decimal(bits), printed("%lu", bits));
    check(decimal(value), printed("%ld", value));
    check(json(bits), printed("%1.17g", static_cast<double>(bits)));
    check(json(value), printed("%1.17g", static_cast<double>(value)));
  }

  // The value, its neighbours up to `reach` steps away, and all of them negated.
  void compare_around(double value, int reach) {
    for (int step = -reach; step <= reach; ++step) {
      const double near =
          std::bit_cast<double>(std::bit_cast<std::uint64_t>(value) + static_cast<std::uint64_t>(step));
      compare(near);
      compare(-near);
    }
  }

  std::uint64_t random_bits() { return random_(); }
  std::uint64_t below(std::uint64_t end) { return random_() % end; }

  // Values per kind: the ordinary run has to be quick, a long run is asked for by QVX_TEST_LONG.
  static std::uint64_t rounds() { return std::getenv("QVX_TEST_LONG") != nullptr ? 2'000'000 : 40'000; }

 private:
  void check(const std::string& own, const std::string& expected) {
    if (own == expected || ++differences_ > 20) return;
    ADD_FAILURE() << "got " << own << " for " << expected;
  }

  std::mt19937_64 random_{20240229};
  int differences_ = 0;
};

TEST_F(AgainstPrintf, AnyBitPattern) {
  for (std::uint64_t i = 0; i < rounds(); ++i)
    compare(std::bit_cast<double>(random_bits()));
}

TEST_F(AgainstPrintf, IntegersOfEveryLength) {
  for (std::uint64_t i = 0; i < rounds(); ++i) {
    const std::uint64_t bits = random_bits() >> below(64);
    compare_integer(bits);
    compare(static_cast<double>(bits));
    compare(-static_cast<double>(bits));
  }
}

TEST_F(AgainstPrintf, EveryIntegerBelowTenThousand) {
  for (std::uint64_t value = 0; value < 10'000; ++value)
    compare_integer(value);
}

TEST_F(AgainstPrintf, PowersOfTenAndTheirNeighboursAsIntegers) {
  for (std::uint64_t power = 1; power <= UINT64_MAX / 10; power *= 10)
    for (std::uint64_t near = power * 10 - 3; near <= power * 10 + 3; ++near)
      compare_integer(near);
}

TEST_F(AgainstPrintf, DecimalsWithFewDigits) {
  constexpr double kScales[] = {1e1, 1e2, 1e3, 1e4, 1e5, 1e6, 1e7, 1e9, 1e12, 1e15};
  for (std::uint64_t i = 0; i < rounds(); ++i)
    compare(static_cast<double>(random_bits() >> below(64)) / kScales[below(std::size(kScales))]);
}

TEST_F(AgainstPrintf, Ratios) {
  for (std::uint64_t i = 0; i < rounds(); ++i)
    compare(static_cast<double>(below(100'000)) / static_cast<double>(1 + below(100'000)));
}

// Many of them lie half-way between two texts.
TEST_F(AgainstPrintf, BinaryFractions) {
  for (std::uint64_t i = 0; i < rounds(); ++i)
    compare(std::ldexp(static_cast<double>(random_bits() >> below(64)), -static_cast<int>(below(90))));
}

TEST_F(AgainstPrintf, FloatsWidened) {
  for (std::uint64_t i = 0; i < rounds(); ++i)
    compare(static_cast<double>(std::bit_cast<float>(static_cast<std::uint32_t>(random_bits()))));
}

TEST_F(AgainstPrintf, Timestamps) {
  constexpr double kUnits[] = {1.0, 1e3, 1e6, 1e9};
  for (std::uint64_t i = 0; i < rounds(); ++i) {
    const auto nanoseconds = 1'500'000'000'000'000'000 + below(300'000'000'000'000'000);
    compare_integer(nanoseconds);
    compare(static_cast<double>(nanoseconds) / kUnits[below(std::size(kUnits))]);
  }
}

TEST_F(AgainstPrintf, SubnormalNumbers) {
  for (std::uint64_t i = 0; i < rounds() / 4; ++i)
    compare(std::bit_cast<double>(random_bits() >> (12 + below(52))));
}

TEST_F(AgainstPrintf, EveryPowerOfTwoAndItsNeighbours) {
  for (int exponent = -1074; exponent < 1024; ++exponent)
    compare_around(std::ldexp(1.0, exponent), 2);
}

TEST_F(AgainstPrintf, EveryPowerOfTenAndItsNeighbours) {
  for (int exponent = -307; exponent <= 308; ++exponent)
    compare_around(std::strtod(("1e" + std::to_string(exponent)).c_str(), nullptr), 8);
}

}  // namespace
