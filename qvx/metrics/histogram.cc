#include "qvx/metrics/histogram.h"

#include <boost/container_hash/hash.hpp>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "qvx/metrics/wire.h"
#include "qvx/support/log.h"

namespace qvx::metrics {
namespace {

std::uint64_t identity_of(std::string_view name, const HistogramLabels& labels) {
  std::size_t seed = boost::hash<std::string_view>{}(name);
  boost::hash_combine(seed, labels.label_set_id);
  for (const std::string& value : labels.values)
    boost::hash_combine(seed, value);
  return seed;
}

void update(Histogram& stored, Histogram&& record) {
  if (stored.timestamp == record.timestamp) return;
  QVX_LOG(QVX_LOG_DEBUG, "[qvx metrics histograms] Histogram '%s' timestamp changed from %lu to %lu",
          stored.name.c_str(), stored.timestamp, record.timestamp);
  stored.timestamp = record.timestamp;
  stored.buckets = std::move(record.buckets);
  stored.sum = record.sum;
  stored.count = record.count;
}

}  // namespace

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

std::uint64_t HistogramStore::add_histogram(std::string_view name, const HistogramLabels& labels,
                                            std::span<const double> bounds) {
  for (std::size_t i = 1; i < bounds.size(); ++i) {
    if (bounds[i] < bounds[i - 1]) {
      QVX_LOG(QVX_LOG_ERROR, "[qvx metrics histograms] Histogram buckets must be monotonically increasing");
      throw std::runtime_error("Histogram buckets must be monotonically increasing");
    }
  }
  const std::uint64_t identity = identity_of(name, labels);
  const auto known = id_by_identity_.find(identity);
  if (known != id_by_identity_.end()) {
    QVX_LOG(QVX_LOG_DEBUG,
            "[qvx metrics histograms] Histogram with timeseries_id for '%.*s' already exists with id %lu",
            static_cast<int>(name.size()), name.data(), known->second);
    return known->second;
  }
  Histogram histogram;
  histogram.name = name;
  histogram.labels = labels;
  for (const double bound : bounds)
    histogram.buckets.push_back({bound, 0});
  const std::uint64_t id = next_id();
  insert_or_update(id, std::move(histogram));
  QVX_LOG(QVX_LOG_DEBUG, "[qvx metrics histograms] Added new histogram with id %lu for '%.*s'", id,
          static_cast<int>(name.size()), name.data());
  return id;
}

void HistogramStore::insert_or_update(std::uint64_t id, Histogram histogram) {
  const std::uint64_t identity = identity_of(histogram.name, histogram.labels);
  const auto known = id_by_identity_.find(identity);
  if (known != id_by_identity_.end()) {
    update(histograms_.at(known->second), std::move(histogram));
    return;
  }
  histogram.id = id;
  histograms_.insert_or_assign(id, std::move(histogram));
  id_by_identity_.emplace(identity, id);
}

const Histogram& HistogramStore::at(std::uint64_t id) const {
  const auto found = histograms_.find(id);
  if (found == histograms_.end()) {
    QVX_LOG(QVX_LOG_ERROR, "[qvx metrics histograms] Histogram id: %lu does not exist", id);
    throw std::runtime_error("Histogram id does not exist");
  }
  return found->second;
}

void HistogramStore::clear() {
  histograms_.clear();
  id_by_identity_.clear();
}

const std::byte* parse_histograms(const std::byte* pos, const std::byte* end, const StringTable& label_values,
                                  HistogramStore* store) {
  while (true) {
    const std::byte* const record = wire::find_marker(pos, end, wire::kHistogramMarker);
    if (record == end) return pos;
    Histogram histogram;
    const std::byte* const record_end = histogram.parse(record, end, label_values);
    if (record_end == nullptr) return pos;
    if (store != nullptr) store->insert_or_update(store->next_id(), std::move(histogram));
    pos = record_end;
  }
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
