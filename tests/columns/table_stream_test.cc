#include "qvx/columns/table_stream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/columns/column_files.h"
#include "tests/metrics/cntx_builder.h"

namespace qvx {
namespace {

using columns::Query;
using columns::resolve;
using columns::TableStream;
using test::counter_group;
using test::counter_of;
using test::counters_schema;
using test::job_row;
using test::jobs_block;
using test::kNoon;
using test::loads_block;
using test::open;
using test::read;
using test::ReadTable;
using test::rows;

class TableStreamTest : public testing::Test {
 protected:
  test::ColumnFiles files_;
};

std::vector<std::string> job_rows(std::uint64_t first, std::uint64_t count) {
  std::vector<std::string> rows;
  for (std::uint64_t number = first; number < first + count; ++number)
    rows.push_back(job_row(number));
  return rows;
}

TEST_F(TableStreamTest, EventRecordsAreRowsWithEveryKindOfField) {
  const std::string path = files_.write("a.bin", {jobs_block(1, 3)});
  EXPECT_EQ(
      rows({path}, {.table = "job"}),
      (std::vector<std::string>{
          R"({"time":1714996800000001,"id":1,"ok":true,"user":"ann","nodes":[1,-1],"at":[{"x":1,"y":-2},{"x":1,"y":-3}]})",
          R"({"time":1714996800000002,"id":2,"ok":false,"user":"ann","nodes":[2,-1],"at":[{"x":2,"y":-2},{"x":2,"y":-3}]})",
          R"({"time":1714996800000003,"id":3,"ok":true,"user":"ann","nodes":[3,-1],"at":[{"x":3,"y":-2},{"x":3,"y":-3}]})"}));
}

TEST_F(TableStreamTest, SchemaTellsTypesNamesAndMetadata) {
  const auto data = open({files_.write("a.bin", {jobs_block(1, 1)})});
  const ReadTable table = read(data, {.table = "job"});
  const ArrowSchema& schema = *table.schema;
  EXPECT_STREQ(schema.format, "+s");
  ASSERT_EQ(schema.n_children, 6);
  const char* const formats[] = {"tsu:UTC", "L", "b", "u", "+w:2", "+w:2"};
  for (int i = 0; i < 6; ++i)
    EXPECT_STREQ(schema.children[i]->format, formats[i]);
  EXPECT_STREQ(schema.children[4]->children[0]->format, "s");
  EXPECT_STREQ(schema.children[5]->children[0]->format, "+s");
  EXPECT_STREQ(schema.children[5]->children[0]->children[1]->name, "y");
  EXPECT_EQ(
      test::metadata(*schema.children[0]),
      (std::map<std::string, std::string>{{"description", "when"},
                                          {"type", "timestamp"},
                                          {"counting_mode", "ABSOLUTE"},
                                          {"schema", schema_id_text(test::md5_id(test::kJobs)).value()}}));
  EXPECT_EQ(test::metadata(schema)["table"], "job");
}

TEST_F(TableStreamTest, IntegersAreExactBeyondDoubles) {
  const std::string record =
      test::le(kNoon) + test::le(std::uint64_t{0xFFFFFFFFFFFFFFFF}) + std::string(21, '\0');
  const std::string path = files_.write("a.bin", {test::events_block({.type_index = 1}, {record})});
  EXPECT_EQ(rows({path}, {.table = "job", .columns = {"id"}}),
            std::vector<std::string>{R"({"id":18446744073709551615})"});
}

TEST_F(TableStreamTest, TextEndsWhereItEndsInJsonAndTimesBeyondTheTypeAreNull) {
  const std::string first = test::le(std::uint64_t{1} << 63) + std::string(9, '\0') +
                            "ab\x01"
                            "cdefg" +
                            std::string(12, '\0');
  const std::string second = test::le(kNoon) + std::string(9, '\0') + "q\"\\12345" + std::string(12, '\0');
  const std::string path = files_.write("a.bin", {test::events_block({.type_index = 1}, {first, second})});
  EXPECT_EQ(rows({path}, {.table = "job", .columns = {"user", "time"}}),
            (std::vector<std::string>{R"({"user":"ab","time":null})",
                                      R"({"user":"q\"\\12345","time":1714996800000000})"}));
}

TEST_F(TableStreamTest, CountersHaveARowForEachSetAndNullsWhereAGroupHasFewer) {
  const std::string path =
      files_.write("a.bin", {loads_block(7, "n1", 0.5), loads_block(8, "\xFFn2", 1.5, kNoon + 5)});
  EXPECT_EQ(
      rows({path}, {.table = "counters"}),
      (std::vector<std::string>{
          R"({"timestamp":1714996800000000,"set":0,"node.used":7,"node.name":"n1","cpu.load":0.5})",
          R"({"timestamp":1714996800000000,"set":1,"node.used":null,"node.name":null,"cpu.load":0.5})",
          R"({"timestamp":1714996800000000,"set":2,"node.used":null,"node.name":null,"cpu.load":0.5})",
          R"({"timestamp":1714996800000005,"set":0,"node.used":8,"node.name":null,"cpu.load":1.5})",
          R"({"timestamp":1714996800000005,"set":1,"node.used":null,"node.name":null,"cpu.load":1.5})",
          R"({"timestamp":1714996800000005,"set":2,"node.used":null,"node.name":null,"cpu.load":1.5})"}));
}

TEST_F(TableStreamTest, CountersOfOneSetAreRowsInEveryBatchSize) {
  const std::string both = counters_schema(
      counter_group("node", 1, counter_of("used", "UINT64") + "," + counter_of("heat", "INT64")));
  const std::string one = counters_schema(counter_group("node", 1, counter_of("used", "UINT64")));
  files_.add_schema(both);
  files_.add_schema(one);
  test::FileHeader header = test::ColumnFiles::header(64);
  std::vector<std::string> units;
  std::vector<std::string> expected;
  for (std::uint64_t number = 0; number < 300; ++number) {
    const std::string n = std::to_string(number);
    units.push_back(test::counters_block(kNoon + number,
                                         test::le(number) + test::le(-static_cast<std::int64_t>(number))));
    expected.push_back(R"({"timestamp":)" + std::to_string(kNoon + number) + R"(,"set":0,"node.used":)" + n +
                       R"(,"node.heat":)" + (number == 0 ? "" : "-") + n + R"(,"_block":)" + n + "}");
  }
  header.counters_schema_id = test::md5_id(both);
  const std::string first = files_.write("a.bin", units, header);
  header.counters_schema_id = test::md5_id(one);
  const std::string second =
      files_.write("b.bin", {test::counters_block(kNoon + 1, test::le(std::uint64_t{5}))}, header);
  expected.push_back(R"({"timestamp":1714996800000001,"set":0,"node.used":5,"node.heat":null,"_block":0})");
  for (const std::size_t batch_rows : {1U, 7U, 256U, 65536U}) {
    EXPECT_EQ(
        rows({first, second}, {.table = "counters", .columns = {"*", "_block"}, .batch_rows = batch_rows}),
        expected)
        << batch_rows;
  }
  EXPECT_EQ(
      rows({first}, {.table = "counters", .columns = {"node.used"}, .since = kNoon + 3, .until = kNoon + 4}),
      (std::vector<std::string>{R"({"node.used":3})", R"({"node.used":4})"}));
}

TEST_F(TableStreamTest, CounterMetadataHasUnitsAndGranularity) {
  const auto data = open({files_.write("a.bin", {loads_block(7, "n1", 0.5)})});
  const ReadTable table = read(data, {.table = "counters", .columns = {"node.used"}});
  auto metadata = test::metadata(*table.schema->children[0]);
  EXPECT_EQ(metadata["units"], "bytes");
  EXPECT_EQ(metadata["description"], "memory");
  EXPECT_EQ(metadata["granularity"], "NODE");
}

TEST_F(TableStreamTest, MetricsHaveARowForEachSample) {
  test::TestBlock block;
  block.records = {test::record({}),
                   test::record({.kind = 'G', .value_type = 4, .samples = {{1, ~std::uint64_t{0}}}}),
                   test::record({.value_type = 2, .samples = {{2, 0x3FF8000000000000}}})};
  test::FileHeader header = files_.header(1024);
  const std::string path = files_.write("a.bin", {block.bytes()}, header);
  const std::string time = std::to_string(test::kBatchTime);
  EXPECT_EQ(
      rows({path}, {.table = "metrics"}),
      (std::vector<std::string>{
          R"({"timestamp":)" + time +
              R"(,"metric":"rx","kind":"counter","labels":[{"host":"node7"}],"value":5,"value_u64":5,"value_i64":null})",
          R"({"timestamp":)" + time +
              R"(,"metric":"tx","kind":"gauge","labels":[{"host":"node7"}],"value":-1,"value_u64":null,"value_i64":-1})",
          R"({"timestamp":)" + time +
              R"(,"metric":"err","kind":"counter","labels":[{"host":"node7"}],"value":1.5,"value_u64":null,"value_i64":null})"}));
  EXPECT_EQ(rows({path}, {.table = "metrics", .columns = {"value"}, .where = {{"metric", {"T?", "e*"}}}}),
            (std::vector<std::string>{R"({"value":-1})", R"({"value":1.5})"}));
}

// Blocks that repeat the tables of the one before and others, labels that are the batch's, all's, nobody's
// and no UTF-8; samples that a condition selects here and there.
TEST_F(TableStreamTest, MetricsAreTheSameRowsInBatchesOfEverySize) {
  const std::vector<std::pair<std::uint16_t, std::uint64_t>> samples{{0, 1}, {1, 2}, {2, 3}, {0, 4}, {3, 5}};
  test::TestBlock first;
  first.constant_labels = test::constant_labels({"site", "north"});
  first.records = {test::record({.samples = samples, .labels = test::labels_l(0, {1})}),
                   test::record({.kind = 'G', .samples = {{3, 6}}, .labels = test::labels_l(7, {1})}),
                   test::record({.samples = samples, .labels = test::labels_i(0, {"\xFF"})})};
  test::TestBlock second = first;
  second.metric_names = test::metric_names({"tx", "rx", "q\xC3\xA4", "drop"});
  const std::string path = files_.write(
      "a.bin", {first.bytes(), first.bytes(), second.bytes(), first.bytes()}, files_.header(1024));
  const std::vector<std::string> expected = rows({path}, {.table = "metrics"});
  ASSERT_EQ(expected.size(), 44u);
  const std::string time = R"({"timestamp":)" + std::to_string(test::kBatchTime);
  EXPECT_EQ(
      expected[1],
      time +
          R"(,"metric":"tx","kind":"counter","labels":[{"site":"north"},{"host":"node8"}],"value":2,"value_u64":2,"value_i64":null})");
  EXPECT_EQ(
      expected[5],
      time + R"(,"metric":"drop","kind":"gauge","labels":null,"value":6,"value_u64":6,"value_i64":null})");
  EXPECT_EQ(
      expected[10],
      time +
          R"(,"metric":"drop","kind":"counter","labels":[{"site":"north"},{"host":null}],"value":5,"value_u64":5,"value_i64":null})");
  EXPECT_EQ(expected[11], expected[0]);
  EXPECT_EQ(
      expected[24],
      time +
          R"(,"metric":"q)"
          "\xC3\xA4"
          R"(","kind":"counter","labels":[{"site":"north"},{"host":"node8"}],"value":3,"value_u64":3,"value_i64":null})");
  std::vector<std::string> selected;
  for (const std::string& row : expected)
    if (row.find(R"("metric":"rx")") != row.npos) selected.push_back(row);
  EXPECT_EQ(selected.size(), 14u);
  for (const std::size_t batch : {1, 2, 3, 7, 100}) {
    EXPECT_EQ(rows({path}, {.table = "metrics", .batch_rows = batch}), expected) << batch;
    EXPECT_EQ(rows({path}, {.table = "metrics", .where = {{"metric", {"rx"}}}, .batch_rows = batch}),
              selected)
        << batch;
  }
  const auto data = open({path});
  read(data, {.table = "metrics"});
  ASSERT_EQ(data->faults().list().size(), 4u);
  EXPECT_EQ(data->faults().list()[0].words, "Metrics block: a label value is not UTF-8");
}

TEST_F(TableStreamTest, MetricsHaveTheirTimeSourceAndNamesThatAreUtf8) {
  test::TestBlock block;
  block.metric_names = test::metric_names({"rx\xFF", "tx"});
  block.records = {test::record({.samples = {{0, 1}, {1, 2}}})};
  const std::string page = test::page_block({.source_id = "host-2", .source_tag = "gpu"}, block.bytes());
  const std::string path = files_.write("a.bin", {block.bytes(), page}, files_.header(1024));
  const std::string time = std::to_string(test::kBatchTime);
  EXPECT_EQ(rows({path}, {.table = "metrics",
                          .columns = {"metric", "value", "_time"},
                          .where = {{"_source_id", {"host-1"}}}}),
            (std::vector<std::string>{R"({"metric":"rx)"
                                      "\xEF\xBF\xBD"
                                      R"(","value":1,"_time":)" +
                                          time + "}",
                                      R"({"metric":"tx","value":2,"_time":)" + time + "}"}));
  EXPECT_EQ(
      rows({path},
           {.table = "metrics", .columns = {"value", "_source_tag"}, .where = {{"_source_tag", {"gpu"}}}}),
      (std::vector<std::string>{R"({"value":1,"_source_tag":"gpu"})", R"({"value":2,"_source_tag":"gpu"})"}));
  EXPECT_EQ(rows({path}, {.table = "metrics", .since = test::kBatchTime + 1}), std::vector<std::string>());
}

