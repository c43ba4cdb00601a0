#include "qvx/data/schema_id.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/data/sample_builder.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/guarded_buffer.h"

namespace qvx {
namespace {

using test::id_bytes;
using test::id_of_byte;

TEST(SchemaId, TextIsTwoLowerCaseDigitsPerByteInStorageOrder) {
  qvx_schema_id id;
  for (std::size_t i = 0; i < id.bytes.size(); ++i)
    id.bytes[i] = static_cast<std::byte>(0xFF - 0x11 * i);
  EXPECT_EQ(schema_id_text(id), "ffeeddccbbaa99887766554433221100");
}

TEST(SchemaId, TextOfTheEmptyIdIs32Zeros) {
  EXPECT_EQ(schema_id_text({}), "00000000000000000000000000000000");
}

TEST(SchemaId, HasNoTextWhenMemoryIsShort) {
  const test::FailingAllocations none(0);
  EXPECT_FALSE(schema_id_text({}).has_value());
}

TEST(SchemaId, BlobIdIsItsAsciiText) {
  EXPECT_EQ(id_bytes(kBlobSchemaId), "BLOB_DATA_SCHEMA");
  EXPECT_EQ(schema_id_text(kBlobSchemaId), "424c4f425f444154415f534348454d41");
}

TEST(SchemaIdParse, ReadsDigitsOfEitherCase) {
  qvx_schema_id id;
  EXPECT_TRUE(schema_id_parse("000102fFFe7f80Aa0000000000000aB1", id));
  EXPECT_EQ(id_bytes(id), std::string("\x00\x01\x02\xFF\xFE\x7F\x80\xAA\0\0\0\0\0\0\x0A\xB1", 16));
}

TEST(SchemaIdParse, IgnoresWhatFollowsTheLastDigit) {
  qvx_schema_id id;
  EXPECT_TRUE(schema_id_parse("11111111111111111111111111111111.json", id));
  EXPECT_EQ(id, id_of_byte(0x11));
}

TEST(SchemaIdParse, NullTextIsASuccessThatChangesNothing) {
  qvx_schema_id id = id_of_byte(0x5A);
  EXPECT_TRUE(schema_id_parse(nullptr, id));
  EXPECT_EQ(id, id_of_byte(0x5A));
}

TEST(SchemaIdParse, StopsAtTheFirstPairThatDoesNotScanAndKeepsTheBytesBeforeIt) {
  qvx_schema_id id = id_of_byte(0x5A);
  EXPECT_FALSE(schema_id_parse("0102xy0405060708090a0b0c0d0e0f10", id));
  EXPECT_EQ(id_bytes(id), "\x01\x02ZZZZZZZZZZZZZZ");
}

TEST(SchemaIdParse, TextThatEndsEarlyFails) {
  qvx_schema_id id = id_of_byte(0x5A);
  EXPECT_FALSE(schema_id_parse("", id));
  EXPECT_EQ(id, id_of_byte(0x5A));
  EXPECT_FALSE(schema_id_parse("000102030405060708090a0b0c0d0e", id));
}

TEST(SchemaIdParse, LoneLastDigitIsAByteOfItsOwn) {
  qvx_schema_id id;
  EXPECT_TRUE(schema_id_parse("0000000000000000000000000000000f", id));
  EXPECT_EQ(id.bytes[15], std::byte{0x0F});
  EXPECT_TRUE(schema_id_parse("000000000000000000000000000000e", id));
  EXPECT_EQ(id.bytes[15], std::byte{0x0E});
}

// What scanf takes for two characters of a hexadecimal number is taken here too: a blank or a sign before one
// digit. A blank never moves the pairs.
TEST(SchemaIdParse, PairsScanAsScanfScansThem) {
  qvx_schema_id id;
  EXPECT_TRUE(schema_id_parse(" 1+2-30000000000000000000000000f", id));
  EXPECT_EQ(id_bytes(id), std::string("\x01\x02\xFD\0\0\0\0\0\0\0\0\0\0\0\0\x0F", 16));
  EXPECT_FALSE(schema_id_parse("  000000000000000000000000000000", id));
  EXPECT_FALSE(schema_id_parse("g0000000000000000000000000000000", id));
}

TEST(SchemaIdParse, NeverReadsBehindTheTerminator) {
  const std::string digits("0123456789abcdef0123456789abcdef", 32);
  for (std::size_t size = 0; size <= digits.size(); ++size) {
    const test::GuardedBuffer text(digits.substr(0, size) + '\0');
    qvx_schema_id id;
    EXPECT_EQ(schema_id_parse(text.text().data(), id), size >= 31) << size;
  }
}

TEST(SchemaId, IsEmptyOnlyWhenAllBytesAreZero) {
  qvx_schema_id id;
  EXPECT_TRUE(schema_id_is_empty(id));
  for (std::byte& byte : id.bytes) {
    byte = std::byte{1};
    EXPECT_FALSE(schema_id_is_empty(id));
    byte = std::byte{0};
  }
}

TEST(SchemaId, EqualMeansAllSixteenBytes) {
  const qvx_schema_id id = id_of_byte(7);
  qvx_schema_id other = id_of_byte(7);
  EXPECT_TRUE(schema_id_equal(id, other));
  for (std::byte& byte : other.bytes) {
    byte = std::byte{8};
    EXPECT_FALSE(schema_id_equal(id, other));
    byte = std::byte{7};
  }
}

TEST(SchemaId, CopyTakesAllSixteenBytes) {
  qvx_schema_id copy;
  schema_id_copy(copy, kBlobSchemaId);
  EXPECT_EQ(id_bytes(copy), "BLOB_DATA_SCHEMA");
}

}  // namespace
}  // namespace qvx
