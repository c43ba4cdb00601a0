#include "qvx/metrics/metrics_parser.h"

#include <gtest/gtest.h>

#include <bit>
#include <stdexcept>
#include <string>

#include "tests/metrics/cntx_builder.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/log_capture.h"

namespace qvx::metrics {
namespace {

using namespace test;
using Messages = std::vector<std::string>;

// Runs the block loop over bytes that end at a guard page; the position it returns, as an offset.
std::ptrdiff_t process(std::string_view bytes, MetricsStore& store, const MetricFilter* filter = nullptr) {
  const GuardedBuffer buffer(bytes);
  return QvxMetricsParser::process_cntx_blocks(buffer.data(), buffer.data() + buffer.size(), filter, store) -
         buffer.data();
}

template <typename T>
std::vector<std::pair<std::uint64_t, T>> stored(const MetricsStore& store, std::string_view name) {
  std::vector<std::pair<std::uint64_t, T>> pairs;
  const auto symbol = store.symbols().find(name);
  if (!symbol) return pairs;
  const TimeSeries<T>* const series = store.find_series<T>(*symbol);
  for (std::size_t i = 0; series != nullptr && i < series->size(); ++i)
    pairs.emplace_back(series->timestamp(i), series->value(i));
  return pairs;
}

using Values = std::vector<std::pair<std::uint64_t, std::uint64_t>>;

// The faults of one block, as the block loop words them, and what it logged at level 3 before.
struct Fault {
  Messages errors;
  Messages warnings;
};

Fault fault_of(std::string_view bytes) {
  MetricsStore store;
  LogCapture log;
  process(bytes, store);
  return {log.texts(QVX_LOG_ERROR), log.texts(QVX_LOG_WARNING)};
}

Messages failed(const std::string& text) {
  return {"[qvx metrics parser] Failed to parse CNTX block 1: " + text};
}

TEST(ProcessCntxBlocks, BufferWithoutBlocksProcessesNothing) {
  MetricsStore store;
  LogCapture log;
  EXPECT_EQ(process("", store), 0);
  EXPECT_EQ(process("no block in here", store), 0);
  EXPECT_EQ(process("xxCNTX123", store), 0);
  EXPECT_EQ(log.texts(QVX_LOG_DEBUG), Messages(3, "[qvx metrics parser] Processed 0 CNTX blocks"));
}

TEST(ProcessCntxBlocks, EveryBlockIsStored) {
  TestBlock block;
  block.records = {record({.samples = {{0, 1}, {3, 2}}}),
                   record({.timestamp = 7, .kind = 'G', .samples = {{0, 9}}})};
  const std::string bytes = "junk" + block.bytes() + "more" + block.bytes() + "tail";
  MetricsStore store;
  LogCapture log;
  EXPECT_EQ(process(bytes, store), static_cast<std::ptrdiff_t>(bytes.size()) - 4);
  EXPECT_EQ(stored<std::uint64_t>(store, "rx"), (Values{{kBatchTime, 1}, {7, 9}, {kBatchTime, 1}, {7, 9}}));
  EXPECT_EQ(stored<std::uint64_t>(store, "drop"), (Values{{kBatchTime, 2}, {kBatchTime, 2}}));
  EXPECT_EQ(store.find_series<std::uint64_t>(*store.symbols().find("rx"))->kind(), MetricKind::gauge);
  EXPECT_EQ(store.find_series<std::uint64_t>(*store.symbols().find("drop"))->kind(), MetricKind::counter);
  EXPECT_EQ(store.symbols().reference_count(*store.symbols().find("rx")), 4u);
  EXPECT_TRUE(log.has(QVX_LOG_DEBUG, "[qvx metrics parser] Processed 2 CNTX blocks"));
  EXPECT_TRUE(log.texts(QVX_LOG_WARNING).empty());
}

TEST(ProcessCntxBlocks, FaultyBlockIsNotCountedAndTheNextOneIsStored) {
  TestBlock bad;
  bad.trailer = "cntdxxxx";
  MetricsStore store;
  LogCapture log;
  process(TestBlock().bytes() + bad.bytes() + bad.bytes() + TestBlock().bytes(), store);
  EXPECT_EQ(log.texts(QVX_LOG_WARNING), Messages(2,
                                                 "[qvx metrics parser] Failed to parse CNTX block 2: "
                                                 "Invalid magic numbers in the binary data"));
  EXPECT_TRUE(log.has(QVX_LOG_DEBUG, "[qvx metrics parser] Processed 2 CNTX blocks"));
  EXPECT_EQ(stored<std::uint64_t>(store, "rx").size(), 2u);
}

TEST(ProcessCntxBlocks, SizeBeyondTheBufferIsCutAtItsEnd) {
  MetricsStore store;
  const std::string bytes = TestBlock().bytes_of_size(0xFFFFFFFF);
  EXPECT_EQ(process(bytes, store), static_cast<std::ptrdiff_t>(bytes.size()));
  EXPECT_EQ(stored<std::uint64_t>(store, "rx").size(), 1u);
}

TEST(ProcessCntxBlocks, SmallestSizesMoveTheSearchOn) {
  MetricsStore store;
  LogCapture log(QVX_LOG_WARNING);
  EXPECT_EQ(process(TestBlock().bytes_of_size(1), store), 1);
  EXPECT_EQ(process(TestBlock().bytes_of_size(3), store), 3);
  EXPECT_EQ(log.texts(QVX_LOG_WARNING).size(), 2u);
}

TEST(TotalSize, FirstBlockAnswers) {
  LogCapture log;
  const std::string bytes = "xx" + TestBlock().bytes_of_size(4000000000u);
  const std::byte* const data = as_bytes(bytes).data();
  EXPECT_EQ(QvxMetricsParser::total_size(data, data + bytes.size()), 4000000000u);
  EXPECT_EQ(QvxMetricsParser::total_size(data, data + 9), 0u);
  EXPECT_EQ(QvxMetricsParser::total_size(data, data), 0u);
  EXPECT_EQ(log.texts(QVX_LOG_DEBUG),
            (Messages{"[qvx metrics parser] total_size: 4000000000",
                      "[qvx metrics parser] Missing 'CNTX' magic number in the binary data",
                      "[qvx metrics parser] Missing 'CNTX' magic number in the binary data"}));
}

TEST(ParseMetrics, MissingSectionAndBadTrailer) {
  TestBlock block;
  block.data_marker = "cntd";
  Fault fault = fault_of(block.bytes());
  EXPECT_EQ(fault.errors,
            Messages{"[qvx metrics parser] Invalid binary data format: Missing 'CNTD' magic number"});
  EXPECT_EQ(fault.warnings, failed("Missing 'CNTD' magic number in the binary data"));
  for (const char* const trailer : {"", "cntdcnt", "CNTDCNTX", "cntdcnty", "cntdcntx."}) {
    block = {};
    block.trailer = trailer;
    fault = fault_of(block.bytes());
    EXPECT_EQ(fault.warnings, failed("Invalid magic numbers in the binary data")) << trailer;
  }
}

TEST(ParseMetrics, DataAreaOfFourBytesOrLessHasNoBatches) {
  for (const char* const body : {"", "1", "123", "1234"}) {
    const std::string all =
        "CNTX" + le32(static_cast<std::uint32_t>(20 + std::string(body).size())) + "CNTD" + body + "cntdcntx";
    const Fault fault = fault_of(all);
    EXPECT_TRUE(fault.errors.empty() && fault.warnings.empty()) << body;
  }
}

TEST(ParseMetrics, TimestampOfZeroIsStoredAfterAnError) {
  TestBlock block;
  block.records = {record({.timestamp = 0})};
  MetricsStore store;
  LogCapture log;
  process(block.bytes(), store);
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            Messages{"[qvx metrics parser] invalid timestamp in the metrics batch"});
  EXPECT_EQ(stored<std::uint64_t>(store, "rx"), (Values{{0, 5}}));
}

TEST(ParseMetrics, RecordWithoutSamplesIsWarnedOfAndSteppedOver) {
  TestBlock block;
  block.records = {record({.samples = {}}), record({})};
  MetricsStore store;
  LogCapture log;
  process(block.bytes(), store);
  EXPECT_EQ(log.texts(QVX_LOG_WARNING), Messages{"[qvx metrics parser] no samples in the metrics batch"});
  EXPECT_EQ(stored<std::uint64_t>(store, "rx").size(), 1u);
}

TEST(ParseMetrics, OnlyCountersAndGaugesAreTaken) {
  for (const char kind : {'H', 'D', 'E', 'F', 'U', 'c', '\0', '\xC3'}) {
    TestBlock block;
    block.records = {record({}), record({.kind = kind}), record({})};
    MetricsStore store;
    LogCapture log;
    process(block.bytes(), store);
    EXPECT_EQ(log.texts(QVX_LOG_WARNING), failed("invalid metric type"));
    EXPECT_TRUE(log.texts(QVX_LOG_ERROR).empty());
    EXPECT_EQ(stored<std::uint64_t>(store, "rx").size(), 1u) << "the batch before stays";
  }
}

TEST(ParseMetrics, EachValueTypeHasItsSeries) {
  const std::uint64_t minus_two = 0xFFFFFFFFFFFFFFFE;
  TestBlock block;
  block.records = {record({.value_type = 1, .samples = {{0, minus_two}}}),
                   record({.value_type = 2, .samples = {{1, std::bit_cast<std::uint64_t>(2.5)}}}),
                   record({.value_type = 3, .samples = {{2, 0xAB}}}),
                   record({.value_type = 4, .samples = {{3, minus_two}}})};
  MetricsStore store;
  LogCapture log;
  process(block.bytes(), store);
  EXPECT_EQ(stored<std::uint64_t>(store, "rx"), (Values{{kBatchTime, minus_two}}));
  EXPECT_EQ(stored<double>(store, "tx").at(0).second, 2.5);
  EXPECT_EQ(stored<Bit64>(store, "err").at(0).second, Bit64{0xAB});
  EXPECT_EQ(stored<std::int64_t>(store, "drop").at(0).second, -2);
  for (const char* const text :
       {"[qvx metrics parser] Storing uint64 metric rx: 18446744073709551614",
        "[qvx metrics parser] Storing double metric tx: 2.500000",
        "[qvx metrics parser] Storing bit64 metric err: 0xab",
        "[qvx metrics parser] Storing int64 metric drop: -2",
        "[qvx metrics parser] metric id: 3, ts: 1700000000000000, name: drop, value: 18446744073709551614"})
    EXPECT_TRUE(log.has(QVX_LOG_DEBUG, text)) << text;
}

TEST(ParseMetrics, StringValuesAreNotStored) {
  TestBlock block;
  block.records = {record({.value_type = 5, .samples = {{1, 77}}}), record({})};
  MetricsStore store;
  LogCapture log;
  process(block.bytes(), store);
  EXPECT_EQ(
      log.texts(QVX_LOG_WARNING),
      (Messages{"[qvx metrics parser] String value type in numeric metrics path for metric tx",
                "[qvx metrics parser] Failed to store metric tx (id=1, value=77) - continuing with next "
                "metrics"}));
  EXPECT_FALSE(store.has_series(*store.symbols().find("tx")));
  EXPECT_EQ(stored<std::uint64_t>(store, "rx").size(), 1u);
}

TEST(ParseMetrics, UnknownValueTypesFallBackToUint64) {
  for (const std::uint8_t type : std::initializer_list<std::uint8_t>{0, 6, 7, 255}) {
    TestBlock block;
    block.records = {record({.value_type = type})};
    MetricsStore store;
    LogCapture log;
    process(block.bytes(), store);
    EXPECT_EQ(log.texts(QVX_LOG_WARNING),
              Messages{"[qvx metrics parser] Unknown/unsupported value type " + std::to_string(type) +
                       " for metric rx, falling back to UInt64"});
    EXPECT_EQ(stored<std::uint64_t>(store, "rx"), (Values{{kBatchTime, 5}}));
  }
}

TEST(ParseMetrics, TypeMismatchCostsTheSampleOnly) {
  TestBlock block;
  block.records = {record({.value_type = 2, .samples = {{0, 0}}}), record({.samples = {{0, 6}, {1, 7}}})};
  MetricsStore store;
  LogCapture log;
  process(block.bytes(), store);
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            Messages{"[qvx metrics parser] Failed to store typed value for metric rx (type=1, value=6): "
                     "Type mismatch for metric 'rx'"});
  EXPECT_EQ(log.texts(QVX_LOG_WARNING),
            Messages{"[qvx metrics parser] Failed to store metric rx (id=0, value=6) - continuing with next "
                     "metrics"});
  EXPECT_EQ(stored<std::uint64_t>(store, "tx"), (Values{{kBatchTime, 7}}));
}

