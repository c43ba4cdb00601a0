#include "qvx/data/schema/influx_lines.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <tuple>
#include <utility>

#include "qvx/data/block.h"
#include "qvx/data/schema/builtin_types.h"
#include "qvx/data/schema/record_text.h"
#include "qvx/support/json_text.h"
#include "qvx/support/saturate.h"

namespace qvx {
namespace {

enum class Escaped { measurement, key };

// A name as it stands in a line. Control characters and a backslash at the end, which nothing escapes, become
// "_", and so does a "#" that would make the line a comment. Empty for a name that is not UTF-8.
std::string line_name(std::string_view name, Escaped kind) {
  std::string text;
  if (!json::is_valid_utf8(name)) return text;
  for (const char c : name) {
    if (c == ' ' || c == ',' || (c == '=' && kind == Escaped::key)) text += '\\';
    const bool is_control = static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
    text += is_control || (c == '#' && kind == Escaped::measurement && text.empty()) ? '_' : c;
  }
  if (!text.empty() && text.back() == '\\') text.back() = '_';
  return text;
}

// One line on its way into a plan: tags first, then fields.
class LineBuilder {
 public:
  explicit LineBuilder(PlanBuilder& builder) : builder_(builder) {}

  void measurement(std::string_view name) { builder_.text(line_name(name, Escaped::measurement)); }

  // A tag whose value is known.
  void tag(std::string_view key, std::string_view value) {
    const std::string text = line_name(value, Escaped::key);
    if (!text.empty()) builder_.text(",", line_name(key, Escaped::key), "=", text);
  }

  void number_tag(std::string_view key, ValueClass value_class, bool is_bool, std::uint64_t offset) {
    const StepKind kind = is_bool ? StepKind::influx_bool : integer_step(value_class);
    if (kind == StepKind::literal) end_certain_text();
    begin(key);
    builder_.value(kind == StepKind::literal ? float_kind(value_class) : kind, offset,
                   value_size(value_class));
  }

  void text_tag(std::string_view key, std::uint64_t offset, std::uint32_t length) {
    end_certain_text();
    begin(key);
    builder_.characters(StepKind::optional_tag, offset, length);
  }

  void begin_fields() {
    builder_.text(" ");
    builder_.structure(StepKind::object_open);
  }

  void field(std::string_view key, ValueClass value_class, bool is_bool, std::uint64_t offset) {
    begin(key);
    const StepKind integer = integer_step(value_class);
    if (value_class == ValueClass::u64) {
      builder_.value(StepKind::optional_influx_u64, offset, value_size(value_class));
    } else if (integer == StepKind::literal) {
      builder_.value(float_kind(value_class), offset, value_size(value_class));
    } else {
      builder_.structure(StepKind::member);
      builder_.value(is_bool ? StepKind::influx_bool : integer, offset, value_size(value_class));
      if (is_bool) return;
      builder_.text("i");
      builder_.structure(StepKind::literal);
    }
  }

  // Characters up to the first that is not printable.
  void characters_field(std::string_view key, std::uint64_t offset, std::uint32_t length) {
    begin(key);
    builder_.text("\"");
    builder_.structure(StepKind::member);
    builder_.characters(StepKind::json_characters, offset, length);
    builder_.text("\"");
    builder_.structure(StepKind::literal);
  }

  // Bytes up to the first NUL, left out unless they are UTF-8.
  void text_field(std::string_view key, std::uint64_t offset, std::uint32_t length) {
    begin(key);
    builder_.characters(StepKind::optional_influx_text, offset, length);
  }

  std::optional<RecordPlan> finish() {
    builder_.text(" ");
    builder_.structure(StepKind::need_member);
    return builder_.finish();
  }

  static bool is_number(ValueClass value_class) { return value_class != ValueClass::none; }

 private:
  // What is left out with a value is the text before it, so that must be its key alone.
  void end_certain_text() { builder_.structure(StepKind::literal); }

  void begin(std::string_view key) { builder_.text(",", key, "="); }

  static StepKind float_kind(ValueClass value_class) {
    return value_class == ValueClass::f32 ? StepKind::optional_influx_f32 : StepKind::optional_influx_f64;
  }

  PlanBuilder& builder_;
};

class EventLine {
 public:
  explicit EventLine(PlanBuilder& builder) : builder_(builder), line_(builder) {}

