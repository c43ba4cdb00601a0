#include "qvx/counters/counters_json.h"

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "qvx/support/json_parse.h"
#include "qvx/support/json_text.h"
#include "tests/support/allocation_sweep.h"
#include "tests/support/captured_stream.h"
#include "tests/support/counters_builder.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace qvx {
namespace {

using test::LogCapture;
using test::LogMessage;
using test::make_group;
using test::make_schema;
using test::TempDir;

using Texts = std::vector<std::string>;

constexpr const char* kPretty = R"({
    "title": "Quorvex performance counters collector",
    "version": "1.5.0",
    "counter_groups": [
        {
            "granularity": "CPU",
            "name": "cpu",
            "provider": "perf",
            "num_counter_sets": 2,
            "num_counters": 2,
            "counters": [
                {
                    "name": "load",
                    "description": "how busy",
                    "units": "percent",
                    "data_type": "FP64",
                    "length": 0,
                    "offset": 0,
                    "hidden": 0,
                    "mandatory": 1,
                    "counting_type": "ABSOLUTE"
                },
                {
                    "name": "model",
                    "description": "",
                    "units": "",
                    "data_type": "STRING",
                    "length": 32,
                    "offset": 8,
                    "hidden": 1,
                    "mandatory": 0,
                    "counting_type": "RUNNING_SUM"
                }
            ]
        },
        {
            "granularity": "NODE",
            "num_counter_sets": 1,
            "num_counters": 0,
            "counters": []
        }
    ]
})";

std::string counter(const std::string& more = "") {
  return R"({"name":"c","description":"d","units":"u","data_type":"UINT64","counting_type":"ABSOLUTE")" +
         more + "}";
}
std::string group(const std::string& counters, const std::string& more = "") {
  return R"({"granularity":"NODE","num_counters":7,"num_counter_sets":1,"counters":[)" + counters + "]" +
         more + "}";
}
std::string schema_text(const std::string& groups, const std::string& version = "1.5.0") {
  return R"({"version":")" + version + R"(","counter_groups":[)" + groups + "]}";
}

class CountersJsonTest : public testing::Test {
 protected:
  CountersSchemaPtr read(const std::string& text) {
    log_.clear();
    return CountersSchemaPtr(qvx_counters_schema_from_json_text(text.c_str()));
  }
  Texts errors() const { return log_.texts(QVX_LOG_ERROR); }

  LogCapture log_;
};

TEST_F(CountersJsonTest, SchemaReadAndWrittenAgainIsTheSameText) {
  const CountersSchemaPtr schema = read(kPretty);
  ASSERT_NE(schema, nullptr);
  EXPECT_TRUE(errors().empty());
  EXPECT_EQ(schema->size_of_counters, 40U);
  EXPECT_EQ(qvx_counters_schema_jsonify_text(schema.get()), kPretty);
}

TEST_F(CountersJsonTest, TextIsPrintedWithALineEnd) {
  const CountersSchemaPtr schema = make_schema({});
  test::CapturedStream stream;
  EXPECT_TRUE(qvx_counters_schema_jsonify_print(stream.file(), schema.get()));
  EXPECT_EQ(stream.text(),
            "{\n    \"title\": \"Quorvex performance counters collector\",\n    \"version\": \"1.5.0\",\n"
            "    \"counter_groups\": []\n}\n");
}

TEST_F(CountersJsonTest, GroupOfAProviderIsWrittenUnderItsName) {
  const qvx_counter_provider_ops ops{"ops name", nullptr, nullptr, nullptr, nullptr};
  const CountersSchemaPtr schema = make_schema({make_group(2, 3, {})});
  schema->groups[0]->provider_ops = &ops;
  const std::optional<json::Value> value = qvx_counters_schema_jsonify(schema.get());
  ASSERT_TRUE(value);
  EXPECT_EQ(
      json::to_text(*value, json::Style::compact),
      R"({"title":"Quorvex performance counters collector","version":"1.5.0","counter_groups":[)"
      R"({"granularity":"PACKAGE","name":"ops name","num_counter_sets":3,"num_counters":0,"counters":[]}]})");
}

