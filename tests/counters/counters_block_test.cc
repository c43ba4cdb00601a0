#include "qvx/counters/counters_block.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/allocation_sweep.h"
#include "tests/support/counters_builder.h"
#include "tests/support/env_guard.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/log_capture.h"
#include "tests/support/record_bytes.h"

namespace qvx {
namespace {

using test::CounterSpec;
using test::LogCapture;
using test::make_group;
using test::make_schema;
using test::RecordBytes;
using test::TimeZoneGuard;

using Text = std::optional<std::string>;

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

// The header of a block of 2023-11-14 22:13:20.123456 UTC.
RecordBytes block() {
  return RecordBytes().add_text("QVXD", 8).add(std::uint64_t{1700000000123456});
}

Text compact(const qvx_counters_schema& schema, const RecordBytes& bytes) {
  return qvx_counters_block_to_json(bytes.bytes(), &schema, json::Style::compact);
}

// The members of the only counter set of a group of these counters.
std::string set_of(std::initializer_list<CounterSpec> counters, const RecordBytes& bytes) {
  const CountersSchemaPtr schema = make_schema({make_group(0, 1, counters)});
  const Text text = compact(*schema, bytes);
  if (!text) return "no text";
  const std::string head = R"("counter_sets":[)";
  const std::size_t from = text->find(head) + head.size();
  return text->substr(from, text->size() - from - 4);
}

class CountersBlockTest : public testing::Test {
 protected:
  TimeZoneGuard zone_{"UTC"};
};

TEST_F(CountersBlockTest, BlockHasItsTimeTwiceAndItsGroups) {
  const CountersSchemaPtr schema = make_schema(
      {make_group(0, 1, {{"a", QVX_COUNTER_UINT64}}), make_group(1, 1, {{"b", QVX_COUNTER_INT64}})});
  schema->groups[1]->name = "cpu";
  EXPECT_EQ(compact(*schema, block().add(std::uint64_t{7}).add(std::int64_t{-7})),
            R"({"timestamp":1700000000123456,"@timestamp":"2023-11-14 22:13:20.123","groups":[)"
            R"({"granularity":"NODE","name":"unset","counter_sets":[{"a":7}]},)"
            R"({"granularity":"CPU","name":"cpu","counter_sets":[{"b":-7}]}]})");
}

TEST_F(CountersBlockTest, TimeIsLocal) {
  const TimeZoneGuard zone("Asia/Kathmandu");
  EXPECT_EQ(compact(*make_schema({}), block()),
            R"({"timestamp":1700000000123456,"@timestamp":"2023-11-15 03:58:20.123","groups":[]})");
}

TEST_F(CountersBlockTest, PrettyTextHasAValueALine) {
  const CountersSchemaPtr schema = make_schema(
      {make_group(2, 1, {{"a", QVX_COUNTER_FP64}, {"b", QVX_COUNTER_INT64}}), make_group(0, 0, {})});
  const RecordBytes bytes = block().add(0.5).add(std::int64_t{1});
  EXPECT_EQ(qvx_counters_block_to_json(bytes.bytes(), schema.get(), json::Style::pretty), R"({
    "timestamp": 1700000000123456,
    "@timestamp": "2023-11-14 22:13:20.123",
    "groups": [
        {
            "granularity": "PACKAGE",
            "name": "unset",
            "counter_sets": [
                {
                    "a": 0.5,
                    "b": 1
                }
            ]
        },
        {
            "granularity": "NODE",
            "name": "unset",
            "counter_sets": []
        }
    ]
})");
}

TEST_F(CountersBlockTest, GroupShowsItsProviderWhenItHasNoName) {
  const qvx_counter_provider_ops ops{"perf", nullptr, nullptr, nullptr, nullptr};
  const CountersSchemaPtr schema = make_schema({make_group(0, 0, {})});
  schema->groups[0]->provider_ops = &ops;
  EXPECT_EQ(compact(*schema, block()),
            R"({"timestamp":1700000000123456,"@timestamp":"2023-11-14 22:13:20.123","groups":[)"
            R"({"granularity":"NODE","name":"perf","counter_sets":[]}]})");
}

TEST_F(CountersBlockTest, UnknownGranularityIsLeftOut) {
  const CountersSchemaPtr schema = make_schema({make_group(3, 0, {})});
  EXPECT_EQ(compact(*schema, block()),
            R"({"timestamp":1700000000123456,"@timestamp":"2023-11-14 22:13:20.123","groups":[)"
            R"({"name":"unset","counter_sets":[]}]})");
}

TEST_F(CountersBlockTest, EveryTypeIsReadAsItself) {
  const RecordBytes ones = block().add(std::uint64_t{0xFFFFFFFFFFFFFFFF});
  EXPECT_EQ(set_of({{"a", QVX_COUNTER_UINT64}}, ones), R"({"a":1.8446744073709552e+19})");
  EXPECT_EQ(set_of({{"a", QVX_COUNTER_BIT64}}, ones), R"({"a":1.8446744073709552e+19})");
  EXPECT_EQ(set_of({{"a", QVX_COUNTER_INT64}}, ones), R"({"a":-1})");
  EXPECT_EQ(set_of({{"a", QVX_COUNTER_UNDEFINED}}, ones), R"({"a":-1})");
  EXPECT_EQ(set_of({{"a", 0xFFFFFFFF}}, ones), R"({"a":-1})");
  EXPECT_EQ(set_of({{"a", QVX_COUNTER_FP64}}, block().add(0.1)), R"({"a":0.10000000000000001})");
  EXPECT_EQ(set_of({{"a", QVX_COUNTER_STRING, 6}}, block().add_text("eth0", 6)), R"({"a":"eth0"})");
}

TEST_F(CountersBlockTest, TextIsCutAtItsLengthAndAtTheFirstNul) {
  EXPECT_EQ(set_of({{"a", QVX_COUNTER_STRING, 4}}, block().add_text("abcdefgh", 8)), R"({"a":"abcd"})");
  EXPECT_EQ(set_of({{"a", QVX_COUNTER_STRING, 4}}, block().add_text({"a\0cd", 4}, 4)), R"({"a":"a"})");
  EXPECT_EQ(set_of({{"a", QVX_COUNTER_STRING, 4}}, block().add_text("\n\x01\"\\", 4)),
            R"({"a":"\n\u0001\"\\"})");
  EXPECT_EQ(set_of({{"a", QVX_COUNTER_STRING, 4}}, block().add_text("\xC3\xA9\x7F", 4)),
            "{\"a\":\"\xC3\xA9\x7F\"}");
}

