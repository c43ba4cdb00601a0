// Every allocation of every function of this room fails, alone and with all behind it: what then succeeds has
// everything in it, and nothing is thrown.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <new>
#include <optional>
#include <string>

#include "qvx/counters/counters_block.h"
#include "qvx/counters/counters_json.h"
#include "qvx/counters/counters_tables.h"
#include "tests/support/allocation_sweep.h"
#include "tests/support/captured_stream.h"
#include "tests/support/counters_builder.h"
#include "tests/support/record_bytes.h"
#include "tests/support/temp_dir.h"

namespace qvx {
namespace {

using test::RecordBytes;
using test::sweep_allocations;

constexpr const char* kName = "a counter with a long name, so that it is allocated";

qvx_counter_info counter() {
  qvx_counter_info info;
  info.name = kName;
  info.description = "a description that is long enough to be allocated";
  info.units = "units that are long enough to be allocated";
  info.data_type = QVX_COUNTER_STRING;
  info.length = 8;
  return info;
}

CountersSchemaPtr make_schema() {
  return test::make_schema(
      {test::make_group(0, 1,
                        {{"a counter with a long name, number one", QVX_COUNTER_UINT64},
                         {"a counter with a long name, number two", QVX_COUNTER_STRING, 8}}),
       test::make_group(1, 300, {{"load", QVX_COUNTER_FP64}})});
}

RecordBytes block() {
  return RecordBytes()
      .add_text("QVXD", 8)
      .add(std::uint64_t{1})
      .add(std::uint64_t{2})
      .add_text("text", 8)
      .add(0.5);
}

TEST(CountersShortMemory, OfBuildingSchemasLeavesNothingOut) {
  const qvx_counter_info info = counter();
  sweep_allocations([&] { return CounterInfoPtr(qvx_counter_info_copy(&info)); },
                    [](const CounterInfoPtr& copy) {
                      return copy->name == kName && copy->description && copy->units && copy->length == 8;
                    });
  qvx_counter_group group;
  sweep_allocations(
      [&] {
        group.counters.clear();
        group.counters.shrink_to_fit();
        return qvx_counter_group_add_counter(&group, &info);
      },
      [&](bool) { return group.counters.size() == 1 && group.counters[0]->name == kName; });
  sweep_allocations(
      [] {
        CountersSchemaPtr schema(qvx_counters_schema_create());
        CounterGroupPtr added(new (std::nothrow) qvx_counter_group);
        if (schema == nullptr || added == nullptr) return CountersSchemaPtr();
        if (!qvx_counters_schema_add_group(schema.get(), added.get())) return CountersSchemaPtr();
        added.release();
        return schema;
      },
      [](const CountersSchemaPtr& schema) { return schema->groups.size() == 1; });
}

TEST(CountersShortMemory, OfLoadingLeavesNothingOut) {
  const test::TempDir folder;
  const std::string text = qvx_counters_schema_jsonify_text(make_schema().get()).value_or("");
  const std::string path = folder.write_file("schema_01000000000000000000000000000000.json", text);
  const std::string directory = folder.path().string();
  qvx_schema_id id;
  id.bytes[0] = std::byte{1};
  const auto is_whole = [&](const CountersSchemaPtr& schema) {
    return qvx_counters_schema_jsonify_text(schema.get()) == text && schema->size_of_counters == 24;
  };
  sweep_allocations([&] { return CountersSchemaPtr(qvx_counters_schema_load_by_id(&id, directory.c_str())); },
                    is_whole);
  sweep_allocations([&] { return CountersSchemaPtr(qvx_counters_schema_from_json_file(path.c_str())); },
                    is_whole);
}

TEST(CountersShortMemory, OfTextsOfSchemasMakesNone) {
  const CountersSchemaPtr schema = make_schema();
  const std::string text = qvx_counters_schema_jsonify_text(schema.get()).value_or("");
  sweep_allocations([&] { return qvx_counters_schema_jsonify(schema.get()); },
                    [&](const std::optional<json::Value>& value) {
                      return json::to_text(*value, json::Style::pretty) == text;
                    });
  test::FixedStream stream;
  sweep_allocations(
      [&] {
        std::rewind(stream.file());
        return qvx_counters_schema_jsonify_print(stream.file(), schema.get());
      },
      [&](bool) { return stream.text() == text + "\n"; });
  const qvx_counter_info info = counter();
  const auto line = qvx_counter_line(&info);
  ASSERT_TRUE(line);
  sweep_allocations([&] { return qvx_counter_line(&info); }, [&](const auto& made) { return made == line; });
}

TEST(CountersShortMemory, OfBlocksMakesNoText) {
  const CountersSchemaPtr schema = make_schema();
  const RecordBytes bytes = block();
  const auto text = [&] {
    return qvx_counters_block_to_json(bytes.bytes(), schema.get(), json::Style::compact);
  };
  const auto whole = text();
  ASSERT_TRUE(whole);
  sweep_allocations(text, [&](const auto& made) { return made == whole; });
  test::FixedStream stream;
  const auto print = [&] {
    std::rewind(stream.file());
    return qvx_counters_block_print(stream.file(), bytes.bytes(), schema.get());
  };
  ASSERT_TRUE(print());
  const std::string tables = stream.text();
  ASSERT_NE(tables.find("| 299 |"), std::string::npos);
  sweep_allocations(print, [&](bool) { return stream.text() == tables; });
}

}  // namespace
}  // namespace qvx
