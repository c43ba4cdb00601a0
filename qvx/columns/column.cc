#include "qvx/columns/column.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>

#include "qvx/support/bytes.h"
#include "qvx/support/json_text.h"
#include "qvx/support/printable.h"

namespace qvx::columns {
namespace {

// Beside the texts: an offset and an index.
constexpr std::size_t kBytesOfLabel = 8;

const ColumnType kDictionaryText{"", ColumnKind::text, 0, {}, {}};

// The inner loop of everything: one value of each record, in the order of this processor's bytes.
template <typename T>
void gather(Buffer& to, const std::byte* from, std::size_t stride, std::size_t count) {
  if (count == 0) return;  // there may be no buffer yet
  std::byte* out = to.extend(count * sizeof(T));
  if (std::endian::native == std::endian::little && stride == sizeof(T)) {
    std::memcpy(out, from, count * sizeof(T));
  } else {
    std::size_t left = count;
    for (; left >= 4; left -= 4) {
      const std::array<T, 4> values{load_le<T>(from), load_le<T>(from + stride),
                                    load_le<T>(from + 2 * stride), load_le<T>(from + 3 * stride)};
      std::memcpy(out, values.data(), sizeof values);
      from += 4 * stride;
      out += sizeof values;
    }
    for (; left > 0; --left) {
      const T value = load_le<T>(from);
      std::memcpy(out, &value, sizeof(T));
      from += stride;
      out += sizeof(T);
    }
  }
  to.commit(count * sizeof(T));
}

void set_bits(std::byte* bits, std::size_t first, std::size_t count) {
  const std::size_t end = first + count;
  for (; first < end && first % 8 != 0; ++first)
    bits[first / 8] |= std::byte{1} << (first % 8);
  for (; end - first >= 8; first += 8)
    bits[first / 8] = std::byte{0xFF};
  for (; first < end; ++first)
    bits[first / 8] |= std::byte{1} << (first % 8);
}

bool has_bit(const std::byte* bits, std::size_t at) {
  return (bits[at / 8] >> (at % 8) & std::byte{1}) != std::byte{0};
}

// Adds the last bytes of a buffer so many times more.
void repeat_bytes(Buffer& buffer, std::size_t size, std::size_t times) {
  std::byte* out = buffer.extend(size * times);
  const std::byte* const from = out - size;
  // What was copied is copied with the rest.
  for (std::size_t done = size, left = size * times; left > 0;) {
    const std::size_t some = std::min(done, left);
    std::memcpy(out, from, some);
    out += some;
    left -= some;
    done += some;
  }
  buffer.commit(size * times);
}

std::size_t bit_bytes(std::size_t bits) {
  return (bits + 7) / 8;
}

void extend_bits(Buffer& bits, std::size_t rows) {
  if (bit_bytes(rows) > bits.size()) bits.push_zeros(bit_bytes(rows) - bits.size());
}

}  // namespace

Column::Column(const ColumnType& type) : type_(&type) {
  for (const ColumnType& child : type.children)
    children_.emplace_back(child);
  if (type.kind == ColumnKind::dictionary) children_.emplace_back(kDictionaryText);
  if (type.kind == ColumnKind::text || type.kind == ColumnKind::labels) push_offset();
}

void Column::reserve(std::size_t rows, std::size_t text_bytes) {
  switch (type_->kind) {
    case ColumnKind::boolean:
      return values_.reserve(bit_bytes(rows));
    case ColumnKind::text:
      if (text_bytes > 0) text_.reserve(text_bytes);
      return values_.reserve((rows + 1) * sizeof(std::int32_t));
    case ColumnKind::labels:
      if (text_bytes > 0) {
        label_names().reserve(text_bytes / kBytesOfLabel, text_bytes);
        label_values().reserve(text_bytes / kBytesOfLabel);
      }
      return values_.reserve((rows + 1) * sizeof(std::int32_t));
    case ColumnKind::record:
      for (Column& child : children_)
        child.reserve(rows);
      return;
    case ColumnKind::list:
      return children_[0].reserve(rows * type_->count);
    default:
      return values_.reserve(rows * value_size(type_->kind));
  }
}

void Column::append(const ColumnPlan& plan, const std::byte* records, std::size_t stride, std::size_t count) {
  const std::byte* const from = records + plan.offset;
  switch (plan.kind) {
    case ColumnKind::u8:
    case ColumnKind::i8:
      gather<std::uint8_t>(values_, from, stride, count);
      break;
    case ColumnKind::u16:
    case ColumnKind::i16:
      gather<std::uint16_t>(values_, from, stride, count);
      break;
    case ColumnKind::u32:
    case ColumnKind::i32:
    case ColumnKind::f32:
      gather<std::uint32_t>(values_, from, stride, count);
      break;
    case ColumnKind::u64:
    case ColumnKind::i64:
    case ColumnKind::f64:
      gather<std::uint64_t>(values_, from, stride, count);
      break;
    case ColumnKind::timestamp:
      return append_timestamps(from, stride, count);
    case ColumnKind::boolean:
      append_booleans(plan, from, stride, count);
      break;
    case ColumnKind::text:
      if (plan.is_utf8) return append_utf8_texts(plan, from, stride, count);
      append_texts(plan, from, stride, count);
      break;
    case ColumnKind::record:
      for (std::size_t child = 0; child < children_.size(); ++child)
        children_[child].append(plan.children[child], from, stride, count);
      break;
    case ColumnKind::list:
      for (std::size_t i = 0; i < count; ++i)
        children_[0].append(plan.children[0], from + i * stride, plan.stride, plan.count);
      break;
    case ColumnKind::dictionary:
    case ColumnKind::labels:
      break;  // not made of records
  }
  count_rows(count);
}

// Rows that are not null.
void Column::count_rows(std::size_t count) {
  rows_ += count;
  if (nulls_ == 0) [[likely]]
    return;
  extend_bits(validity_, rows_);
  set_bits(validity_.data(), rows_ - count, count);
}

std::size_t Column::text_bytes() const {
  std::size_t bytes = text_.size();
  for (const Column& child : children_)
    bytes += child.text_bytes() + (type_->kind == ColumnKind::labels ? child.rows_ * kBytesOfLabel : 0);
  return bytes;
}

void Column::append_booleans(const ColumnPlan&, const std::byte* from, std::size_t stride,
                             std::size_t count) {
  extend_bits(values_, rows_ + count);
  std::byte* const bits = values_.data();
  for (std::size_t i = 0; i < count; ++i)
    if (from[i * stride] != std::byte{0}) set_bits(bits, rows_ + i, 1);
}

void Column::append_texts(const ColumnPlan& plan, const std::byte* from, std::size_t stride,
                          std::size_t count) {
  const std::size_t size = plan.count;
  std::byte* const start = text_.extend(count * size);
  std::byte* const offsets = values_.extend(count * sizeof(std::int32_t));
  const std::size_t before = text_.size();
  std::byte* out = start;
  const auto copy_all = [&](auto copy) {
    for (std::size_t i = 0; i < count; ++i) {
      out += copy(from + i * stride);
      const auto end = static_cast<std::int32_t>(before + static_cast<std::size_t>(out - start));
      std::memcpy(offsets + i * sizeof end, &end, sizeof end);
    }
  };
  if (size >= 8 && size <= 16) {
    // All of it is copied: what stands behind the text is written over by the next.
    copy_all([&](const std::byte* text) {
      const auto first = load_le<std::uint64_t>(text);
      const auto last = load_le<std::uint64_t>(text + size - 8);
      store_le(out, first);
      store_le(out + size - 8, last);
      return printable_in_8_to_16(text, size);
    });
  } else {
    copy_all([&](const std::byte* text) {
      const std::size_t length = printable_in(text, size);
      std::copy_n(text, length, out);
      return length;
    });
  }
  text_.commit(static_cast<std::size_t>(out - start));
  values_.commit(count * sizeof(std::int32_t));
}

void Column::append_utf8_texts(const ColumnPlan& plan, const std::byte* from, std::size_t stride,
                               std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    std::string_view text = as_text({from + i * stride, plan.count});
    text = text.substr(0, text.find('\0'));
    if (json::is_valid_utf8(text)) {
      append_text(text);
    } else {
      append_null();
    }
  }
}

