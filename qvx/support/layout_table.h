// Byte layouts as tables: one constexpr array of rows per layout, from which decoders take their offsets and
// the layout dumps their lines.
#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace qvx {

struct LayoutField {
  std::string_view name;
  std::size_t offset;
  std::size_t size;  // 0: reaches to the end, and the layout dump prints no size
};

// True when the rows follow one another without gap or overlap from offset 0 and end at `total`.
template <std::size_t kRows>
consteval bool tiles(const std::array<LayoutField, kRows>& rows, std::size_t total) {
  std::size_t position = 0;
  for (const LayoutField& row : rows) {
    if (row.offset != position) return false;
    position += row.size;
  }
  return position == total;
}

// The offset of a named row; naming a row that does not exist does not compile.
template <std::size_t kRows>
consteval std::size_t offset_of(const std::array<LayoutField, kRows>& rows, std::string_view name) {
  for (const LayoutField& row : rows)
    if (row.name == name) return row.offset;
  throw "no such row";
}

// "Field                       Offset    Size" and one line per row.
std::string layout_text(std::span<const LayoutField> rows);

}  // namespace qvx
