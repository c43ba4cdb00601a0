// Threads that cannot be started or run out of memory, and what a consumer of the stream interface hears.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "qvx/columns/buffer.h"
#include "qvx/columns/survey.h"
#include "tests/columns/column_files.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/fake_threads.h"

namespace qvx {
namespace {

using columns::Query;
using columns::resolve;
using columns::TableStream;
using test::FailingAllocations;
using test::FakeThreads;
using test::jobs_block;
using test::loads_block;
using test::open;
using test::read;

class ThreadsTest : public testing::Test {
 protected:
  test::ColumnFiles files_;
  std::vector<std::string> paths_{files_.write("a.bin", {jobs_block(1, 2)}),
                                  files_.write("b.bin", {jobs_block(3, 2)})};
  const Query query_{.table = "job", .columns = {"id"}, .threads = 2};
  const std::vector<std::string> expected_{R"({"id":1})", R"({"id":2})", R"({"id":3})", R"({"id":4})"};
};

TEST_F(ThreadsTest, FewerThreadsThanWereAskedForGiveTheSameRows) {
  const FakeThreads one(1);
  EXPECT_EQ(read(open(paths_), query_).rows, expected_);
}

TEST_F(ThreadsTest, StreamThatCannotStartAThreadSaysSo) {
  const auto data = open(paths_);
  {
    const FakeThreads none(0);
    TableStream stream(data, resolve(*data, query_));
    ArrowArray batch{};
    EXPECT_THROW(static_cast<void>(stream.next(&batch)), std::system_error);
    EXPECT_EQ(batch.release, nullptr);
  }
  EXPECT_EQ(read(data, query_).rows, expected_);
}

TEST_F(ThreadsTest, ConsumerHearsWhyNoThreadCouldBeStarted) {
  const auto data = open(paths_);
  ArrowArrayStream stream;
  export_stream(std::make_unique<TableStream>(data, resolve(*data, query_)), &stream);
  ArrowArray batch{};
  {
    const FakeThreads none(0);
    EXPECT_EQ(stream.get_next(&stream, &batch), EAGAIN);
  }
  EXPECT_STREQ(stream.get_last_error(&stream), "Resource temporarily unavailable");
  stream.release(&stream);
}

TEST_F(ThreadsTest, ThreadWithoutMemoryFailsTheStream) {
  const auto data = open(paths_);
  for (const std::size_t successes : {std::size_t{0}, std::size_t{3}, std::size_t{30}}) {
    const FakeThreads scarce(2, successes);
    TableStream stream(data, resolve(*data, query_));
    ArrowArray batch{};
    EXPECT_THROW(static_cast<void>(stream.next(&batch)), std::bad_alloc) << successes;
    EXPECT_EQ(batch.release, nullptr);
  }
}

TEST_F(ThreadsTest, ConsumerHearsOfMissingMemoryByItsCode) {
  const auto data = open(paths_);
  ArrowArrayStream stream;
  export_stream(std::make_unique<TableStream>(data, resolve(*data, query_)), &stream);
  ArrowArray batch{};
  {
    const FakeThreads scarce(2, 3);
    EXPECT_EQ(stream.get_next(&stream, &batch), ENOMEM);
  }
  EXPECT_EQ(stream.get_last_error(&stream), nullptr);
  stream.release(&stream);
}

// Waits until so many files are decoded, though nobody takes their batches.
bool are_decoded(const TableStream& stream, std::uint64_t files) {
  for (int tries = 0; tries < 1000 && stream.progress()->files < files; ++tries)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return stream.progress()->files == files;
}

TEST_F(ThreadsTest, FilesBehindTheOneWhoseTurnItIsAreDecodedAhead) {
  const std::vector<std::string> paths{files_.write("c.bin", {jobs_block(1, 9)}),
                                       files_.write("d.bin", {jobs_block(10, 9)})};
  const auto data = open(paths);
  Query query = query_;
  query.batch_rows = 1;
  for (const bool in_order : {true, false}) {
    query.in_order = in_order;
    TableStream stream(data, resolve(*data, query));
    const test::OwnedArray first(new ArrowArray{});
    ASSERT_TRUE(stream.next(first.get()));
    EXPECT_TRUE(are_decoded(stream, 2));
    EXPECT_EQ(test::read_all(stream).rows.size(), 17u);
  }
}

TEST_F(ThreadsTest, DecodingAheadEndsWhereItsMemoryDoes) {
  const std::vector<std::string> paths{files_.write("c.bin", {jobs_block(1, 3)}),
                                       files_.write("d.bin", {jobs_block(4, 9)}),
                                       files_.write("e.bin", {jobs_block(13, 3)})};
  const auto data = open(paths);
  Query query = query_;
  query.batch_rows = 1;
  query.read_ahead_bytes = 0;
  TableStream stream(data, resolve(*data, query));
  const test::OwnedArray first(new ArrowArray{});
  ASSERT_TRUE(stream.next(first.get()));
  // Of the first file two batches wait, of the second as many and no more.
  EXPECT_TRUE(are_decoded(stream, 1));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(stream.progress()->files, 1u);
  EXPECT_EQ(test::read_all(stream).rows.size(), 14u);
}

// A batch of ten rows takes 516,000 bytes.
TEST_F(ThreadsTest, LongLabelsCountAsMemoryOfWhatWaits) {
  std::vector<std::string> paths;
  for (const char* const name : {"c.bin", "d.bin"})
    paths.push_back(files_.write(name, {test::long_labels_block(60)}, files_.header(131072)));
  const auto data = open(paths);
  TableStream stream(data, resolve(*data, {.table = "metrics",
                                           .columns = {"labels", "value"},
                                           .batch_rows = 10,
                                           .threads = 2,
                                           .read_ahead_bytes = 500000}));
  const test::OwnedArray first(new ArrowArray{});
  ASSERT_TRUE(stream.next(first.get()));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(stream.progress()->files, 0u);
  EXPECT_EQ(test::read_all(stream).rows.size(), 110u);
}

TEST_F(ThreadsTest, SurveyThatCannotStartAThreadSaysSo) {
  const auto data = open(paths_);
  {
    const FakeThreads none(0);
    EXPECT_THROW(columns::survey(*data, 2), std::system_error);
  }
  EXPECT_EQ(columns::survey(*data, 2).tables.at(0).rows, 4u);
}

TEST_F(ThreadsTest, SurveyOfAThreadWithoutMemoryThrowsOrIsWhole) {
  for (int file = 0; file < 20; ++file)
    paths_.push_back(paths_[0]);
  const auto data = open(paths_);
  // A thread that comes when all files are taken needs no memory.
  bool has_thrown = false;
  for (int attempt = 0; attempt < 1000 && !has_thrown; ++attempt) {
    try {
      const FakeThreads scarce(1, 0);
      EXPECT_EQ(columns::survey(*data, 2).tables.at(0).rows, 44u);
    } catch (const std::bad_alloc&) {
      has_thrown = true;
    }
  }
  EXPECT_TRUE(has_thrown);
}

TEST_F(ThreadsTest, LastBatchOfALimitHasNullsOnlyWhereItsRowsHave) {
  const std::vector<std::string> paths{files_.write("a.bin", {loads_block(1, "a", 0.5)}),
                                       files_.write("b.bin", {loads_block(2, "b", 1.5)})};
  const auto data = open(paths);
  TableStream stream(
      data,
      resolve(*data, {.table = "counters", .columns = {"node.used", "cpu.load"}, .limit = 4, .threads = 2}));
  const test::OwnedArray first(new ArrowArray{}), last(new ArrowArray{});
  ASSERT_TRUE(stream.next(first.get()));
  ASSERT_TRUE(stream.next(last.get()));
  EXPECT_EQ(first->length, 3);
  EXPECT_EQ(first->children[0]->null_count, 2);
  // Of three rows two were null; one row is left, whose nulls nobody has counted.
  EXPECT_EQ(last->length, 1);
  EXPECT_EQ(last->children[0]->length, 1);
  EXPECT_EQ(last->children[0]->null_count, -1);
  EXPECT_EQ(last->children[1]->null_count, 0);
  EXPECT_EQ(read(data, {.table = "counters", .columns = {"node.used"}, .limit = 4, .threads = 2}).rows,
            (std::vector<std::string>{R"({"node.used":1})", R"({"node.used":null})", R"({"node.used":null})",
                                      R"({"node.used":2})"}));
  ArrowArray end{};
  EXPECT_FALSE(stream.next(&end));
}

TEST(BufferPool, FreedMemoryIsUsedAgainUnlessThereIsNoneToListIt) {
  if (!FailingAllocations::kFailsMalloc) GTEST_SKIP();
  // A size that nothing else in this program asks for.
  constexpr std::size_t kSize = std::size_t{5} << 20;
  const auto grows_without_memory = [] {
    const FailingAllocations failures(0, FailingAllocations::Failing::lasting);
    try {
      columns::Buffer buffer;
      buffer.extend(kSize);
      return true;
    } catch (const std::bad_alloc&) {
      return false;
    }
  };
  {
    columns::Buffer buffer;
    buffer.extend(kSize);
    const FailingAllocations failures(0, FailingAllocations::Failing::lasting);
    buffer = columns::Buffer();
  }
  EXPECT_FALSE(grows_without_memory());
  {
    columns::Buffer buffer;
    buffer.extend(kSize);
  }
  EXPECT_TRUE(grows_without_memory());
}

}  // namespace
}  // namespace qvx
