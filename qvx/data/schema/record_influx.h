// Event records as Influx field sets: key=value parts joined by commas, without measurement, tags or
// timestamp.
#pragma once

#include <optional>
#include <string>

#include "qvx/data/schema/schema.h"
#include "qvx/plan/record_plan.h"
#include "qvx/support/bytes.h"

namespace qvx {

// The plan that writes records of a resolved type as field sets, each followed by a line end. An array of
// numbers contributes no part. Nothing when a record of the type has no text.
[[nodiscard]] std::optional<RecordPlan> compile_influx_plan(const qvx_type_definition& type);

}  // namespace qvx

// The field set of one record that begins at the first of the bytes at hand, without a line end; nothing when
// it cannot be made. Compiles the type anew: for more than a few records keep a plan.
[[nodiscard]] std::optional<std::string> qvx_record_to_influx(const qvx_type_definition* type,
                                                              qvx::Bytes at_hand) noexcept;
