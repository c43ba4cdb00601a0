#include "qvx/plan/record_plan.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/data/schema/record_influx.h"
#include "qvx/data/schema/record_json.h"
#include "qvx/support/output_sink.h"
#include "tests/support/memory_limit.h"
#include "tests/support/record_bytes.h"
#include "tests/support/type_set.h"

namespace qvx {
namespace {

using test::MemoryLimit;
using test::RecordBytes;
using test::TypeSet;

class RecordPlanTest : public testing::Test {
 protected:
  TypeSet types_;
};

// Text longer than the plan writes in one piece.

TEST_F(RecordPlanTest, LargeArrayIsWrittenInPieces) {
  qvx_type_definition& type = types_.make();
  types_.add(type, "a", "uint8_t", 60000);
  std::string expected = R"({"a":[1)";
  for (int i = 1; i < 60000; ++i)
    expected += ",1";
  expected += "]}";
  const std::vector<std::byte> record(60000, std::byte{1});
  const std::optional<RecordPlan> plan = compile_json_plan(type, json::Style::compact, "");
  std::string text;
  {
    OutputSink sink(text, 16);
    EXPECT_TRUE(plan->write(record, "before ", sink));
    sink.write(" after");
  }
  EXPECT_EQ(text, "before " + expected + " after");
}

TEST_F(RecordPlanTest, LargeTextIsWrittenInPieces) {
  qvx_type_definition& type = types_.make();
  types_.add(type, "a", "char", 200000);
  const std::vector<std::byte> record(200000, std::byte{'"'});
  std::string expected = R"({"a":")";
  for (int i = 0; i < 200000; ++i)
    expected += "\\\"";
  EXPECT_EQ(compile_json_plan(type, json::Style::compact, "")->text(record), expected + "\"}");
  EXPECT_EQ(compile_influx_plan(type)->text(record), "a=\"" + std::string(200000, '"') + "\"\n");
}

TEST_F(RecordPlanTest, LargeArrayOfRecordsIsWrittenInPieces) {
  qvx_type_definition& point = types_.make("point");
  types_.add(point, "x", "int8_t");
  types_.add(point, "y", "uint16_t");
  qvx_type_definition& type = types_.make();
  types_.add(type, "p", point, 5000);
  RecordBytes record;
  std::string json = R"({"p":[)";
  std::string influx;
  for (int i = 0; i < 5000; ++i) {
    record.add(std::int8_t{-2}).add(std::uint16_t{300});
    json += i > 0 ? "," : "";
    json += R"({"x":-2,"y":300})";
    influx += i > 0 ? "," : "";
    influx += "p." + std::to_string(i) + ".x=-2i,p." + std::to_string(i) + ".y=300i";
  }
  EXPECT_EQ(compile_json_plan(type, json::Style::compact, "\n")->text(record.bytes()), json + "]}\n");
  EXPECT_EQ(compile_influx_plan(type)->text(record.bytes()), influx + "\n");
}

TEST_F(RecordPlanTest, LargeRecordThatFailsAtItsEndLeavesNothing) {
  qvx_type_definition& point = types_.make("point");
  types_.add(point, "x", "float", 2);
  qvx_type_definition& type = types_.make();
  types_.add(type, "p", point, 5000);
  types_.add(type, "end", "double");
  const std::optional<RecordPlan> plan = compile_json_plan(type, json::Style::compact, "");
  for (const int bad : {0, 9999, 10000}) {
    RecordBytes record;
    for (int i = 0; i < 10000; ++i)
      record.add(i == bad ? std::numeric_limits<float>::infinity() : 1.0F);
    record.add(bad == 10000 ? std::numeric_limits<double>::quiet_NaN() : 1.0);
    std::string text;
    {
      OutputSink sink(text, 16);
      EXPECT_FALSE(plan->write(record.bytes(), "before", sink));
    }
    EXPECT_EQ(text, "") << bad;
  }
}

TEST_F(RecordPlanTest, RecordThatFailsLeavesWhatWasWrittenBefore) {
  qvx_type_definition& type = types_.make();
  types_.add(type, "a", "uint8_t");
  types_.add(type, "b", "double");
  const std::optional<RecordPlan> plan = compile_json_plan(type, json::Style::compact, "");
  const RecordBytes good = RecordBytes().add(std::uint8_t{1}).add(2.5);
  const RecordBytes bad = RecordBytes().add(std::uint8_t{1}).add(std::numeric_limits<double>::quiet_NaN());
  std::string text;
  {
    OutputSink sink(text);
    EXPECT_TRUE(plan->write(good.bytes(), "", sink));
    EXPECT_FALSE(plan->write(bad.bytes(), ",", sink));
    EXPECT_TRUE(plan->write(good.bytes(), ",", sink));
  }
  EXPECT_EQ(text, R"({"a":1,"b":2.5},{"a":1,"b":2.5})");
}

// Records one after the other.

TEST_F(RecordPlanTest, RecordsHaveOneTextAheadOfTheFirstAndAnotherAheadOfTheOthers) {
  qvx_type_definition& type = types_.make();
  types_.add(type, "a", "uint8_t");
  types_.add(type, "b", "uint8_t");
  const std::optional<RecordPlan> plan = compile_json_plan(type, json::Style::compact, "\n");
  const RecordBytes records =
      RecordBytes().add(std::uint8_t{1}).add(std::uint8_t{2}).add(std::uint8_t{3}).add(std::uint8_t{4});
  std::string text;
  {
    OutputSink sink(text);
    EXPECT_EQ(plan->write_all({records.bytes(), 2, 2}, "first ", "next ", sink), 2U);
    EXPECT_EQ(plan->write_all({records.bytes(), 2, 1}, "", "next ", sink), 1U);
    EXPECT_EQ(plan->write_all({records.bytes(), 2, 0}, "first ", "next ", sink), 0U);
  }
  EXPECT_EQ(text, "first {\"a\":1,\"b\":2}\nnext {\"a\":3,\"b\":4}\n{\"a\":1,\"b\":2}\n");
}

TEST_F(RecordPlanTest, RecordsAreWrittenUpToTheFirstThatCannotBe) {
  qvx_type_definition& type = types_.make();
  types_.add(type, "b", "double");
  const std::optional<RecordPlan> plan = compile_json_plan(type, json::Style::compact, "");
  const RecordBytes records =
      RecordBytes().add(1.5).add(2.5).add(std::numeric_limits<double>::infinity()).add(3.5);
  std::string text;
  {
    OutputSink sink(text);
    EXPECT_EQ(plan->write_all({records.bytes(), 8, 4}, "", ",", sink), 2U);
    sink.write("|");
    EXPECT_EQ(plan->write_all({Bytes(records.bytes()).first(15), 8, 2}, "", ",", sink), 1U);
  }
  EXPECT_EQ(text, "{\"b\":1.5},{\"b\":2.5}|{\"b\":1.5}");
}

TEST_F(RecordPlanTest, LargeRecordsAreWrittenUpToTheFirstThatCannotBe) {
  qvx_type_definition& type = types_.make();
  types_.add(type, "a", "char", 70000);
  types_.add(type, "b", "double");
  const std::optional<RecordPlan> plan = compile_json_plan(type, json::Style::compact, "");
  std::vector<std::byte> records(2 * 70008);
  store_le(records.data() + 70000, 1.0);
  store_le(records.data() + 70008 + 70000, std::numeric_limits<double>::infinity());
  std::string text;
  {
    OutputSink sink(text);
    EXPECT_EQ(plan->write_all({records, 70008, 2}, "first ", "next ", sink), 1U);
  }
  EXPECT_EQ(text, "first {\"a\":\"\",\"b\":1}");
}

// Types that claim more than any record holds. None may cost noticeable time or memory.
class RecordPlanLimitTest : public RecordPlanTest {
 protected:
  struct Outcome {
    bool compact;
    bool pretty;
    bool influx;
    bool operator==(const Outcome&) const = default;
  };
  static constexpr Outcome kNone{false, false, false};

