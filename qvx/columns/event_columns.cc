#include "qvx/columns/event_columns.h"

#include <algorithm>
#include <map>
#include <new>
#include <string_view>
#include <utility>

#include "qvx/data/schema/builtin_types.h"
#include "qvx/data/schema/record_text.h"
#include "qvx/support/saturate.h"

namespace qvx::columns {
namespace {

// Libraries that take columns refuse deeper ones.
constexpr std::size_t kMostNested = 60;
constexpr std::size_t kMostColumns = std::size_t{1} << 16;
constexpr std::uint32_t kTimestampTypeId = 22;

ColumnKind kind_of(std::uint32_t type_id) {
  if (type_id == kBoolTypeId) return ColumnKind::boolean;
  if (type_id == kTimestampTypeId) return ColumnKind::timestamp;
  switch (builtin_value_class(type_id)) {
    case ValueClass::i8:
      return ColumnKind::i8;
    case ValueClass::u16:
      return ColumnKind::u16;
    case ValueClass::i16:
      return ColumnKind::i16;
    case ValueClass::u32:
      return ColumnKind::u32;
    case ValueClass::i32:
      return ColumnKind::i32;
    case ValueClass::u64:
      return ColumnKind::u64;
    case ValueClass::i64:
      return ColumnKind::i64;
    case ValueClass::f32:
      return ColumnKind::f32;
    case ValueClass::f64:
      return ColumnKind::f64;
    case ValueClass::u8:
    case ValueClass::none:
      break;
  }
  return ColumnKind::u8;
}

class Compiler {
 public:
  explicit Compiler(const std::string& schema_id) : schema_id_(schema_id) {}

  // Adds the columns of the fields that are shown: of a name that repeats the last, at the place of the
  // first.
  bool fields(const qvx_type_definition& type, std::uint64_t base, std::size_t depth,
              std::vector<ColumnType>& types, std::vector<ColumnPlan>& plans) {
    if (depth > kMostNested) return fail("it is nested too deeply");
    std::vector<const qvx_field_definition*> shown;
    std::map<std::string_view, std::size_t> places;
    for (const auto& field : type.fields) {
      const auto [place, is_first] = places.try_emplace(name_of(*field), shown.size());
      if (is_first) {
        shown.push_back(field.get());
      } else {
        shown[place->second] = field.get();
      }
    }
    for (const qvx_field_definition* const field : shown) {
      types.emplace_back();
      plans.emplace_back();
      if (!one_field(*field, base, depth, types.back(), plans.back())) return false;
    }
    return true;
  }

  std::uint64_t reach() const { return reach_; }
  const std::string& why_not() const { return why_not_; }
  bool fail(const char* why) {
    why_not_ = why;
    return false;
  }

 private:
  static std::string_view name_of(const qvx_field_definition& field) {
    return field.field_name ? std::string_view(*field.field_name) : std::string_view();
  }

  // `base` counts from the start of the record to that of the enclosing record, or round of a list.
  bool one_field(const qvx_field_definition& field, std::uint64_t base, std::size_t depth, ColumnType& type,
                 ColumnPlan& plan) {
    if (++columns_ > kMostColumns) return fail("it has too many fields");
    if (field.type == nullptr) return fail("a field has no type");
    type.name = utf8_text(name_of(field));
    describe(field, type);
    plan.offset = field.offset;
    const std::uint64_t at = saturating_add(base, field.offset);
    if (is_character_array(field)) {
      type.kind = plan.kind = ColumnKind::text;
      type.count = plan.count = field.array_length;
      touch(at, field.array_length);
      return true;
    }
    if (field.array_length <= 1) return one_value(field, at, depth, type, plan);
    type.kind = plan.kind = ColumnKind::list;
    type.count = plan.count = field.array_length;
    plan.stride = field.type_size;
    type.children.emplace_back().name = "item";
    plan.children.emplace_back();
    // The last round reaches furthest.
    const std::uint64_t last =
        saturating_add(at, saturating_multiply(field.type_size, field.array_length - 1));
    return one_value(field, last, depth + 1, type.children[0], plan.children[0]);
  }

  bool one_value(const qvx_field_definition& field, std::uint64_t at, std::size_t depth, ColumnType& type,
                 ColumnPlan& plan) {
    if (field.type->id == kCompositeTypeId) {
      type.kind = plan.kind = ColumnKind::record;
      return fields(*field.type, at, depth + 1, type.children, plan.children);
    }
    type.kind = plan.kind = kind_of(field.type->id);
    if (builtin_type_size(field.type->id) == 0) return fail("a field has no type");
    touch(at, builtin_type_size(field.type->id));
    return true;
  }

  void touch(std::uint64_t at, std::uint64_t size) { reach_ = std::max(reach_, saturating_add(at, size)); }

  void describe(const qvx_field_definition& field, ColumnType& type) const {
    if (field.description && !field.description->empty())
      type.metadata.emplace_back("description", utf8_text(*field.description));
    if (field.type_name) type.metadata.emplace_back("type", utf8_text(*field.type_name));
    if (const char* const mode = counting_mode_name(field.counting_mode))
      type.metadata.emplace_back("counting_mode", mode);
    if (!schema_id_.empty()) type.metadata.emplace_back("schema", schema_id_);
  }

  const std::string& schema_id_;
  std::uint64_t reach_ = 0;
  std::size_t columns_ = 0;
  std::string why_not_;
};

}  // namespace

std::optional<EventColumns> compile_event_columns(const qvx_type_definition& type,
                                                  const std::string& schema_id, std::string& why_not) {
  EventColumns columns;
  Compiler compiler(schema_id);
  bool ok = compiler.fields(type, 0, 0, columns.types, columns.plans);
  if (ok && !size_allowing_for_values(type))
    ok = compiler.fail("its values take far more bytes than a record has");
  if (!ok) {
    why_not = compiler.why_not();
    return std::nullopt;
  }
  columns.reach = compiler.reach();
  const auto time = std::find_if(columns.plans.begin(), columns.plans.end(),
                                 [](const ColumnPlan& plan) { return plan.kind == ColumnKind::timestamp; });
  if (time != columns.plans.end()) columns.time_offset = time->offset;
  return columns;
}

std::string id_text(const qvx_schema_id& id) {
  std::optional<std::string> text = schema_id_text(id);
  if (!text) throw std::bad_alloc();
  return std::move(*text);
}

}  // namespace qvx::columns
