// The counting pass.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "qvx/metrics/metrics_parser.h"
#include "tests/metrics/cntx_builder.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/log_capture.h"

namespace qvx::metrics {
namespace {

using namespace test;
using Messages = std::vector<std::string>;

bool count(std::string_view bytes, std::unordered_set<std::string>& names) {
  const GuardedBuffer buffer(bytes);
  return QvxMetricsParser::count_metrics_from_cntx_blocks(buffer.data(), buffer.data() + buffer.size(),
                                                          names);
}

TEST(CountMetrics, NamesOfValidSamplesAreAddedOnce) {
  TestBlock block;
  block.records = {record({.samples = {{0, 1}, {3, 1}, {0, 2}}}), record({.kind = 'H', .samples = {{1, 1}}})};
  std::unordered_set<std::string> names{"before"};
  LogCapture log;
  EXPECT_TRUE(count("x" + block.bytes() + block.bytes(), names));
  EXPECT_EQ(names, (std::unordered_set<std::string>{"before", "rx", "drop", "tx"}));
  EXPECT_TRUE(log.has(QVX_LOG_DEBUG, "[qvx metrics parser] Counted metrics from CNTX block 1"));
  EXPECT_TRUE(log.has(QVX_LOG_DEBUG, "[qvx metrics parser] Counted metrics from CNTX block 2"));
  EXPECT_EQ(log.texts(QVX_LOG_DEBUG).back(),
            "[qvx metrics parser] Counted metrics from 2 CNTX blocks, found 4 unique metrics");
  EXPECT_TRUE(
      log.has(QVX_LOG_DEBUG,
              "[qvx labels block] parse_labels_block: header - label_set_id=0, encoded_label_value_count=1, "
              "encoding_type=L, called by QvxMetricsParser::count_metrics_from_cntx_blocks"));
}

// What the counting pass warns of, its answer and the names it finds.
struct Counted {
  Messages warnings;
  bool sizes_are_good = false;
  std::unordered_set<std::string> names;
};

Counted counted(std::string_view bytes) {
  LogCapture log;
  Counted counted;
  counted.sizes_are_good = count(bytes, counted.names);
  counted.warnings = log.texts(QVX_LOG_WARNING);
  return counted;
}

TEST(CountMetrics, SizesOutOfRangeAreRefusedAndTheSearchGoesOn) {
  const Counted zero = counted(TestBlock().bytes_of_size(0) + TestBlock().bytes());
  EXPECT_EQ(zero.warnings, Messages{"[qvx metrics parser] Invalid block size 0 in CNTX block"});
  EXPECT_FALSE(zero.sizes_are_good);
  EXPECT_EQ(zero.names.size(), 1u);
  const Counted large = counted(TestBlock().bytes_of_size(1073741825));
  EXPECT_EQ(large.warnings, Messages{"[qvx metrics parser] Invalid block size 1073741825 in CNTX block"});
  EXPECT_FALSE(large.sizes_are_good);
  const Counted largest = counted(TestBlock().bytes_of_size(1073741824));
  EXPECT_TRUE(largest.warnings.empty());
  EXPECT_TRUE(largest.sizes_are_good);
  EXPECT_EQ(largest.names.size(), 1u);
}

TEST(CountMetrics, EachFaultOfABlockIsWarnedOf) {
  EXPECT_EQ(counted("CNTX123").warnings,
            Messages{"[qvx metrics parser] Insufficient data for CNTX block header"});
  TestBlock block;
  block.data_marker = "none";
  EXPECT_EQ(counted(block.bytes()).warnings,
            Messages{"[qvx metrics parser] No CNTD section found in CNTX block, skipping"});
  block = {};
  block.trailer = "cntdCNTX";
  EXPECT_EQ(counted(block.bytes()).warnings,
            Messages{"[qvx metrics parser] Invalid magic numbers in CNTX block"});
  EXPECT_EQ(counted("CNTX" + le32(23) + "CNTD123cntdcntx").warnings,
            Messages{"[qvx metrics parser] Insufficient data for blocksize in CNTX block"});
  block = {};
  block.metric_names = "CNTI" + le16(9) + "cnti";
  EXPECT_EQ(
      counted(block.bytes()).warnings,
      Messages{"[qvx metrics parser] Failed to count metrics from CNTX block 1: Invalid binary data format: "
               "Missing suffix"});
}

TEST(CountMetrics, EachFaultOfARecordStopsItsBlock) {
  TestBlock block;
  std::string too_many = record({});
  too_many.replace(12, 2, le16(2));
  block.records = {too_many};
  EXPECT_EQ(counted(block.bytes()).warnings,
            Messages{"[qvx metrics parser] num_samples 2 exceeds available data (max: 1)"});
  block.records = {record({.samples = {{4, 1}, {1, 1}}, .labels = labels_l(9, {200})})};
  const Counted bad_id = counted(block.bytes());
  EXPECT_EQ(bad_id.warnings, Messages{"[qvx metrics parser] Invalid metric_id 4 (max: 4), skipping"});
  EXPECT_EQ(bad_id.names, std::unordered_set<std::string>{"tx"});
  block.records = {record({.labels = "\x01\x01Z"}), record({.samples = {{1, 1}}})};
  const Counted bad_labels = counted(block.bytes());
  EXPECT_EQ(
      bad_labels.warnings,
      Messages{"[qvx metrics parser] Failed to parse labels block for counting: invalid encoding type"});
  EXPECT_EQ(bad_labels.names, std::unordered_set<std::string>{"rx"});
}

TEST(CountMetrics, EmptyBatchEndsItsBlockQuietly) {
  TestBlock block;
  block.records = {record({.samples = {}}), record({})};
  std::unordered_set<std::string> names;
  LogCapture log;
  EXPECT_TRUE(count(block.bytes(), names));
  EXPECT_TRUE(log.has(QVX_LOG_DEBUG, "[qvx metrics parser] Empty metrics batch, skipping"));
  EXPECT_TRUE(log.texts(QVX_LOG_WARNING).empty());
  EXPECT_TRUE(names.empty());
}

int whole_pass_failures = 0;

__attribute__((format(printf, 2, 3))) void throw_at_warnings(std::uint32_t level, const char* format, ...) {
  if (level == QVX_LOG_WARNING) throw std::runtime_error("callback");
  if (std::string(format) == "[qvx metrics parser] Failed to count metrics from CNTX blocks: %s")
    ++whole_pass_failures;
}

TEST(CountMetrics, FaultOfTheWholePassIsLoggedAndDoesNotVouchForTheSizes) {
  const LogCapture restores_the_logger;
  qvx_logger_register_callback(throw_at_warnings, QVX_LOG_WARNING);
  std::unordered_set<std::string> names;
  whole_pass_failures = 0;
  EXPECT_FALSE(count(TestBlock().bytes() + "CNTX", names));
  EXPECT_EQ(whole_pass_failures, 1);
}

TEST(CountMetrics, EveryTruncationStaysInsideTheBytesAndFindsNothing) {
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
      std::unordered_set<std::string> names;
      count(whole, names);
      EXPECT_TRUE(names.empty());
    });
  }
}

}  // namespace
}  // namespace qvx::metrics
