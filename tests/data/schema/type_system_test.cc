#include "qvx/data/schema/type_system.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "qvx/counters/counters_schema.h"
#include "qvx/data/schema/schema_json.h"
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

std::string schema_of(const std::string& provider, const std::string& field_type = "int") {
  return R"({"qvx_version":"1.5.0","provider_name":")" + provider +
         R"(","provider_version":"1.2.3","types":[{"name":"t","size":4,"fields":[{"field_name":"a",)"
         R"("description":"","type_name":")" +
         field_type + R"(","counting_mode":"ABSOLUTE","offset":0,"type_size":4}]}]})";
}

constexpr const char* kCountersText =
    R"({"version":"1.5.0","counter_groups":[{"granularity":"NODE","num_counters":1,"num_counter_sets":1,)"
    R"("counters":[{"name":"c","description":"","units":"","data_type":"UINT64","counting_type":"ABSOLUTE"}]}]})";

class TypeSystemTest : public testing::Test {
 protected:
  TypeSystemTest() : ts_(qvx_type_system_create()) { log_.clear(); }

  int add(const std::string& text, std::uint8_t& index) {
    return qvx_type_system_add_schema_json(ts_.get(), text.c_str(), &index);
  }
  void fill(std::size_t count) {
    while (ts_->schemas.size() < count)
      ASSERT_NE(qvx_type_system_new_schema(ts_.get(), "filler", 1, nullptr), nullptr);
    log_.clear();
  }
  Texts errors() const { return log_.texts(QVX_LOG_ERROR); }
  // Debug messages without the one that carries an address.
  Texts traces() const {
    Texts found;
    for (const std::string& text : log_.texts(QVX_LOG_DEBUG))
      if (text.find("clearing") == std::string::npos && text.find("counters_schema") == std::string::npos)
        found.push_back(text);
    return found;
  }

  LogCapture log_;
  TypeSystemPtr ts_;
};

TEST_F(TypeSystemTest, NewOneHoldsTheBuiltInTypesAndAnEmptyCountersSchema) {
  ASSERT_NE(ts_, nullptr);
  EXPECT_EQ(ts_->builtin->name, "<built-in>");
  EXPECT_EQ(ts_->builtin->version, 0x0501U);
  EXPECT_EQ(ts_->builtin->types.size(), 22U);
  EXPECT_TRUE(ts_->schemas.empty());
  ASSERT_NE(ts_->counters_schema, nullptr);
  EXPECT_TRUE(ts_->counters_schema->groups.empty());
}

TEST_F(TypeSystemTest, CreatingGivesNothingWithoutMemory) {
  const std::uint32_t level = qvx_logger_set_level(0);
  bool created = false;
  for (std::size_t successes = 0; successes < 200 && !created; ++successes) {
    const FailingAllocations failing(successes);
    created = TypeSystemPtr(qvx_type_system_create()) != nullptr;
    if (created == failing.any_failed()) break;
  }
  qvx_logger_set_level(level);
  EXPECT_TRUE(created);
}

TEST_F(TypeSystemTest, NewSchemaIsEmptyWithADigestOfZeros) {
  std::uint8_t index = 9;
  qvx_schema* const schema = qvx_type_system_new_schema(ts_.get(), "net", 7, &index);
  ASSERT_NE(schema, nullptr);
  EXPECT_EQ(index, 0);
  EXPECT_EQ(schema->parent, ts_->builtin.get());
  EXPECT_EQ(schema->version, 7U);
  EXPECT_EQ(schema->md5_digest, qvx_schema_id{});
  EXPECT_EQ(schema->md5_text, "00000000000000000000000000000000");
}

TEST_F(TypeSystemTest, Schema256IsRefused) {
  fill(254);
  std::uint8_t index = 0;
  ASSERT_NE(qvx_type_system_new_schema(ts_.get(), "last", 1, &index), nullptr);
  EXPECT_EQ(index, 254);
  EXPECT_EQ(qvx_type_system_new_schema(ts_.get(), "more", 1, &index), nullptr);
  EXPECT_EQ(ts_->schemas.size(), 255U);
}

