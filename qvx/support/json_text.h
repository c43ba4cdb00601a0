// JSON as text: the one spelling that everything printed and every schema identifier rests on, down to the
// byte. The document model and the record writers share the pieces below.
#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "qvx/support/json_value.h"

namespace qvx::json {

enum class Style {
  compact,  // no white space at all
  pretty,   // an element a line, four blanks a level, "key": value; no line end at the end
};

inline constexpr std::string_view kIndentation = "    ";

// The text of the value. Nothing when memory is short.
[[nodiscard]] std::optional<std::string> to_text(const Value& value, Style style) noexcept;

// Hands the text out in order, in pieces that are small beside the whole: a deep document of 100 KB has a
// pretty text of 400 MB. False when memory is short or `take` threw.
[[nodiscard]] bool write_text(const Value& value, Style style,
                              const std::function<void(std::string_view)>& take) noexcept;

// The MD5 digest of the pretty text. Nothing when memory is short.
[[nodiscard]] std::optional<std::array<std::byte, 16>> pretty_text_md5(const Value& value) noexcept;

// Room that write_escaped asks for: the longest escape has six bytes, and it stores whole words.
constexpr std::size_t escaped_room(std::size_t size) {
  return 6 * size + 16;
}

// Writes the text at `out` as it stands between the quotes, without the quotes and without a terminator, and
// returns the position behind the last byte. Quotes, backslashes and bytes below 0x20 are escaped, every
// other byte stays as it is, be it UTF-8 or not. Reads nothing behind the text.
char* write_escaped(char* out, std::string_view text);

// Appends the text in quotes and escaped. Throws std::bad_alloc.
void append_quoted(std::string& out, std::string_view text);

// True for well-formed UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool is_valid_utf8(std::string_view text);

}  // namespace qvx::json
