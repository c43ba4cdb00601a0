#include "qvx/data/schema/schema_json.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "qvx/data/schema/type_system.h"
#include "qvx/support/json_parse.h"
#include "qvx/support/json_text.h"
#include "tests/support/allocation_sweep.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace qvx {
namespace {

using test::FailingAllocations;
using test::LogCapture;
using test::LogMessage;
using test::TempDir;

using Texts = std::vector<std::string>;
using Messages = std::vector<LogMessage>;

// The text of one schema file, to the byte. Its digest was computed by md5sum.
constexpr const char* kSchemaText = R"({
    "title": "Quorvex schema",
    "qvx_version": "1.5.0",
    "provider_name": "net",
    "provider_version": "1.2.3",
    "types": [
        {
            "name": "packet",
            "size": 12,
            "fields": [
                {
                    "field_name": "timestamp",
                    "description": "when",
                    "type_name": "timestamp",
                    "counting_mode": "ABSOLUTE",
                    "offset": 0,
                    "type_size": 8,
                    "index": 0
                },
                {
                    "field_name": "address",
                    "description": "where",
                    "type_name": "uint8_t",
                    "counting_mode": "RUNNING_SUM",
                    "array_length": 4,
                    "offset": 8,
                    "type_size": 1,
                    "index": 1
                }
            ],
            "type_index": 0
        }
    ]
})";
constexpr const char* kSchemaDigest = "1496d715ee2d8c588398e950c11d5d15";

json::Value parse(const std::string& text) {
  std::optional<json::Value> value = json::parse(text);
  EXPECT_TRUE(value) << text;
  return value ? std::move(*value) : json::Value();
}

std::string compact(const std::optional<json::Value>& value) {
  return value ? json::to_text(*value, json::Style::compact).value_or("no text") : "no value";
}

std::string field_text(const std::string& more) {
  return R"({"field_name":"a","description":"d","type_size":2,"offset":3,"type_name":"short","counting_mode":"ABSOLUTE")" +
         more + "}";
}

std::unique_ptr<qvx_field_definition> read_field(const std::string& more) {
  return field_from_json(parse(field_text(more)));
}

std::string type_text(const std::string& size, const std::string& fields = "") {
  return R"({"name":"t","size":)" + size + R"(,"fields":[)" + fields + "]}";
}

std::string schema_text(const std::string& version, const std::string& types = "") {
  return R"({"qvx_version":")" + version + R"(","provider_name":"p","provider_version":"1.2.3","types":[)" +
         types + "]}";
}

class SchemaJsonTest : public testing::Test {
 protected:
  LogCapture log_;
};

TEST_F(SchemaJsonTest, FieldIsWrittenInItsOrder) {
  qvx_field_definition field;
  field.field_name = "a";
  field.description = "";
  field.type_name = "int";
  field.type_size = 4;
  field.offset = 7;
  field.index = 2;
  EXPECT_EQ(compact(field_to_json(field)),
            R"({"field_name":"a","description":"","type_name":"int","counting_mode":"ABSOLUTE",)"
            R"("offset":7,"type_size":4,"index":2})");
  field.array_length = 2;
  field.counting_mode = 1;
  EXPECT_EQ(compact(field_to_json(field)),
            R"({"field_name":"a","description":"","type_name":"int","counting_mode":"RUNNING_SUM",)"
            R"("array_length":2,"offset":7,"type_size":4,"index":2})");
}

TEST_F(SchemaJsonTest, FieldWithUnknownModeOrMissingTextCannotBeWritten) {
  const std::unique_ptr<qvx_field_definition> field = read_field("");
  ASSERT_TRUE(field_to_json(*field));
  field->counting_mode = 2;
  EXPECT_FALSE(field_to_json(*field));
  field->counting_mode = 0;
  field->field_name.reset();
  EXPECT_FALSE(field_to_json(*field));
  field->field_name = "not utf-8 \xFF";
  EXPECT_FALSE(field_to_json(*field));
}

