// Fields, types and schemas as JSON: the text of schema files.
//
// The pretty text of a schema identifies it, so member order and spelling are part of the format. Sizes and
// offsets are taken from the text as written; nothing is recomputed. Faults are logged at level 3.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "qvx/data/schema/schema.h"
#include "qvx/support/json_value.h"

namespace qvx {

// The version that schemas are written with and must be compatible with.
inline constexpr const char* kSchemaVersionText = "1.5.0";

// Nothing when the object cannot be written: a field without texts or with an unknown counting mode, a text
// that is not UTF-8, memory.
[[nodiscard]] std::optional<json::Value> field_to_json(const qvx_field_definition& field) noexcept;
[[nodiscard]] std::optional<json::Value> type_to_json(const qvx_type_definition& type) noexcept;
// A schema without types cannot be written. The second form throws std::bad_alloc when memory is short, which
// tells that from a schema that cannot be written.
[[nodiscard]] std::optional<json::Value> schema_to_json(const qvx_schema& schema) noexcept;
[[nodiscard]] std::optional<json::Value> try_schema_to_json(const qvx_schema& schema);

[[nodiscard]] std::unique_ptr<qvx_field_definition> field_from_json(const json::Value& value) noexcept;
[[nodiscard]] std::unique_ptr<qvx_type_definition> type_from_json(const json::Value& value) noexcept;
// Null for a value that is no event schema, which is logged at level 6 only: it may be a counters schema. The
// fields' types are not linked yet.
[[nodiscard]] SchemaPtr schema_from_json(const json::Value& value) noexcept;

// Computes the digest and its text from the schema's pretty JSON form. A schema that cannot be written has
// the digest zero, whose text is 32 zeros. False when memory is short; the schema then has no digest.
[[nodiscard]] bool schema_fill_digest(qvx_schema& schema) noexcept;

// Stores a digest and its text. False, with neither stored, when memory is short.
[[nodiscard]] bool schema_set_digest(qvx_schema& schema, const qvx_schema_id& digest) noexcept;

// Links every field of every type; stops at the first type that is unknown.
[[nodiscard]] bool schema_resolve(qvx_schema& schema) noexcept;

}  // namespace qvx

// The JSON text of a type, found as qvx_schema_find_type finds it; nothing when it is unknown or cannot be
// written.
[[nodiscard]] std::optional<std::string> qvx_schema_type_to_json_text(const qvx_schema* schema,
                                                                      const char* name, bool pretty) noexcept;

// Loads one event schema file as a schema of its own: parsed, linked with `parent` as the schema searched
// next, and given its digest. Null on failure.
[[nodiscard]] qvx_schema* qvx_schema_load_file(const char* path, const qvx_schema* parent) noexcept;
