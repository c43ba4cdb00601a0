#include "qvx/metrics/metrics_store.h"

#include <boost/functional/hash.hpp>
#include <gtest/gtest.h>

#include <new>
#include <stdexcept>
#include <string>
#include <thread>

#include "qvx/metrics/metric_filter.h"
#include "tests/support/failing_allocations.h"

namespace qvx::metrics {
namespace {

using data::metrics::SymbolTable;

TEST(SymbolTable, InterningTwiceGivesOneSymbolWithTwoReferences) {
  SymbolTable table;
  const std::uint64_t symbol = table.intern("rx_bytes");
  EXPECT_EQ(table.reference_count(symbol), 1u);
  EXPECT_EQ(table.intern("rx_bytes"), symbol);
  EXPECT_EQ(table.reference_count(symbol), 2u);
  EXPECT_EQ(table.name_of(symbol), "rx_bytes");
  EXPECT_EQ(table.size(), 1u);
}

TEST(SymbolTable, SymbolThatWasNeverGivenHasNoReferences) {
  SymbolTable table;
  const SymbolTable& same = table;
  const std::uint64_t symbol = table.intern("rx_bytes");
  EXPECT_EQ(same.reference_count(symbol), 1u);
  EXPECT_THROW(static_cast<void>(same.reference_count(symbol + 1)), SymbolTable::SymbolNotFoundError);
  EXPECT_THROW(static_cast<void>(table.reference_count(symbol + 1)), SymbolTable::SymbolNotFoundError);
  EXPECT_EQ(table.size(), 1u);
}

TEST(SymbolTable, SymbolIsTheBoostStringHash) {
  SymbolTable table;
  EXPECT_EQ(table.intern("rx_bytes"), boost::hash<std::string>{}("rx_bytes"));
  EXPECT_EQ(table.find("rx_bytes"), boost::hash<std::string>{}("rx_bytes"));
  EXPECT_EQ(table.find("tx_bytes"), std::nullopt);
}

TEST(SymbolTable, LastUseThatIsReleasedForgetsTheName) {
  SymbolTable table;
  const std::uint64_t symbol = table.intern("rx");
  table.intern("rx");
  table.intern("tx");
  table.release("rx");
  table.release("unknown");
  EXPECT_EQ(table.reference_count(symbol), 1u);
  table.release("rx");
  EXPECT_EQ(table.find("rx"), std::nullopt);
  EXPECT_THROW(static_cast<void>(table.name_of(symbol)), SymbolTable::SymbolNotFoundError);
  EXPECT_EQ(table.size(), 1u);
  EXPECT_EQ(table.intern("rx"), symbol);
  EXPECT_EQ(table.reference_count(symbol), 1u);
  table.forget(symbol);
  table.forget(symbol);
  EXPECT_EQ(table.find("rx"), std::nullopt);
}

TEST(SymbolTable, NameThatMemoryWasTooShortForIsNotKnown) {
  const std::string name(100, 'n');
  const std::uint64_t symbol = SymbolTable::symbol_of(name);
  bool is_interned = false;
  for (std::size_t successes = 0; !is_interned; ++successes) {
    SymbolTable table;
    try {
      const test::FailingAllocations failing(successes, test::FailingAllocations::Failing::once);
      table.intern(name);
      is_interned = true;
    } catch (const std::bad_alloc&) {
      EXPECT_EQ(table.find(name), std::nullopt) << successes;
      EXPECT_EQ(table.size(), 0u) << successes;
      EXPECT_THROW(static_cast<void>(table.reference_count(symbol)), SymbolTable::SymbolNotFoundError);
    }
    table.release(name);
    EXPECT_EQ(table.intern(name), symbol);
    EXPECT_EQ(table.name_of(symbol), name);
    EXPECT_EQ(table.reference_count(symbol), 1u);
  }
}

TEST(SymbolTable, UnknownSymbolIsNamedInTheError) {
  SymbolTable table;
  try {
    static_cast<void>(table.name_of(18446744073709551615u));
    FAIL();
  } catch (const SymbolTable::SymbolNotFoundError& fault) {
    EXPECT_STREQ(fault.what(), "Symbol not found for key: 18446744073709551615");
  }
  EXPECT_THROW(table.reference_count(1), SymbolTable::SymbolNotFoundError);
}

LabelMap labels_of(std::initializer_list<LabelMap::Entry> entries) {
  LabelMap labels;
  for (const auto& [name, value] : entries)
    labels.set(name, value);
  return labels;
}

TEST(ReverseIndex, OneIdPerLabelSet) {
  ReverseIndex index;
  const std::uint64_t id = index.id_of(labels_of({{"host", "node7"}, {"port", "1"}}));
  const std::uint64_t other = index.id_of(labels_of({{"port", "1"}, {"host", "node7"}}));
  const std::uint64_t none = index.id_of({});
  EXPECT_NE(id, other);
  EXPECT_EQ(index.id_of(labels_of({{"host", "node7"}, {"port", "1"}})), id);
  EXPECT_EQ(index.size(), 3u);
  ASSERT_NE(index.find(id), nullptr);
  EXPECT_EQ(index.find(id)->label_set, (LabelSet{{"host", "node7"}, {"port", "1"}}));
  EXPECT_EQ(index.find(id)->sequence, 0u);
  EXPECT_EQ(index.find(other)->sequence, 1u);
  EXPECT_EQ(index.find(none)->sequence, 2u);
  EXPECT_EQ(index.find(3), nullptr);
}

TEST(ReverseIndex, IdOfAForgottenLabelSetIsNotGivenAgain) {
  ReverseIndex index;
  const LabelMap first = labels_of({{"host", "a"}});
  const LabelMap second = labels_of({{"host", "b"}});
  EXPECT_EQ(index.id_of(first, 10), 0u);
  EXPECT_EQ(index.id_of(second, 20), 1u);
  EXPECT_EQ(index.id_of(second, 5), 1u);
  EXPECT_EQ(index.find(1)->last_seen, 5u);
  index.forget_if([](std::uint64_t id, const ReverseIndex::Entry&) { return id == 1; });
  EXPECT_EQ(index.find(1), nullptr);
  EXPECT_EQ(index.find(0)->label_set, (LabelSet{{"host", "a"}}));
  EXPECT_EQ(index.symbols().find("b"), std::nullopt);
  EXPECT_EQ(index.symbols().reference_count(*index.symbols().find("host")), 1u);
  EXPECT_EQ(index.id_of(labels_of({{"host", "c"}}), 30), 2u);
  EXPECT_EQ(index.id_of(second, 40), 3u);
  EXPECT_EQ(index.size(), 3u);
}

TEST(ReverseIndex, IdsDoNotWrap) {
  ReverseIndex index;
  index.insert(18446744073709551614u, 0, labels_of({{"a", "b"}}));
  EXPECT_EQ(index.id_of(labels_of({{"a", "b"}})), 18446744073709551614u);
  EXPECT_THROW(index.id_of(labels_of({{"a", "c"}})), std::runtime_error);
  EXPECT_THROW(index.insert(18446744073709551615u, 1, labels_of({{"a", "c"}})), std::runtime_error);
  EXPECT_THROW(index.insert(1, 18446744073709551615u, labels_of({{"a", "c"}})), std::runtime_error);
  EXPECT_EQ(index.size(), 1u);
  EXPECT_EQ(index.symbols().find("c"), std::nullopt);
}

TEST(ReverseIndex, LabelSetThatIsKnownIsADuplicate) {
  ReverseIndex index;
  index.insert(1, 10, labels_of({{"a", "b"}}));
  EXPECT_THROW(index.insert(2, 11, labels_of({{"a", "b"}})), std::runtime_error);
  EXPECT_EQ(index.id_of(labels_of({{"x", "y"}})), 2u);
  EXPECT_EQ(index.find(2)->sequence, 11u);
}

TEST(ReverseIndex, NamesAndValuesAreInternedOncePerEntry) {
  ReverseIndex index;
  index.id_of(labels_of({{"host", "node7"}}));
  index.id_of(labels_of({{"host", "node7"}}));
  index.id_of(labels_of({{"host", "node8"}}));
  const SymbolTable& symbols = index.symbols();
  EXPECT_EQ(symbols.size(), 3u);
  EXPECT_EQ(symbols.reference_count(*symbols.find("host")), 2u);
  EXPECT_EQ(symbols.reference_count(*symbols.find("node7")), 1u);
}

TEST(ReverseIndex, LabelSetThatMemoryWasTooShortForLeavesNothing) {
  const LabelMap labels = labels_of({{"host", "node7"}, {"a label without end", "a value without end"}});
  bool is_inserted = false;
  for (std::size_t successes = 0; !is_inserted; ++successes) {
    ReverseIndex index;
    try {
      const test::FailingAllocations failing(successes, test::FailingAllocations::Failing::once);
      index.insert(7, 3, labels);
      is_inserted = true;
    } catch (const std::bad_alloc&) {
      EXPECT_EQ(index.size(), 0u) << successes;
      EXPECT_EQ(index.symbols().size(), 0u) << successes;
      index.insert(7, 3, labels);
    }
    EXPECT_EQ(index.id_of(labels), 7u);
    EXPECT_EQ(index.symbols().reference_count(*index.symbols().find("host")), 1u) << successes;
  }
}

TEST(ReverseIndex, TakenIdOrSequenceIsADuplicate) {
  ReverseIndex index;
  index.insert(1, 10, labels_of({{"a", "b"}}));
  for (const auto& [id, sequence] : {std::pair{1, 11}, std::pair{2, 10}}) {
    try {
      index.insert(static_cast<std::uint64_t>(id), static_cast<std::uint64_t>(sequence), {});
      FAIL();
    } catch (const std::runtime_error& fault) {
      EXPECT_STREQ(fault.what(), "[ReverseIndex] Duplicate key or value detected.");
    }
  }
  EXPECT_EQ(index.size(), 1u);
}

template <typename T>
std::vector<std::pair<std::uint64_t, T>> pairs_of(const TimeSeries<T>& series) {
  std::vector<std::pair<std::uint64_t, T>> pairs;
  for (std::size_t i = 0; i < series.size(); ++i)
    pairs.emplace_back(series.timestamp(i), series.value(i));
  return pairs;
}

TEST(TimeSeries, KeepsTheMostRecentPairsOldestFirst) {
  using Pairs = std::vector<std::pair<std::uint64_t, std::int64_t>>;
  TimeSeries<std::int64_t> series(3);
  EXPECT_TRUE(series.empty());
  EXPECT_EQ(series.kind(), MetricKind::untyped);
  for (const int i : {1, 2, 3}) {
    series.append(static_cast<std::uint64_t>(i), -i);
    EXPECT_EQ(series.last_value(), -i);
  }
  EXPECT_EQ(pairs_of(series), (Pairs{{1, -1}, {2, -2}, {3, -3}}));
  series.append(4, -4);
  EXPECT_EQ(pairs_of(series), (Pairs{{2, -2}, {3, -3}, {4, -4}}));
  EXPECT_EQ(series.last_value(), -4);
  series.append(5, -5);
  EXPECT_EQ(pairs_of(series), (Pairs{{3, -3}, {4, -4}, {5, -5}}));
  EXPECT_EQ(series.last_value(), -5);
  series.append(6, -6);
  EXPECT_EQ(series.last_value(), -6);
  EXPECT_EQ(pairs_of(series), (Pairs{{4, -4}, {5, -5}, {6, -6}}));
}

TEST(TimeSeries, UnchangedValuesAreNotAppended) {
  TimeSeries<double> series(8);
  series.append_if_changed(1, 0.0);
  series.append_if_changed(2, 0.0);
  series.append_if_changed(3, 1.5);
  series.append_if_changed(4, 1.5);
  series.append_if_changed(5, 0.0);
  EXPECT_EQ(pairs_of(series), (std::vector<std::pair<std::uint64_t, double>>{{1, 0.0}, {3, 1.5}, {5, 0.0}}));
}

TEST(TimeSeries, IsSeenWhetherItChangesOrNot) {
  TimeSeries<double> series(8);
  series.append_if_changed(1, 0.5);
  EXPECT_EQ(series.last_seen(), 1u);
  series.append_if_changed(9, 0.5);
  EXPECT_EQ(series.last_seen(), 9u);
  EXPECT_EQ(series.size(), 1u);
  series.append(4, 0.5);
  EXPECT_EQ(series.last_seen(), 4u);
}

TEST(TimeSeries, CapacityOfNothingKeepsNothing) {
  TimeSeries<std::uint64_t> series(0);
  series.append(1, 1);
  series.append_if_changed(2, 2);
  EXPECT_TRUE(series.empty());
}

TEST(MetricsStore, SecondTypeOfAMetricIsAMismatchThatNamesIt) {
  MetricsStore store;
  const std::uint64_t symbol = store.symbols().intern("rx");
  store.series<double>(symbol, "rx").append(1, 2.5);
  try {
    store.series<std::uint64_t>(symbol, "rx");
    FAIL();
  } catch (const std::runtime_error& fault) {
    EXPECT_STREQ(fault.what(), "Type mismatch for metric 'rx'");
  }
  EXPECT_EQ(store.series<double>(symbol, "rx").size(), 1u);
  EXPECT_EQ(store.find_series<std::uint64_t>(symbol), nullptr);
}

TEST(MetricsStore, WithoutRegistrationAMetricHasASeriesPerType) {
  MetricsStore store;
  store.set_registration(false);
  const std::uint64_t symbol = store.symbols().intern("rx");
  EXPECT_FALSE(store.has_series(symbol));
  store.series<std::uint64_t>(symbol, "rx").append(1, 1);
  store.series<Bit64>(symbol, "rx");
  store.series<std::int64_t>(symbol, "rx");
  store.series<double>(symbol, "rx");
  EXPECT_TRUE(store.has_series(symbol));
  std::size_t visited = 0;
  store.for_each_series<std::uint64_t>([&](std::uint64_t seen, const TimeSeries<std::uint64_t>& series) {
    EXPECT_EQ(seen, symbol);
    visited += series.size();
  });
  EXPECT_EQ(visited, 1u);
}

TEST(MetricsStore, CapacityIsTheMetricsOwnOrTheDefault) {
  MetricsStore store(7);
  store.set_capacity("own", 2);
  EXPECT_EQ(store.series<double>(store.symbols().intern("own"), "own").capacity(), 2u);
  EXPECT_EQ(store.series<double>(store.symbols().intern("other"), "other").capacity(), 7u);
}

TEST(MetricsStore, SeriesPerLabelSetAreApart) {
  MetricsStore store;
  const std::uint64_t symbol = store.symbols().intern("rx");
  store.series<double>(symbol, "rx", 3).append(1, 2.5);
  store.series<double>(symbol, "rx", 4).append(1, 7.5);
  EXPECT_EQ(store.find_series<double>(symbol), nullptr);
  EXPECT_EQ(store.find_series<double>(symbol, 5), nullptr);
  EXPECT_EQ(store.find_series<double>(symbol, 4)->last_value(), 7.5);
  EXPECT_TRUE(store.has_series(symbol));
  double sum = 0;
  store.for_each_series<double>(
      [&](std::uint64_t seen, std::uint64_t label_set_id, const TimeSeries<double>& series) {
        EXPECT_EQ(seen, symbol);
        sum += static_cast<double>(label_set_id) * series.last_value();
      });
  EXPECT_EQ(sum, 3 * 2.5 + 4 * 7.5);
  EXPECT_THROW(store.series<std::uint64_t>(symbol, "rx", 9), std::runtime_error)
      << "the type is the metric's";
}

TEST(MetricsStore, SwitchingRegistrationForgetsWhatWasResolved) {
  MetricsStore store;
  const std::string table = "\2rx";
  store.resolved_metrics(as_bytes(table), 1)->symbol = 5;
  EXPECT_EQ(store.resolved_metrics(as_bytes(table), 1)->symbol, 5u);
  store.set_registration(false);
  EXPECT_EQ(store.resolved_metrics(as_bytes(table), 1)->symbol, 0u);
  store.resolved_metrics(as_bytes(table), 1)->symbol = 5;
  EXPECT_EQ(store.resolved_metrics(as_bytes("\2tx"), 1)->symbol, 0u);
}

TEST(MetricsStore, LaterHistogramOfOneNameReplacesTheEarlier) {
  MetricsStore store;
  Histogram histogram;
  histogram.name = "lat";
  histogram.timestamp = 1;
  histogram.buckets = {{1, 1}};
  store.register_histogram(histogram, labels_of({{"host", "node7"}}));
  histogram.timestamp = 2;
  histogram.buckets = {{3, 4}};
  histogram.sum = 1.5;
  histogram.count = 4;
  store.register_histogram(histogram, labels_of({{"host", "node8"}}));
  ASSERT_EQ(store.histograms().size(), 1u);
  const RegisteredHistogram& stored = store.histograms().at(*store.symbols().find("lat"));
  EXPECT_EQ(stored.name, "lat");
  EXPECT_EQ(stored.timestamp, 2u);
  EXPECT_EQ(stored.labels, (LabelSet{{"host", "node8"}}));
  EXPECT_EQ(stored.buckets, (std::vector<HistogramBucket>{{3, 4}}));
  EXPECT_EQ(stored.sum, 1.5);
  EXPECT_EQ(stored.count, 4u);
  EXPECT_EQ(store.label_sets().find(stored.label_set_id)->label_set, stored.labels);
  EXPECT_EQ(store.label_sets().size(), 2u);
}

TEST(MetricFilter, ExactNamesAndEachKindOfPattern) {
  MetricFilter filter;
  EXPECT_FALSE(filter.accepts("exact"));
  filter.add_name("exact");
  EXPECT_TRUE(filter.accepts("exact"));
  EXPECT_FALSE(filter.accepts("exact2"));
  filter.add_pattern("equal", 0);
  filter.add_pattern("pre_", 1);
  filter.add_pattern("_post", 2);
  filter.add_pattern("middle", 3);
  filter.add_pattern("never", 4);
  filter.add_pattern("never", -1);
  EXPECT_TRUE(filter.accepts("equal"));
  EXPECT_FALSE(filter.accepts("equally"));
  EXPECT_TRUE(filter.accepts("pre_x"));
  EXPECT_FALSE(filter.accepts("x_pre_"));
  EXPECT_TRUE(filter.accepts("x_post"));
  EXPECT_FALSE(filter.accepts("x_post_"));
  EXPECT_TRUE(filter.accepts("a middle b"));
  EXPECT_FALSE(filter.accepts("never"));
}

TEST(MetricFilter, NamesMayBeAddedByAnotherThread) {
  MetricFilter filter;
  std::thread adder([&filter] {
    for (int i = 0; i < 1000; ++i)
      filter.add_name("name" + std::to_string(i));
  });
  for (int i = 0; i < 1000; ++i)
    filter.accepts("name" + std::to_string(i));
  adder.join();
  EXPECT_TRUE(filter.accepts("name999"));
}

}  // namespace
}  // namespace qvx::metrics
