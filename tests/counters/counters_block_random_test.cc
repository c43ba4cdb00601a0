// Random counters schemas and blocks: the text of a plan is that of the document tree, and the tables are
// those of printf.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "qvx/counters/counters_block.h"
#include "qvx/counters/counters_schema.h"
#include "qvx/counters/counters_tables.h"
#include "qvx/support/clock.h"
#include "qvx/support/json_text.h"
#include "qvx/support/output_sink.h"
#include "tests/support/env_guard.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/record_tree.h"

namespace qvx {
namespace {

using test::GuardedBuffer;

const std::string kNames[] = {
    "a",    "b", "c", "cpu:0:load", "",  "\"quoted\\\"",      "\xC3\xA9", "no utf-8 \xFF", "\n\x01",
    "mean", "p", "q", "r",          "s", std::string(70, 'z')};

std::uint64_t bits_of(double value) {
  std::uint64_t bits = 0;
  std::memcpy(&bits, &value, sizeof bits);
  return bits;
}

class RandomCounters {
 public:
  explicit RandomCounters(std::uint64_t seed) : engine_(seed) {}

  std::uint64_t below(std::uint64_t end) { return engine_() % end; }
  bool one_in(std::uint64_t n) { return below(n) == 0; }

  CountersSchemaPtr schema() {
    CountersSchemaPtr schema(qvx_counters_schema_create());
    const std::uint64_t groups = below(4);
    for (std::uint64_t i = 0; i < groups; ++i)
      EXPECT_TRUE(qvx_counters_schema_add_group(schema.get(), group()));
    qvx_counters_schema_update_counter_offsets(schema.get());
    schema->size_of_counters = qvx_counters_schema_size_of_counters(schema.get());
    if (one_in(8)) lie(*schema);
    return schema;
  }

  std::vector<std::byte> block(std::uint64_t size) {
    const std::uint64_t special[] = {bits_of(std::numeric_limits<double>::quiet_NaN()),
                                     bits_of(-std::numeric_limits<double>::quiet_NaN()),
                                     bits_of(std::numeric_limits<double>::infinity()),
                                     bits_of(-std::numeric_limits<double>::infinity()),
                                     bits_of(-0.0),
                                     bits_of(0.0005),
                                     bits_of(-1.7976931348623157e308),
                                     bits_of(1e17),
                                     (std::uint64_t{1} << 53) + 1,
                                     std::numeric_limits<std::uint64_t>::max(),
                                     static_cast<std::uint64_t>(-5000),
                                     999,
                                     1000,
                                     1500,
                                     0x4142434445464748,
                                     0x00FF434445464748,
                                     0xA9C3225C0A011F7F,
                                     0};
    std::vector<std::byte> bytes(size);
    for (std::size_t at = 0; at < size; at += 1 + below(12)) {
      const std::uint64_t value = one_in(3) ? engine_() : special[below(std::size(special))];
      std::memcpy(bytes.data() + at, &value, std::min<std::size_t>(8, size - at));
    }
    // A time that can be converted, most of the time.
    const std::uint64_t timestamp = one_in(8) ? engine_() : 1700000000000000 + below(100000000000);
    if (size >= 16) std::memcpy(bytes.data() + 8, &timestamp, sizeof timestamp);
    return bytes;
  }

 private:
  qvx_counter_group* group() {
    auto* const group = new qvx_counter_group;
    group->granularity = static_cast<std::uint32_t>(below(4));
    group->num_counter_sets = static_cast<std::uint32_t>(below(5));
    if (one_in(30)) group->num_counter_sets = 300;
    if (one_in(2)) group->name = kNames[below(std::size(kNames))];
    const std::uint64_t counters = below(9);
    for (std::uint64_t i = 0; i < counters; ++i)
      group->counters.push_back(counter());
    return group;
  }

