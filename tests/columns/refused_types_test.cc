// Types and schemas that become no columns, or become known too late: what is told, and that all else is
// read.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "qvx/columns/counters_columns.h"
#include "qvx/columns/event_columns.h"
#include "qvx/columns/fault_recorder.h"
#include "qvx/columns/survey.h"
#include "qvx/counters/counters_json.h"
#include "qvx/support/log.h"
#include "tests/columns/column_files.h"
#include "tests/support/type_set.h"

namespace qvx {
namespace {

using columns::DataFault;
using columns::Survey;
using test::counter_group;
using test::counter_of;
using test::counters_schema;
using test::event_field;
using test::event_schema;
using test::event_type;
using test::id_text;
using test::job_row;
using test::jobs_block;
using test::kNoon;
using test::le;

class RefusedTypesTest : public testing::Test {
 protected:
  void SetUp() override { testing::internal::CaptureStderr(); }
  void TearDown() override { EXPECT_EQ(testing::internal::GetCapturedStderr(), ""); }

  test::ColumnFiles files_;
};

// 200 values on top of each other in eight bytes, which are more than any record may have.
std::string crowd(const std::string& name) {
  std::string fields;
  for (int i = 0; i < 200; ++i)
    fields += (i > 0 ? "," : "") + event_field("f" + std::to_string(i), "uint64_t", 0, 8);
  return event_type(name, 8, fields);
}

TEST_F(RefusedTypesTest, EventTypeIsToldWithItsReasonAndTheOthersOfItsSchemaAreTables) {
  const std::string schema =
      event_schema("batch", crowd("crowd") + "," + event_type("tick", 8, event_field("n", "uint64_t", 0, 8)));
  const std::string unit = test::events_block({.type_index = 0}, {le(std::uint64_t{1})}) +
                           test::events_block({.type_index = 1}, {le(std::uint64_t{7})});
  const std::string path = files_.write("a.bin", {unit}, schema);
  const auto data = test::open({path});
  const std::vector<DataFault> faults = data->faults().list();
  ASSERT_EQ(faults.size(), 1u);
  EXPECT_EQ(faults[0].file, path);
  EXPECT_EQ(faults[0].offset, 0u);
  EXPECT_EQ(faults[0].kind, "type_refused");
  EXPECT_EQ(faults[0].words, "Type crowd of schema " + id_text(schema) +
                                 " has no columns: its values take far more bytes than a record has");
  EXPECT_FALSE(data->find("crowd"));
  EXPECT_EQ(test::read(data, {.table = "tick"}).rows, std::vector<std::string>{R"({"n":7})"});

  const Survey survey = columns::survey(*data);
  ASSERT_EQ(survey.tables.size(), 1u);
  EXPECT_EQ(survey.tables[0].name, "tick");
  EXPECT_EQ(survey.files[0].rows, 1u);
  EXPECT_EQ(data->faults().list().size(), 1u);
}

TEST_F(RefusedTypesTest, RecordsOfARefusedVersionAreToldWhereTheyStandAndThoseOfTheOtherAreRows) {
  const std::string good = event_schema("batch", event_type("tick", 8, event_field("n", "uint64_t", 0, 8)));
  const std::string bad = event_schema("batch", crowd("tick"));
  const std::string block = test::events_block({}, {le(std::uint64_t{7})});
  const auto data =
      test::open({files_.write("a.bin", {block}, good), files_.write("b.bin", {block, block}, bad)});
  EXPECT_EQ(test::read(data, {.table = "tick"}).rows, std::vector<std::string>{R"({"n":7})"});
  const std::vector<DataFault> faults = data->faults().list();
  const std::string words = "Type tick of schema " + id_text(bad) +
                            " has no columns: its values take far more bytes than a record has";
  ASSERT_EQ(faults.size(), 2u);
  EXPECT_EQ(faults[0].kind, "type_refused");
  EXPECT_EQ(faults[0].words, words);
  EXPECT_EQ(faults[1].kind, "types_failed");
  EXPECT_EQ(faults[1].words, words);
  EXPECT_EQ(faults[1].offset, 256u);
}

TEST_F(RefusedTypesTest, CountersSchemaWithTooManyValuesHasNoRows) {
  const std::string schema = counters_schema(counter_group("node", 1048577, counter_of("used", "UINT64")));
  const std::string block = test::counters_block(kNoon, le(std::uint64_t{5}));
  const auto data = test::open({files_.write("a.bin", {block}, "", schema)});
  const std::string words =
      "Counters schema " + id_text(schema) + " has no columns: a block has more than 1048576 values";
  ASSERT_EQ(data->faults().list().size(), 1u);
  EXPECT_EQ(data->faults().list()[0].kind, "type_refused");
  EXPECT_EQ(data->faults().list()[0].offset, 0u);
  EXPECT_EQ(data->faults().list()[0].words, words);
  EXPECT_EQ(data->find("counters")->columns.size(), 2u);

  EXPECT_TRUE(test::read(data, {.table = "counters"}).rows.empty());
  ASSERT_EQ(data->faults().list().size(), 2u);
  EXPECT_EQ(data->faults().list()[1].kind, "types_failed");
  EXPECT_EQ(data->faults().list()[1].offset, 256u);
  EXPECT_EQ(data->faults().list()[1].words, words);

  const Survey survey = columns::survey(*data);
  EXPECT_TRUE(survey.tables.empty());
  EXPECT_EQ(survey.files[0].rows, 0u);
  EXPECT_FALSE(survey.files[0].failed);
}

TEST_F(RefusedTypesTest, CountersSchemaMayHaveAsManyValuesAsABlockPrints) {
  const std::string most = counter_of("a", "UINT64") + "," + counter_of("b", "UINT64");
  const auto why_not = [](const std::string& groups) {
    const CountersSchemaPtr schema(qvx_counters_schema_from_json_text(counters_schema(groups).c_str()));
    std::string why;
    return columns::compile_counters_columns(*schema, "", why) ? "" : why;
  };
  EXPECT_EQ(why_not(counter_group("n", 524288, most)), "");
  EXPECT_EQ(why_not(counter_group("n", 524289, most)), "a block has more than 1048576 values");
  EXPECT_EQ(why_not(counter_group("n", 524288, most) + "," + counter_group("m", 1, most)),
            "a block has more than 1048576 values");
  // Rows without a value, too.
  EXPECT_EQ(why_not(counter_group("n", 1048576, "")), "");
  EXPECT_EQ(why_not(counter_group("n", 1048577, "")), "a block has more than 1048576 values");
}

TEST_F(RefusedTypesTest, ColumnsThatBecomeKnownBehindTheQueryAreToldAndTheOthersRead) {
  const std::string first = event_schema("batch", event_type("tick", 8, event_field("n", "uint64_t", 0, 8)));
  const std::string later = event_schema(
      "batch", event_type("tick", 12,
                          event_field("n", "uint64_t", 0, 8) + "," + event_field("late", "uint32_t", 8, 4)));
  files_.add_schema(later);
  const std::string unit = test::events_block({}, {le(std::uint64_t{1})}) +
                           test::schemas_block({test::md5_id(later)}) +
                           test::events_block({}, {le(std::uint64_t{2}) + le(std::uint32_t{3})});
  const auto data = test::open({files_.write("a.bin", {unit}, first)});
  EXPECT_EQ(test::read(data, {.table = "tick"}).rows, (std::vector<std::string>{R"({"n":1})", R"({"n":2})"}));
  const std::vector<DataFault> faults = data->faults().list();
  ASSERT_EQ(faults.size(), 1u);
  EXPECT_EQ(faults[0].kind, "types_failed");
  EXPECT_EQ(faults[0].offset, 256u + 24 + 256);
  EXPECT_EQ(faults[0].words,
            "Column late of schema " + id_text(later) + " is not in table tick: it became known too late");
  // A survey makes it known, so that the next query has it.
  columns::survey(*data);
  EXPECT_EQ(test::read(data, {.table = "tick"}).rows,
            (std::vector<std::string>{R"({"n":1,"late":null})", R"({"n":2,"late":3})"}));
}

// Both counted where records of a type of the same name but other content are one column and where not.
TEST_F(RefusedTypesTest, ColumnsOfNestedRecordsAreOneOnlyWhenAllTheirFieldsAre) {
  const auto schema = [](const std::string& inner, int size) {
    return event_schema("batch", event_type("inner", size, inner) + "," +
                                     event_type("tick", size, event_field("at", "inner", 0, size)));
  };
  const std::string a = schema(event_field("x", "uint16_t", 0, 2), 2);
  const std::string other_name = schema(event_field("y", "uint16_t", 0, 2), 2);
  const std::string other_type = schema(event_field("x", "int16_t", 0, 2), 2);
  const std::string more =
      schema(event_field("x", "uint16_t", 0, 2) + "," + event_field("y", "uint16_t", 2, 2), 4);
  const std::string block =
      test::events_block({.type_index = 1}, {le(std::uint16_t{1}) + le(std::uint16_t{2})});
  const auto data =
      test::open({files_.write("a.bin", {block}, a), files_.write("b.bin", {block}, other_name),
                  files_.write("c.bin", {block}, other_type), files_.write("d.bin", {block}, more)});
  const auto name = [](const std::string& text) { return "at@" + id_text(text).substr(0, 8); };
  std::vector<std::string> names;
  const columns::Table table = data->find("tick").value();
  for (const columns::ColumnType& column : table.columns)
    names.push_back(column.name);
  EXPECT_EQ(names, (std::vector<std::string>{"at", name(other_name), name(other_type), name(more)}));
  EXPECT_EQ(test::read(data, {.table = "tick", .columns = {"at", name(more)}}).rows,
            (std::vector<std::string>{R"({"at":{"x":1},")" + name(more) + R"(":null})",
                                      R"({"at":null,")" + name(more) + R"(":null})",
                                      R"({"at":null,")" + name(more) + R"(":null})",
                                      R"({"at":null,")" + name(more) + R"(":{"x":1,"y":2}})"}));
}

TEST_F(RefusedTypesTest, WhatIsLoggedWithoutAFaultIsAWarning) {
  const std::string schema = counters_schema(counter_group("node", 1, counter_of("used", "UINT64")), "2.0.0");
  const auto data =
      test::open({files_.write("a.bin", {test::counters_block(kNoon, le(std::uint64_t{5}))}, "", schema)});
  EXPECT_EQ(test::read(data, {.table = "counters", .columns = {"node.used"}}).rows,
            std::vector<std::string>{R"({"node.used":5})"});
  const std::vector<DataFault> faults = data->faults().list();
  ASSERT_EQ(faults.size(), 1u);
  EXPECT_EQ(faults[0].kind, "warning");
  EXPECT_EQ(faults[0].offset, 0u);
  EXPECT_EQ(faults[0].words,
            "Version '2.0.0' of parsing schema is incompatible with current schema version '1.5.0'");
}

TEST_F(RefusedTypesTest, WarningDoesNotEndAStreamThatFaultsEnd) {
  const std::string schema = counters_schema(counter_group("node", 1, counter_of("used", "UINT64")), "2.0.0");
  const auto data =
      test::open({files_.write("a.bin", {test::counters_block(kNoon, le(std::uint64_t{5}))}, "", schema)});
  ArrowArrayStream stream;
  export_stream(std::make_unique<columns::TableStream>(data, columns::resolve(*data, {.table = "counters"})),
                &stream, columns::StreamFaults::end_stream);
  const test::OwnedArray batch(new ArrowArray{});
  ASSERT_EQ(stream.get_next(&stream, batch.get()), 0);
  EXPECT_EQ(batch->length, 1);
  ArrowArray end{};
  EXPECT_EQ(stream.get_next(&stream, &end), 0);
  EXPECT_EQ(end.release, nullptr);
  EXPECT_EQ(stream.get_last_error(&stream), nullptr);
  stream.release(&stream);
  ASSERT_EQ(data->faults().list().size(), 1u);
  EXPECT_EQ(data->faults().list()[0].kind, "warning");
}

// Put together by hand, since those from files have them.
TEST(EventColumnsTest, NamesAndDescriptionsMayBeAbsentTypesMayNot) {
  const test::TypeSet types;
  qvx_type_definition type;
  qvx_field_definition& field = types.add(type, "a", "uint8_t");
  types.add(type, "b", "int8_t");
  field.field_name.reset();
  field.description.reset();
  field.type_name.reset();
  std::string why_not;
  const auto made = columns::compile_event_columns(type, "id", why_not);
  ASSERT_TRUE(made);
  ASSERT_EQ(made->types.size(), 2u);
  EXPECT_EQ(made->types[0].name, "");
  EXPECT_EQ(made->types[1].name, "b");
  for (const auto& [key, value] : made->types[0].metadata)
    EXPECT_TRUE(key != "description" && key != "type") << key;
  field.type = nullptr;
  EXPECT_FALSE(columns::compile_event_columns(type, "id", why_not));
  EXPECT_EQ(why_not, "a field has no type");
  why_not.clear();
  qvx_type_definition unknown;
  unknown.id = 23;  // neither built in nor made of fields
  field.type = &unknown;
  EXPECT_FALSE(columns::compile_event_columns(type, "id", why_not));
  EXPECT_EQ(why_not, "a field has no type");
}

TEST(EventColumnsTest, ListsOfDifferentLengthsAreNoColumnOfOneTable) {
  columns::ColumnType two;
  two.kind = columns::ColumnKind::list;
  two.count = 2;
  columns::ColumnType three = two;
  EXPECT_TRUE(columns::have_same_values(two, three));
  three.count = 3;
  EXPECT_FALSE(columns::have_same_values(two, three));
}

TEST(FaultRecorderTest, WhatWasLoggedStandsForTheWordsThatAFaultLacks) {
  columns::FaultList list;
  const std::string file = "a.bin";
  columns::FaultRecorder recorder(list, file);
  QVX_LOG(QVX_LOG_WARNING, "said %d", 1);
  recorder.add({}, "kind", "");
  QVX_LOG(QVX_LOG_WARNING, "said %d", 2);
  recorder.add({}, "kind", "words");
  const std::vector<DataFault> faults = list.list();
  ASSERT_EQ(faults.size(), 2u);
  EXPECT_EQ(faults[0].words, "said 1");
  EXPECT_EQ(faults[1].words, "words: said 2");
}

TEST(FaultListTest, OfAFileTheFirstThousandAreKeptAndTheOthersCounted) {
  columns::FaultList faults;
  for (std::uint64_t offset = 0; offset < 1000; ++offset)
    faults.add({"a.bin", offset, "page_damaged", "no gzip"});
  EXPECT_EQ(faults.left_out(), 0u);
  // One that is known is not another.
  faults.add({"a.bin", 999, "page_damaged", "no gzip"});
  EXPECT_EQ(faults.left_out(), 0u);
  faults.add({"a.bin", 999, "page_damaged", "other words"});
  faults.add({"a.bin", 1000, "page_damaged", "no gzip"});
  EXPECT_EQ(faults.left_out(), 2u);
  faults.add({"b.bin", 7, "page_damaged", "no gzip"});
  EXPECT_EQ(faults.left_out(), 2u);
  const std::vector<DataFault> list = faults.list();
  ASSERT_EQ(list.size(), 1001u);
  EXPECT_EQ(list[999].offset, 999u);
  EXPECT_EQ(list[999].words, "no gzip");
  EXPECT_EQ(list[1000].file, "b.bin");
}

}  // namespace
}  // namespace qvx
