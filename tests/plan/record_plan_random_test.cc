// Random types and records: the text of a plan is that of the document tree, or neither has one.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/data/schema/record_influx.h"
#include "qvx/data/schema/record_json.h"
#include "qvx/plan/record_plan.h"
#include "qvx/support/json_text.h"
#include "qvx/support/output_sink.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/record_tree.h"
#include "tests/support/type_set.h"

namespace qvx {
namespace {

using test::GuardedBuffer;
using test::TypeSet;

constexpr const char* kBuiltins[] = {"bool",
                                     "char",
                                     "short",
                                     "int",
                                     "long",
                                     "long long",
                                     "unsigned char",
                                     "unsigned short",
                                     "unsigned int",
                                     "unsigned long",
                                     "unsigned long long",
                                     "float",
                                     "double",
                                     "int8_t",
                                     "int16_t",
                                     "int32_t",
                                     "int64_t",
                                     "uint8_t",
                                     "uint16_t",
                                     "uint32_t",
                                     "uint64_t",
                                     "timestamp"};

const std::string kNames[] = {"a",
                              "b",
                              "c",
                              "d",
                              "value",
                              "",
                              "x.y",
                              "with blank, comma=and \"quotes\"",
                              "back\\slash",
                              "/slash/",
                              "\xC3\xA9t\xC3\xA9",
                              "not utf-8 \xFF\xC0",
                              "\n\t\x01\x1F",
                              "a name that is exactly thirty-two",
                              std::string(31, 'k'),
                              std::string(32, 'l'),
                              std::string(100, 'm')};

class Random {
 public:
  explicit Random(std::uint64_t seed) : engine_(seed) {}

  std::uint64_t below(std::uint64_t end) { return engine_() % end; }
  bool one_in(std::uint64_t n) { return below(n) == 0; }
  template <typename T, std::size_t kSize>
  const T& pick(const T (&from)[kSize]) {
    return from[below(kSize)];
  }
  std::uint64_t bits() { return engine_(); }

