// Typed records: what data files hold, field by field, with no text in between and no value rounded.
//
//   FieldHandle job("job"), nodes("nodes");
//   for (const Record& record : reader.records())       // see data_file_reader.h
//     if (const auto number = record.get<std::uint32_t>(job))
//       use(*number, record.array<std::uint16_t>(nodes));
//
// and faster, where there are many: runs of records, a field at a time (record_run.h).
//
// Schemas come with the data, so nothing here trusts that a field is there, is of the type asked for or lies
// inside its record: what cannot be had is absent.
#pragma once

#include <array>
#include <bit>
#include <cassert>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "qvx/metrics/metrics_batch.h"
#include "qvx/scan/type_cache.h"
#include "qvx/support/bytes.h"
#include "qvx/support/printable.h"

namespace qvx {

class RecordType;

// How the bytes of a field are read.
enum class FieldKind : std::uint8_t {
  none,  // there is no such field
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
  characters,  // text that ends before its first character that is not printable ASCII
  string,      // text that ends before its first NUL
  record,      // nested
};

// Where the values of a field stand in the records of one type.
struct FieldPlace {
  std::uint64_t record_type = 0;  // serial() of that type
  std::uint64_t offset = 0;       // bytes from the start of the record
  std::uint64_t end = 0;          // behind the last value; without values the largest number
  std::uint64_t stride = 0;       // from one value to the next; 0: they all stand in one place
  std::uint32_t count = 1;        // of values; more than one makes an array
  std::uint32_t size = 0;         // bytes of one value
  FieldKind kind = FieldKind::none;
  const RecordType* nested = nullptr;  // of FieldKind::record

  explicit operator bool() const { return kind != FieldKind::none; }
};

struct Field : FieldPlace {
  std::string name;
};

// Numbers of one kind that stand one behind the other: `count` fields from the field `first` on, each with
// its only value; of a counter that which all sets show. Read together, as an array.
struct FieldRange : FieldPlace {
  std::size_t first = 0;  // in RecordType::fields()
};

enum class RecordKind : std::uint8_t {
  event,
  counters,  // a field for each counter, named "group.counter", with a value for each counter set
  sample,    // of a metric: one field, "value"
};

// What the records of one type look like. Made once for each type of a schema.
class RecordType {
 public:
  RecordType(RecordKind kind, std::string name);
  RecordType(const RecordType&) = delete;
  RecordType& operator=(const RecordType&) = delete;

  RecordKind kind() const { return kind_; }
  // That of the event type; "counters" and "metrics".
  const std::string& name() const { return name_; }
  // As JSON shows them: of fields of one name the last, at the place of the first.
  const std::vector<Field>& fields() const { return fields_; }
  // In the order of the fields. Every field that is one number is in one of them.
  const std::vector<FieldRange>& ranges() const { return ranges_; }

  // The field of that name. A name "a.b" stands for field "b" in the nested record "a", "a[2]" for one value
  // of an array, "a.b" with an array "a" of records for "b" of each of them; "group[2].counter" for a counter
  // in one counter set, "counter" for the first counter of that name in any group. FieldKind::none when there
  // is no such field.
  FieldPlace find(std::string_view path) const;

  // Unlike that of any other type, ever.
  std::uint64_t serial() const { return serial_; }
  // Bytes that a record must have for all its fields to be there.
  std::uint64_t reach() const { return reach_; }
  // Memory in use, roughly.
  std::size_t bytes() const;

 private:
  friend class RecordTypes;

  void add(Field field);
  void add_to_ranges(const Field& field);

  RecordKind kind_;
  std::string name_;
  std::vector<Field> fields_;
  std::vector<FieldRange> ranges_;
  std::uint64_t serial_;
  std::uint64_t reach_ = 0;
};

// Names a field of records of any type. It is looked up once in each type and then found without a search; a
// handle serves one thread.
class FieldHandle {
 public:
  explicit FieldHandle(std::string name) : name_(std::move(name)) {}

