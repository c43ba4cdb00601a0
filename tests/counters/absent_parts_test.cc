// Counters schemas put together by hand may lack what one from a file has: names, descriptions, whole
// counters.
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "qvx/counters/counters_block.h"
#include "qvx/counters/counters_json.h"
#include "qvx/counters/counters_tables.h"
#include "qvx/support/json_text.h"
#include "tests/support/captured_stream.h"
#include "tests/support/counters_builder.h"
#include "tests/support/env_guard.h"
#include "tests/support/log_capture.h"
#include "tests/support/record_bytes.h"

namespace qvx {
namespace {

using test::LogCapture;
using test::make_group;
using test::make_schema;

class AbsentPartsTest : public testing::Test {
 protected:
  AbsentPartsTest() {
    schema_ = make_schema({make_group(0, 1, {{"a", QVX_COUNTER_UINT64}, {"b", QVX_COUNTER_INT64}})});
    group().counters.insert(group().counters.begin() + 1, nullptr);
    group().counters[2]->name.reset();
    group().counters[2]->description.reset();
  }

  qvx_counter_group& group() { return *schema_->groups[0]; }
  qvx_counter_info& named() { return *group().counters[0]; }
  qvx_counter_info& nameless() { return *group().counters[2]; }

  // Whether there is JSON of the schema.
  bool has_json() const { return qvx_counters_schema_jsonify(schema_.get()).has_value(); }

  test::TimeZoneGuard zone_{"UTC"};
  CountersSchemaPtr schema_;
  const test::RecordBytes block_ = test::RecordBytes()
                                       .add_text("QVXD", 8)
                                       .add(std::uint64_t{1700000000123456})
                                       .add(std::uint64_t{7})
                                       .add(std::int64_t{-8});
};

TEST_F(AbsentPartsTest, ListNumbersTheCountersThatThereAre) {
  group().granularity = 99;
  test::CapturedStream stream;
  qvx_counter_group_print_list(stream.file(), &group());
  const std::string rule = "------------------------------------------\n";
  EXPECT_EQ(stream.text(), rule + "| Granularity per  (1 counter sets) \n" + rule +
                               "|  # | Active counter       | Description                             \n" +
                               rule +
                               "|  0 | a                    | about it                                \n"
                               "|  1 |                      |                                         \n" +
                               rule);
}

TEST_F(AbsentPartsTest, CounterIsFoundByItsNameOnly) {
  EXPECT_EQ(qvx_counters_schema_find_counter(schema_.get(), "a"), &named());
  EXPECT_EQ(qvx_counters_schema_find_counter(schema_.get(), ""), nullptr);
}

TEST_F(AbsentPartsTest, TableHasAnEmptyColumnForACounterThatIsMissing) {
  test::CapturedStream stream;
  EXPECT_TRUE(qvx_counters_block_print(stream.file(), block_.bytes(), schema_.get()));
  const std::string text = stream.text();
  EXPECT_NE(text.find("\n| NODE |                    a |                      |                      |\n"),
            text.npos)
      << text;
}

TEST_F(AbsentPartsTest, TextOfZeroLengthWithoutANameIsToldAllTheSame) {
  nameless().data_type = QVX_COUNTER_STRING;
  const LogCapture log(QVX_LOG_ERROR);
  qvx_counters_schema_update_counter_offsets(schema_.get());
  EXPECT_TRUE(log.has(
      QVX_LOG_ERROR, "[qvx_counters_schema_update_counter_offsets] Fail: received 0 length string counter "));
}

TEST_F(AbsentPartsTest, SchemaWithoutANameOrACounterHasNoJson) {
  const LogCapture log(QVX_LOG_ERROR);
  EXPECT_FALSE(has_json());  // a counter is missing
  group().counters.erase(group().counters.begin() + 1);
  EXPECT_FALSE(has_json());  // the name of one
  group().counters[1]->name = "b";
  EXPECT_TRUE(has_json());  // a description may be missing
  schema_->groups.push_back(nullptr);
  EXPECT_FALSE(has_json());
  EXPECT_EQ(log.texts(QVX_LOG_ERROR), (std::vector<std::string>{"Failed to JSONify counter group #0",
                                                                "Failed to JSONify counter group #0",
                                                                "Failed to JSONify counter group #1"}));
}

TEST_F(AbsentPartsTest, SchemaWithANameThatIsNoUtf8OrUnknownHasNoJson) {
  group().counters.resize(1);
  ASSERT_TRUE(has_json());
  const LogCapture quiet(QVX_LOG_ERROR);
  const auto refuses = [this](auto& of, auto bad) {
    const auto good = of;
    of = bad;
    const bool refused = !has_json();
    of = good;
    return refused && has_json();
  };
  EXPECT_TRUE(refuses(named().name, "\xFF"));
  EXPECT_TRUE(refuses(named().description, "\xFF"));
  EXPECT_TRUE(refuses(named().units, "\xFF"));
  EXPECT_TRUE(refuses(group().name, "\xFF"));
  EXPECT_TRUE(refuses(group().provider, "\xFF"));
  EXPECT_TRUE(refuses(group().granularity, 3U));
  EXPECT_TRUE(refuses(named().data_type, 6U));
  EXPECT_TRUE(refuses(named().counting_type, 2U));
}

TEST_F(AbsentPartsTest, BlockHasAMemberWithoutANameInJson) {
  group().counters.erase(group().counters.begin() + 1);
  qvx_counters_schema_update_counter_offsets(schema_.get());
  EXPECT_EQ(qvx_counters_block_to_json(block_.bytes(), schema_.get(), json::Style::compact),
            R"({"timestamp":1700000000123456,"@timestamp":"2023-11-14 22:13:20.123","groups":[)"
            R"({"granularity":"NODE","name":"unset","counter_sets":[{"a":7,"":-8}]}]})");
}

TEST_F(AbsentPartsTest, EachSetPassesOverACounterThatIsMissing) {
  group().num_counter_sets = 2;
  EXPECT_EQ(qvx_counters_block_to_json(block_.bytes(), schema_.get(), json::Style::compact),
            R"({"timestamp":1700000000123456,"@timestamp":"2023-11-14 22:13:20.123","groups":[)"
            R"({"granularity":"NODE","name":"unset","counter_sets":[{"a":7,"":-8},{"a":7,"":-8}]}]})");
}

}  // namespace
}  // namespace qvx
