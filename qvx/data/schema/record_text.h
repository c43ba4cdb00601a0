// What the JSON and the Influx form of a record share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "qvx/data/schema/builtin_types.h"
#include "qvx/data/schema/schema.h"
#include "qvx/plan/record_plan.h"

namespace qvx {

// Records nested deeper than this, or containing themselves, have no text.
inline constexpr std::size_t kMaxNesting = 500;

// An array of "char" or "unsigned char" is a string; a single one is a number.
inline bool is_character_array(const qvx_field_definition& field) {
  return field.array_length > 1 && (field.type->id == kCharTypeId || field.type->id == kUnsignedCharTypeId);
}

// The step that writes an integer with all its digits; `literal` for other classes.
StepKind integer_step(ValueClass value_class);

// In bytes; 0 for none.
std::uint32_t value_size(ValueClass value_class);

// The values of one record may take together at most 16 × the record's size + 1,024 bytes; an object without
// members counts for one byte. Otherwise fields that lie on top of each other would make a few bytes of
// records cost any amount of time. Gives the smallest size that allows for the values of the type; nothing
// when that is more than the type declares: such a type has no text in any form.
std::optional<std::uint64_t> size_allowing_for_values(const qvx_type_definition& type);

}  // namespace qvx
