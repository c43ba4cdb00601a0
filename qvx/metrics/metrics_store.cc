#include "qvx/metrics/metrics_store.h"

#include <stdexcept>

namespace qvx::metrics {

void MetricsStore::set_capacity(std::string_view metric_name, std::size_t capacity) {
  capacities_[data::metrics::SymbolTable::symbol_of(metric_name)] = capacity;
}

void MetricsStore::set_registration(bool enabled) {
  registration_ = enabled;
  // Series that were resolved without registration may not pass the type check any more.
  resolved_table_.clear();
  resolved_metrics_.clear();
}

bool MetricsStore::has_series(std::uint64_t symbol) const {
  return std::apply(
      [symbol](const auto&... map) { return ((map != nullptr && map->contains(symbol)) || ...); }, series_);
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
  registered.label_set_id = label_sets_.id_of(labels);
  histograms_.insert_or_assign(symbols_.intern(histogram.name), std::move(registered));
}

ResolvedMetric* MetricsStore::resolved_metrics(Bytes names_table, std::size_t count) {
  if (resolved_metrics_.size() != count || resolved_table_ != as_text(names_table)) {
    resolved_table_ = as_text(names_table);
    resolved_metrics_.assign(count, {});
  }
  return resolved_metrics_.data();
}

void MetricsStore::check_type(std::uint64_t symbol, MetricValueType type) {
  const auto registered = registered_types_.find(symbol);
  if (registered == registered_types_.end()) {
    if (registration_) registered_types_.emplace(symbol, type);
  } else if (registered->second != type) {
    throw std::runtime_error("Type mismatch for metric '" + symbols_.name_of(symbol) + "'");
  }
}

std::size_t MetricsStore::capacity_of(std::uint64_t symbol) const {
  const auto own = capacities_.find(symbol);
  return own == capacities_.end() ? default_capacity_ : own->second;
}

}  // namespace qvx::metrics
