#include "qvx/scan/data_file_reader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "qvx/support/json_parse.h"
#include "tests/metrics/cntx_builder.h"
#include "tests/reader/reader_files.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/log_capture.h"

namespace qvx {
namespace {

using test::file_header;
using test::gzip;
using test::kStart;
using test::le;
using test::padded;
using test::ReaderFiles;
using test::usual_counters;
using test::usual_events;
using test::usual_header;
using test::usual_page;

using Texts = std::vector<std::string>;

// The field's values in the records that are left.
template <typename T>
std::vector<T> values_of(DataFileReader& reader, const char* field) {
  FieldHandle handle(field);
  std::vector<T> values;
  for (const Record& record : reader.records())
    if (const std::optional<T> value = record.get<T>(handle)) values.push_back(*value);
  return values;
}

Texts words_of(const DataFileReader& reader) {
  Texts words;
  for (const Fault& fault : reader.faults())
    words.push_back(std::string(fault_kind_name(fault.kind)) + " at " + std::to_string(fault.place.offset) +
                    (fault.place.in_page ? "+" + std::to_string(fault.place.page_offset) : "") + ": " +
                    fault.words);
  return words;
}

// One type of every kind of field, in 70 bytes.
constexpr const char* kWideId = "a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1";
constexpr std::string_view kWideSchema =
    R"({"qvx_version":"1.5.0","provider_name":"p","provider_version":"1.0.0","types":[)"
    R"({"name":"point","size":6,"fields":[)"
    R"({"field_name":"x","description":"","type_name":"uint16_t","counting_mode":"ABSOLUTE","offset":0,"type_size":2,"index":0},)"
    R"({"field_name":"y","description":"","type_name":"int32_t","counting_mode":"ABSOLUTE","offset":2,"type_size":4,"index":0}]},)"
    R"({"name":"wide","size":70,"fields":[)"
    R"({"field_name":"u64","description":"","type_name":"uint64_t","counting_mode":"ABSOLUTE","offset":0,"type_size":8,"index":0},)"
    R"({"field_name":"i64","description":"","type_name":"int64_t","counting_mode":"ABSOLUTE","offset":8,"type_size":8,"index":0},)"
    R"({"field_name":"f64","description":"","type_name":"double","counting_mode":"ABSOLUTE","offset":16,"type_size":8,"index":0},)"
    R"({"field_name":"f32","description":"","type_name":"float","counting_mode":"ABSOLUTE","offset":24,"type_size":4,"index":0},)"
    R"({"field_name":"i8","description":"","type_name":"int8_t","counting_mode":"ABSOLUTE","offset":28,"type_size":1,"index":0},)"
    R"({"field_name":"flag","description":"","type_name":"bool","counting_mode":"ABSOLUTE","offset":29,"type_size":1,"index":0},)"
    R"({"field_name":"text","description":"","type_name":"char","counting_mode":"ABSOLUTE","offset":30,"type_size":1,"array_length":12,"index":0},)"
    R"({"field_name":"list","description":"","type_name":"uint32_t","counting_mode":"ABSOLUTE","offset":42,"type_size":4,"array_length":2,"index":0},)"
    R"({"field_name":"one","description":"","type_name":"point","counting_mode":"ABSOLUTE","offset":50,"type_size":6,"index":0},)"
    R"({"field_name":"many","description":"","type_name":"point","counting_mode":"ABSOLUTE","offset":56,"type_size":6,"array_length":2,"index":0},)"
    R"({"field_name":"u16","description":"","type_name":"uint16_t","counting_mode":"ABSOLUTE","offset":68,"type_size":2,"index":0}]}]})";

std::string wide_record() {
  std::string bytes = le<std::uint64_t>(18446744073709551615U) + le<std::int64_t>(-9223372036854775807) +
                      le<double>(0.1) + le<float>(0.5F) + le<std::int8_t>(-3) + '\x02' +
                      std::string("path \"/a\\\0zz", 12);
  bytes += le<std::uint32_t>(7) + le<std::uint32_t>(4294967295);
  bytes += le<std::uint16_t>(1) + le<std::int32_t>(-1);
  bytes += le<std::uint16_t>(2) + le<std::int32_t>(-2) + le<std::uint16_t>(3) + le<std::int32_t>(-3);
  return bytes + le<std::uint16_t>(65535);
}

class DataFileReaderTest : public testing::Test {
 protected:
  DataFileReaderTest() { files_.write_schema(kWideId, kWideSchema); }

  bool open_bytes(const std::string& bytes) {
    bytes_ = bytes;
    return reader_.open(as_bytes(bytes_));
  }

  // The one record of kWideSchema.
  const Record& wide() {
    test::FileHeader fields = test::usual_header();
    fields.event_schema_ids = {test::id_of(kWideId)};
    std::string block = "QVXE" + le(kStart) + '\0' + le<std::uint16_t>(1) + '\x01' + wide_record();
    EXPECT_TRUE(open_bytes(file_header(fields) + block)) << reader_.error();
    const Record* const record = reader_.next();
    EXPECT_NE(record, nullptr);
    return *record;
  }

