// Histogram records of a metrics block, read and written.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/metrics/preallocated_vector.h"
#include "qvx/metrics/string_table.h"
#include "qvx/support/bytes.h"

namespace qvx::metrics {

struct HistogramBucket {
  double bound = 0;  // upper
  std::uint64_t count = 0;

  friend bool operator==(const HistogramBucket&, const HistogramBucket&) = default;
};

// The label set's ordinal in its block and the decoded values. The names, of which each belongs to the value
// of the same place, are in the block's tables: without them the labels mean something within their block
// only.
struct HistogramLabels {
  std::uint64_t label_set_id = 0;
  std::vector<std::string> values;
  std::vector<std::string> names = {};
};

// Owns its texts; nothing of it refers to the block that it was read from.
struct Histogram {
  std::string name;
  std::uint64_t timestamp = 0;  // microseconds since 1970
  std::vector<HistogramBucket> buckets;
  double sum = 0;
  std::uint64_t count = 0;
  HistogramLabels labels;
  std::uint64_t id = 0;  // in its store

  // Reads the record whose "HIST" marker stands at `record` and returns the position behind it, or null when
  // the record does not end before `data_end`. Throws what the labels block throws; the closing marker is not
  // compared.
  const std::byte* parse(const std::byte* record, const std::byte* data_end, const StringTable& label_values);
};

// Writes the record, its labels block copied from `labels_bytes`. Throws std::out_of_range of the operation
// that passes the capacity, what was written before stays; std::length_error for a name or a bucket list of
// more than 255, then nothing is written.
void serialize(const Histogram& histogram, Bytes labels_bytes, PreallocatedVector& buffer);

}  // namespace qvx::metrics
