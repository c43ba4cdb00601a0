// The type system: the schemas that decode one data source. It holds the built-in types, up to 255 event
// schemas in the order they were added, and one counters schema.
//
// It owns everything it holds; lookups return pointers into it. Nothing here throws.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "qvx/data/schema/schema.h"
#include "qvx/data/schema_id.h"
#include "qvx/support/json_value.h"

struct qvx_counters_schema;

namespace qvx {

inline constexpr std::size_t kMaxSchemas = 255;
// What a schema operation reports as the index of the counters schema.
inline constexpr std::uint8_t kCountersSchemaIndex = 255;

// Keeps the counters room out of this header.
struct OwnedCountersSchemaDelete {
  void operator()(qvx_counters_schema* schema) const noexcept;
};

}  // namespace qvx

struct qvx_type_system {
  qvx::SchemaPtr builtin;  // the parent of every schema below
  std::vector<qvx::SchemaPtr> schemas;
  std::unique_ptr<qvx_counters_schema, qvx::OwnedCountersSchemaDelete> counters_schema;
  qvx_schema_id counters_digest;  // all zero until it is first asked for
};

// With the built-in schema and an empty counters schema. Null on failure.
[[nodiscard]] qvx_type_system* qvx_type_system_create() noexcept;
void qvx_type_system_destroy(qvx_type_system* ts) noexcept;

// Appends an empty schema; null when 255 are held or memory is short.
[[nodiscard]] qvx_schema* qvx_type_system_new_schema(qvx_type_system* ts, const char* name,
                                                     std::uint32_t version, std::uint8_t* out_index) noexcept;
void qvx_type_system_remove_last_schema(qvx_type_system* ts) noexcept;

// Adds a schema received as JSON text and reports its slot; one whose text was received before is found by
// its digest and not added again. A text that is a counters schema replaces the counters schema and reports
// 255, also when it is an event schema as well. 0, or -1 on failure.
[[nodiscard]] int qvx_type_system_add_schema_json(qvx_type_system* ts, const char* text,
                                                  std::uint8_t* out_index) noexcept;

// Moves every schema of `other` over in slot order; stops with -1 at the first that does not resolve here.
// There is, deliberately, neither a check for duplicates nor one of the limit. Of `ts` itself nothing is
// moved.
[[nodiscard]] int qvx_type_system_add_schemas_of(qvx_type_system* ts, qvx_type_system* other) noexcept;

// Loads one event schema file into the next slot, without a digest. Null on failure.
[[nodiscard]] qvx_schema* qvx_type_system_load_schema_file(qvx_type_system* ts, const char* path) noexcept;

// Recomputes the digest and digest text of every event schema. False when memory is short.
[[nodiscard]] bool qvx_type_system_fill_digests(qvx_type_system* ts) noexcept;

// The digest of the counters schema's pretty JSON text; all zero without one, and when memory is short, until
// it is asked for again.
const qvx_schema_id& qvx_type_system_counters_digest(qvx_type_system* ts) noexcept;

// The first slot whose digest text is `id_text`. Schemas behind slot 254 have no index and are not found.
[[nodiscard]] bool qvx_type_system_find_schema(const qvx_type_system* ts, const char* id_text,
                                               std::uint8_t* out_index) noexcept;

// The largest size of any type, at most 0xFFFFFFFF; the second form counts the counters' size in.
std::uint32_t qvx_type_system_max_type_size(const qvx_type_system* ts) noexcept;
std::uint32_t qvx_type_system_max_type_or_counters_size(const qvx_type_system* ts) noexcept;

// Schemas that cannot be written, such as those without types, are left out.
[[nodiscard]] std::optional<qvx::json::Value> qvx_type_system_to_json(const qvx_type_system* ts) noexcept;
[[nodiscard]] std::optional<std::string> qvx_type_system_to_json_text(const qvx_type_system* ts,
                                                                      bool pretty) noexcept;

// Null on failure. A version below 1.4.0 and more than 255 schemas are reported only; schemas beyond the last
// slot are not taken.
[[nodiscard]] qvx_type_system* qvx_type_system_from_json(const qvx::json::Value& value) noexcept;
[[nodiscard]] qvx_type_system* qvx_type_system_from_json_text(const char* text) noexcept;

namespace qvx {

struct TypeSystemDelete {
  void operator()(qvx_type_system* ts) const noexcept { qvx_type_system_destroy(ts); }
};
using TypeSystemPtr = std::unique_ptr<qvx_type_system, TypeSystemDelete>;

// The lowest version of a type system's JSON form that is read without complaint.
inline constexpr const char* kMinTypeSystemVersionText = "1.4.0";

// The path "%s/schema_%s.json" of an identifier's schema file in a folder.
[[nodiscard]] std::optional<std::string> schema_file_path(const char* directory,
                                                          const qvx_schema_id& id) noexcept;

}  // namespace qvx
