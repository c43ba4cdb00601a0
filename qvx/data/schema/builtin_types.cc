#include "qvx/data/schema/builtin_types.h"

#include <cstring>

namespace qvx {
namespace {

// The ids number the rows from 1.
const BuiltinType* row(std::uint32_t id) {
  return id >= 1 && id <= kBuiltinTypes.size() ? &kBuiltinTypes[id - 1] : nullptr;
}

}  // namespace

const char* builtin_type_name(std::uint32_t id) noexcept {
  const BuiltinType* const type = row(id);
  return type != nullptr ? type->name : nullptr;
}

std::size_t builtin_type_size(std::uint32_t id) noexcept {
  const BuiltinType* const type = row(id);
  return type != nullptr ? type->size : 0;
}

ValueClass builtin_value_class(std::uint32_t id) noexcept {
  const BuiltinType* const type = row(id);
  return type != nullptr ? type->value_class : ValueClass::none;
}

std::uint32_t builtin_type_id(const char* name) noexcept {
  if (name == nullptr) return 0;
  for (const BuiltinType& type : kBuiltinTypes)
    if (std::strcmp(type.name, name) == 0) return type.id;
  return 0;
}

}  // namespace qvx

void qvx_builtin_types_print(std::FILE* stream) noexcept {
  std::fprintf(stream, " %2s %-25s  %-8s\n", "Id", "Name", "Size");
  for (const qvx::BuiltinType& type : qvx::kBuiltinTypes)
    std::fprintf(stream, " %2d %-25s  %-8zu\n", static_cast<int>(type.id), type.name, type.size);
}