  const std::string& name() const { return name_; }

  const FieldPlace& in(const RecordType& type) {
    FieldPlace& place = places_[type.serial() % kPlaces].field;
    if (place.record_type != type.serial()) [[unlikely]]
      look_up(type, place);
    return place;
  }

 private:
  static constexpr std::size_t kPlaces = 8;  // types that change from record to record, but for clashes

  // Found without a multiplication.
  struct alignas(64) Place {
    FieldPlace field;
  };

  void look_up(const RecordType& type, FieldPlace& place) const;

  std::string name_;
  std::array<Place, kPlaces> places_;
};

namespace detail {

template <typename T>
constexpr FieldKind kind_of() {
  if constexpr (std::same_as<T, bool>) return FieldKind::boolean;
  if constexpr (std::floating_point<T>) return sizeof(T) == 4 ? FieldKind::f32 : FieldKind::f64;
  if constexpr (std::integral<T>) {
    constexpr bool kSigned = std::is_signed_v<T>;
    switch (sizeof(T)) {
      case 1:
        return kSigned ? FieldKind::i8 : FieldKind::u8;
      case 2:
        return kSigned ? FieldKind::i16 : FieldKind::u16;
      case 4:
        return kSigned ? FieldKind::i32 : FieldKind::u32;
      default:
        return kSigned ? FieldKind::i64 : FieldKind::u64;
    }
  }
  return FieldKind::none;
}

template <typename T>
concept RecordNumber = (std::integral<T> || std::same_as<T, float> ||
                        std::same_as<T, double>)&&!std::same_as<T, bool> &&
                       !std::same_as<T, char> && !std::same_as<T, wchar_t>;

template <typename T>
concept ColumnValue = RecordNumber<T> || std::same_as<T, bool> || std::same_as<T, std::string_view>;

// Whether every value of From is one of To.
template <typename To, typename From>
constexpr bool holds() {
  using ToLimits = std::numeric_limits<To>;
  using FromLimits = std::numeric_limits<From>;
  if constexpr (!FromLimits::is_integer && ToLimits::is_integer) return false;
  return ToLimits::digits >= FromLimits::digits && (ToLimits::is_signed || !FromLimits::is_signed);
}

template <typename To, typename From>
std::optional<To> widened(const std::byte* from) {
  if constexpr (holds<To, From>()) return static_cast<To>(load_le<From>(from));
  return std::nullopt;
}

// For fields that are narrower than what was asked for; apart from the code that most values take.
template <typename T>
[[gnu::noinline]] std::optional<T> number_at(FieldKind kind, const std::byte* from) {
  switch (kind) {
    case FieldKind::boolean:
    case FieldKind::u8:
      return widened<T, std::uint8_t>(from);
    case FieldKind::i8:
      return widened<T, std::int8_t>(from);
    case FieldKind::u16:
      return widened<T, std::uint16_t>(from);
    case FieldKind::i16:
      return widened<T, std::int16_t>(from);
    case FieldKind::u32:
      return widened<T, std::uint32_t>(from);
    case FieldKind::i32:
      return widened<T, std::int32_t>(from);
    case FieldKind::u64:
      return widened<T, std::uint64_t>(from);
    case FieldKind::i64:
      return widened<T, std::int64_t>(from);
    case FieldKind::f32:
      return widened<T, float>(from);
    case FieldKind::f64:
      return widened<T, double>(from);
    case FieldKind::none:
    case FieldKind::characters:
    case FieldKind::string:
    case FieldKind::record:
      break;
  }
  return std::nullopt;
}

// The bytes of a text up to where JSON ends it.
inline std::string_view text_at(FieldKind kind, const std::byte* from, std::size_t size) {
  const std::string_view text = as_text({from, size});
  return text.substr(0, kind == FieldKind::string ? text.find('\0') : printable_in(from, size));
}

}  // namespace detail

// Values where they stand: numbers, `bool`, and text as std::string_view.
template <typename T>
class ArrayView {
 public:
  ArrayView() = default;
  // Texts are of that kind and `text_size` bytes long.
  ArrayView(const std::byte* first, std::size_t count, std::size_t stride,
            FieldKind text_kind = FieldKind::none, std::size_t text_size = 0)
      : first_(first), count_(count), stride_(stride), text_size_(text_size), text_kind_(text_kind) {}

