#include "qvx/metrics/metrics_store.h"

#include <stdexcept>
#include <unordered_set>

namespace qvx::metrics {

void MetricsStore::set_capacity(std::string_view metric_name, std::size_t capacity) {
  capacities_[data::metrics::SymbolTable::symbol_of(metric_name)] = capacity;
}

void MetricsStore::set_registration(bool enabled) {
  registration_ = enabled;
  // Series that were resolved without registration may not pass the type check any more.
  forget_resolved();
}

bool MetricsStore::has_series(std::uint64_t symbol) const {
  const auto metric = metrics_.find(symbol);
  return metric != metrics_.end() && metric->second.series != 0;
}

template <typename IsForgotten>
std::size_t MetricsStore::forget_series(const IsForgotten& is_forgotten) {
  std::size_t forgotten = 0;
  const auto forget_of = [&](auto& map) {
    if (map == nullptr) return;
    forgotten += std::erase_if(*map, [&](const auto& entry) {
      const bool is_gone = is_forgotten(entry.first.symbol, entry.second.last_seen());
      if (is_gone) --metrics_.at(entry.first.symbol).series;
      return is_gone;
    });
  };
  std::apply([&](auto&... map) { (forget_of(map), ...); }, series_);
  return forgotten;
}

// A name stays as long as a series or a histogram has it.
template <typename IsForgotten>
void MetricsStore::forget_names(const IsForgotten& is_forgotten) {
  std::vector<std::uint64_t> forgotten;
  for (const auto& [name, symbol] : symbols_) {
    if (!has_series(symbol) && !histograms_.contains(symbol) && is_forgotten(name, symbol))
      forgotten.push_back(symbol);
  }
  for (const std::uint64_t symbol : forgotten) {
    metrics_.erase(symbol);
    symbols_.forget(symbol);
  }
}

std::size_t MetricsStore::forget_before(std::uint64_t timestamp) {
  forget_resolved();
  const std::size_t forgotten = forget_series(
      [timestamp](std::uint64_t /*symbol*/, std::uint64_t last_seen) { return last_seen < timestamp; });
  histogram_store_.forget_before(timestamp);
  std::unordered_set<std::uint64_t> symbols_of_histograms;
  std::erase_if(histograms_, [&](const auto& entry) {
    const bool is_gone = entry.second.timestamp < timestamp;
    if (is_gone) symbols_of_histograms.insert(entry.first);
    return is_gone;
  });
  forget_names([&](const std::string& /*name*/, std::uint64_t symbol) {
    return metrics_.contains(symbol) || symbols_of_histograms.contains(symbol);
  });

  std::unordered_set<std::uint64_t> in_use;
  const auto use_of = [&in_use](const auto& map) {
    if (map == nullptr) return;
    for (const auto& [key, series] : *map)
      in_use.insert(key.label_set_id);
  };
  std::apply([&](const auto&... map) { (use_of(map), ...); }, series_);
  for (const auto& [symbol, histogram] : histograms_)
    in_use.insert(histogram.label_set_id);
  label_sets_.forget_if([&](std::uint64_t id, const ReverseIndex::Entry& entry) {
    return entry.last_seen < timestamp && !in_use.contains(id);
  });
  return forgotten;
}

std::size_t MetricsStore::forget_unwanted(const MetricFilter& filter) {
  forget_resolved();
  std::unordered_set<std::uint64_t> unwanted;
  for (const auto& [name, symbol] : symbols_) {
    if (!filter.accepts(name)) unwanted.insert(symbol);
  }
  const std::size_t forgotten = forget_series(
      [&unwanted](std::uint64_t symbol, std::uint64_t /*last_seen*/) { return unwanted.contains(symbol); });
  forget_names(
      [&unwanted](const std::string& /*name*/, std::uint64_t symbol) { return unwanted.contains(symbol); });
  return forgotten;
}

void MetricsStore::forget_resolved() {
  resolved_table_.clear();
  resolved_metrics_.clear();
}

void MetricsStore::register_histogram(const Histogram& histogram, const LabelMap& labels) {
  RegisteredHistogram registered;
  registered.name = histogram.name;
  for (const auto& [name, value] : labels)
    registered.labels.emplace_back(name, value);
  registered.buckets = histogram.buckets;
  registered.sum = histogram.sum;
  registered.count = histogram.count;
  registered.timestamp = histogram.timestamp;
  registered.label_set_id = label_sets_.id_of(labels, histogram.timestamp);

  // Label names make it the same histogram in whatever block it comes again.
  Histogram with_names = histogram;
  with_names.labels = {};
  for (const auto& [name, value] : labels) {
    with_names.labels.names.emplace_back(name);
    with_names.labels.values.emplace_back(value);
  }
  histogram_store_.insert_or_update(histogram_store_.next_id(), std::move(with_names));
  histograms_.insert_or_assign(symbols_.intern(histogram.name), std::move(registered));
}

ResolvedMetric* MetricsStore::resolved_metrics(Bytes names_table, std::size_t count) {
  if (resolved_metrics_.size() != count || resolved_table_ != as_text(names_table)) {
    resolved_table_ = as_text(names_table);
    resolved_metrics_.assign(count, {});
  }
  return resolved_metrics_.data();
}

MetricsStore::Metric& MetricsStore::check_type(std::uint64_t symbol, MetricValueType type) {
  const auto code = static_cast<std::uint8_t>(type);
  Metric& metric = metrics_[symbol];
  if (metric.type != 0 && metric.type != code)
    throw std::runtime_error("Type mismatch for metric '" + symbols_.name_of(symbol) + "'");
  if (metric.type == 0 && registration_) metric.type = code;
  return metric;
}

std::size_t MetricsStore::capacity_of(std::uint64_t symbol) const {
  const auto own = capacities_.find(symbol);
  return own == capacities_.end() ? default_capacity_ : own->second;
}

}  // namespace qvx::metrics
