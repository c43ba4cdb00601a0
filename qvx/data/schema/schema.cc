#include "qvx/data/schema/schema.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "qvx/data/schema/builtin_types.h"
#include "qvx/support/log.h"
#include "qvx/support/saturate.h"

namespace {

std::optional<std::string> copy_text(const char* text) {
  if (text == nullptr) return std::nullopt;
  return text;
}

const char* name_or_undefined(const qvx_schema* schema) {
  return schema->name ? schema->name->c_str() : "<undefined>";
}

// Null when memory is short or the field has no name: it could never be written.
std::unique_ptr<qvx_field_definition> make_field(const qvx_field_info& info) noexcept {
  if (info.field_name == nullptr) return nullptr;
  try {
    auto field = std::make_unique<qvx_field_definition>();
    field->field_name = copy_text(info.field_name);
    field->description = copy_text(info.description);
    field->type_name = copy_text(info.type_name);
    field->counting_mode = info.counting_mode;
    field->array_length = info.array_length == 0 ? 1 : info.array_length;
    return field;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

// Builds the definition of a type whose fields are known to be good.
std::unique_ptr<qvx_type_definition> make_type(const qvx_schema* schema, const char* type_name,
                                               const qvx_field_info* fields, std::size_t count) noexcept {
  constexpr const char* kRoutine = "qvx_schema_add_type";
  std::unique_ptr<qvx_type_definition> type;
  try {
    type = std::make_unique<qvx_type_definition>();
    type->name = type_name;
  } catch (const std::bad_alloc&) {
    QVX_LOG(QVX_LOG_ERROR, "[%s] cannot allocate type definition", kRoutine);
    return nullptr;
  }
  try {
    type->fields.reserve(count);
  } catch (const std::exception&) {
    QVX_LOG(QVX_LOG_ERROR, "[%s] cannot allocate fields for type definition", kRoutine);
    return nullptr;
  }
  for (std::size_t i = 0; i < count; ++i) {
    std::unique_ptr<qvx_field_definition> field = make_field(fields[i]);
    if (field == nullptr) {
      QVX_LOG(QVX_LOG_ERROR, "[%s] cannot get type definition from fields_info[%d]", kRoutine,
              static_cast<int>(i));
      return nullptr;
    }
    field->offset = type->size;
    field->type = qvx_schema_find_type(schema, fields[i].type_name);
    if (field->type == nullptr) {
      QVX_LOG(QVX_LOG_ERROR, "[%s] cannot find type_definition of type_field_definition '%s', number %d",
              kRoutine, fields[i].field_name, static_cast<int>(i));
      return nullptr;
    }
    field->type_size = field->type->size;
    type->size =
        qvx::saturating_add(type->size, qvx::saturating_multiply(field->array_length, field->type_size));
    type->fields.push_back(std::move(field));
  }
  return type;
}

const char* text_or_empty(const char* text) {
  return text != nullptr ? text : "";
}

bool equal_texts(const char* a, const char* b) {
  return a != nullptr && b != nullptr && std::strcmp(a, b) == 0;
}

}  // namespace

qvx_schema* qvx_schema_create(const char* name, std::uint32_t version) noexcept {
  try {
    auto schema = std::make_unique<qvx_schema>();
    schema->name = copy_text(name);
    schema->version = version;
    QVX_LOG(QVX_LOG_DEBUG, "clearing md5_digest of schema: %p", static_cast<void*>(schema.get()));
    return schema.release();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void qvx_schema_destroy(qvx_schema* schema) noexcept {
  delete schema;
}

int qvx_schema_add_type(qvx_schema* schema, const char* type_name, const qvx_field_info* fields,
                        std::size_t count, std::uint8_t* out_index) noexcept {
  constexpr const char* kRoutine = "qvx_schema_add_type";
  if (schema->types.size() >= QVX_MAX_TYPES) {
    QVX_LOG(QVX_LOG_ERROR, "[%s] Unable to add new type, reached QVX_MAX_TYPES. schema->num_types = %d",
            kRoutine, static_cast<int>(schema->types.size()));
    return 5;
  }
  if (type_name == nullptr || (fields == nullptr && count > 0)) {
    QVX_LOG(QVX_LOG_ERROR, "[%s] cannot allocate type definition", kRoutine);
    return 1;
  }
  if (qvx_schema_find_type(schema, type_name) != nullptr) {
    QVX_LOG(QVX_LOG_ERROR, "Schema '%s' already contains type '%s'", name_or_undefined(schema), type_name);
    return 2;
  }
  for (std::size_t i = 0; i < count; ++i) {
    if (qvx_schema_find_type(schema, fields[i].type_name) != nullptr) continue;
    QVX_LOG(QVX_LOG_ERROR, "Unable to register type '%s': type '%s' of the field '%s' is undefined",
            type_name, text_or_empty(fields[i].type_name), text_or_empty(fields[i].field_name));
    return 3;
  }
  // The scan stops one short, deliberately: the last field may repeat an earlier name.
  for (std::size_t i = 1; i + 1 < count; ++i) {
    for (std::size_t earlier = 0; earlier < i; ++earlier) {
      if (!equal_texts(fields[i].field_name, fields[earlier].field_name)) continue;
      QVX_LOG(QVX_LOG_ERROR, "[%s] Failed to register new type '%s': field name '%s' occurs more than once.",
              kRoutine, type_name, fields[i].field_name);
      return 2;
    }
  }
  std::unique_ptr<qvx_type_definition> type = make_type(schema, type_name, fields, count);
  if (type == nullptr) return 1;
  try {
    schema->types.push_back(std::move(type));
  } catch (const std::bad_alloc&) {
    return 1;
  }
  if (out_index != nullptr) *out_index = static_cast<std::uint8_t>(schema->types.size() - 1);
  return 0;
}

int qvx_schema_set_field_indexes(qvx_schema* schema, std::uint32_t type_index, const char* const* names,
                                 std::size_t count) noexcept {
  constexpr const char* kRoutine = "qvx_schema_set_field_indexes";
  if (schema == nullptr) {
    QVX_LOG(QVX_LOG_ERROR, "[%s] Schema pointer is NULL!", kRoutine);
    return 3;
  }
  if (names == nullptr) {
    QVX_LOG(QVX_LOG_ERROR, "[%s] Index names array is NULL!", kRoutine);
    return 3;
  }
  if (type_index >= schema->types.size()) {
    QVX_LOG(QVX_LOG_ERROR, "[%s] Invalid type_index: %u (out of range, max: %u)", kRoutine, type_index,
            static_cast<std::uint32_t>(schema->types.size()) - 1);
    return 3;
  }
  qvx_type_definition& type = *schema->types[type_index];
  for (const auto& field : type.fields)
    field->index = 0;
  if (count == 0) return 0;
  std::uint16_t next = 1;
  for (std::size_t i = 0; i < count; ++i) {
    for (const auto& field : type.fields) {
      if (!field->field_name || !equal_texts(field->field_name->c_str(), names[i])) continue;
      field->index = next++;
      break;
    }
  }
  const auto assigned = static_cast<std::uint16_t>(next - 1);
  if (count != assigned) {
    QVX_LOG(QVX_LOG_DEBUG, "Mismatch in assigned indices: expected %zu, but assigned %u (%s).", count,
            assigned, type.name.c_str());
  }
  return 0;
}

const char** qvx_schema_get_indexed_fields(const qvx_schema* schema, std::uint32_t type_index,
                                           std::size_t* out_count) noexcept {
  if (out_count == nullptr) return nullptr;
  *out_count = 0;
  if (schema == nullptr || type_index >= schema->types.size() || schema->types[type_index] == nullptr)
    return nullptr;
  const qvx_type_definition& type = *schema->types[type_index];
  // One element more than there are fields, so that a type without fields gets an array, too.
  auto** const names = static_cast<const char**>(std::calloc(type.fields.size() + 1, sizeof(char*)));
  if (names == nullptr) return nullptr;
  for (const auto& field : type.fields)
    if (field->index != 0) names[(*out_count)++] = field->field_name ? field->field_name->c_str() : nullptr;
  return names;
}

const qvx_type_definition* qvx_schema_find_type(const qvx_schema* schema, const char* name) noexcept {
  if (name == nullptr) return nullptr;
  for (; schema != nullptr; schema = schema->parent)
    for (const auto& type : schema->types)
      if (type != nullptr && type->name == name) return type.get();
  return nullptr;
}

std::uint64_t qvx_schema_type_size(const qvx_schema* schema, const char* name) noexcept {
  const qvx_type_definition* const type = qvx_schema_find_type(schema, name);
  return type != nullptr ? type->size : 0;
}

int qvx_schema_resolve_types(const qvx_schema* schema, qvx_type_definition* type) noexcept {
  for (const auto& field : type->fields) {
    const char* const name = field->type_name ? field->type_name->c_str() : "";
    field->type = qvx_schema_find_type(schema, name);
    if (field->type == nullptr) {
      QVX_LOG(QVX_LOG_ERROR, "Definition of type %s not found within the schema %s", name,
              name_or_undefined(schema));
      return -1;
    }
  }
  return 0;
}

int qvx_schema_register_builtins(qvx_schema* schema) noexcept {
  constexpr std::size_t kLastSlot = 253;
  if (schema->types.size() > kLastSlot) return -1;
  try {
    for (const qvx::BuiltinType& builtin : qvx::kBuiltinTypes) {
      if (schema->types.size() > kLastSlot) return -1;
      auto type = std::make_unique<qvx_type_definition>();
      type->name = builtin.name;
      type->id = builtin.id;
      type->size = builtin.size;
      schema->types.push_back(std::move(type));
    }
    return 0;
  } catch (const std::bad_alloc&) {
    return -1;
  }
}

namespace qvx {

std::uint32_t counting_mode_from_name(std::string_view name) noexcept {
  if (name == "ABSOLUTE") return kAbsoluteCounting;
  if (name == "RUNNING_SUM" || name == "ABSOLUTE_MONOTONIC") return kRunningSumCounting;
  return kUnknownName;
}

const char* counting_mode_name(std::uint32_t mode) noexcept {
  switch (mode) {
    case kAbsoluteCounting:
      return "ABSOLUTE";
    case kRunningSumCounting:
      return "RUNNING_SUM";
    default:
      return nullptr;
  }
}

}  // namespace qvx
