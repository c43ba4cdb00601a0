#include <cstdio>
#include <cstring>

#include "qvx/data/schema/record_json.h"
#include "qvx/data/schema/type_system.h"
#include "qvx/support/bytes.h"
#include "qvx/support/version.h"

int main() {
  const qvx::TypeSystemPtr types(qvx_type_system_create());
  if (!types) return 1;
  qvx_schema* schema =
      qvx_type_system_new_schema(types.get(), "weather", qvx::pack_version(1, 0, 0), nullptr);
  const qvx_field_info fields[] = {
      {"station", "number of the station", "uint16_t", qvx::kAbsoluteCounting, 1},
      {"celsius", "temperature", "double", qvx::kAbsoluteCounting, 1},
      {"place", "where it stands", "char", qvx::kAbsoluteCounting, 8},
  };
  if (qvx_schema_add_type(schema, "reading", fields, 3, nullptr) != 0) return 1;
  const qvx_type_definition* type = qvx_schema_find_type(schema, "reading");

  std::byte record[18] = {};
  qvx::store_le<std::uint16_t>(record, 7);
  qvx::store_le<double>(record + 2, 21.5);
  std::memcpy(record + 10, "roof", 4);

  const auto text = qvx_record_to_json(type, record, qvx::json::Style::compact);
  if (!text) return 1;
  std::puts(text->c_str());  // {"station":7,"celsius":21.5,"place":"roof"}
}