  CounterInfoPtr counter() {
    CounterInfoPtr counter(new qvx_counter_info);
    counter->name = kNames[below(std::size(kNames))];
    counter->description = "";
    counter->units = "";
    counter->data_type = static_cast<std::uint32_t>(below(6));
    if (one_in(20)) counter->data_type = 0xFFFFFFFF;
    if (counter->data_type == QVX_COUNTER_STRING)
      counter->length = static_cast<std::uint32_t>(one_in(10) ? below(3000) : 1 + below(30));
    if (one_in(10)) counter->length = static_cast<std::uint32_t>(below(12));
    return counter;
  }

  void lie(qvx_counters_schema& schema) {
    for (const auto& group : schema.groups)
      for (const auto& counter : group->counters)
        if (one_in(4)) counter->offset = one_in(5) ? 0xFFFFFFFF : static_cast<std::uint32_t>(below(64));
  }

  std::mt19937_64 engine_;
};

std::string written(const RecordPlan& plan, Bytes block, std::size_t capacity, bool& succeeded) {
  std::string text;
  OutputSink sink(text, capacity);
  LocalTimeText clock;
  sink.write("kept");
  succeeded = plan.write(block, "\n", sink, &clock);
  EXPECT_TRUE(sink.flush());
  return text;
}

void check_json(const qvx_counters_schema& schema, Bytes block, json::Style style,
                const std::optional<json::Value>& tree) {
  const std::optional<std::string> expected = tree ? json::to_text(*tree, style) : std::nullopt;
  ASSERT_EQ(qvx_counters_block_to_json(block, &schema, style), expected);
  const std::optional<RecordPlan> plan = compile_counters_plan(schema, style, ";");
  ASSERT_TRUE(plan);
  for (const std::size_t capacity : {std::size_t{1}, std::size_t{200}, OutputSink::kDefaultCapacity}) {
    bool succeeded = false;
    const std::string text = written(*plan, block, capacity, succeeded);
    ASSERT_EQ(succeeded, expected.has_value());
    ASSERT_EQ(text, expected ? "kept\n" + *expected + ";" : "kept");
  }
}

void check_tables(const qvx_counters_schema& schema, Bytes block) {
  const std::string expected = test::counters_tables_text(schema, block);
  const CountersTables tables(schema);
  for (const std::size_t capacity : {std::size_t{1}, OutputSink::kDefaultCapacity}) {
    std::string text;
    LocalTimeText clock;
    {
      OutputSink sink(text, capacity);
      tables.write(block, sink, clock);
    }
    ASSERT_EQ(text, expected);
  }
}

class CountersBlockRandomTest : public testing::TestWithParam<int> {};

TEST_P(CountersBlockRandomTest, PlanAndTablesAreThoseOfTheSlowWay) {
  constexpr int kCases = 500;
  const test::TimeZoneGuard zone(GetParam() % 2 == 0 ? "UTC" : "Asia/Kathmandu");
  int made = 0;
  int refused = 0;
  for (int i = 0; i < kCases; ++i) {
    const std::uint64_t seed =
        static_cast<std::uint64_t>(GetParam()) * kCases + static_cast<std::uint64_t>(i);
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomCounters random(seed);
    const CountersSchemaPtr schema = random.schema();
    const std::uint64_t honest = 16 + std::uint64_t{schema->size_of_counters};
    const std::uint64_t size = random.one_in(4) ? random.below(honest + 40) : honest + random.below(3);
    const GuardedBuffer block(random.block(size));
    const std::optional<json::Value> tree = test::counters_tree(*schema, block.bytes());
    ++(tree ? made : refused);
    check_json(*schema, block.bytes(), json::Style::compact, tree);
    check_json(*schema, block.bytes(), json::Style::pretty, tree);
    check_tables(*schema, block.bytes());
    if (HasFatalFailure()) return;
  }
  EXPECT_GT(made, kCases / 2);
  EXPECT_GT(refused, kCases / 20);
}

INSTANTIATE_TEST_SUITE_P(Seeds, CountersBlockRandomTest, testing::Range(0, 6));

}  // namespace
}  // namespace qvx
