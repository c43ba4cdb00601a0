#include "tests/support/record_tree.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <limits>
#include <utility>
#include <vector>

namespace qvx::test {
namespace {

constexpr std::uint64_t kFar = std::numeric_limits<std::uint64_t>::max();

std::uint64_t plus(std::uint64_t a, std::uint64_t b) {
  return a > kFar - b ? kFar : a + b;
}

std::uint64_t times(std::uint64_t a, std::uint64_t b) {
  return b != 0 && a > kFar / b ? kFar : a * b;
}

template <typename... Args>
std::string print(const char* format, Args... args) {
  const int length = std::snprintf(nullptr, 0, format, args...);
  std::string text(static_cast<std::size_t>(length) + 1, '\0');
  std::snprintf(text.data(), text.size(), format, args...);
  text.pop_back();
  return text;
}

// The bytes at hand.
class Record {
 public:
  explicit Record(Bytes at_hand) : at_hand_(at_hand) {}

  // Null for bytes outside.
  const std::byte* at(std::uint64_t offset, std::uint64_t size) {
    if (size > at_hand_.size() || offset > at_hand_.size() - size) return nullptr;
    return at_hand_.data() + offset;
  }
  template <typename T>
  std::optional<T> value(std::uint64_t offset) {
    const std::byte* const from = at(offset, sizeof(T));
    if (from == nullptr) return std::nullopt;
    T value;
    std::memcpy(&value, from, sizeof value);
    return value;
  }

