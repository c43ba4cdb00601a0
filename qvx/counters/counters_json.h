// Counters schemas as JSON: the text of counters schema files.
#pragma once

#include <cstdio>
#include <optional>
#include <string>

#include "qvx/counters/counters_schema.h"
#include "qvx/support/json_value.h"

// The schema as a JSON object; nothing when it cannot be written.
[[nodiscard]] std::optional<qvx::json::Value> qvx_counters_schema_jsonify(
    const qvx_counters_schema* schema) noexcept;

// The pretty text of it.
[[nodiscard]] std::optional<std::string> qvx_counters_schema_jsonify_text(
    const qvx_counters_schema* schema) noexcept;

// The same to a stream, with a line end, flushed. False when there is no text or
// it could not be written.
[[nodiscard]] bool qvx_counters_schema_jsonify_print(std::FILE* stream,
                                                     const qvx_counters_schema* schema) noexcept;

// Null when the value is no counters schema or any group or counter of it does not read. A version that is
// not compatible is reported and accepted, deliberately unlike that of event schemas.
[[nodiscard]] qvx_counters_schema* qvx_counters_schema_from_json(const qvx::json::Value& value) noexcept;
[[nodiscard]] qvx_counters_schema* qvx_counters_schema_from_json_text(const char* text) noexcept;
[[nodiscard]] qvx_counters_schema* qvx_counters_schema_from_json_file(const char* path) noexcept;

// Loads the file that an identifier names in a folder. Null at once for an absent or empty identifier.
[[nodiscard]] qvx_counters_schema* qvx_counters_schema_load_by_id(const qvx_schema_id* id,
                                                                  const char* directory) noexcept;

namespace qvx {

// qvx_counters_schema_from_json, but short memory is std::bad_alloc, which tells it from a value that is no
// counters schema.
[[nodiscard]] CountersSchemaPtr try_counters_schema_from_json(const json::Value& value);

}  // namespace qvx
