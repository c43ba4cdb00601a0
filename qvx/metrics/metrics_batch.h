// Batch records: one timestamp, a list of samples and their labels. Shared by the reader that fills the store
// and the one that prints.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "qvx/metrics/block_tables.h"
#include "qvx/metrics/labels_block.h"
#include "qvx/metrics/wire.h"
#include "qvx/support/bytes.h"
#include "qvx/support/log.h"

namespace qvx::metrics {

enum class MetricKind : char { counter = 'C', gauge = 'G', histogram = 'H', untyped = 'U' };

// The kind that a record's kind byte stands for; untyped for every byte but 'C', 'G' and 'H'.
inline MetricKind metric_kind_of(char kind_byte) {
  const auto kind = static_cast<MetricKind>(kind_byte);
  const bool is_known =
      kind == MetricKind::counter || kind == MetricKind::gauge || kind == MetricKind::histogram;
  return is_known ? kind : MetricKind::untyped;
}

// The series that a sample value goes to. Every other code is unknown.
enum class MetricValueType : std::uint8_t { uint64 = 1, floating = 2, bit64 = 3, int64 = 4, string = 5 };

// One sample. The value's bytes are those of a double for that value type.
struct MetricSample {
  std::uint16_t sample_id;  // index into the block's metric names
  std::uint64_t sample_value;
};

// The samples of a record, read where they stand.
class MetricSamples {
 public:
  MetricSamples() = default;
  explicit MetricSamples(Bytes bytes) : bytes_(bytes) {}  // a whole number of samples

  std::size_t size() const { return bytes_.size() / wire::kSampleSize; }
  Bytes bytes() const { return bytes_; }
  MetricSample operator[](std::size_t index) const { return *Iterator(at(index)); }

  class Iterator {
   public:
    explicit Iterator(const std::byte* sample) : sample_(sample) {}
    MetricSample operator*() const {
      return {load_le<std::uint16_t>(sample_ + wire::kSampleIdAt),
              load_le<std::uint64_t>(sample_ + wire::kSampleValueAt)};
    }
    Iterator& operator++() {
      sample_ += wire::kSampleSize;
      return *this;
    }
    bool operator==(const Iterator&) const = default;

   private:
    const std::byte* sample_;
  };
  Iterator begin() const { return Iterator(at(0)); }
  Iterator end() const { return Iterator(at(size())); }

  // True when all ids are below the limit.
  bool ids_are_below(std::size_t limit) const;

  // The samples [first, last).
  MetricSamples part(std::size_t first, std::size_t last) const {
    return MetricSamples(Bytes(at(first), at(last)));
  }

 private:
  const std::byte* at(std::size_t index) const { return bytes_.data() + index * wire::kSampleSize; }

  Bytes bytes_;
};

// A decoded record. Samples and label texts are views of the block.
struct MetricsBatch {
  std::uint64_t timestamp = 0;  // microseconds since 1970
  MetricSamples samples;
  std::uint64_t label_set_id = 0;
  std::vector<EncodedLabelValue> label_values;
};

// The fixed part of a record.
struct MetricsRecordHeader {
  std::uint16_t length = 0;  // as written; nothing relies on it
  std::uint64_t timestamp = 0;
  MetricKind kind = MetricKind::untyped;
  std::uint8_t value_type = 0;
  std::uint16_t num_samples = 0;

  // The only kinds that are stored or printed.
  bool is_counter_or_gauge() const { return kind == MetricKind::counter || kind == MetricKind::gauge; }
  // Offset of the labels block in the record.
  std::size_t labels_at() const { return wire::kRecordHeaderSize + wire::kSampleSize * num_samples; }
};

// The CNTD section of a block.
struct MetricsDataSection {
  const std::byte* area = nullptr;       // first byte of the data area
  std::size_t end = 0;                   // length of the data area
  const std::byte* block_end = nullptr;  // behind the trailer: no read of a record goes farther
  std::uint32_t blocksize = 0;           // how far a record may reach, as written
};
inline constexpr std::size_t kFirstRecordAt = wire::kBlocksizeSize;

// The two readers deliberately differ in how much of the trailer they compare: the store all of it, the
// output its first half.
bool has_full_trailer(Bytes block);
bool has_output_trailer(Bytes block);

// Finds the section, whose marker does not stand before offset `from`. Throws std::runtime_error "Missing
// 'CNTD' magic number in the binary data", with a log line, or "Invalid magic numbers in the binary data"
// when `has_trailer` says no.
MetricsDataSection find_data_section(Bytes block, bool (*has_trailer)(Bytes), std::size_t from = 0);

// The section whose marker stands at `marker`; its trailer has been found.
MetricsDataSection data_section_at(const std::byte* marker, const std::byte* block_end);

// Both throw std::runtime_error "invalid metric id", with a log line: for that sample id, and for the first
// one that is not below the number of metric names.
[[noreturn]] void fail_metric_id(std::size_t id, std::size_t names);
void check_sample_ids(const MetricSamples& samples, std::size_t names);

// Throws std::runtime_error "Insufficient data for metrics samples".
[[noreturn]] void fail_record_size();

// The record's fixed part, and its samples. Both fail so when they do not end before `end`.
inline MetricsRecordHeader read_record_header(const std::byte* record, const std::byte* end) {
  if (static_cast<std::size_t>(end - record) < wire::kRecordHeaderSize) fail_record_size();
  MetricsRecordHeader header;
  header.length = load_le<std::uint16_t>(record + wire::kRecordLengthAt);
  header.timestamp = load_le<std::uint64_t>(record + wire::kRecordTimestampAt);
  header.kind = metric_kind_of(load_le<char>(record + wire::kRecordKindAt));
  header.value_type = load_le<std::uint8_t>(record + wire::kRecordValueTypeAt);
  header.num_samples = load_le<std::uint16_t>(record + wire::kRecordSamplesAt);
  return header;
}

inline MetricSamples read_record_samples(const std::byte* record, const std::byte* end,
                                         const MetricsRecordHeader& header) {
  if (static_cast<std::size_t>(end - record) < header.labels_at()) fail_record_size();
  return MetricSamples(Bytes(record + wire::kRecordHeaderSize, wire::kSampleSize * header.num_samples));
}

// The bytes of a record and behind it that its labels block may reach into: `blocksize` bytes, but not past
// the block.
inline Bytes reach_of_record(const MetricsDataSection& section, const std::byte* record) {
  const auto left = static_cast<std::size_t>(section.block_end - record);
  return {record, std::min<std::size_t>(section.blocksize, left)};
}

// Logs a timestamp of 0 and a record without samples, which are used all the same.
inline void log_record_oddities(const MetricsRecordHeader& header) {
  if (header.timestamp == 0)
    QVX_LOG(QVX_LOG_ERROR, "[qvx metrics parser] invalid timestamp in the metrics batch");
  if (header.num_samples == 0)
    QVX_LOG(QVX_LOG_WARNING, "[qvx metrics parser] no samples in the metrics batch");
}

// Parses the labels block of a record into the batch and returns the record's length. Throws what
// parse_labels_block throws.
std::size_t read_record_labels(const MetricsDataSection& section, const std::byte* record,
                               const MetricsRecordHeader& header, const char* caller, MetricsBatch& batch);

// Prints a batch, or a block's tables, at level 7.
void dump_metrics_batch(const MetricsBatch& batch, const StringTable& label_values);
void dump_label_tables(const MetricsBlockTables& tables);

}  // namespace qvx::metrics