TEST_F(CountersBlockTest, TextOfLengthZeroIsEmpty) {
  const CountersSchemaPtr schema =
      make_schema({make_group(0, 1, {{"a", QVX_COUNTER_STRING, 0}, {"b", QVX_COUNTER_INT64}})});
  EXPECT_EQ(compact(*schema, block().add(std::int64_t{5})),
            R"({"timestamp":1700000000123456,"@timestamp":"2023-11-14 22:13:20.123","groups":[)"
            R"({"granularity":"NODE","name":"unset","counter_sets":[{"a":"","b":5}]}]})");
}

TEST_F(CountersBlockTest, BytesOfATextGoToTheDebugDump) {
  const CountersSchemaPtr schema = make_schema({make_group(0, 1, {{"a", QVX_COUNTER_STRING, 4}})});
  const RecordBytes bytes = block().add_text("ab", 4);
  const LogCapture log;
  ASSERT_TRUE(compact(*schema, bytes));
  ASSERT_EQ(log.messages().size(), 1U);
  EXPECT_EQ(log.messages()[0].level, QVX_LOG_DEBUG);
  EXPECT_EQ(log.messages()[0].text.substr(0, 12), "61 62 00 00 ");
}

TEST_F(CountersBlockTest, ValuesWithoutAJsonFormAreLeftOut) {
  const double infinity = std::numeric_limits<double>::infinity();
  const CounterSpec x{"x", QVX_COUNTER_FP64};
  const CounterSpec y{"y", QVX_COUNTER_FP64};
  EXPECT_EQ(set_of({x, y}, block().add(1.0).add(2.0)), R"({"x":1,"y":2})");
  EXPECT_EQ(set_of({x, y}, block().add(kNan).add(2.0)), R"({"y":2})");
  EXPECT_EQ(set_of({x, y}, block().add(1.0).add(-infinity)), R"({"x":1})");
  EXPECT_EQ(set_of({x, y}, block().add(infinity).add(-kNan)), "{}");
  EXPECT_EQ(set_of({x, {"s", QVX_COUNTER_STRING, 2}, {"i", QVX_COUNTER_INT64}},
                   block().add(kNan).add_text("\xFF", 2).add(std::int64_t{3})),
            R"({"i":3})");
  EXPECT_EQ(set_of({{"i", QVX_COUNTER_INT64}, x, y}, block().add(std::int64_t{3}).add(kNan).add(2.0)),
            R"({"i":3,"y":2})");
}

