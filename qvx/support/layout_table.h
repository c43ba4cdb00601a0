// Byte layouts as tables: one constexpr array of rows per layout, from which decoders take their offsets and
// sizes and the layout dumps their lines.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

#include "qvx/support/bytes.h"

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

// A named row; naming a row that does not exist does not compile.
template <std::size_t kRows>
consteval LayoutField row_of(const std::array<LayoutField, kRows>& rows, std::string_view name) {
  for (const LayoutField& row : rows)
    if (row.name == name) return row;
  throw "no such row";
}

template <std::size_t kRows>
consteval std::size_t offset_of(const std::array<LayoutField, kRows>& rows, std::string_view name) {
  return row_of(rows, name).offset;
}

// A row's name as a template argument.
template <std::size_t kSize>
struct FieldName {
  char text[kSize] = {};
  consteval FieldName(const char (&name)[kSize]) { std::copy_n(name, kSize, text); }
  consteval operator std::string_view() const { return {text, kSize - 1}; }
};

// What a field of a layout may be loaded as: a number, or a record of plain bytes such as an array of
// characters, of exactly the row's size.
template <typename T, const auto& kLayout, FieldName kName>
concept FieldType = sizeof(T) == row_of(kLayout, kName).size &&
                    (Scalar<T> || (std::is_trivially_copyable_v<T> && alignof(T) == 1));

namespace detail {
template <const auto& kLayout, FieldName kName>
using FieldUnsigned = UnsignedOfSize<row_of(kLayout, kName).size>;
}  // namespace detail

// Loads of fields from, and stores to, the bytes of a record whose first byte is given. The caller has
// checked that the record is whole. A type of another size than the row's does not compile.

// load_field<kLayout, "count">(record) is an unsigned number of the row's size; another type is named behind.
template <const auto& kLayout, FieldName kName, typename T = detail::FieldUnsigned<kLayout, kName>>
requires FieldType<T, kLayout, kName> T load_field(const std::byte* record) {
  const std::byte* const from = record + offset_of(kLayout, kName);
  if constexpr (Scalar<T>) {
    return load_le<T>(from);
  } else {
    T value;
    std::memcpy(&value, from, sizeof value);
    return value;
  }
}

// The same into a variable, whose type is then the one that is checked.
template <const auto& kLayout, FieldName kName, typename T>
requires FieldType<T, kLayout, kName>
void load_field(const std::byte* record, T& value) {
  value = load_field<kLayout, kName, T>(record);
}

template <const auto& kLayout, FieldName kName, typename T>
requires FieldType<T, kLayout, kName>
void store_field(std::byte* record, const T& value) {
  std::byte* const to = record + offset_of(kLayout, kName);
  if constexpr (Scalar<T>)
    store_le(to, value);
  else
    std::memcpy(to, &value, sizeof value);
}

// "Field                       Offset    Size" and one line per row.
std::string layout_text(std::span<const LayoutField> rows);

}  // namespace qvx
