// Counters blocks as JSON objects, through a record plan.
//
// A block is given with all bytes at hand from its magic on; the values area begins behind its 16-byte
// header.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "qvx/counters/counters_schema.h"
#include "qvx/plan/record_plan.h"
#include "qvx/support/bytes.h"
#include "qvx/support/json_text.h"

namespace qvx {

// The plan that writes counters blocks of the schema as JSON, each followed by `after`. All counter sets
// of a group are read from the same offsets, deliberately, so they show the same values. Counters without
// a JSON value are left out. Of counters of one name in a group the last that has a value is shown, at the
// place of the first that has one. Nothing when a block would have more than kMaxCounterValues values, or
// when names and texts of counters, shown again in each set, would add up to more than 256 MiB.
[[nodiscard]] std::optional<RecordPlan> compile_counters_plan(const qvx_counters_schema& schema,
                                                              json::Style style, std::string_view after);

}  // namespace qvx

// The JSON text of one block; nothing when it cannot be made. Compiles the schema anew: for more than a few
// blocks keep a plan.
[[nodiscard]] std::optional<std::string> qvx_counters_block_to_json(qvx::Bytes block,
                                                                    const qvx_counters_schema* schema,
                                                                    qvx::json::Style style) noexcept;
