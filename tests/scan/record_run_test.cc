#include "qvx/scan/record_run.h"

#include <gtest/gtest.h>

#include <bit>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/scan/data_file_reader.h"
#include "tests/metrics/cntx_builder.h"
#include "tests/reader/reader_files.h"
#include "tests/support/guarded_buffer.h"

namespace qvx {
namespace {

using test::file_header;
using test::le;
using test::padded;

using Texts = std::vector<std::string>;

template <typename T>
std::vector<T> listed(const ArrayView<T>& view) {
  return std::vector<T>(view.begin(), view.end());
}

// 30 bytes: a text, then numbers of which some of a kind are neighbours, and a field that lies behind the
// record.
constexpr const char* kMixedId = "b1b1b1b1b1b1b1b1b1b1b1b1b1b1b1b1";
constexpr std::string_view kMixedSchema =
    R"({"qvx_version":"1.5.0","provider_name":"p","provider_version":"1.0.0","types":[)"
    R"({"name":"mixed","size":30,"fields":[)"
    R"({"field_name":"text","description":"","type_name":"char","counting_mode":"ABSOLUTE","offset":0,"type_size":1,"array_length":6,"index":0},)"
    R"({"field_name":"a","description":"","type_name":"uint32_t","counting_mode":"ABSOLUTE","offset":6,"type_size":4,"index":0},)"
    R"({"field_name":"b","description":"","type_name":"uint32_t","counting_mode":"ABSOLUTE","offset":10,"type_size":4,"index":0},)"
    R"({"field_name":"c","description":"","type_name":"int32_t","counting_mode":"ABSOLUTE","offset":14,"type_size":4,"index":0},)"
    R"({"field_name":"flag","description":"","type_name":"bool","counting_mode":"ABSOLUTE","offset":18,"type_size":1,"index":0},)"
    R"({"field_name":"list","description":"","type_name":"uint8_t","counting_mode":"ABSOLUTE","offset":19,"type_size":1,"array_length":3,"index":0},)"
    R"({"field_name":"wide","description":"","type_name":"uint64_t","counting_mode":"ABSOLUTE","offset":22,"type_size":8,"index":0},)"
    R"({"field_name":"behind","description":"","type_name":"uint64_t","counting_mode":"ABSOLUTE","offset":30,"type_size":8,"index":0}]}]})";

std::string mixed_record(std::string_view text, std::uint32_t a, std::int32_t c, char flag,
                         std::uint64_t wide) {
  return std::string(text) + le(a) + le(a + 1) + le(c) + flag + "\x01\x02\x03" + le(wide);
}

class RecordRunTest : public testing::Test {
 protected:
  RecordRunTest() { files_.write_schema(kMixedId, kMixedSchema); }

  bool open_bytes(const std::string& bytes) {
    bytes_ = bytes;
    return reader_.open(as_bytes(bytes_));
  }

  // A block of two records.
  void open_mixed() {
    test::FileHeader fields = test::usual_header();
    fields.event_schema_ids = {test::id_of(kMixedId)};
    const std::string records = mixed_record("north ", 5, -1, '\0', 18446744073709551615U) +
                                mixed_record(std::string_view("a\0bcde", 6), 4294967294, 7, '\x02', 2);
    ASSERT_TRUE(open_bytes(file_header(fields) + "QVXE" + le(std::uint64_t{12}) + '\0' + '\0' + '\0' +
                           '\x02' + records))
        << reader_.error();
  }

  template <typename T>
  std::vector<T> column(const RecordRun& run, const char* name) {
    FieldHandle field(name);
    return listed(run.column<T>(field));
  }