// Of 51,600 bytes a row 64 MiB are more than 1,300, whichever row of its block the last one is.
TEST_F(TableStreamTest, BatchEndsWhereItsLabelsBecomeTooLong) {
  const std::string one = files_.write("a.bin", {test::long_labels_block(2000)}, files_.header(131072));
  const std::string two = files_.write("b.bin", {test::long_labels_block(1300), test::long_labels_block(700)},
                                       files_.header(131072));
  for (const std::string& path : {one, two}) {
    const auto data = open({path});
    TableStream stream(data, resolve(*data, {.table = "metrics", .columns = {"labels", "value"}}));
    std::vector<std::int64_t> sizes;
    ArrowArray batch{};
    while (stream.next(&batch)) {
      sizes.push_back(batch.length);
      EXPECT_EQ(batch.children[1]->length, batch.length);
      const auto* const values = static_cast<const double*>(batch.children[1]->buffers[1]);
      EXPECT_EQ(values[batch.length - 1], 7.0);
      batch.release(&batch);
    }
    EXPECT_EQ(sizes, (std::vector<std::int64_t>{1301, 699})) << path;
  }
}

TEST_F(TableStreamTest, GoodBatchesBeforeAFaultyOneAreRowsAndTheFaultIsTold) {
  test::TestBlock block;
  block.records = {test::record({}), test::record({.samples = {{9, 1}}})};
  const auto data = open({files_.write("a.bin", {block.bytes()}, files_.header(1024))});
  EXPECT_EQ(read(data, {.table = "metrics", .columns = {"metric"}}).rows,
            std::vector<std::string>{R"({"metric":"rx"})"});
  const auto faults = data->faults().list();
  ASSERT_EQ(faults.size(), 1u);
  EXPECT_EQ(faults[0].kind, "metrics_failed");
  EXPECT_EQ(faults[0].offset, 256u);
  EXPECT_EQ(faults[0].words, "Metrics block: invalid metric id");
}

