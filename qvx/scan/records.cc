#include "qvx/scan/records.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <unordered_map>

#include "qvx/data/block.h"
#include "qvx/data/schema/builtin_types.h"
#include "qvx/data/schema/record_text.h"
#include "qvx/metrics/wire.h"
#include "qvx/support/saturate.h"

namespace qvx {
namespace {

constexpr const char* kCountersName = "counters";
constexpr const char* kSamplesName = "metrics";
constexpr const char* kSampleValueName = "value";
constexpr const char* kUnnamedGroup = "unset";

std::uint64_t next_serial() {
  static std::atomic<std::uint64_t> last{0};
  return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

FieldKind kind_of(const qvx_type_definition& builtin) {
  if (builtin.id == kBoolTypeId) return FieldKind::boolean;
  switch (builtin_value_class(builtin.id)) {
    case ValueClass::u8:
      return FieldKind::u8;
    case ValueClass::i8:
      return FieldKind::i8;
    case ValueClass::u16:
      return FieldKind::u16;
    case ValueClass::i16:
      return FieldKind::i16;
    case ValueClass::u32:
      return FieldKind::u32;
    case ValueClass::i32:
      return FieldKind::i32;
    case ValueClass::u64:
      return FieldKind::u64;
    case ValueClass::i64:
      return FieldKind::i64;
    case ValueClass::f32:
      return FieldKind::f32;
    case ValueClass::f64:
      return FieldKind::f64;
    case ValueClass::none:
      break;
  }
  return FieldKind::none;
}

FieldKind kind_of(const qvx_counter_info& counter) {
  switch (counter.data_type) {
    case QVX_COUNTER_UINT64:
    case QVX_COUNTER_BIT64:
      return FieldKind::u64;
    case QVX_COUNTER_FP64:
      return FieldKind::f64;
    case QVX_COUNTER_STRING:
      return FieldKind::string;
    default:
      return FieldKind::i64;
  }
}

bool is_number(FieldKind kind) {
  return kind >= FieldKind::u8 && kind <= FieldKind::f64;
}

// Sets `end` to what the rest says.
void close(FieldPlace& place) {
  if (place.count == 0) {
    place.end = std::numeric_limits<std::uint64_t>::max();
    return;
  }
  const std::uint64_t last = saturating_multiply(place.stride, std::uint64_t{place.count} - 1);
  place.end = saturating_add(saturating_add(place.offset, last), place.size);
}

// The number in brackets at the start of a text, which is then cut off.
std::optional<std::uint32_t> take_index(std::string_view& text) {
  if (!text.starts_with('[')) return std::nullopt;
  const std::size_t closing = text.find(']');
  if (closing == text.npos) return std::nullopt;
  std::uint32_t index = 0;
  const auto [end, fault] = std::from_chars(text.data() + 1, text.data() + closing, index);
  if (fault != std::errc() || end != text.data() + closing) return std::nullopt;
  text.remove_prefix(closing + 1);
  return index;
}

// Makes the place of an array that of one of its values.
bool choose(FieldPlace& place, std::uint32_t index) {
  if (index >= place.count) return false;
  place.offset = saturating_add(place.offset, saturating_multiply(place.stride, index));
  place.count = 1;
  close(place);
  return true;
}

// The longest of the names that the path begins with, with an end of a name behind it.
const Field* longest_match(const std::vector<Field>& fields, std::string_view path) {
  const Field* found = nullptr;
  for (const Field& field : fields) {
    if (!path.starts_with(field.name) || (found != nullptr && found->name.size() >= field.name.size()))
      continue;
    const std::string_view rest = path.substr(field.name.size());
    if (rest.empty() || rest.front() == '.' || rest.front() == '[') found = &field;
  }
  return found;
}

// The place of `inner` in a record, or in all records, at `outer`; false when they are arrays both.
bool nest(const FieldPlace& outer, FieldPlace& inner) {
  const std::uint64_t offset = saturating_add(outer.offset, inner.offset);
  if (outer.count != 1) {
    if (inner.count != 1) return false;
    inner.count = outer.count;
    inner.stride = outer.stride;
  }
  inner.offset = offset;
  close(inner);
  return true;
}

FieldPlace find_nested(const RecordType& type, std::string_view path) {
  FieldPlace place;
  const RecordType* in = &type;
  for (bool first = true; in != nullptr; first = false) {
    const Field* const field = longest_match(in->fields(), path);
    if (field == nullptr) return {};
    path.remove_prefix(field->name.size());
    FieldPlace step = *field;
    if (!first && !nest(place, step)) return {};
    if (path.starts_with('[')) {
      const std::optional<std::uint32_t> index = take_index(path);
      if (!index || !choose(step, *index)) return {};
    }
    place = step;
    if (path.empty()) return place;
    if (!path.starts_with('.')) return {};
    path.remove_prefix(1);
    in = place.nested;
  }
  return {};
}

// "group[2].counter" or "counter".
FieldPlace find_counter(const std::vector<Field>& fields, std::string_view path) {
  for (const Field& field : fields)
    if (field.name == path) return field;
  for (const Field& field : fields) {
    // The group's name has no end of its own in the field's: every point may be it.
    for (std::size_t point = field.name.find('.'); point != field.name.npos;
         point = field.name.find('.', point + 1)) {
      const std::string_view group = std::string_view(field.name).substr(0, point);
      const std::string_view counter = std::string_view(field.name).substr(point);
      if (path == counter.substr(1)) return field;
      if (!path.starts_with(group)) continue;
      std::string_view rest = path.substr(group.size());
      const std::optional<std::uint32_t> index = take_index(rest);
      FieldPlace place = field;
      if (index && rest == counter && choose(place, *index)) return place;
    }
  }
  return {};
}

}  // namespace

RecordType::RecordType(RecordKind kind, std::string name)
    : kind_(kind), name_(std::move(name)), serial_(next_serial()) {}

void RecordType::add(Field field) {
  field.record_type = serial_;
  const std::uint64_t last_at = field.end - std::min<std::uint64_t>(field.end, field.size);
  const std::uint64_t size =
      field.nested != nullptr ? std::max<std::uint64_t>(field.nested->reach(), 1) : field.size;
  if (field.count != 0) reach_ = std::max(reach_, saturating_add(last_at, size));
  fields_.push_back(std::move(field));
  add_to_ranges(fields_.back());
}

void RecordType::add_to_ranges(const Field& field) {
  const bool is_one = field.count == 1 || (field.count > 1 && kind_ == RecordKind::counters);
  if (!is_one || !is_number(field.kind)) return;
  const std::size_t index = fields_.size() - 1;
  if (!ranges_.empty()) {
    FieldRange& last = ranges_.back();
    if (last.kind == field.kind && last.first + last.count == index && last.end == field.offset) {
      ++last.count;
      return close(last);
    }
  }
  FieldRange range;
  static_cast<FieldPlace&>(range) = field;
  range.count = 1;
  range.stride = field.size;
  range.first = index;
  close(range);
  ranges_.push_back(range);
}

FieldPlace RecordType::find(std::string_view path) const {
  FieldPlace place = kind_ == RecordKind::counters ? find_counter(fields_, path) : find_nested(*this, path);
  place.record_type = serial_;
  return place;
}

std::size_t RecordType::bytes() const {
  std::size_t bytes = sizeof *this + name_.capacity() + fields_.capacity() * sizeof(Field) +
                      ranges_.capacity() * sizeof(FieldRange);
  for (const Field& field : fields_)
    bytes += field.name.capacity();
  return bytes;
}

void FieldHandle::look_up(const RecordType& type, FieldPlace& place) const {
  place = type.find(name_);
}

std::optional<Record> Record::record(const FieldPlace& field, std::size_t index) const {
  if (!has(field) || field.nested == nullptr || index >= field.count) return std::nullopt;
  const auto offset = static_cast<std::size_t>(field.offset + index * field.stride);
  return Record(*field.nested, bytes_at_hand().subspan(offset), time_);
}

std::string_view Record::label(std::string_view name) const {
  for (const MetricLabel& label : labels())
    if (label.name == name) return label.value;
  return {};
}

RecordTypes& RecordTypes::of(LoadedSchema& schema) {
  if (schema.notes == nullptr) schema.notes = std::make_unique<RecordTypes>();
  return static_cast<RecordTypes&>(*schema.notes);
}

const RecordType& RecordTypes::of_events(LoadedSchema& schema, std::size_t type_index) {
  return of(schema).make(*schema.events->types[type_index]);
}

const RecordType& RecordTypes::of_counters(LoadedSchema& schema) {
  RecordTypes& types = of(schema);
  if (types.counters_ == nullptr) types.make_counters(*schema.counters);
  return *types.counters_;
}

// With the types of its nested records. The type is known before its fields are, as it may contain itself.
const RecordType& RecordTypes::make(const qvx_type_definition& type) {
  if (const auto made = types_.find(&type); made != types_.end()) return *made->second;
  RecordType& record =
      *types_.emplace(&type, std::make_unique<RecordType>(RecordKind::event, type.name)).first->second;
  try {
    std::unordered_map<std::string_view, const qvx_field_definition*> last;
    std::vector<std::string_view> names;
    for (const auto& field : type.fields) {
      const std::string_view name = field->field_name ? std::string_view(*field->field_name) : "";
      const auto [place, is_first] = last.insert_or_assign(name, field.get());
      if (is_first) names.push_back(name);
    }
    for (const std::string_view name : names)
      record.add(make_field(*last.at(name)));
  } catch (...) {
    types_.erase(&type);
    throw;
  }
  bytes_ += record.bytes();
  return record;
}

Field RecordTypes::make_field(const qvx_field_definition& definition) {
  Field field;
  field.name = definition.field_name.value_or("");
  field.offset = definition.offset;
  field.count = std::max<std::uint32_t>(definition.array_length, 1);
  field.stride = definition.type_size;
  if (definition.type == nullptr) {
    field.kind = FieldKind::none;
  } else if (definition.type->id == kCompositeTypeId) {
    field.kind = FieldKind::record;
    field.nested = &make(*definition.type);
  } else if (is_character_array(definition)) {
    field.kind = FieldKind::characters;
    field.size = definition.array_length;
    field.count = 1;
  } else {
    field.kind = kind_of(*definition.type);
    field.size = static_cast<std::uint32_t>(builtin_type_size(definition.type->id));
  }
  close(field);
  return field;
}

void RecordTypes::make_counters(const qvx_counters_schema& schema) {
  auto record = std::make_unique<RecordType>(RecordKind::counters, kCountersName);
  for (const auto& group : schema.groups) {
    const char* const name = counter_group_display_name(*group);
    const std::string prefix = std::string(name != nullptr ? name : kUnnamedGroup) + '.';
    std::unordered_map<std::string_view, const qvx_counter_info*> last;
    std::vector<std::string_view> names;
    for (const auto& counter : group->counters) {
      const std::string_view counter_name = counter->name ? std::string_view(*counter->name) : "";
      const auto [place, is_first] = last.insert_or_assign(counter_name, counter.get());
      if (is_first) names.push_back(counter_name);
    }
    for (const std::string_view counter_name : names) {
      const qvx_counter_info& counter = *last.at(counter_name);
      Field field;
      field.name = prefix;
      field.name += counter_name;
      field.kind = kind_of(counter);
      field.offset = std::uint64_t{kCountersHeaderSize} + counter.offset;
      field.size = field.kind == FieldKind::string ? counter.length : kCounterSlotSize;
      // All sets of a group are read from the same place, deliberately, so they show the same values.
      field.count = group->num_counter_sets;
      field.stride = 0;
      close(field);
      record->add(std::move(field));
    }
  }
  bytes_ += record->bytes();
  counters_ = std::move(record);
}

const RecordType& RecordTypes::of_samples(std::uint8_t value_type) {
  const auto make = [](FieldKind kind) {
    auto type = std::make_unique<RecordType>(RecordKind::sample, kSamplesName);
    Field value;
    value.name = kSampleValueName;
    value.kind = kind;
    value.offset = metrics::wire::kSampleValueAt;
    value.size = sizeof(std::uint64_t);
    close(value);
    type->add(std::move(value));
    return type;
  };
  static const std::unique_ptr<RecordType> u64 = make(FieldKind::u64);
  static const std::unique_ptr<RecordType> i64 = make(FieldKind::i64);
  static const std::unique_ptr<RecordType> f64 = make(FieldKind::f64);
  switch (static_cast<metrics::MetricValueType>(value_type)) {
    case metrics::MetricValueType::floating:
      return *f64;
    case metrics::MetricValueType::int64:
      return *i64;
    case metrics::MetricValueType::uint64:
    case metrics::MetricValueType::bit64:
    case metrics::MetricValueType::string:
      break;
  }
  return *u64;
}

}  // namespace qvx
