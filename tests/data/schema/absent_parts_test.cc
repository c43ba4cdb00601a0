// Types and schemas put together by hand may lack what those from files have: names, types of fields, whole
// types.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "qvx/data/schema/influx_lines.h"
#include "qvx/data/schema/record_influx.h"
#include "qvx/data/schema/record_json.h"
#include "qvx/data/schema/schema_json.h"
#include "qvx/data/schema/type_system.h"
#include "qvx/support/json_text.h"
#include "qvx/support/version.h"
#include "tests/support/log_capture.h"
#include "tests/support/record_bytes.h"
#include "tests/support/type_set.h"

namespace qvx {
namespace {

using test::LogCapture;
using test::RecordBytes;

class AbsentPartsTest : public testing::Test {
 protected:
  AbsentPartsTest() {
    types_.add(type_, "a", "uint8_t");
    types_.add(type_, "b", "int8_t");
  }

  qvx_field_definition& first() { return *type_.fields[0]; }
  std::optional<std::string> json() const {
    return qvx_record_to_json(&type_, record_.bytes(), json::Style::compact);
  }
  std::optional<std::string> influx() const { return qvx_record_to_influx(&type_, record_.bytes()); }
  // Without its time, which comes with the block.
  bool has_line() const { return compile_influx_line(type_).has_value(); }

  // A schema of one type with one field.
  static SchemaPtr make_schema() {
    SchemaPtr schema(qvx_schema_create("net", pack_version(1, 2, 3)));
    schema->types.push_back(std::make_unique<qvx_type_definition>());
    schema->types[0]->name = "t";
    schema->types[0]->size = 1;
    schema->types[0]->fields.push_back(std::make_unique<qvx_field_definition>());
    qvx_field_definition& field = *schema->types[0]->fields[0];
    field.field_name = "v";
    field.type_name = "uint8_t";
    field.type_size = 1;
    return schema;
  }