 private:
  std::mt19937_64 engine_;
};

std::uint32_t random_array_length(Random& random, std::uint64_t element_size) {
  if (!random.one_in(3)) return 1;
  if (random.one_in(12) && element_size <= 8) return static_cast<std::uint32_t>(500 + random.below(4000));
  return static_cast<std::uint32_t>(2 + random.below(element_size > 500 ? 2 : 12));
}

// What a schema claims of a field need not be true.
void lie(Random& random, qvx_field_definition& field) {
  constexpr std::uint64_t kOdd[] = {
      0,     1,          3,           7,           100,
      70000, 0xFFFFFFFF, 0x100000000, 0x100000008, std::numeric_limits<std::uint64_t>::max()};
  switch (random.below(4)) {
    case 0:
      field.offset = random.pick(kOdd);
      break;
    case 1:
      field.type_size = random.pick(kOdd);
      break;
    default:
      field.offset = random.below(16);
      field.type_size = random.below(16);
      break;
  }
}

const qvx_type_definition& random_type(Random& random, TypeSet& types) {
  constexpr std::uint64_t kMaxSize = 20000;
  std::vector<qvx_type_definition*> made;
  const bool lies = random.one_in(4);
  const std::uint64_t count = 1 + random.below(4);
  for (std::uint64_t i = 0; i < count; ++i) {
    qvx_type_definition& type = types.make();
    const std::uint64_t fields = random.one_in(10) ? 0 : 1 + random.below(8);
    for (std::uint64_t k = 0; k < fields && type.size < kMaxSize; ++k) {
      const std::string& name = random.pick(kNames);
      const bool composite = !made.empty() && random.one_in(3);
      const qvx_type_definition& field_type =
          composite ? *made[random.below(made.size())] : types.builtin(random.pick(kBuiltins));
      const bool characters = (field_type.id == 2 || field_type.id == 7) && random.one_in(2);
      const std::uint32_t length = characters ? static_cast<std::uint32_t>(2 + random.below(40))
                                              : random_array_length(random, field_type.size);
      qvx_field_definition& field = types.add(type, name, field_type, length);
      if (lies && random.one_in(4)) lie(random, field);
    }
    made.push_back(&type);
  }
  return *made.back();
}

void put(std::vector<std::byte>& bytes, std::size_t at, std::uint64_t value) {
  const std::size_t size = std::min<std::size_t>(8, bytes.size() - at);
  std::memcpy(bytes.data() + at, &value, size);
}

std::uint64_t bits_of(double value) {
  std::uint64_t bits = 0;
  std::memcpy(&bits, &value, sizeof bits);
  return bits;
}

std::vector<std::byte> random_record(Random& random, std::uint64_t size) {
  const std::uint64_t special[] = {bits_of(-0.0),
                                   bits_of(0.1),
                                   bits_of(1e17),
                                   bits_of(99999999999999984.0),
                                   bits_of(5e-324),
                                   bits_of(1.7976931348623157e308),
                                   bits_of(-123456.789),
                                   0,
                                   (std::uint64_t{1} << 53) + 1,
                                   0x7FFFFFFFFFFFFFFF,
                                   0x8000000000000000,
                                   0x6F6F207365796173,
                                   0x2221205C7E20415C,
                                   0x41017E1F7F80FF00};
  std::vector<std::byte> bytes(size);
  const bool wild = random.one_in(4);  // NaN and infinities turn up
  for (std::size_t at = 0; at < bytes.size(); at += wild ? 8 : 1 + random.below(8)) {
    std::uint64_t value = random.one_in(2) ? random.pick(special) : random.below(100000);
    if (wild) value = random.bits();
    if (random.one_in(3)) value &= 0x7F7F7F7F7F7F7F7F;
    put(bytes, at, value);
  }
  constexpr double kNoNumbers[] = {
      std::numeric_limits<double>::quiet_NaN(), -std::numeric_limits<double>::quiet_NaN(),
      std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity()};
  if (random.one_in(8) && size > 0) put(bytes, random.below(size), bits_of(random.pick(kNoNumbers)));
  return bytes;
}

std::uint64_t random_size(Random& random, const qvx_type_definition& type) {
  switch (random.below(6)) {
    case 0:
      return type.size - std::min(type.size, random.below(3));
    case 1:
      return type.size + random.below(40);
    case 2:
      return type.size + 70100;
    default:
      return type.size;
  }
}

// Writes the record through sinks of several sizes, behind a text that must stay in any case.
void expect_written(const RecordPlan& plan, Bytes record, const std::optional<std::string>& expected) {
  for (const std::size_t capacity : {std::size_t{1}, std::size_t{100}, OutputSink::kDefaultCapacity}) {
    std::string text;
    bool written = false;
    {
      OutputSink sink(text, capacity);
      sink.write("kept");
      written = plan.write(record, ",\n", sink);
      sink.write("|");
    }
    ASSERT_EQ(written, expected.has_value());
    ASSERT_EQ(text, expected ? "kept,\n" + *expected + "|" : "kept|");
  }
}

struct Tally {
  int written = 0;
  int refused = 0;
};

void check_json(const qvx_type_definition& type, Bytes record, json::Style style, Tally& tally) {
  const std::optional<json::Value> tree = test::record_tree(type, record);
  std::optional<std::string> expected = tree ? json::to_text(*tree, style) : std::nullopt;
  if (expected) *expected += "\n";
  const std::optional<RecordPlan> plan = compile_json_plan(type, style, "\n");
  ASSERT_EQ(plan ? plan->text(record) : std::nullopt, expected);
  if (plan) expect_written(*plan, record, expected);
  ++(expected ? tally.written : tally.refused);
}

void check_influx(const qvx_type_definition& type, Bytes record, Tally& tally) {
  std::optional<std::string> expected = test::record_influx_text(type, record);
  const std::optional<RecordPlan> plan = compile_influx_plan(type);
  ASSERT_EQ(qvx_record_to_influx(&type, record), expected);
  if (expected) *expected += "\n";
  ASSERT_EQ(plan ? plan->text(record) : std::nullopt, expected);
  if (plan) expect_written(*plan, record, expected);
  ++(expected ? tally.written : tally.refused);
}

class RecordPlanRandomTest : public testing::TestWithParam<int> {};

TEST_P(RecordPlanRandomTest, PlanWritesTheTextOfTheDocumentTree) {
  constexpr int kCases = 500;
  Tally json_tally;
  Tally influx_tally;
  for (int i = 0; i < kCases; ++i) {
    const std::uint64_t seed =
        static_cast<std::uint64_t>(GetParam()) * kCases + static_cast<std::uint64_t>(i);
    SCOPED_TRACE("seed " + std::to_string(seed));
    Random random(seed);
    TypeSet types;
    const qvx_type_definition& type = random_type(random, types);
    const GuardedBuffer record(random_record(random, random_size(random, type)),
                               random.one_in(2) ? test::Guard::kBehind : test::Guard::kBefore);
    check_json(type, record.bytes(), json::Style::compact, json_tally);
    check_json(type, record.bytes(), json::Style::pretty, json_tally);
    check_influx(type, record.bytes(), influx_tally);
    if (HasFatalFailure()) return;
  }
  // Both outcomes must be common, or nothing was compared.
  EXPECT_GT(json_tally.written, kCases / 2);
  EXPECT_GT(json_tally.refused, kCases / 10);
  EXPECT_GT(influx_tally.written, kCases / 4);
  EXPECT_GT(influx_tally.refused, kCases / 20);
}

INSTANTIATE_TEST_SUITE_P(Seeds, RecordPlanRandomTest, testing::Range(0, 8));

TEST(RecordPlanRandom, NoBytesBehindTheRecordAreReadWhateverItsSize) {
  for (std::uint64_t seed = 100000; seed < 100060; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Random random(seed);
    TypeSet types;
    const qvx_type_definition& type = random_type(random, types);
    if (type.size > 400) continue;
    const std::vector<std::byte> whole = random_record(random, type.size + 20);
    const std::optional<RecordPlan> json = compile_json_plan(type, json::Style::compact, "");
    const std::optional<RecordPlan> influx = compile_influx_plan(type);
    ASSERT_EQ(json.has_value(), influx.has_value());
    if (!json) continue;
    test::for_every_truncation(whole, [&](Bytes record) {
      const std::optional<json::Value> tree = test::record_tree(type, record);
      ASSERT_EQ(json->text(record), tree ? json::to_text(*tree, json::Style::compact) : std::nullopt);
      const std::optional<std::string> line = test::record_influx_text(type, record);
      ASSERT_EQ(influx->text(record), line ? std::optional<std::string>(*line + "\n") : std::nullopt);
    });
  }
}

}  // namespace
}  // namespace qvx