  const test::ReaderFiles files_;
  std::string bytes_;
  DataFileReader reader_{files_.path("schema")};
};

TEST_F(RecordRunTest, ColumnsHoldTheValuesOfAllRecords) {
  open_mixed();
  const RecordRun* const run = reader_.next_run();
  ASSERT_NE(run, nullptr);
  EXPECT_EQ(run->kind(), RecordKind::event);
  EXPECT_EQ(run->type().name(), "mixed");
  EXPECT_EQ(run->time(), 12u);
  EXPECT_EQ(run->size(), 2u);
  EXPECT_EQ(column<std::uint32_t>(*run, "a"), (std::vector<std::uint32_t>{5, 4294967294}));
  EXPECT_EQ(column<std::uint32_t>(*run, "b"), (std::vector<std::uint32_t>{6, 4294967295}));
  EXPECT_EQ(column<std::int32_t>(*run, "c"), (std::vector<std::int32_t>{-1, 7}));
  EXPECT_EQ(column<std::uint64_t>(*run, "wide"), (std::vector<std::uint64_t>{18446744073709551615U, 2}));
  EXPECT_EQ(column<bool>(*run, "flag"), (std::vector<bool>{false, true}));
  EXPECT_EQ(column<std::string_view>(*run, "text"), (std::vector<std::string_view>{"north ", "a"}));
  EXPECT_EQ(column<std::uint8_t>(*run, "list"), (std::vector<std::uint8_t>{1, 1}));
  EXPECT_EQ(column<std::uint8_t>(*run, "list[2]"), (std::vector<std::uint8_t>{3, 3}));
  FieldHandle wide("wide");
  EXPECT_EQ((*run)[1].get<std::uint64_t>(wide), 2u);
  EXPECT_TRUE(run->metric_names().empty());
  EXPECT_TRUE(run->metric_ids().empty());
  EXPECT_EQ(reader_.next_run(), nullptr);
  EXPECT_FALSE(reader_.failed());
}

TEST_F(RecordRunTest, ColumnOfAnotherTypeOrNameIsEmpty) {
  open_mixed();
  const RecordRun* const run = reader_.next_run();
  ASSERT_NE(run, nullptr);
  EXPECT_TRUE(column<std::uint64_t>(*run, "a").empty());
  EXPECT_TRUE(column<std::int32_t>(*run, "a").empty());
  EXPECT_TRUE(column<std::uint8_t>(*run, "flag").empty());
  EXPECT_TRUE(column<bool>(*run, "list").empty());
  EXPECT_TRUE(column<std::string_view>(*run, "wide").empty());
  EXPECT_TRUE(column<std::uint32_t>(*run, "gone").empty());
  const RecordType other(RecordKind::event, "other");
  FieldPlace place = run->type().find("a");
  EXPECT_EQ(listed(run->column<std::uint32_t>(place)), (std::vector<std::uint32_t>{5, 4294967294}));
  place.record_type = other.serial();
  EXPECT_TRUE(run->column<std::uint32_t>(place).empty());
}

TEST_F(RecordRunTest, ColumnEndsWithTheLastRecordThatHasTheField) {
  open_mixed();
  const RecordRun* const run = reader_.next_run();
  ASSERT_NE(run, nullptr);
  // The text and the first bytes of the record behind.
  EXPECT_EQ(column<std::uint64_t>(*run, "behind"),
            std::vector<std::uint64_t>{load_le<std::uint64_t>("a\0bcde\xFE\xFF")});
}

TEST_F(RecordRunTest, RangesAreNeighboursOfOneKind) {
  open_mixed();
  const Record* const record = reader_.next();
  ASSERT_NE(record, nullptr);
  Texts ranges;
  for (const FieldRange& range : record->type().ranges())
    ranges.push_back(record->type().fields()[range.first].name + '+' + std::to_string(range.count));
  // "list" is no single number, "text" and "flag" are none.
  EXPECT_EQ(ranges, (Texts{"a+2", "c+1", "wide+2"}));
  const std::vector<FieldRange>& found = record->type().ranges();
  EXPECT_EQ(listed(record->array<std::uint32_t>(found[0])), (std::vector<std::uint32_t>{5, 6}));
  EXPECT_EQ(listed(record->array<std::int32_t>(found[1])), std::vector<std::int32_t>{-1});
  EXPECT_EQ(record->array<std::uint64_t>(found[2]).size(), 2u);
  EXPECT_TRUE(record->array<std::int32_t>(found[0]).empty());
}

TEST_F(RecordRunTest, RunGoesOnBehindTheRecordsThatWereGivenOut) {
  test::FileHeader fields = test::usual_header(64);
  ASSERT_TRUE(open_bytes(file_header(fields) + padded(test::usual_events({1, 2, 3, 4}), 64) +
                         padded(test::usual_events({5, 6}), 64)));
  FieldHandle field("v");
  ASSERT_NE(reader_.next(), nullptr);
  const Record* const second = reader_.next();
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(second->get<std::uint16_t>(field), 2u);
  const RecordRun* const rest = reader_.next_run();
  ASSERT_NE(rest, nullptr);
  EXPECT_EQ(listed(rest->column<std::uint16_t>(field)), (std::vector<std::uint16_t>{3, 4}));
  const Record* const next = reader_.next();
  ASSERT_NE(next, nullptr);
  EXPECT_EQ(next->get<std::uint16_t>(field), 5u);
  ASSERT_TRUE(open_bytes(bytes_));
  std::size_t records = 0;
  for (const RecordRun& run : reader_.runs())
    records += run.size();
  EXPECT_EQ(records, 6u);
}

// All sets of a group show the same values.
TEST_F(RecordRunTest, CountersAreReadTogether) {
  constexpr const char* kId = "c3c3c3c3c3c3c3c3c3c3c3c3c3c3c3c3";
  files_.write_schema(
      kId,
      R"({"version":"1.5.0","counter_groups":[{"granularity":"CPU","name":"cpu","num_counters":4,)"
      R"("num_counter_sets":2,"counters":[)"
      R"({"name":"a","description":"","units":"","data_type":"UINT64","counting_type":"ABSOLUTE"},)"
      R"({"name":"b","description":"","units":"","data_type":"UINT64","counting_type":"ABSOLUTE"},)"
      R"({"name":"who","description":"","units":"","data_type":"STRING","length":8,"counting_type":"ABSOLUTE"},)"
      R"({"name":"load","description":"","units":"","data_type":"FP64","counting_type":"ABSOLUTE"}]},)"
      R"({"granularity":"NODE","name":"none","num_counters":1,"num_counter_sets":0,"counters":[)"
      R"({"name":"n","description":"","units":"","data_type":"UINT64","counting_type":"ABSOLUTE"}]},)"
      R"({"granularity":"NODE","name":"node","num_counters":1,"num_counter_sets":1,"counters":[)"
      R"({"name":"m","description":"","units":"","data_type":"FP64","counting_type":"ABSOLUTE"}]}]})");
  test::FileHeader fields = test::usual_header();
  fields.counters_schema_id = test::id_of(kId);
  ASSERT_TRUE(open_bytes(file_header(fields) + "QVXD" + std::string(4, '\0') + le<std::uint64_t>(12) +
                         le<std::uint64_t>(18446744073709551614U) + le<std::uint64_t>(3) +
                         std::string("ab\0cdefg", 8) + le<double>(0.1) + le<std::uint64_t>(9) +
                         le<double>(0.5)));
  const RecordRun* const run = reader_.next_run();
  ASSERT_NE(run, nullptr);
  EXPECT_EQ(run->kind(), RecordKind::counters);
  EXPECT_EQ(run->size(), 1u);
  const std::vector<FieldRange>& ranges = run->type().ranges();
  ASSERT_EQ(ranges.size(), 3u);
  const Record record = (*run)[0];
  EXPECT_EQ(listed(record.array<std::uint64_t>(ranges[0])),
            (std::vector<std::uint64_t>{18446744073709551614U, 3}));
  EXPECT_EQ(listed(record.array<double>(ranges[1])), std::vector<double>{0.1});
  EXPECT_EQ(listed(record.array<double>(ranges[2])), std::vector<double>{0.5});
  EXPECT_EQ(run->type().fields()[ranges[2].first].name, "node.m");
  EXPECT_EQ(column<std::uint64_t>(*run, "cpu[1].b"), std::vector<std::uint64_t>{3});
  EXPECT_EQ(column<std::string_view>(*run, "cpu.who"), std::vector<std::string_view>{"ab"});
}

// A sample of a metric that the block does not name has a number beyond the names.
TEST_F(RecordRunTest, SamplesOfABatchShareTheirLabels) {
  test::TestBlock block;
  block.constant_labels = test::constant_labels({"site", "north"});
  block.records = {test::record({.kind = 'G',
                                 .value_type = 2,
                                 .samples = {{1, std::bit_cast<std::uint64_t>(0.1)}, {0, 0}},
                                 .labels = test::labels_l(0, {1})}),
                   test::record({.value_type = 4, .samples = {{60000, 0xFFFFFFFFFFFFFFFE}}})};
  ASSERT_TRUE(open_bytes(file_header(test::usual_header(512)) + padded(block.bytes(), 512)));
  const RecordRun* run = reader_.next_run();
  ASSERT_NE(run, nullptr);
  EXPECT_EQ(run->kind(), RecordKind::sample);
  EXPECT_EQ(run->time(), 1700000000000000u);
  EXPECT_EQ(column<double>(*run, "value"), (std::vector<double>{0.1, 0}));
  EXPECT_EQ(listed(run->metric_ids()), (std::vector<std::uint16_t>{1, 0}));
  EXPECT_EQ(run->metric_names()[1], "tx");
  EXPECT_EQ(run->metric_names()[0], "rx");
  EXPECT_EQ(run->metric_kind(), metrics::MetricKind::gauge);
  EXPECT_EQ(run->label("host"), "node8");
  EXPECT_EQ(run->label("site"), "north");
  ASSERT_EQ(run->labels().size(), 2u);
  EXPECT_EQ(run->labels()[0], (MetricLabel{"site", "north"}));
  run = reader_.next_run();
  ASSERT_NE(run, nullptr);
  EXPECT_EQ(run->metric_kind(), metrics::MetricKind::counter);
  EXPECT_EQ(column<std::int64_t>(*run, "value"), std::vector<std::int64_t>{-2});
  EXPECT_EQ(listed(run->metric_ids()), std::vector<std::uint16_t>{60000});
  EXPECT_EQ((*run)[0].metric(), "");
  EXPECT_EQ(reader_.next_run(), nullptr);
}

// -- Against the records one by one

template <typename T>
std::string text_of(T value) {
  if constexpr (std::same_as<T, std::string_view>)
    return std::string(value);
  else if constexpr (std::floating_point<T>)
    return std::to_string(std::bit_cast<std::uint64_t>(double{value}));
  else
    return std::to_string(value);
}

template <typename T>
void add(const RecordRun& run, const FieldPlace& field, std::vector<Texts>& values) {
  const ArrayView<T> column = run.column<T>(field);
  for (std::size_t at = 0; at < run.size(); ++at)
    values[at].push_back(at < column.size() ? text_of(column[at]) : "none");
}

template <typename T>
void add(const Record& record, const FieldPlace& field, Texts& values) {
  const std::optional<T> value = record.get<T>(field);
  values.push_back(value ? text_of(*value) : "none");
}

template <typename From, typename To>
void add_value(const From& from, const Field& field, To& values) {
  switch (field.kind) {
    case FieldKind::boolean:
      return add<bool>(from, field, values);
    case FieldKind::u8:
      return add<std::uint8_t>(from, field, values);
    case FieldKind::i8:
      return add<std::int8_t>(from, field, values);
    case FieldKind::u16:
      return add<std::uint16_t>(from, field, values);
    case FieldKind::i16:
      return add<std::int16_t>(from, field, values);
    case FieldKind::u32:
      return add<std::uint32_t>(from, field, values);
    case FieldKind::i32:
      return add<std::int32_t>(from, field, values);
    case FieldKind::u64:
      return add<std::uint64_t>(from, field, values);
    case FieldKind::i64:
      return add<std::int64_t>(from, field, values);
    case FieldKind::f32:
      return add<float>(from, field, values);
    case FieldKind::f64:
      return add<double>(from, field, values);
    case FieldKind::characters:
    case FieldKind::string:
      return add<std::string_view>(from, field, values);
    case FieldKind::none:
    case FieldKind::record:
      break;
  }
}

Texts start_of(const Record& record) {
  Texts texts{record.type().name(), std::to_string(record.time()), std::string(record.metric())};
  for (const MetricLabel& label : record.labels())
    texts.push_back(std::string(label.name) + '=' + std::string(label.value));
  return texts;
}

std::vector<Texts> by_record(DataFileReader& reader) {
  std::vector<Texts> all;
  for (const Record& record : reader.records()) {
    all.push_back(start_of(record));
    for (const Field& field : record.type().fields())
      add_value(record, field, all.back());
  }
  return all;
}

std::vector<Texts> by_run(DataFileReader& reader) {
  std::vector<Texts> all;
  for (const RecordRun& run : reader.runs()) {
    std::vector<Texts> values(run.size());
    for (std::size_t at = 0; at < run.size(); ++at)
      values[at] = start_of(run[at]);
    for (const Field& field : run.type().fields())
      add_value(run, field, values);
    for (std::size_t at = 0; at < run.metric_ids().size(); ++at) {
      const std::size_t id = run.metric_ids()[at];
      EXPECT_EQ(id < run.metric_names().size() ? run.metric_names()[id] : "", run[at].metric());
    }
    all.insert(all.end(), values.begin(), values.end());
  }
  return all;
}

// Every value of a range is that of its field.
void expect_ranges(const Record& record) {
  for (const FieldRange& range : record.type().ranges()) {
    if (range.kind != FieldKind::u64) continue;
    const ArrayView<std::uint64_t> values = record.array<std::uint64_t>(range);
    for (std::size_t at = 0; at < values.size(); ++at)
      EXPECT_EQ(values[at], record.get<std::uint64_t>(record.type().fields()[range.first + at]));
  }
}

TEST(RecordRunSamples, ColumnsAreTheRecordsOfEveryBeginningOfAFile) {
  const std::filesystem::path folder =
      std::filesystem::path(QVX_TEST_DATA_DIR).parent_path() / "examples/data";
  DataFileReader reader(folder / "schema");
  std::size_t records = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (!entry.is_regular_file()) continue;
    SCOPED_TRACE(entry.path());
    const std::string whole = test::read_file(entry.path());
    for (std::size_t size = whole.size(); size > 256; size -= std::min(size, whole.size() / 20 | 1)) {
      const std::string_view cut = std::string_view(whole).substr(0, size);
      ASSERT_TRUE(reader.open(as_bytes(cut))) << reader.error();
      const std::vector<Texts> expected = by_record(reader);
      ASSERT_TRUE(reader.open(as_bytes(cut)));
      EXPECT_EQ(by_run(reader), expected) << size;
      ASSERT_TRUE(reader.open(as_bytes(cut)));
      for (const Record& record : reader.records())
        expect_ranges(record);
      records += expected.size();
    }
  }
  EXPECT_GT(records, 4000u);
}

TEST_F(RecordRunTest, EveryTruncationGivesColumnsOfWhatIsThere) {
  open_mixed();
  const std::vector<const RecordType*> types = reader_.types();
  const RecordType& type = *types.at(0);
  const std::string bytes = mixed_record("first ", 5, -1, '\0', 1) + mixed_record("second", 6, -2, '\1', 2) +
                            mixed_record("third ", 7, -3, '\0', 3);
  test::for_every_truncation(std::as_bytes(std::span(bytes)), [&](Bytes cut) {
    const std::size_t records = cut.size() / 30;
    if (records == 0) return;
    const RecordRun run(Record(type, cut, 12), records, 30);
    std::vector<Texts> by_column(records);
    for (const Field& field : type.fields())
      add_value(run, field, by_column);
    for (std::size_t at = 0; at < records; ++at) {
      Texts expected;
      for (const Field& field : type.fields())
        add_value(run[at], field, expected);
      EXPECT_EQ(by_column[at], expected) << cut.size();
    }
  });
}

// -- Text

TEST(RecordText, EndsBeforeTheFirstByteThatIsNotPrintable) {
  const RecordType type(RecordKind::event, "t");
  for (std::size_t size = 1; size <= 40; ++size) {
    FieldPlace place;
    place.record_type = type.serial();
    place.kind = FieldKind::characters;
    place.size = static_cast<std::uint32_t>(size);
    place.end = size;
    for (int byte = 0; byte < 256; ++byte) {
      const bool is_printable = byte >= 0x20 && byte <= 0x7E;
      for (std::size_t at = 0; at < size; ++at) {
        std::string bytes(size, '~');
        bytes[at] = static_cast<char>(byte);
        if (at + 3 < size) bytes[at + 3] = '\0';
        const std::size_t length = !is_printable ? at : at + 3 < size ? at + 3 : size;
        const std::optional<std::string_view> text =
            Record(type, as_bytes(bytes), 0).get<std::string_view>(place);
        ASSERT_TRUE(text.has_value());
        ASSERT_EQ(text->size(), length) << size << " " << byte << " " << at;
      }
    }
  }
}

}  // namespace
}  // namespace qvx