TEST_F(TableStreamTest, BatchesHaveTheRowsThatWereAskedForAcrossBlocks) {
  const std::string path = files_.write("a.bin", {jobs_block(0, 10), jobs_block(10, 10), jobs_block(20, 3)});
  const ReadTable table = read(open({path}), {.table = "job", .batch_rows = 7});
  EXPECT_EQ(table.batch_rows, (std::vector<std::int64_t>{7, 7, 7, 2}));
  EXPECT_EQ(table.rows, job_rows(0, 23));
}

TEST_F(TableStreamTest, LimitEndsTheStreamAcrossFiles) {
  const std::vector<std::string> paths{files_.write("a.bin", {jobs_block(0, 5)}),
                                       files_.write("b.bin", {jobs_block(5, 5)})};
  for (const unsigned threads : {1u, 2u}) {
    EXPECT_EQ(rows(paths, {.table = "job", .limit = 7, .threads = threads}), job_rows(0, 7));
    EXPECT_EQ(rows(paths, {.table = "job", .limit = 0, .threads = threads}), job_rows(0, 0));
  }
}

TEST_F(TableStreamTest, ColumnsComeInTheOrderAskedForByNameOrPattern) {
  const std::string path = files_.write("a.bin", {loads_block(7, "n1", 0.5)});
  EXPECT_EQ(rows({path}, {.table = "counters", .columns = {"cpu.*", "node.u?ed"}, .limit = 1}),
            std::vector<std::string>{R"({"cpu.load":0.5,"node.used":7})"});
}

