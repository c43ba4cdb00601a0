#include "qvx/counters/counters_tables.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/captured_stream.h"
#include "tests/support/counters_builder.h"
#include "tests/support/env_guard.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/log_capture.h"
#include "tests/support/record_bytes.h"

namespace qvx {
namespace {

using test::CounterSpec;
using test::make_group;
using test::make_schema;
using test::RecordBytes;

constexpr const char* kTime = "Data collected at 2023-11-14 22:13:20.123\n";

RecordBytes block() {
  return RecordBytes().add_text("QVXD", 8).add(std::uint64_t{1700000000123456});
}

std::string printed(const qvx_counters_schema& schema, Bytes bytes) {
  test::CapturedStream stream;
  EXPECT_TRUE(qvx_counters_block_print(stream.file(), bytes, &schema));
  return stream.text();
}

// The cell of the only counter, from behind the row's label.
std::string cell(std::uint32_t data_type, const RecordBytes& bytes) {
  const CountersSchemaPtr schema = make_schema({make_group(0, 1, {{"a", data_type, 8}})});
  const std::string text = printed(*schema, bytes.bytes());
  const std::string label = "|    0 |";
  const std::size_t from = text.find(label) + label.size();
  return text.substr(from, text.find('\n', from) - from);
}

class CountersTablesTest : public testing::Test {
 protected:
  test::TimeZoneGuard zone_{"UTC"};
};

TEST_F(CountersTablesTest, TableHasARowPerCounterSet) {
  const CountersSchemaPtr schema =
      make_schema({make_group(1, 2, {{"load", QVX_COUNTER_FP64}, {"jobs", QVX_COUNTER_UINT64}})});
  const RecordBytes bytes =
      block().add(0.5).add(std::uint64_t{7}).add(1234.5678).add(std::uint64_t{18446744073709551615U});
  EXPECT_EQ(printed(*schema, bytes.bytes()), std::string(kTime) +
                                                 "-----------------------------------------------------\n"
                                                 "| Counter values per CPU                            |\n"
                                                 "-----------------------------------------------------\n"
                                                 "| CPU |                 load |                 jobs |\n"
                                                 "-----------------------------------------------------\n"
                                                 "|   0 |            0.500 |                    7(u) |\n"
                                                 "|   1 |         1234.568 | 18446744073709551615(u) |\n"
                                                 "-----------------------------------------------------\n");
}

TEST_F(CountersTablesTest, GroupWithoutSetsHasNoLabelAndItsRuleTwiceAtTheEnd) {
  const CountersSchemaPtr schema = make_schema({make_group(1, 0, {{"load", QVX_COUNTER_FP64}})});
  EXPECT_EQ(printed(*schema, block().add(0.5).bytes()), std::string(kTime) +
                                                            "------------------------\n"
                                                            "| Counter values per   |\n"
                                                            "------------------------\n"
                                                            "|                 load |\n"
                                                            "------------------------\n"
                                                            "------------------------\n");
}

TEST_F(CountersTablesTest, GroupWithoutCountersIsAsNarrowAsItsLabel) {
  // The title's width is then negative: aligned to the left, and not cut.
  const CountersSchemaPtr schema = make_schema({make_group(0, 1, {})});
  EXPECT_EQ(printed(*schema, block().bytes()), std::string(kTime) +
                                                   "--------\n"
                                                   "| Counter values per NODE            |\n"
                                                   "--------\n"
                                                   "| NODE |\n"
                                                   "--------\n"
                                                   "|    0 |\n"
                                                   "--------\n");
}

TEST_F(CountersTablesTest, ColumnNamesAreAlignedAndNotCut) {
  const CountersSchemaPtr schema =
      make_schema({make_group(0, 0, {{"a name of more than 20 characters", QVX_COUNTER_FP64}})});
  EXPECT_NE(printed(*schema, block().bytes()).find("\n| a name of more than 20 characters |\n"),
            std::string::npos);
}

TEST_F(CountersTablesTest, IntegersFrom1000OnAreShownInThousands) {
  EXPECT_EQ(cell(QVX_COUNTER_INT64, block().add(std::int64_t{999})), "                  999 |");
  EXPECT_EQ(cell(QVX_COUNTER_INT64, block().add(std::int64_t{1000})), "                  1 k |");
  EXPECT_EQ(cell(QVX_COUNTER_INT64, block().add(std::int64_t{1500})), "                  1 k |");
  EXPECT_EQ(cell(QVX_COUNTER_INT64, block().add(std::int64_t{-5000})), "                -5000 |");
  EXPECT_EQ(cell(QVX_COUNTER_UNDEFINED, block().add(std::int64_t{123456789})), "             123456 k |");
  EXPECT_EQ(cell(QVX_COUNTER_INT64, block().add(std::numeric_limits<std::int64_t>::min())),
            " -9223372036854775808 |");
}

TEST_F(CountersTablesTest, CellsOfTheOtherTypes) {
  EXPECT_EQ(cell(QVX_COUNTER_UINT64, block().add(std::uint64_t{1500})), "                 1500(u) |");
  EXPECT_EQ(cell(QVX_COUNTER_BIT64, block().add(std::uint64_t{0xDEADBEEF})), "             DEADBEEF |");
  EXPECT_EQ(cell(QVX_COUNTER_FP64, block().add(-0.0005)), "           -0.001 |");
  EXPECT_EQ(cell(QVX_COUNTER_FP64, block().add(0.0005)), "            0.001 |");
  EXPECT_EQ(cell(QVX_COUNTER_FP64, block().add(std::numeric_limits<double>::quiet_NaN())),
            "              nan |");
  EXPECT_EQ(cell(QVX_COUNTER_FP64, block().add(-std::numeric_limits<double>::infinity())),
            "             -inf |");
  EXPECT_EQ(cell(QVX_COUNTER_FP64, block().add(1e22)), " 10000000000000000000000.000 |");
}

TEST_F(CountersTablesTest, TextIsCutAt20CharactersAndMayGoOnIntoLaterSlots) {
  EXPECT_EQ(cell(QVX_COUNTER_STRING, block().add_text("eth0", 8)), "                 eth0 |");
  EXPECT_EQ(cell(QVX_COUNTER_STRING, block().add_text("0123456789012345678901234", 32)),
            " 01234567890123456789 |");
  EXPECT_EQ(cell(QVX_COUNTER_STRING, block().add_text("0123456789", 10)), "           0123456789 |");
}

TEST_F(CountersTablesTest, ValuesAreTakenByPositionAndNotByOffset) {
  const CountersSchemaPtr schema =
      make_schema({make_group(0, 1, {{"s", QVX_COUNTER_STRING, 16}, {"a", QVX_COUNTER_INT64}})});
  const RecordBytes bytes = block().add_text("x", 8).add(std::int64_t{5}).add(std::int64_t{6});
  EXPECT_NE(printed(*schema, bytes.bytes()).find("|    0 |                    x |                    5 |\n"),
            std::string::npos);
}

TEST_F(CountersTablesTest, SlotOutsideTheBlockIsZero) {
  const CountersSchemaPtr schema = make_schema(
      {make_group(0, 2, {{"a", QVX_COUNTER_INT64}, {"b", QVX_COUNTER_BIT64}, {"s", QVX_COUNTER_STRING, 8}})});
  const RecordBytes bytes = block().add(std::int64_t{1}).add_text("\x02", 1);
  EXPECT_NE(printed(*schema, bytes.bytes())
                .find("|    0 |                    1 |                    2 |                      |\n"
                      "|    1 |                    0 |                    0 |                      |\n"),
            std::string::npos);
}

TEST_F(CountersTablesTest, EveryTruncationHasItsTable) {
  const CountersSchemaPtr schema =
      make_schema({make_group(0, 2, {{"a", QVX_COUNTER_FP64}, {"s", QVX_COUNTER_STRING, 8}})});
  const RecordBytes bytes = block().add(1.0).add_text("abcdefgh", 8).add(2.0).add_text("ijkl", 8);
  const std::size_t size = printed(*schema, bytes.bytes()).size();
  test::for_every_truncation(bytes.bytes(),
                             [&](Bytes cut) { EXPECT_EQ(printed(*schema, cut).size(), size) << cut.size(); });
}

TEST_F(CountersTablesTest, PrintingTellsOfAFailure) {
  EXPECT_FALSE(qvx_counters_block_print(stdout, block().bytes(), nullptr));
  const CountersSchemaPtr schema = make_schema({make_group(1, 100, {{"a", QVX_COUNTER_INT64}})});
  std::FILE* const full = std::fopen("/dev/full", "w");
  ASSERT_NE(full, nullptr);
  std::setvbuf(full, nullptr, _IONBF, 0);
  EXPECT_FALSE(qvx_counters_block_print(full, block().bytes(), schema.get()));
  std::fclose(full);
}

TEST_F(CountersTablesTest, AbsentCounterIsAColumnWithoutAName) {
  const CountersSchemaPtr schema = make_schema({make_group(0, 1, {})});
  schema->groups[0]->counters.emplace_back();
  EXPECT_NE(printed(*schema, block().add(std::int64_t{5}).bytes()).find("|    0 |                    5 |\n"),
            std::string::npos);
  const test::LogCapture ignored;
  schema->groups[0]->counters.clear();
}

TEST_F(CountersTablesTest, LastTimeOfAllIsConverted) {
  const RecordBytes last = RecordBytes().add_text("QVXD", 8).add(std::uint64_t{18446744073709551615U});
  EXPECT_EQ(printed(*make_schema({}), last.bytes()), "Data collected at 586524-01-19 08:01:49.551\n");
}

TEST_F(CountersTablesTest, TablesEndAtTheMostValuesOfABlock) {
  const auto lines_of = [](const CountersSchemaPtr& schema) {
    const std::string text = printed(*schema, block().bytes());
    return std::count(text.begin(), text.end(), '\n');
  };
  // A time, three lines before and two after the head of each table, and a rule at its end.
  constexpr int kFrame = 7;
  EXPECT_EQ(lines_of(make_schema({make_group(1, 1048576, {{"a", QVX_COUNTER_INT64}})})), 1048576 + kFrame);
  EXPECT_EQ(lines_of(make_schema({make_group(1, 1048577, {{"a", QVX_COUNTER_INT64}})})), 1048576 + kFrame);
  EXPECT_EQ(lines_of(make_schema({make_group(1, 524289, {{"a", QVX_COUNTER_INT64}, {"b", 1}})})),
            524288 + kFrame);
  EXPECT_EQ(lines_of(make_schema({make_group(1, 0xFFFFFFFF, {})})), 1048576 + kFrame);
}

TEST_F(CountersTablesTest, RowsLeftOutAreTold) {
  const auto message_of = [](const CountersSchemaPtr& schema) {
    const test::LogCapture log(QVX_LOG_WARNING);
    const std::string text = printed(*schema, block().bytes());
    EXPECT_LE(log.messages().size(), 1U);
    return log.messages().empty() ? "" : log.messages()[0].text;
  };
  const CounterSpec a{"a", QVX_COUNTER_INT64};
  EXPECT_EQ(message_of(make_schema({make_group(1, 1048576, {a})})), "");
  EXPECT_EQ(message_of(make_schema({make_group(1, 1048577, {a})})),
            "Tables of a counters block end after 1048576 values: 1 rows are left out");
  EXPECT_EQ(message_of(make_schema({make_group(1, 1048575, {a}), make_group(1, 1, {a, a}),
                                    make_group(1, 1, {a}), make_group(1, 7, {a})})),
            "Tables of a counters block end after 1048576 values: 8 rows are left out");
  EXPECT_EQ(message_of(make_schema({make_group(1, 0xFFFFFFFF, {a}), make_group(1, 0xFFFFFFFF, {})})),
            "Tables of a counters block end after 1048576 values: 8588886014 rows are left out");
}

TEST_F(CountersTablesTest, BlocksOfManySetsArePrintedWhole) {
  qvx_counter_group* const group = make_group(1, 512, {});
  for (int i = 0; i < 400; ++i)
    group->counters.push_back(test::make_counter("c" + std::to_string(i), QVX_COUNTER_INT64));
  const std::string text = printed(*make_schema({group}), block().bytes());
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 512 + 7);
}

// Each column takes its width in the rules, the heads and the names.
TEST(CountersTables, CountTheMemoryOfTheirTexts) {
  qvx_counter_group* const wide = make_group(0, 1, {});
  for (int at = 0; at < 1000; ++at)
    wide->counters.push_back(test::make_counter("c" + std::to_string(at), QVX_COUNTER_UINT64));
  const CountersTables one(*make_schema({make_group(0, 1, {{"c", QVX_COUNTER_UINT64}})}));
  const CountersTables many(*make_schema({wide}));
  EXPECT_GT(one.bytes(), sizeof one);
  EXPECT_GT(many.bytes(), one.bytes() + 1000 * (4 * 20 + 4));
  EXPECT_LT(many.bytes(), one.bytes() + 1000 * 400);
}

TEST_F(CountersTablesTest, ShortMemoryPrintsNothing) {
  const CountersSchemaPtr schema = make_schema({make_group(0, 400, {{"load", QVX_COUNTER_FP64}})});
  const RecordBytes bytes = block();
  const std::string whole = printed(*schema, bytes.bytes());
  ASSERT_GT(whole.size(), OutputSink::kSmallCapacity);  // the text grows more than once
  std::optional<test::FixedStream> stream;
  const auto print = [&] { return qvx_counters_block_print(stream->file(), bytes.bytes(), schema.get()); };
  std::size_t failures = 0;
  for (bool complete = false; !complete; ++failures) {
    stream.emplace();
    const std::uint32_t level = qvx_logger_set_level(0);
    bool printed_all = false;
    {
      const test::FailingAllocations failing(failures);
      printed_all = print();
      complete = !failing.any_failed();
    }
    qvx_logger_set_level(level);
    EXPECT_EQ(printed_all, complete);
    EXPECT_EQ(stream->text(), complete ? whole : "");
  }
  EXPECT_GT(failures, 5U);
}

}  // namespace
}  // namespace qvx