TEST_F(SchemaJsonTest, FieldIsReadAsWritten) {
  const auto field = read_field(R"(,"array_length":5,"index":9,"other":[])");
  ASSERT_NE(field, nullptr);
  EXPECT_EQ(field->field_name, "a");
  EXPECT_EQ(field->description, "d");
  EXPECT_EQ(field->type_name, "short");
  EXPECT_EQ(field->type_size, 2U);
  EXPECT_EQ(field->offset, 3U);
  EXPECT_EQ(field->counting_mode, 0U);
  EXPECT_EQ(field->array_length, 5U);
  EXPECT_EQ(field->index, 9U);
  EXPECT_EQ(field->type, nullptr);
  EXPECT_TRUE(log_.messages().empty());
}

TEST_F(SchemaJsonTest, ArrayLengthIsAbsentOrOneOrModulo65536) {
  EXPECT_EQ(read_field("")->array_length, 1U);
  EXPECT_EQ(read_field(R"(,"array_length":1)")->array_length, 1U);
  EXPECT_EQ(read_field(R"(,"array_length":0)")->array_length, 1U);
  EXPECT_EQ(read_field(R"(,"array_length":65535)")->array_length, 65535U);
  EXPECT_EQ(read_field(R"(,"array_length":65536)")->array_length, 1U);
  EXPECT_EQ(read_field(R"(,"array_length":65537)")->array_length, 1U);
  EXPECT_EQ(read_field(R"(,"array_length":131075)")->array_length, 3U);
  EXPECT_EQ(read_field(R"(,"array_length":2.9)")->array_length, 2U);
  EXPECT_EQ(read_field(R"(,"array_length":-1)")->array_length, 1U);
  EXPECT_EQ(read_field(R"(,"array_length":-65535)")->array_length, 1U);
  EXPECT_EQ(read_field(R"(,"array_length":1e300)")->array_length, 65535U);
  EXPECT_EQ(read_field(R"(,"array_length":"4")")->array_length, 1U);
}

TEST_F(SchemaJsonTest, NumbersThatDoNotFitStopAtTheLimits) {
  const std::string head = R"({"field_name":"","description":"","type_name":"","counting_mode":"",)";
  const auto large = field_from_json(parse(head + R"("offset":1e30,"type_size":18446744073709551615})"));
  ASSERT_NE(large, nullptr);
  EXPECT_EQ(large->offset, 18446744073709551615U);
  EXPECT_EQ(large->type_size, 18446744073709551615U);
  const auto negative = field_from_json(parse(head + R"("offset":-1,"type_size":-1e30})"));
  ASSERT_NE(negative, nullptr);
  EXPECT_EQ(negative->offset, 0U);
  EXPECT_EQ(negative->type_size, 0U);
}

TEST_F(SchemaJsonTest, MonotonicModeIsReadAsRunningSumAndWrittenBackAsSuch) {
  std::string text = field_text("");
  text.replace(text.find("ABSOLUTE"), 8, "ABSOLUTE_MONOTONIC");
  const auto field = field_from_json(parse(text));
  ASSERT_NE(field, nullptr);
  EXPECT_EQ(field->counting_mode, 1U);
  EXPECT_EQ(parse(compact(field_to_json(*field))).as_object()->string_at("counting_mode")[0], "RUNNING_SUM");
}

TEST_F(SchemaJsonTest, UnknownModeIsKeptAsUnknown) {
  std::string text = field_text("");
  text.replace(text.find("ABSOLUTE"), 8, "SOMETIMES");
  const auto field = field_from_json(parse(text));
  ASSERT_NE(field, nullptr);
  EXPECT_EQ(field->counting_mode, 0xFFFFFFFFU);
}

TEST_F(SchemaJsonTest, TextsEndAtTheirFirstNul) {
  std::string text = field_text("");
  text.replace(text.find("\"short\""), 7, R"("int\u0000eger")");
  EXPECT_EQ(field_from_json(parse(text))->type_name, "int");
}

TEST_F(SchemaJsonTest, IndexOfAnotherKindReadsAsNone) {
  const auto field = read_field(R"(,"index":"1")");
  ASSERT_NE(field, nullptr);
  EXPECT_EQ(field->index, 0U);
}