TEST(ParseMetrics, SampleIdPastTheNamesFailsTheBlockAndKeepsWhatWasStored) {
  TestBlock block;
  block.records = {record({.samples = {{0, 1}, {4, 2}, {1, 3}}}), record({})};
  MetricsStore store;
  LogCapture log;
  process(block.bytes(), store);
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            Messages{"[qvx metrics parser] invalid metric id: 4, total metric names size: 4"});
  EXPECT_EQ(log.texts(QVX_LOG_WARNING), failed("invalid metric id"));
  EXPECT_EQ(stored<std::uint64_t>(store, "rx"), (Values{{kBatchTime, 1}}));
  EXPECT_TRUE(stored<std::uint64_t>(store, "tx").empty());
}

TEST(ParseMetrics, RecordOrSamplesThatLeaveTheBlockAreInsufficientData) {
  TestBlock block;
  block.records = {record({}).substr(0, 5)};  // 13 bytes with the trailer
  EXPECT_EQ(fault_of(block.bytes()).warnings, failed("Insufficient data for metrics samples"));
  std::string bytes = record({});
  bytes.replace(12, 2, le16(3));
  block.records = {bytes};
  EXPECT_EQ(fault_of(block.bytes()).warnings, failed("Insufficient data for metrics samples"));
}