TEST_F(CountersBlockTest, ObjectThatLostAllItsMembersIsEmptyInPrettyTextToo) {
  const CountersSchemaPtr schema = make_schema({make_group(0, 1, {{"x", QVX_COUNTER_FP64}})});
  const RecordBytes bytes = block().add(kNan);
  const Text text = qvx_counters_block_to_json(bytes.bytes(), schema.get(), json::Style::pretty);
  ASSERT_TRUE(text);
  EXPECT_NE(text->find("\"counter_sets\": [\n                {}\n            ]"), std::string::npos) << *text;
}

TEST_F(CountersBlockTest, AllSetsOfAGroupShowTheSameValues) {
  const CountersSchemaPtr schema = make_schema({make_group(1, 2, {{"a", QVX_COUNTER_UINT64}})});
  EXPECT_EQ(compact(*schema, block().add(std::uint64_t{1}).add(std::uint64_t{2})),
            R"({"timestamp":1700000000123456,"@timestamp":"2023-11-14 22:13:20.123","groups":[)"
            R"({"granularity":"CPU","name":"unset","counter_sets":[{"a":1},{"a":1}]}]})");
}

TEST_F(CountersBlockTest, RepeatedNameStandsAtItsFirstPlaceWithItsLastValue) {
  EXPECT_EQ(set_of({{"a", QVX_COUNTER_INT64}, {"b", QVX_COUNTER_INT64}, {"a", QVX_COUNTER_FP64}},
                   block().add(std::int64_t{1}).add(std::int64_t{2}).add(3.5)),
            R"({"a":3.5,"b":2})");
}

TEST_F(CountersBlockTest, OfOneNameTheLastCounterWithAValueStays) {
  const CounterSpec x{"a", QVX_COUNTER_FP64};
  const CounterSpec i{"a", QVX_COUNTER_INT64};
  const CounterSpec s{"a", QVX_COUNTER_STRING, 2};
  const CounterSpec b{"b", QVX_COUNTER_FP64};
  EXPECT_EQ(set_of({x, x}, block().add(1.5).add(kNan)), R"({"a":1.5})");
  EXPECT_EQ(set_of({x, x}, block().add(kNan).add(2.5)), R"({"a":2.5})");
  EXPECT_EQ(set_of({x, x}, block().add(kNan).add(kNan)), "{}");
  EXPECT_EQ(set_of({i, x}, block().add(std::int64_t{1}).add(kNan)), R"({"a":1})");
  EXPECT_EQ(set_of({x, i}, block().add(kNan).add(std::int64_t{1})), R"({"a":1})");
  EXPECT_EQ(set_of({i, s}, block().add(std::int64_t{1}).add_text("\xFF", 2)), R"({"a":1})");
  EXPECT_EQ(set_of({i, s}, block().add(std::int64_t{1}).add_text("on", 2)), R"({"a":"on"})");
  EXPECT_EQ(set_of({x, i, x}, block().add(1.5).add(std::int64_t{1}).add(kNan)), R"({"a":1})");
  // The member stands where its first value stood.
  EXPECT_EQ(set_of({x, b, x}, block().add(1.5).add(2.0).add(3.5)), R"({"a":3.5,"b":2})");
  EXPECT_EQ(set_of({x, b, x}, block().add(kNan).add(2.0).add(3.5)), R"({"b":2,"a":3.5})");
  EXPECT_EQ(set_of({x, b, i}, block().add(kNan).add(2.0).add(std::int64_t{3})), R"({"b":2,"a":3})");
  EXPECT_EQ(set_of({x, b, x, b}, block().add(kNan).add(kNan).add(3.5).add(4.5)), R"({"a":3.5,"b":4.5})");
}

TEST_F(CountersBlockTest, ManyCountersOfOneNameTakeLinearTime) {
  qvx_counter_group* const group = make_group(0, 1, {});
  RecordBytes bytes = block();
  for (int i = 0; i < 20000; ++i) {
    group->counters.push_back(test::make_counter("a", QVX_COUNTER_FP64));
    bytes.add(i % 2 == 0 && i < 10000 ? kNan : 1.0);
  }
  const CountersSchemaPtr schema = make_schema({group});
  const std::clock_t start = std::clock();
  EXPECT_TRUE(compact(*schema, bytes));
  EXPECT_LT(std::clock() - start, CLOCKS_PER_SEC);
}

