#include "qvx/metrics/histogram.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "tests/metrics/cntx_builder.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/log_capture.h"

namespace qvx::metrics {
namespace {

using namespace test;

const StringTable kLabelValues{"node7", "node8"};

const std::byte* begin_of(const std::string& bytes) {
  return as_bytes(bytes).data();
}
const std::byte* end_of(const std::string& bytes) {
  return begin_of(bytes) + bytes.size();
}

TEST(HistogramParse, EveryFieldIsRead) {
  const std::string bytes = histogram_record("latency", {{0.5, 2}, {1e300, 0xFFFFFFFFFFFFFFFF}},
                                             labels_m(3, {mixed_id(1), mixed_text("in")}), 77, -2.25, 9);
  LogCapture log;
  Histogram histogram;
  EXPECT_EQ(histogram.parse(begin_of(bytes), end_of(bytes), kLabelValues), end_of(bytes));
  EXPECT_EQ(histogram.name, "latency");
  EXPECT_EQ(histogram.timestamp, 77u);
  EXPECT_EQ(histogram.buckets, (std::vector<HistogramBucket>{{0.5, 2}, {1e300, 0xFFFFFFFFFFFFFFFF}}));
  EXPECT_EQ(histogram.sum, -2.25);
  EXPECT_EQ(histogram.count, 9u);
  EXPECT_EQ(histogram.labels.label_set_id, 3u);
  EXPECT_EQ(histogram.labels.values, (std::vector<std::string>{"node8", "in"}));
  EXPECT_EQ(log.texts(QVX_LOG_DEBUG).at(0),
            "[qvx labels block] parse_labels_block: header - label_set_id=3, encoded_label_value_count=2, "
            "encoding_type=M, called by Histogram::parse");
}

TEST(HistogramParse, RecordWithoutBucketsIsThirtyBytesAndItsNameAndLabels) {
  const std::string labels = labels_l(0, {0});
  const std::string bytes = histogram_record("abc", {}, labels);
  EXPECT_EQ(bytes.size(), 30u + 3u + labels.size() + 4u);
  Histogram histogram;
  EXPECT_EQ(histogram.parse(begin_of(bytes), end_of(bytes), kLabelValues), end_of(bytes));
  EXPECT_TRUE(histogram.buckets.empty());
}

TEST(HistogramParse, ClosingMarkerIsNotCompared) {
  std::string bytes = histogram_record("h", {}, labels_i(0, {}));
  bytes.replace(bytes.size() - 4, 4, "????");
  Histogram histogram;
  EXPECT_EQ(histogram.parse(begin_of(bytes), end_of(bytes), kLabelValues), end_of(bytes));
}

TEST(HistogramParse, EveryTruncationIsCutOrAFault) {
  const std::string bytes = histogram_record("lat", {{1, 1}, {2, 1}}, labels_l(0, {0, 1}));
  LogCapture log(QVX_LOG_ERROR);
  for_every_truncation(as_bytes(bytes), [](Bytes cut) {
    Histogram histogram;
    try {
      EXPECT_EQ(histogram.parse(cut.data(), cut.data() + cut.size(), kLabelValues), nullptr);
    } catch (const std::runtime_error&) {
      EXPECT_GE(cut.size(), 30u + 3u + 2u * 16u);  // the labels block
    }
  });
}

Histogram sample_histogram() {
  Histogram histogram;
  histogram.name = "lat";
  histogram.timestamp = 0x0102030405060708;
  histogram.buckets = {{1, 2}, {2, 3}};
  histogram.sum = 0.5;
  histogram.count = 5;
  return histogram;
}

TEST(SerializeHistogram, WritesTheRecordThatIsRead) {
  const std::string labels = labels_i(4, {"v"});
  PreallocatedVector buffer(200);
  serialize(sample_histogram(), as_bytes(labels), buffer);
  const std::string expected(
      "HIST\x08\x07\x06\x05\x04\x03\x02\x01\x03lat\x02"
      "\0\0\0\0\0\0\xF0\x3F\x02\0\0\0\0\0\0\0"
      "\0\0\0\0\0\0\0\x40\x03\0\0\0\0\0\0\0"
      "\0\0\0\0\0\0\xE0\x3F\x05\0\0\0\0\0\0\0"
      "\x04\x01I\x01vhist",
      74);
  EXPECT_EQ(as_text(buffer.bytes()), expected);
  Histogram read;
  EXPECT_EQ(read.parse(buffer.data(), buffer.data() + buffer.size(), {}), buffer.data() + buffer.size());
  EXPECT_EQ(read.buckets, sample_histogram().buckets);
}

std::string overflow_of(std::size_t capacity, std::size_t& written) {
  const std::string labels = labels_i(4, {"v"});
  PreallocatedVector buffer(capacity);
  try {
    serialize(sample_histogram(), as_bytes(labels), buffer);
  } catch (const std::out_of_range& fault) {
    written = buffer.size();
    return fault.what();
  }
  return {};
}

TEST(SerializeHistogram, OperationThatOverflowsIsNamedAndWhatWasWrittenStays) {
  std::size_t written = 0;
  EXPECT_EQ(overflow_of(74, written), "");
  EXPECT_EQ(overflow_of(73, written), "PreallocatedVector::append");  // "hist"
  EXPECT_EQ(written, 70u);
  EXPECT_EQ(overflow_of(69, written), "PreallocatedVector::insert");  // the labels
  EXPECT_EQ(written, 65u);
  EXPECT_EQ(overflow_of(64, written), "PreallocatedVector::push_back");  // the count
  EXPECT_EQ(written, 57u);
  EXPECT_EQ(overflow_of(3, written), "PreallocatedVector::append");
  EXPECT_EQ(written, 0u);
}

TEST(SerializeHistogram, NameOrBucketListThatDoesNotFitItsCountWritesNothing) {
  PreallocatedVector buffer(100000);
  Histogram histogram;
  histogram.name = std::string(256, 'x');
  EXPECT_THROW(serialize(histogram, {}, buffer), std::length_error);
  histogram.name = "x";
  histogram.buckets.resize(256);
  EXPECT_THROW(serialize(histogram, {}, buffer), std::length_error);
  EXPECT_EQ(buffer.size(), 0u);
  histogram.buckets.resize(255);
  serialize(histogram, {}, buffer);
  EXPECT_EQ(buffer.size(), 30u + 1u + 255u * 16u + 4u);
}

}  // namespace
}  // namespace qvx::metrics
