// Decoded metrics as a JSON document, for those who want to go on with it. The program writes the same as
// text without a document, see metrics_output.h.
#pragma once

#include <optional>
#include <span>

#include "qvx/metrics/block_tables.h"
#include "qvx/metrics/metrics_batch.h"
#include "qvx/support/json_value.h"

namespace qvx::metrics {

// One object of all batches: a later batch's members take the place of an earlier one's. It owns its texts.
// Nothing, after a log line, when a label value is not valid UTF-8, a reference or a sample has no text, or
// memory is short.
[[nodiscard]] std::optional<json::Value> metrics_to_json(const LabelNameSets& label_name_sets,
                                                         const StringTable& label_values,
                                                         const LabelMap& constant_labels,
                                                         const StringTable& metric_names,
                                                         std::span<const MetricsBatch> batches) noexcept;

}  // namespace qvx::metrics
