#include "qvx/metrics/histogram.h"

#include <stdexcept>

#include "qvx/metrics/labels_block.h"
#include "qvx/metrics/wire.h"

namespace qvx::metrics {

const std::byte* Histogram::parse(const std::byte* record, const std::byte* data_end,
                                  const StringTable& label_values) {
  Cursor cursor(Bytes(record, data_end));
  Bytes header;
  Bytes name_text;
  std::uint8_t bucket_count = 0;
  Bytes bucket_bytes;
  Bytes totals;
  if (!cursor.read_bytes(wire::kHistogramHeaderSize, header) ||
      !cursor.read_bytes(load_le<std::uint8_t>(header.data() + wire::kHistogramNameLengthAt), name_text) ||
      !cursor.read(bucket_count) || !cursor.read_bytes(wire::kBucketSize * bucket_count, bucket_bytes) ||
      !cursor.read_bytes(wire::kHistogramTotalsSize, totals))
    return nullptr;

  timestamp = load_le<std::uint64_t>(header.data() + wire::kHistogramTimestampAt);
  name = as_text(name_text);
  buckets.clear();
  buckets.reserve(bucket_count);
  for (std::size_t at = 0; at < bucket_bytes.size(); at += wire::kBucketSize) {
    const std::byte* const bucket = bucket_bytes.data() + at;
    buckets.push_back({load_le<double>(bucket + wire::kBucketBoundAt),
                       load_le<std::uint64_t>(bucket + wire::kBucketCountAt)});
  }
  sum = load_le<double>(totals.data() + wire::kHistogramSumAt);
  count = load_le<std::uint64_t>(totals.data() + wire::kHistogramCountAt);

  std::vector<EncodedLabelValue> values;
  const auto labels_at = static_cast<std::size_t>(cursor.rest().data() - record);
  const std::size_t labels_end =
      parse_labels_block(record, data_end, labels_at, labels.label_set_id, values, "Histogram::parse");
  const std::vector<std::string_view> texts = decode_label_values(values, label_values);
  labels.values.assign(texts.begin(), texts.end());

  const std::byte* const closing = record + labels_end;
  if (static_cast<std::size_t>(data_end - closing) < wire::kMarkerSize) return nullptr;
  return closing + wire::kMarkerSize;
}

void serialize(const Histogram& histogram, Bytes labels_bytes, PreallocatedVector& buffer) {
  constexpr std::size_t kMost = 255;  // both are written with a one-byte count
  if (histogram.name.size() > kMost) throw std::length_error("Histogram name is longer than 255 bytes");
  if (histogram.buckets.size() > kMost) throw std::length_error("Histogram has more than 255 buckets");
  buffer.append(wire::kHistogramMarker);
  buffer.push_back(histogram.timestamp);
  buffer.push_back(static_cast<std::uint8_t>(histogram.name.size()));
  buffer.append(histogram.name);
  buffer.push_back(static_cast<std::uint8_t>(histogram.buckets.size()));
  for (const HistogramBucket& bucket : histogram.buckets) {
    buffer.push_back(bucket.bound);
    buffer.push_back(bucket.count);
  }
  buffer.push_back(histogram.sum);
  buffer.push_back(histogram.count);
  buffer.insert(labels_bytes);
  buffer.append(wire::kHistogramEnd);
}

}  // namespace qvx::metrics
