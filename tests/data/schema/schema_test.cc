#include "qvx/data/schema/schema.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "qvx/data/schema/builtin_types.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/log_capture.h"

namespace qvx {
namespace {

using test::FailingAllocations;
using test::LogCapture;
using test::LogMessage;

qvx_field_info field(const char* name, const char* type, std::uint32_t array_length = 1) {
  return {name, "", type, kAbsoluteCounting, array_length};
}

class SchemaTest : public testing::Test {
 protected:
  SchemaTest() : builtin_(qvx_schema_create("<built-in>", 1)), schema_(qvx_schema_create("net", 1)) {
    EXPECT_EQ(qvx_schema_register_builtins(builtin_.get()), 0);
    schema_->parent = builtin_.get();
    log_.clear();
  }

  int add(const char* name, const std::vector<qvx_field_info>& fields, std::uint8_t* index = nullptr) {
    return qvx_schema_add_type(schema_.get(), name, fields.data(), fields.size(), index);
  }
  const qvx_type_definition& type(const char* name) { return *qvx_schema_find_type(schema_.get(), name); }

  std::vector<std::string> errors() const { return log_.texts(QVX_LOG_ERROR); }

  LogCapture log_;
  SchemaPtr builtin_;
  SchemaPtr schema_;
};

using Texts = std::vector<std::string>;

TEST_F(SchemaTest, NewSchemaIsEmptyAndHasNoDigest) {
  const SchemaPtr schema(qvx_schema_create("power", 0x0003'0201));
  EXPECT_EQ(schema->name, "power");
  EXPECT_EQ(schema->version, 0x0003'0201U);
  EXPECT_TRUE(schema->types.empty());
  EXPECT_EQ(schema->parent, nullptr);
  EXPECT_EQ(schema->md5_digest, qvx_schema_id{});
  ASSERT_EQ(log_.messages().size(), 1U);
  EXPECT_EQ(log_.messages()[0].level, QVX_LOG_DEBUG);
  EXPECT_EQ(log_.messages()[0].text.substr(0, 33), "clearing md5_digest of schema: 0x");
}

TEST_F(SchemaTest, SchemaWithoutNameIsCreated) {
  const SchemaPtr schema(qvx_schema_create(nullptr, 0));
  EXPECT_FALSE(schema->name.has_value());
}

TEST_F(SchemaTest, CreatingGivesNothingWithoutMemory) {
  for (std::size_t successes = 0;; ++successes) {
    const FailingAllocations failing(successes);
    const SchemaPtr schema(qvx_schema_create("a name that does not fit into a short string", 1));
    if (schema != nullptr) {
      EXPECT_FALSE(failing.any_failed());
      EXPECT_GT(successes, 0U);
      return;
    }
  }
}

TEST_F(SchemaTest, DestroyingNothingDoesNothing) {
  qvx_schema_destroy(nullptr);
  EXPECT_TRUE(log_.messages().empty());
}

TEST_F(SchemaTest, FieldsArePackedWithoutPadding) {
  std::uint8_t index = 99;
  EXPECT_EQ(add("packet", {field("key", "uint8_t", 16), field("count", "int32_t")}, &index), 0);
  EXPECT_EQ(index, 0);
  const qvx_type_definition& packet = type("packet");
  EXPECT_EQ(packet.id, 0U);
  EXPECT_EQ(packet.size, 20U);
  ASSERT_EQ(packet.fields.size(), 2U);
  EXPECT_EQ(packet.fields[0]->offset, 0U);
  EXPECT_EQ(packet.fields[0]->type_size, 1U);
  EXPECT_EQ(packet.fields[0]->array_length, 16U);
  EXPECT_EQ(packet.fields[1]->offset, 16U);
  EXPECT_EQ(packet.fields[1]->type_size, 4U);
  EXPECT_EQ(packet.fields[1]->type, qvx_schema_find_type(builtin_.get(), "int32_t"));
  EXPECT_TRUE(errors().empty());
}

TEST_F(SchemaTest, FieldOwnsCopiesOfItsTextsAndAnAbsentOneStaysAbsent) {
  std::string name = "speed";
  const qvx_field_info info{name.c_str(), nullptr, "double", kRunningSumCounting, 0};
  ASSERT_EQ(qvx_schema_add_type(schema_.get(), "t", &info, 1, nullptr), 0);
  name = "other";
  const qvx_field_definition& copied = *type("t").fields[0];
  EXPECT_EQ(copied.field_name, "speed");
  EXPECT_FALSE(copied.description.has_value());
  EXPECT_EQ(copied.type_name, "double");
  EXPECT_EQ(copied.counting_mode, 1U);
  EXPECT_EQ(copied.array_length, 1U);
  EXPECT_EQ(copied.index, 0U);
}

TEST_F(SchemaTest, AbsentNamesAndFieldsAreRefused) {
  const qvx_field_info no_name{nullptr, "", "int", kAbsoluteCounting, 1};
  const qvx_field_info no_type{"a", "", nullptr, kAbsoluteCounting, 1};
  EXPECT_EQ(qvx_schema_add_type(schema_.get(), nullptr, nullptr, 0, nullptr), 1);
  EXPECT_EQ(qvx_schema_add_type(schema_.get(), "t", nullptr, 1, nullptr), 1);
  EXPECT_EQ(qvx_schema_add_type(schema_.get(), "t", &no_name, 1, nullptr), 1);
  EXPECT_EQ(qvx_schema_add_type(schema_.get(), "t", &no_type, 1, nullptr), 3);
  EXPECT_EQ(errors(), (Texts{"[qvx_schema_add_type] cannot allocate type definition",
                             "[qvx_schema_add_type] cannot allocate type definition",
                             "[qvx_schema_add_type] cannot get type definition from fields_info[0]",
                             "Unable to register type 't': type '' of the field 'a' is undefined"}));
  EXPECT_TRUE(schema_->types.empty());
  log_.clear();
  const std::vector<qvx_field_info> no_second_name = {
      {"a", "", "int", kAbsoluteCounting, 1}, no_name, {"c", "", "int", kAbsoluteCounting, 1}};
  EXPECT_EQ(qvx_schema_add_type(schema_.get(), "t", no_second_name.data(), 3, nullptr), 1);
  EXPECT_EQ(errors(), (Texts{"[qvx_schema_add_type] cannot get type definition from fields_info[1]"}));
  EXPECT_TRUE(schema_->types.empty());
  EXPECT_EQ(qvx_schema_find_type(schema_.get(), nullptr), nullptr);
  EXPECT_EQ(builtin_type_id(nullptr), 0U);
  schema_->types.emplace_back();
  EXPECT_EQ(qvx_schema_find_type(schema_.get(), "t"), nullptr);
}

TEST_F(SchemaTest, TypeOfEarlierTypesTakesTheirSize) {
  ASSERT_EQ(add("point", {field("x", "double"), field("y", "double")}), 0);
  ASSERT_EQ(add("path", {field("id", "char"), field("points", "point", 3), field("end", "char")}), 0);
  EXPECT_EQ(type("path").size, 50U);
  EXPECT_EQ(type("path").fields[1]->type, &type("point"));
  EXPECT_EQ(type("path").fields[2]->offset, 49U);
}

TEST_F(SchemaTest, TypeWithoutFieldsIsRegistered) {
  EXPECT_EQ(add("nothing", {}), 0);
  EXPECT_EQ(type("nothing").size, 0U);
}

TEST_F(SchemaTest, BuiltInNameIsTakenAlready) {
  EXPECT_EQ(add("int", {field("a", "char")}), 2);
  EXPECT_EQ(errors(), Texts{"Schema 'net' already contains type 'int'"});
  EXPECT_TRUE(schema_->types.empty());
}

TEST_F(SchemaTest, NameTakenInUnnamedSchemaSaysUndefined) {
  schema_->name.reset();
  ASSERT_EQ(add("t", {}), 0);
  EXPECT_EQ(add("t", {}), 2);
  EXPECT_EQ(errors(), Texts{"Schema '<undefined>' already contains type 't'"});
}

TEST_F(SchemaTest, FieldOfUnknownTypeIsRefused) {
  EXPECT_EQ(add("t", {field("a", "int"), field("b", "later"), field("c", "never")}), 3);
  EXPECT_EQ(errors(), Texts{"Unable to register type 't': type 'later' of the field 'b' is undefined"});
  EXPECT_TRUE(schema_->types.empty());
}

TEST_F(SchemaTest, TypeCannotContainItself) {
  EXPECT_EQ(add("t", {field("self", "t")}), 3);
}

TEST_F(SchemaTest, SecondOfThreeFieldsMustNotRepeatTheFirst) {
  EXPECT_EQ(add("t", {field("a", "int"), field("a", "int"), field("b", "int")}), 2);
  EXPECT_EQ(
      errors(),
      Texts{"[qvx_schema_add_type] Failed to register new type 't': field name 'a' occurs more than once."});
  EXPECT_TRUE(schema_->types.empty());
}

TEST_F(SchemaTest, LastFieldMayRepeatAnEarlierName) {
  EXPECT_EQ(add("three", {field("a", "int"), field("b", "int"), field("a", "int")}), 0);
  EXPECT_EQ(add("two", {field("a", "int"), field("a", "int")}), 0);
  EXPECT_TRUE(errors().empty());
}

TEST_F(SchemaTest, TypeNumber255DoesNotFit) {
  std::uint8_t index = 0;
  for (int i = 0; i < 254; ++i)
    ASSERT_EQ(add(("t" + std::to_string(i)).c_str(), {}, &index), 0) << i;
  EXPECT_EQ(index, 253);
  EXPECT_EQ(add("t254", {}, &index), 5);
  EXPECT_EQ(index, 253);
  EXPECT_EQ(errors(), Texts{"[qvx_schema_add_type] Unable to add new type, reached QVX_MAX_TYPES. "
                            "schema->num_types = 254"});
}

TEST_F(SchemaTest, FailedAllocationsLeaveTheSchemaAsItWas) {
  const std::vector<qvx_field_info> fields{field("a field whose name needs memory of its own", "int"),
                                           field("b", "int")};
  for (std::size_t successes = 0; successes < 100; ++successes) {
    const std::uint32_t level = qvx_logger_set_level(0);  // the capture needs memory itself
    int result = 0;
    {
      const FailingAllocations failing(successes);
      result = add("a type whose name needs memory of its own", fields);
    }
    qvx_logger_set_level(level);
    if (result == 0) break;
    ASSERT_EQ(result, 1);
    ASSERT_TRUE(schema_->types.empty());
  }
  EXPECT_EQ(schema_->types.size(), 1U);
}

class FieldIndexTest : public SchemaTest {
 protected:
  FieldIndexTest() { add("t", {field("a", "int"), field("b", "int")}); }

  int set(std::vector<const char*> names) {
    return qvx_schema_set_field_indexes(schema_.get(), 0, names.data(), names.size());
  }
  std::uint16_t index_of(std::size_t position) const { return schema_->types[0]->fields[position]->index; }
  Texts indexed() const {
    std::size_t count = 99;
    const char** const names = qvx_schema_get_indexed_fields(schema_.get(), 0, &count);
    const Texts texts(names, names + count);
    std::free(names);
    return texts;
  }
};

TEST_F(FieldIndexTest, UnknownNamesAreSkippedAndReportedAsMismatch) {
  EXPECT_EQ(set({"b", "zz", "a"}), 0);
  EXPECT_EQ(index_of(0), 2);
  EXPECT_EQ(index_of(1), 1);
  EXPECT_EQ(log_.messages(),
            (std::vector<LogMessage>{
                {QVX_LOG_DEBUG, "Mismatch in assigned indices: expected 3, but assigned 2 (t)."}}));
  EXPECT_EQ(indexed(), (Texts{"a", "b"}));
}

TEST_F(FieldIndexTest, EveryCallStartsFromNone) {
  ASSERT_EQ(set({"a", "b"}), 0);
  ASSERT_EQ(set({"b"}), 0);
  EXPECT_EQ(index_of(0), 0);
  EXPECT_EQ(index_of(1), 1);
  const char* const none[] = {nullptr};
  ASSERT_EQ(qvx_schema_set_field_indexes(schema_.get(), 0, none, 0), 0);
  EXPECT_EQ(index_of(1), 0);
  EXPECT_EQ(indexed(), Texts{});
}

TEST_F(FieldIndexTest, NameListedTwiceTakesTheLaterNumberAndCountsTwice) {
  EXPECT_EQ(set({"a", "a"}), 0);
  EXPECT_EQ(index_of(0), 2);
  EXPECT_TRUE(log_.messages().empty());
}

TEST_F(FieldIndexTest, WrongArgumentsAreReported) {
  const char* const names[] = {"a"};
  EXPECT_EQ(qvx_schema_set_field_indexes(nullptr, 0, names, 1), 3);
  EXPECT_EQ(qvx_schema_set_field_indexes(schema_.get(), 0, nullptr, 1), 3);
  EXPECT_EQ(qvx_schema_set_field_indexes(schema_.get(), 1, names, 1), 3);
  schema_->types.clear();
  EXPECT_EQ(qvx_schema_set_field_indexes(schema_.get(), 0, names, 1), 3);
  EXPECT_EQ(errors(),
            (Texts{"[qvx_schema_set_field_indexes] Schema pointer is NULL!",
                   "[qvx_schema_set_field_indexes] Index names array is NULL!",
                   "[qvx_schema_set_field_indexes] Invalid type_index: 1 (out of range, max: 0)",
                   "[qvx_schema_set_field_indexes] Invalid type_index: 0 (out of range, max: 4294967295)"}));
}

TEST_F(FieldIndexTest, ListOfIndexedFieldsNeedsATypeAndACount) {
  std::size_t count = 99;
  EXPECT_EQ(qvx_schema_get_indexed_fields(schema_.get(), 0, nullptr), nullptr);
  EXPECT_EQ(qvx_schema_get_indexed_fields(nullptr, 0, &count), nullptr);
  EXPECT_EQ(count, 0U);
  count = 99;
  EXPECT_EQ(qvx_schema_get_indexed_fields(schema_.get(), 1, &count), nullptr);
  EXPECT_EQ(count, 0U);
  count = 99;
  schema_->types[0] = nullptr;
  EXPECT_EQ(qvx_schema_get_indexed_fields(schema_.get(), 0, &count), nullptr);
  EXPECT_EQ(count, 0U);
  schema_->types.clear();
}

TEST_F(SchemaTest, TypesAreFoundHereFirstAndThenInTheParents) {
  ASSERT_EQ(add("mine", {field("a", "int64_t")}), 0);
  EXPECT_EQ(qvx_schema_find_type(schema_.get(), "mine"), schema_->types[0].get());
  EXPECT_EQ(qvx_schema_find_type(schema_.get(), "bool"), builtin_->types[0].get());
  EXPECT_EQ(qvx_schema_find_type(builtin_.get(), "mine"), nullptr);
  EXPECT_EQ(qvx_schema_find_type(schema_.get(), "Mine"), nullptr);
  EXPECT_EQ(qvx_schema_find_type(schema_.get(), nullptr), nullptr);
  EXPECT_EQ(qvx_schema_find_type(nullptr, "mine"), nullptr);
}

TEST_F(SchemaTest, SizeOfAnUnknownTypeIsZero) {
  ASSERT_EQ(add("mine", {field("a", "int64_t", 3)}), 0);
  EXPECT_EQ(qvx_schema_type_size(schema_.get(), "mine"), 24U);
  EXPECT_EQ(qvx_schema_type_size(schema_.get(), "double"), 8U);
  EXPECT_EQ(qvx_schema_type_size(schema_.get(), "other"), 0U);
}

TEST_F(SchemaTest, ResolvingLinksFieldsAndStopsAtTheFirstUnknownType) {
  ASSERT_EQ(add("t", {field("a", "int"), field("b", "char"), field("c", "int")}), 0);
  qvx_type_definition& unresolved = *schema_->types[0];
  for (const auto& member : unresolved.fields)
    member->type = nullptr;
  EXPECT_EQ(qvx_schema_resolve_types(schema_.get(), &unresolved), 0);
  EXPECT_EQ(unresolved.fields[2]->type, qvx_schema_find_type(builtin_.get(), "int"));
  unresolved.fields[1]->type_name = "gone";
  unresolved.fields[2]->type_name = "gone, too";
  EXPECT_EQ(qvx_schema_resolve_types(schema_.get(), &unresolved), -1);
  EXPECT_EQ(errors(), Texts{"Definition of type gone not found within the schema net"});
}

TEST_F(SchemaTest, TypeWithoutFieldsResolves) {
  ASSERT_EQ(add("t", {}), 0);
  EXPECT_EQ(qvx_schema_resolve_types(schema_.get(), schema_->types[0].get()), 0);
}

TEST_F(SchemaTest, BuiltInTypesAreRegisteredInOrder) {
  ASSERT_EQ(builtin_->types.size(), 22U);
  EXPECT_EQ(builtin_->types[0]->name, "bool");
  EXPECT_EQ(builtin_->types[0]->id, 1U);
  EXPECT_EQ(builtin_->types[21]->name, "timestamp");
  EXPECT_EQ(builtin_->types[21]->id, 22U);
  EXPECT_EQ(builtin_->types[21]->size, 8U);
  EXPECT_TRUE(builtin_->types[21]->fields.empty());
}

TEST_F(SchemaTest, BuiltInTypesNeedRoom) {
  const SchemaPtr crowded(qvx_schema_create("crowded", 1));
  for (int i = 0; i < 232; ++i)
    crowded->types.push_back(std::make_unique<qvx_type_definition>());
  EXPECT_EQ(qvx_schema_register_builtins(crowded.get()), 0);
  EXPECT_EQ(crowded->types.size(), 254U);
  EXPECT_EQ(qvx_schema_register_builtins(crowded.get()), -1);
  crowded->types.pop_back();
  EXPECT_EQ(qvx_schema_register_builtins(crowded.get()), -1);
  EXPECT_EQ(crowded->types.size(), 254U);
}

TEST(CountingMode, NamesAndValues) {
  EXPECT_EQ(counting_mode_from_name("ABSOLUTE"), 0U);
  EXPECT_EQ(counting_mode_from_name("RUNNING_SUM"), 1U);
  EXPECT_EQ(counting_mode_from_name("ABSOLUTE_MONOTONIC"), 1U);
  EXPECT_EQ(counting_mode_from_name("absolute"), 0xFFFFFFFFU);
  EXPECT_EQ(counting_mode_from_name(""), 0xFFFFFFFFU);
  EXPECT_STREQ(counting_mode_name(0), "ABSOLUTE");
  EXPECT_STREQ(counting_mode_name(1), "RUNNING_SUM");
  EXPECT_EQ(counting_mode_name(2), nullptr);
  EXPECT_EQ(counting_mode_name(0xFFFFFFFF), nullptr);
}

}  // namespace
}  // namespace qvx
