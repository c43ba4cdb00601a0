#include "qvx/metrics/histogram_store.h"

#include <boost/container_hash/hash.hpp>

#include <stdexcept>
#include <string>
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

}  // namespace qvx::metrics