TEST_F(CountersJsonTest, GroupThatCannotBeWrittenIsNumbered) {
  const CountersSchemaPtr schema = make_schema({make_group(0, 1, {}), make_group(0, 1, {{"a", 77}})});
  log_.clear();
  EXPECT_EQ(qvx_counters_schema_jsonify_text(schema.get()), std::nullopt);
  EXPECT_EQ(errors(),
            (Texts{"Failed to JSONify counter group #1", "Failed to JSONify counters schemaector schema"}));
  test::CapturedStream stream;
  EXPECT_FALSE(qvx_counters_schema_jsonify_print(stream.file(), schema.get()));
  EXPECT_EQ(stream.text(), "");
}

TEST_F(CountersJsonTest, MembersOfACounterAreRead) {
  const CountersSchemaPtr schema = read(
      schema_text(group(counter(R"(,"length":4,"offset":99,"hidden":1,"mandatory":2)") + "," + counter())));
  ASSERT_NE(schema, nullptr);
  ASSERT_EQ(schema->groups[0]->counters.size(), 2U);
  const qvx_counter_info& first = *schema->groups[0]->counters[0];
  EXPECT_EQ(first.name, "c");
  EXPECT_EQ(first.description, "d");
  EXPECT_EQ(first.units, "u");
  EXPECT_EQ(first.data_type, 1U);
  EXPECT_EQ(first.counting_type, 0U);
  EXPECT_EQ(first.length, 4U);
  EXPECT_EQ(first.offset, 0U);
  EXPECT_EQ(first.hidden, 1);
  EXPECT_EQ(first.mandatory, 1);
  EXPECT_EQ(first.reserved, 0U);
  const qvx_counter_info& second = *schema->groups[0]->counters[1];
  EXPECT_EQ(second.length, 0U);
  EXPECT_EQ(second.offset, 4U);
  EXPECT_EQ(second.hidden, 0);
  EXPECT_EQ(second.mandatory, 0);
}

TEST_F(CountersJsonTest, NameAndProviderOfAGroupMayBeAbsent) {
  const CountersSchemaPtr schema =
      read(schema_text(group("", R"(,"name":"n","provider":"p")") + "," + group("", R"(,"name":1)")));
  ASSERT_NE(schema, nullptr);
  EXPECT_EQ(schema->groups[0]->name, "n");
  EXPECT_EQ(schema->groups[0]->provider, "p");
  EXPECT_EQ(schema->groups[1]->name, std::nullopt);
  EXPECT_EQ(schema->groups[1]->provider, std::nullopt);
}

TEST_F(CountersJsonTest, UnknownNamesReadAsUnknown) {
  std::string text = schema_text(group(counter()));
  text.replace(text.find("NODE"), 4, "RACK");
  text.replace(text.find("UINT64"), 6, "UINT32");
  text.replace(text.find("ABSOLUTE"), 8, "ABSOLUTE_MONOTONIC");
  const CountersSchemaPtr schema = read(text);
  ASSERT_NE(schema, nullptr);
  EXPECT_EQ(schema->groups[0]->granularity, 0xFFFFFFFFU);
  EXPECT_EQ(schema->groups[0]->counters[0]->data_type, 0xFFFFFFFFU);
  EXPECT_EQ(schema->groups[0]->counters[0]->counting_type, 0xFFFFFFFFU);
}

