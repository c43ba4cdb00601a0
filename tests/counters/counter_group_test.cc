#include "qvx/counters/counter_group.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "tests/support/captured_stream.h"
#include "tests/support/counters_builder.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/last_message.h"
#include "tests/support/log_capture.h"

namespace qvx {
namespace {

using test::LogCapture;
using test::LogMessage;

bool refuse(qvx_counter_group*, const qvx_counter_info*) {
  return false;
}
bool accept_visible(qvx_counter_group*, const qvx_counter_info* info) {
  return info->hidden == 0;
}
int destroyed_groups = 0;
void count_and_free(qvx_counter_group* group) {
  ++destroyed_groups;
  qvx_free_counter_group(group);
}

TEST(CounterGroup, AddedCounterIsACopy) {
  const CounterGroupPtr group(test::make_group(0, 1, {}));
  CounterInfoPtr counter = test::make_counter("a", QVX_COUNTER_INT64);
  EXPECT_TRUE(qvx_counter_group_add_counter(group.get(), counter.get()));
  counter.reset();
  ASSERT_EQ(group->counters.size(), 1U);
  EXPECT_EQ(group->counters[0]->name, "a");
}

TEST(CounterGroup, ProviderDecidesOnNewCounters) {
  const qvx_counter_provider_ops ops{"provider", nullptr, accept_visible, nullptr, nullptr};
  const CounterGroupPtr group(test::make_group(0, 1, {}));
  group->provider_ops = &ops;
  const CounterInfoPtr counter = test::make_counter("a", QVX_COUNTER_INT64);
  EXPECT_TRUE(qvx_counter_group_add_counter(group.get(), counter.get()));
  counter->hidden = 1;
  EXPECT_FALSE(qvx_counter_group_add_counter(group.get(), counter.get()));
  const qvx_counter_provider_ops strict{"provider", nullptr, refuse, nullptr, nullptr};
  counter->hidden = 0;
  group->provider_ops = &strict;
  EXPECT_FALSE(qvx_counter_group_add_counter(group.get(), counter.get()));
  EXPECT_EQ(group->counters.size(), 1U);
  const qvx_counter_provider_ops indifferent{"provider", nullptr, nullptr, nullptr, nullptr};
  group->provider_ops = &indifferent;
  EXPECT_TRUE(qvx_counter_group_add_counter(group.get(), counter.get()));
  EXPECT_EQ(group->counters.size(), 2U);
  group->provider_ops = nullptr;
}

TEST(CounterGroup, AddingWithoutMemoryIsReported) {
  const CounterGroupPtr group(test::make_group(0, 1, {}));
  const CounterInfoPtr counter = test::make_counter("a", QVX_COUNTER_INT64);
  const test::LastMessage last;
  for (const std::size_t successes : {0U, 1U}) {
    bool added = true;
    {
      const test::FailingAllocations failing(successes);
      added = qvx_counter_group_add_counter(group.get(), counter.get());
    }
    EXPECT_FALSE(added);
    EXPECT_EQ(last.get(),
              (LogMessage{QVX_LOG_ERROR, successes == 0 ? "Failed to allocate array of 1 counter pointers"
                                                        : "Deep copy of the counter failed"}));
    group->counters.shrink_to_fit();
  }
  EXPECT_TRUE(group->counters.empty());
}

TEST(CounterGroup, FreeingReportsAMissingCounter) {
  const LogCapture log;
  qvx_counter_group* const group = test::make_group(0, 1, {{"a", QVX_COUNTER_INT64}});
  group->counters.push_back(nullptr);
  qvx_free_counter_group(group);
  qvx_free_counter_group(nullptr);
  ASSERT_EQ(log.messages().size(), 1U);
  EXPECT_EQ(log.messages()[0].level, QVX_LOG_WARNING);
  EXPECT_EQ(log.messages()[0].text.rfind("on counter_group, qvx_free_counter_group ", 0), 0U);
  EXPECT_NE(log.messages()[0].text.find(" attempted to free NULL ptr"), std::string::npos);
}

TEST(CounterGroup, ProviderFreesItsGroups) {
  const qvx_counter_provider_ops ops{"provider", count_and_free, nullptr, nullptr, nullptr};
  destroyed_groups = 0;
  {
    const CounterGroupPtr with_hook(test::make_group(0, 1, {}));
    with_hook->provider_ops = &ops;
    const CounterGroupPtr without(test::make_group(0, 1, {}));
  }
  EXPECT_EQ(destroyed_groups, 1);
}

TEST(CounterGroup, DisplayNameIsTheNameElseTheProviders) {
  const qvx_counter_provider_ops ops{"provider", nullptr, nullptr, nullptr, nullptr};
  qvx_counter_group group;
  EXPECT_EQ(counter_group_display_name(group), nullptr);
  group.provider_ops = &ops;
  EXPECT_STREQ(counter_group_display_name(group), "provider");
  group.name = "cpu";
  EXPECT_STREQ(counter_group_display_name(group), "cpu");
}

TEST(CounterGroup, ListHasALinePerCounter) {
  const CounterGroupPtr group(
      test::make_group(1, 4, {{"load", QVX_COUNTER_FP64}, {"a name of more than 20", QVX_COUNTER_INT64}}));
  group->counters[1]->description = std::string(50, 'd');
  test::CapturedStream stream;
  qvx_counter_group_print_list(stream.file(), group.get());
  EXPECT_EQ(stream.text(),
            "------------------------------------------\n"
            "| Granularity per CPU (4 counter sets) \n"
            "------------------------------------------\n"
            "|  # | Active counter       | Description                             \n"
            "------------------------------------------\n"
            "|  0 | load                 | about it                                \n"
            "|  1 | a name of more than 20 | dddddddddddddddddddddddddddddddddddddddd\n"
            "------------------------------------------\n");
}

TEST(CounterGroup, RoomForCountersAndGroupsDoubles) {
  qvx_counter_group group;
  const CounterInfoPtr counter = test::make_counter("a", QVX_COUNTER_INT64);
  const CountersSchemaPtr schema(qvx_counters_schema_create());
  std::set<std::size_t> counter_rooms;
  std::set<std::size_t> group_rooms;
  for (int i = 0; i < 1000; ++i) {
    ASSERT_TRUE(qvx_counter_group_add_counter(&group, counter.get()));
    counter_rooms.insert(group.counters.capacity());
    ASSERT_TRUE(qvx_counters_schema_add_group(schema.get(), new qvx_counter_group));
    group_rooms.insert(schema->groups.capacity());
  }
  EXPECT_EQ(counter_rooms, (std::set<std::size_t>{8, 16, 32, 64, 128, 256, 512, 1024}));
  EXPECT_EQ(group_rooms, counter_rooms);
}

TEST(CounterGroup, ListNeedsNoMemory) {
  const CounterGroupPtr group(
      test::make_group(0, 1, {{"a name that no string keeps within itself", QVX_COUNTER_FP64}, {"b", 0}}));
  group->counters[1]->name.reset();
  group->counters[1]->description.reset();
  test::CapturedStream stream;
  {
    const test::FailingAllocations none(0);
    qvx_counter_group_print_list(stream.file(), group.get());
  }
  EXPECT_EQ(stream.text(),
            "------------------------------------------\n"
            "| Granularity per NODE (1 counter sets) \n"
            "------------------------------------------\n"
            "|  # | Active counter       | Description                             \n"
            "------------------------------------------\n"
            "|  0 | a name that no string keeps within itself | about it                                \n"
            "|  1 |                      |                                         \n"
            "------------------------------------------\n");
}

}  // namespace
}  // namespace qvx
