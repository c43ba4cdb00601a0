#include "qvx/metrics/histogram_store.h"

#include <boost/container_hash/hash.hpp>

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>

#include "qvx/metrics/wire.h"
#include "qvx/support/log.h"

namespace qvx::metrics {
namespace {

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

HistogramStore::Identity HistogramStore::identity_of(std::string_view name, const HistogramLabels& labels) {
  Identity identity;
  identity.name = name;
  if (labels.names.empty()) {
    identity.label_set_id = labels.label_set_id;
    for (const std::string& value : labels.values)
      identity.labels.emplace_back("", value);
    return identity;
  }
  const std::size_t count = std::min(labels.names.size(), labels.values.size());
  for (std::size_t i = 0; i < count; ++i)
    identity.labels.emplace_back(labels.names[i], labels.values[i]);
  std::sort(identity.labels.begin(), identity.labels.end());
  return identity;
}

std::size_t HistogramStore::IdentityHash::operator()(const Identity& identity) const {
  std::size_t seed = boost::hash<std::string>{}(identity.name);
  boost::hash_combine(seed, identity.label_set_id);
  for (const auto& [name, value] : identity.labels) {
    boost::hash_combine(seed, name);
    boost::hash_combine(seed, value);
  }
  return seed;
}

std::uint64_t HistogramStore::add_histogram(std::string_view name, const HistogramLabels& labels,
                                            std::span<const double> bounds) {
  for (std::size_t i = 1; i < bounds.size(); ++i) {
    if (bounds[i] < bounds[i - 1]) {
      QVX_LOG(QVX_LOG_ERROR, "[qvx metrics histograms] Histogram buckets must be monotonically increasing");
      throw std::runtime_error("Histogram buckets must be monotonically increasing");
    }
  }
  const auto known = id_by_identity_.find(identity_of(name, labels));
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

std::uint64_t HistogramStore::insert_or_update(std::uint64_t id, Histogram histogram) {
  Identity identity = identity_of(histogram.name, histogram.labels);
  const auto known = id_by_identity_.find(identity);
  if (known != id_by_identity_.end()) {
    update(histograms_.at(known->second), std::move(histogram));
    return known->second;
  }
  const bool may_have_been_forgotten = largest_forgotten_id_ && id <= *largest_forgotten_id_;
  if (may_have_been_forgotten || histograms_.contains(id)) id = next_id();
  histogram.id = id;
  const auto at = id_by_identity_.emplace(std::move(identity), id).first;
  try {
    histograms_.emplace(id, std::move(histogram));
  } catch (...) {
    id_by_identity_.erase(at);
    throw;
  }
  largest_id_ = std::max(largest_id_.value_or(0), id);
  return id;
}

std::uint64_t HistogramStore::next_id() const {
  if (!largest_id_) return 0;
  if (*largest_id_ == std::numeric_limits<std::uint64_t>::max())
    throw std::runtime_error("Histogram ids are used up");
  return *largest_id_ + 1;
}

const Histogram& HistogramStore::at(std::uint64_t id) const {
  const auto found = histograms_.find(id);
  if (found == histograms_.end()) {
    QVX_LOG(QVX_LOG_ERROR, "[qvx metrics histograms] Histogram id: %lu does not exist", id);
    throw std::runtime_error("Histogram id does not exist");
  }
  return found->second;
}

void HistogramStore::forget_before(std::uint64_t timestamp) {
  for (auto at = histograms_.begin(); at != histograms_.end();) {
    const Histogram& histogram = at->second;
    if (histogram.timestamp >= timestamp) {
      ++at;
      continue;
    }
    largest_forgotten_id_ = std::max(largest_forgotten_id_.value_or(0), at->first);
    id_by_identity_.erase(identity_of(histogram.name, histogram.labels));
    at = histograms_.erase(at);
  }
}

void HistogramStore::clear() {
  histograms_.clear();
  id_by_identity_.clear();
  largest_id_.reset();
  largest_forgotten_id_.reset();
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