// Times beyond the year 294247 do not fit into the column and are null.
void Column::append_timestamps(const std::byte* from, std::size_t stride, std::size_t count) {
  const std::size_t first = values_.size();
  gather<std::uint64_t>(values_, from, stride, count);
  count_rows(count);
  std::uint64_t any = 0;
  for (std::size_t at = first; at < values_.size(); at += sizeof any) {
    std::uint64_t value = 0;
    std::memcpy(&value, values_.data() + at, sizeof value);
    any |= value;
  }
  if (any >> 63 == 0) [[likely]]
    return;
  if (nulls_ == 0) {
    extend_bits(validity_, rows_);
    set_bits(validity_.data(), 0, rows_);
  }
  for (std::size_t i = 0; i < count; ++i) {
    if (load_le<std::uint64_t>(from + i * stride) >> 63 == 0) continue;
    const std::size_t row = rows_ - count + i;
    validity_.data()[row / 8] &= ~(std::byte{1} << (row % 8));
    std::memset(values_.data() + first + i * sizeof(std::uint64_t), 0, sizeof(std::uint64_t));
    ++nulls_;
  }
}

void Column::append_nulls(std::size_t count) {
  if (count == 0) return;
  if (nulls_ == 0) {
    extend_bits(validity_, rows_);
    if (rows_ > 0) set_bits(validity_.data(), 0, rows_);
  }
  extend_bits(validity_, rows_ + count);
  nulls_ += count;
  switch (type_->kind) {
    case ColumnKind::boolean:
      extend_bits(values_, rows_ + count);
      break;
    case ColumnKind::text:
      for (std::size_t i = 0; i < count; ++i)
        push_offset();
      break;
    case ColumnKind::labels:
      for (std::size_t i = 0; i < count; ++i)
        values_.push(static_cast<std::int32_t>(children_[0].rows_));
      break;
    case ColumnKind::record:
      for (Column& child : children_)
        child.append_nulls(count);
      break;
    case ColumnKind::list:
      children_[0].append_nulls(count * type_->count);
      break;
    default:
      values_.push_zeros(count * value_size(type_->kind));
      break;
  }
  rows_ += count;
}

