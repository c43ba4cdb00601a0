// Every allocation of every function of this room fails, alone and with all behind it: what then succeeds has
// everything in it, and what is named qvx_ throws nothing.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/counters/counters_json.h"
#include "qvx/counters/counters_schema.h"
#include "qvx/data/schema/record_influx.h"
#include "qvx/data/schema/record_json.h"
#include "qvx/data/schema/schema_json.h"
#include "qvx/data/schema/schema_writer.h"
#include "qvx/data/schema/serializer.h"
#include "qvx/data/schema/type_system.h"
#include "qvx/support/json_parse.h"
#include "qvx/support/json_text.h"
#include "tests/support/allocation_sweep.h"
#include "tests/support/counters_builder.h"
#include "tests/support/record_bytes.h"
#include "tests/support/temp_dir.h"

namespace qvx {
namespace {

using test::RecordBytes;
using test::sweep_allocations;

// Longer than what a string keeps within itself.
constexpr const char* kProvider = "a provider with a long name, so that it is allocated";
constexpr const char* kType = "a type with a long name, so that it is allocated";

constexpr qvx_field_info kFields[] = {
    {"the time of the record, in microseconds", "a description that is long, too", "timestamp", 0, 1},
    {"a name of characters, as an index field", nullptr, "char", 0, 8},
    {"some numbers, each of them with a fraction", "", "double", 0, 2},
};

// What throws std::bad_alloc fails so; anything else is a fault.
template <typename Call>
auto nothing_when_short(Call call) -> std::optional<decltype(call())> {
  try {
    return call();
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

// With one schema of one type, and counters. Null when memory is short.
TypeSystemPtr make_types() {
  TypeSystemPtr types(qvx_type_system_create());
  if (types == nullptr) return nullptr;
  qvx_schema* const schema = qvx_type_system_new_schema(types.get(), kProvider, 1, nullptr);
  if (schema == nullptr || qvx_schema_add_type(schema, kType, kFields, 3, nullptr) != 0) return nullptr;
  return types;
}

TypeSystemPtr make_types_with_counters() {
  TypeSystemPtr types = make_types();
  types->counters_schema.reset(
      test::make_schema(
          {test::make_group(0, 1,
                            {{"a counter with a long name, number one", QVX_COUNTER_UINT64},
                             {"a counter with a long name, number two", QVX_COUNTER_STRING, 8}})})
          .release());
  return types;
}

std::string text_of_both_kinds() {
  return R"({"qvx_version":"1.5.0","provider_name":"net","provider_version":"1.0.0","types":[],)"
         R"("version":"1.5.0","counter_groups":[{"granularity":"NODE","num_counters":1,"num_counter_sets":1,)"
         R"("counters":[{"name":"a counter with a long name, number one","description":"","units":"",)"
         R"("data_type":"UINT64","counting_type":"ABSOLUTE"}]}]})";
}

RecordBytes& add_record(RecordBytes& bytes) {
  return bytes.add(std::uint64_t{7}).add_text("eth0", 8).add(0.5).add(1.5);
}

std::string text_of(const TypeSystemPtr& types) {
  return qvx_type_system_to_json_text(types.get(), false).value_or("none");
}

TEST(ShortMemory, OfMakingSchemasLeavesNothingOut) {
  const std::string whole = text_of(make_types());
  ASSERT_NE(whole, "none");
  sweep_allocations(make_types, [&](const TypeSystemPtr& types) { return text_of(types) == whole; });
  sweep_allocations([] { return SchemaPtr(qvx_schema_create(kProvider, 1)); },
                    [](const SchemaPtr& schema) { return schema->name == kProvider; });
  sweep_allocations(
      [] {
        SchemaPtr schema(qvx_schema_create("a", 1));
        if (schema != nullptr && qvx_schema_register_builtins(schema.get()) != 0) schema.reset();
        return schema;
      },
      [](const SchemaPtr& schema) { return schema->types.size() == 22; });
}

TEST(ShortMemory, OfATypeThatIsAddedLeavesTheSchemaAsItWas) {
  const TypeSystemPtr types = make_types();
  qvx_schema* const schema = types->schemas[0].get();
  std::size_t number = 1;
  sweep_allocations(
      [&] {
        std::uint8_t index = 0;
        return qvx_schema_add_type(schema, std::to_string(number).c_str(), kFields, 3, &index) == 0 &&
               index == number;
      },
      [&](bool) { return schema->types[number++]->fields.size() == 3; });
  EXPECT_EQ(schema->types.size(), number);
}

TEST(ShortMemory, OfIndexFieldsGivesNone) {
  const TypeSystemPtr types = make_types();
  const char* const name = "a name of characters, as an index field";
  ASSERT_EQ(qvx_schema_set_field_indexes(types->schemas[0].get(), 0, &name, 1), 0);
  struct Free {
    void operator()(const char** names) const { std::free(names); }
  };
  std::size_t count = 0;
  const auto get = [&] {
    return std::unique_ptr<const char*, Free>(
        qvx_schema_get_indexed_fields(types->schemas[0].get(), 0, &count));
  };
#if defined(__SANITIZE_ADDRESS__)
  ASSERT_NE(get(), nullptr);  // its allocation cannot be made to fail
#else
  sweep_allocations(get, [&](const auto& names) { return count == 1 && *names == std::string(name); });
#endif
}

TEST(ShortMemory, OfSchemasThatMoveKeepsThemAll) {
  std::size_t schemas = 0;
  sweep_allocations(
      [&] {
        const TypeSystemPtr from = make_types();
        TypeSystemPtr to(from != nullptr ? qvx_type_system_create() : nullptr);
        if (to == nullptr) return TypeSystemPtr();
        const bool moved = qvx_type_system_add_schemas_of(to.get(), from.get()) == 0;
        schemas = to->schemas.size() + from->schemas.size();
        if (!moved) to.reset();
        return to;
      },
      [&](const TypeSystemPtr& to) { return schemas == 1 && to->schemas.size() == 1; });
  EXPECT_EQ(schemas, 1U);
}

TEST(ShortMemory, OfATextOfBothKindsDoesNotMakeItTheOther) {
  const std::string text = text_of_both_kinds();
  sweep_allocations(
      [&] {
        TypeSystemPtr types(qvx_type_system_create());
        std::uint8_t index = 0;
        if (types != nullptr && qvx_type_system_add_schema_json(types.get(), text.c_str(), &index) != 0)
          types.reset();
        return types;
      },
      [](const TypeSystemPtr& types) {
        return types->schemas.empty() && types->counters_schema->groups.size() == 1;
      });
}

TEST(ShortMemory, OfLoadingLeavesNothingOut) {
  const test::TempDir folder;
  const TypeSystemPtr types = make_types();
  const auto text = schema_to_json(*types->schemas[0]);
  ASSERT_TRUE(text);
  const std::string path =
      folder.write_file("a.json", json::to_text(*text, json::Style::pretty).value_or(""));
  const std::string whole = text_of(types);
  sweep_allocations(
      [&] {
        TypeSystemPtr loaded(qvx_type_system_create());
        if (loaded != nullptr && qvx_type_system_load_schema_file(loaded.get(), path.c_str()) == nullptr)
          loaded.reset();
        return loaded;
      },
      [&](const TypeSystemPtr& loaded) { return text_of(loaded) == whole; });
  sweep_allocations([&] { return SchemaPtr(qvx_schema_load_file(path.c_str(), types->builtin.get())); },
                    [](const SchemaPtr& schema) { return schema->types[0]->fields.size() == 3; });
  sweep_allocations([&] { return TypeSystemPtr(qvx_type_system_from_json_text(whole.c_str())); },
                    [&](const TypeSystemPtr& loaded) { return text_of(loaded) == whole; });
  // A counters schema alone, too, is a type system.
  const std::string counters =
      qvx_counters_schema_jsonify_text(make_types_with_counters()->counters_schema.get()).value_or("");
  sweep_allocations([&] { return TypeSystemPtr(qvx_type_system_from_json_text(counters.c_str())); },
                    [](const TypeSystemPtr& loaded) {
                      return loaded->schemas.empty() && loaded->counters_schema->groups.size() == 1;
                    });
}

TEST(ShortMemory, OfTextsOfSchemasMakesNone) {
  const TypeSystemPtr types = make_types_with_counters();
  const qvx_schema& schema = *types->schemas[0];
  const auto type_text = [&] { return qvx_schema_type_to_json_text(&schema, kType, true); };
  const auto whole_type = type_text();
  ASSERT_TRUE(whole_type);
  sweep_allocations(type_text, [&](const auto& text) { return text == whole_type; });
  const auto value_text = [](const std::optional<json::Value>& value) {
    return value ? json::to_text(*value, json::Style::compact) : std::nullopt;
  };
  const auto whole_system = value_text(qvx_type_system_to_json(types.get()));
  sweep_allocations([&] { return qvx_type_system_to_json(types.get()); },
                    [&](const auto& value) { return value_text(value) == whole_system; });
  const auto whole_field = value_text(field_to_json(*schema.types[0]->fields[0]));
  ASSERT_TRUE(whole_field);
  sweep_allocations([&] { return field_to_json(*schema.types[0]->fields[0]); },
                    [&](const auto& value) { return value_text(value) == whole_field; });
  sweep_allocations(
      [&] { return schema_file_path("a folder with a long name for schemas", {}); },
      [](const auto& path) {
        return path == "a folder with a long name for schemas/schema_00000000000000000000000000000000.json";
      });
}

TEST(ShortMemory, OfTheCountersDigestGivesNoneUntilThereIsMemory) {
  const TypeSystemPtr types = make_types_with_counters();
  const qvx_schema_id whole = qvx_type_system_counters_digest(types.get());
  ASSERT_FALSE(schema_id_is_empty(whole));
  sweep_allocations(
      [&] {
        types->counters_digest = {};
        return !schema_id_is_empty(qvx_type_system_counters_digest(types.get()));
      },
      [&](bool) { return types->counters_digest == whole; });
}

TEST(ShortMemory, OfRecordsMakesNoText) {
  const TypeSystemPtr types = make_types();
  const qvx_type_definition& type = *types->schemas[0]->types[0];
  RecordBytes bytes;
  add_record(bytes);
  const auto json_text = [&] { return qvx_record_to_json(&type, bytes.bytes(), json::Style::pretty); };
  const auto whole_json = json_text();
  ASSERT_TRUE(whole_json);
  sweep_allocations(json_text, [&](const auto& text) { return text == whole_json; });
  const auto influx_text = [&] { return qvx_record_to_influx(&type, bytes.bytes()); };
  const auto whole_influx = influx_text();
  ASSERT_TRUE(whole_influx);
  sweep_allocations(influx_text, [&](const auto& text) { return text == whole_influx; });
  for (const auto& field : type.fields) {
    const auto value = [&] { return qvx_field_to_json(field.get(), bytes.bytes()); };
    const auto whole = json::to_text(*value(), json::Style::compact);
    sweep_allocations(value,
                      [&](const auto& made) { return json::to_text(*made, json::Style::compact) == whole; });
  }
}

class ShortMemoryOfPages : public testing::Test {
 protected:
  ShortMemoryOfPages() {
    RecordBytes data;
    data.add_text("QVXD", 8)
        .add(std::uint64_t{1000})
        .add(std::uint64_t{5})
        .add_text("text", 8)
        .add_text("QVXE", 4)
        .add(std::uint64_t{2000})
        .add(std::uint8_t{0})
        .add(std::uint16_t{0})
        .add(std::uint8_t{1});
    const Bytes bytes = add_record(data).bytes();
    page_.resize(720 + bytes.size());
    std::memcpy(page_.data() + 720, bytes.data(), bytes.size());
    store_le<std::uint64_t>(page_.data() + 12, page_.size());
    const std::string_view name = "hcx4_0";
    name.copy(adapter_.name.data(), name.size());
  }

  TypeSystemPtr types_ = make_types_with_counters();
  std::vector<std::byte> page_;
  qvx_adapter_info adapter_;
};

TEST_F(ShortMemoryOfPages, LeavesNoLineOut) {
  const auto lines = [&] {
    return nothing_when_short([&] {
      return data::InfluxSerializer().serialize(page_, {&adapter_, 1}, *types_);
    });
  };
  const auto whole = lines();
  ASSERT_TRUE(whole && whole->size() == 2);
  sweep_allocations(lines, [&](const auto& made) { return made == whole; });
}

TEST_F(ShortMemoryOfPages, LeavesNothingOutOfASink) {
  const auto text = [&]() -> std::optional<std::string> {
    return nothing_when_short([&] {
      std::string made;
      OutputSink sink(made, 64);
      data::InfluxSerializer().write(page_, {&adapter_, 1}, *types_, sink);
      if (!sink.flush()) throw std::bad_alloc();
      return made;
    });
  };
  const auto whole = text();
  ASSERT_TRUE(whole && whole->size() > 100);
  sweep_allocations(text, [&](const auto& made) { return made == whole; });
}

void drop_message(std::uint32_t, const char*, ...) {}

// What could not be written is told, by an exception or a message.
TEST(ShortMemory, OfTheSchemaWriterIsToldAndLeavesNoPartOfAFile) {
  const TypeSystemPtr types = make_types_with_counters();
  const std::string text = text_of(types);
  const test::TempDir folder;
  const auto files = [&] {
    std::map<std::string, std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(folder.path()))
      found[entry.path().filename()] = test::read_file(entry.path());
    return found;
  };
  SchemaWriter(folder.path()).onSchema(text);
  const auto whole = files();
  ASSERT_EQ(whole.size(), 2U);
  const std::uint32_t level = qvx_logger_set_level(QVX_LOG_WARNING);
  qvx_logger_register_callback(drop_message, QVX_LOG_WARNING);
  for (const auto failing :
       {test::FailingAllocations::Failing::lasting, test::FailingAllocations::Failing::once}) {
    bool any_failed = true;
    for (std::size_t successes = 0; any_failed; ++successes) {
      for (const auto& [name, content] : files())
        std::filesystem::remove(folder.path() / name);
      const std::uint64_t messages = qvx_logged_messages();
      bool threw = false;
      {
        const std::string path = folder.path();
        const test::FailingAllocations failures(successes, failing);
        try {
          SchemaWriter(path).onSchema(text);
        } catch (const std::exception&) {
          threw = true;
        }
        any_failed = failures.any_failed();
      }
      const auto made = files();
      if (!threw && qvx_logged_messages() == messages) {
        EXPECT_EQ(made, whole) << successes;
      }
      for (const auto& [name, content] : made)
        EXPECT_TRUE(whole.contains(name) && whole.at(name) == content) << name << " after " << successes;
      if (HasFailure()) break;
    }
  }
  qvx_logger_register_callback(nullptr, level);
}

bool was_blamed = false;

void note_blame(std::uint32_t, const char* format, ...) {
  was_blamed = was_blamed || std::strstr(format, "does not hold its schema") != nullptr;
}

TEST(ShortMemory, OfTheSchemaWriterBlamesNoFileThatItCouldNotRead) {
  const std::string text = text_of(make_types_with_counters());
  const test::TempDir folder;
  SchemaWriter(folder.path()).onSchema(text);
  const std::uint32_t level = qvx_logger_set_level(QVX_LOG_WARNING);
  qvx_logger_register_callback(note_blame, QVX_LOG_WARNING);
  bool any_failed = true;
  for (std::size_t successes = 0; any_failed && !was_blamed; ++successes) {
    const std::string path = folder.path();
    const test::FailingAllocations failures(successes, test::FailingAllocations::Failing::once);
    try {
      SchemaWriter(path).onSchema(text);
    } catch (const std::exception&) {
      // Told as it should be.
    }
    any_failed = failures.any_failed();
  }
  qvx_logger_register_callback(nullptr, level);
  EXPECT_FALSE(was_blamed);
}

}  // namespace
}  // namespace qvx
