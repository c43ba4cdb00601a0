#include "qvx/data/schema/record_influx.h"

#include <cstdint>
#include <exception>
#include <string_view>

#include "qvx/data/schema/builtin_types.h"
#include "qvx/data/schema/record_text.h"
#include "qvx/support/saturate.h"

namespace qvx {
namespace {

struct InfluxValue {
  StepKind kind = StepKind::literal;
  // Every integer has the signed suffix, the unsigned 64-bit ones included, deliberately.
  std::string_view suffix;
};

InfluxValue influx_value(const qvx_type_definition& type) {
  if (type.id == kBoolTypeId) return {StepKind::influx_bool, ""};
  const ValueClass value_class = builtin_value_class(type.id);
  switch (value_class) {
    case ValueClass::none:
      return {};
    case ValueClass::f32:
      return {StepKind::influx_f32, ""};
    case ValueClass::f64:
      return {StepKind::influx_f64, ""};
    default:
      return {integer_step(value_class), "i"};
  }
}

class InfluxCompiler {
 public:
  explicit InfluxCompiler(PlanBuilder& builder) : builder_(builder) {}

  // False when records of the type have no text. `base` is added to the offsets.
  bool parts(const qvx_type_definition& type, std::uint64_t base, std::size_t depth) {
    if (depth >= kMaxNesting || key_.size() > builder_.limits().literals || !builder_.visit()) return false;
    const std::size_t prefix = key_.size();
    for (const auto& field : type.fields) {
      if (prefix > 0) key_ += '.';
      if (field->field_name) key_ += *field->field_name;
      if (!part(*field, base, depth)) return false;
      key_.resize(prefix);
    }
    return true;
  }

 private:
  bool part(const qvx_field_definition& field, std::uint64_t base, std::size_t depth) {
    if (field.type == nullptr) return false;
    const std::uint64_t offset = saturating_add(base, field.offset);
    if (is_character_array(field)) {
      begin();
      builder_.text("\"");
      builder_.characters(StepKind::influx_characters, offset, field.array_length);
      builder_.text("\"");
      return true;
    }
    if (field.type->id == kCompositeTypeId) {
      if (field.array_length <= 1) return parts(*field.type, offset, depth + 1);
      const std::size_t name_end = key_.size();
      for (std::uint32_t k = 0; k < field.array_length; ++k) {
        key_ += '.';
        key_ += std::to_string(k);
        const std::uint64_t element = saturating_add(offset, saturating_multiply(k, field.type_size));
        if (!parts(*field.type, element, depth + 1)) return false;
        key_.resize(name_end);
      }
      return true;
    }
    // The elements of an array of numbers have no fields, so there is no part, deliberately.
    if (field.array_length > 1) return builder_.visit();
    const InfluxValue value = influx_value(*field.type);
    if (value.kind == StepKind::literal) return false;
    begin();
    builder_.value(value.kind, offset, static_cast<std::uint32_t>(builtin_type_size(field.type->id)));
    builder_.text(value.suffix);
    return true;
  }

  void begin() {
    if (!first_) builder_.text(",");
    first_ = false;
    builder_.text(key_, "=");
  }

  PlanBuilder& builder_;
  std::string key_;  // of the field at hand, its prefix included
  bool first_ = true;
};

std::optional<RecordPlan> compile(const qvx_type_definition& type, std::string_view after) {
  const std::optional<std::uint64_t> size = size_allowing_for_values(type);
  if (!size) return std::nullopt;
  PlanBuilder builder;
  builder.require(*size);
  if (!InfluxCompiler(builder).parts(type, 0, 0)) return std::nullopt;
  builder.text(after);
  return builder.finish();
}

}  // namespace

std::optional<RecordPlan> compile_influx_plan(const qvx_type_definition& type) {
  return compile(type, "\n");
}

}  // namespace qvx

std::optional<std::string> qvx_record_to_influx(const qvx_type_definition* type,
                                                qvx::Bytes at_hand) noexcept {
  if (type == nullptr) return std::nullopt;
  try {
    const std::optional<qvx::RecordPlan> plan = qvx::compile(*type, "");
    return plan ? plan->text(at_hand) : std::nullopt;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}
