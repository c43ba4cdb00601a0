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
#include "qvx/metrics/metric_filter.h"
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
  std::uint64_t label_set_id = ReverseIndex::kNoId;  // that the series are of
  std::uint64_t* reference_count = nullptr;          // null until the name is resolved
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

// Series are made when first asked for and live, as do references to them, until they are forgotten or the
// store ends. A store that is to run for years forgets now and then what is not seen or wanted any more. Not
// for use by several threads at once.
class MetricsStore {
 public:
  static constexpr std::size_t kDefaultCapacity = 1024;

  // In the place of a label set's id: a series for all of them.
  static constexpr std::uint64_t kAllLabelSets = ReverseIndex::kNoId;

  // How many pairs a series keeps, unless set_capacity() was called for its metric.
  explicit MetricsStore(std::size_t default_capacity = kDefaultCapacity)
      : default_capacity_(default_capacity) {}
  MetricsStore(const MetricsStore&) = delete;
  MetricsStore& operator=(const MetricsStore&) = delete;

  // The capacity of series that are still to be made for the metric.
  void set_capacity(std::string_view metric_name, std::size_t capacity);

  // With registration (on at first) the first value type stored for a metric is the only one that it accepts.
  void set_registration(bool enabled);

  // Whether samples of different label sets go to series of their own, rather than to one of each metric and
  // type. A block's constant labels then belong to the label sets of its batches. Off at first.
  void set_series_per_label_set(bool enabled) { series_per_label_set_ = enabled; }
  bool has_series_per_label_set() const { return series_per_label_set_; }

  // The series of type T for a symbol, for all label sets or for the one with that id. Throws
  // std::runtime_error "Type mismatch for metric '<name>'" when the metric is registered with another type;
  // the name is the symbol table's.
  template <typename T>
  TimeSeries<T>& series(std::uint64_t symbol, std::string_view metric_name,
                        std::uint64_t label_set_id = kAllLabelSets);

  // The series, or null when there is none.
  template <typename T>
  const TimeSeries<T>* find_series(std::uint64_t symbol, std::uint64_t label_set_id = kAllLabelSets) const;

  // Whether any type and label set has a series for the symbol.
  bool has_series(std::uint64_t symbol) const;

  // Calls visit(symbol, label_set_id, series), or visit(symbol, series), for every series of type T.
  template <typename T, typename Visit>
  void for_each_series(Visit&& visit) const;

  // Forgets what was last seen before that time, as blocks state times: series, label sets that no other
  // series or histogram has, histograms, and the names and types of metrics left without any. Texts, ids and
  // series that come again are new ones. Returns the number of series forgotten.
  std::size_t forget_before(std::uint64_t timestamp);

  // Forgets the metrics whose names the filter does not accept, with their series, but for histograms. Names
  // of samples are kept even when the filter leaves the samples out, so they gather otherwise.
  std::size_t forget_unwanted(const MetricFilter& filter);

  // What is forgotten of these is up to forget_before() and forget_unwanted().
  data::metrics::SymbolTable& symbols() { return symbols_; }
  const data::metrics::SymbolTable& symbols() const { return symbols_; }
  ReverseIndex& label_sets() { return label_sets_; }
  const ReverseIndex& label_sets() const { return label_sets_; }

  // Histograms by id: those of blocks, and those that users add.
  HistogramStore& histogram_store() { return histogram_store_; }
  const HistogramStore& histogram_store() const { return histogram_store_; }

  // Takes the histogram with the labels that the block gives it: into the histogram store, and by its name,
  // where an earlier one of the same name is replaced.
  void register_histogram(const Histogram& histogram, const LabelMap& labels);

  // Registered histograms by the symbol of their name.
  const std::unordered_map<std::uint64_t, RegisteredHistogram>& histograms() const { return histograms_; }

  // What is known of the names of a table, by position: kept from the last call when the table's bytes are
  // the same, empty otherwise. Valid until the next call of this function, set_registration() or
  // forget_...().
  ResolvedMetric* resolved_metrics(Bytes names_table, std::size_t count);

 private:
  struct SeriesKey {
    std::uint64_t symbol;
    std::uint64_t label_set_id;

    bool operator==(const SeriesKey&) const = default;
  };
  struct SeriesKeyHash {
    // The symbol is a hash, label-set ids are small numbers.
    std::size_t operator()(const SeriesKey& key) const {
      return key.symbol + key.label_set_id * 0x9E3779B97F4A7C15;
    }
  };
  template <typename T>
  using SeriesMap =
      std::unique_ptr<std::unordered_map<SeriesKey, TimeSeries<T>, SeriesKeyHash>>;  // null: none yet

  // Of a metric that has, or had, series.
  struct Metric {
    std::uint8_t type = 0;  // registered; 0: none
    std::size_t series = 0;
  };

  // Both forget what `is_forgotten` says of a key and its series, or of a symbol.
  template <typename IsForgotten>
  std::size_t forget_series(const IsForgotten& is_forgotten);
  template <typename IsForgotten>
  void forget_names(const IsForgotten& is_forgotten);
  void forget_resolved();

  Metric& check_type(std::uint64_t symbol, MetricValueType type);
  std::size_t capacity_of(std::uint64_t symbol) const;

  data::metrics::SymbolTable symbols_;
  ReverseIndex label_sets_;
  std::tuple<SeriesMap<std::uint64_t>, SeriesMap<double>, SeriesMap<Bit64>, SeriesMap<std::int64_t>> series_;
  std::unordered_map<std::uint64_t, Metric> metrics_;
  bool registration_ = true;
  bool series_per_label_set_ = false;
  std::unordered_map<std::uint64_t, std::size_t> capacities_;
  std::size_t default_capacity_;
  HistogramStore histogram_store_;
  std::unordered_map<std::uint64_t, RegisteredHistogram> histograms_;
  std::string resolved_table_;
  std::vector<ResolvedMetric> resolved_metrics_;
};

template <typename T>
TimeSeries<T>& MetricsStore::series(std::uint64_t symbol, std::string_view /*metric_name*/,
                                    std::uint64_t label_set_id) {
  Metric& metric = check_type(symbol, kValueTypeOf<T>);
  auto& map = std::get<SeriesMap<T>>(series_);
  if (map == nullptr) map = std::make_unique<typename SeriesMap<T>::element_type>();
  const SeriesKey key{symbol, label_set_id};
  const auto found = map->find(key);
  if (found != map->end()) return found->second;
  TimeSeries<T>& made = map->emplace(key, TimeSeries<T>(capacity_of(symbol))).first->second;
  ++metric.series;
  return made;
}

template <typename T>
const TimeSeries<T>* MetricsStore::find_series(std::uint64_t symbol, std::uint64_t label_set_id) const {
  const auto& map = std::get<SeriesMap<T>>(series_);
  if (map == nullptr) return nullptr;
  const auto found = map->find({symbol, label_set_id});
  return found == map->end() ? nullptr : &found->second;
}

template <typename T, typename Visit>
void MetricsStore::for_each_series(Visit&& visit) const {
  const auto& map = std::get<SeriesMap<T>>(series_);
  if (map == nullptr) return;
  for (const auto& [key, one] : *map) {
    if constexpr (std::is_invocable_v<Visit&, std::uint64_t, std::uint64_t, const TimeSeries<T>&>) {
      visit(key.symbol, key.label_set_id, one);
    } else {
      visit(key.symbol, one);
    }
  }
}

}  // namespace qvx::metrics