TEST_F(TableStreamTest, ColumnThatIsNamedTwiceComesOnceAtItsFirstPlace) {
  const std::string path = files_.write("a.bin", {jobs_block(1, 1)});
  EXPECT_EQ(rows({path}, {.table = "job", .columns = {"ok", "_block", "id", "ok", "_block", "i*"}}),
            std::vector<std::string>{R"({"ok":true,"_block":0,"id":1})"});
}

TEST_F(TableStreamTest, ExtraColumnsTellWhereARowIsFrom) {
  const std::string page = test::page_block({.source_id = "host-2", .source_tag = "gpu"}, jobs_block(2, 1));
  const std::string path = files_.write("a.bin", {jobs_block(1, 1), page});
  const Query query{.table = "job", .columns = {"id", "_source_id", "_source_tag", "_block", "_time"}};
  EXPECT_EQ(
      rows({path}, query),
      (std::vector<std::string>{
          R"({"id":1,"_source_id":"host-1","_source_tag":"tag","_block":0,"_time":1714996800000001})",
          R"({"id":2,"_source_id":"host-2","_source_tag":"gpu","_block":1,"_time":1714996800000002})"}));
  EXPECT_EQ(rows({path}, {.table = "job", .columns = {"id"}, .where = {{"_source_id", {"HOST-2"}}}}),
            std::vector<std::string>{R"({"id":2})"});
  EXPECT_EQ(rows({path}, {.table = "job", .columns = {"_file"}, .limit = 1}),
            std::vector<std::string>{R"({"_file":")" + path + R"("})"});
}