TEST(ParseMetrics, LabelFaultsFailTheBlock) {
  TestBlock block;
  block.blocksize = 25;
  EXPECT_EQ(fault_of(block.bytes()).warnings, failed("insufficient data for header"));
  block = {};
  block.records = {record({.labels = labels_l(0, {3})})};
  EXPECT_EQ(fault_of(block.bytes()).warnings,
            failed("Failed to decode label value at index 0: invalid label id format"));
  block.records = {record({.labels = labels_l(9, {3})})};
  EXPECT_EQ(fault_of(block.bytes()).warnings,
            failed("Failed to decode label value at index 0: invalid label id format"))
      << "values are decoded whether or not the set is known";
}

TEST(ParseMetrics, LabelSetsReachTheReverseIndexWithoutConstantLabels) {
  TestBlock block;
  block.label_name_sets = label_names({"host", "port"});
  block.constant_labels = constant_labels({"site", "here"});
  block.records = {record({.labels = labels_m(0, {mixed_id(1), mixed_text("p9"), mixed_text("no name")})}),
                   record({.labels = labels_i(0, {"only"})}), record({.labels = labels_i(5, {"unnamed"})})};
  MetricsStore store;
  process(block.bytes(), store);
  std::vector<LabelSet> sets;
  for (const auto& [id, entry] : store.label_sets()) {
    if (sets.size() <= entry.sequence) sets.resize(entry.sequence + 1);
    sets[entry.sequence] = entry.label_set;
  }
  EXPECT_EQ(sets, (std::vector<LabelSet>{{{"host", "node8"}, {"port", "p9"}}, {{"host", "only"}}, {}}));
}

