// The most recent values of one metric.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "qvx/metrics/metrics_batch.h"

namespace qvx::metrics {

// A 64-bit pattern, shown in hexadecimal; a type of its own so that it has series of its own.
enum class Bit64 : std::uint64_t {};

// Two rings of equal capacity, times and values. Once they are full, a new pair takes the place of the
// oldest. The rings grow as they fill, as most series of a large store have few pairs; append then throws
// std::bad_alloc, and nothing is appended. A capacity of 0 keeps nothing.
template <typename T>
class TimeSeries {
 public:
  explicit TimeSeries(std::size_t capacity) : capacity_(capacity) {}

  void append(std::uint64_t timestamp, T value) {
    last_seen_ = timestamp;
    if (values_.size() < capacity_) {
      if (values_.size() == values_.capacity()) grow();
      timestamps_.push_back(timestamp);
      values_.push_back(value);
    } else if (capacity_ != 0) {
      timestamps_[head_] = timestamp;
      values_[head_] = value;
      head_ = next(head_);
    }
  }

  // Appends unless the last value equals this one.
  void append_if_changed(std::uint64_t timestamp, T value) {
    if (empty() || !(last_value() == value)) return append(timestamp, value);
    last_seen_ = timestamp;
  }

  // The time of the last call, whether it appended or not.
  std::uint64_t last_seen() const { return last_seen_; }

  std::size_t capacity() const { return capacity_; }
  std::size_t size() const { return values_.size(); }
  bool empty() const { return values_.empty(); }

  // The pair at `index`, counted from the oldest; `index` is below size().
  std::uint64_t timestamp(std::size_t index) const { return timestamps_[slot(index)]; }
  T value(std::size_t index) const { return values_[slot(index)]; }

  // The newest value of a series that is not empty, which stands just before the head.
  T last_value() const { return values_[head_ == 0 ? values_.size() - 1 : head_ - 1]; }

  MetricKind kind() const { return kind_; }
  void set_kind(MetricKind kind) { kind_ = kind; }

 private:
  std::size_t next(std::size_t at) const { return at + 1 == capacity_ ? 0 : at + 1; }
  std::size_t slot(std::size_t index) const {
    const std::size_t behind_head = capacity_ - head_;
    return index < behind_head ? head_ + index : index - behind_head;
  }

  void grow() {
    constexpr std::size_t kFirst = 2;
    const std::size_t room = std::min(capacity_, std::max(kFirst, 2 * values_.size()));
    timestamps_.reserve(room);
    values_.reserve(room);
  }

  MetricKind kind_ = MetricKind::untyped;
  std::uint64_t last_seen_ = 0;
  std::size_t capacity_;
  std::size_t head_ = 0;  // the oldest pair, once the rings are full
  std::vector<std::uint64_t> timestamps_;
  std::vector<T> values_;
};

}  // namespace qvx::metrics