TEST_F(TableStreamTest, TimeRangeIsOfTheRowsOwnTimesWithBothEnds) {
  const std::string path = files_.write("a.bin", {jobs_block(0, 10), jobs_block(10, 10)});
  for (const std::size_t batch : {1u, 3u, 100u}) {
    const Query query{.table = "job", .since = kNoon + 8, .until = kNoon + 12, .batch_rows = batch};
    EXPECT_EQ(rows({path}, query), job_rows(8, 5));
  }
  EXPECT_EQ(rows({path}, {.table = "job", .until = kNoon}), job_rows(0, 1));
  EXPECT_TRUE(rows({path}, {.table = "job", .since = kNoon + 20}).empty());
}

TEST_F(TableStreamTest, PageOutsideTheTimeRangeIsNotUnpacked) {
  // The second page cannot be unpacked, so whoever tries hears of it.
  const std::string good =
      test::page_block({.first_timestamp = kNoon, .last_timestamp = kNoon + 9}, jobs_block(0, 10));
  const std::string bad =
      test::page_block_of_payload({.first_timestamp = kNoon + 10, .last_timestamp = kNoon + 19}, "no gzip");
  const auto data = open({files_.write("a.bin", {good, bad})});
  TableStream stream(data, resolve(*data, {.table = "job", .until = kNoon + 5}));
  EXPECT_EQ(test::read_all(stream).rows, job_rows(0, 6));
  EXPECT_EQ(stream.progress()->pages_passed_over, 1u);
  EXPECT_TRUE(data->faults().list().empty());
  EXPECT_EQ(read(data, {.table = "job", .until = kNoon + 5, .trust_page_times = false}).rows, job_rows(0, 6));
  EXPECT_FALSE(data->faults().list().empty());
}