TEST(ParseMetrics, HistogramsAreRegisteredEvenIfTheRestOfTheBlockFails) {
  TestBlock block;
  block.histograms =
      histogram_record("lat", {{1, 2}}, labels_l(0, {1})) + histogram_record("bad", {}, labels_l(0, {9}));
  block.data_marker = "none";
  MetricsStore store;
  LogCapture log;
  process(block.bytes(), store);
  EXPECT_TRUE(log.has(QVX_LOG_ERROR,
                      "[qvx metrics parser] Error parsing histograms: Failed to decode label value "
                      "at index 0: invalid label id format"));
  ASSERT_EQ(store.histograms().size(), 1u);
  EXPECT_EQ(store.histograms().begin()->second.labels, (LabelSet{{"host", "node8"}}));
}

TEST(ParseMetrics, HistogramOfASetWithoutSectionHasNoLabels) {
  TestBlock block;
  block.histograms = histogram_record("lat", {{1, 2}}, labels_l(7, {1}));
  MetricsStore store;
  process(block.bytes(), store);
  ASSERT_EQ(store.histograms().size(), 1u);
  EXPECT_EQ(store.histograms().begin()->second.name, "lat");
  EXPECT_EQ(store.histograms().begin()->second.labels, LabelSet{});
}

TEST(ParseMetrics, EachStepIsTraced) {
  LogCapture log;
  MetricsStore store;
  process(TestBlock().bytes(), store);
  for (const char* const text :
       {"[qvx metrics parser] data_len = 44", "[qvx metrics parser] End of data at 32",
        "[qvx metrics parser] blocksize= 4096", "[qvx metrics parser] offset=4 end=32",
        "[qvx labels block] parse_labels_block: header - label_set_id=0, encoded_label_value_count=1, "
        "encoding_type=L, called by unknown"})
    EXPECT_TRUE(log.has(QVX_LOG_DEBUG, text)) << text;
}

