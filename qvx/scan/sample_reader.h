// The batches of a metrics block, one after the other. Internal to the library.
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

// Samples of metrics that the block does not name.
enum class UnknownMetrics {
  given,  // like others, and logged
  fault,  // "invalid metric id"
};

// Faults are std::runtime_error, most with log lines before them; the batches ahead of a fault stand.
class SampleReader {
 public:
  explicit SampleReader(UnknownMetrics unknown = UnknownMetrics::given) : unknown_(unknown) {}

  // Reads the tables of the block, which begins at the first byte and ends, at the latest, with the last.
  void open(Bytes block);

  // Whether that block repeats the tables of the one before, so that the names of metrics are the same.
  bool tables_repeat() const { return tables_repeat_; }

  // Reads the next batch; false at the end. The block's bytes are still there.
  bool next();

  // Of the batch at hand, until the next call.
  const SampleBatch& batch() const { return batch_; }
  // Whether it names a set of labels that the block has; otherwise it has none.
  bool has_labels() const { return has_labels_; }
  metrics::MetricSamples samples() const { return decoded_.samples; }
  std::uint64_t time() const { return decoded_.timestamp; }
  std::uint8_t value_type() const { return value_type_; }

 private:
  const std::byte* read_names(const std::byte* from, const std::byte* end);
  std::size_t read_labels(const std::byte* record, const metrics::MetricsRecordHeader& header);
  void make_labels();
  void keep_labels(Bytes made_of);
  void check_sample_ids() const;

  UnknownMetrics unknown_;
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
  bool has_labels_ = false;
  std::string labels_made_of_;  // the labels block of the batch's labels; empty when they are about to go
};

}  // namespace qvx
