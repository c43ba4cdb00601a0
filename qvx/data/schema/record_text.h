// What the JSON and the Influx form of a record share.
#pragma once

#include <cstddef>

#include "qvx/data/schema/builtin_types.h"
#include "qvx/data/schema/schema.h"

namespace qvx {

// Records nested deeper than this, or containing themselves, have no text.
inline constexpr std::size_t kMaxNesting = 500;

// An array of "char" or "unsigned char" is a string; a single one is a number.
inline bool is_character_array(const qvx_field_definition& field) {
  return field.array_length > 1 && (field.type->id == kCharTypeId || field.type->id == kUnsignedCharTypeId);
}

}  // namespace qvx