  template <typename T>
  std::optional<T> value(const Record& record, const char* name) {
    FieldHandle field(name);
    return record.get<T>(field);
  }

  const ReaderFiles files_;
  std::string bytes_;
  DataFileReader reader_{files_.path("schema")};
};

TEST_F(DataFileReaderTest, TellsTypeTimeAndFields) {
  const Record& record = wide();
  EXPECT_EQ(record.kind(), RecordKind::event);
  EXPECT_EQ(record.type().name(), "wide");
  EXPECT_EQ(record.time(), 1700000000000000u);
  Texts names;
  for (const Field& field : record.type().fields())
    names.push_back(field.name);
  EXPECT_EQ(names, (Texts{"u64", "i64", "f64", "f32", "i8", "flag", "text", "list", "one", "many", "u16"}));
  EXPECT_EQ(record.type().reach(), 70u);
  EXPECT_EQ(record.metric(), "");
  EXPECT_TRUE(record.labels().empty());
  EXPECT_EQ(record.metric_kind(), metrics::MetricKind::untyped);
}

TEST_F(DataFileReaderTest, NumbersAreExact) {
  const Record& record = wide();
  EXPECT_EQ(value<std::uint64_t>(record, "u64"), 18446744073709551615U);
  EXPECT_EQ(value<std::int64_t>(record, "i64"), -9223372036854775807);
  EXPECT_EQ(value<double>(record, "f64"), 0.1);
  EXPECT_EQ(value<float>(record, "f32"), 0.5F);
  EXPECT_EQ(value<std::int8_t>(record, "i8"), std::int8_t{-3});
  EXPECT_EQ(value<std::uint16_t>(record, "u16"), std::uint16_t{65535});
  EXPECT_EQ(value<bool>(record, "flag"), true);
  EXPECT_EQ(value<std::uint8_t>(record, "flag"), std::uint8_t{2});
}

TEST_F(DataFileReaderTest, NumbersAreWidenedButNeverRounded) {
  const Record& record = wide();
  EXPECT_EQ(value<std::int64_t>(record, "u16"), 65535);
  EXPECT_EQ(value<double>(record, "u16"), 65535.0);
  EXPECT_EQ(value<double>(record, "f32"), 0.5);
  EXPECT_EQ(value<std::int32_t>(record, "i8"), -3);
  EXPECT_EQ(value<double>(record, "u64"), std::nullopt);
  EXPECT_EQ(value<double>(record, "i64"), std::nullopt);
  EXPECT_EQ(value<std::int64_t>(record, "u64"), std::nullopt);
  EXPECT_EQ(value<std::uint64_t>(record, "i64"), std::nullopt);
  EXPECT_EQ(value<std::uint64_t>(record, "i8"), std::nullopt);
  EXPECT_EQ(value<std::int16_t>(record, "u16"), std::nullopt);
  EXPECT_EQ(value<float>(record, "f64"), std::nullopt);
  EXPECT_EQ(value<std::int64_t>(record, "f64"), std::nullopt);
  EXPECT_EQ(value<bool>(record, "i8"), std::nullopt);
  EXPECT_EQ(value<std::uint8_t>(record, "text"), std::nullopt);
  EXPECT_EQ(value<std::string_view>(record, "u64"), std::nullopt);
  EXPECT_EQ(value<std::uint64_t>(record, "one"), std::nullopt);
}

TEST_F(DataFileReaderTest, TextEndsWhereJsonEndsIt) {
  EXPECT_EQ(value<std::string_view>(wide(), "text"), "path \"/a\\");
}

TEST_F(DataFileReaderTest, ArraysAreViews) {
  const Record& record = wide();
  FieldHandle list("list");
  const ArrayView<std::uint32_t> view = record.array<std::uint32_t>(list);
  ASSERT_EQ(view.size(), 2u);
  EXPECT_EQ(view[1], 4294967295u);
  EXPECT_EQ(std::vector<std::uint32_t>(view.begin(), view.end()),
            (std::vector<std::uint32_t>{7, 4294967295u}));
  EXPECT_EQ(record.get<std::uint32_t>(list), 7u);
  EXPECT_TRUE(record.array<std::int32_t>(list).empty());
  EXPECT_TRUE(record.array<std::uint64_t>(list).empty());
  FieldHandle text("text"), one("u16");
  EXPECT_TRUE(record.array<std::uint8_t>(text).empty());
  EXPECT_EQ(record.array<std::uint16_t>(one).size(), 1u);
}

TEST_F(DataFileReaderTest, ArraysAreSpansWhereTheyAreAligned) {
  alignas(8) std::byte bytes[24] = {};
  store_le<std::uint32_t>(bytes + 4, 9);
  const ArrayView<std::uint32_t> aligned(bytes, 2, 4);
  const ArrayView<std::uint32_t> unaligned(bytes + 1, 2, 4);
  const ArrayView<std::uint32_t> apart(bytes, 2, 8);
  if constexpr (std::endian::native == std::endian::little) {
    ASSERT_TRUE(aligned.span());
    EXPECT_EQ(aligned.span()->size(), 2u);
    EXPECT_EQ((*aligned.span())[1], 9u);
  } else {
    EXPECT_FALSE(aligned.span());
  }
  EXPECT_FALSE(unaligned.span());
  EXPECT_FALSE(apart.span());
}

TEST_F(DataFileReaderTest, DottedNamesReachIntoNestedRecords) {
  const Record& record = wide();
  EXPECT_EQ(value<std::int32_t>(record, "one.y"), -1);
  EXPECT_EQ(value<std::int32_t>(record, "many[1].y"), -3);
  EXPECT_EQ(value<std::uint32_t>(record, "list[1]"), 4294967295u);
  FieldHandle all("many.x");
  const ArrayView<std::uint16_t> view = record.array<std::uint16_t>(all);
  EXPECT_EQ(std::vector<std::uint16_t>(view.begin(), view.end()), (std::vector<std::uint16_t>{2, 3}));
  for (const char* const name :
       {"", "gone", "one.", "one.z", "one.y.z", "many[2].x", "many[-1].x", "many[].x", "many[1", "many[1]x",
        "list[4294967297]", "u64.x", "u", "u644", ".u64", "one.y[1]"})
    EXPECT_EQ(value<std::int32_t>(record, name), std::nullopt) << name;
}

TEST_F(DataFileReaderTest, NestedRecordsAreRecords) {
  const Record& record = wide();
  FieldHandle many("many"), x("x");
  const std::optional<Record> second = record.record(many, 1);
  ASSERT_TRUE(second);
  EXPECT_EQ(second->type().name(), "point");
  EXPECT_EQ(second->time(), 1700000000000000u);
  EXPECT_EQ(second->get<std::uint16_t>(x), std::uint16_t{3});
  EXPECT_EQ(record.get<std::uint16_t>(x), std::nullopt);
  EXPECT_FALSE(record.record(many, 2));
  EXPECT_FALSE(record.record(x));
}

TEST_F(DataFileReaderTest, FieldOfAnotherTypeIsAbsent) {
  const FieldPlace place = wide().type().find("u64");
  ASSERT_TRUE(place);
  ASSERT_TRUE(open_bytes(file_header(usual_header()) + usual_events({7})));
  const Record* const record = reader_.next();
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->get<std::uint64_t>(place), std::nullopt);
  EXPECT_TRUE(record->array<std::uint64_t>(place).empty());
  EXPECT_FALSE(record->record(place, 0));
}

TEST_F(DataFileReaderTest, HandleFollowsTheTypesInForce) {
  constexpr const char* kOtherId = "b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2";
  std::string other(test::kUsualEvents);
  other.replace(other.find("\"size\":2"), 8, "\"size\":4");
  other.replace(other.find("\"offset\":0"), 10, "\"offset\":2");
  files_.write_schema(kOtherId, other);
  std::string chain = usual_events({1});
  for (int round = 0; round < 3; ++round) {
    chain += test::usual_schemas(kOtherId) + "QVXE" + le(kStart) + std::string(3, '\0') + '\x01' +
             le<std::uint16_t>(9) + le<std::uint16_t>(2);
    chain += test::usual_schemas(test::kEventsId) + usual_events({3});
  }
  test::FileHeader fields = test::usual_header(4096);
  ASSERT_TRUE(open_bytes(file_header(fields) + chain));
  EXPECT_EQ(values_of<std::uint16_t>(reader_, "v"), (std::vector<std::uint16_t>{1, 2, 3, 2, 3, 2, 3}));
  EXPECT_EQ(words_of(reader_), Texts{});
}

TEST_F(DataFileReaderTest, CountersHaveAValueForEachSet) {
  constexpr const char* kId = "c2c2c2c2c2c2c2c2c2c2c2c2c2c2c2c2";
  files_.write_schema(
      kId,
      R"({"version":"1.5.0","counter_groups":[{"granularity":"CPU","name":"cpu","num_counters":3,)"
      R"("num_counter_sets":2,"counters":[)"
      R"({"name":"load.1m","description":"","units":"","data_type":"FP64","counting_type":"ABSOLUTE"},)"
      R"({"name":"who","description":"","units":"","data_type":"STRING","length":8,"counting_type":"ABSOLUTE"},)"
      R"({"name":"drift","description":"","units":"","data_type":"INT64","counting_type":"ABSOLUTE"}]},)"
      R"({"granularity":"NODE","name":"none","num_counters":1,"num_counter_sets":0,"counters":[)"
      R"({"name":"c","description":"","units":"","data_type":"UINT64","counting_type":"ABSOLUTE"}]}]})");
  test::FileHeader fields = test::usual_header();
  fields.counters_schema_id = test::id_of(kId);
  ASSERT_TRUE(open_bytes(file_header(fields) + "QVXD" + std::string(4, '\0') + le<std::uint64_t>(12) +
                         le<double>(0.25) + std::string("ab\0cdefg", 8) +
                         le<std::int64_t>(-9007199254740993) + le<std::uint64_t>(1)));
  const Record* const record = reader_.next();
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->kind(), RecordKind::counters);
  EXPECT_EQ(record->type().name(), "counters");
  EXPECT_EQ(record->time(), 12u);
  EXPECT_EQ(value<double>(*record, "cpu.load.1m"), 0.25);
  EXPECT_EQ(value<double>(*record, "cpu[1].load.1m"), 0.25);
  EXPECT_EQ(value<double>(*record, "load.1m"), 0.25);
  EXPECT_EQ(value<double>(*record, "cpu[2].load.1m"), std::nullopt);
  EXPECT_EQ(value<double>(*record, "cpu1.load.1m"), std::nullopt);
  EXPECT_EQ(value<std::string_view>(*record, "cpu.who"), "ab");
  EXPECT_EQ(value<std::int64_t>(*record, "cpu[0].drift"), -9007199254740993);
  EXPECT_EQ(value<std::uint64_t>(*record, "none.c"), std::nullopt);
  FieldHandle load("cpu.load.1m"), none("none.c");
  const ArrayView<double> sets = record->array<double>(load);
  EXPECT_EQ(std::vector<double>(sets.begin(), sets.end()), (std::vector<double>{0.25, 0.25}));
  EXPECT_TRUE(record->array<std::uint64_t>(none).empty());
  EXPECT_EQ(reader_.next(), nullptr);
  EXPECT_FALSE(reader_.failed());
}

