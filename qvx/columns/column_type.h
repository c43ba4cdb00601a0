// The types of columns, and their form in the Arrow C data interface.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "qvx/columns/arrow_c.h"

namespace qvx::columns {

enum class ColumnKind : std::uint8_t {
  boolean,
  u8,
  i8,
  u16,
  i16,
  u32,
  i32,
  u64,
  i64,
  f32,
  f64,
  timestamp,   // microseconds since 1970, UTC
  text,        // UTF-8
  dictionary,  // text, each different one stored once per batch
  list,        // `count` values of the one child
  record,      // the children side by side
  labels,      // names and values, as many as there are
};

struct ColumnType {
  std::string name;
  ColumnKind kind = ColumnKind::u8;
  std::uint32_t count = 0;  // of a list; of a text the most bytes, where known
  std::vector<ColumnType> children;
  std::vector<std::pair<std::string, std::string>> metadata;  // keys and values
};

// Whether values of both fit into one column: everything but names at the top and metadata.
bool have_same_values(const ColumnType& a, const ColumnType& b);

// Bytes that one row takes at most, roughly; texts count as `text_bytes` each.
std::uint64_t row_bytes(const ColumnType& type, std::uint64_t text_bytes = 16);

// Bytes of one value of a kind of fixed width, else 0. Booleans count as one.
std::size_t value_size(ColumnKind kind);

// The text with everything that is not UTF-8, and NUL, replaced by U+FFFD.
std::string utf8_text(std::string_view text);

// Writes the schema of a table: a record of these columns. The receiver releases it. Throws std::bad_alloc.
void export_schema(std::span<const ColumnType> columns,
                   std::span<const std::pair<std::string, std::string>> metadata, ArrowSchema* out);

}  // namespace qvx::columns
