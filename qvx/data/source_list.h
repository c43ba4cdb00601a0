// Lists of sources, as arguments and files write them down.
//
// Failures are logged.
#pragma once

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

namespace qvx {

// Source ids of at most 63 characters, in order.
using SourceList = std::vector<std::string>;

// The sources that an argument stands for: the content of a file when it names one, else a format. Only
// regular files are read.
[[nodiscard]] std::optional<SourceList> source_list_from_arg(const char* text) noexcept;

// A count "N", a range "A-B" or a named range "name[A-B]" of decimal numbers without signs or blanks: the
// base and "_" with each number. The base is the name, or what source_id_resolve finds without one.
[[nodiscard]] std::optional<SourceList> source_list_from_format(const char* text) noexcept;

// One source a line. Lines longer than 1023 characters count as several.
[[nodiscard]] std::optional<SourceList> source_list_from_text_file(const char* path) noexcept;

// The output of the fabric diagnostics: what stands between parentheses in every line that has them.
[[nodiscard]] std::optional<SourceList> source_list_from_fabscan_file(const char* path) noexcept;

// True when a line of the file holds "H-" or "S-".
[[nodiscard]] bool file_is_fabscan_output(const char* path) noexcept;

// One line per source: "<name>[<index>] = <source>".
void source_list_print(std::FILE* stream, const char* name, const SourceList& list);

}  // namespace qvx