TEST_F(CountersBlockTest, TextOfLengthZeroIsEmptyWhereverItLies) {
  const CountersSchemaPtr schema = make_schema({make_group(0, 1, {{"a", QVX_COUNTER_STRING, 0}})});
  schema->groups[0]->counters[0]->offset = 0xFFFFFFFF;
  EXPECT_EQ(compact(*schema, block()),
            R"({"timestamp":1700000000123456,"@timestamp":"2023-11-14 22:13:20.123","groups":[)"
            R"({"granularity":"NODE","name":"unset","counter_sets":[{"a":""}]}]})");
}

TEST_F(CountersBlockTest, AbsentCountersAreLeftOutAndAnAbsentSchemaHasNoText) {
  const CountersSchemaPtr schema = make_schema({make_group(0, 1, {{"a", QVX_COUNTER_INT64}})});
  schema->groups[0]->counters.emplace_back();
  EXPECT_EQ(compact(*schema, block().add(std::int64_t{5})),
            R"({"timestamp":1700000000123456,"@timestamp":"2023-11-14 22:13:20.123","groups":[)"
            R"({"granularity":"NODE","name":"unset","counter_sets":[{"a":5}]}]})");
  EXPECT_EQ(qvx_counters_block_to_json(block().bytes(), nullptr, json::Style::compact), std::nullopt);
  const LogCapture ignored;
  schema->groups[0]->counters.clear();
}

TEST_F(CountersBlockTest, NothingIsMissingWhenMemoryIsShort) {
  const CountersSchemaPtr schema = make_schema({make_group(
      0, 1, {{"a", QVX_COUNTER_FP64}, {"a", QVX_COUNTER_INT64}, {"s", QVX_COUNTER_STRING, 3000}})});
  const RecordBytes bytes = block().add(1.5).add(std::int64_t{2}).add_text(std::string(3000, 's'), 3000);
  const Text whole = qvx_counters_block_to_json(bytes.bytes(), schema.get(), json::Style::pretty);
  ASSERT_TRUE(whole);
  test::sweep_allocations(
      [&] { return qvx_counters_block_to_json(bytes.bytes(), schema.get(), json::Style::pretty); },
      [&](const Text& text) { return text == whole; });
}

TEST_F(CountersBlockTest, NamesAreEscapedAndGroupNamesThatAreNoUtf8LeftOut) {
  const CountersSchemaPtr schema = make_schema({make_group(0, 1, {{"a\"\n\xFF", QVX_COUNTER_INT64}})});
  schema->groups[0]->name = "\xFF";
  EXPECT_EQ(compact(*schema, block().add(std::int64_t{1})),
            "{\"timestamp\":1700000000123456,\"@timestamp\":\"2023-11-14 22:13:20.123\",\"groups\":["
            "{\"granularity\":\"NODE\",\"counter_sets\":[{\"a\\\"\\n\xFF\":1}]}]}");
}

TEST_F(CountersBlockTest, TruncatedBlockHasNoText) {
  const CountersSchemaPtr schema = make_schema(
      {make_group(0, 2, {{"a", QVX_COUNTER_FP64}, {"s", QVX_COUNTER_STRING, 5}, {"b", QVX_COUNTER_INT64}})});
  const RecordBytes bytes = block().add(1.0).add_text("abcde", 5).add(std::int64_t{2});
  ASSERT_TRUE(compact(*schema, bytes));
  test::for_every_truncation(bytes.bytes(), [&](Bytes cut) {
    EXPECT_EQ(qvx_counters_block_to_json(cut, schema.get(), json::Style::compact), std::nullopt);
  });
}

TEST_F(CountersBlockTest, CounterHiddenByARepeatedNameMustLieInTheBlock) {
  const CountersSchemaPtr schema =
      make_schema({make_group(0, 1, {{"a", QVX_COUNTER_INT64}, {"a", QVX_COUNTER_INT64}})});
  schema->groups[0]->counters[0]->offset = 9;
  EXPECT_EQ(compact(*schema, block().add(std::int64_t{1}).add(std::int64_t{2})), std::nullopt);
  schema->groups[0]->counters[0]->offset = 8;
  EXPECT_TRUE(compact(*schema, block().add(std::int64_t{1}).add(std::int64_t{2})));
}

