// The source that produced data: an identifier and a tag, how they are determined, and lists of sources.
//
// Nothing here throws. Failures are logged.
#pragma once

#include <array>
#include <cstddef>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/data/file_header.h"

// Both texts are padded with NUL. Those that come out of files may fill their field without a terminator.
struct qvx_source {
  std::array<char, qvx::kSourceIdSize> id{};
  std::array<char, qvx::kSourceTagSize> tag{};

  friend bool operator==(const qvx_source&, const qvx_source&) = default;
};

namespace qvx {

// A record of both texts, cut at 64 and 16 characters.
qvx_source make_source(std::string_view id, std::string_view tag) noexcept;

// Fills in the source id, at most 63 characters and then NUL: the given text, else QVX_SOURCE_ID, else the
// host name. A null or empty text is passed over. False when there is no host name either; the field is then
// clear.
bool source_id_resolve(std::array<char, kSourceIdSize>& to, const char* given) noexcept;

// Writes "<id>:<tag>" and a terminator; false when that is more than `capacity` bytes.
bool source_key_text(const qvx_source& source, char* to, std::size_t capacity) noexcept;

// Source ids of at most 63 characters, in order.
using SourceList = std::vector<std::string>;

// The sources that an argument stands for: the content of a file when it names one, else a format. Only
// regular files are read.
std::optional<SourceList> source_list_from_arg(const char* text) noexcept;

// A count "N", a range "A-B" or a named range "name[A-B]" of decimal numbers without signs or blanks: the
// base and "_" with each number. The base is the name, or what source_id_resolve finds without one.
std::optional<SourceList> source_list_from_format(const char* text) noexcept;

// One source a line. Lines longer than 1023 characters count as several.
std::optional<SourceList> source_list_from_text_file(const char* path) noexcept;

// The output of the fabric diagnostics: what stands between parentheses in every line that has them.
std::optional<SourceList> source_list_from_fabscan_file(const char* path) noexcept;

// True when a line of the file holds "H-" or "S-".
bool file_is_fabscan_output(const char* path) noexcept;

// One line per source: "<name>[<index>] = <source>".
void source_list_print(std::FILE* stream, const char* name, const SourceList& list);

}  // namespace qvx
