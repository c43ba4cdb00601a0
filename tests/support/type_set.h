// Type definitions put together by hand, with whatever offsets and sizes a test wants to claim.
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "qvx/data/schema/schema.h"
#include "qvx/data/schema/type_system.h"

namespace qvx::test {

class TypeSet {
 public:
  TypeSet() : system_(qvx_type_system_create()) {}

  // A new composite type of size 0.
  qvx_type_definition& make(std::string name = "t") {
    types_.push_back(std::make_unique<qvx_type_definition>());
    types_.back()->name = std::move(name);
    return *types_.back();
  }

  const qvx_type_definition& builtin(const char* name) const {
    const qvx_type_definition* const type = qvx_schema_find_type(system_->builtin.get(), name);
    if (type == nullptr) throw std::invalid_argument(name);
    return *type;
  }

  // Appends a field behind all others, as it is packed when a type is registered.
  qvx_field_definition& add(qvx_type_definition& type, std::string name,
                            const qvx_type_definition& field_type, std::uint32_t array_length = 1) const {
    type.fields.push_back(std::make_unique<qvx_field_definition>());
    qvx_field_definition& field = *type.fields.back();
    field.field_name = std::move(name);
    field.type_name = field_type.name;
    field.description = "";
    field.type = &field_type;
    field.type_size = field_type.size;
    field.array_length = array_length;
    field.offset = type.size;
    type.size += array_length * field_type.size;
    return field;
  }
  qvx_field_definition& add(qvx_type_definition& type, std::string name, const char* field_type,
                            std::uint32_t array_length = 1) const {
    return add(type, std::move(name), builtin(field_type), array_length);
  }

 private:
  TypeSystemPtr system_;
  std::vector<std::unique_ptr<qvx_type_definition>> types_;
};

}  // namespace qvx::test