void Column::append_text(std::string_view utf8) {
  text_.append(utf8);
  push_offset();
  count_rows(1);
}

std::int32_t Column::index_of(std::string_view utf8) {
  if (const auto found = indices_.find(utf8); found != indices_.end()) return found->second;
  const auto index = static_cast<std::int32_t>(children_[0].rows_);
  indices_.emplace(utf8, index);
  children_[0].append_text(utf8);
  return index;
}

void Column::append_index(std::int32_t index, std::size_t count) {
  std::byte* const to = values_.extend(count * sizeof index);
  for (std::size_t i = 0; i < count; ++i)
    std::memcpy(to + i * sizeof index, &index, sizeof index);
  values_.commit(count * sizeof index);
  count_rows(count);
}

void Column::end_labels() {
  children_[0].rows_ = children_[0].children_[0].rows_;
  values_.push(static_cast<std::int32_t>(children_[0].rows_));
  count_rows(1);
}

void Column::repeat(std::size_t rows, std::size_t times) {
  if (type_->kind == ColumnKind::dictionary) {
    repeat_bytes(values_, rows * sizeof(std::int32_t), times);
    return count_repeated(rows, times);
  }
  const std::size_t size = offset_of_row(rows_) - offset_of_row(rows_ - rows);
  if (type_->kind == ColumnKind::text) {
    repeat_bytes(text_, size, times);
  } else {
    Column& entries = children_[0];
    for (Column& part : entries.children_)
      part.repeat(size, times);
    entries.rows_ += size * times;
  }
  std::byte* const offsets = values_.extend(rows * times * sizeof(std::int32_t));
  for (std::size_t i = 0; i < rows * times; ++i) {
    std::byte* const to = offsets + i * sizeof(std::int32_t);
    std::int32_t offset = 0;
    std::memcpy(&offset, to - rows * sizeof offset, sizeof offset);
    offset += static_cast<std::int32_t>(size);
    std::memcpy(to, &offset, sizeof offset);
  }
  values_.commit(rows * times * sizeof(std::int32_t));
  count_repeated(rows, times);
}