TEST_F(TypeSystemTest, LastSchemaIsRemoved) {
  qvx_type_system_remove_last_schema(ts_.get());
  fill(2);
  qvx_type_system_remove_last_schema(ts_.get());
  EXPECT_EQ(ts_->schemas.size(), 1U);
}

TEST_F(TypeSystemTest, ReceivedSchemaTakesTheNextSlot) {
  fill(1);
  std::uint8_t index = 0;
  ASSERT_EQ(add(schema_of("net"), index), 0);
  EXPECT_EQ(index, 1);
  EXPECT_EQ(traces(), Texts{"FOUND EVENTS SCHEMA"});
  const qvx_schema& schema = *ts_->schemas[1];
  EXPECT_EQ(schema.name, "net");
  EXPECT_EQ(schema.parent, ts_->builtin.get());
  EXPECT_EQ(schema.types[0]->fields[0]->type, qvx_schema_find_type(ts_->builtin.get(), "int"));
}

TEST_F(TypeSystemTest, DigestOfAReceivedSchemaIsThatOfItsExactBytes) {
  std::uint8_t index = 0;
  // `printf '%s'` of the text through md5sum.
  ASSERT_EQ(add(R"({"qvx_version":"1.5.0","provider_name":"p","provider_version":"1.0","types":[]} )", index),
            0);
  EXPECT_EQ(ts_->schemas[0]->md5_text, "b617a123ac8e389a3f4dccf5048c8cbc");
}

TEST_F(TypeSystemTest, SameTextTwiceYieldsOneSlot) {
  std::uint8_t index = 9;
  ASSERT_EQ(add(schema_of("net"), index), 0);
  ASSERT_EQ(add(schema_of("power"), index), 0);
  log_.clear();
  ASSERT_EQ(add(schema_of("net"), index), 0);
  EXPECT_EQ(index, 0);
  EXPECT_EQ(traces(), Texts{"Schema already exists"});
  EXPECT_EQ(ts_->schemas.size(), 2U);
  ASSERT_EQ(add(schema_of("net") + " ", index), 0);
  EXPECT_EQ(index, 2);
}

TEST_F(TypeSystemTest, CountersSchemaReplacesTheOneHeld) {
  std::uint8_t index = 0;
  ASSERT_EQ(add(kCountersText, index), 0);
  EXPECT_EQ(index, 255);
  ASSERT_EQ(ts_->counters_schema->groups.size(), 1U);
  EXPECT_TRUE(ts_->schemas.empty());
  EXPECT_TRUE(log_.has(QVX_LOG_INFO, "Not an event schema"));
  EXPECT_TRUE(log_.has(QVX_LOG_DEBUG, "FOUND COUNTERS SCHEMA"));
}

TEST_F(TypeSystemTest, TextThatIsBothIsTakenAsTheCountersSchema) {
  std::string both = schema_of("net");
  both.insert(1, R"("version":"1.5.0","counter_groups":[],)");
  std::uint8_t index = 0;
  ASSERT_EQ(add(both, index), 0);
  EXPECT_EQ(index, 255);
  EXPECT_TRUE(ts_->schemas.empty());
  EXPECT_TRUE(log_.has(QVX_LOG_DEBUG, "FOUND COUNTERS SCHEMA"));
  EXPECT_FALSE(log_.has(QVX_LOG_DEBUG, "FOUND EVENTS SCHEMA"));
}

TEST_F(TypeSystemTest, TextThatIsNeitherIsRefused) {
  std::uint8_t index = 7;
  EXPECT_EQ(add("{", index), -1);
  EXPECT_EQ(errors(), Texts{"Failed to read schemas as JSON"});
  log_.clear();
  EXPECT_EQ(add("{}", index), -1);
  EXPECT_EQ(errors().back(), "Failed to convert schema from JSON to internal memory representation");
  EXPECT_EQ(index, 7);
}

TEST_F(TypeSystemTest, ReceivedSchemaWithUnknownTypeIsKeptUnresolved) {
  std::uint8_t index = 7;
  EXPECT_EQ(add(schema_of("net", "gone"), index), 0);
  EXPECT_EQ(index, 0);
  EXPECT_EQ(ts_->schemas[0]->types[0]->fields[0]->type, nullptr);
  EXPECT_EQ(errors().back(), "Definition of type gone not found within the schema net");
}