  std::size_t size() const { return count_; }
  bool empty() const { return count_ == 0; }
  T operator[](std::size_t index) const {
    assert(index < count_);
    const std::byte* const from = first_ + index * stride_;
    if constexpr (std::same_as<T, std::string_view>) {
      return detail::text_at(text_kind_, from, text_size_);
    } else if constexpr (std::same_as<T, bool>) {
      return load_le<std::uint8_t>(from) != 0;
    } else {
      return load_le<T>(from);
    }
  }

  // Numbers as they are in memory, on a machine that has them there in its own byte order and aligned.
  std::optional<std::span<const T>> span() const requires detail::RecordNumber<T> {
    const bool fits = std::endian::native == std::endian::little && stride_ == sizeof(T) &&
                      reinterpret_cast<std::uintptr_t>(first_) % alignof(T) == 0;
    if (!fits) return std::nullopt;
    return std::span<const T>(reinterpret_cast<const T*>(first_), count_);
  }

  class Iterator {
   public:
    using value_type = T;
    using difference_type = std::ptrdiff_t;

    Iterator() = default;
    Iterator(const ArrayView* view, std::size_t index) : view_(view), index_(index) {}
    T operator*() const { return (*view_)[index_]; }
    Iterator& operator++() {
      ++index_;
      return *this;
    }
    Iterator operator++(int) { return std::exchange(*this, Iterator(view_, index_ + 1)); }
    bool operator==(const Iterator& other) const { return index_ == other.index_; }

   private:
    const ArrayView* view_ = nullptr;
    std::size_t index_ = 0;
  };
  Iterator begin() const { return {this, 0}; }
  Iterator end() const { return {this, count_}; }

 private:
  const std::byte* first_ = nullptr;
  std::size_t count_ = 0;
  std::size_t stride_ = 0;
  std::size_t text_size_ = 0;
  FieldKind text_kind_ = FieldKind::none;
};

struct MetricLabel {
  std::string_view name;
  std::string_view value;

  bool operator==(const MetricLabel&) const = default;
};

// What the samples of a batch share.
struct SampleBatch {
  metrics::MetricKind kind = metrics::MetricKind::untyped;
  std::vector<MetricLabel> labels;  // in the order of JSON
  const metrics::StringTable* metric_names = nullptr;
};

// A record where it stands. It and all that it hands out are views, valid until the reader that gave it
// reads on.
class Record {
 public:
  Record() = default;
  Record(const RecordType& type, Bytes at_hand, std::uint64_t time, const SampleBatch* batch = nullptr)
      : type_(&type), data_(at_hand.data()), size_(at_hand.size()), time_(time), batch_(batch) {}

  RecordKind kind() const { return type_->kind(); }
  const RecordType& type() const { return *type_; }
  // When its block, or batch, was written: microseconds since 1970-01-01 00:00 UTC.
  std::uint64_t time() const { return time_; }

  // The value of a field, of an array the first. A number is given as a T only if T holds every number of the
  // field's type; text is a std::string_view, and `bool` is for boolean fields. Nothing when there is no such
  // field in records of this type, it is something else, or the record ends before it.
  template <typename T>
  std::optional<T> get(const FieldPlace& field) const {
    if (field.record_type != type_->serial()) return std::nullopt;
    return value_at<T>(field);
  }
  template <typename T>
  std::optional<T> get(FieldHandle& field) const {
    return value_at<T>(field.in(*type_));
  }

