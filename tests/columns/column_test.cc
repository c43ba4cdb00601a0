#include "qvx/columns/column.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "tests/columns/arrow_rows.h"

namespace qvx::columns {
namespace {

using test::ArrowValues;
using test::Numbers;

// The values of a column, exported with its type.
std::vector<std::string> values(Column& column) {
  const std::vector<ColumnType> types{column.type()};
  const test::OwnedSchema schema(new ArrowSchema{});
  export_schema(types, {}, schema.get());
  const test::OwnedArray array(new ArrowArray{});
  const std::size_t rows = column.rows();
  column.export_to(array.get());
  EXPECT_EQ(array->length, static_cast<std::int64_t>(rows));
  const ArrowValues read(*schema->children[0], *array, Numbers::exact);
  std::vector<std::string> texts;
  for (std::size_t row = 0; row < rows; ++row)
    texts.push_back(read.text(static_cast<std::int64_t>(row)));
  return texts;
}

ColumnPlan plan_of(ColumnKind kind) {
  ColumnPlan plan;
  plan.kind = kind;
  return plan;
}

TEST(ColumnTest, ValuesThatFollowNullsAreNotNull) {
  const ColumnType type{"v", ColumnKind::u16, 0, {}, {}};
  Column column(type);
  const std::byte records[]{std::byte{1}, std::byte{0}, std::byte{2}, std::byte{0}};
  column.append(plan_of(ColumnKind::u16), records, 2, 2);
  column.append_nulls(9);
  column.append(plan_of(ColumnKind::u16), records, 2, 2);
  column.append_value(std::uint16_t{3});
  EXPECT_EQ(values(column), (std::vector<std::string>{"1", "2", "null", "null", "null", "null", "null",
                                                      "null", "null", "null", "null", "1", "2", "3"}));
}

TEST(ColumnTest, TimesThatDoNotFitAreNullBesideOtherNullsToo) {
  const ColumnType type{"v", ColumnKind::timestamp, 0, {}, {}};
  std::byte records[3 * 8];
  store_le<std::uint64_t>(records, 5);
  store_le<std::uint64_t>(records + 8, 0x8000000000000000);
  store_le<std::uint64_t>(records + 16, 0x7FFFFFFFFFFFFFFF);
  Column column(type);
  column.append_nulls(1);
  column.append(plan_of(ColumnKind::timestamp), records, 8, 3);
  column.append(plan_of(ColumnKind::timestamp), records, 8, 2);
  EXPECT_EQ(values(column),
            (std::vector<std::string>{"null", "5", "null", "9223372036854775807", "5", "null"}));
}

TEST(ColumnTest, ManyRecordsAreReadLikeFew) {
  const ColumnType type{"v", ColumnKind::u16, 0, {}, {}};
  std::vector<std::byte> records;
  for (std::uint16_t value = 0; value < 50; ++value)
    records.insert(records.end(), {std::byte{0xEE}, static_cast<std::byte>(value), std::byte{1}});
  ColumnPlan plan = plan_of(ColumnKind::u16);
  plan.offset = 1;
  for (std::size_t piece = 1; piece <= 9; ++piece) {
    Column column(type);
    for (std::size_t at = 0; at < 50; at += piece)
      column.append(plan, records.data() + 3 * at, 3, std::min<std::size_t>(piece, 50 - at));
    std::vector<std::string> expected;
    for (int value = 256; value < 306; ++value)
      expected.push_back(std::to_string(value));
    EXPECT_EQ(values(column), expected) << piece;
  }
}

TEST(ColumnTest, TextsOfEveryLengthEndBeforeWhatIsNotPrintable) {
  for (std::uint32_t size = 1; size <= 40; ++size) {
    const ColumnType type{"v", ColumnKind::text, size, {}, {}};
    ColumnPlan plan = plan_of(ColumnKind::text);
    plan.count = size;
    std::string records;
    std::vector<std::string> expected;
    for (std::size_t length = 0; length <= size; ++length) {
      const std::string text(length, static_cast<char>('a' + length % 26));
      std::string record = text + std::string(size - length, 'z');
      if (length < size) record[length] = "\0\x1F\x7F\x80\xFF"[length % 5];
      records += record;
      expected.push_back('"' + text + '"');
    }
    Column column(type);
    column.append(plan, as_bytes(records).data(), size, size + 1);
    EXPECT_EQ(values(column), expected) << size;
  }
}

TEST(ColumnTest, BooleansKeepTheirPlacesAcrossBytesAndPieces) {
  const ColumnType type{"v", ColumnKind::boolean, 0, {}, {}};
  Column column(type);
  const std::byte records[]{std::byte{0}, std::byte{1}, std::byte{255}, std::byte{0}, std::byte{2}};
  std::vector<std::string> expected;
  for (int piece = 0; piece < 7; ++piece) {
    column.append(plan_of(ColumnKind::boolean), records, 1, 5);
    expected.insert(expected.end(), {"false", "true", "true", "false", "true"});
  }
  EXPECT_EQ(values(column), expected);
}

TEST(ColumnTest, DictionaryStoresEachTextOnce) {
  const ColumnType type{"v", ColumnKind::dictionary, 0, {}, {}};
  Column column(type);
  column.append_index(column.index_of("a"), 2);
  column.append_nulls(1);
  column.append_index(column.index_of(""));
  column.append_index(column.index_of("a"));
  EXPECT_EQ(column.text_bytes(), 1u);
  EXPECT_EQ(values(column), (std::vector<std::string>{R"("a")", R"("a")", "null", R"("")", R"("a")"}));
}

TEST(ColumnTest, TextsAndNullsAreRepeated) {
  const ColumnType type{"v", ColumnKind::text, 0, {}, {}};
  Column column(type);
  column.append_text("first");
  column.append_text("a");
  column.append_null();
  column.append_text("bc");
  column.repeat(3, 2);
  column.repeat(1, 1);
  column.repeat(2, 0);
  EXPECT_EQ(values(column),
            (std::vector<std::string>{R"("first")", R"("a")", "null", R"("bc")", R"("a")", "null", R"("bc")",
                                      R"("a")", "null", R"("bc")", R"("bc")"}));
}

TEST(ColumnTest, TextsWithoutACharacterAreRepeated) {
  const ColumnType type{"v", ColumnKind::text, 0, {}, {}};
  Column column(type);
  column.append_text("");
  column.repeat(1, 2);
  column.append_text("a");
  EXPECT_EQ(values(column), (std::vector<std::string>{R"("")", R"("")", R"("")", R"("a")"}));
}

TEST(ColumnTest, IndicesAreRepeated) {
  const ColumnType type{"v", ColumnKind::dictionary, 0, {}, {}};
  Column column(type);
  column.append_index(column.index_of("a"));
  column.append_index(column.index_of("b"));
  column.repeat(2, 1);
  column.append_null();
  column.repeat(1, 9);
  column.repeat(3, 1);
  const std::vector<std::int32_t> indices{1, 0};
  column.append_values<std::int32_t>(indices);
  std::vector<std::string> expected{R"("a")", R"("b")", R"("a")", R"("b")"};
  expected.insert(expected.end(), 13, "null");
  expected.insert(expected.end(), {R"("b")", R"("a")"});
  EXPECT_EQ(values(column), expected);
}

TEST(ColumnTest, ListsAndRecordsOfNothingHaveNulls) {
  const ColumnType item{"item", ColumnKind::u8, 0, {}, {}};
  const ColumnType list{"l", ColumnKind::list, 3, {item}, {}};
  const ColumnType type{"v", ColumnKind::record, 0, {list}, {}};
  Column column(type);
  column.append_nulls(2);
  EXPECT_EQ(values(column), (std::vector<std::string>{"null", "null"}));
}

// Whoever reads an array or a schema may move parts of it out, which then are theirs to release.
TEST(ColumnTest, DictionaryThatWasMovedOutOutlivesItsColumn) {
  const std::vector<ColumnType> types{{"v", ColumnKind::dictionary, 0, {}, {}}};
  const test::OwnedSchema texts(new ArrowSchema{});
  {
    const test::OwnedSchema schema(new ArrowSchema{});
    export_schema(types, {}, schema.get());
    *texts = std::exchange(*schema->children[0]->dictionary, ArrowSchema{});
  }
  EXPECT_STREQ(texts->format, "u");
  Column column(types[0]);
  column.append_index(column.index_of("a"));
  const test::OwnedArray values(new ArrowArray{});
  {
    const test::OwnedArray array(new ArrowArray{});
    column.export_to(array.get());
    *values = std::exchange(*array->dictionary, ArrowArray{});
  }
  EXPECT_EQ(ArrowValues(*texts, *values, Numbers::exact).text(0), R"("a")");
}

TEST(ColumnTest, TextsThatAreNoUtf8AreReplacedInNames) {
  EXPECT_EQ(utf8_text("plain"), "plain");
  EXPECT_EQ(utf8_text("\xC3\xA9"), "\xC3\xA9");
  EXPECT_EQ(utf8_text("a\xFF"
                      "b"),
            "a\xEF\xBF\xBD"
            "b");
  EXPECT_EQ(utf8_text(std::string_view("a\0b", 3)),
            "a\xEF\xBF\xBD"
            "b");
  EXPECT_EQ(utf8_text("\xE2\x82"), "\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(BufferTest, MemoryIsAlignedGrowsAndKeepsWhatItHolds) {
  Buffer buffer;
  for (std::uint32_t value = 0; value < 100'000; ++value)
    buffer.push(value);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(buffer.data()) % 64, 0u);
  ASSERT_EQ(buffer.size(), 400'000u);
  for (std::uint32_t value = 0; value < 100'000; ++value) {
    std::uint32_t read;
    std::memcpy(&read, buffer.data() + 4 * value, sizeof read);
    ASSERT_EQ(read, value);
  }
  const Buffer other = std::move(buffer);
  EXPECT_EQ(buffer.data(), nullptr);
  EXPECT_EQ(other.size(), 400'000u);
}

}  // namespace
}  // namespace qvx::columns