TEST_F(TypeSystemTest, FullTypeSystemRefusesReceivedSchemasWithoutAWord) {
  fill(255);
  std::uint8_t index = 7;
  EXPECT_EQ(add(schema_of("net"), index), -1);
  EXPECT_EQ(add(kCountersText, index), -1);
  EXPECT_TRUE(log_.messages().empty());
}

TEST_F(TypeSystemTest, IndexNeedNotBeAskedFor) {
  EXPECT_EQ(qvx_type_system_add_schema_json(ts_.get(), schema_of("net").c_str(), nullptr), 0);
  EXPECT_EQ(qvx_type_system_add_schema_json(ts_.get(), kCountersText, nullptr), 0);
}

TEST_F(TypeSystemTest, SchemasOfAnotherAreMovedInOrder) {
  const TypeSystemPtr other(qvx_type_system_create());
  ASSERT_EQ(qvx_type_system_add_schema_json(other.get(), schema_of("net").c_str(), nullptr), 0);
  ASSERT_EQ(qvx_type_system_add_schema_json(other.get(), schema_of("power").c_str(), nullptr), 0);
  fill(1);
  EXPECT_EQ(qvx_type_system_add_schemas_of(ts_.get(), other.get()), 0);
  EXPECT_TRUE(other->schemas.empty());
  ASSERT_EQ(ts_->schemas.size(), 3U);
  EXPECT_EQ(ts_->schemas[1]->name, "net");
  EXPECT_EQ(ts_->schemas[2]->name, "power");
  EXPECT_EQ(ts_->schemas[2]->parent, ts_->builtin.get());
  EXPECT_EQ(ts_->schemas[2]->types[0]->fields[0]->type, qvx_schema_find_type(ts_->builtin.get(), "int"));
}

TEST_F(TypeSystemTest, MovingStopsAtTheFirstSchemaThatDoesNotResolve) {
  TypeSystemPtr other(qvx_type_system_create());
  for (const char* const type : {"int", "gone", "char"})
    ASSERT_EQ(qvx_type_system_add_schema_json(other.get(), schema_of(type, type).c_str(), nullptr), 0);
  log_.clear();
  EXPECT_EQ(qvx_type_system_add_schemas_of(ts_.get(), other.get()), -1);
  EXPECT_EQ(errors(), (Texts{"Definition of type gone not found within the schema gone",
                             "Cannot add schema to type system"}));
  EXPECT_EQ(ts_->schemas.size(), 1U);
  ASSERT_EQ(other->schemas.size(), 2U);
  EXPECT_EQ(other->schemas[0]->name, "gone");
  // What stays behind does not depend on where the others went.
  EXPECT_EQ(other->schemas[0]->parent, other->builtin.get());
  EXPECT_EQ(other->schemas[1]->types[0]->fields[0]->type, qvx_schema_find_type(other->builtin.get(), "char"));
}

TEST_F(TypeSystemTest, MovingChecksNeitherLimitNorDuplicates) {
  fill(255);
  const TypeSystemPtr other(qvx_type_system_create());
  ASSERT_EQ(qvx_type_system_add_schema_json(other.get(), schema_of("net").c_str(), nullptr), 0);
  EXPECT_EQ(qvx_type_system_add_schemas_of(ts_.get(), other.get()), 0);
  EXPECT_EQ(ts_->schemas.size(), 256U);
}

TEST_F(TypeSystemTest, SchemaFileIsLoadedWithoutADigest) {
  const TempDir folder;
  const std::string path = folder.write_file("s.json", schema_of("net"));
  qvx_schema* const first = qvx_type_system_load_schema_file(ts_.get(), path.c_str());
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->md5_text, "");
  EXPECT_EQ(first->types[0]->fields[0]->type, qvx_schema_find_type(ts_->builtin.get(), "int"));
  // The same file again takes another slot.
  qvx_schema* const second = qvx_type_system_load_schema_file(ts_.get(), path.c_str());
  ASSERT_EQ(ts_->schemas.size(), 2U);
  EXPECT_EQ(second, ts_->schemas[1].get());
  std::uint8_t index = 9;
  EXPECT_TRUE(qvx_type_system_fill_digests(ts_.get()));
  EXPECT_EQ(ts_->schemas[0]->md5_text.size(), 32U);
  EXPECT_EQ(ts_->schemas[0]->md5_text, ts_->schemas[1]->md5_text);
  EXPECT_TRUE(qvx_type_system_find_schema(ts_.get(), ts_->schemas[1]->md5_text.c_str(), &index));
  EXPECT_EQ(index, 0);
}