// Two batches, the first with two samples; and a block that repeats the tables.
TEST_F(DataFileReaderTest, SamplesHaveNamesLabelsKindsAndValues) {
  test::TestBlock block;
  block.constant_labels = test::constant_labels({"site", "north", "host", "overridden"});
  block.records = {test::record({.kind = 'G',
                                 .value_type = 2,
                                 .samples = {{1, std::bit_cast<std::uint64_t>(0.1)}, {0, 0}},
                                 .labels = test::labels_l(0, {1})}),
                   test::record({.value_type = 4, .samples = {{3, 0xFFFFFFFFFFFFFFFE}}})};
  test::FileHeader fields = test::usual_header(512);
  ASSERT_TRUE(open_bytes(file_header(fields) + padded(block.bytes(), 512) + padded(block.bytes(), 512)));
  FieldHandle value("value");
  for (int round = 0; round < 2; ++round) {
    const Record* record = reader_.next();
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->kind(), RecordKind::sample);
    EXPECT_EQ(record->type().name(), "metrics");
    EXPECT_EQ(record->time(), 1700000000000000u);
    EXPECT_EQ(record->metric(), "tx");
    EXPECT_EQ(record->metric_kind(), metrics::MetricKind::gauge);
    EXPECT_EQ(record->get<double>(value), 0.1);
    EXPECT_EQ(record->label("host"), "node8");
    EXPECT_EQ(record->label("site"), "north");
    EXPECT_EQ(record->label("gone"), "");
    ASSERT_EQ(record->labels().size(), 2u);
    EXPECT_EQ(record->labels()[0], (MetricLabel{"site", "north"}));
    EXPECT_EQ(record->labels()[1], (MetricLabel{"host", "node8"}));
    record = reader_.next();
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->metric(), "rx");
    record = reader_.next();
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->metric(), "drop");
    EXPECT_EQ(record->metric_kind(), metrics::MetricKind::counter);
    EXPECT_EQ(record->get<std::int64_t>(value), -2);
    EXPECT_EQ(record->label("host"), "node7");
  }
  EXPECT_EQ(reader_.next(), nullptr);
  EXPECT_EQ(words_of(reader_), Texts{});
  EXPECT_EQ(reader_.messages().size(), 0u);
}

