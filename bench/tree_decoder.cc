// The other yardstick: builds a document tree of every event record and prints it with printf, which is the
// obvious way to write such a program. Prints the same NDJSON.
//
//   qvx_tree_decoder <schema folder> <events.bin>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include "qvx/data/block.h"
#include "qvx/data/file_header.h"
#include "qvx/data/schema/type_system.h"
#include "qvx/support/json_text.h"
#include "tests/support/record_tree.h"

namespace {

using qvx::Bytes;
namespace json = qvx::json;

void print(const json::Value& value) {
  if (const json::Object* const object = value.as_object()) {
    const char* separator = "{";
    for (const json::Member& member : object->members()) {
      std::string key;
      json::append_quoted(key, member.name);
      std::printf("%s%s:", separator, key.c_str());
      print(member.value);
      separator = ",";
    }
    std::fputs(object->empty() ? "{}" : "}", stdout);
  } else if (const json::Array* const array = value.as_array()) {
    const char* separator = "[";
    for (const json::Value& element : *array) {
      std::fputs(separator, stdout);
      print(element);
      separator = ",";
    }
    std::fputs(array->empty() ? "[]" : "]", stdout);
  } else if (const std::string* const text = value.as_string()) {
    std::string quoted;
    json::append_quoted(quoted, *text);
    std::fputs(quoted.c_str(), stdout);
  } else {
    std::printf("%1.17g", value.as_number().value_or(0));
  }
}

// The events blocks of one data block.
bool print_unit(const qvx_type_definition& type, Bytes unit) {
  while (qvx::block_type_of(unit) == QVX_EVENTS_BLOCK) {
    const unsigned count = qvx::event_header_decode(unit).num_events;
    unit = unit.subspan(qvx::kEventHeaderSize);
    for (unsigned index = 0; index < count; ++index) {
      const auto tree = qvx::test::record_tree(type, unit);
      if (!tree) return false;
      print(*tree);
      std::putchar('\n');
      unit = unit.subspan(type.size);
    }
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 1;
  std::ifstream file(argv[2], std::ios::binary);
  qvx::FileHeaderBytes header_bytes;
  file.read(reinterpret_cast<char*>(header_bytes.data()), qvx::kFileHeaderSize);
  const qvx_data_file_header header = qvx::file_header_decode(header_bytes);
  const qvx::TypeSystemPtr ts(qvx_type_system_create());
  const auto path = qvx::schema_file_path(argv[1], header.event_schema_ids[0]);
  if (!file || qvx_type_system_load_schema_file(ts.get(), path->c_str()) == nullptr) return 1;
  std::string unit(header.block_size, '\0');
  while (file.read(unit.data(), static_cast<std::streamsize>(unit.size())))
    if (!print_unit(*ts->schemas[0]->types[0], qvx::as_bytes(unit))) return 1;
  return 0;
}