TEST_F(TypeSystemTest, SchemaFilesThatCannotBeLoadedLeaveTheSlotsAsTheyWere) {
  const TempDir folder;
  const std::string missing = folder.file("missing.json");
  const std::string unknown = folder.write_file("unknown.json", schema_of("net", "gone"));
  EXPECT_EQ(qvx_type_system_load_schema_file(ts_.get(), missing.c_str()), nullptr);
  EXPECT_EQ(qvx_type_system_load_schema_file(ts_.get(), unknown.c_str()), nullptr);
  EXPECT_EQ(errors(), (Texts{"Failed reading schema JSON from file '" + missing + "'",
                             "Definition of type gone not found within the schema net",
                             "Failed to adjust type fields within schema net"}));
  EXPECT_TRUE(ts_->schemas.empty());
}

TEST_F(TypeSystemTest, SchemaFileBeyondTheLimitIsRefusedBeforeItIsRead) {
  fill(255);
  EXPECT_EQ(qvx_type_system_load_schema_file(ts_.get(), "/nowhere"), nullptr);
  EXPECT_EQ(errors(), Texts{"Failed to load schema: schema limit exceeded '255'"});
}

TEST_F(TypeSystemTest, SchemaIsFoundByItsDigestText) {
  std::uint8_t index = 9;
  fill(2);
  ASSERT_EQ(add(schema_of("net"), index), 0);
  const std::string digest = ts_->schemas[2]->md5_text;
  log_.clear();
  EXPECT_TRUE(qvx_type_system_find_schema(ts_.get(), digest.c_str(), &index));
  EXPECT_EQ(index, 2);
  EXPECT_EQ(log_.messages(), (std::vector<LogMessage>{{QVX_LOG_DEBUG, "Schema already exists " + digest}}));
  EXPECT_FALSE(qvx_type_system_find_schema(ts_.get(), "1234", &index));
  EXPECT_EQ(index, 2);
}

TEST_F(TypeSystemTest, SchemaBehindTheLastSlotIsNotFound) {
  TypeSystemPtr other(qvx_type_system_create());
  std::uint8_t index = 0;
  ASSERT_EQ(qvx_type_system_add_schema_json(other.get(), schema_of("last").c_str(), &index), 0);
  const std::string digest = other->schemas[0]->md5_text;
  fill(255);
  ASSERT_EQ(qvx_type_system_add_schemas_of(ts_.get(), other.get()), 0);
  ASSERT_EQ(ts_->schemas.size(), 256U);
  index = 9;
  EXPECT_FALSE(qvx_type_system_find_schema(ts_.get(), digest.c_str(), &index));
  EXPECT_EQ(index, 9);
  std::swap(ts_->schemas[254], ts_->schemas[255]);
  EXPECT_TRUE(qvx_type_system_find_schema(ts_.get(), digest.c_str(), &index));
  EXPECT_EQ(index, 254);
}

TEST_F(TypeSystemTest, AddingItsOwnSchemasChangesNothing) {
  std::uint8_t index = 0;
  ASSERT_EQ(add(schema_of("net"), index), 0);
  EXPECT_EQ(qvx_type_system_add_schemas_of(ts_.get(), ts_.get()), 0);
  ASSERT_EQ(ts_->schemas.size(), 1U);
  EXPECT_EQ(ts_->schemas[0]->name, "net");
}

TEST_F(TypeSystemTest, AbsentTextsAreStatedFailures) {
  EXPECT_EQ(qvx_type_system_add_schema_json(ts_.get(), nullptr, nullptr), -1);
  EXPECT_EQ(qvx_type_system_from_json_text(nullptr), nullptr);
  EXPECT_EQ(qvx_type_system_load_schema_file(ts_.get(), nullptr), nullptr);
  EXPECT_EQ(errors(), (Texts{"Failed to read schemas as JSON", "Failed parsing schema JSON string",
                             "Failed reading schema JSON from file ''"}));
  std::uint8_t index = 0;
  ASSERT_EQ(add(schema_of("net"), index), 0);
  EXPECT_FALSE(qvx_type_system_find_schema(ts_.get(), nullptr, nullptr));
  EXPECT_EQ(schema_file_path(nullptr, {}), std::nullopt);
}