TEST_F(DataFileReaderTest, DamagedMetricsBlockGivesTheBatchesBeforeTheDamage) {
  test::TestBlock block;
  block.records = {test::record({}), test::record({.kind = 'X'}), test::record({})};
  test::TestBlock nameless;
  nameless.records = {test::record({.samples = {{0, 1}, {4, 2}, {0, 3}}})};
  test::TestBlock cut;
  cut.trailer = "";
  test::FileHeader fields = test::usual_header(512);
  ASSERT_TRUE(open_bytes(file_header(fields) + padded(block.bytes(), 512) + padded(nameless.bytes(), 512) +
                         padded(cut.bytes(), 512) + padded(usual_counters(3), 512)));
  Texts metrics;
  for (const Record& record : reader_.records())
    metrics.emplace_back(record.metric());
  EXPECT_EQ(metrics, (Texts{"rx", "rx", "", "rx", ""}));
  EXPECT_FALSE(reader_.failed());
  EXPECT_EQ(words_of(reader_), (Texts{"metrics_damaged at 256: invalid metric type",
                                      "metrics_damaged at 1280: Invalid magic numbers in the binary data"}));
  ASSERT_EQ(reader_.messages().size(), 1u);
  EXPECT_EQ(reader_.messages()[0].text,
            "[qvx metrics parser] invalid metric id: 4, total metric names size: 4");
}