TEST_F(CountersBlockTest, ManySetsOfASmallBlockAreShown) {
  const CountersSchemaPtr schema = make_schema({make_group(1, 65536, {{"a", QVX_COUNTER_UINT64}})});
  const Text text = compact(*schema, block().add(std::uint64_t{1}));
  ASSERT_TRUE(text);
  // Each set is {"a":1} with a comma, but for the last.
  EXPECT_EQ(text->size(),
            65536 * 8 - 1 +
                std::string_view(R"({"timestamp":1700000000123456,"@timestamp":"2023-11-14 22:13:20.123",)"
                                 R"("groups":[{"granularity":"CPU","name":"unset","counter_sets":[]}]})")
                    .size());
}

TEST_F(CountersBlockTest, BlockHasAtMostAsManyValuesAsItsTablesShow) {
  const CounterSpec a{"a", QVX_COUNTER_INT64};
  const CounterSpec b{"b", QVX_COUNTER_INT64};
  const RecordBytes bytes = block().add(std::int64_t{1}).add(std::int64_t{2}).add(std::int64_t{3});
  for (const json::Style style : {json::Style::compact, json::Style::pretty}) {
    const auto has_text = [&](const CountersSchemaPtr& schema) {
      return qvx_counters_block_to_json(bytes.bytes(), schema.get(), style).has_value();
    };
    EXPECT_TRUE(has_text(make_schema({make_group(1, 1048576, {a})})));
    EXPECT_FALSE(has_text(make_schema({make_group(1, 1048577, {a})})));
    EXPECT_TRUE(has_text(make_schema({make_group(1, 524287, {a, b}), make_group(1, 2, {a})})));
    EXPECT_FALSE(has_text(make_schema({make_group(1, 524287, {a, b}), make_group(1, 3, {a})})));
    EXPECT_TRUE(has_text(make_schema({make_group(1, 1048576, {})})));
    EXPECT_FALSE(has_text(make_schema({make_group(1, 1048577, {})})));
  }
}

TEST_F(CountersBlockTest, OneTextInManySetsIsRepeatedUpTo256MiB) {
  constexpr std::uint32_t kLength = 1 << 18;
  const RecordBytes bytes = block().add_text(std::string(kLength, 'x'), kLength);
  const auto text_of = [&](std::uint32_t sets) {
    const CountersSchemaPtr schema = make_schema({make_group(1, sets, {{"s", QVX_COUNTER_STRING, kLength}})});
    return qvx_counters_block_to_json(bytes.bytes(), schema.get(), json::Style::compact);
  };
  EXPECT_TRUE(text_of(3));
  EXPECT_FALSE(text_of(1024));
}

TEST_F(CountersBlockTest, ManySetsOfManyCountersHaveCompactAndPrettyText) {
  qvx_counter_group* const group = make_group(1, 512, {});
  RecordBytes bytes = block();
  for (int i = 0; i < 400; ++i) {
    group->counters.push_back(test::make_counter("counter " + std::to_string(i), QVX_COUNTER_UINT64));
    bytes.add(std::uint64_t{12345678901234567890U});
  }
  const CountersSchemaPtr schema = make_schema({group});
  const Text pretty = qvx_counters_block_to_json(bytes.bytes(), schema.get(), json::Style::pretty);
  ASSERT_TRUE(pretty);
  EXPECT_EQ(std::count(pretty->begin(), pretty->end(), '\n'), 512 * 402 + 11);
  EXPECT_TRUE(qvx_counters_block_to_json(bytes.bytes(), schema.get(), json::Style::compact));
}

TEST_F(CountersBlockTest, SetsBeyondAllMeasureHaveNoText) {
  for (const CounterSpec counter :
       {CounterSpec{"a", QVX_COUNTER_UINT64}, {"s", QVX_COUNTER_STRING, 0}, {"t", QVX_COUNTER_STRING, 8}}) {
    const CountersSchemaPtr schema = make_schema({make_group(1, 0xFFFFFFFF, {counter})});
    const std::clock_t start = std::clock();
    EXPECT_EQ(compact(*schema, block().add(std::uint64_t{1})), std::nullopt) << counter.name;
    EXPECT_LT(std::clock() - start, CLOCKS_PER_SEC);
  }
  EXPECT_EQ(compact(*make_schema({make_group(1, 0xFFFFFFFF, {})}), block()), std::nullopt);
}

TEST_F(CountersBlockTest, LongTextOfManySetsHasNoText) {
  const std::string name(100000, 'n');
  const CountersSchemaPtr schema = make_schema({make_group(1, 65536, {{name.c_str(), QVX_COUNTER_UINT64}})});
  EXPECT_EQ(compact(*schema, block().add(std::uint64_t{1})), std::nullopt);
}

}  // namespace
}  // namespace qvx
