// JSON text to documents.
//
// More is accepted than strict JSON: a UTF-8 byte order mark in front, a comma behind the last element or
// member, and anything behind the root value, which is ignored. Strings keep bytes that are not UTF-8.
// Refused are comments, a name that occurs twice in one object or holds a NUL, control characters in strings,
// halves of surrogate pairs, numbers outside the range of a double, and values inside more than 2048 arrays
// and objects.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "qvx/support/json_value.h"

namespace qvx::json {

// The document that the text holds up to its first NUL. Nothing when it is refused, has 4 GiB or more, or
// memory is short.
[[nodiscard]] std::optional<Value> parse(std::string_view text) noexcept;

// The same for the content of a file. On failure errno tells why: that of the file, ENOMEM, or 0 when the
// file was read but is no document.
[[nodiscard]] std::optional<Value> parse_file(const char* path) noexcept;
[[nodiscard]] inline std::optional<Value> parse_file(const std::string& path) noexcept {
  return parse_file(path.c_str());
}

}  // namespace qvx::json