  // All values of a field of exactly that type; a single value is an array of one. Empty when there are none.
  template <detail::RecordNumber T>
  ArrayView<T> array(const FieldPlace& field) const;
  template <detail::RecordNumber T>
  ArrayView<T> array(FieldHandle& field) const {
    return array<T>(field.in(*type_));
  }

  // A nested record, of an array the one of that index.
  std::optional<Record> record(const FieldPlace& field, std::size_t index = 0) const;
  std::optional<Record> record(FieldHandle& field, std::size_t index = 0) const {
    return record(field.in(*type_), index);
  }

  // Of samples; otherwise empty. A sample whose metric the block does not name has no name, and the labels
  // end with their shorter list.
  std::string_view metric() const {
    if (batch_ == nullptr) return {};
    const std::size_t id = load_le<std::uint16_t>(data_ + metrics::wire::kSampleIdAt);
    const metrics::StringTable& names = *batch_->metric_names;
    return id < names.size() ? names[id] : std::string_view();
  }
  metrics::MetricKind metric_kind() const { return batch_ ? batch_->kind : metrics::MetricKind::untyped; }
  std::span<const MetricLabel> labels() const {
    return batch_ ? std::span<const MetricLabel>(batch_->labels) : std::span<const MetricLabel>();
  }
  // Empty when there is none of that name.
  std::string_view label(std::string_view name) const;

  // From the record's first byte to the end of what there is.
  Bytes bytes_at_hand() const { return {data_, size_}; }

 private:
  friend class DataFileReader;
  friend class RecordRun;

  bool has(const FieldPlace& field) const {
    return field.record_type == type_->serial() && field.end <= size_;
  }
  template <typename T>
  std::optional<T> value_at(const FieldPlace& field) const;

  const RecordType* type_ = nullptr;
  const std::byte* data_ = nullptr;
  std::size_t size_ = 0;
  std::uint64_t time_ = 0;
  const SampleBatch* batch_ = nullptr;
};

template <typename T>
[[gnu::always_inline]] inline std::optional<T> Record::value_at(const FieldPlace& field) const {
  static_assert(detail::RecordNumber<T> || std::same_as<T, bool> || std::same_as<T, std::string_view>);
  if (field.end > size_) return std::nullopt;
  const std::byte* const from = data_ + field.offset;
  if constexpr (std::same_as<T, std::string_view>) {
    if (field.kind != FieldKind::characters && field.kind != FieldKind::string) return std::nullopt;
    return detail::text_at(field.kind, from, field.size);
  } else if constexpr (std::same_as<T, bool>) {
    if (field.kind != FieldKind::boolean) return std::nullopt;
    return load_le<std::uint8_t>(from) != 0;
  } else {
    if (field.kind == detail::kind_of<T>()) [[likely]]
      return load_le<T>(from);
    return detail::number_at<T>(field.kind, from);
  }
}

template <detail::RecordNumber T>
ArrayView<T> Record::array(const FieldPlace& field) const {
  if (!has(field) || field.kind != detail::kind_of<T>()) return {};
  return {data_ + field.offset, field.count, static_cast<std::size_t>(field.stride)};
}

// The record types of one schema.
class RecordTypes final : public SchemaNotes {
 public:
  // Those of the schema; makes what is missing. Throw std::bad_alloc.
  static const RecordType& of_events(LoadedSchema& schema, std::size_t type_index);
  static const RecordType& of_counters(LoadedSchema& schema);
  // That of samples of a value type, by its code; what is no number is given as its 64 bits.
  static const RecordType& of_samples(std::uint8_t value_type);

  std::size_t bytes() const override { return bytes_; }

 private:
  static RecordTypes& of(LoadedSchema& schema);

  const RecordType& make(const qvx_type_definition& type);
  Field make_field(const qvx_field_definition& field);
  void make_counters(const qvx_counters_schema& schema);

  std::map<const qvx_type_definition*, std::unique_ptr<RecordType>> types_;
  std::unique_ptr<RecordType> counters_;
  std::size_t bytes_ = 0;
};

}  // namespace qvx