TEST_F(TypeSystemTest, LargestTypeSizeIsLimitedTo32Bits) {
  EXPECT_EQ(qvx_type_system_max_type_size(ts_.get()), 0U);
  std::uint8_t index = 0;
  ASSERT_EQ(add(schema_of("net"), index), 0);
  EXPECT_EQ(qvx_type_system_max_type_size(ts_.get()), 4U);
  ASSERT_EQ(add(kCountersText, index), 0);
  EXPECT_EQ(qvx_type_system_max_type_size(ts_.get()), 4U);
  EXPECT_EQ(qvx_type_system_max_type_or_counters_size(ts_.get()), 8U);
  ts_->schemas[0]->types[0]->size = 0x1'0000'0000;
  EXPECT_EQ(qvx_type_system_max_type_size(ts_.get()), 0xFFFFFFFFU);
  EXPECT_EQ(qvx_type_system_max_type_or_counters_size(ts_.get()), 0xFFFFFFFFU);
}

TEST_F(TypeSystemTest, DigestOfTheCountersSchemaIsThatOfItsPrettyText) {
  // {
  //     "title": "Quorvex performance counters collector",
  //     "version": "1.5.0",
  //     "counter_groups": []
  // }
  EXPECT_EQ(schema_id_text(qvx_type_system_counters_digest(ts_.get())), "699265eeb3f2e0c0c95fd7608a8b6ba4");
  std::uint8_t index = 0;
  ASSERT_EQ(add(kCountersText, index), 0);
  EXPECT_NE(schema_id_text(qvx_type_system_counters_digest(ts_.get())), "699265eeb3f2e0c0c95fd7608a8b6ba4");
  ts_->counters_schema.reset();
  ts_->counters_digest = {};
  EXPECT_EQ(qvx_type_system_counters_digest(ts_.get()), qvx_schema_id{});
}

TEST_F(TypeSystemTest, SchemasWithoutTypesAreLeftOutOfTheText) {
  fill(1);
  std::uint8_t index = 0;
  ASSERT_EQ(
      add(R"({"qvx_version":"1.5.0","provider_name":"p","provider_version":"1.2.3","types":[{"name":"t","size":4,"fields":[]}]})",
          index),
      0);
  EXPECT_EQ(
      qvx_type_system_to_json_text(ts_.get(), false),
      R"({"name":"Quorvex type system","version":"1.5.0","counters_schema":{"title":"Quorvex performance )"
      R"(counters collector","version":"1.5.0","counter_groups":[]},"schemas":[{"title":"Quorvex schema",)"
      R"("qvx_version":"1.5.0","provider_name":"p","provider_version":"1.2.3","types":[{"name":"t",)"
      R"("size":4,"fields":[],"type_index":0}]}]})");
  ts_->counters_schema.reset();
  ts_->schemas.clear();
  EXPECT_EQ(qvx_type_system_to_json_text(ts_.get(), true),
            "{\n    \"name\": \"Quorvex type system\",\n    \"version\": \"1.5.0\",\n    \"schemas\": []\n}");
}

class ReadTypeSystemTest : public testing::Test {
 protected:
  TypeSystemPtr read(const std::string& text) {
    log_.clear();
    return TypeSystemPtr(qvx_type_system_from_json_text(text.c_str()));
  }
  Texts errors() const { return log_.texts(QVX_LOG_ERROR); }

  LogCapture log_;
};

