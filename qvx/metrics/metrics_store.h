// Metrics kept in memory: time series by metric and value type, label sets and histograms.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "qvx/metrics/histogram_store.h"
#include "qvx/metrics/reverse_index.h"
#include "qvx/metrics/symbol_table.h"
#include "qvx/metrics/time_series.h"

namespace qvx::metrics {

template <typename T>
inline constexpr MetricValueType kValueTypeOf = MetricValueType::uint64;
template <>
inline constexpr MetricValueType kValueTypeOf<double> = MetricValueType::floating;
template <>
inline constexpr MetricValueType kValueTypeOf<Bit64> = MetricValueType::bit64;
template <>
inline constexpr MetricValueType kValueTypeOf<std::int64_t> = MetricValueType::int64;

// A histogram as it was registered last, with its texts.
struct RegisteredHistogram {
  std::string name;
  LabelSet labels;
  std::vector<HistogramBucket> buckets;
  double sum = 0;
  std::uint64_t count = 0;
  std::uint64_t timestamp = 0;
  std::uint64_t label_set_id = 0;  // in the store's reverse index
};

// A metric name of a block with what the store knows of it, so that a sample needs no look-up.
struct ResolvedMetric {
  std::uint64_t symbol = 0;
  std::uint64_t* reference_count = nullptr;  // null until the name is resolved
  std::tuple<TimeSeries<std::uint64_t>*, TimeSeries<double>*, TimeSeries<Bit64>*, TimeSeries<std::int64_t>*>
      series{};

  template <typename T>
  TimeSeries<T>*& of_type() {
    return std::get<TimeSeries<T>*>(series);
  }
  bool has_series() const {
    return std::apply([](const auto*... each) { return ((each != nullptr) || ...); }, series);
  }
};

// Series are made when first asked for and live as long as the store, as do references to them. Not for use
// by several threads at once.
class MetricsStore {
 public:
  static constexpr std::size_t kDefaultCapacity = 1024;

  // How many pairs a series keeps, unless set_capacity() was called for its metric.
  explicit MetricsStore(std::size_t default_capacity = kDefaultCapacity)
      : default_capacity_(default_capacity) {}
  MetricsStore(const MetricsStore&) = delete;
  MetricsStore& operator=(const MetricsStore&) = delete;

  // The capacity of series that are still to be made for the metric.
  void set_capacity(std::string_view metric_name, std::size_t capacity);

  // With registration (on at first) the first value type stored for a metric is the only one that it accepts.
  void set_registration(bool enabled);

  // The series of type T for a symbol. Throws std::runtime_error "Type mismatch for metric '<name>'" when the
  // metric is registered with another type; the name is the symbol table's.
  template <typename T>
  TimeSeries<T>& series(std::uint64_t symbol, std::string_view metric_name);

  // The series, or null when there is none.
  template <typename T>
  const TimeSeries<T>* find_series(std::uint64_t symbol) const;

  // Whether any type has a series for the symbol.
  bool has_series(std::uint64_t symbol) const;

  // Calls visit(symbol, series) for every series of type T.
  template <typename T, typename Visit>
  void for_each_series(Visit&& visit) const;

  data::metrics::SymbolTable& symbols() { return symbols_; }
  const data::metrics::SymbolTable& symbols() const { return symbols_; }
  ReverseIndex& label_sets() { return label_sets_; }
  const ReverseIndex& label_sets() const { return label_sets_; }

  // Histograms by id, for those who add their own.
  HistogramStore& histogram_store() { return histogram_store_; }

  // Takes the histogram with the labels that the block gives it; an earlier one of the same name is replaced.
  void register_histogram(const Histogram& histogram, const LabelMap& labels);

  // Registered histograms by the symbol of their name.
  const std::unordered_map<std::uint64_t, RegisteredHistogram>& histograms() const { return histograms_; }

  // What is known of the names of a table, by position: kept from the last call when the table's bytes are
  // the same, empty otherwise. Valid until the next call of this function or of set_registration().
  ResolvedMetric* resolved_metrics(Bytes names_table, std::size_t count);

 private:
  template <typename T>
  using SeriesMap = std::unique_ptr<std::unordered_map<std::uint64_t, TimeSeries<T>>>;  // null: none made yet

  void check_type(std::uint64_t symbol, MetricValueType type);
  std::size_t capacity_of(std::uint64_t symbol) const;

  data::metrics::SymbolTable symbols_;
  ReverseIndex label_sets_;
  std::tuple<SeriesMap<std::uint64_t>, SeriesMap<double>, SeriesMap<Bit64>, SeriesMap<std::int64_t>> series_;
  std::unordered_map<std::uint64_t, MetricValueType> registered_types_;
  bool registration_ = true;
  std::unordered_map<std::uint64_t, std::size_t> capacities_;
  std::size_t default_capacity_;
  HistogramStore histogram_store_;
  std::unordered_map<std::uint64_t, RegisteredHistogram> histograms_;
  std::string resolved_table_;
  std::vector<ResolvedMetric> resolved_metrics_;
};

template <typename T>
TimeSeries<T>& MetricsStore::series(std::uint64_t symbol, std::string_view /*metric_name*/) {
  check_type(symbol, kValueTypeOf<T>);
  auto& map = std::get<SeriesMap<T>>(series_);
  if (map == nullptr) map = std::make_unique<std::unordered_map<std::uint64_t, TimeSeries<T>>>();
  const auto found = map->find(symbol);
  if (found != map->end()) return found->second;
  return map->emplace(symbol, TimeSeries<T>(capacity_of(symbol))).first->second;
}

template <typename T>
const TimeSeries<T>* MetricsStore::find_series(std::uint64_t symbol) const {
  const auto& map = std::get<SeriesMap<T>>(series_);
  if (map == nullptr) return nullptr;
  const auto found = map->find(symbol);
  return found == map->end() ? nullptr : &found->second;
}

template <typename T, typename Visit>
void MetricsStore::for_each_series(Visit&& visit) const {
  const auto& map = std::get<SeriesMap<T>>(series_);
  if (map == nullptr) return;
  for (const auto& [symbol, one] : *map)
    visit(symbol, one);
}

}  // namespace qvx::metrics
