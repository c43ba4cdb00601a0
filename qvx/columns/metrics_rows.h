// The samples of metrics blocks, one after the other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/metrics/block_tables.h"
#include "qvx/metrics/metrics_batch.h"
#include "qvx/support/bytes.h"

namespace qvx::columns {

// Goes through a metrics block batch by batch. Texts are views of the block, up to their first NUL, and not
// checked for UTF-8.
class MetricsRows {
 public:
  // Reads the tables of a block, which outlives its batches. Throws std::runtime_error for a fault in them.
  void open(Bytes block);

  // Goes on to the next batch; false behind the last one. Throws std::runtime_error for a fault in it, which
  // ends the block: what was handed out before is good.
  bool next();

  std::uint64_t timestamp() const { return batch_.timestamp; }
  bool is_counter() const { return header_.kind == metrics::MetricKind::counter; }
  metrics::MetricValueType value_type() const {
    return static_cast<metrics::MetricValueType>(header_.value_type);
  }
  const metrics::MetricSamples& samples() const { return batch_.samples; }
  std::string_view metric(std::size_t sample_id) const { return tables_.metric_names[sample_id]; }

  // Whether the batch names a set of labels that the block has.
  bool has_labels() const { return has_labels_; }
  // The constant labels, with the values that the batch gives to their names, then the batch's others.
  const metrics::LabelMap& labels() const { return labels_; }

 private:
  metrics::MetricsBlockTables tables_;
  metrics::MetricsDataSection section_;
  std::size_t offset_ = 0;  // of the next record in the data area
  metrics::MetricsRecordHeader header_;
  metrics::MetricsBatch batch_;
  metrics::LabelMap labels_;
  bool has_labels_ = false;
};

}  // namespace qvx::columns
