#include "qvx/data/schema/record_json.h"

#include <cstdint>
#include <exception>
#include <map>
#include <memory>
#include <new>
#include <unordered_map>
#include <utility>
#include <vector>

#include "qvx/data/schema/builtin_types.h"
#include "qvx/data/schema/record_text.h"
#include "qvx/plan/json_spelling.h"
#include "qvx/support/bytes.h"
#include "qvx/support/json_parse.h"
#include "qvx/support/log.h"
#include "qvx/support/saturate.h"

namespace qvx {

namespace {

// JSON numbers are doubles, so only integers of up to 32 bits have all their digits.
StepKind json_kind(ValueClass value_class) {
  switch (value_class) {
    case ValueClass::u64:
      return StepKind::json_u64;
    case ValueClass::i64:
      return StepKind::json_i64;
    case ValueClass::f32:
      return StepKind::json_f32;
    case ValueClass::f64:
      return StepKind::json_f64;
    default:
      return integer_step(value_class);
  }
}

// The step that fails a record for a value without a JSON number but writes nothing.
StepKind check_kind(StepKind kind) {
  switch (kind) {
    case StepKind::json_f32:
      return StepKind::check_f32;
    case StepKind::json_f64:
      return StepKind::check_f64;
    default:
      return StepKind::literal;
  }
}

class JsonCompiler {
 public:
  JsonCompiler(PlanBuilder& builder, json::Style style) : builder_(builder), spelling_(style) {}

  // False when records of the type have no JSON text. `base` is added to the offsets.
  bool object(const qvx_type_definition& type, std::uint64_t base, std::size_t depth) {
    if (depth >= kMaxNesting) return false;
    if (!builder_.visit()) return false;
    builder_.text("{");
    const Members& members = members_of(type);
    // The values that a repeated name hides must have a text all the same.
    for (const qvx_field_definition* const field : members.hidden)
      if (!value(*field, base, depth + 1, true)) return false;
    for (const qvx_field_definition* const field : members.shown) {
      builder_.text(spelling_.item(field == members.shown.front(), depth + 1),
                    spelling_.key(name_of(*field)));
      if (!value(*field, base, depth + 1, false)) return false;
    }
    if (!type.fields.empty()) builder_.text(spelling_.line(depth));
    builder_.text("}");
    return true;
  }

 private:
  // A name that repeats stands at its first place with its last value.
  struct Members {
    std::vector<const qvx_field_definition*> shown;
    std::vector<const qvx_field_definition*> hidden;
  };

  static std::string_view name_of(const qvx_field_definition& field) {
    return field.field_name ? std::string_view(*field.field_name) : std::string_view();
  }

  // Worked out once per type, not at each of its places: wide types may be nested deeply.
  const Members& members_of(const qvx_type_definition& type) {
    const auto [cached, is_new] = members_.try_emplace(&type);
    Members& members = cached->second;
    if (!is_new) return members;
    std::map<std::string_view, std::size_t> places;
    for (const auto& field : type.fields) {
      const auto [place, is_first] = places.try_emplace(name_of(*field), members.shown.size());
      if (is_first) {
        members.shown.push_back(field.get());
      } else {
        members.hidden.push_back(std::exchange(members.shown[place->second], field.get()));
      }
    }
    return members;
  }

  bool value(const qvx_field_definition& field, std::uint64_t base, std::size_t depth, bool hidden) {
    if (field.type == nullptr) return false;
    const std::uint64_t offset = saturating_add(base, field.offset);
    if (is_character_array(field)) {
      if (hidden) {
        builder_.array(StepKind::literal, offset, field.array_length, 1, 1, "");
        return true;
      }
      builder_.text("\"");
      builder_.characters(StepKind::json_characters, offset, field.array_length);
      builder_.text("\"");
      return true;
    }
    if (field.type->id == kCompositeTypeId) return records(field, offset, depth, hidden);
    const StepKind kind = json_kind(builtin_value_class(field.type->id));
    if (kind == StepKind::literal) return false;
    const auto size = static_cast<std::uint32_t>(builtin_type_size(field.type->id));
    const StepKind shown_kind = hidden ? check_kind(kind) : kind;
    if (field.array_length <= 1) {
      builder_.value(shown_kind, offset, size);
      return true;
    }
    if (hidden) {
      builder_.array(shown_kind, offset, field.array_length, field.type_size, size, "");
      return true;
    }
    builder_.text("[", spelling_.line(depth + 1));
    builder_.array(kind, offset, field.array_length, field.type_size, size, spelling_.item(false, depth + 1));
    builder_.text(spelling_.line(depth), "]");
    return true;
  }