TEST_F(CountersJsonTest, OffsetsBehindAnEmptyStringAreTakenAsWritten) {
  std::string empty = counter();
  empty.replace(empty.find("UINT64"), 6, "STRING");
  const CountersSchemaPtr schema =
      read(schema_text(group(counter(R"(,"offset":50)") + "," + empty + "," + counter(R"(,"offset":24)"))));
  ASSERT_NE(schema, nullptr);
  EXPECT_EQ(schema->groups[0]->counters[0]->offset, 0U);
  EXPECT_EQ(schema->groups[0]->counters[2]->offset, 24U);
  EXPECT_EQ(schema->size_of_counters, 16U);
  EXPECT_EQ(errors(),
            Texts{"[qvx_counters_schema_update_counter_offsets] Fail: received 0 length string counter c"});
}

TEST_F(CountersJsonTest, IncompatibleVersionIsReportedAndLoadedAllTheSame) {
  for (const char* const version : {"2.0.0", "1.6.0", "", "none"}) {
    EXPECT_NE(read(schema_text("", version)), nullptr);
    EXPECT_EQ(errors(), Texts{std::string("Version '") + version +
                              "' of parsing schema is incompatible with current schema version '1.5.0'"});
  }
  EXPECT_NE(read(schema_text("", "1.0.9")), nullptr);
  EXPECT_TRUE(errors().empty());
}

TEST_F(CountersJsonTest, AnotherShapeIsRefusedWithTheTemplate) {
  EXPECT_EQ(read("[]"), nullptr);
  EXPECT_EQ(errors(), Texts{R"(JSON does not match schema '{"version" : "", "counter_groups" : []}')"});
  EXPECT_EQ(read(R"({"version":"1.5.0"})"), nullptr);
  EXPECT_EQ(read(R"({"version":1,"counter_groups":[]})"), nullptr);
}

TEST_F(CountersJsonTest, GroupOfAnotherShapeFailsAll) {
  for (const char* const name : {"granularity", "num_counters", "num_counter_sets", "counters"}) {
    std::string broken = group("");
    broken.replace(broken.find(std::string("\"") + name + "\"") + 1, 1, "X");
    EXPECT_EQ(read(schema_text(group("") + "," + broken)), nullptr);
    EXPECT_EQ(errors(), (Texts{R"(JSON does not match schema '{"granularity" : "", "num_counters" : 0, )"
                               R"("num_counter_sets" : 0, "counters" : []}')",
                               "Failed to decode counter group from JSON"}))
        << name;
  }
}

TEST_F(CountersJsonTest, CounterOfAnotherShapeFailsAll) {
  for (const char* const name : {"name", "description", "units", "data_type", "counting_type"}) {
    std::string broken = counter();
    broken.replace(broken.find(std::string("\"") + name + "\"") + 1, 1, "X");
    EXPECT_EQ(read(schema_text(group(counter() + "," + broken))), nullptr);
    EXPECT_EQ(errors(),
              (Texts{R"(JSON does not match schema '{"name" : "", "description" : "", "units" : "", )"
                     R"("data_type" : "", "counting_type" : ""}')",
                     "Failed to decode counter group from JSON"}))
        << name;
  }
}

TEST_F(CountersJsonTest, TextThatIsNoJsonIsReported) {
  EXPECT_EQ(read("{"), nullptr);
  EXPECT_EQ(errors(), Texts{"Failed parsing counters schema JSON from string"});
}

TEST_F(CountersJsonTest, MissingFileIsReportedWithItsReason) {
  const TempDir folder;
  const std::string path = folder.file("none.json");
  EXPECT_EQ(qvx_counters_schema_from_json_file(path.c_str()), nullptr);
  EXPECT_EQ(errors(),
            Texts{"Failed reading counters schema JSON from file '" + path + "': No such file or directory"});
}