  // False when records of the type have no text.
  bool compile(const qvx_type_definition& type) {
    if (line_name(type.name, Escaped::measurement).empty()) return false;
    line_.measurement(type.name);
    std::vector<const qvx_field_definition*> tags;
    for (const auto& field : type.fields) {
      if (field->type == nullptr) return false;
      if (is_tag(*field)) tags.push_back(field.get());
    }
    std::stable_sort(tags.begin(), tags.end(),
                     [](const auto* a, const auto* b) { return a->index < b->index; });
    for (const qvx_field_definition* const field : tags)
      add_tag(*field);
    line_.begin_fields();
    return fields(type, 0, 0);
  }

 private:
  static bool is_tag(const qvx_field_definition& field) {
    if (field.index == 0 || field.type->id == kCompositeTypeId) return false;
    return field.array_length <= 1 || is_character_array(field);
  }

  void add_tag(const qvx_field_definition& field) {
    const std::string key = line_name(field.field_name ? *field.field_name : "", Escaped::key);
    if (key.empty()) return;
    if (is_character_array(field)) {
      line_.text_tag(key, field.offset, field.array_length);
    } else {
      line_.number_tag(key, builtin_value_class(field.type->id), field.type->id == kBoolTypeId, field.offset);
    }
  }

  bool fields(const qvx_type_definition& type, std::uint64_t base, std::size_t depth) {
    if (depth >= kMaxNesting || key_.size() > builder_.limits().literals || !builder_.visit()) return false;
    const std::size_t prefix = key_.size();
    for (const auto& field : type.fields) {
      if (field->type == nullptr) return false;
      if (depth == 0 && is_tag(*field)) continue;
      const std::string name = line_name(field->field_name ? *field->field_name : "", Escaped::key);
      if (name.empty()) continue;
      if (prefix > 0) key_ += '.';
      key_ += name;
      if (!add_field(*field, saturating_add(base, field->offset), depth)) return false;
      key_.resize(prefix);
    }
    return true;
  }

  bool add_field(const qvx_field_definition& field, std::uint64_t offset, std::size_t depth) {
    if (is_character_array(field)) {
      line_.characters_field(key_, offset, field.array_length);
      return true;
    }
    if (field.type->id == kCompositeTypeId) {
      if (field.array_length <= 1) return fields(*field.type, offset, depth + 1);
      const std::size_t name_end = key_.size();
      for (std::uint32_t k = 0; k < field.array_length; ++k) {
        key_ += '.';
        key_ += std::to_string(k);
        if (!fields(*field.type, saturating_add(offset, saturating_multiply(k, field.type_size)), depth + 1))
          return false;
        key_.resize(name_end);
      }
      return true;
    }
    // Arrays of numbers have no part, as in the field sets of single records.
    if (field.array_length > 1) return builder_.visit();
    const ValueClass value_class = builtin_value_class(field.type->id);
    if (!LineBuilder::is_number(value_class)) return false;
    line_.field(key_, value_class, field.type->id == kBoolTypeId, offset);
    return true;
  }

  PlanBuilder& builder_;
  LineBuilder line_;
  std::string key_;  // of the field at hand, its prefix included
};

std::string_view text_of(std::string_view padded) {
  return padded.substr(0, padded.find('\0'));
}

template <std::size_t kSize>
std::string_view text_of(const std::array<char, kSize>& padded) {
  return text_of(std::string_view(padded.data(), padded.size()));
}

std::string guid_text(const std::array<char, kGuidSize>& guid) {
  const std::string_view digits = text_of(guid);
  return digits.empty() ? std::string() : "0x" + std::string(digits);
}

// The place of a counters line among those of its block. Port 0 is the adapter itself.
struct LineKey {
  std::size_t measurement = kNodeCounters;
  std::size_t adapter = 0;
  int port = 0;
  bool has_set = false;

  friend auto operator<=>(const LineKey&, const LineKey&) = default;
};

struct LineField {
  std::string key;
  const qvx_counter_info* counter;
};

class CountersLines {
 public:
  CountersLines(std::span<const qvx_adapter_info> adapters, const InfluxMeasurements& measurements)
      : adapters_(adapters), measurements_(measurements) {
    std::size_t known = 0;
    while (known < adapters_.size() && !text_of(adapters_[known].name).empty())
      ++known;
    adapters_ = adapters_.first(known);
  }

  std::vector<RecordPlan> compile(const qvx_counters_schema& schema) {
    for (const auto& group : schema.groups) {
      if (group->num_counter_sets == 0) continue;
      for (const auto& counter : group->counters)
        if (counter != nullptr && counter->name) place(*group, *counter);
    }
    std::vector<RecordPlan> plans;
    for (const auto& [key, fields] : lines_)
      if (std::optional<RecordPlan> plan = line(key, fields)) plans.push_back(std::move(*plan));
    return plans;
  }

 private:
  static constexpr std::uint32_t kCpuGranularity = 1;