// Where a row of texts or labels begins.
std::size_t Column::offset_of_row(std::size_t row) const {
  std::int32_t offset = 0;
  std::memcpy(&offset, values_.data() + row * sizeof offset, sizeof offset);
  return static_cast<std::size_t>(offset);
}

void Column::count_repeated(std::size_t rows, std::size_t times) {
  if (nulls_ == 0) return count_rows(rows * times);
  extend_bits(validity_, rows_ + rows * times);
  for (const std::size_t end = rows_ + rows * times; rows_ < end; ++rows_) {
    if (has_bit(validity_.data(), rows_ - rows)) {
      set_bits(validity_.data(), rows_, 1);
    } else {
      ++nulls_;
    }
  }
}

namespace {

// What an array node owns besides itself.
struct ArrayNode {
  Buffer validity;
  Buffer values;
  Buffer text;
  std::array<const void*, 3> buffers{};
  std::vector<std::unique_ptr<ArrowArray>> children;
  std::vector<ArrowArray*> child_pointers;
  std::unique_ptr<ArrowArray> dictionary;
};

void release_array(ArrowArray* array) {
  auto* const node = static_cast<ArrayNode*>(array->private_data);
  for (const auto& child : node->children)
    if (child->release != nullptr) child->release(child.get());
  if (node->dictionary != nullptr && node->dictionary->release != nullptr)
    node->dictionary->release(node->dictionary.get());
  delete node;
  array->release = nullptr;
}

// Children that were handed over before something failed are released with the node.
ArrayNode& begin_array(ArrowArray* out, std::size_t rows, std::size_t nulls) {
  *out = {};
  auto* const node = new ArrayNode;
  out->private_data = node;
  out->release = release_array;
  out->length = static_cast<std::int64_t>(rows);
  out->null_count = static_cast<std::int64_t>(nulls);
  out->buffers = node->buffers.data();
  return *node;
}

// Readable memory for buffers that have no bytes: some consumers refuse null.
const void* bytes_of(const Buffer& buffer) {
  alignas(64) static constexpr std::array<std::byte, 64> kNothing{};
  return buffer.data() != nullptr ? buffer.data() : kNothing.data();
}

struct ArrayRelease {
  ArrowArray* array;
  ~ArrayRelease() {
    if (array != nullptr) release_array(array);
  }
};

void export_children(std::span<Column> columns, ArrayNode& node, ArrowArray* out) {
  for (Column& column : columns) {
    node.children.push_back(std::make_unique<ArrowArray>());
    column.export_to(node.children.back().get());
  }
  for (const auto& child : node.children)
    node.child_pointers.push_back(child.get());
  out->n_children = static_cast<std::int64_t>(node.child_pointers.size());
  out->children = node.child_pointers.data();
}

}  // namespace

void Column::export_to(ArrowArray* out) {
  ArrayNode& node = begin_array(out, rows_, nulls_);
  ArrayRelease guard{out};
  node.validity = std::move(validity_);
  node.values = std::move(values_);
  node.text = std::move(text_);
  node.buffers[0] = nulls_ > 0 ? node.validity.data() : nullptr;
  node.buffers[1] = bytes_of(node.values);
  node.buffers[2] = bytes_of(node.text);
  switch (type_->kind) {
    case ColumnKind::record:
    case ColumnKind::list:
      out->n_buffers = 1;
      export_children(children_, node, out);
      break;
    case ColumnKind::labels:
      out->n_buffers = 2;
      export_children(children_, node, out);
      break;
    case ColumnKind::text:
      out->n_buffers = 3;
      break;
    case ColumnKind::dictionary:
      out->n_buffers = 2;
      node.dictionary = std::make_unique<ArrowArray>();
      children_[0].export_to(node.dictionary.get());
      out->dictionary = node.dictionary.get();
      break;
    default:
      out->n_buffers = 2;
      break;
  }
  guard.array = nullptr;
}

void export_batch(std::span<Column> columns, std::size_t rows, ArrowArray* out) {
  ArrayNode& node = begin_array(out, rows, 0);
  ArrayRelease guard{out};
  out->n_buffers = 1;
  export_children(columns, node, out);
  guard.array = nullptr;
}

}  // namespace qvx::columns
