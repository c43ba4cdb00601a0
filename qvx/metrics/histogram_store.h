// Histograms in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <string_view>
#include <unordered_map>

#include "qvx/metrics/histogram.h"
#include "qvx/metrics/string_table.h"

namespace qvx::metrics {

// Histograms by id, and an index from time-series identity (name and labels) to id. Identities are 64-bit
// hashes; two that collide share one histogram.
class HistogramStore {
 public:
  // Registers a histogram with a zero count per bound and returns its id; for a name and labels already
  // known, the id given first. Throws std::runtime_error when a bound is smaller than the one before it.
  std::uint64_t add_histogram(std::string_view name, const HistogramLabels& labels,
                              std::span<const double> bounds);

  // Stores the histogram under `id`. When one with its identity is stored, that one is updated instead: it
  // takes over time, buckets, sum and count if the timestamp differs, and nothing otherwise.
  void insert_or_update(std::uint64_t id, Histogram histogram);

  // Throws std::runtime_error "Histogram id does not exist".
  const Histogram& at(std::uint64_t id) const;

  // One more than the largest id, 0 for an empty store.
  std::uint64_t next_id() const { return histograms_.empty() ? 0 : histograms_.rbegin()->first + 1; }

  void clear();

  bool empty() const { return histograms_.empty(); }
  std::size_t size() const { return histograms_.size(); }
  auto begin() const { return histograms_.begin(); }
  auto end() const { return histograms_.end(); }

 private:
  std::map<std::uint64_t, Histogram> histograms_;
  std::unordered_map<std::uint64_t, std::uint64_t> id_by_identity_;
};

// Reads every histogram record in [pos, end) into the store; a null store only checks them. Returns the
// position behind the last record. Throws what a faulty record throws; the ones before it are stored.
const std::byte* parse_histograms(const std::byte* pos, const std::byte* end, const StringTable& label_values,
                                  HistogramStore* store);

}  // namespace qvx::metrics