 private:
  Bytes at_hand_;
};

template <typename T>
std::optional<json::Value> number(std::optional<T> value) {
  if (!value) return std::nullopt;
  return json::Value::number(static_cast<double>(*value));
}

std::optional<json::Value> builtin_value(std::uint32_t id, Record& record, std::uint64_t offset) {
  switch (id) {
    case 1:
    case 2:
    case 7:
    case 18:
      return number(record.value<std::uint8_t>(offset));
    case 14:
      return number(record.value<std::int8_t>(offset));
    case 3:
    case 15:
      return number(record.value<std::int16_t>(offset));
    case 8:
    case 19:
      return number(record.value<std::uint16_t>(offset));
    case 4:
    case 16:
      return number(record.value<std::int32_t>(offset));
    case 9:
    case 20:
      return number(record.value<std::uint32_t>(offset));
    case 5:
    case 6:
    case 17:
      return number(record.value<std::int64_t>(offset));
    case 10:
    case 11:
    case 21:
    case 22:
      return number(record.value<std::uint64_t>(offset));
    case 12:
      return number(record.value<float>(offset));
    case 13:
      return number(record.value<double>(offset));
    default:
      return std::nullopt;
  }
}

bool is_text(const qvx_field_definition& field) {
  return field.array_length > 1 && (field.type->id == 2 || field.type->id == 7);
}

std::optional<std::string> printable_text(const qvx_field_definition& field, Record& record,
                                          std::uint64_t offset) {
  const std::byte* const from = record.at(offset, field.array_length);
  if (from == nullptr) return std::nullopt;
  std::string text;
  for (std::uint32_t i = 0; i < field.array_length; ++i) {
    const auto byte = std::to_integer<unsigned>(from[i]);
    if (byte < 0x20 || byte > 0x7E) break;
    text += static_cast<char>(byte);
  }
  return text;
}

// The bytes of all values of one record; an object without members counts for one.
std::uint64_t bytes_of_values(const qvx_type_definition& type) {
  if (type.id != 0) return type.size;
  if (type.fields.empty()) return 1;
  std::uint64_t sum = 0;
  for (const auto& field : type.fields)
    if (field->type != nullptr) sum = plus(sum, times(field->array_length, bytes_of_values(*field->type)));
  return sum;
}

bool is_too_much(const qvx_type_definition& type, Bytes at_hand) {
  return bytes_of_values(type) > plus(times(16, std::min<std::uint64_t>(type.size, at_hand.size())), 1024);
}

std::optional<json::Value> object_value(const qvx_type_definition& type, Record& record, std::uint64_t base);

std::optional<json::Value> element_value(const qvx_field_definition& field, Record& record,
                                         std::uint64_t offset) {
  if (field.type->id != 0) return builtin_value(field.type->id, record, offset);
  return object_value(*field.type, record, offset);
}

std::optional<json::Value> field_value(const qvx_field_definition& field, Record& record,
                                       std::uint64_t offset) {
  if (field.type == nullptr) return std::nullopt;
  if (field.array_length == 1) return element_value(field, record, offset);
  if (is_text(field)) {
    const std::optional<std::string> text = printable_text(field, record, offset);
    return text ? json::Value::string(*text) : std::nullopt;
  }
  json::Array array;
  for (std::uint32_t k = 0; k < field.array_length; ++k) {
    std::optional<json::Value> value = element_value(field, record, plus(offset, times(k, field.type_size)));
    if (!value) return std::nullopt;
    array.push_back(std::move(*value));
  }
  return json::Value(std::move(array));
}

std::optional<json::Value> object_value(const qvx_type_definition& type, Record& record, std::uint64_t base) {
  json::Object object;
  for (const auto& field : type.fields) {
    std::optional<json::Value> value = field_value(*field, record, plus(base, field->offset));
    if (!value) return std::nullopt;
    object.set(field->field_name.value_or(""), std::move(*value));
  }
  return json::Value(std::move(object));
}

template <typename T>
bool print_to(std::string& out, const char* format, std::optional<T> value) {
  if (!value) return false;
  out += print(format, *value);
  return true;
}

bool influx_value(std::uint32_t id, Record& record, std::uint64_t offset, std::string& out) {
  switch (id) {
    case 1: {
      const auto value = record.value<std::uint8_t>(offset);
      if (value) out += *value != 0 ? "true" : "false";
      return value.has_value();
    }
    case 2:
    case 7:
    case 18:
      return print_to(out, "%di", record.value<std::uint8_t>(offset));
    case 3:
    case 15:
      return print_to(out, "%di", record.value<std::int16_t>(offset));
    case 4:
    case 16:
      return print_to(out, "%di", record.value<std::int32_t>(offset));
    case 5:
    case 6:
    case 17:
      return print_to(out, "%ldi", record.value<std::int64_t>(offset));
    case 8:
    case 19:
      return print_to(out, "%di", record.value<std::uint16_t>(offset));
    case 9:
    case 20:
      return print_to(out, "%ui", record.value<std::uint32_t>(offset));
    case 10:
    case 11:
    case 21:
    case 22:
      return print_to(out, "%lui", record.value<std::uint64_t>(offset));
    case 12: {
      const auto value = record.value<float>(offset);
      return print_to(out, "%f", value ? std::optional<double>(*value) : std::nullopt);
    }
    case 13:
      return print_to(out, "%f", record.value<double>(offset));
    case 14:
      return print_to(out, "%di", record.value<std::int8_t>(offset));
    default:
      return false;
  }
}

// Adds the parts of a record, one by one.
bool influx_parts(const qvx_type_definition& type, Record& record, std::uint64_t base,
                  const std::string& prefix, std::vector<std::string>& parts) {
  for (const auto& field : type.fields) {
    if (field->type == nullptr) return false;
    const std::uint64_t offset = plus(base, field->offset);
    const std::string name = field->field_name.value_or("");
    const std::string key = prefix.empty() ? name : prefix + "." + name;
    if (field->array_length == 1 && field->type->id != 0) {
      std::string part = key + "=";
      if (!influx_value(field->type->id, record, offset, part)) return false;
      parts.push_back(part);
    } else if (field->array_length == 1) {
      if (!influx_parts(*field->type, record, offset, key, parts)) return false;
    } else if (is_text(*field)) {
      const std::optional<std::string> text = printable_text(*field, record, offset);
      if (!text) return false;
      parts.push_back(key + "=\"" + *text + "\"");
    } else {
      for (std::uint32_t k = 0; k < field->array_length; ++k) {
        const std::uint64_t element = plus(offset, times(k, field->type_size));
        if (!influx_parts(*field->type, record, element, key + print(".%d", static_cast<int>(k)), parts))
          return false;
      }
    }
  }
  return true;
}

std::optional<std::string> local_time(std::uint64_t microseconds) {
  const auto seconds = static_cast<std::time_t>(microseconds / 1000000);
  std::tm local{};
  if (localtime_r(&seconds, &local) == nullptr) return std::nullopt;
  return print("%04lld-%02d-%02d %02d:%02d:%02d.%03d", local.tm_year + 1900LL, local.tm_mon + 1,
               local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
               static_cast<int>(microseconds % 1000000 / 1000));
}

enum class CounterText { none, outside, made };

// Adds the counter's value to the object under its name, when it has one.
CounterText counter_value(const qvx_counter_info& counter, Record& block, json::Object& object) {
  const std::uint64_t offset = 16 + std::uint64_t{counter.offset};
  std::optional<json::Value> value;
  switch (counter.data_type) {
    case QVX_COUNTER_UINT64:
    case QVX_COUNTER_BIT64: {
      const auto stored = block.value<std::uint64_t>(offset);
      if (!stored) return CounterText::outside;
      value = number(stored);
      break;
    }
    case QVX_COUNTER_FP64: {
      const auto stored = block.value<double>(offset);
      if (!stored) return CounterText::outside;
      value = number(stored);
      break;
    }
    case QVX_COUNTER_STRING: {
      const std::byte* const from = block.at(counter.length > 0 ? offset : 0, counter.length);
      if (from == nullptr) return CounterText::outside;
      std::string text(reinterpret_cast<const char*>(from), counter.length);
      if (text.find('\0') != std::string::npos) text.resize(text.find('\0'));
      value = json::Value::string(text);
      break;
    }
    default: {
      const auto stored = block.value<std::int64_t>(offset);
      if (!stored) return CounterText::outside;
      value = number(stored);
      break;
    }
  }
  if (!value) return CounterText::none;
  object.set(counter.name.value_or(""), std::move(*value));
  return CounterText::made;
}

// Set one by one: a name that repeats keeps its place, and a counter without a value changes nothing.
std::optional<json::Value> counter_set(const qvx_counter_group& group, Record& block) {
  json::Object object;
  for (const auto& counter : group.counters)
    if (counter_value(*counter, block, object) == CounterText::outside) return std::nullopt;
  return json::Value(std::move(object));
}

const char* granularity_of(const qvx_counter_group& group) {
  const char* const names[] = {"NODE", "CPU", "PACKAGE"};
  return group.granularity < 3 ? names[group.granularity] : nullptr;
}

std::string cell(std::uint32_t data_type, Bytes values, std::uint64_t slot) {
  std::string bytes(8 * slot + 20 < values.size() ? values.size() : 8 * slot + 20, '\0');
  if (!values.empty()) std::memcpy(bytes.data(), values.data(), values.size());
  const char* const at = bytes.data() + 8 * slot;
  long long integer = 0;
  double real = 0;
  std::memcpy(&integer, at, 8);
  std::memcpy(&real, at, 8);
  switch (data_type) {
    case QVX_COUNTER_UINT64:
      return print(" %*llu(u) |", 20, static_cast<unsigned long long>(integer));
    case QVX_COUNTER_FP64:
      return print(" %*.3f |", 16, real);
    case QVX_COUNTER_BIT64:
      return print(" %*llX |", 20, static_cast<unsigned long long>(integer));
    case QVX_COUNTER_STRING:
      return print(" %*.*s |", 20, 20, at);
    default:
      return integer <= 999 ? print(" %*lld |", 20, integer) : print(" %*lld k |", 18, integer / 1000);
  }
}

}  // namespace

std::optional<json::Value> record_tree(const qvx_type_definition& type, Bytes at_hand) {
  Record record(at_hand);
  return is_too_much(type, at_hand) ? std::nullopt : object_value(type, record, 0);
}

std::optional<std::string> record_influx_text(const qvx_type_definition& type, Bytes at_hand) {
  Record record(at_hand);
  std::vector<std::string> parts;
  if (is_too_much(type, at_hand) || !influx_parts(type, record, 0, "", parts)) return std::nullopt;
  std::string text;
  for (const std::string& part : parts)
    text += (&part == parts.data() ? "" : ",") + part;
  return text;
}

std::optional<json::Value> counters_tree(const qvx_counters_schema& schema, Bytes block) {
  Record record(block);
  const auto timestamp = record.value<std::uint64_t>(8);
  if (!timestamp) return std::nullopt;
  json::Object object;
  object.set("timestamp", json::Value::integer(*timestamp));
  if (const auto text = local_time(*timestamp)) object.set("@timestamp", *json::Value::string(*text));
  json::Array groups;
  for (const auto& from : schema.groups) {
    json::Object group;
    if (granularity_of(*from) != nullptr)
      group.set("granularity", *json::Value::string(granularity_of(*from)));
    if (auto name = json::Value::string(from->name.value_or("unset"))) group.set("name", std::move(*name));
    json::Array sets;
    for (std::uint32_t set = 0; set < from->num_counter_sets; ++set) {
      std::optional<json::Value> value = counter_set(*from, record);
      if (!value) return std::nullopt;
      sets.push_back(std::move(*value));
    }
    group.set("counter_sets", json::Value(std::move(sets)));
    groups.emplace_back(std::move(group));
  }
  object.set("groups", json::Value(std::move(groups)));
  return json::Value(std::move(object));
}

std::string counters_tables_text(const qvx_counters_schema& schema, Bytes block) {
  std::uint64_t timestamp = 0;
  // Of a header that is cut short the missing bytes are zero.
  if (block.size() > 8) std::memcpy(&timestamp, block.data() + 8, std::min<std::size_t>(block.size() - 8, 8));
  const std::optional<std::string> time = local_time(timestamp);
  std::string text = time ? print("Data collected at %s\n", time->c_str())
                          : print("Data collected at %ld\n", static_cast<long>(timestamp));
  const Bytes values = block.size() > 16 ? block.subspan(16) : Bytes();
  for (const auto& group : schema.groups) {
    const char* const label = group->num_counter_sets != 0 ? granularity_of(*group) : nullptr;
    const std::size_t columns = group->counters.size();
    const auto label_width = static_cast<int>(label != nullptr ? std::strlen(label) : 0);
    const int width = 23 * static_cast<int>(columns) + 1 + (label != nullptr ? label_width + 3 : 0);
    const std::string rule = std::string(static_cast<std::size_t>(width), '-') + "\n";
    text += rule;
    text += print("| Counter values per %-*.*s |\n", width - 23, width - 23, label != nullptr ? label : "");
    text += rule;
    text += label != nullptr ? print("| %*s |", label_width, label) : "|";
    for (const auto& counter : group->counters)
      text += print(" %*s |", 20, counter->name.value_or("").c_str());
    text += "\n" + rule;
    for (std::uint32_t set = 0; set < group->num_counter_sets; ++set) {
      text += label != nullptr ? print("| %*d |", label_width, static_cast<int>(set)) : "|";
      for (std::size_t column = 0; column < columns; ++column)
        text += cell(group->counters[column]->data_type, values, column + columns * set);
      text += "\n";
    }
    text += rule;
  }
  return text;
}

}  // namespace qvx::test
