// Schemas, their types and fields: how the bytes of an event record are laid out.
//
// A schema is created empty, grows by appending types and is destroyed whole; a type's index never changes.
// Types are packed: no alignment, no padding. Lookups return pointers into the schema. Nothing here throws;
// faults are logged at level 3 and told by the return value.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/data/schema_id.h"

inline constexpr std::size_t QVX_MAX_TYPES = 254;

struct qvx_type_definition;

// What a caller says of one field when it registers a type. The texts are copied; `description` may be null.
struct qvx_field_info {
  const char* field_name;
  const char* description;
  const char* type_name;  // a built-in type or one registered earlier
  std::uint32_t counting_mode;
  std::uint32_t array_length;  // 1 for a scalar
};

struct qvx_field_definition {
  std::optional<std::string> field_name;
  std::optional<std::string> description;
  std::optional<std::string> type_name;
  std::uint64_t type_size = 0;  // bytes of one element
  std::uint32_t counting_mode = 0;
  std::uint32_t array_length = 1;
  std::uint64_t offset = 0;                   // bytes from the start of the type's value
  const qvx_type_definition* type = nullptr;  // set when the type is resolved; not owned
  std::uint16_t index = 0;                    // 0: no index field; 1, 2, ...: its position among them
};

struct qvx_type_definition {
  std::string name;
  std::uint32_t id = 0;  // of a built-in type; 0 for a composite one
  std::vector<std::unique_ptr<qvx_field_definition>> fields;
  std::uint64_t size = 0;  // bytes of one value
};

struct qvx_schema {
  std::optional<std::string> name;  // the provider
  std::uint32_t version = 0;        // packed: major, minor << 8, patch << 16
  std::vector<std::unique_ptr<qvx_type_definition>> types;
  const qvx_schema* parent = nullptr;  // searched next for a type name; not owned
  qvx_schema_id md5_digest;
  std::string md5_text;  // 32 hexadecimal digits, empty while there is no digest
};

// Null when memory is short; `name` may be null.
[[nodiscard]] qvx_schema* qvx_schema_create(const char* name, std::uint32_t version) noexcept;
void qvx_schema_destroy(qvx_schema* schema) noexcept;

// Registers a composite type. 0: registered, its index goes to `out_index` unless that is null. 1: out of
// memory, or a field or the type has no name. 2: the type name is known already (here or in a parent), or a
// field name repeats; the last field is never compared, deliberately. 3: a field's type is undefined. 5: the
// schema is full.
[[nodiscard]] int qvx_schema_add_type(qvx_schema* schema, const char* type_name, const qvx_field_info* fields,
                                      std::size_t count, std::uint8_t* out_index) noexcept;

// Makes the named fields the index fields 1, 2, ... of the type, and all others none. Unknown names are
// skipped. 0, or 3 for an absent schema or names array or an index out of range.
[[nodiscard]] int qvx_schema_set_field_indexes(qvx_schema* schema, std::uint32_t type_index,
                                               const char* const* names, std::size_t count) noexcept;

// The names of the index fields in declaration order: an array to be freed with free(), of texts that belong
// to the schema. Null, and 0 in `out_count`, when there is no such type.
[[nodiscard]] const char** qvx_schema_get_indexed_fields(const qvx_schema* schema, std::uint32_t type_index,
                                                         std::size_t* out_count) noexcept;

// The first type of that name, searching this schema and then its parents.
const qvx_type_definition* qvx_schema_find_type(const qvx_schema* schema, const char* name) noexcept;
std::uint64_t qvx_schema_type_size(const qvx_schema* schema, const char* name) noexcept;

// Links every field of the type to its definition. 0, or -1 at the first that is unknown.
[[nodiscard]] int qvx_schema_resolve_types(const qvx_schema* schema, qvx_type_definition* type) noexcept;

// Appends a definition of every built-in type. 0, or -1 when there is no room for one.
[[nodiscard]] int qvx_schema_register_builtins(qvx_schema* schema) noexcept;

namespace qvx {

struct SchemaDelete {
  void operator()(qvx_schema* schema) const noexcept { qvx_schema_destroy(schema); }
};
using SchemaPtr = std::unique_ptr<qvx_schema, SchemaDelete>;

inline constexpr std::uint32_t kAbsoluteCounting = 0;
inline constexpr std::uint32_t kRunningSumCounting = 1;
inline constexpr std::uint32_t kUnknownName = 0xFFFFFFFF;

// "ABSOLUTE" and "RUNNING_SUM"; "ABSOLUTE_MONOTONIC" is read as the latter, deliberately. kUnknownName for
// any other name, null for any other value.
std::uint32_t counting_mode_from_name(std::string_view name) noexcept;
const char* counting_mode_name(std::uint32_t mode) noexcept;

}  // namespace qvx
