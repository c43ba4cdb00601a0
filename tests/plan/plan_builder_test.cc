// Plans put together step by step: what no schema of the other tests asks for.
#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "qvx/plan/record_plan.h"
#include "qvx/support/output_sink.h"
#include "tests/support/record_bytes.h"

namespace qvx {
namespace {

using test::RecordBytes;

std::optional<std::string> text_of(PlanBuilder& builder, Bytes record) {
  const std::optional<RecordPlan> plan = builder.finish();
  return plan ? plan->text(record) : std::nullopt;
}

// Members that may be left out, in a line that is too long to be written in place.
class LongLineTest : public testing::Test {
 protected:
  static constexpr std::uint32_t kLength = 150000;

  // Of a text and a double that are left out, and maybe a number that is not.
  static std::optional<RecordPlan> plan(bool has_number) {
    PlanBuilder builder;
    builder.text("line ");
    builder.structure(StepKind::object_open);
    builder.text(",text=");
    builder.characters(StepKind::optional_influx_text, 9, kLength);
    builder.text(",half=");
    builder.value(StepKind::optional_influx_f64, 1, 8);
    if (has_number) {
      builder.text(",n=");
      builder.structure(StepKind::member);
      builder.value(StepKind::u8, 0, 1);
    }
    builder.structure(StepKind::need_member);
    builder.text("\n");
    return builder.finish();
  }