TEST(Filter, UnmatchedMetricsAreSkippedSilently) {
  TestBlock block;
  block.records = {record({.samples = {{0, 1}, {1, 2}, {2, 3}, {3, 4}}})};
  MetricFilter filter;
  filter.add_name("tx");
  filter.add_pattern("dr", MetricFilter::kPrefix);
  MetricsStore store;
  LogCapture log;
  process(block.bytes(), store, &filter);
  EXPECT_TRUE(stored<std::uint64_t>(store, "rx").empty());
  EXPECT_EQ(stored<std::uint64_t>(store, "tx").size(), 1u);
  EXPECT_TRUE(stored<std::uint64_t>(store, "err").empty());
  EXPECT_EQ(stored<std::uint64_t>(store, "drop").size(), 1u);
  EXPECT_TRUE(log.texts(QVX_LOG_WARNING).empty());
}

TEST(Filter, MetricThatHasASeriesOfAnyTypeIsAccepted) {
  MetricFilter nothing;
  MetricsStore store;
  store.set_registration(false);
  store.series<double>(store.symbols().intern("rx"), "rx");
  TestBlock block;
  block.records = {record({.samples = {{0, 1}, {1, 2}}})};
  process(block.bytes(), store, &nothing);
  EXPECT_EQ(stored<std::uint64_t>(store, "rx").size(), 1u);
  EXPECT_TRUE(stored<std::uint64_t>(store, "tx").empty());
}

TEST(Filter, ChangesOnlyLeavesEqualValuesOut) {
  TestBlock block;
  block.records = {record({.timestamp = 1}), record({.timestamp = 2}),
                   record({.timestamp = 3, .samples = {{0, 6}}})};
  MetricFilter filter;
  filter.add_name("rx");
  filter.set_changes_only(true);
  MetricsStore store;
  process(block.bytes(), store, &filter);
  EXPECT_EQ(stored<std::uint64_t>(store, "rx"), (Values{{1, 5}, {3, 6}}));
}

TEST(ProcessCntxBlocks, EveryTruncationStaysInsideTheBytesAndStoresNothing) {
  TestBlock block;
  block.label_name_sets += label_names({"a", "b"});
  block.histograms = histogram_record("lat", {{1, 2}}, labels_m(0, {mixed_id(0), mixed_text("x")}));
  block.constant_labels = constant_labels({"site", "here"});
  block.records = {record({.labels = labels_i(1, {"x", "y"})}),
                   record({.labels = labels_m(0, {mixed_id(1)})})};
  const std::string bytes = block.bytes();
  LogCapture log(QVX_LOG_WARNING);
  for (const bool own_size : {false, true}) {
    for_every_truncation(as_bytes(bytes), [own_size](Bytes cut) {
      std::string whole(as_text(cut));
      // The true size, or the size of what is left, so that the cut shows in the middle of the block too.
      if (own_size && whole.size() >= 8) whole.replace(4, 4, le32(static_cast<std::uint32_t>(whole.size())));
      MetricsStore store;
      process(whole, store);
      EXPECT_EQ(store.find_series<std::uint64_t>(store.symbols().find("rx").value_or(0)), nullptr);
    });
  }
}

}  // namespace
}  // namespace qvx::metrics
