// The identifier of a schema: the MD5 digest of its text, 16 opaque bytes.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>

struct qvx_schema_id {
  std::array<std::byte, 16> bytes{};

  friend bool operator==(const qvx_schema_id&, const qvx_schema_id&) = default;
};

namespace qvx {

// The identifier that marks a blob page instead of a schema: the ASCII text "BLOB_DATA_SCHEMA".
extern const qvx_schema_id kBlobSchemaId;

// 32 lower-case hexadecimal digits, two per byte in storage order; none when memory is short.
std::optional<std::string> schema_id_text(const qvx_schema_id& id) noexcept;

// Reads two hexadecimal digits per byte, as scanf's "%02hhx" does, and stops at the first pair that does not
// scan; the bytes before it are then changed. A null text counts as success and changes nothing.
bool schema_id_parse(const char* text, qvx_schema_id& id) noexcept;

// All bytes zero: no schema.
bool schema_id_is_empty(const qvx_schema_id& id) noexcept;
bool schema_id_equal(const qvx_schema_id& a, const qvx_schema_id& b) noexcept;
void schema_id_copy(qvx_schema_id& to, const qvx_schema_id& from) noexcept;

}  // namespace qvx
