// One column of a batch, while it is being filled.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "qvx/columns/arrow_c.h"
#include "qvx/columns/buffer.h"
#include "qvx/columns/column_type.h"

namespace qvx::columns {

// Where the values of a column lie in a record; compiled once per type.
struct ColumnPlan {
  ColumnKind kind = ColumnKind::u8;
  std::uint64_t offset = 0;  // bytes from the start of the record, or of the round of a list
  std::uint32_t count = 1;   // characters of a text, rounds of a list
  std::uint64_t stride = 0;  // bytes from one round of a list to the next
  bool is_utf8 = false;      // a text that ends at its first NUL and is null unless it is UTF-8; others end
                             // before the first byte that is not printable ASCII
  std::vector<ColumnPlan> children;
};

// Every function that adds may throw std::bad_alloc; the column is then good for nothing but destruction.
class Column {
 public:
  // The type outlives the column.
  explicit Column(const ColumnType& type);

  const ColumnType& type() const { return *type_; }
  std::size_t rows() const { return rows_; }
  // Bytes of texts and labels, which unlike everything else do not follow from the number of rows.
  std::size_t text_bytes() const;

  // Makes room for so many rows, and for so many bytes, as text_bytes() counts them, of texts and labels.
  void reserve(std::size_t rows, std::size_t text_bytes = 0);

  // Reads one value from each of `count` records that lie `stride` bytes apart. The plan is one of a type
  // with the same values, and all its bytes are there.
  void append(const ColumnPlan& plan, const std::byte* records, std::size_t stride, std::size_t count);

  // Single values, for columns of these kinds.
  template <typename T>
  void append_value(T value) {
    values_.push(value);
    count_rows(1);
  }
  template <typename T>
  void append_values(std::span<const T> values) {
    values_.append({reinterpret_cast<const char*>(values.data()), values.size_bytes()});
    count_rows(values.size());
  }
  void append_text(std::string_view utf8);
  void append_null() { append_nulls(1); }
  void append_nulls(std::size_t count);

  // For dictionaries: the index of a text, which is added when it is new, and rows that refer to it. Indices
  // may be added as values, too.
  std::int32_t index_of(std::string_view utf8);
  void append_index(std::int32_t index, std::size_t count = 1);

  // For labels: ends a row behind the pairs added to name and value columns since the last one.
  void end_labels();
  Column& label_names() { return children_[0].children_[0]; }
  Column& label_values() { return children_[0].children_[1]; }

  // Adds the last `rows` rows so many times more. For texts, dictionaries and labels.
  void repeat(std::size_t rows, std::size_t times);

  // Hands the rows over, without copying, and becomes unusable. The receiver releases them, on any thread.
  void export_to(ArrowArray* out);

 private:
  struct TextHash : std::hash<std::string_view> {
    using is_transparent = void;
  };

  void append_booleans(const ColumnPlan& plan, const std::byte* records, std::size_t stride,
                       std::size_t count);
  void append_texts(const ColumnPlan& plan, const std::byte* records, std::size_t stride, std::size_t count);
  void append_utf8_texts(const ColumnPlan& plan, const std::byte* records, std::size_t stride,
                         std::size_t count);
  void append_timestamps(const std::byte* values, std::size_t stride, std::size_t count);
  void count_rows(std::size_t count);
  void count_repeated(std::size_t rows, std::size_t times);
  std::size_t offset_of_row(std::size_t row) const;
  void push_offset() { values_.push(static_cast<std::int32_t>(text_.size())); }

  const ColumnType* type_;
  std::size_t rows_ = 0;
  std::size_t nulls_ = 0;
  Buffer validity_;  // a bit a row; empty while there is no null
  Buffer values_;    // values, bits of booleans, offsets of texts and labels, indices of dictionaries
  Buffer text_;
  std::vector<Column> children_;  // of a dictionary its texts
  std::unordered_map<std::string, std::int32_t, TextHash, std::equal_to<>> indices_;
};

// Hands over the columns of a batch as one record array of `rows` rows.
void export_batch(std::span<Column> columns, std::size_t rows, ArrowArray* out);

}  // namespace qvx::columns
