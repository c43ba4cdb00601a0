// The names of written data files: a template with placeholders such as {{source}} or {{year}}, filled in for
// one file. The result, the source's names included, is then a date format, and every conversion in it
// ("%H") is filled in from the file's first timestamp as UTC time.
//
// Source id and tag come out of data files and may hold anything. Whether the path stays where it belongs is
// not decided here.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qvx {

inline constexpr std::string_view kDefaultPathTemplate =
    "{{year}}/{{month}}{{day}}/{{source}}/{{tag}}{{id}}.bin";

// What a path is made from. The texts end at their first NUL.
struct PathFields {
  std::string_view node;
  std::string_view source_id;
  std::string_view source_tag;
  int port = 0;
  std::uint64_t first_timestamp = 0;  // microseconds; 0 leaves the date conversions as they are
  std::string_view id;
};

// Fills in a template. False when the time cannot be formatted; `path` is then as far as it got and `fault`
// says why. Throws std::bad_alloc.
bool expand_path_template(std::string_view path_template, const PathFields& fields, std::string& path,
                          std::string& fault);

}  // namespace qvx
