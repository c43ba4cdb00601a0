#include "qvx/counters/counter_data.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "tests/support/counters_builder.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/log_capture.h"

namespace qvx {
namespace {

using test::LogCapture;

TEST(CounterData, CopyOwnsItsTextsAndHasEveryNumber) {
  CounterInfoPtr counter = test::make_counter("load", QVX_COUNTER_FP64, 8);
  counter->units = "percent";
  counter->counting_type = 1;
  counter->offset = 24;
  counter->hidden = 1;
  counter->mandatory = 1;
  const CounterInfoPtr copy(qvx_counter_info_copy(counter.get()));
  counter->name = "changed";
  counter.reset();
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->name, "load");
  EXPECT_EQ(copy->description, "about it");
  EXPECT_EQ(copy->units, "percent");
  EXPECT_EQ(copy->data_type, 2U);
  EXPECT_EQ(copy->counting_type, 1U);
  EXPECT_EQ(copy->offset, 24U);
  EXPECT_EQ(copy->length, 8U);
  EXPECT_EQ(copy->hidden, 1);
  EXPECT_EQ(copy->mandatory, 1);
}

TEST(CounterData, CopyingGivesNothingWithoutMemory) {
  const CounterInfoPtr counter = test::make_counter("a name that needs memory of its own", QVX_COUNTER_FP64);
  for (const std::size_t successes : {0U, 1U}) {
    CounterInfoPtr copy;
    {
      const test::FailingAllocations failing(successes);
      copy.reset(qvx_counter_info_copy(counter.get()));
    }
    EXPECT_EQ(copy, nullptr) << successes;
  }
}

TEST(CounterData, FreeingReportsEachMissingText) {
  const LogCapture log;
  auto* const counter = new qvx_counter_info;
  counter->description = "";
  qvx_destroy_counter_info(counter);
  ASSERT_EQ(log.messages().size(), 2U);
  const std::string head = "on counter_data, qvx_destroy_counter_info ";
  const std::string tail = " attempted to free NULL ptr";
  for (const test::LogMessage& message : log.messages()) {
    EXPECT_EQ(message.level, QVX_LOG_WARNING);
    const std::string& text = message.text;
    ASSERT_GT(text.size(), head.size() + tail.size());
    EXPECT_EQ(text.substr(0, head.size()), head);
    EXPECT_EQ(text.substr(text.size() - tail.size()), tail);
    EXPECT_GT(std::stoi(text.substr(head.size())), 0);
  }
}

TEST(CounterData, FreeingNothingOrAWholeCounterIsSilent) {
  const LogCapture log;
  qvx_destroy_counter_info(nullptr);
  test::make_counter("a", QVX_COUNTER_INT64).reset();
  EXPECT_TRUE(log.messages().empty());
}

TEST(CounterData, LineHasColumnsOf40And60Characters) {
  const CounterInfoPtr counter = test::make_counter("load", QVX_COUNTER_FP64);
  EXPECT_EQ(qvx_counter_line(counter.get()),
            "| load                                     | "
            "about it                                                     |\n");
  counter->name = std::string(45, 'n');
  counter->description = std::string(70, 'd');
  EXPECT_EQ(qvx_counter_line(counter.get()),
            "| " + std::string(45, 'n') + " | " + std::string(60, 'd') + " |\n");
}

TEST(CounterData, ThereIsNoLineWhenMemoryIsShort) {
  const CounterInfoPtr counter = test::make_counter("load", QVX_COUNTER_FP64);
  const std::uint32_t level = qvx_logger_set_level(0);  // the capture needs memory itself
  {
    const test::FailingAllocations none(0);
    EXPECT_FALSE(qvx_counter_line(counter.get()).has_value());
  }
  qvx_logger_set_level(level);
}

TEST(CounterData, LineOfACounterWithoutTextsIsBlank) {
  const qvx_counter_info counter;
  EXPECT_EQ(qvx_counter_line(&counter).value_or(""),
            "|" + std::string(42, ' ') + "|" + std::string(62, ' ') + "|\n");
}

TEST(CounterData, DataTypesAreNamed) {
  EXPECT_EQ(counter_data_type_from_name("Undefined"), 0U);
  EXPECT_EQ(counter_data_type_from_name("UINT64"), 1U);
  EXPECT_EQ(counter_data_type_from_name("FP64"), 2U);
  EXPECT_EQ(counter_data_type_from_name("BIT64"), 3U);
  EXPECT_EQ(counter_data_type_from_name("INT64"), 4U);
  EXPECT_EQ(counter_data_type_from_name("STRING"), 5U);
  EXPECT_EQ(counter_data_type_from_name("string"), 0xFFFFFFFFU);
  EXPECT_EQ(counter_data_type_from_name(""), 0xFFFFFFFFU);
  EXPECT_STREQ(counter_data_type_name(0), "Undefined");
  EXPECT_STREQ(counter_data_type_name(5), "STRING");
  EXPECT_EQ(counter_data_type_name(6), nullptr);
  EXPECT_EQ(counter_data_type_name(0xFFFFFFFF), nullptr);
}

TEST(CounterData, CountingTypesDoNotKnowTheMonotonicName) {
  EXPECT_EQ(counter_counting_type_from_name("ABSOLUTE"), 0U);
  EXPECT_EQ(counter_counting_type_from_name("RUNNING_SUM"), 1U);
  EXPECT_EQ(counter_counting_type_from_name("ABSOLUTE_MONOTONIC"), 0xFFFFFFFFU);
  EXPECT_STREQ(counter_counting_type_name(1), "RUNNING_SUM");
  EXPECT_EQ(counter_counting_type_name(2), nullptr);
}

TEST(CounterData, GranularitiesAreNamed) {
  EXPECT_EQ(granularity_from_name("NODE"), 0U);
  EXPECT_EQ(granularity_from_name("CPU"), 1U);
  EXPECT_EQ(granularity_from_name("PACKAGE"), 2U);
  EXPECT_EQ(granularity_from_name("CORE"), 0xFFFFFFFFU);
  EXPECT_STREQ(granularity_name(2), "PACKAGE");
  EXPECT_EQ(granularity_name(3), nullptr);
}

}  // namespace
}  // namespace qvx