  static std::string record(double half, char first) {
    RecordBytes bytes;
    bytes.add(std::uint8_t{7}).add(half);
    std::string record(as_text(bytes.bytes()));
    return record + first + std::string(kLength - 1, 'a');
  }
};

TEST_F(LongLineTest, HasTheMembersThatHaveAText) {
  const std::string whole = record(0.5, 'b');
  const std::string text = "text=\"b" + std::string(kLength - 1, 'a') + "\"";
  EXPECT_EQ(plan(false)->text(as_bytes(whole)), "line " + text + ",half=0.500000\n");
  EXPECT_EQ(plan(false)->text(as_bytes(record(std::numeric_limits<double>::infinity(), 'b'))),
            "line " + text + "\n");
  EXPECT_EQ(plan(false)->text(as_bytes(record(0.5, '\xFF'))), "line half=0.500000\n");
}

TEST_F(LongLineTest, WithoutAMemberIsNoneAndLeavesNothing) {
  const std::string none = record(std::numeric_limits<double>::quiet_NaN(), '\xFF');
  std::string text;
  {
    OutputSink sink(text, 16);
    EXPECT_FALSE(plan(false)->write(as_bytes(none), "before", sink));
  }
  EXPECT_EQ(text, "");
  EXPECT_EQ(plan(true)->text(as_bytes(none)), "line n=7\n");
}

TEST(PlanBuilderTest, SeparatorsOfAnyLengthStandBetweenValuesAndRounds) {
  for (const std::size_t size : {31U, 32U, 33U, 64U, 65535U}) {
    const std::string separator = "<" + std::string(size - 2, '-') + ">";
    PlanBuilder builder;
    builder.text("[");
    builder.array(StepKind::u8, 0, 3, 1, 1, separator);
    builder.text("] {");
    builder.structure(StepKind::literal);
    builder.open_loop(0, 2, 2, separator);
    builder.text("v");
    builder.value(StepKind::u8, 1, 1);
    builder.close_loop();
    builder.text("}");
    EXPECT_EQ(text_of(builder, RecordBytes()
                                   .add(std::uint8_t{1})
                                   .add(std::uint8_t{2})
                                   .add(std::uint8_t{3})
                                   .add(std::uint8_t{4})
                                   .bytes()),
              "[1" + separator + "2" + separator + "3] {v2" + separator + "v4}")
        << size;
  }
}

TEST(PlanBuilderTest, SeparatorThatIsTooLongFailsThePlan) {
  const std::string separator(65536, '-');
  PlanBuilder of_array;
  of_array.array(StepKind::u8, 0, 2, 1, 1, separator);
  EXPECT_FALSE(of_array.finish());
  PlanBuilder of_loop;
  of_loop.open_loop(0, 2, 1, separator);
  of_loop.value(StepKind::u8, 0, 1);
  of_loop.close_loop();
  EXPECT_FALSE(of_loop.finish());
}

TEST(PlanBuilderTest, ArrayAndLoopOfNothingNeedNoBytes) {
  PlanBuilder builder;
  builder.text("a[");
  builder.array(StepKind::u64, 100, 0, 8, 8, ",");
  builder.text("] b[");
  builder.structure(StepKind::literal);
  builder.open_loop(100, 0, 8, ",");
  builder.value(StepKind::u64, 0, 8);
  builder.close_loop();
  builder.text("]");
  const std::optional<RecordPlan> plan = builder.finish();
  ASSERT_TRUE(plan);
  EXPECT_EQ(plan->bytes_needed(), 0u);
  EXPECT_EQ(plan->text({}), "a[] b[]");
}

TEST(PlanBuilderTest, TagsAreLeftOutWhenEmptyOrNotPrintable) {
  PlanBuilder builder;
  builder.text("m");
  builder.structure(StepKind::object_open);
  builder.text(",none=");
  builder.characters(StepKind::optional_tag, 0, 0);
  builder.text(",tag=");
  builder.characters(StepKind::optional_tag, 0, 4);
  builder.structure(StepKind::literal);
  const std::optional<RecordPlan> plan = builder.finish();
  const auto text = [&](std::string_view tag) { return plan->text(as_bytes(tag)); };
  EXPECT_EQ(text("a b\x7F"), "mtag=a\\ b");
  EXPECT_EQ(text("ab\\\x1F"), "mtag=ab_");
  EXPECT_EQ(text("\x1F"
                 "abc"),
            "m");
  EXPECT_EQ(text("\x7F"
                 "abc"),
            "m");
  EXPECT_EQ(text("\xC3\xA9z "), "m");
}

TEST(PlanBuilderTest, TextBeyondTheLimitFailsThePlanWhereverItStands) {
  PlanBuilder::Limits limits;
  limits.literals = 10;
  PlanBuilder most(limits);
  most.text("01234", "5678");
  most.structure(StepKind::literal);
  most.text("9");
  EXPECT_EQ(text_of(most, {}), "0123456789");
  PlanBuilder more(limits);
  more.text("01234", "5678");
  more.structure(StepKind::literal);
  more.text("9", "A");
  EXPECT_FALSE(more.finish());
}

// Nothing that comes behind the limit is taken, and no step gets the plan out of it.
TEST(PlanBuilderTest, EveryStepCountsAgainstTheLimitAndIsIgnoredBehindIt) {
  const std::vector<std::function<void(PlanBuilder&)>> steps{
      [](PlanBuilder& to) { to.value(StepKind::u8, 0, 1); },
      [](PlanBuilder& to) { to.characters(StepKind::json_characters, 0, 1); },
      [](PlanBuilder& to) { to.array(StepKind::u8, 0, 1, 1, 1, ","); },
      [](PlanBuilder& to) {
        to.open_loop(0, 1, 1, ",");
        to.close_loop();
      },
      [](PlanBuilder& to) { to.candidate(StepKind::optional_f64, 0, 8); },
      [](PlanBuilder& to) { to.choice(0, 0, 0); },
      [](PlanBuilder& to) { static_cast<void>(to.visit()); },
  };
  PlanBuilder::Limits limits;
  limits.steps = 2;
  for (std::size_t last = 0; last < steps.size(); ++last) {
    PlanBuilder most(limits);
    most.value(StepKind::u8, 0, 1);
    steps[last](most);
    EXPECT_TRUE(most.finish()) << last;
    PlanBuilder more(limits);
    more.value(StepKind::u8, 0, 1);
    more.value(StepKind::u8, 0, 1);
    steps[last](more);
    more.text("behind");
    more.structure(StepKind::literal);
    for (const auto& step : steps)
      step(more);
    EXPECT_FALSE(more.finish()) << last;
  }
}

}  // namespace
}  // namespace qvx
