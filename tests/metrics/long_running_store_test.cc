// A store that is filled for years: what it holds, tells apart and forgets.
#include <gtest/gtest.h>
#include <malloc.h>

#include <string>
#include <vector>

#include "qvx/metrics/metrics_parser.h"
#include "tests/metrics/cntx_builder.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/log_capture.h"

namespace qvx::metrics {
namespace {

using namespace test;

void store_bytes(MetricsStore& store, const std::string& bytes, const MetricFilter* filter = nullptr) {
  QvxMetricsParser::process_cntx_blocks(as_bytes(bytes).data(), as_bytes(bytes).data() + bytes.size(), filter,
                                        store);
}

void store_block(MetricsStore& store, const TestBlock& block, const MetricFilter* filter = nullptr) {
  store_bytes(store, block.bytes(), filter);
}

// "name{label=value,...} last" of every series, in order.
std::vector<std::string> series_of(const MetricsStore& store) {
  std::vector<std::string> lines;
  store.for_each_series<std::uint64_t>(
      [&](std::uint64_t symbol, std::uint64_t label_set_id, const TimeSeries<std::uint64_t>& series) {
        std::string line = store.symbols().name_of(symbol) + "{";
        if (const ReverseIndex::Entry* const entry = store.label_sets().find(label_set_id)) {
          for (const auto& [name, value] : entry->label_set)
            line.append(name).append("=").append(value).append(",");
        }
        lines.push_back(line + "} " + std::to_string(series.last_value()));
      });
  std::sort(lines.begin(), lines.end());
  return lines;
}

using Lines = std::vector<std::string>;

TestBlock block_of(const std::vector<TestBatch>& batches) {
  TestBlock block;
  block.records.clear();
  for (const TestBatch& batch : batches)
    block.records.push_back(record(batch));
  return block;
}

TEST(LongRunningStore, LabelSetsShareASeriesUnlessAskedOtherwise) {
  TestBlock block =
      block_of({{.labels = labels_l(0, {0})}, {.samples = {{0, 6}, {1, 7}}, .labels = labels_l(0, {1})}});
  block.constant_labels = constant_labels({"site", "here"});
  MetricsStore shared;
  store_block(shared, block);
  EXPECT_EQ(series_of(shared), (Lines{"rx{} 6", "tx{} 7"}));
  MetricsStore apart;
  apart.set_series_per_label_set(true);
  store_block(apart, block);
  block.constant_labels = constant_labels({"site", "away"});
  block.records = {record({.samples = {{0, 8}}})};
  store_block(apart, block);
  EXPECT_EQ(series_of(apart), (Lines{"rx{site=away,host=node7,} 8", "rx{site=here,host=node7,} 5",
                                     "rx{site=here,host=node8,} 6", "tx{site=here,host=node8,} 7"}));
}

TEST(LongRunningStore, SeriesAndLabelSetsThatAreNotSeenAreForgotten) {
  MetricsStore store;
  store.set_series_per_label_set(true);
  store_block(store, block_of({{.timestamp = 10, .samples = {{0, 1}, {1, 1}}, .labels = labels_l(0, {0})},
                               {.timestamp = 20, .samples = {{0, 2}}, .labels = labels_l(0, {1})},
                               {.timestamp = 30, .samples = {{0, 3}}, .labels = labels_l(0, {2})}}));
  EXPECT_EQ(store.forget_before(10), 0u);
  EXPECT_EQ(store.forget_before(20), 2u);
  EXPECT_EQ(series_of(store), (Lines{"rx{host=node8,} 2", "rx{host=p1,} 3"}));
  EXPECT_EQ(store.label_sets().size(), 2u);
  EXPECT_EQ(store.symbols().find("tx"), std::nullopt) << "a metric without series";
  EXPECT_NE(store.symbols().find("rx"), std::nullopt);
  // What comes again is new, in whatever type.
  store_block(
      store, block_of({{.timestamp = 40, .value_type = 2, .samples = {{1, 0}}, .labels = labels_l(0, {0})}}));
  EXPECT_NE(store.find_series<double>(*store.symbols().find("tx"), 3), nullptr);
  EXPECT_EQ(store.label_sets().find(3)->label_set, (LabelSet{{"host", "node7"}}));
  EXPECT_EQ(store.forget_before(100), 3u);
  EXPECT_EQ(store.label_sets().size(), 0u);
  EXPECT_EQ(store.symbols().size(), 0u);
  EXPECT_EQ(store.label_sets().symbols().size(), 0u);
}

TEST(LongRunningStore, WhatASeriesOrAHistogramHasIsKept) {
  MetricsStore store;
  store.set_series_per_label_set(true);
  TestBlock block =
      block_of({{.timestamp = 30, .samples = {{0, 1}}},
                {.timestamp = 10, .samples = {{1, 2}}}});  // of the same label set, out of order
  block.histograms = histogram_record("tx", {}, labels_i(0, {"other"}), 25);
  store_block(store, block);
  EXPECT_EQ(store.forget_before(20), 1u);
  EXPECT_EQ(series_of(store), Lines{"rx{host=node7,} 1"});
  EXPECT_EQ(store.symbols().name_of(store.histograms().begin()->first), "tx");
}

TEST(LongRunningStore, UnchangedSamplesKeepASeriesAndItsLabelSet) {
  MetricFilter filter;
  filter.add_name("rx");
  filter.set_changes_only(true);
  MetricsStore store;
  for (const std::uint64_t time : {10, 20, 30})
    store_block(store, block_of({{.timestamp = time}}), &filter);
  EXPECT_EQ(store.forget_before(30), 0u);
  EXPECT_EQ(series_of(store), Lines{"rx{} 5"});
  EXPECT_EQ(store.label_sets().size(), 1u);
}

TEST(LongRunningStore, SamplesGoOnBehindForgetting) {
  MetricsStore store;
  // The same table of names each time, which the store need not resolve again but for forgetting.
  store_block(store, block_of({{.timestamp = 10, .samples = {{0, 1}, {1, 2}}}}));
  EXPECT_EQ(store.forget_before(20), 2u);
  store_block(store, block_of({{.timestamp = 30, .samples = {{0, 3}}}}));
  EXPECT_EQ(series_of(store), Lines{"rx{} 3"});
  EXPECT_EQ(store.symbols().reference_count(*store.symbols().find("rx")), 1u);
}

TEST(LongRunningStore, NamesThatTheFilterDoesNotWantAreForgotten) {
  MetricFilter filter;
  filter.add_name("rx");
  MetricsStore store;
  store_block(store, block_of({{.samples = {{0, 1}, {1, 2}, {2, 3}}}}), &filter);
  EXPECT_EQ(store.symbols().size(), 3u) << "names are kept of all samples";
  EXPECT_EQ(store.forget_unwanted(filter), 0u);
  EXPECT_EQ(store.symbols().size(), 1u);
  EXPECT_EQ(series_of(store), Lines{"rx{} 1"});
  MetricFilter other;
  other.add_pattern("t", MetricFilter::kPrefix);
  EXPECT_EQ(store.forget_unwanted(other), 1u);
  EXPECT_EQ(store.symbols().size(), 0u);
  store_block(store, block_of({{.samples = {{0, 1}, {1, 2}}}}), &other);
  EXPECT_EQ(series_of(store), Lines{"tx{} 2"});
}

TEST(LongRunningStore, NameThatNeverHadASeriesStaysUntilNoFilterWantsIt) {
  MetricFilter none;
  MetricsStore store;
  store_block(store, block_of({{.timestamp = 10, .samples = {{0, 1}}}}), &none);
  EXPECT_EQ(store.forget_before(20), 0u);
  EXPECT_NE(store.symbols().find("rx"), std::nullopt);
  MetricFilter wants;
  wants.add_name("rx");
  store.forget_unwanted(wants);
  EXPECT_NE(store.symbols().find("rx"), std::nullopt);
  store.forget_unwanted(none);
  EXPECT_EQ(store.symbols().find("rx"), std::nullopt);
}

TEST(LongRunningStore, HistogramsOfBlocksEnterTheHistogramStore) {
  TestBlock block;
  block.label_name_sets = label_names({"host", "port"}) + label_names({"port", "host"});
  block.histograms = histogram_record("lat", {{1, 2}}, labels_i(0, {"a", "1"}), 10, 1, 2) +
                     histogram_record("lat", {{1, 3}}, labels_i(0, {"b", "1"}), 10, 1, 3);
  MetricsStore store;
  store_block(store, block);
  // The same labels in another order, later.
  block.histograms = histogram_record("lat", {{1, 9}}, labels_i(1, {"1", "a"}), 20, 4, 9);
  LogCapture log;
  store_block(store, block);
  EXPECT_TRUE(
      log.has(QVX_LOG_DEBUG, "[qvx metrics histograms] Histogram 'lat' timestamp changed from 10 to 20"));
  const HistogramStore& histograms = static_cast<const MetricsStore&>(store).histogram_store();
  ASSERT_EQ(histograms.size(), 2u);
  EXPECT_EQ(histograms.at(0).count, 9u);
  EXPECT_EQ(histograms.at(0).labels.names, (std::vector<std::string>{"host", "port"}));
  EXPECT_EQ(histograms.at(0).labels.values, (std::vector<std::string>{"a", "1"}));
  EXPECT_EQ(histograms.at(1).labels.values, (std::vector<std::string>{"b", "1"}));
  EXPECT_EQ(histograms.at(1).count, 3u);
  EXPECT_EQ(store.histograms().size(), 1u) << "by name, the last one";

  EXPECT_EQ(store.label_sets().size(), 4u);  // of three histograms, and of the block's batch
  EXPECT_EQ(store.forget_before(15), 0u);
  EXPECT_EQ(histograms.size(), 1u);
  EXPECT_EQ(store.histograms().size(), 1u);
  EXPECT_EQ(store.label_sets().size(), 2u);
  store.forget_before(kBatchTime + 1);
  EXPECT_TRUE(histograms.empty());
  EXPECT_EQ(store.symbols().size(), 0u);
}

TEST(LongRunningStore, ShortMemoryLeavesTheStoreUsable) {
  const std::string bytes =
      block_of({{.samples = {{0, 1}, {1, 2}}, .labels = labels_l(0, {0})}, {.labels = labels_l(0, {1})}})
          .bytes();
  for (std::size_t successes = 0; successes < 120; ++successes) {
    MetricsStore store;
    store.set_series_per_label_set(true);
    {
      const LogCapture log(QVX_LOG_ERROR);
      const FailingAllocations failing(successes);
      store_bytes(store, bytes);
    }
    store_bytes(store, bytes);
    EXPECT_EQ(series_of(store), (Lines{"rx{host=node7,} 1", "rx{host=node8,} 5", "tx{host=node7,} 2"}))
        << successes;
    store.forget_before(kBatchTime + 1);
    EXPECT_EQ(store.symbols().size(), 0u) << successes;
    EXPECT_EQ(store.label_sets().size(), 0u) << successes;
  }
}

#if !defined(__SANITIZE_ADDRESS__)
TEST(LongRunningStore, HundredThousandNamesWithOneSampleEachTakeLessThan60MB) {
  const std::size_t before = mallinfo2().uordblks;
  MetricsStore store;
  for (int half = 0; half < 2; ++half) {
    Texts names;
    TestBatch batch;
    batch.samples.clear();
    for (int i = 0; i < 50000; ++i) {
      names.push_back("node_network_" + std::to_string(50000 * half + i));
      batch.samples.emplace_back(static_cast<std::uint16_t>(i), 1);
    }
    TestBlock block = block_of({batch});
    block.metric_names = metric_names(names);
    block.blocksize = 0xFFFFFFFF;
    store_block(store, block);
  }
  ASSERT_EQ(store.symbols().size(), 100000u);
  const std::size_t taken = mallinfo2().uordblks - before;
  EXPECT_LT(taken, 60'000'000u);
  RecordProperty("bytes", std::to_string(taken));
}
#endif

}  // namespace
}  // namespace qvx::metrics