TEST_F(TableStreamTest, PageBeforeTheTimeRangeIsNotUnpackedButOneWithoutTimesIs) {
  const std::string bad =
      test::page_block_of_payload({.first_timestamp = kNoon - 19, .last_timestamp = kNoon - 10}, "no gzip");
  const std::string timeless =
      test::page_block({.first_timestamp = 0, .last_timestamp = kNoon - 10}, jobs_block(0, 10));
  const auto data = open({files_.write("a.bin", {bad, timeless})});
  TableStream stream(data, resolve(*data, {.table = "job", .since = kNoon}));
  EXPECT_EQ(test::read_all(stream).rows, job_rows(0, 10));
  EXPECT_EQ(stream.progress()->pages_passed_over, 1u);
  EXPECT_TRUE(data->faults().list().empty());
}

TEST_F(TableStreamTest, FileOfItsOwnIsReadOnOneThreadHoweverManyAreAskedFor) {
  EXPECT_EQ(rows({files_.write("a.bin", {jobs_block(0, 5)})}, {.table = "job", .threads = 4}),
            job_rows(0, 5));
}

TEST_F(TableStreamTest, WrongNamesListWhatThereIs) {
  const auto data = open({files_.write("a.bin", {jobs_block(0, 1)})});
  const auto words = [&](const Query& query) -> std::string {
    try {
      resolve(*data, query);
    } catch (const std::invalid_argument& error) {
      return error.what();
    }
    return "";
  };
  EXPECT_EQ(words({.table = "jobs"}), "no table \"jobs\"; there are: counters, job, metrics, position");
  EXPECT_EQ(words({.table = "position", .columns = {"z"}}),
            "no column \"z\" in table \"position\", which has: x, y, _file, _source_id, _source_tag, _block, "
            "_time");
  EXPECT_EQ(
      words({.table = "position", .where = {{"x", {"1"}}}}),
      "no condition on \"x\" in table \"position\", which has conditions on: _file, _source_id, _source_tag");
}

TEST_F(TableStreamTest, ThreadsGiveTheSameRowsInFileOrderOrInAny) {
  std::vector<std::string> paths;
  for (std::uint64_t file = 0; file < 20; ++file) {
    std::vector<std::string> units;
    for (std::uint64_t unit = 0; unit < 1 + file % 4; ++unit)
      units.push_back(jobs_block(file * 100 + unit * 10, 10));
    paths.push_back(files_.write("f" + std::to_string(file) + ".bin", units));
  }
  const std::vector<std::string> expected = rows(paths, {.table = "job"});
  EXPECT_EQ(expected.size(), 500u);
  for (const unsigned threads : {2u, 3u, 64u}) {
    EXPECT_EQ(rows(paths, {.table = "job", .batch_rows = 3, .threads = threads}), expected);
    std::vector<std::string> any = rows(paths, {.table = "job", .threads = threads, .in_order = false});
    std::sort(any.begin(), any.end());
    std::vector<std::string> sorted = expected;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(any, sorted);
  }
  // A stream that is dropped half-way ends its threads.
  const auto data = open(paths);
  TableStream stream(data, resolve(*data, {.table = "job", .batch_rows = 1, .threads = 2}));
  const test::OwnedArray batch(new ArrowArray{});
  EXPECT_TRUE(stream.next(batch.get()));
}

