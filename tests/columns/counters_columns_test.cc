#include "qvx/columns/counters_columns.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "qvx/columns/survey.h"
#include "tests/columns/column_files.h"
#include "tests/support/counters_builder.h"

namespace qvx {
namespace {

using columns::ColumnType;
using columns::Query;
using test::counter_group;
using test::counter_of;
using test::counters_schema;
using test::kNoon;
using test::le;
using test::loads_block;
using test::rows;

class CountersColumnsTest : public testing::Test {
 protected:
  test::ColumnFiles files_;
};

TEST_F(CountersColumnsTest, NameThatAnotherGroupHasIsNumbered) {
  const std::string used = counter_of("used", "UINT64");
  const std::string schema =
      counters_schema(counter_group("node", 1, used + "," + counter_of("used_2", "UINT64")) + "," +
                      counter_group("node", 1, used) + "," +
                      counter_group("node", 1, used + "," + counter_of("free", "UINT64")));
  std::string values;
  for (std::uint64_t value = 1; value <= 5; ++value)
    values += le(value);
  const std::string path = files_.write("a.bin", {test::counters_block(kNoon, values)}, "", schema);
  EXPECT_EQ(
      rows({path}, {.table = "counters"}),
      std::vector<std::string>{
          R"({"timestamp":1714996800000000,"set":0,"node.used":1,"node.used_2":2,"node.used_3":3,"node.used_4":4,"node.free":5})"});
}

TEST_F(CountersColumnsTest, OfANameThatRepeatsInItsGroupTheLastIsShownAtThePlaceOfTheFirst) {
  const std::string schema = counters_schema(counter_group(
      "node", 1,
      counter_of("a", "UINT64") + "," + counter_of("b", "UINT64") + "," + counter_of("a", "INT64")));
  const std::string path = files_.write(
      "a.bin",
      {test::counters_block(kNoon, le(std::uint64_t{1}) + le(std::uint64_t{2}) + le(std::int64_t{-3}))}, "",
      schema);
  EXPECT_EQ(rows({path}, {.table = "counters", .columns = {"node.*"}}),
            std::vector<std::string>{R"({"node.a":-3,"node.b":2})"});
}

TEST_F(CountersColumnsTest, GroupWithoutSetsHasNulls) {
  const std::string schema = counters_schema(counter_group("node", 1, counter_of("a", "UINT64")) + "," +
                                             counter_group("none", 0, counter_of("b", "UINT64")));
  const std::string block = test::counters_block(kNoon, le(std::uint64_t{1}) + le(std::uint64_t{2}));
  const std::string path = files_.write("a.bin", {block, block}, "", schema);
  EXPECT_EQ(rows({path}, {.table = "counters", .columns = {"set", "none.b", "node.a"}}),
            (std::vector<std::string>{R"({"set":0,"none.b":null,"node.a":1})",
                                      R"({"set":0,"none.b":null,"node.a":1})"}));
}

TEST_F(CountersColumnsTest, SchemaWithoutSetsHasNoRows) {
  const std::string schema = counters_schema(counter_group("none", 0, counter_of("b", "UINT64")));
  const std::string path =
      files_.write("a.bin", {test::counters_block(kNoon, le(std::uint64_t{2}))}, "", schema);
  const auto data = test::open({path});
  EXPECT_TRUE(test::read(data, {.table = "counters"}).rows.empty());
  EXPECT_TRUE(columns::survey(*data).tables.empty());
  EXPECT_TRUE(data->faults().list().empty());
}

TEST_F(CountersColumnsTest, ColumnsOfOtherSchemasAreNullInEverySet) {
  const std::string other = counters_schema(counter_group("disk", 2, counter_of("read", "UINT64")));
  const std::vector<std::string> paths{
      files_.write("a.bin", {loads_block(7, "n1", 0.5)}),
      files_.write("b.bin", {test::counters_block(kNoon + 1, le(std::uint64_t{9}))}, "", other)};
  for (const std::size_t batch_rows : {1u, 2u, 100u})
    EXPECT_EQ(
        rows(paths,
             {.table = "counters", .columns = {"disk.read", "cpu.load", "_time"}, .batch_rows = batch_rows}),
        (std::vector<std::string>{R"({"disk.read":null,"cpu.load":0.5,"_time":1714996800000000})",
                                  R"({"disk.read":null,"cpu.load":0.5,"_time":1714996800000000})",
                                  R"({"disk.read":null,"cpu.load":0.5,"_time":1714996800000000})",
                                  R"({"disk.read":9,"cpu.load":null,"_time":1714996800000001})",
                                  R"({"disk.read":9,"cpu.load":null,"_time":1714996800000001})"}))
        << batch_rows;
}

TEST_F(CountersColumnsTest, BlocksThatAreTooLongToBeReadTogetherAreRowsToo) {
  // The last counter ends 4,096 bytes behind the header's first; of a longer one each block is read alone.
  for (const std::uint32_t length : {4072u, 4073u}) {
    const std::string counters =
        counter_of("a", "UINT64") +
        R"(,{"name":"t","description":"","units":"","data_type":"STRING","counting_type":"ABSOLUTE","length":)" +
        std::to_string(length) + "}";
    const std::string schema = counters_schema(counter_group("node", 1, counters));
    test::FileHeader header = test::ColumnFiles::header(8192);
    header.counters_schema_id = test::md5_id(schema);
    files_.add_schema(schema);
    std::vector<std::string> units;
    for (std::uint64_t number = 1; number <= 3; ++number)
      units.push_back(
          test::counters_block(kNoon, le(number) + test::field("text " + std::to_string(number), length)));
    EXPECT_EQ(
        rows({files_.write("a.bin", units, header)}, {.table = "counters", .columns = {"node.*", "set"}}),
        (std::vector<std::string>{R"({"node.a":1,"node.t":"text 1","set":0})",
                                  R"({"node.a":2,"node.t":"text 2","set":0})",
                                  R"({"node.a":3,"node.t":"text 3","set":0})"}))
        << length;
  }
}

TEST_F(CountersColumnsTest, ConditionOnTheSourceSelectsCounters) {
  const std::string page =
      test::page_block({.source_id = "host-2", .source_tag = "gpu"}, loads_block(8, "n2", 1.5));
  const std::string path = files_.write("a.bin", {loads_block(7, "n1", 0.5), page});
  const auto used = [&](const std::string& column, const std::string& pattern) {
    return rows({path}, {.table = "counters", .columns = {"node.used"}, .where = {{column, {pattern}}}});
  };
  const std::vector<std::string> first{R"({"node.used":7})", R"({"node.used":null})",
                                       R"({"node.used":null})"};
  const std::vector<std::string> second{R"({"node.used":8})", R"({"node.used":null})",
                                        R"({"node.used":null})"};
  EXPECT_EQ(used("_source_id", "host-1"), first);
  EXPECT_EQ(used("_source_tag", "t*"), first);
  EXPECT_EQ(used("_source_tag", "gpu"), second);
  EXPECT_TRUE(used("_source_tag", "cpu").empty());
}

TEST_F(CountersColumnsTest, WhatACounterDoesNotTellIsNotInItsColumn) {
  const CountersSchemaPtr schema = test::make_schema({test::make_group(0, 1, {{"a", QVX_COUNTER_UINT64}})});
  qvx_counter_group& group = *schema->groups[0];
  qvx_counter_info& counter = *group.counters[0];
  counter.counting_type = 0;
  const auto compiled = [&] {
    std::string why_not;
    const auto columns = columns::compile_counters_columns(*schema, "", why_not);
    return columns.value().types.at(0);
  };
  using Metadata = std::vector<std::pair<std::string, std::string>>;
  ColumnType type = compiled();
  EXPECT_EQ(type.name, "unset.a");
  EXPECT_EQ(type.metadata,
            (Metadata{{"description", "about it"}, {"counting_mode", "ABSOLUTE"}, {"granularity", "NODE"}}));
  counter.name.reset();
  counter.description.reset();
  counter.counting_type = 99;
  group.granularity = 99;
  type = compiled();
  EXPECT_EQ(type.name, "unset.");
  EXPECT_EQ(type.metadata, Metadata());
}

}  // namespace
}  // namespace qvx
