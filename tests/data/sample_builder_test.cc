#include "tests/data/sample_builder.h"

#include <gtest/gtest.h>

namespace qvx::test {
namespace {

TEST(SampleBuilder, FileIsTheHeaderWithItsTrueSizeAndThePaddedUnits) {
  FileHeader header;
  header.block_size = 32;
  const std::string file = sample_file(header, {"", "QVXS", std::string(33, 'x')});
  ASSERT_EQ(file.size(), 384u);
  header.file_size = 384;
  EXPECT_EQ(file.substr(0, 256), file_header(header));
  EXPECT_EQ(file.substr(256), std::string(32, '\0') + "QVXS" + std::string(28, '\0') + std::string(33, 'x') +
                                  std::string(31, '\0'));
  EXPECT_EQ(sample_file(header, {}), file_header(FileHeader{.block_size = 32}));
}

TEST(SampleBuilder, BlocksAreTheirHeadersAndPayloads) {
  EXPECT_EQ(counters_block(0x0102, le(std::uint16_t{0x0304})),
            std::string("QVXD\0\0\0\0\2\1\0\0\0\0\0\0\4\3", 18));
  EXPECT_EQ(events_block({.timestamp = 0x0102, .schema_index = 3, .type_index = 0x0405}, {"ab", "cd"}),
            std::string("QVXE\2\1\0\0\0\0\0\0\3\5\4\2abcd", 20));
  EXPECT_EQ(blob_block(0x0102, "blob"), std::string("QVXB\2\1\0\0\0\0\0\0\4\0\0\0\0\0\0\0blob", 24));
  EXPECT_EQ(schemas_block({id_of_byte('i')}),
            std::string("QVXS\0\1\1\0\0\0\0\0\0\0\0\0iiiiiiiiiiiiiiii", 32) + std::string(224, '\0'));
}

TEST(SampleBuilder, SchemaFileIsNamedByItsDigest) {
  EXPECT_EQ(schema_file_name(md5_id("abc")), "schema_900150983cd24fb0d6963f7d28e17f72.json");
  EXPECT_EQ(id_of("900150983cd24fb0d6963f7d28e17f72"), md5_id("abc"));
}

}  // namespace
}  // namespace qvx::test