TEST_F(DataFileReaderTest, BatchWithoutSamplesIsPassedOverWithAWarning) {
  test::TestBlock block;
  block.records = {test::record({.samples = {}}), test::record({})};
  ASSERT_TRUE(open_bytes(file_header(usual_header()) + block.bytes()));
  const Record* const record = reader_.next();
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->metric(), "rx");
  EXPECT_EQ(reader_.next(), nullptr);
  EXPECT_EQ(words_of(reader_), Texts{});
  ASSERT_EQ(reader_.messages().size(), 1u);
  EXPECT_EQ(reader_.messages()[0].text, "[qvx metrics parser] no samples in the metrics batch");
}

// In the second block, whose first labels are kept to be compared with those behind.
TEST_F(DataFileReaderTest, LabelsBehindWhatARecordMayReachAreAFaultInEveryBlock) {
  test::TestBlock block;
  block.blocksize = 40;
  block.records = {test::record({}), test::record({.samples = {{0, 1}, {1, 2}, {2, 3}}})};
  ASSERT_TRUE(open_bytes(file_header(usual_header()) + padded(block.bytes(), 256) + block.bytes()));
  Texts metrics;
  for (const Record& record : reader_.records())
    metrics.emplace_back(record.metric());
  EXPECT_EQ(metrics, (Texts{"rx", "rx"}));
  EXPECT_EQ(
      words_of(reader_),
      (Texts{"metrics_damaged at 256: start_offset exceeds data size: [qvx labels block] parse_labels_block: "
             "start_offset (44) exceeds data size (40)",
             "metrics_damaged at 512: start_offset exceeds data size: [qvx labels block] parse_labels_block: "
             "start_offset (44) exceeds data size (40)"}));
}

TEST_F(DataFileReaderTest, ReadsPlainPagesAndGzipAlike) {
  test::FileHeader fields = test::usual_header(512);
  const std::string file =
      file_header(fields) + padded(usual_events({1, 2}), 512) +
      padded(usual_page('G', usual_events({3}) + usual_events({4})) + usual_page('S', usual_events({5})),
             512) +
      usual_events({6});
  const std::vector<std::uint16_t> expected{1, 2, 3, 4, 5, 6};
  ASSERT_TRUE(open_bytes(file));
  EXPECT_EQ(values_of<std::uint16_t>(reader_, "v"), expected);
  EXPECT_FALSE(reader_.failed());
  ASSERT_TRUE(reader_.open(files_.write("a.bin", gzip(file))));
  EXPECT_EQ(values_of<std::uint16_t>(reader_, "v"), expected);
  EXPECT_EQ(words_of(reader_), Texts{});
  EXPECT_EQ(reader_.header().block_size, 512u);
}

