#include "qvx/metrics/histogram_store.h"

#include <gtest/gtest.h>

#include <new>
#include <stdexcept>
#include <string>

#include "tests/metrics/cntx_builder.h"
#include "tests/support/failing_allocations.h"
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

// One that could not be stored is as if it had never been there: the next of its identity is stored.
TEST(HistogramStore, HistogramThatFindsNoMemoryLeavesNothing) {
  Histogram histogram;
  histogram.name = "a name that is longer than a string keeps within itself";
  bool any_failed = true;
  for (std::size_t successes = 0; any_failed && successes < 1000; ++successes) {
    HistogramStore store;
    bool stored = false;
    {
      const FailingAllocations failures(successes, FailingAllocations::Failing::once);
      try {
        static_cast<void>(store.insert_or_update(7, histogram));
        stored = true;
      } catch (const std::bad_alloc&) {
      }
      any_failed = failures.any_failed();
    }
    EXPECT_NE(stored, any_failed);
    EXPECT_EQ(store.size(), stored ? 1u : 0u);
    EXPECT_EQ(store.insert_or_update(7, histogram), 7u) << successes;
    EXPECT_EQ(store.at(7).name, histogram.name);
    EXPECT_EQ(store.size(), 1u);
  }
  EXPECT_FALSE(any_failed);
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

TEST(HistogramStore, IdOfAnotherHistogramIsNotTakenOver) {
  HistogramStore store;
  Histogram histogram;
  histogram.name = "first";
  EXPECT_EQ(store.insert_or_update(7, histogram), 7u);
  histogram.name = "second";
  EXPECT_EQ(store.insert_or_update(7, histogram), 8u);
  histogram.name = "third";
  EXPECT_EQ(store.insert_or_update(5, histogram), 5u);
  EXPECT_EQ(store.at(7).name, "first");
  EXPECT_EQ(store.at(8).name, "second");
  EXPECT_EQ(store.next_id(), 9u);
  EXPECT_EQ(store.insert_or_update(1, store.at(7)), 7u) << "known already";
}

TEST(HistogramStore, IdsDoNotWrap) {
  HistogramStore store;
  Histogram histogram;
  histogram.name = "last";
  store.insert_or_update(18446744073709551615u, histogram);
  EXPECT_EQ(store.add_histogram("last", {}, {}), 18446744073709551615u);
  try {
    store.add_histogram("one more", {}, {});
    FAIL();
  } catch (const std::runtime_error& fault) {
    EXPECT_STREQ(fault.what(), "Histogram ids are used up");
  }
  EXPECT_EQ(store.size(), 1u);
}

TEST(HistogramStore, ForgottenIdsAreNotGivenAgain) {
  HistogramStore store;
  Histogram histogram;
  for (const char* const name : {"a", "b", "c"}) {
    histogram.name = name;
    histogram.timestamp += 10;
    store.insert_or_update(store.next_id(), histogram);
  }
  store.forget_before(21);
  EXPECT_EQ(store.size(), 1u);
  EXPECT_EQ(store.at(2).name, "c");
  histogram.name = "a";
  EXPECT_EQ(store.insert_or_update(1, histogram), 3u);
  store.forget_before(31);
  EXPECT_TRUE(store.empty());
  EXPECT_EQ(store.add_histogram("c", {}, {}), 4u);
  store.clear();
  EXPECT_EQ(store.add_histogram("c", {}, {}), 0u);
}

TEST(HistogramStore, LabelsWithNamesAreComparedInTheOrderOfNames) {
  HistogramStore store;
  EXPECT_EQ(store.add_histogram("a", {0, {"x", "1"}, {"host", "port"}}, {}), 0u);
  EXPECT_EQ(store.add_histogram("a", {5, {"1", "x"}, {"port", "host"}}, {}), 0u);
  EXPECT_EQ(store.add_histogram("a", {0, {"1", "x"}, {"host", "port"}}, {}), 1u);
  EXPECT_EQ(store.add_histogram("a", {0, {"x", "1"}}, {}), 2u);
  EXPECT_EQ(store.add_histogram("a", {1, {"x", "1"}}, {}), 3u);
  EXPECT_EQ(store.add_histogram("b", {0, {"x", "1"}, {"host", "port"}}, {}), 4u);
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

}  // namespace
}  // namespace qvx::metrics