TEST_F(CountersJsonTest, SchemaIsLoadedByItsIdentifier) {
  const TempDir folder;
  const std::string path =
      folder.write_file("schema_000102030405060708090a0b0c0d0e0f.json", schema_text(group(counter())));
  qvx_schema_id id;
  for (std::size_t i = 0; i < 16; ++i)
    id.bytes[i] = std::byte(i);
  const CountersSchemaPtr schema(qvx_counters_schema_load_by_id(&id, folder.path().c_str()));
  ASSERT_NE(schema, nullptr);
  EXPECT_EQ(schema->size_of_counters, 8U);
  EXPECT_EQ(log_.messages()[0], (LogMessage{QVX_LOG_DEBUG, "opening counters schema: " + path + "\n"}));
  EXPECT_TRUE(errors().empty());
}

TEST_F(CountersJsonTest, FileOfTheIdentifierThatCannotBeLoadedIsTraced) {
  const TempDir folder;
  qvx_schema_id id;
  id.bytes[0] = std::byte{1};
  EXPECT_EQ(qvx_counters_schema_load_by_id(&id, folder.path().c_str()), nullptr);
  EXPECT_TRUE(log_.has(QVX_LOG_DEBUG, "Failed to load counters schema from file: " +
                                          folder.file("schema_01000000000000000000000000000000.json")));
}

TEST_F(CountersJsonTest, NoIdentifierLoadsNothing) {
  const qvx_schema_id empty;
  EXPECT_EQ(qvx_counters_schema_load_by_id(nullptr, "/"), nullptr);
  EXPECT_EQ(qvx_counters_schema_load_by_id(&empty, "/"), nullptr);
  EXPECT_TRUE(log_.messages().empty());
}

TEST_F(CountersJsonTest, PrintingToAFullDeviceFails) {
  const CountersSchemaPtr schema = make_schema({});
  std::FILE* const full = std::fopen("/dev/full", "w");
  ASSERT_NE(full, nullptr);
  EXPECT_FALSE(qvx_counters_schema_jsonify_print(full, schema.get()));
  std::fclose(full);
}

TEST_F(CountersJsonTest, PrintingFailsWhereverTheStreamTakesNoMore) {
  const CountersSchemaPtr schema = make_schema({});
  const test::CapturedStream printed;
  ASSERT_TRUE(qvx_counters_schema_jsonify_print(printed.file(), schema.get()));
  const std::size_t size = printed.text().size();
  for (std::size_t left = 0; left <= size; ++left) {
    std::size_t room = left;
    const auto take = [](void* cookie, const char*, std::size_t count) -> ssize_t {
      auto& rest = *static_cast<std::size_t*>(cookie);
      if (count > rest) return 0;  // which later, shorter writes are not refused with
      rest -= count;
      return static_cast<ssize_t>(count);
    };
    std::FILE* const stream =
        fopencookie(&room, "w", {.read = nullptr, .write = take, .seek = nullptr, .close = nullptr});
    ASSERT_NE(stream, nullptr);
    std::setvbuf(stream, nullptr, _IONBF, 0);
    EXPECT_EQ(qvx_counters_schema_jsonify_print(stream, schema.get()), left == size) << left;
    std::fclose(stream);
  }
}

// Text is written in pieces of 4 KiB.
TEST_F(CountersJsonTest, PrintingFailsAlthoughTheStreamTakesWhatFollows) {
  const std::string name(6000, 'n');
  const CountersSchemaPtr schema = make_schema({make_group(0, 1, {{name.c_str(), QVX_COUNTER_INT64}})});
  bool refuses = true;
  const auto take = [](void* cookie, const char*, std::size_t count) -> ssize_t {
    return std::exchange(*static_cast<bool*>(cookie), false) ? 0 : static_cast<ssize_t>(count);
  };
  std::FILE* const stream =
      fopencookie(&refuses, "w", {.read = nullptr, .write = take, .seek = nullptr, .close = nullptr});
  ASSERT_NE(stream, nullptr);
  std::setvbuf(stream, nullptr, _IONBF, 0);
  EXPECT_FALSE(qvx_counters_schema_jsonify_print(stream, schema.get()));
  EXPECT_TRUE(qvx_counters_schema_jsonify_print(stream, schema.get()));
  std::fclose(stream);
}