  // Which of the forms a record of 1000 zeros has.
  static Outcome forms(const qvx_type_definition& type, std::size_t size = 1000) {
    const std::vector<std::byte> record(size);
    const std::clock_t start = std::clock();
    Outcome outcome{};
    {
      std::optional<MemoryLimit> limit;
      if (MemoryLimit::kSupported) limit.emplace();
      outcome.compact = qvx_record_to_json(&type, record, json::Style::compact).has_value();
      outcome.pretty = qvx_record_to_json(&type, record, json::Style::pretty).has_value();
      outcome.influx = qvx_record_to_influx(&type, record).has_value();
    }
    EXPECT_LT(std::clock() - start, 5 * CLOCKS_PER_SEC);
    return outcome;
  }
};

TEST_F(RecordPlanLimitTest, TypeThatContainsItselfHasNoText) {
  qvx_type_definition& type = types_.make();
  types_.add(type, "a", "uint8_t");
  types_.add(type, "self", type);
  EXPECT_EQ(forms(type), kNone);
}

TEST_F(RecordPlanLimitTest, TypesThatContainEachOtherHaveNoText) {
  qvx_type_definition& first = types_.make("first");
  qvx_type_definition& second = types_.make("second");
  types_.add(first, "a", second, 3);
  types_.add(second, "b", first, 3);
  EXPECT_EQ(forms(first), kNone);
}

TEST_F(RecordPlanLimitTest, LongNameOfATypeThatContainsItselfIsNotMultiplied) {
  qvx_type_definition& type = types_.make();
  types_.add(type, std::string(1 << 20, 'n'), type);
  EXPECT_EQ(forms(type), kNone);
}

TEST_F(RecordPlanLimitTest, ManyFieldsOfATypeThatContainsItselfAreNotMultiplied) {
  qvx_type_definition& type = types_.make();
  types_.add(type, "self", type);
  for (int i = 0; i < 20000; ++i)
    types_.add(type, std::to_string(i), "uint8_t");
  EXPECT_EQ(forms(type), kNone);
}

TEST_F(RecordPlanLimitTest, HiddenTypeThatContainsItselfHasNoText) {
  qvx_type_definition& type = types_.make();
  types_.add(type, "a", type);
  types_.add(type, "a", "uint8_t");
  EXPECT_EQ(forms(type), kNone);
}

TEST_F(RecordPlanLimitTest, TypesThatDoubleAtEachLevelHaveNoText) {
  const qvx_type_definition* level = &types_.builtin("uint8_t");
  for (int i = 0; i < 250; ++i) {
    qvx_type_definition& next = types_.make();
    types_.add(next, "a", *level);
    types_.add(next, "b", *level);
    for (const auto& field : next.fields)
      field->offset = 0;
    next.size = 1;
    level = &next;
  }
  EXPECT_EQ(forms(*level), kNone);
}

TEST_F(RecordPlanLimitTest, NestedArraysOfEmptyTypesHaveNoText) {
  const qvx_type_definition* level = &types_.make("empty");
  for (int i = 0; i < 20; ++i) {
    qvx_type_definition& next = types_.make();
    types_.add(next, "a", *level, 65535);
    level = &next;
  }
  EXPECT_EQ(forms(*level), kNone);
}

// What the values of a record take together may be 16 × the size that its type declares, and 1,024 bytes
// more.

TEST_F(RecordPlanLimitTest, ObjectsWithoutMembersCountForAByteEach) {
  qvx_type_definition& most = types_.make();
  types_.add(most, "a", types_.make("empty"), 1024);
  EXPECT_EQ(forms(most, 0), (Outcome{true, true, true}));
  qvx_type_definition& more = types_.make();
  types_.add(more, "a", types_.make("empty"), 1025);
  EXPECT_EQ(forms(more, 1000000), kNone);
  more.size = 1;
  EXPECT_EQ(forms(more, 1), (Outcome{true, true, true}));
  more.fields[0]->array_length = 0xFFFFFFFF;
  EXPECT_EQ(forms(more), kNone);
}

TEST_F(RecordPlanLimitTest, ElementsThatShareTheirBytesAreCountedSingly) {
  qvx_type_definition& type = types_.make();
  types_.add(type, "a", "uint32_t", 272).type_size = 0;
  type.size = 4;
  EXPECT_EQ(forms(type, 3), kNone);
  EXPECT_EQ(forms(type, 4), (Outcome{true, true, true}));
  type.fields[0]->array_length = 273;
  EXPECT_EQ(forms(type, 1000000), kNone);
  qvx_type_definition& point = types_.make("point");
  types_.add(point, "x", "uint8_t");
  qvx_type_definition& path = types_.make();
  types_.add(path, "p", point, 1040).type_size = 0;
  path.size = 1;
  EXPECT_EQ(forms(path, 1), (Outcome{true, true, true}));
  path.fields[0]->array_length = 1041;
  EXPECT_EQ(forms(path, 1000000), kNone);
}

TEST_F(RecordPlanLimitTest, TextsAreCountedByTheirLength) {
  qvx_type_definition& type = types_.make();
  types_.add(type, "a", "char", 520);
  types_.add(type, "b", "char", 520).offset = 0;
  types_.add(type, "c", "uint8_t").offset = 0;
  type.size = 1;
  EXPECT_EQ(forms(type, 520), kNone);
  type.fields.pop_back();
  EXPECT_EQ(forms(type, 519), kNone);
  EXPECT_EQ(forms(type, 520), (Outcome{true, true, true}));
}

TEST_F(RecordPlanLimitTest, UnionNeedsNoMoreThanTheBytesItShares) {
  qvx_type_definition& type = types_.make();
  types_.add(type, "bits", "uint64_t");
  types_.add(type, "value", "double").offset = 0;
  type.size = 8;
  const RecordBytes record = RecordBytes().add(1.5);
  EXPECT_EQ(qvx_record_to_json(&type, record.bytes(), json::Style::compact),
            R"({"bits":4.6094342186137027e+18,"value":1.5})");
  EXPECT_EQ(qvx_record_to_influx(&type, record.bytes()), "bits=4609434218613702656i,value=1.500000");
}

TEST_F(RecordPlanLimitTest, SmallTypeWithManyLargeFieldsHasNoTextWhateverStandsBehindIt) {
  qvx_type_definition& type = types_.make();
  for (const char* const name : {"a", "b", "c", "d", "e", "f", "g", "h"})
    types_.add(type, name, "uint8_t", 65535).offset = 0;
  type.size = 1;
  EXPECT_EQ(forms(type, 1 << 20), kNone);
}

TEST_F(RecordPlanLimitTest, NestedArraysThatShareTheirBytesHaveNoText) {
  qvx_type_definition& leaf = types_.make("leaf");
  types_.add(leaf, "x", "uint8_t");
  const qvx_type_definition* level = &leaf;
  for (int i = 0; i < 20; ++i) {
    qvx_type_definition& next = types_.make();
    types_.add(next, "a", *level, 65535).type_size = 0;
    level = &next;
  }
  EXPECT_EQ(forms(*level), kNone);
}

TEST_F(RecordPlanLimitTest, OffsetsAndStridesThatWrapAreOutside) {
  constexpr std::uint64_t kEnd = std::numeric_limits<std::uint64_t>::max();
  qvx_type_definition& inner = types_.make("inner");
  types_.add(inner, "x", "uint8_t").offset = 1;
  for (const std::uint64_t offset : {kEnd, kEnd - 1, std::uint64_t{0x1'0000'0000}, std::uint64_t{1000}}) {
    qvx_type_definition& scalar = types_.make();
    types_.add(scalar, "a", "uint8_t").offset = offset;
    EXPECT_EQ(forms(scalar), kNone) << offset;
    qvx_type_definition& nested = types_.make();
    types_.add(nested, "a", inner).offset = offset;
    EXPECT_EQ(forms(nested), kNone) << offset;
    qvx_type_definition& text = types_.make();
    types_.add(text, "a", "char", 2).offset = offset;
    EXPECT_EQ(forms(text), kNone) << offset;
    qvx_type_definition& records = types_.make();
    types_.add(records, "a", inner, 2).type_size = offset;
    EXPECT_EQ(forms(records), kNone) << offset;
    qvx_type_definition& numbers = types_.make();
    types_.add(numbers, "a", "uint8_t", 2).type_size = offset;
    EXPECT_EQ(forms(numbers), (Outcome{false, false, true})) << offset;
  }
}

TEST_F(RecordPlanLimitTest, FiveHundredLevelsHaveATextAndOneMoreHasNone) {
  const auto around = [&](const qvx_type_definition& inner, std::uint32_t array_length) {
    qvx_type_definition& outer = types_.make();
    types_.add(outer, "a", inner, array_length);
    return &outer;
  };
  const qvx_type_definition* level = &types_.builtin("uint8_t");
  for (int i = 0; i < 499; ++i)
    level = around(*level, 1);
  EXPECT_EQ(forms(*around(*level, 1)), (Outcome{true, true, true}));
  EXPECT_EQ(forms(*around(*around(*level, 1), 1)), kNone);
  // An array of records is a level of its own in JSON, where it has brackets; in a field set it has none.
  EXPECT_EQ(forms(*around(*level, 2)), (Outcome{false, false, true}));
  EXPECT_EQ(forms(*around(*around(*level, 1), 2)), kNone);
  // Nor may a record be deeper that a later field of its name hides.
  for (const std::uint32_t array_length : {1U, 2U}) {
    qvx_type_definition& twice = types_.make();
    types_.add(twice, "a", *level, array_length);
    types_.add(twice, "a", "uint8_t");
    EXPECT_EQ(forms(twice), (Outcome{array_length == 1, array_length == 1, true}));
  }
}

TEST_F(RecordPlanLimitTest, WidestTypeOfASchemaHasAText) {
  qvx_type_definition& type = types_.make();
  for (int i = 0; i < 65535; ++i)
    types_.add(type, std::to_string(i), "uint8_t");
  EXPECT_EQ(forms(type, 65535), (Outcome{true, true, true}));
}

}  // namespace
}  // namespace qvx
