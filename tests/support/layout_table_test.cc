#include "qvx/support/layout_table.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>

#include "tests/support/guarded_buffer.h"

namespace qvx {
namespace {

constexpr std::array<LayoutField, 6> kRows{{
    {"magic", 0, 4},
    {"kind", 4, 1},
    {"count", 5, 4},
    {"value", 9, 8},
    {"id", 17, 16},
    {"texts[]", 33, 0},
}};
static_assert(tiles(kRows, 33));
static_assert(!tiles(kRows, 34));
static_assert(offset_of(kRows, "value") == 9);
static_assert(row_of(kRows, "id").size == 16);

template <typename T, FieldName kName>
concept Loads = requires(const std::byte* record) {
  load_field<kRows, kName, T>(record);
};
template <typename T, FieldName kName>
concept LoadsInto = requires(const std::byte* record, T value) {
  load_field<kRows, kName>(record, value);
};
template <typename T, FieldName kName>
concept Stores = requires(std::byte* record, T value) {
  store_field<kRows, kName>(record, value);
};
template <FieldName kName>
concept LoadsByDefault = requires(const std::byte* record) {
  load_field<kRows, kName>(record);
};

template <typename T, FieldName kName>
constexpr bool kCompiles = Loads<T, kName>&& LoadsInto<T, kName>&& Stores<T, kName>;
template <typename T, FieldName kName>
constexpr bool kCompilesSomehow = Loads<T, kName> || LoadsInto<T, kName> || Stores<T, kName>;

// Numbers have the size of their row.
static_assert(kCompiles<std::uint32_t, "count">);
static_assert(kCompiles<std::int32_t, "count">);
static_assert(kCompiles<float, "count">);
static_assert(kCompiles<double, "value">);
static_assert(kCompiles<std::uint8_t, "kind">);
static_assert(!kCompilesSomehow<std::uint16_t, "count">);
static_assert(!kCompilesSomehow<std::uint64_t, "count">);
static_assert(!kCompilesSomehow<std::uint32_t, "value">);
static_assert(!kCompilesSomehow<std::uint16_t, "kind">);

// So have records of bytes; others would depend on the machine.
static_assert(kCompiles<std::array<char, 16>, "id">);
static_assert(!kCompilesSomehow<std::array<char, 15>, "id">);
static_assert(!kCompilesSomehow<std::array<std::uint64_t, 2>, "id">);

// A row without a size has no value, a row that does not exist has none either.
static_assert(!LoadsByDefault<"texts[]">);
static_assert(!LoadsByDefault<"id">);
static_assert(LoadsByDefault<"count">);
static_assert(!LoadsByDefault<"cuont">);
static_assert(std::is_same_v<decltype(load_field<kRows, "count">(nullptr)), std::uint32_t>);

TEST(LayoutTable, FieldsAreLoadedLittleEndianFromTheirOffset) {
  const test::GuardedBuffer record(
      std::string_view("QVXA\x07\x01\x02\x03\xF4"
                       "\0\0\0\0\0\0\xF8\xBF"
                       "0123456789abcdef",
                       33));
  const std::byte* const bytes = record.bytes().data();
  EXPECT_EQ((load_field<kRows, "kind">(bytes)), 7U);
  EXPECT_EQ((load_field<kRows, "count">(bytes)), 0xF4030201U);
  EXPECT_EQ((load_field<kRows, "count", std::int32_t>(bytes)), -201129471);
  EXPECT_EQ((load_field<kRows, "value", double>(bytes)), -1.5);
  EXPECT_EQ((load_field<kRows, "magic", std::array<char, 4>>(bytes)),
            (std::array<char, 4>{'Q', 'V', 'X', 'A'}));
  std::array<char, 16> id{};
  load_field<kRows, "id">(bytes, id);
  EXPECT_EQ(std::string_view(id.data(), id.size()), "0123456789abcdef");
  double value = 0;
  load_field<kRows, "value">(bytes, value);
  EXPECT_EQ(value, -1.5);
}

TEST(LayoutTable, FieldsAreStoredLittleEndianAtTheirOffsetAndNowhereElse) {
  std::array<std::byte, 34> record{};
  record.fill(std::byte{'.'});
  store_field<kRows, "count">(record.data(), std::uint32_t{0x44434241});
  store_field<kRows, "kind">(record.data(), std::uint8_t{'k'});
  EXPECT_EQ(as_text(record), "....kABCD.........................");
  store_field<kRows, "value">(record.data(), 2261634.5098039214);  // the bytes of "AAAAAAAA"
  store_field<kRows, "id">(record.data(), std::array<char, 16>{'i', 'd'});
  EXPECT_EQ(as_text(record), std::string_view("....kABCDAAAAAAAAid\0\0\0\0\0\0\0\0\0\0\0\0\0\0.", 34));
}

TEST(LayoutTable, TextHasOneLinePerRow) {
  EXPECT_EQ(layout_text(std::span(kRows).last(2)),
            "Field                       Offset    Size\n"
            " id                         17        16\n"
            " texts[]                    33      \n");
}

}  // namespace
}  // namespace qvx
