#include "qvx/data/schema/builtin_types.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "tests/support/captured_stream.h"

namespace qvx {
namespace {

TEST(BuiltinTypes, TableIsPrintedInOrderOfTheIds) {
  test::CapturedStream stream;
  qvx_builtin_types_print(stream.file());
  EXPECT_EQ(stream.text(),
            " Id Name                       Size    \n"
            "  1 bool                       1       \n"
            "  2 char                       1       \n"
            "  3 short                      2       \n"
            "  4 int                        4       \n"
            "  5 long                       8       \n"
            "  6 long long                  8       \n"
            "  7 unsigned char              1       \n"
            "  8 unsigned short             2       \n"
            "  9 unsigned int               4       \n"
            " 10 unsigned long              8       \n"
            " 11 unsigned long long         8       \n"
            " 12 float                      4       \n"
            " 13 double                     8       \n"
            " 14 int8_t                     1       \n"
            " 15 int16_t                    2       \n"
            " 16 int32_t                    4       \n"
            " 17 int64_t                    8       \n"
            " 18 uint8_t                    1       \n"
            " 19 uint16_t                   2       \n"
            " 20 uint32_t                   4       \n"
            " 21 uint64_t                   8       \n"
            " 22 timestamp                  8       \n");
}

TEST(BuiltinTypes, IdAndNameFindEachOther) {
  EXPECT_STREQ(builtin_type_name(1), "bool");
  EXPECT_STREQ(builtin_type_name(11), "unsigned long long");
  EXPECT_STREQ(builtin_type_name(22), "timestamp");
  EXPECT_EQ(builtin_type_id("bool"), 1U);
  EXPECT_EQ(builtin_type_id("unsigned long long"), 11U);
  EXPECT_EQ(builtin_type_id("timestamp"), 22U);
}

TEST(BuiltinTypes, SizesAreThoseOfTheTable) {
  EXPECT_EQ(builtin_type_size(1), 1U);
  EXPECT_EQ(builtin_type_size(3), 2U);
  EXPECT_EQ(builtin_type_size(12), 4U);
  EXPECT_EQ(builtin_type_size(22), 8U);
}

TEST(BuiltinTypes, UnknownIdsAndNamesGiveNothing) {
  for (const std::uint32_t id : {0U, 23U, 0xFFFFFFFFU}) {
    EXPECT_EQ(builtin_type_name(id), nullptr) << id;
    EXPECT_EQ(builtin_type_size(id), 0U) << id;
    EXPECT_EQ(builtin_value_class(id), ValueClass::none) << id;
  }
  EXPECT_EQ(builtin_type_id("Bool"), 0U);
  EXPECT_EQ(builtin_type_id("bool "), 0U);
  EXPECT_EQ(builtin_type_id(""), 0U);
}

TEST(BuiltinTypes, CharIsUnsignedAndInt8IsSigned) {
  EXPECT_EQ(builtin_value_class(kBoolTypeId), ValueClass::u8);
  EXPECT_EQ(builtin_value_class(kCharTypeId), ValueClass::u8);
  EXPECT_EQ(builtin_value_class(kUnsignedCharTypeId), ValueClass::u8);
  EXPECT_EQ(builtin_value_class(18), ValueClass::u8);
  EXPECT_EQ(builtin_value_class(14), ValueClass::i8);
}

TEST(BuiltinTypes, ValueClassesFollowTheIds) {
  for (const std::uint32_t id : {3U, 15U})
    EXPECT_EQ(builtin_value_class(id), ValueClass::i16) << id;
  for (const std::uint32_t id : {8U, 19U})
    EXPECT_EQ(builtin_value_class(id), ValueClass::u16) << id;
  for (const std::uint32_t id : {4U, 16U})
    EXPECT_EQ(builtin_value_class(id), ValueClass::i32) << id;
  for (const std::uint32_t id : {9U, 20U})
    EXPECT_EQ(builtin_value_class(id), ValueClass::u32) << id;
  for (const std::uint32_t id : {5U, 6U, 17U})
    EXPECT_EQ(builtin_value_class(id), ValueClass::i64) << id;
  for (const std::uint32_t id : {10U, 11U, 21U, 22U})
    EXPECT_EQ(builtin_value_class(id), ValueClass::u64) << id;
  EXPECT_EQ(builtin_value_class(12), ValueClass::f32);
  EXPECT_EQ(builtin_value_class(13), ValueClass::f64);
}

}  // namespace
}  // namespace qvx