TEST_F(TableStreamTest, VersionsOfATypeMakeOneTableWithTheColumnsOfAll) {
  std::string other(test::kJobs);
  const auto replace = [&](std::string_view from, std::string_view to) {
    other.replace(other.find(from), from.size(), to);
  };
  replace(R"("field_name":"ok")", R"("field_name":"good")");
  replace(R"("type_name":"uint64_t")", R"("type_name":"int64_t")");
  files_.add_schema(other);
  test::FileHeader header = files_.header();
  header.event_schema_ids = {test::md5_id(other)};
  const std::string id8 = schema_id_text(test::md5_id(other)).value().substr(0, 8);
  const std::vector<std::string> paths{files_.write("a.bin", {jobs_block(1, 1)}),
                                       files_.write("b.bin", {jobs_block(3, 1)}, header)};
  EXPECT_EQ(rows(paths, {.table = "job", .columns = {"id", "ok", "id@" + id8, "good"}}),
            (std::vector<std::string>{R"({"id":1,"ok":true,"id@)" + id8 + R"(":null,"good":null})",
                                      R"({"id":null,"ok":null,"id@)" + id8 + R"(":3,"good":true})"}));
}

TEST_F(TableStreamTest, OfTwoFieldsThatAreOneColumnTheFirstIsShown) {
  const std::string old =
      test::event_schema("batch", test::event_type("tick", 1, test::event_field("n", "uint8_t", 0, 1)));
  const std::string fresh =
      test::event_schema("batch", test::event_type("tick", 4,
                                                   test::event_field("n", "uint16_t", 0, 2) + "," +
                                                       test::event_field("n@bbbbbbbb", "uint16_t", 2, 2)));
  const std::string id(32, 'b');
  files_.write_bytes("schema/schema_" + id + ".json", fresh);
  test::FileHeader header = files_.header();
  header.event_schema_ids = {test::id_of(id.c_str())};
  const auto block = [](std::uint16_t n, std::uint16_t other) {
    return test::events_block({}, {test::le(n) + test::le(other)});
  };
  const std::vector<std::string> paths{
      files_.write("a.bin", {test::events_block({}, {test::le(std::uint8_t{1})})}, old),
      files_.write("b.bin", {block(2, 3), block(4, 5)}, header)};
  EXPECT_EQ(rows(paths, {.table = "tick"}),
            (std::vector<std::string>{R"({"n":1,"n@bbbbbbbb":null})", R"({"n":null,"n@bbbbbbbb":2})",
                                      R"({"n":null,"n@bbbbbbbb":4})"}));
}

TEST_F(TableStreamTest, TypesOfOneNameOfTwoProvidersAreTwoTables) {
  std::string other(test::kJobs);
  other.replace(other.find("\"batch\""), 7, "\"slurp\"");
  files_.add_schema(other);
  test::FileHeader header = files_.header();
  header.event_schema_ids = {test::md5_id(test::kJobs), test::md5_id(other)};
  const std::string both =
      jobs_block(1, 1) + test::events_block({.schema_index = 1, .type_index = 1}, {test::job(2)});
  const std::string path = files_.write("a.bin", {both}, header);
  EXPECT_EQ(rows({path}, {.table = "batch.job", .columns = {"id"}}), std::vector<std::string>{R"({"id":1})"});
  EXPECT_EQ(rows({path}, {.table = "slurp.job", .columns = {"id"}}), std::vector<std::string>{R"({"id":2})"});
}

TEST_F(TableStreamTest, StreamInterfaceGivesSchemaBatchesAndAnEnd) {
  const auto data = open({files_.write("a.bin", {jobs_block(0, 3)})});
  ArrowArrayStream stream;
  export_stream(std::make_unique<TableStream>(data, resolve(*data, {.table = "job", .batch_rows = 2})),
                &stream);
  const test::OwnedSchema schema(new ArrowSchema{});
  ASSERT_EQ(stream.get_schema(&stream, schema.get()), 0);
  EXPECT_EQ(schema->n_children, 6);
  for (const std::int64_t expected : {2, 1}) {
    const test::OwnedArray batch(new ArrowArray{});
    ASSERT_EQ(stream.get_next(&stream, batch.get()), 0);
    EXPECT_EQ(batch->length, expected);
  }
  ArrowArray end{};
  ASSERT_EQ(stream.get_next(&stream, &end), 0);
  EXPECT_EQ(end.release, nullptr);
  EXPECT_EQ(stream.get_last_error(&stream), nullptr);
  stream.release(&stream);
  EXPECT_EQ(stream.release, nullptr);
}

}  // namespace
}  // namespace qvx
