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
using Messages = std::vector<std::string>;

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

TEST(ParseHistograms, RecordsAreFoundBetweenOtherBytesAndNumbered) {
  const std::string bytes = "x" + histogram_record("a", {}, labels_i(0, {})) + "yy" +
                            histogram_record("b", {{1, 1}}, labels_i(0, {"v"})) + "tail";
  HistogramStore store;
  const std::byte* const end = parse_histograms(begin_of(bytes), end_of(bytes), {}, &store);
  EXPECT_EQ(end, end_of(bytes) - 4);
  ASSERT_EQ(store.size(), 2u);
  EXPECT_EQ(store.at(0).name, "a");
  EXPECT_EQ(store.at(1).name, "b");
  EXPECT_EQ(store.at(1).id, 1u);
}

TEST(ParseHistograms, RecordCutByTheEndStopsWithoutAFault) {
  const std::string first = histogram_record("a", {}, labels_i(0, {}));
  const std::string bytes = first + histogram_record("b", {{1, 1}}, labels_i(0, {})).substr(0, 40);
  HistogramStore store;
  EXPECT_EQ(parse_histograms(begin_of(bytes), end_of(bytes), {}, &store), begin_of(bytes) + first.size());
  EXPECT_EQ(store.size(), 1u);
}

TEST(ParseHistograms, FaultKeepsTheHistogramsBeforeIt) {
  const std::string bytes = histogram_record("a", {}, labels_i(0, {})) +
                            histogram_record("b", {}, labels_l(0, {9})) +
                            histogram_record("c", {}, labels_i(0, {}));
  LogCapture log(QVX_LOG_ERROR);
  HistogramStore store;
  EXPECT_THROW(parse_histograms(begin_of(bytes), end_of(bytes), kLabelValues, &store), std::runtime_error);
  ASSERT_EQ(store.size(), 1u);
  EXPECT_EQ(store.at(0).name, "a");
}

TEST(ParseHistograms, SecondRecordOfOneIdentityUpdatesTheFirst) {
  const std::string bytes = histogram_record("a", {{1, 1}}, labels_i(0, {"v"}), 10, 1, 1) +
                            histogram_record("a", {{1, 5}, {2, 6}}, labels_i(0, {"v"}), 20, 2, 11) +
                            histogram_record("a", {{1, 9}}, labels_i(0, {"v"}), 20, 3, 9);
  LogCapture log;
  HistogramStore store;
  parse_histograms(begin_of(bytes), end_of(bytes), {}, &store);
  ASSERT_EQ(store.size(), 1u);
  EXPECT_EQ(store.at(0).timestamp, 20u);
  EXPECT_EQ(store.at(0).buckets, (std::vector<HistogramBucket>{{1, 5}, {2, 6}}));
  EXPECT_EQ(store.at(0).sum, 2);
  EXPECT_EQ(store.at(0).count, 11u);
  EXPECT_TRUE(
      log.has(QVX_LOG_DEBUG, "[qvx metrics histograms] Histogram 'a' timestamp changed from 10 to 20"));
}

TEST(HistogramStore, BoundsMustNotDecrease) {
  HistogramStore store;
  const double equal_neighbours[] = {1, 1, 2};
  EXPECT_EQ(store.add_histogram("ok", {}, equal_neighbours), 0u);
  EXPECT_EQ(store.at(0).buckets, (std::vector<HistogramBucket>{{1, 0}, {1, 0}, {2, 0}}));
  LogCapture log;
  const double decreasing[] = {2, 1};
  try {
    store.add_histogram("bad", {}, decreasing);
    FAIL();
  } catch (const std::runtime_error& fault) {
    EXPECT_STREQ(fault.what(), "Histogram buckets must be monotonically increasing");
  }
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            Messages{"[qvx metrics histograms] Histogram buckets must be monotonically increasing"});
  EXPECT_EQ(store.size(), 1u);
}

TEST(HistogramStore, SameNameAndLabelsGiveTheFirstId) {
  HistogramStore store;
  LogCapture log;
  EXPECT_EQ(store.add_histogram("a", {0, {"x"}}, {}), 0u);
  EXPECT_EQ(store.add_histogram("a", {0, {"y"}}, {}), 1u);
  EXPECT_EQ(store.add_histogram("a", {0, {"x"}}, {}), 0u);
  EXPECT_EQ(
      log.texts(QVX_LOG_DEBUG),
      (Messages{"[qvx metrics histograms] Added new histogram with id 0 for 'a'",
                "[qvx metrics histograms] Added new histogram with id 1 for 'a'",
                "[qvx metrics histograms] Histogram with timeseries_id for 'a' already exists with id 0"}));
}

TEST(HistogramStore, NewIdIsOneMoreThanTheLargest) {
  HistogramStore store;
  Histogram histogram;
  histogram.name = "far";
  store.insert_or_update(41, histogram);
  EXPECT_EQ(store.add_histogram("next", {}, {}), 42u);
  EXPECT_EQ(store.at(41).id, 41u);
}

TEST(HistogramStore, UnknownIdIsAFault) {
  LogCapture log;
  const HistogramStore store;
  try {
    static_cast<void>(store.at(5));
    FAIL();
  } catch (const std::runtime_error& fault) {
    EXPECT_STREQ(fault.what(), "Histogram id does not exist");
  }
  EXPECT_EQ(log.texts(QVX_LOG_ERROR), Messages{"[qvx metrics histograms] Histogram id: 5 does not exist"});
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

TEST(PreallocatedVector, FailingWriteLeavesRoomForASmallerOne) {
  PreallocatedVector buffer(5);
  buffer.append("abc");
  EXPECT_THROW(buffer.push_back(std::uint32_t{1}), std::out_of_range);
  EXPECT_THROW(buffer.insert(as_bytes("xyz")), std::out_of_range);
  buffer.push_back(std::uint16_t{0x3130});
  EXPECT_EQ(as_text(buffer.bytes()), "abc01");
  EXPECT_EQ(buffer.capacity(), 5u);
}

}  // namespace
}  // namespace qvx::metrics