TEST_F(CountersJsonTest, AbsentDescriptionAndUnitsAreWrittenAsEmptyTexts) {
  const CountersSchemaPtr schema = make_schema({make_group(0, 1, {{"a", QVX_COUNTER_INT64}})});
  qvx_counter_info& counter = *schema->groups[0]->counters[0];
  counter.description.reset();
  counter.units.reset();
  const std::optional<json::Value> value = qvx_counters_schema_jsonify(schema.get());
  ASSERT_TRUE(value);
  EXPECT_NE(json::to_text(*value, json::Style::compact)
                .value_or("")
                .find(R"("name":"a","description":"","units":"","data_type":"INT64")"),
            std::string::npos);
  counter.name.reset();
  EXPECT_FALSE(qvx_counters_schema_jsonify(schema.get()));
}

TEST_F(CountersJsonTest, AbsentArgumentsAreStatedFailures) {
  EXPECT_EQ(qvx_counters_schema_from_json_text(nullptr), nullptr);
  EXPECT_EQ(errors(), Texts{"Failed parsing counters schema JSON from string"});
  EXPECT_EQ(qvx_counters_schema_from_json_file(nullptr), nullptr);
  qvx_schema_id id;
  id.bytes[0] = std::byte{1};
  log_.clear();
  EXPECT_EQ(qvx_counters_schema_load_by_id(&id, nullptr), nullptr);
  EXPECT_EQ(errors(), Texts{"asprintf failed"});
  const CountersSchemaPtr schema = make_schema({make_group(0, 1, {})});
  schema->groups[0]->counters.emplace_back();
  EXPECT_FALSE(qvx_counters_schema_jsonify(schema.get()));
  EXPECT_EQ(qvx_counters_schema_size_of_counters(schema.get()), 0U);
  qvx_counters_schema_update_counter_offsets(schema.get());
  EXPECT_EQ(qvx_counters_schema_find_counter(schema.get(), "a"), nullptr);
  EXPECT_EQ(qvx_counters_schema_find_counter(schema.get(), nullptr), nullptr);
  EXPECT_FALSE(qvx_counters_schema_add_group(schema.get(), nullptr));
  EXPECT_EQ(qvx_counter_info_copy(nullptr), nullptr);
  EXPECT_FALSE(qvx_counter_group_add_counter(schema->groups[0].get(), nullptr));
  schema->groups[0]->counters.clear();
}

TEST_F(CountersJsonTest, NothingIsMissingWhenMemoryIsShort) {
  const auto is_whole = [](const CountersSchemaPtr& schema) {
    return qvx_counters_schema_jsonify_text(schema.get()) == kPretty && schema->size_of_counters == 40;
  };
  test::sweep_allocations([] { return CountersSchemaPtr(qvx_counters_schema_from_json_text(kPretty)); },
                          is_whole);
  const CountersSchemaPtr schema(qvx_counters_schema_from_json_text(kPretty));
  test::sweep_allocations([&] { return qvx_counters_schema_jsonify_text(schema.get()); },
                          [](const std::optional<std::string>& text) { return text == kPretty; });
}

TEST_F(CountersJsonTest, ReadingAndWritingNeverThrowWhenMemoryIsShort) {
  const std::optional<json::Value> value = json::parse(kPretty);
  const std::uint32_t level = qvx_logger_set_level(0);  // the capture needs memory itself
  bool complete = false;
  for (std::size_t successes = 0; successes < 5000 && !complete; ++successes) {
    const test::FailingAllocations failing(successes);
    const CountersSchemaPtr schema(qvx_counters_schema_from_json(*value));
    complete = schema != nullptr && qvx_counters_schema_jsonify_text(schema.get()).has_value();
  }
  qvx_logger_set_level(level);
  EXPECT_TRUE(complete);
}

}  // namespace
}  // namespace qvx
