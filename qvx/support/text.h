// Small text utilities. No function throws; a missing text is a null result.
#pragma once

#include <array>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// The text that the printf format gives with its arguments; nothing on failure, which is logged at level 3.
std::optional<std::string> qvx_expand_template(const char* format, ...) noexcept
    __attribute__((format(printf, 1, 2)));
std::optional<std::string> qvx_expand_template_v(const char* format, va_list args) noexcept
    __attribute__((format(printf, 1, 0)));

namespace qvx {

// The text of a NUL-padded field: up to the first NUL, or all of it. Views the field.
template <std::size_t kSize>
std::string_view field_text(const std::array<char, kSize>& field) noexcept {
  const std::string_view all(field.data(), kSize);
  return all.substr(0, all.find('\0'));
}

// The token, after the accumulated text and a comma unless that text is null or empty.
std::optional<std::string> string_concat_comma_separated_token(const char* accumulated,
                                                               const char* token) noexcept;

// Both texts, one after the other.
std::optional<std::string> string_concat(const char* first, const char* second) noexcept;

// Finds occurrence number `index`, from 0, of the needle; occurrences may overlap. The offset is stored only
// when it is found.
bool find_ith_substr(const char* text, const char* needle, std::size_t index, std::size_t* offset) noexcept;

// Copies the visible ASCII characters at the start of the source, at most size - 1, and fills the rest of the
// destination with zeros. A source that begins with another character gives "N/A", which a size of 3 leaves
// unterminated. Returns the destination. Wrong arguments are logged at most once in ten seconds each.
char* strncpy_visible_ascii(char* destination, const char* source, std::size_t size) noexcept;

// Null, "1", "True" and "true" are true; everything else is false.
bool bool_from_text(const char* text) noexcept;
// "true" or "false".
const char* bool_to_text(bool value) noexcept;

// Room that write_table_cell asks for beyond the width.
inline constexpr std::size_t kTableCellRoom = 40;

// Writes a cell of a text table: a count up to 999 as " %*lld |" with the width, a larger one in thousands as
// " %*lld k |" with the width less 2. The width is at least 2. Writes no terminator and returns the position
// behind the last byte.
char* write_table_cell(char* out, std::size_t width, std::int64_t count) noexcept;

}  // namespace qvx
