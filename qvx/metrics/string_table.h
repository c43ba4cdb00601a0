// The string tables of a metrics block.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

namespace qvx::metrics {

// The texts of a table, as views of the block that they were read from.
using StringTable = std::vector<std::string_view>;

// Finds the table that `opening` opens in [pos, end), reads its texts and returns the position behind it.
//
// Without the opening marker the table is empty and the answer is `end`, so that what follows a missing table
// is not found either. Throws std::runtime_error "Invalid binary data format: Missing prefix" for a header
// that is cut, and "... Missing suffix" for entries or a closing marker that reach past `end`; each has its
// log line.
const std::byte* read_string_table(const std::byte* pos, const std::byte* end, std::string_view opening,
                                   std::string_view closing, StringTable& table_out);

// Appends `count` entries (a length byte, then the text) found at `pos` and returns the position behind the
// last one. Throws the missing suffix, with its log line, when an entry reaches past `end`.
const std::byte* read_string_entries(const std::byte* pos, const std::byte* end, std::size_t count,
                                     std::string_view closing, StringTable& table_out);

// Logs and throws the missing prefix.
[[noreturn]] void fail_missing_prefix(std::string_view opening);

}  // namespace qvx::metrics