TEST_F(SchemaJsonTest, FieldWithoutARequiredMemberIsRefused) {
  for (const char* const name :
       {"field_name", "description", "type_size", "offset", "type_name", "counting_mode"}) {
    log_.clear();
    std::string text = field_text(R"(,"index":1)");
    text.replace(text.find(std::string("\"") + name + "\"") + 1, 1, "X");
    EXPECT_EQ(field_from_json(parse(text)), nullptr) << name;
    EXPECT_EQ(
        log_.messages(),
        (Messages{{QVX_LOG_ERROR, "Field definition JSON does not match schema with or without 'index'."}}))
        << name;
  }
  EXPECT_EQ(field_from_json(parse("[]")), nullptr);
}

TEST_F(SchemaJsonTest, TypeIsReadAsWrittenAndNothingIsRecomputed) {
  const auto type = type_from_json(parse(type_text("3", field_text("") + "," + field_text(""))));
  ASSERT_NE(type, nullptr);
  EXPECT_EQ(type->name, "t");
  EXPECT_EQ(type->id, 0U);
  EXPECT_EQ(type->size, 3U);
  ASSERT_EQ(type->fields.size(), 2U);
  EXPECT_EQ(type->fields[1]->offset, 3U);
  EXPECT_TRUE(log_.messages().empty());
}

TEST_F(SchemaJsonTest, TypeOfSizeZeroFailsSilently) {
  EXPECT_EQ(type_from_json(parse(type_text("0"))), nullptr);
  EXPECT_EQ(type_from_json(parse(type_text("0.5"))), nullptr);
  EXPECT_EQ(type_from_json(parse(type_text("-8"))), nullptr);
  EXPECT_TRUE(log_.messages().empty());
}

TEST_F(SchemaJsonTest, TypeOfAnotherShapeIsRefusedWithTheTemplate) {
  EXPECT_EQ(type_from_json(parse(R"({"name":"t","size":"1","fields":[]})")), nullptr);
  EXPECT_EQ(
      log_.messages(),
      (Messages{
          {QVX_LOG_ERROR,
           R"(Type definition JSON does not match schema '{"name" : "", "size" : 0, "fields" : []}')"}}));
}

TEST_F(SchemaJsonTest, FailingFieldDiscardsTheType) {
  EXPECT_EQ(type_from_json(parse(type_text("3", field_text("") + ",{}"))), nullptr);
}