  bool records(const qvx_field_definition& field, std::uint64_t offset, std::size_t depth, bool hidden) {
    if (field.array_length <= 1)
      return hidden ? hidden_object(*field.type, offset, depth) : object(*field.type, offset, depth);
    if (hidden) {
      builder_.open_loop(offset, field.array_length, field.type_size, "");
      if (!hidden_object(*field.type, 0, depth + 1)) return false;
      builder_.close_loop();
      return true;
    }
    builder_.text("[", spelling_.line(depth + 1));
    builder_.open_loop(offset, field.array_length, field.type_size, spelling_.item(false, depth + 1));
    if (!object(*field.type, 0, depth + 1)) return false;
    builder_.close_loop();
    builder_.text(spelling_.line(depth), "]");
    return true;
  }

  bool hidden_object(const qvx_type_definition& type, std::uint64_t base, std::size_t depth) {
    if (depth >= kMaxNesting || !builder_.visit()) return false;
    for (const auto& field : type.fields)
      if (!value(*field, base, depth + 1, true)) return false;
    return true;
  }

  PlanBuilder& builder_;
  JsonSpelling spelling_;
  std::unordered_map<const qvx_type_definition*, Members> members_;
};

}  // namespace

std::optional<RecordPlan> compile_json_plan(const qvx_type_definition& type, json::Style style,
                                            std::string_view after) {
  const std::optional<std::uint64_t> size = size_allowing_for_values(type);
  if (!size) return std::nullopt;
  PlanBuilder builder;
  builder.require(*size);
  if (!JsonCompiler(builder, style).object(type, 0, 0)) return std::nullopt;
  builder.text(after);
  return builder.finish();
}

}  // namespace qvx

std::optional<qvx::json::Value> qvx_field_to_json(const qvx_field_definition* field,
                                                  qvx::Bytes at_hand) noexcept {
  if (field == nullptr || field->type == nullptr) return std::nullopt;
  std::optional<qvx::json::Value> value;
  try {
    // A record of this field alone, so that its limits and its text are those of every record.
    qvx_type_definition type;
    type.size = at_hand.size();
    type.fields.push_back(std::make_unique<qvx_field_definition>(*field));
    const std::optional<std::string> text = qvx_record_to_json(&type, at_hand, qvx::json::Style::compact);
    std::optional<qvx::json::Value> record = text ? qvx::json::parse(*text) : std::nullopt;
    if (record) value = record->as_object()->members().front().value;
  } catch (const std::bad_alloc&) {
    value.reset();
  }
  if (!value && qvx::is_character_array(*field)) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to serialize field %s of type %s[%u] as string",
            field->field_name ? field->field_name->c_str() : "", field->type->name.c_str(),
            field->array_length);
  }
  return value;
}

std::optional<qvx::json::Value> qvx_builtin_to_json(std::uint32_t id, qvx::Bytes at_hand) noexcept {
  using qvx::load_le;
  const std::size_t size = qvx::builtin_type_size(id);
  if (size == 0 || at_hand.size() < size) return std::nullopt;
  const std::byte* const from = at_hand.data();
  switch (qvx::builtin_value_class(id)) {
    case qvx::ValueClass::u8:
      return qvx::json::Value::integer(load_le<std::uint8_t>(from));
    case qvx::ValueClass::i8:
      return qvx::json::Value::integer(load_le<std::int8_t>(from));
    case qvx::ValueClass::u16:
      return qvx::json::Value::integer(load_le<std::uint16_t>(from));
    case qvx::ValueClass::i16:
      return qvx::json::Value::integer(load_le<std::int16_t>(from));
    case qvx::ValueClass::u32:
      return qvx::json::Value::integer(load_le<std::uint32_t>(from));
    case qvx::ValueClass::i32:
      return qvx::json::Value::integer(load_le<std::int32_t>(from));
    case qvx::ValueClass::u64:
      return qvx::json::Value::integer(load_le<std::uint64_t>(from));
    case qvx::ValueClass::i64:
      return qvx::json::Value::integer(load_le<std::int64_t>(from));
    case qvx::ValueClass::f32:
      return qvx::json::Value::number(double{load_le<float>(from)});
    case qvx::ValueClass::f64:
      return qvx::json::Value::number(load_le<double>(from));
    case qvx::ValueClass::none:
      break;
  }
  return std::nullopt;
}

std::optional<std::string> qvx_record_to_json(const qvx_type_definition* type, qvx::Bytes at_hand,
                                              qvx::json::Style style) noexcept {
  if (type == nullptr) return std::nullopt;
  try {
    const std::optional<qvx::RecordPlan> plan = qvx::compile_json_plan(*type, style, "");
    return plan ? plan->text(at_hand) : std::nullopt;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}