TEST_F(ReadTypeSystemTest, WrittenOneIsReadBack) {
  const TypeSystemPtr ts = read(R"({"version":"1.5.0","counters_schema":)" + std::string(kCountersText) +
                                R"(,"schemas":[)" + schema_of("net") + "," + schema_of("power") + "]}");
  ASSERT_NE(ts, nullptr);
  EXPECT_TRUE(errors().empty());
  EXPECT_EQ(ts->counters_schema->groups.size(), 1U);
  ASSERT_EQ(ts->schemas.size(), 2U);
  EXPECT_EQ(ts->schemas[1]->name, "power");
  const std::optional<std::string> text = qvx_type_system_to_json_text(ts.get(), true);
  const TypeSystemPtr again = read(*text);
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(qvx_type_system_to_json_text(again.get(), true), text);
  // Now the digest is that of the text that is written, so both ways to it agree.
  const std::string digest = again->schemas[0]->md5_text;
  EXPECT_TRUE(qvx_type_system_fill_digests(again.get()));
  EXPECT_EQ(again->schemas[0]->md5_text, digest);
}

TEST_F(ReadTypeSystemTest, NoObjectIsRefused) {
  EXPECT_EQ(read("nonsense"), nullptr);
  EXPECT_EQ(errors(), Texts{"Failed parsing schema JSON string"});
  EXPECT_EQ(read("[1]"), nullptr);
  EXPECT_EQ(errors(), Texts{"[ts] Failed to deserialize: schema is not a JSON object"});
}

TEST_F(ReadTypeSystemTest, VersionMustBeThere) {
  EXPECT_EQ(read(R"({"schemas":[]})"), nullptr);
  EXPECT_EQ(errors(), Texts{"[ts] Failed to deserialize: missing Quorvex schema version"});
}

TEST_F(ReadTypeSystemTest, OldVersionIsReportedAndLoadedAllTheSame) {
  const TypeSystemPtr ts = read(R"({"version":"1.3.0","schemas":[)" + schema_of("net") + "]}");
  ASSERT_NE(ts, nullptr);
  EXPECT_EQ(ts->schemas.size(), 1U);
  EXPECT_EQ(errors(), Texts{"[ts] Failed to deserialize: schema version 1.3.0 is incompatible with the "
                            "deserializer, the minimal supported schema version is 1.4.0"});
  EXPECT_NE(read(R"({"version":"1.4.0","schemas":[]})"), nullptr);
  EXPECT_TRUE(errors().empty());
  EXPECT_NE(read(R"({"version":"2.0.0","schemas":[]})"), nullptr);
  EXPECT_TRUE(errors().empty());
}

TEST_F(ReadTypeSystemTest, FreshCountersSchemaIsDropped) {
  const TypeSystemPtr ts = read(R"({"version":"1.5.0","schemas":[]})");
  ASSERT_NE(ts, nullptr);
  EXPECT_EQ(ts->counters_schema, nullptr);
  EXPECT_EQ(qvx_type_system_max_type_or_counters_size(ts.get()), 0U);
}

TEST_F(ReadTypeSystemTest, CountersSchemaAloneIsEnough) {
  const TypeSystemPtr ts =
      read(R"({"version":"1.5.0","counters_schema":)" + std::string(kCountersText) + "}");
  ASSERT_NE(ts, nullptr);
  EXPECT_EQ(ts->counters_schema->groups.size(), 1U);
}

TEST_F(ReadTypeSystemTest, ObjectItselfMayBeTheCountersSchema) {
  const TypeSystemPtr ts = read(kCountersText);
  ASSERT_NE(ts, nullptr);
  EXPECT_EQ(ts->counters_schema->groups.size(), 1U);
}

TEST_F(ReadTypeSystemTest, BrokenCountersSchemaFailsAll) {
  EXPECT_EQ(read(R"({"version":"1.5.0","counters_schema":{},"schemas":[]})"), nullptr);
  EXPECT_EQ(errors().back(), "[ts] Failed to deserialize: unable to decode counters schema");
  EXPECT_EQ(read(R"({"version":"1.5.0","counter_groups":[{}]})"), nullptr);
  EXPECT_EQ(errors().back(), "[ts] Failed to deserialize: unable to decode JSON as counters schema");
}

TEST_F(ReadTypeSystemTest, NeitherSchemasNorCountersFailsAll) {
  EXPECT_EQ(read(R"({"version":"1.5.0"})"), nullptr);
  EXPECT_EQ(errors(),
            Texts{"[schema writer] schema was not recognized neither as type system nor as counters schema"});
}

TEST_F(ReadTypeSystemTest, BrokenSchemaFailsAll) {
  EXPECT_EQ(read(R"({"version":"1.5.0","schemas":[)" + schema_of("net") + ",{}]}"), nullptr);
  EXPECT_EQ(errors(), Texts{"[ts] Failed to deserialize: unable to decode type schema"});
}

