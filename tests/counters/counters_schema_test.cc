#include "qvx/counters/counters_schema.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/counters_builder.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/last_message.h"
#include "tests/support/log_capture.h"

namespace qvx {
namespace {

using test::LogCapture;
using test::LogMessage;
using test::make_group;
using test::make_schema;

using Messages = std::vector<LogMessage>;

TEST(CountersSchema, NewOneIsEmpty) {
  const CountersSchemaPtr schema(qvx_counters_schema_create());
  ASSERT_NE(schema, nullptr);
  EXPECT_TRUE(schema->groups.empty());
  EXPECT_EQ(schema->size_of_counters, 0U);
  EXPECT_EQ(qvx_counters_schema_number_of_counters(schema.get()), 0U);
  EXPECT_EQ(qvx_counters_schema_number_of_values(schema.get()), 0U);
}

TEST(CountersSchema, CreatingAndAddingWithoutMemoryIsReported) {
  const test::LastMessage last;
  qvx_counters_schema* none = nullptr;
  {
    const test::FailingAllocations failing(0);
    none = qvx_counters_schema_create();
  }
  EXPECT_EQ(none, nullptr);
  EXPECT_EQ(last.get(), (LogMessage{QVX_LOG_ERROR, "failed to allocate schema"}));
  const CountersSchemaPtr schema(qvx_counters_schema_create());
  CounterGroupPtr group(make_group(0, 1, {}));
  bool added = true;
  {
    const test::FailingAllocations failing(0);
    added = qvx_counters_schema_add_group(schema.get(), group.get());
  }
  EXPECT_FALSE(added);
  EXPECT_EQ(last.get(),
            (LogMessage{QVX_LOG_ERROR, "Failed allocating memory for 1's group: Cannot allocate memory"}));
  EXPECT_TRUE(schema->groups.empty());
}

TEST(CountersSchema, OffsetsFollowTheLengthsOfStrings) {
  const CountersSchemaPtr schema = make_schema({make_group(
      0, 1, {{"a", QVX_COUNTER_UINT64}, {"b", QVX_COUNTER_STRING, 32}, {"c", QVX_COUNTER_FP64}})});
  const auto& counters = schema->groups[0]->counters;
  EXPECT_EQ(counters[0]->offset, 0U);
  EXPECT_EQ(counters[1]->offset, 8U);
  EXPECT_EQ(counters[2]->offset, 40U);
  EXPECT_EQ(schema->size_of_counters, 48U);
}

TEST(CountersSchema, OffsetsRunOnOverTheGroupsAndIgnoreCounterSets) {
  const CountersSchemaPtr schema = make_schema(
      {make_group(0, 3, {{"a", QVX_COUNTER_UINT64}}), make_group(1, 1, {{"b", QVX_COUNTER_INT64}})});
  EXPECT_EQ(schema->groups[1]->counters[0]->offset, 8U);
  EXPECT_EQ(schema->size_of_counters, 16U);
}

TEST(CountersSchema, LengthOfANumberCountsInTheOffsetsButNotInTheSize) {
  const CountersSchemaPtr schema =
      make_schema({make_group(0, 1, {{"a", QVX_COUNTER_INT64, 4}, {"b", QVX_COUNTER_INT64}})});
  EXPECT_EQ(schema->groups[0]->counters[1]->offset, 4U);
  EXPECT_EQ(schema->size_of_counters, 16U);
}

TEST(CountersSchema, StringOfLengthZeroStopsTheUpdateOfTheOffsets) {
  const CountersSchemaPtr schema(qvx_counters_schema_create());
  qvx_counter_group* const group =
      make_group(0, 1, {{"a", QVX_COUNTER_INT64}, {"s", QVX_COUNTER_STRING, 0}, {"b", QVX_COUNTER_INT64}});
  for (const auto& counter : group->counters)
    counter->offset = 99;
  ASSERT_TRUE(qvx_counters_schema_add_group(schema.get(), group));
  const LogCapture log;
  qvx_counters_schema_update_counter_offsets(schema.get());
  EXPECT_EQ(group->counters[0]->offset, 0U);
  EXPECT_EQ(group->counters[1]->offset, 99U);
  EXPECT_EQ(group->counters[2]->offset, 99U);
  EXPECT_EQ(log.messages(), (Messages{{QVX_LOG_DEBUG, "[schema] Set up counter a  size=0  offset=0"},
                                      {QVX_LOG_ERROR,
                                       "[qvx_counters_schema_update_counter_offsets] Fail: received 0 length "
                                       "string counter s"}}));
}

TEST(CountersSchema, UpdateAndSizeAreTraced) {
  const CountersSchemaPtr schema(qvx_counters_schema_create());
  qvx_counter_group* const group =
      make_group(1, 2, {{"a", QVX_COUNTER_STRING, 20}, {"b", QVX_COUNTER_UINT64}});
  group->name = "cpu";
  ASSERT_TRUE(qvx_counters_schema_add_group(schema.get(), group));
  const LogCapture log;
  qvx_counters_schema_update_counter_offsets(schema.get());
  EXPECT_EQ(qvx_counters_schema_size_of_counters(schema.get()), 28U);
  EXPECT_EQ(log.messages(),
            (Messages{{QVX_LOG_DEBUG, "[schema] Set up counter a  size=20  offset=0"},
                      {QVX_LOG_DEBUG, "[schema] Set up counter b  size=0  offset=20"},
                      {QVX_LOG_DEBUG, "qvx_counters_schema_size_of_counters group cpu has 2 counter sets"},
                      {QVX_LOG_DEBUG, "qvx_counters_schema_size_of_counters returning 28 d"}}));
}

TEST(CountersSchema, SizesStopAtTheirLimit) {
  const CountersSchemaPtr schema = make_schema({make_group(
      0, 1, {{"a", QVX_COUNTER_STRING, 0xFFFFFFFF}, {"b", QVX_COUNTER_INT64}, {"c", QVX_COUNTER_INT64}})});
  EXPECT_EQ(schema->groups[0]->counters[2]->offset, 0xFFFFFFFFU);
  EXPECT_EQ(schema->size_of_counters, 0xFFFFFFFFU);
}

TEST(CountersSchema, NumberOfCountersWantsOneCounterSetPerGroup) {
  const CountersSchemaPtr single =
      make_schema({make_group(0, 1, {{"a", QVX_COUNTER_INT64}, {"b", QVX_COUNTER_INT64}}),
                   make_group(1, 1, {{"c", QVX_COUNTER_INT64}})});
  EXPECT_EQ(qvx_counters_schema_number_of_counters(single.get()), 3U);
  const CountersSchemaPtr two =
      make_schema({make_group(0, 1, {{"a", QVX_COUNTER_INT64}}), make_group(1, 2, {{"b", QVX_COUNTER_INT64}}),
                   make_group(1, 3, {{"c", QVX_COUNTER_INT64}})});
  const LogCapture log;
  EXPECT_EQ(qvx_counters_schema_number_of_counters(two.get()), 0U);
  EXPECT_EQ(log.messages(),
            (Messages{{QVX_LOG_ERROR,
                       "[qvx_counters_schema_number_of_counters] num_counter_sets should be 1, not 2"}}));
  EXPECT_EQ(qvx_counters_schema_number_of_values(two.get()), 6U);
}

TEST(CountersSchema, NumberOfValuesDoesNotWrap) {
  const CountersSchemaPtr schema =
      make_schema({make_group(0, 0xFFFFFFFF, {{"a", QVX_COUNTER_INT64}, {"b", QVX_COUNTER_INT64}})});
  EXPECT_EQ(qvx_counters_schema_number_of_values(schema.get()), 8589934590U);
}

TEST(CountersSchema, FirstCounterOfANameIsFound) {
  const CountersSchemaPtr schema =
      make_schema({make_group(0, 1, {{"a", QVX_COUNTER_INT64}, {"b", QVX_COUNTER_INT64}}),
                   make_group(1, 1, {{"b", QVX_COUNTER_FP64}, {"c", QVX_COUNTER_FP64}})});
  EXPECT_EQ(qvx_counters_schema_find_counter(schema.get(), "b"), schema->groups[0]->counters[1].get());
  EXPECT_EQ(qvx_counters_schema_find_counter(schema.get(), "c"), schema->groups[1]->counters[1].get());
  EXPECT_EQ(qvx_counters_schema_find_counter(schema.get(), "B"), nullptr);
}

int destroyed_groups = 0;

TEST(CountersSchema, GroupsAreDestroyedThroughTheirProvider) {
  const qvx_counter_provider_ops ops{"provider",
                                     [](qvx_counter_group* group) {
                                       ++destroyed_groups;
                                       qvx_free_counter_group(group);
                                     },
                                     nullptr, nullptr, nullptr};
  destroyed_groups = 0;
  qvx_counters_schema* const schema = make_schema({make_group(0, 1, {}), make_group(0, 1, {})}).release();
  schema->groups[1]->provider_ops = &ops;
  qvx_counters_schema_destroy(schema);
  EXPECT_EQ(destroyed_groups, 1);
  qvx_counters_schema_destroy(nullptr);
}

}  // namespace
}  // namespace qvx
