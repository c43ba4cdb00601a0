// Metrics blocks as a collector writes them: tables of names and values, histograms, and batches of samples
// that refer to the tables.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "examples/recording.h"
#include "qvx/metrics/histogram.h"
#include "qvx/metrics/metrics_batch.h"
#include "qvx/metrics/wire.h"

namespace qvx::examples {

using Names = std::vector<std::string_view>;

// The tables of a block. Texts are views of what the caller keeps.
struct MetricsTables {
  std::vector<Names> label_names;  // a label set's number is its place here
  Names label_values;
  Names metric_names;
  Names constant_labels;  // names and values in turn
};

// How the values of a label set are written. References are short but need the value in the table.
enum class LabelEncoding : char {
  references = metrics::wire::kReferences,
  inline_texts = metrics::wire::kInlineTexts,
  mixed = metrics::wire::kMixed,  // references where the table has the value
};

class MetricsBlock {
 public:
  explicit MetricsBlock(MetricsTables tables) : tables_(std::move(tables)) {}

  // The labels that a batch or a histogram ends with: the values of the label set of that number. Throws
  // std::invalid_argument for a reference to a value that the table does not have.
  ByteArray labels(std::uint8_t label_set, const Names& values, LabelEncoding encoding) const;

  void add_histogram(const metrics::Histogram& histogram, const ByteArray& labels);
  void add_batch(std::uint64_t timestamp, metrics::MetricKind kind, metrics::MetricValueType type,
                 std::span<const metrics::MetricSample> samples, const ByteArray& labels);

  // The whole block.
  ByteArray bytes() const;

 private:
  MetricsTables tables_;
  ByteArray histograms_;
  ByteArray batches_;
  std::uint32_t longest_batch_ = 0;
};

}  // namespace qvx::examples
