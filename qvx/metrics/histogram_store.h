// Histograms in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "qvx/metrics/histogram.h"
#include "qvx/metrics/string_table.h"

namespace qvx::metrics {

// Histograms by id. A histogram is known again by its time-series identity: its name and its label names and
// values in order of name; or, without label names, the label set's ordinal and the values in order.
// An id never comes to mean another identity: ids count up, and none is given again.
class HistogramStore {
 public:
  // Registers a histogram with a zero count per bound and returns its id; for a name and labels already
  // known, the id given first. Throws std::runtime_error when a bound is smaller than the one before it, and
  // what next_id() throws.
  std::uint64_t add_histogram(std::string_view name, const HistogramLabels& labels,
                              std::span<const double> bounds);

  // Stores the histogram under `id`, or under next_id() when that may have been given to another identity.
  // When one with its identity is stored, that one is updated instead: it takes over time, buckets, sum and
  // count if the timestamp differs, and nothing otherwise. Returns the id. Throws what next_id() throws.
  std::uint64_t insert_or_update(std::uint64_t id, Histogram histogram);

  // Throws std::runtime_error "Histogram id does not exist".
  const Histogram& at(std::uint64_t id) const;

  // One more than the largest id ever stored, 0 at first. Throws std::runtime_error "Histogram ids are used
  // up" behind the largest number.
  std::uint64_t next_id() const;

  // Forgets histograms with an earlier timestamp. Their ids are not given again.
  void forget_before(std::uint64_t timestamp);

  // Starts anew, with id 0.
  void clear();

  bool empty() const { return histograms_.empty(); }
  std::size_t size() const { return histograms_.size(); }
  auto begin() const { return histograms_.begin(); }
  auto end() const { return histograms_.end(); }

 private:
  struct Identity {
    std::string name;
    std::uint64_t label_set_id = 0;  // 0 where label names are known
    std::vector<std::pair<std::string, std::string>> labels;

    bool operator==(const Identity&) const = default;
  };
  struct IdentityHash {
    std::size_t operator()(const Identity& identity) const;
  };
  static Identity identity_of(std::string_view name, const HistogramLabels& labels);

  std::map<std::uint64_t, Histogram> histograms_;
  std::unordered_map<Identity, std::uint64_t, IdentityHash> id_by_identity_;
  std::optional<std::uint64_t> largest_id_;  // ever stored
  std::optional<std::uint64_t> largest_forgotten_id_;
};

// Reads every histogram record in [pos, end) into the store; a null store only checks them. Returns the
// position behind the last record. Throws what a faulty record throws; the ones before it are stored.
const std::byte* parse_histograms(const std::byte* pos, const std::byte* end, const StringTable& label_values,
                                  HistogramStore* store);

}  // namespace qvx::metrics
