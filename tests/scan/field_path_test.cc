// Names of fields that reach into records and arrays, right and wrong ones; blobs; and memory that is short.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "qvx/scan/data_file_reader.h"
#include "tests/reader/reader_files.h"
#include "tests/support/allocation_sweep.h"

namespace qvx {
namespace {

using test::file_header;
using test::gzip;
using test::kStart;
using test::le;
using test::padded;
using test::ReaderFiles;
using test::usual_events;

constexpr const char* kId = "b1b1b1b1b1b1b1b1b1b1b1b1b1b1b1b1";

std::string field_of(const std::string& name, const std::string& type, int offset, int size, int length) {
  return R"({"field_name":")" + name + R"(","description":"","type_name":")" + type +
         R"(","counting_mode":"ABSOLUTE","offset":)" + std::to_string(offset) + R"(,"type_size":)" +
         std::to_string(size) + R"(,"array_length":)" + std::to_string(length) + R"(,"index":0})";
}

// Two pairs, each of two numbers and a mark: 2 * (2 + 2 + 1) bytes.
std::string nested_schema() {
  return R"({"qvx_version":"1.5.0","provider_name":"p","provider_version":"1.0.0","types":[)"
         R"({"name":"pair","size":5,"fields":[)" +
         field_of("n", "uint16_t", 0, 2, 2) + "," + field_of("mark", "uint8_t", 4, 1, 1) +
         R"(]},{"name":"both","size":12,"fields":[)" + field_of("pairs", "pair", 0, 5, 2) + "," +
         field_of("pairs.mark", "uint8_t", 10, 1, 1) + "," + field_of("pairs.m", "uint8_t", 11, 1, 1) +
         "]}]}";
}

class FieldPathTest : public testing::Test {
 protected:
  FieldPathTest() {
    files_.write_schema(kId, nested_schema());
    test::FileHeader header = test::usual_header();
    header.event_schema_ids = {test::id_of(kId)};
    bytes_ = file_header(header) +
             test::events_block(
                 {kStart, 0, 1},
                 {le(std::uint16_t{1}) + le(std::uint16_t{2}) + le(std::uint8_t{3}) + le(std::uint16_t{4}) +
                  le(std::uint16_t{5}) + le(std::uint8_t{6}) + le(std::uint8_t{7}) + le(std::uint8_t{8})});
  }

  // The values of the field in the one record.
  std::vector<unsigned> values(const char* path) {
    EXPECT_TRUE(reader_.open(as_bytes(bytes_)));
    const Record* const record = reader_.next();
    if (record == nullptr) return {0xDEAD};
    const FieldPlace place = FieldHandle(path).in(record->type());
    std::vector<unsigned> found;
    if (!place) return found;
    for (std::uint32_t i = 0; i < place.count; ++i) {
      const std::size_t at = place.offset + i * place.stride;
      const Bytes from = record->bytes_at_hand().subspan(at);
      found.push_back(place.kind == FieldKind::u16 ? load_le<std::uint16_t>(from.data())
                                                   : load_le<std::uint8_t>(from.data()));
    }
    return found;
  }

  const ReaderFiles files_;
  std::string bytes_;
  DataFileReader reader_{files_.path("schema")};
};

using Values = std::vector<unsigned>;

TEST_F(FieldPathTest, IndicesChooseRecordsAndValues) {
  EXPECT_EQ(values("pairs[1].n[0]"), Values{4});
  EXPECT_EQ(values("pairs[0].n"), (Values{1, 2}));
  EXPECT_EQ(values("pairs[1].mark"), Values{6});
}

TEST_F(FieldPathTest, NameWithAPointInItWinsOverTheOneThatItBeginsWith) {
  EXPECT_EQ(values("pairs.mark"), Values{7});
  EXPECT_EQ(values("pairs.m"), Values{8});
}

TEST_F(FieldPathTest, ArraysWithinArraysHaveNoPlaceOfTheirOwn) {
  EXPECT_EQ(values("pairs.n"), Values());
  EXPECT_EQ(values("pairs.n[0]"), Values());
}

TEST_F(FieldPathTest, WhatIsNoIndexIsNoField) {
  for (const char* const path :
       {"pairs[2].n", "pairs[1].n[2]", "pairs[", "pairs[].n", "pairs[x].n", "pairs[1x].n", "pairs[-1].n",
        "pairs[99999999999].n", "pairs[1]n", "pairs[1].", "pairs[1].none", "pairs[1].n.x", "pairs[1].mark.x",
        "pair", "pairss", "", "."})
    EXPECT_EQ(values(path), Values()) << path;
}

TEST(DataFileReaderBlobs, ArePassedOverWithoutAWord) {
  const ReaderFiles files;
  const std::string bytes = file_header(test::usual_header()) + padded(usual_events({1}), 256) +
                            padded(test::blob_block(kStart, "picture"), 256) + usual_events({2});
  DataFileReader reader(files.path("schema"));
  ASSERT_TRUE(reader.open(as_bytes(bytes)));
  FieldHandle v("v");
  std::vector<std::uint16_t> found;
  for (const Record& record : reader.records())
    found.push_back(record.get<std::uint16_t>(v).value_or(0));
  EXPECT_EQ(found, (std::vector<std::uint16_t>{1, 2}));
  EXPECT_FALSE(reader.failed());
  EXPECT_EQ(reader.number_of_faults(), 0u);
}

// The decompressor's memory, too, which it asks for when it begins and when it is first read from.
TEST(DataFileReaderShortMemory, OfACompressedFileLosesNoRecord) {
  const ReaderFiles files;
  std::string bytes = file_header(test::usual_header());
  for (std::uint16_t i = 0; i < 200; ++i)
    bytes += padded(usual_events({i, static_cast<std::uint16_t>(i * 7)}), 256);
  const std::string path = files.write("a.bin", gzip(bytes));
  bool says_why = true;
  const auto records = [&]() -> std::optional<std::size_t> {
    try {
      DataFileReader reader(files.path("schema"));
      std::size_t found = 0;
      if (reader.open(path.c_str()))
        for (const Record& record : reader.records())
          found += record.bytes_at_hand().size() > 0;
      if (!reader.failed()) return found;
      says_why = says_why && reader.number_of_faults() > 0;
    } catch (const std::bad_alloc&) {
    }
    return std::nullopt;
  };
  ASSERT_EQ(records(), 400u);
  test::sweep_allocations(records, [](const auto& made) { return made == 400u; });
  EXPECT_TRUE(says_why);
}

}  // namespace
}  // namespace qvx
