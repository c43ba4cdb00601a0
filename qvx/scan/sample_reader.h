// The batches of a metrics block, one after the other. Internal to the reader of typed records.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "qvx/metrics/block_tables.h"
#include "qvx/metrics/kept_tables.h"
#include "qvx/metrics/metrics_batch.h"
#include "qvx/scan/records.h"
#include "qvx/support/bytes.h"

namespace qvx {

// Faults are std::runtime_error, most with log lines before them; the batches ahead of a fault stand.
class SampleReader {
 public:
  // Reads the tables of the block, which begins at the first byte and ends, at the latest, with the last.
  void open(Bytes block);

  // Reads the next batch; false at the end. The block's bytes are still there.
  bool next();

  // Of the batch at hand, until the next call.
  const SampleBatch& batch() const { return batch_; }
  metrics::MetricSamples samples() const { return decoded_.samples; }
  std::uint64_t time() const { return decoded_.timestamp; }
  std::uint8_t value_type() const { return value_type_; }

 private:
  const std::byte* read_names(const std::byte* from, const std::byte* end);
  std::size_t read_labels(const std::byte* record, const metrics::MetricsRecordHeader& header);
  void make_labels();
  void keep_labels(Bytes made_of);
  void check_sample_ids() const;

  metrics::KeptTables tables_;
  bool tables_repeat_ = false;  // from the block before
  std::string names_text_;      // the table of metric names, as long as blocks repeat it
  metrics::StringTable names_;
  metrics::MetricsDataSection section_;
  std::size_t offset_ = 0;  // of the next record in the section
  metrics::MetricsBatch decoded_;
  metrics::LabelMap own_labels_;
  std::uint8_t value_type_ = 0;
  SampleBatch batch_;
  std::string labels_made_of_;  // the labels block of the batch's labels; empty when they are about to go
};

}  // namespace qvx
