#include "qvx/data/schema/record_text.h"

#include <algorithm>
#include <limits>
#include <unordered_map>

#include "qvx/support/saturate.h"

namespace qvx {
namespace {

constexpr std::uint64_t kEndless = std::numeric_limits<std::uint64_t>::max();

class Work {
 public:
  // The bytes of all values of one record; endless when the type is nested too deeply or contains itself.
  std::uint64_t of(const qvx_type_definition& type, std::size_t depth) {
    if (depth >= kMaxNesting) return kEndless;
    if (type.fields.empty()) return 1;
    if (const auto known = known_.find(&type); known != known_.end()) return known->second;
    std::uint64_t work = 0;
    for (const auto& field : type.fields) {
      if (field->type == nullptr) continue;
      const std::uint64_t element = field->type->id == kCompositeTypeId ? of(*field->type, depth + 1)
                                                                        : builtin_type_size(field->type->id);
      work = saturating_add(work, saturating_multiply(std::max(field->array_length, 1U), element));
      if (work == kEndless) return work;
    }
    known_.emplace(&type, work);
    return work;
  }

 private:
  // Once per type: types that hold the one before twice would otherwise take a visit for each of 2^n places.
  std::unordered_map<const qvx_type_definition*, std::uint64_t> known_;
};

}  // namespace

StepKind integer_step(ValueClass value_class) {
  switch (value_class) {
    case ValueClass::u8:
      return StepKind::u8;
    case ValueClass::i8:
      return StepKind::i8;
    case ValueClass::u16:
      return StepKind::u16;
    case ValueClass::i16:
      return StepKind::i16;
    case ValueClass::u32:
      return StepKind::u32;
    case ValueClass::i32:
      return StepKind::i32;
    case ValueClass::u64:
      return StepKind::u64;
    case ValueClass::i64:
      return StepKind::i64;
    case ValueClass::f32:
    case ValueClass::f64:
    case ValueClass::none:
      break;
  }
  return StepKind::literal;
}

std::uint32_t value_size(ValueClass value_class) {
  switch (value_class) {
    case ValueClass::u8:
    case ValueClass::i8:
      return 1;
    case ValueClass::u16:
    case ValueClass::i16:
      return 2;
    case ValueClass::u32:
    case ValueClass::i32:
    case ValueClass::f32:
      return 4;
    case ValueClass::u64:
    case ValueClass::i64:
    case ValueClass::f64:
      return 8;
    case ValueClass::none:
      break;
  }
  return 0;
}

std::optional<std::uint64_t> size_allowing_for_values(const qvx_type_definition& type) {
  const std::uint64_t work = Work().of(type, 0);
  if (work == kEndless) return std::nullopt;
  const std::uint64_t size = work <= 1024 ? 0 : (work - 1024 + 15) / 16;
  return size <= type.size ? std::optional(size) : std::nullopt;
}

}  // namespace qvx
