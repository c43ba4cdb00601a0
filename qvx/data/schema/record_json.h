// Event records as JSON objects.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "qvx/data/schema/schema.h"
#include "qvx/plan/record_plan.h"
#include "qvx/support/bytes.h"
#include "qvx/support/json_text.h"
#include "qvx/support/json_value.h"

namespace qvx {

// The plan that writes records of a resolved type as JSON, each followed by `after`. Nothing when a record of
// the type has no JSON text: a field of unknown type, a type that contains itself or is nested too deeply,
// or values that take more than 16 × the type's size + 1,024 bytes.
[[nodiscard]] std::optional<RecordPlan> compile_json_plan(const qvx_type_definition& type, json::Style style,
                                                          std::string_view after);

}  // namespace qvx

// The JSON value of one field of the record that begins at the first of the bytes at hand; of a value of a
// built-in type, a number. Nothing when it has none; a string that cannot be made is logged.
[[nodiscard]] std::optional<qvx::json::Value> qvx_field_to_json(const qvx_field_definition* field,
                                                                qvx::Bytes at_hand) noexcept;
[[nodiscard]] std::optional<qvx::json::Value> qvx_builtin_to_json(std::uint32_t id,
                                                                  qvx::Bytes at_hand) noexcept;

// The JSON text of one record that begins at the first of the bytes at hand; nothing when it cannot be made.
// Compiles the type anew: for more than a few records keep a plan.
[[nodiscard]] std::optional<std::string> qvx_record_to_json(const qvx_type_definition* type,
                                                            qvx::Bytes at_hand,
                                                            qvx::json::Style style) noexcept;