TEST_F(SchemaJsonTest, SchemaIsReadWithItsSlotsInArrayOrder) {
  const SchemaPtr schema = schema_from_json(
      parse(schema_text("1.5.0", type_text("1") + R"(,{"name":"u","size":2,"fields":[],"type_index":0})")));
  ASSERT_NE(schema, nullptr);
  EXPECT_EQ(schema->name, "p");
  EXPECT_EQ(schema->version, 0x0003'0201U);
  ASSERT_EQ(schema->types.size(), 2U);
  EXPECT_EQ(schema->types[1]->name, "u");
  EXPECT_TRUE(log_.texts(QVX_LOG_ERROR).empty());
}

TEST_F(SchemaJsonTest, AnotherShapeIsNoEventSchema) {
  for (const char* const text :
       {"[]", "{}", R"({"version":"1.5.0","counter_groups":[]})",
        R"({"qvx_version":1,"provider_name":"","provider_version":"","types":[]})"}) {
    log_.clear();
    EXPECT_EQ(schema_from_json(parse(text)), nullptr) << text;
    EXPECT_EQ(log_.messages(), (Messages{{QVX_LOG_INFO, "Not an event schema"}})) << text;
  }
}

TEST_F(SchemaJsonTest, NewerMinorAndOtherMajorVersionsAreRefused) {
  for (const char* const version : {"1.6.0", "2.5.0", "0.5.0", "", "none", "1"}) {
    log_.clear();
    EXPECT_EQ(schema_from_json(parse(schema_text(version))), nullptr) << version;
    EXPECT_EQ(log_.messages(),
              (Messages{{QVX_LOG_ERROR, std::string("Schema version ") + version +
                                            " is incompatible with current version 1.5.0"}}));
  }
}

TEST_F(SchemaJsonTest, OlderMinorVersionsAreAccepted) {
  for (const char* const version : {"1.4.9", "1.0.0", "1.5.7", "1.2.0"})
    EXPECT_NE(schema_from_json(parse(schema_text(version))), nullptr) << version;
}

TEST_F(SchemaJsonTest, FailingTypeDiscardsTheSchemaAndIsNumbered) {
  EXPECT_EQ(schema_from_json(parse(schema_text("1.5.0", type_text("1") + "," + type_text("0")))), nullptr);
  EXPECT_EQ(log_.texts(QVX_LOG_ERROR), Texts{"Failed to deserialize type #1 from JSON array"});
}

TEST_F(SchemaJsonTest, TypeNumber255DoesNotFit) {
  std::string types = type_text("1");
  for (int i = 1; i < 254; ++i)
    types += "," + type_text("1");
  EXPECT_NE(schema_from_json(parse(schema_text("1.5.0", types))), nullptr);
  EXPECT_EQ(schema_from_json(parse(schema_text("1.5.0", types + "," + type_text("1")))), nullptr);
  EXPECT_EQ(log_.texts(QVX_LOG_ERROR), Texts{"Failed to deserialize type #254 from JSON array"});
}

TEST_F(SchemaJsonTest, SchemaWithoutTypesCannotBeWritten) {
  SchemaPtr schema(qvx_schema_create("p", 1));
  EXPECT_FALSE(schema_to_json(*schema));
  EXPECT_TRUE(schema_fill_digest(*schema));
  EXPECT_EQ(schema->md5_text, "00000000000000000000000000000000");
  EXPECT_EQ(schema->md5_digest, qvx_schema_id{});
}

TEST_F(SchemaJsonTest, SchemaWithoutNameCannotBeWritten) {
  SchemaPtr schema = schema_from_json(parse(kSchemaText));
  schema->name.reset();
  EXPECT_FALSE(schema_to_json(*schema));
}

TEST_F(SchemaJsonTest, SchemaFileReadAndWrittenAgainIsTheSameText) {
  const SchemaPtr schema = schema_from_json(parse(kSchemaText));
  ASSERT_NE(schema, nullptr);
  const std::optional<json::Value> value = schema_to_json(*schema);
  ASSERT_TRUE(value);
  EXPECT_EQ(json::to_text(*value, json::Style::pretty), kSchemaText);
  EXPECT_TRUE(schema_fill_digest(*schema));
  EXPECT_EQ(schema->md5_text, kSchemaDigest);
}

TEST_F(SchemaJsonTest, RegisteredTypeIsWrittenByName) {
  const TypeSystemPtr ts(qvx_type_system_create());
  qvx_schema* const schema = qvx_type_system_new_schema(ts.get(), "p", 1, nullptr);
  const qvx_field_info info{"a", "d", "char", 0, 2};
  ASSERT_EQ(qvx_schema_add_type(schema, "t", &info, 1, nullptr), 0);
  EXPECT_EQ(qvx_schema_type_to_json_text(schema, "t", false),
            R"({"name":"t","size":2,"fields":[{"field_name":"a","description":"d","type_name":"char",)"
            R"("counting_mode":"ABSOLUTE","array_length":2,"offset":0,"type_size":1,"index":0}]})");
  EXPECT_EQ(qvx_schema_type_to_json_text(schema, "bool", true),
            "{\n    \"name\": \"bool\",\n    \"size\": 1,\n    \"fields\": []\n}");
  EXPECT_EQ(qvx_schema_type_to_json_text(schema, "other", true), std::nullopt);
}

TEST_F(SchemaJsonTest, SchemaFileIsLoadedLinkedAndGivenItsDigest) {
  const TempDir folder;
  const TypeSystemPtr ts(qvx_type_system_create());
  const std::string path = folder.write_file("schema.json", kSchemaText);
  const SchemaPtr schema(qvx_schema_load_file(path.c_str(), ts->builtin.get()));
  ASSERT_NE(schema, nullptr);
  EXPECT_EQ(schema->parent, ts->builtin.get());
  EXPECT_EQ(schema->md5_text, kSchemaDigest);
  ASSERT_NE(schema->types[0]->fields[1]->type, nullptr);
  EXPECT_EQ(schema->types[0]->fields[1]->type->id, 18U);
}

TEST_F(SchemaJsonTest, MissingOrBrokenSchemaFileIsReported) {
  const TempDir folder;
  const std::string missing = folder.file("none.json");
  EXPECT_EQ(qvx_schema_load_file(missing.c_str(), nullptr), nullptr);
  const std::string broken = folder.write_file("broken.json", "{");
  EXPECT_EQ(qvx_schema_load_file(broken.c_str(), nullptr), nullptr);
  EXPECT_EQ(log_.texts(QVX_LOG_ERROR), (Texts{"Failed reading schema JSON from file '" + missing + "'",
                                              "Failed reading schema JSON from file '" + broken + "'"}));
}

TEST_F(SchemaJsonTest, SchemaFileWithUnknownTypeIsRefused) {
  const TempDir folder;
  const std::string path = folder.write_file("schema.json", kSchemaText);
  EXPECT_EQ(qvx_schema_load_file(path.c_str(), nullptr), nullptr);
  EXPECT_EQ(log_.texts(QVX_LOG_ERROR), Texts{"Definition of type timestamp not found within the schema net"});
}

TEST_F(SchemaJsonTest, AbsentDescriptionIsWrittenAsAnEmptyText) {
  const std::unique_ptr<qvx_field_definition> field = read_field("");
  const std::string whole = compact(field_to_json(*field));
  field->description = "";
  const std::string without = compact(field_to_json(*field));
  field->description.reset();
  EXPECT_EQ(compact(field_to_json(*field)), without);
}

TEST_F(SchemaJsonTest, AbsentPathIsReported) {
  EXPECT_EQ(qvx_schema_load_file(nullptr, nullptr), nullptr);
  EXPECT_EQ(log_.texts(QVX_LOG_ERROR), (Texts{"Failed reading schema JSON from file ''"}));
}

TEST_F(SchemaJsonTest, LoadedFileHasItsDigestWhenMemoryIsShort) {
  const test::TempDir folder;
  folder.write_file("schema.json", kSchemaText);
  const std::string path = folder.file("schema.json");
  const TypeSystemPtr types(qvx_type_system_create());
  test::sweep_allocations([&] { return SchemaPtr(qvx_schema_load_file(path.c_str(), types->builtin.get())); },
                          [](const SchemaPtr& schema) { return schema->md5_text == kSchemaDigest; });
}

TEST_F(SchemaJsonTest, ReadingNeverThrowsWhenMemoryIsShort) {
  const json::Value value = parse(kSchemaText);
  const std::uint32_t level = qvx_logger_set_level(0);  // the capture needs memory itself
  bool read = false;
  for (std::size_t successes = 0; successes < 5000 && !read; ++successes) {
    bool any_failed = false;
    {
      const FailingAllocations failing(successes);
      read = SchemaPtr(schema_from_json(value)) != nullptr;
      any_failed = failing.any_failed();
    }
    ASSERT_EQ(read, !any_failed);
  }
  qvx_logger_set_level(level);
  EXPECT_TRUE(read);
}

TEST_F(SchemaJsonTest, WritingNeverThrowsWhenMemoryIsShort) {
  const SchemaPtr schema = schema_from_json(parse(kSchemaText));
  bool written = false;
  for (std::size_t successes = 0; successes < 5000 && !written; ++successes) {
    bool any_failed = false;
    {
      const FailingAllocations failing(successes);
      written = schema_fill_digest(*schema);
      any_failed = failing.any_failed();
    }
    ASSERT_EQ(written, !any_failed);
  }
  EXPECT_EQ(schema->md5_text, kSchemaDigest);
}

}  // namespace
}  // namespace qvx