TEST_F(DataFileReaderTest, SaysWhyAFileCannotBeOpenedAndNothingElsewhere) {
  testing::internal::CaptureStderr();
  EXPECT_FALSE(reader_.open(files_.path("gone.bin")));
  EXPECT_TRUE(reader_.failed());
  EXPECT_EQ(reader_.error(),
            "Failed to open data file " + files_.path("gone.bin") + ": No such file or directory");
  EXPECT_FALSE(open_bytes(""));
  EXPECT_EQ(reader_.error(), "Failed reading data file header: Success");
  EXPECT_FALSE(open_bytes("BVXF" + file_header(usual_header()).substr(4)));
  EXPECT_TRUE(reader_.error().starts_with("Invalid data file header: ")) << reader_.error();
  test::FileHeader fields = test::usual_header(15);
  EXPECT_FALSE(open_bytes(file_header(fields)));
  EXPECT_EQ(reader_.error(), "Block size 15 must be in range between 16 and 125829120 bytes ");
  fields = {};
  fields.event_schema_ids = {test::id_of("00000000000000000000000000000001")};
  EXPECT_FALSE(open_bytes(file_header(fields)));
  const std::string schema = files_.path("schema/schema_00000000000000000000000000000001.json");
  EXPECT_EQ(words_of(reader_),
            Texts{"types_failed at 256: Failed to load type system: Failed reading schema JSON from file '" +
                  schema + "'; Failed to load schema from file: " + schema});
  EXPECT_EQ(reader_.next(), nullptr);
  EXPECT_TRUE(reader_.types().empty());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(DataFileReaderTest, GivesWhatStandsBeforeAFault) {
  testing::internal::CaptureStderr();
  test::FileHeader fields = test::usual_header(64);
  ASSERT_TRUE(open_bytes(file_header(fields) + padded(usual_events({1, 2}) + usual_events({3}, 4), 64) +
                         usual_events({5})));
  EXPECT_EQ(values_of<std::uint16_t>(reader_, "v"), (std::vector<std::uint16_t>{1, 2}));
  EXPECT_TRUE(reader_.failed());
  EXPECT_EQ(words_of(reader_),
            (Texts{"unknown_type at 276: Type definition 4:0 not found",
                   "block_failed at 276: Failed to process block of type 1 at offset 20"}));
  EXPECT_EQ(reader_.error(), "Type definition 4:0 not found");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(DataFileReaderTest, FieldBehindEverythingIsAbsentAndTold) {
  constexpr const char* kId = "d1d1d1d1d1d1d1d1d1d1d1d1d1d1d1d1";
  std::string schema(test::kUsualEvents);
  schema.replace(schema.find("\"offset\":0"), 10, "\"offset\":2");
  files_.write_schema(kId, schema);
  test::FileHeader fields = test::usual_header();
  fields.event_schema_ids = {test::id_of(kId)};
  ASSERT_TRUE(open_bytes(file_header(fields) + usual_events({1, 2})));
  EXPECT_EQ(values_of<std::uint16_t>(reader_, "v"), std::vector<std::uint16_t>{2});
  EXPECT_FALSE(reader_.failed());
  EXPECT_EQ(words_of(reader_), Texts{"record_cut at 256: Records of type sample need 4 bytes, 2 are there"});
}

TEST_F(DataFileReaderTest, FaultsBeyondTheLimitAreCountedOnly) {
  test::FileHeader fields = test::usual_header(16);
  std::string file = file_header(fields);
  for (int block = 0; block < 1002; ++block)
    file += usual_events({1}).substr(0, 16);  // states a record that is not there
  ASSERT_TRUE(open_bytes(file));
  EXPECT_EQ(reader_.next(), nullptr);
  EXPECT_FALSE(reader_.failed());
  EXPECT_EQ(reader_.number_of_faults(), 1002u);
  ASSERT_EQ(reader_.faults().size(), 1000u);
  EXPECT_EQ(words_of(reader_)[999], "events_cut at 16240: 0 of 1 records are there");
}

TEST_F(DataFileReaderTest, MessagesBeyondTheLimitAreLeftOut) {
  test::TestBlock block;
  block.records.assign(1001, test::record({.samples = {}}));
  ASSERT_TRUE(open_bytes(file_header(usual_header(32768)) + block.bytes()));
  EXPECT_EQ(reader_.next(), nullptr);
  EXPECT_EQ(reader_.messages().size(), 1000u);
  EXPECT_EQ(reader_.number_of_faults(), 0u);
}

TEST_F(DataFileReaderTest, ShortMemoryBeyondTheLimitOfFaultsIsCountedOnly) {
  std::string file = file_header(usual_header(32));
  for (int block = 0; block < 1001; ++block)
    file += usual_events({1, 2, 3, 4, 5, 6, 7, 8, 9}).substr(0, 32);  // states one more than is there
  ASSERT_TRUE(open_bytes(file));
  for (int block = 0; block < 1000; ++block)
    ASSERT_NE(reader_.next_run(), nullptr);
  EXPECT_FALSE(reader_.failed());
  {
    const test::FailingAllocations failing(0, test::FailingAllocations::Failing::once);
    EXPECT_EQ(reader_.next_run(), nullptr);
  }
  EXPECT_TRUE(reader_.failed());
  EXPECT_EQ(reader_.error(), "Cannot allocate memory");
  EXPECT_EQ(reader_.number_of_faults(), 1001u);
  EXPECT_EQ(reader_.faults().size(), 1000u);
}

TEST_F(DataFileReaderTest, WarningsAreKeptAsMessages) {
  std::string schema(test::kUsualCounters);
  schema.replace(schema.find("1.5.0"), 5, "2.0.0");
  files_.write_schema(test::kCountersId, schema);
  testing::internal::CaptureStderr();
  ASSERT_TRUE(open_bytes(file_header(usual_header()) + usual_counters(3)));
  EXPECT_EQ(values_of<std::uint64_t>(reader_, "g.c"), std::vector<std::uint64_t>{3});
  EXPECT_EQ(reader_.messages().size(), 1u);
  EXPECT_TRUE(reader_.faults().empty());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

// What JSON makes of numbers: doubles.
std::optional<double> as_double(const Record& record, const FieldPlace& field, std::size_t index) {
  FieldPlace one = field;
  one.offset += index * field.stride;
  one.count = 1;
  if (const auto value = record.get<std::uint64_t>(one)) return static_cast<double>(*value);
  if (const auto value = record.get<std::int64_t>(one)) return static_cast<double>(*value);
  return record.get<double>(one);
}

void expect_same(const Record& record, const json::Object& object);

void expect_same(const Record& record, const Field& field, std::size_t index, const json::Value& value) {
  if (field.kind == FieldKind::record) {
    const std::optional<Record> nested = record.record(field, index);
    ASSERT_TRUE(nested && value.as_object() != nullptr) << field.name;
    expect_same(*nested, *value.as_object());
  } else if (value.as_string() != nullptr) {
    EXPECT_EQ(record.get<std::string_view>(field), *value.as_string()) << field.name;
  } else {
    EXPECT_EQ(as_double(record, field, index), value.as_number()) << field.name;
  }
}

void expect_same(const Record& record, const json::Object& object) {
  ASSERT_EQ(object.size(), record.type().fields().size());
  for (std::size_t at = 0; at < object.size(); ++at) {
    const Field& field = record.type().fields()[at];
    const json::Member& member = object.members()[at];
    EXPECT_EQ(member.name, field.name);
    if (const json::Array* const elements = member.value.as_array()) {
      ASSERT_EQ(elements->size(), field.count) << field.name;
      for (std::size_t index = 0; index < elements->size(); ++index)
        expect_same(record, field, index, (*elements)[index]);
    } else {
      expect_same(record, field, 0, member.value);
    }
  }
}

std::size_t expect_same_counters(const Record& record, const json::Object& object) {
  EXPECT_EQ(object.number_at("timestamp"), static_cast<double>(record.time()));
  std::size_t values = 0;
  for (const json::Value& group : *object.array_at("groups")) {
    const json::Array& sets = *group.as_object()->array_at("counter_sets");
    for (std::size_t set = 0; set < sets.size(); ++set) {
      for (const json::Member& counter : sets[set].as_object()->members()) {
        const FieldPlace place = record.type().find(*group.as_object()->string_at("name") + '[' +
                                                    std::to_string(set) + "]." + counter.name);
        EXPECT_TRUE(place) << counter.name;
        if (const std::string* const text = counter.value.as_string()) {
          EXPECT_EQ(record.get<std::string_view>(place), *text) << counter.name;
        } else {
          EXPECT_EQ(as_double(record, place, 0), counter.value.as_number()) << counter.name;
        }
        ++values;
      }
    }
  }
  return values;
}

// A sample as a line of text: JSON has the bits of every value as an integer.
std::string sample_text(std::uint64_t time, const std::vector<std::pair<std::string, std::string>>& labels,
                        std::string_view metric, double bits) {
  std::string text = std::to_string(time);
  for (const auto& [name, value] : labels)
    text += ' ' + name + '=' + value;
  return text + ' ' + std::string(metric) + ' ' + std::to_string(bits);
}

std::string text_of_sample(const Record& record) {
  std::vector<std::pair<std::string, std::string>> labels;
  for (const MetricLabel& label : record.labels()) {
    labels.emplace_back(label.name, label.value);
    EXPECT_EQ(record.label(label.name), label.value);
  }
  FieldHandle value("value");
  double bits = -1;
  if (const auto number = record.get<double>(value)) {
    bits = static_cast<double>(std::bit_cast<std::uint64_t>(*number));
  } else if (const auto integer = record.get<std::int64_t>(value)) {
    bits = static_cast<double>(static_cast<std::uint64_t>(*integer));
  } else if (const auto natural = record.get<std::uint64_t>(value)) {
    bits = static_cast<double>(*natural);
  }
  return sample_text(record.time(), labels, record.metric(), bits);
}

Texts texts_of_block(const json::Object& object) {
  std::vector<std::pair<std::string, std::string>> labels;
  for (const json::Value& label : *object.array_at("labels"))
    labels.emplace_back(label.as_object()->members()[0].name,
                        *label.as_object()->members()[0].value.as_string());
  Texts texts;
  for (const json::Value& sample : *object.array_at("metrics")) {
    const json::Member& member = sample.as_object()->members()[0];
    texts.push_back(sample_text(static_cast<std::uint64_t>(*object.number_at("timestamp")), labels,
                                member.name, *member.value.as_number()));
  }
  return texts;
}

// JSON has the samples of the last batch of each block.
void expect_batches(const Texts& samples, const std::vector<Texts>& blocks) {
  auto at = samples.begin();
  for (const Texts& block : blocks) {
    at = std::search(at, samples.end(), block.begin(), block.end());
    ASSERT_NE(at, samples.end()) << block.front();
    at += static_cast<std::ptrdiff_t>(block.size());
  }
  EXPECT_EQ(at, samples.end());
}

TEST(DataFileReaderSamples, EveryFieldIsThatOfTheJson) {
  const std::filesystem::path folder =
      std::filesystem::path(QVX_TEST_DATA_DIR).parent_path() / "examples/data";
  const ReaderFiles files;
  ReaderOptions options = files.options();
  options.schema_path = folder / "schema";
  DataFileReader reader(options.schema_path);
  std::size_t events = 0, counters = 0, samples = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (!entry.is_regular_file()) continue;
    SCOPED_TRACE(entry.path());
    const std::string out = test::run(options, {entry.path()}).out;
    std::size_t line = 0;
    const auto next_object = [&] {
      const std::size_t end = out.find('\n', line);
      const std::optional<json::Value> value = json::parse(out.substr(line, end - line));
      line = end + 1;
      EXPECT_TRUE(value && value->as_object() != nullptr);
      return *value->as_object();
    };
    ASSERT_TRUE(reader.open(entry.path())) << reader.error();
    Texts samples_here;
    for (const Record& record : reader.records()) {
      switch (record.kind()) {
        case RecordKind::event:
          expect_same(record, next_object());
          ++events;
          break;
        case RecordKind::counters:
          counters += expect_same_counters(record, next_object());
          break;
        case RecordKind::sample:
          samples_here.push_back(text_of_sample(record));
          ++samples;
          break;
      }
    }
    std::vector<Texts> blocks;
    while (!samples_here.empty() && line < out.size())
      blocks.push_back(texts_of_block(next_object()));
    expect_batches(samples_here, blocks);
    EXPECT_EQ(line, out.size());
    EXPECT_EQ(words_of(reader), Texts{});
  }
  EXPECT_GT(events, 100u);
  EXPECT_GT(counters, 50u);
  EXPECT_EQ(samples, 84u);
}

// Reads every field of every record; gives their number.
std::size_t read_all(DataFileReader& reader) {
  std::size_t records = 0;
  for (const Record& record : reader.records()) {
    ++records;
    for (const Field& field : record.type().fields()) {
      if (const auto text = record.get<std::string_view>(field)) {
        EXPECT_LE(text->size(), field.size);
      }
      for (std::size_t at = 0; at < field.count; ++at)
        static_cast<void>(field.kind == FieldKind::record ? record.record(field, at).has_value()
                                                          : as_double(record, field, at).has_value());
    }
    EXPECT_LE(record.metric().size(), 255u);
  }
  return records;
}

// Opens every beginning of a file that is `step` bytes longer than the one before.
void expect_beginnings(DataFileReader& reader, std::string_view whole, std::size_t step) {
  ASSERT_TRUE(reader.open(as_bytes(whole)));
  const std::size_t all = read_all(reader);
  EXPECT_GT(all, 0u);
  std::size_t before = 0;
  for (std::size_t size = 0; size <= whole.size(); size += step) {
    const test::GuardedBuffer cut(whole.substr(0, size));
    const bool opened = reader.open(Bytes(cut.bytes()));
    ASSERT_EQ(opened, size >= 256) << size;
    const std::size_t records = opened ? read_all(reader) : 0;
    ASSERT_GE(records, before) << size;
    before = records;
  }
  EXPECT_GT(before, all / 2);
}

TEST_F(DataFileReaderTest, EveryTruncationGivesABeginningOfTheRecords) {
  test::FileHeader fields = test::usual_header();
  fields.event_schema_ids = {test::id_of(kWideId)};
  fields.block_size = 400;
  const std::string event = "QVXE" + le(kStart) + '\0' + le<std::uint16_t>(1) + '\x01' + wide_record();
  test::TestBlock metrics;
  metrics.constant_labels = test::constant_labels({"site", "north"});
  metrics.records = {test::record({}), test::record({.samples = {{1, 2}, {2, 3}}})};
  const std::string file = file_header(fields) + padded(event + event, 400) + padded(usual_counters(3), 400) +
                           padded(metrics.bytes(), 400) +
                           padded(usual_page('G', event) + usual_page('S', event), 400) + event;
  ASSERT_TRUE(open_bytes(file));
  EXPECT_EQ(read_all(reader_), 9u);
  expect_beginnings(reader_, file, 1);
}

TEST(DataFileReaderSamples, TruncationsGiveABeginningOfTheRecords) {
  const std::filesystem::path folder =
      std::filesystem::path(QVX_TEST_DATA_DIR).parent_path() / "examples/data";
  DataFileReader reader(folder / "schema");
  for (const char* const name :
       {"events.bin", "counters.bin", "metrics.bin", "schemas.bin", "gzip_pages.bin"}) {
    SCOPED_TRACE(name);
    const std::string whole = test::read_file(folder / name);
    expect_beginnings(reader, whole, whole.size() / 150 | 1);
  }
}

}  // namespace
}  // namespace qvx