  static bool is_separator(char c) {
    return !((c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'));
  }

  void place(const qvx_counter_group& group, const qvx_counter_info& counter) {
    LineKey line;
    std::string_view name = *counter.name;
    if (!name.starts_with("hcx") || !belongs_to_an_adapter(name, line)) {
      line.measurement = group.granularity == kCpuGranularity ? kCpuCounters : kNodeCounters;
      line.has_set = line.measurement == kNodeCounters && group.num_counter_sets > 1;
      if (name.starts_with("hcx")) line = LineKey();
      name = *counter.name;
    }
    const std::string key = line_name(name, Escaped::key);
    if (!key.empty()) lines_[line].push_back({key, &counter});
  }

  // Cuts adapter, separator and marker from the name.
  bool belongs_to_an_adapter(std::string_view& name, LineKey& line) const {
    std::size_t longest = 0;
    for (std::size_t index = 0; index < adapters_.size(); ++index) {
      const std::string_view adapter = text_of(adapters_[index].name);
      if (adapter.size() <= longest || !name.starts_with(adapter)) continue;
      if (name.size() == adapter.size() || !is_separator(name[adapter.size()])) continue;
      longest = adapter.size();
      line.adapter = index;
    }
    if (longest == 0) return false;
    name.remove_prefix(longest);
    line.port = name.starts_with(":1:") ? 1 : name.starts_with(":2:") ? 2 : 0;
    line.measurement = line.port == 0 ? kHcaCounters : kHcaPortCounters;
    name.remove_prefix(line.port == 0 ? 1 : 3);
    return !name.empty();
  }

  std::string tag_value(std::string_view key, const LineKey& line) const {
    const qvx_adapter_info* const adapter =
        line.adapter < adapters_.size() ? &adapters_[line.adapter] : nullptr;
    if (key == "cpu_num") return "0";
    if (key == "port_num") return std::to_string(line.port);
    if (adapter == nullptr) return {};
    if (key == "hca_name") return std::string(text_of(adapter->name));
    if (key == "node_guid") return guid_text(adapter->node_guid);
    if (key == "system_image_guid") return guid_text(adapter->system_image_guid);
    return guid_text(line.port == 1 ? adapter->port_1_guid : adapter->port_2_guid);
  }

  std::optional<RecordPlan> line(const LineKey& key, const std::vector<LineField>& fields) const {
    // A server keeps one field of a name: the last one here, as in the JSON of counters.
    std::map<std::string_view, const qvx_counter_info*> last;
    for (const LineField& field : fields)
      last[field.key] = field.counter;
    PlanBuilder builder({.steps = 4 * kMaxCounterValues, .literals = std::size_t{1} << 30});
    LineBuilder line(builder);
    const InfluxMeasurement& measurement = measurements_[key.measurement];
    line.measurement(measurement.name);
    for (const char* const tag : measurement.tag_keys)
      line.tag(tag, tag_value(tag, key));
    if (key.has_set) line.tag("set", "0");
    line.begin_fields();
    for (const LineField& field : fields)
      if (last[field.key] == field.counter) add_field(line, field);
    return line.finish();
  }

  static void add_field(LineBuilder& line, const LineField& field) {
    const qvx_counter_info& counter = *field.counter;
    const std::uint64_t offset = std::uint64_t{kCountersHeaderSize} + counter.offset;
    switch (counter.data_type) {
      case QVX_COUNTER_UINT64:
      case QVX_COUNTER_BIT64:
        return line.field(field.key, ValueClass::u64, false, offset);
      case QVX_COUNTER_FP64:
        return line.field(field.key, ValueClass::f64, false, offset);
      case QVX_COUNTER_STRING:
        return line.text_field(field.key, offset, counter.length);
      default:
        return line.field(field.key, ValueClass::i64, false, offset);
    }
  }

  std::span<const qvx_adapter_info> adapters_;
  const InfluxMeasurements& measurements_;
  std::map<LineKey, std::vector<LineField>> lines_;
};

}  // namespace

std::optional<RecordPlan> compile_influx_line(const qvx_type_definition& type) {
  const std::optional<std::uint64_t> size = size_allowing_for_values(type);
  if (!size) return std::nullopt;
  PlanBuilder builder;
  builder.require(*size);
  if (!EventLine(builder).compile(type)) return std::nullopt;
  return LineBuilder(builder).finish();
}

std::vector<RecordPlan> compile_influx_counters_lines(const qvx_counters_schema& schema,
                                                      std::span<const qvx_adapter_info> adapters,
                                                      const InfluxMeasurements& measurements) {
  return CountersLines(adapters, measurements).compile(schema);
}

}  // namespace qvx