  test::TypeSet types_;
  qvx_type_definition& type_ = types_.make();
  const RecordBytes record_ = RecordBytes().add(std::uint8_t{7}).add(std::int8_t{-8});
};

TEST_F(AbsentPartsTest, NoTypeHasNoText) {
  EXPECT_EQ(qvx_record_to_json(nullptr, record_.bytes(), json::Style::compact), std::nullopt);
  EXPECT_EQ(qvx_record_to_influx(nullptr, record_.bytes()), std::nullopt);
  EXPECT_EQ(qvx_field_to_json(nullptr, record_.bytes()), std::nullopt);
}

TEST_F(AbsentPartsTest, FieldWithoutAName) {
  first().field_name.reset();
  EXPECT_EQ(json(), R"({"":7,"b":-8})");
  EXPECT_EQ(influx(), "=7i,b=-8i");
  EXPECT_EQ(compile_influx_line(type_)->text(record_.bytes()), "t b=-8i ");
  type_.fields[1]->field_name.reset();
  first().index = 1;
  EXPECT_EQ(compile_influx_line(type_)->text(record_.bytes()), std::nullopt);  // neither tag nor field
}

TEST_F(AbsentPartsTest, FieldWithoutATypeFailsTheRecord) {
  first().type = nullptr;
  EXPECT_EQ(json(), std::nullopt);
  EXPECT_EQ(influx(), std::nullopt);
  EXPECT_EQ(qvx_field_to_json(&first(), record_.bytes()), std::nullopt);
  EXPECT_FALSE(has_line());
}

TEST_F(AbsentPartsTest, FieldOfATypeThatIsNeitherBuiltInNorMadeOfFieldsHasNoValue) {
  qvx_type_definition& unknown = types_.make("unknown");
  unknown.id = 23;
  first().type = &unknown;
  EXPECT_EQ(qvx_field_to_json(&first(), record_.bytes()), std::nullopt);
  EXPECT_FALSE(has_line());
}

TEST_F(AbsentPartsTest, NestedFieldWithoutATypeFailsTheRecordToo) {
  for (const std::uint32_t count : {1U, 2U}) {
    qvx_type_definition& outer = types_.make("outer");
    types_.add(outer, "in", type_, count);
    const std::vector<std::byte> record(8);
    EXPECT_TRUE(qvx_record_to_json(&outer, record, json::Style::compact));
    EXPECT_TRUE(qvx_record_to_influx(&outer, record));
    EXPECT_TRUE(compile_influx_line(outer));
    first().type = nullptr;
    EXPECT_EQ(qvx_record_to_json(&outer, record, json::Style::compact), std::nullopt);
    EXPECT_EQ(qvx_record_to_influx(&outer, record), std::nullopt);
    EXPECT_FALSE(compile_influx_line(outer));
    first().type = &types_.builtin("uint8_t");
  }
}

TEST_F(AbsentPartsTest, LineOfATypeThatAsksForTooMuchIsNone) {
  qvx_type_definition& crowd = types_.make("crowd");
  for (int i = 0; i < 200; ++i)
    types_.add(crowd, "f" + std::to_string(i), "uint64_t").offset = 0;
  crowd.size = 8;
  EXPECT_FALSE(compile_influx_line(crowd));
  const qvx_type_definition* level = &type_;
  for (int depth = 0; depth < 500; ++depth) {
    qvx_type_definition& next = types_.make("level");
    types_.add(next, "x", *level);
    level = &next;
  }
  EXPECT_FALSE(compile_influx_line(*level));
  EXPECT_TRUE(compile_influx_line(*level->fields[0]->type));
  // Long names take their room at each level.
  qvx_type_definition& named = types_.make("named");
  types_.add(named, std::string(9 << 20, 'n'), type_);
  EXPECT_FALSE(compile_influx_line(named));
}

TEST_F(AbsentPartsTest, SchemaThatLacksSomethingHasNoJson) {
  SchemaPtr schema = make_schema();
  qvx_field_definition& field = *schema->types[0]->fields[0];
  const auto has_json = [&] { return schema_to_json(*schema).has_value(); };
  ASSERT_TRUE(has_json());
  const auto refuses = [&](auto& of, auto bad) {
    const auto good = of;
    of = bad;
    const bool refused = !has_json();
    of = good;
    return refused && has_json();
  };
  EXPECT_TRUE(refuses(schema->name, "\xFF"));
  EXPECT_TRUE(refuses(schema->types[0]->name, "\xFF"));
  EXPECT_TRUE(refuses(field.field_name, "\xFF"));
  EXPECT_TRUE(refuses(field.description, "\xFF"));
  EXPECT_TRUE(refuses(field.type_name, "\xFF"));
  EXPECT_TRUE(refuses(field.counting_mode, decltype(field.counting_mode){99}));
  field.description.reset();
  EXPECT_TRUE(has_json());
  schema->types.push_back(nullptr);
  EXPECT_FALSE(has_json());
}

TEST_F(AbsentPartsTest, IndexOfAFieldWithoutANameIsANullName) {
  const SchemaPtr schema = make_schema();
  qvx_field_definition& field = *schema->types[0]->fields[0];
  const char* const names[] = {"v"};
  field.field_name.reset();
  EXPECT_EQ(qvx_schema_set_field_indexes(schema.get(), 0, names, 1), 0);
  EXPECT_EQ(field.index, 0);
  const char* const nothing[] = {nullptr};
  field.field_name = "v";
  EXPECT_EQ(qvx_schema_set_field_indexes(schema.get(), 0, nothing, 1), 0);
  EXPECT_EQ(field.index, 0);
  EXPECT_EQ(qvx_schema_set_field_indexes(schema.get(), 0, names, 1), 0);
  EXPECT_EQ(field.index, 1);
  field.field_name.reset();
  std::size_t count = 0;
  const std::unique_ptr<const char*, decltype(&std::free)> found(
      qvx_schema_get_indexed_fields(schema.get(), 0, &count), std::free);
  ASSERT_EQ(count, 1u);
  EXPECT_EQ(found.get()[0], nullptr);
}

TEST_F(AbsentPartsTest, FieldWithoutTheNameOfItsTypeIsNotResolved) {
  const SchemaPtr schema = make_schema();
  schema->types.insert(schema->types.begin(), nullptr);
  schema->types[1]->fields[0]->type_name.reset();
  const LogCapture log(QVX_LOG_ERROR);
  EXPECT_FALSE(schema_resolve(*schema));
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            std::vector<std::string>{"Definition of type  not found within the schema net"});
}

TEST_F(AbsentPartsTest, TypeSystemPassesOverTypesThatAreMissing) {
  const TypeSystemPtr system(qvx_type_system_create());
  system->schemas.push_back(make_schema());
  system->schemas[0]->types.push_back(nullptr);
  system->schemas[0]->md5_text = "digest";
  EXPECT_EQ(qvx_type_system_max_type_size(system.get()), 1u);
  EXPECT_TRUE(qvx_type_system_find_schema(system.get(), "digest", nullptr));
  EXPECT_FALSE(qvx_type_system_find_schema(system.get(), nullptr, nullptr));
}

}  // namespace
}  // namespace qvx