TEST_F(ReadTypeSystemTest, SchemaWithUnknownTypeFailsAll) {
  EXPECT_EQ(read(R"({"version":"1.5.0","schemas":[)" + schema_of("net", "gone") + "]}"), nullptr);
  EXPECT_EQ(errors(), (Texts{"Definition of type gone not found within the schema net",
                             "[ts] Failed to deserialize: unable to adjust type fields of schema net"}));
}

TEST_F(ReadTypeSystemTest, SchemasBeyondTheLimitAreReportedAndNotTaken) {
  std::string schemas = schema_of("0");
  for (int i = 1; i < 300; ++i)
    schemas += "," + schema_of(std::to_string(i));
  const TypeSystemPtr ts = read(R"({"version":"1.5.0","schemas":[)" + schemas + "]}");
  ASSERT_NE(ts, nullptr);
  EXPECT_EQ(errors(), Texts{"[ts] Failed to deserialize: number of schemas 300 exceeds limit 255"});
  ASSERT_EQ(ts->schemas.size(), 255U);
  EXPECT_EQ(ts->schemas[254]->name, "254");
}

TEST_F(ReadTypeSystemTest, NeverThrowsWhenMemoryIsShort) {
  const std::string text = R"({"version":"1.5.0","counters_schema":)" + std::string(kCountersText) +
                           R"(,"schemas":[)" + schema_of("net") + "]}";
  const std::optional<json::Value> value = json::parse(text);
  const std::uint32_t level = qvx_logger_set_level(0);
  bool read = false;
  for (std::size_t successes = 0; successes < 5000 && !read; ++successes) {
    const FailingAllocations failing(successes);
    const TypeSystemPtr ts(qvx_type_system_from_json(*value));
    read = ts != nullptr && !failing.any_failed();
  }
  qvx_logger_set_level(level);
  EXPECT_TRUE(read);
}

TEST_F(ReadTypeSystemTest, NothingIsMissingWhenMemoryIsShort) {
  const std::string text = R"({"version":"1.5.0","counters_schema":)" + std::string(kCountersText) +
                           R"(,"schemas":[)" + schema_of("net") + "," + schema_of("power") + "]}";
  const std::optional<json::Value> value = json::parse(text);
  const TypeSystemPtr whole(qvx_type_system_from_json(*value));
  ASSERT_NE(whole, nullptr);
  const std::optional<std::string> written = qvx_type_system_to_json_text(whole.get(), true);
  ASSERT_TRUE(written);
  test::sweep_allocations([&] { return TypeSystemPtr(qvx_type_system_from_json(*value)); },
                          [&](const TypeSystemPtr& ts) {
                            // A digest that cannot be computed is reported, and loading goes on.
                            return qvx_type_system_to_json_text(ts.get(), true) == written;
                          });
  test::sweep_allocations([&] { return qvx_type_system_to_json_text(whole.get(), true); },
                          [&](const std::optional<std::string>& again) { return again == written; });
  test::sweep_allocations([&] { return qvx_type_system_fill_digests(whole.get()); },
                          [&](bool) { return whole->schemas[1]->md5_text.size() == 32; });
  const std::string received = schema_of("net");
  test::sweep_allocations(
      [&] {
        TypeSystemPtr ts(qvx_type_system_create());
        if (ts == nullptr || qvx_type_system_add_schema_json(ts.get(), received.c_str(), nullptr) != 0)
          ts.reset();
        return ts;
      },
      [](const TypeSystemPtr& ts) {
        return ts->schemas.size() == 1 && ts->schemas[0]->md5_text.size() == 32 &&
               ts->schemas[0]->types[0]->fields[0]->type != nullptr;
      });
}

TEST(SchemaFilePath, IsNamedByTheIdentifierInTheFolder) {
  qvx_schema_id id;
  for (std::size_t i = 0; i < 16; ++i)
    id.bytes[i] = std::byte(i);
  EXPECT_EQ(schema_file_path("/schemas", id), "/schemas/schema_000102030405060708090a0b0c0d0e0f.json");
}

}  // namespace
}  // namespace qvx
