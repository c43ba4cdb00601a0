// Histograms: their records in a metrics block, read and written, and the store that gives them ids.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "qvx/metrics/labels_block.h"
#include "qvx/metrics/string_table.h"
#include "qvx/support/bytes.h"

namespace qvx::metrics {

struct HistogramBucket {
  double bound = 0;  // upper
  std::uint64_t count = 0;

  friend bool operator==(const HistogramBucket&, const HistogramBucket&) = default;
};

// The label set's ordinal in its block and the decoded values.
struct HistogramLabels {
  std::uint64_t label_set_id = 0;
  std::vector<std::string> values;
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

// A byte buffer of fixed capacity, for records that must not grow beyond what was set aside for them.
// Owns its buffer, allocated once. A write that would pass the capacity writes nothing and throws
// std::out_of_range with the name of the operation.
class PreallocatedVector {
 public:
  explicit PreallocatedVector(std::size_t capacity)
      : data_(std::make_unique_for_overwrite<std::byte[]>(capacity)), capacity_(capacity) {}

  const std::byte* data() const { return data_.get(); }
  std::size_t size() const { return size_; }
  std::size_t capacity() const { return capacity_; }
  Bytes bytes() const { return {data_.get(), size_}; }

  // One value of a fixed width, little-endian.
  template <Scalar T>
  void push_back(T value) {
    store_le(claim(sizeof value, "PreallocatedVector::push_back"), value);
  }

  // A run of bytes.
  void insert(Bytes run) { copy(run, "PreallocatedVector::insert"); }

  // A text, without a terminator.
  void append(std::string_view text) { copy(as_bytes(text), "PreallocatedVector::append"); }

 private:
  std::byte* claim(std::size_t size, const char* operation) {
    if (size > capacity_ - size_) throw std::out_of_range(operation);
    std::byte* const at = data_.get() + size_;
    size_ += size;
    return at;
  }

  void copy(Bytes run, const char* operation) {
    std::byte* const at = claim(run.size(), operation);
    if (!run.empty()) std::memcpy(at, run.data(), run.size());
  }

  std::unique_ptr<std::byte[]> data_;
  std::size_t capacity_;
  std::size_t size_ = 0;
};

// Writes the record, its labels block copied from `labels_bytes`. Throws std::out_of_range of the operation
// that passes the capacity, what was written before stays; std::length_error for a name or a bucket list of
// more than 255, then nothing is written.
void serialize(const Histogram& histogram, Bytes labels_bytes, PreallocatedVector& buffer);

}  // namespace qvx::metrics
