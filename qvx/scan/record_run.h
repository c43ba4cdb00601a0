// Records that stand one behind the other, to be read a field at a time: without a call for each value.
//
//   FieldHandle job("job");
//   for (const RecordRun& run : reader.runs())          // see data_file_reader.h
//     for (const std::uint32_t number : run.column<std::uint32_t>(job)) use(number);
//
// A counters block is a run of one record, whose counters are read together by RecordType::ranges(); a run of
// samples shares its labels.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "qvx/scan/records.h"

namespace qvx {

// Records of one type and time. It and all that it hands out are views, valid until the reader that gave it
// reads on.
class RecordRun {
 public:
  RecordRun() = default;
  // `size` records from `first` on, whose first bytes lie `step` bytes apart and are all there.
  RecordRun(const Record& first, std::size_t size, std::size_t step)
      : first_(first), size_(size), step_(step), last_at_hand_(first.size_ - (size - 1) * step) {}

  RecordKind kind() const { return first_.kind(); }
  const RecordType& type() const { return first_.type(); }
  // Of all its records: microseconds since 1970-01-01 00:00 UTC.
  std::uint64_t time() const { return first_.time(); }

  // At least one.
  std::size_t size() const { return size_; }
  Record operator[](std::size_t index) const {
    assert(index < size_);
    Record record = first_;
    record.data_ += index * step_;
    record.size_ -= index * step_;
    return record;
  }

  // The values of a field of exactly that type in all records, of an array the first one of each. Fewer when
  // the last records end before the field; empty when there are none.
  template <detail::ColumnValue T>
  ArrayView<T> column(const FieldPlace& field) const;
  template <detail::ColumnValue T>
  ArrayView<T> column(FieldHandle& field) const {
    return column<T>(field.in(type()));
  }

  // Of samples; otherwise empty. The metric of a sample is the name of that number; one whose metric the
  // block does not name has a number beyond them.
  ArrayView<std::uint16_t> metric_ids() const {
    if (first_.batch_ == nullptr) return {};
    return {first_.data_ + metrics::wire::kSampleIdAt, size_, step_};
  }
  std::span<const std::string_view> metric_names() const {
    if (first_.batch_ == nullptr) return {};
    return *first_.batch_->metric_names;
  }
  metrics::MetricKind metric_kind() const { return first_.metric_kind(); }
  std::span<const MetricLabel> labels() const { return first_.labels(); }
  // Empty when there is none of that name.
  std::string_view label(std::string_view name) const { return first_.label(name); }

 private:
  std::size_t records_with(const FieldPlace& field) const {
    if (field.end <= last_at_hand_) [[likely]]
      return size_;
    return field.end <= first_.size_ ? (first_.size_ - static_cast<std::size_t>(field.end)) / step_ + 1 : 0;
  }

  Record first_;
  std::size_t size_ = 0;
  std::size_t step_ = 0;
  std::size_t last_at_hand_ = 0;  // from the last record to the end of what there is
};

template <detail::ColumnValue T>
ArrayView<T> RecordRun::column(const FieldPlace& field) const {
  if (field.record_type != type().serial()) return {};
  const std::byte* const from = first_.data_ + field.offset;
  if constexpr (std::same_as<T, std::string_view>) {
    if (field.kind != FieldKind::characters && field.kind != FieldKind::string) return {};
    return {from, records_with(field), step_, field.kind, field.size};
  } else {
    if (field.kind != detail::kind_of<T>()) return {};
    return {from, records_with(field), step_};
  }
}

}  // namespace qvx
