#include "qvx/support/number_parse.h"

#include <gtest/gtest.h>

#include <limits>
#include <optional>
#include <string>

#include "tests/support/guarded_buffer.h"

namespace qvx {
namespace {

// What the function stores, or nothing when it fails, which must leave the result alone.
template <typename T>
std::optional<T> parsed(bool (*parse)(const char*, T*), const char* text) {
  T value = 77;
  if (parse(text, &value)) return value;
  EXPECT_EQ(value, T{77}) << text;
  return std::nullopt;
}

TEST(NumberParse, ReadsDecimalHexadecimalAndOctal) {
  EXPECT_EQ(parsed(long_from_text, "42"), 42);
  EXPECT_EQ(parsed(long_from_text, "-0x1F"), -31);
  EXPECT_EQ(parsed(unsigned_long_from_text, "0X10"), 16U);
  EXPECT_EQ(parsed(int64_from_text, "010"), 8);
  EXPECT_EQ(parsed(uint64_from_text, " +7"), 7U);
  EXPECT_EQ(parsed(uint64_from_text, "0"), 0U);
}

TEST(NumberParse, WholeTextMustBeConsumed) {
  for (const char* const text : {" ", "x", "1x", "1 ", "08", "0x", "1.0", "--1"}) {
    EXPECT_EQ(parsed(long_from_text, text), std::nullopt) << text;
    EXPECT_EQ(parsed(unsigned_long_from_text, text), std::nullopt) << text;
    EXPECT_EQ(parsed(int64_from_text, text), std::nullopt) << text;
    EXPECT_EQ(parsed(uint64_from_text, text), std::nullopt) << text;
    EXPECT_EQ(parsed(uint8_from_text, text), std::nullopt) << text;
  }
}

TEST(NumberParse, NullTextAndNullResultFail) {
  EXPECT_EQ(parsed(long_from_text, nullptr), std::nullopt);
  EXPECT_EQ(parsed(unsigned_long_from_text, nullptr), std::nullopt);
  EXPECT_EQ(parsed(int64_from_text, nullptr), std::nullopt);
  EXPECT_EQ(parsed(uint64_from_text, nullptr), std::nullopt);
  EXPECT_EQ(parsed(uint8_from_text, nullptr), std::nullopt);
  EXPECT_EQ(parsed(uint16_from_text, nullptr), std::nullopt);
  EXPECT_EQ(parsed(uint32_from_text, nullptr), std::nullopt);
  EXPECT_FALSE(long_from_text("1", nullptr));
  EXPECT_FALSE(unsigned_long_from_text("1", nullptr));
  EXPECT_FALSE(int64_from_text("1", nullptr));
  EXPECT_FALSE(uint64_from_text("1", nullptr));
  EXPECT_FALSE(uint8_from_text("1", nullptr));
  EXPECT_FALSE(uint16_from_text("1", nullptr));
  EXPECT_FALSE(uint32_from_text("1", nullptr));
}

TEST(NumberParse, SaturationOnlyFailsOutOfRange) {
  EXPECT_EQ(parsed(long_from_text, "9223372036854775807"), 9223372036854775807);
  EXPECT_EQ(parsed(long_from_text, "9223372036854775808"), std::nullopt);
  EXPECT_EQ(parsed(int64_from_text, "-9223372036854775808"), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(parsed(int64_from_text, "-9223372036854775809"), std::nullopt);
  EXPECT_EQ(parsed(unsigned_long_from_text, "18446744073709551615"), 18446744073709551615U);
  EXPECT_EQ(parsed(unsigned_long_from_text, "18446744073709551616"), std::nullopt);
  EXPECT_EQ(parsed(uint64_from_text, "0xffffffffffffffff"), 18446744073709551615U);
  EXPECT_EQ(parsed(uint64_from_text, "0x10000000000000000"), std::nullopt);
}

TEST(NumberParse, MinusNegatesUnsignedNumbers) {
  EXPECT_EQ(parsed(uint64_from_text, "-1"), 18446744073709551615U);
  EXPECT_EQ(parsed(uint32_from_text, "-1"), std::nullopt);
}

TEST(NumberParse, RangedFormsEndAtTheirRange) {
  EXPECT_EQ(parsed(uint8_from_text, "255"), 255);
  EXPECT_EQ(parsed(uint8_from_text, "256"), std::nullopt);
  EXPECT_EQ(parsed(uint16_from_text, "0xFFFF"), 65535);
  EXPECT_EQ(parsed(uint16_from_text, "65536"), std::nullopt);
  EXPECT_EQ(parsed(uint32_from_text, "4294967295"), 4294967295U);
  EXPECT_EQ(parsed(uint32_from_text, "4294967296"), std::nullopt);
}

std::optional<std::int32_t> int32_parsed(const char* text, std::size_t length) {
  std::int32_t value = 77;
  if (int32_from_text(text, length, &value)) return value;
  EXPECT_EQ(value, 77);
  return std::nullopt;
}

TEST(NumbersFromText, EmptyTextIsZero) {
  std::uint64_t number = 7;
  EXPECT_TRUE(uint64_from_text("", &number));
  EXPECT_EQ(number, 0u);
}

TEST(Int32FromText, ReadsTheFirstCharacters) {
  EXPECT_EQ(int32_parsed("123456", 3), 123);
  EXPECT_EQ(int32_parsed("12abc", 2), 12);
  EXPECT_EQ(int32_parsed("12abc", 3), std::nullopt);
  EXPECT_EQ(int32_parsed("-5", 10), -5);
  EXPECT_EQ(int32_parsed("5", 0), 0);
}

TEST(Int32FromText, NeedsNoTerminator) {
  const test::GuardedBuffer text("0x10");
  EXPECT_EQ(int32_parsed(text.text().data(), 4), 16);
}

TEST(Int32FromText, EndsAtTheRange) {
  EXPECT_EQ(int32_parsed("2147483647", 10), 2147483647);
  EXPECT_EQ(int32_parsed("2147483648", 10), std::nullopt);
  EXPECT_EQ(int32_parsed("-2147483648", 11), std::numeric_limits<std::int32_t>::min());
  EXPECT_EQ(int32_parsed("-2147483649", 11), std::nullopt);
}

TEST(Int32FromText, NullFails) {
  EXPECT_EQ(int32_parsed(nullptr, 1), std::nullopt);
  EXPECT_FALSE(int32_from_text("1", 1, nullptr));
}

}  // namespace
}  // namespace qvx
