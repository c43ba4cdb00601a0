#include "qvx/reader/process_files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "tests/reader/reader_files.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/memory_limit.h"

namespace qvx {
namespace {

using test::counters_block;
using test::counters_line;
using test::events_block;
using test::gzipped;
using test::header_bytes;
using test::padded;
using test::page_block;
using test::ReaderFiles;
using test::run;
using test::RunResult;
using test::snappied;

// One data block of each kind.
std::string mixed_file() {
  return header_bytes() + padded(events_block({1, 2}), 256) + padded(counters_block(3), 256) +
         padded(page_block('G', gzipped(events_block({4}))) + page_block('S', snappied(counters_block(5))),
                256) +
         test::schemas_block(test::kEventsId) + padded(events_block({6}), 100);
}

std::string mixed_output() {
  return "{\"v\":1}\n{\"v\":2}\n" + counters_line(3) + "{\"v\":4}\n" + counters_line(5) + "{\"v\":6}\n";
}

TEST(ProcessFilesTest, ReadsPlainAndGzipFilesAlike) {
  const ReaderFiles files;
  ReaderOptions options = files.options();
  const RunResult result =
      run(options, {files.write("a.bin", mixed_file()), files.write("b.bin", gzipped(mixed_file()))});
  EXPECT_EQ(result.failures, 0);
  EXPECT_EQ(result.out, mixed_output() + mixed_output());
  EXPECT_EQ(result.err, "");
}

TEST(ProcessFilesTest, OneFailureIsCountedForEveryFailedFile) {
  const ReaderFiles files;
  ReaderOptions options = files.options();
  const std::string good = files.write("good.bin", mixed_file());
  const std::string bad = files.write("bad.bin", "QVXF");
  EXPECT_EQ(run(options, {bad, good, bad, files.path("gone.bin")}).failures, 3);
}

TEST(ProcessFilesTest, JsonSeparatesByPositionNotBySuccess) {
  const ReaderFiles files;
  ReaderOptions options = files.options(OutputFormat::json);
  const std::string empty = files.write("empty.bin", header_bytes());
  const std::string bad = files.write("bad.bin", "");
  EXPECT_EQ(run(options, {bad, empty, bad, empty}).out, "{,\"empty\":[],\"empty\":[]}");
  EXPECT_EQ(run(options, {}).out, "{}");
}

TEST(ProcessFilesTest, FileIsSkippedOnlyWhenAllFourConditionsHold) {
  const ReaderFiles files;
  ReaderOptions options = files.options();
  test::HeaderFields fields;
  fields.first_timestamp = 200;  // the last is 210
  const std::string file = files.write("a.bin", header_bytes(fields) + padded("QVXB", 256));
  options.timestamp_gt = 211;
  options.timestamp_lt = 199;
  EXPECT_EQ(run(options, {file}).failures, 0);
  options.timestamp_gt = 210;
  EXPECT_EQ(run(options, {file}).failures, 1);
  options.timestamp_gt = 211;
  options.timestamp_lt = 200;
  EXPECT_EQ(run(options, {file}).failures, 1);
}

TEST(ProcessFilesTest, EveryTruncationEndsWithABeginningOfTheOutput) {
  const ReaderFiles files;
  const std::string whole = mixed_file();
  for (const OutputFormat format :
       {OutputFormat::ndjson, OutputFormat::json, OutputFormat::influx, OutputFormat::txt}) {
    ReaderOptions options = files.options(format);
    const std::string path = files.write("a.bin", whole);
    const std::string full = run(options, {path}).out;
    const std::size_t step = format == OutputFormat::ndjson ? 1 : 5;
    for (std::size_t size = whole.size() - 1; size > step; size -= step) {
      std::filesystem::resize_file(path, size);
      const RunResult result = run(options, {path});
      ASSERT_TRUE(result.failures == 0 || result.failures == 1);
      // A document ends with its brace, and a table shows what is missing as 0.
      if (format == OutputFormat::ndjson || format == OutputFormat::influx) {
        ASSERT_TRUE(full.starts_with(result.out)) << size;
      }
      ASSERT_TRUE(result.failures == 0 || result.err.ends_with("\n")) << size;
    }
  }
}

TEST(ProcessFilesTest, EveryTruncationOfAGzipFileEnds) {
  const ReaderFiles files;
  ReaderOptions options = files.options();
  const std::string whole = gzipped(mixed_file());
  for (std::size_t size = 0; size < whole.size(); ++size) {
    const RunResult result = run(options, {files.write("a.bin", whole.substr(0, size))});
    ASSERT_TRUE(mixed_output().starts_with(result.out)) << size;
    ASSERT_LE(result.failures, 1);
  }
}

// 10,000 files.
class ManyFilesTest : public testing::Test {
 protected:
  static constexpr std::size_t kCount = 10000;

  ManyFilesTest() {
    for (std::size_t at = 0; at < kCount; ++at) {
      test::HeaderFields fields;
      fields.first_timestamp = kCount - at;
      fields.block_size = 64;
      const std::string name = "data/" + std::to_string(at) + ".bin";
      paths_.push_back(files_.write(
          name, header_bytes(fields) + padded(events_block({static_cast<std::uint16_t>(at)}), 64)));
    }
  }

  // The files' numbers from the last to the first.
  static std::string backwards() {
    std::string text;
    for (std::size_t at = kCount; at-- > 0;)
      text += "{\"v\":" + std::to_string(at) + "}\n";
    return text;
  }

  const ReaderFiles files_;
  std::vector<std::string> paths_;
};

TEST_F(ManyFilesTest, SortAndReadWithAHandfulOfDescriptors) {
  rlimit old{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
  rlimit few = old;
  few.rlim_cur = 16;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
  ReaderOptions options = files_.options();
  options.sort_files = true;
  options.sort_order = "first_timestamp";
  const RunResult result = run(options, paths_);
  setrlimit(RLIMIT_NOFILE, &old);
  EXPECT_EQ(result.failures, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_TRUE(result.out == backwards());
}

TEST_F(ManyFilesTest, EachSchemaFileIsOpenedOnce) {
  const int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (watch < 0) GTEST_SKIP() << "no inotify here";
  ASSERT_GE(inotify_add_watch(watch, files_.path("schema").c_str(), IN_OPEN), 0);
  ReaderOptions options = files_.options();
  EXPECT_EQ(run(options, paths_).failures, 0);
  alignas(inotify_event) char events[8192];
  const ssize_t size = read(watch, events, sizeof events);
  close(watch);
  std::size_t count = 0;
  for (ssize_t at = 0; at < size; ++count)
    at += static_cast<ssize_t>(sizeof(inotify_event) +
                               reinterpret_cast<const inotify_event*>(events + at)->len);
  EXPECT_EQ(count, 2u);
}

TEST(ProcessFilesTest, HugeBlockSizeCostsNoMemory) {
  if (!test::MemoryLimit::kSupported) GTEST_SKIP() << "a sanitizer keeps books about memory";
  const ReaderFiles files;
  test::HeaderFields fields;
  fields.block_size = 125829119;
  const std::string path = files.write("a.bin", header_bytes(fields));
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    rusage before{};
    rusage after{};
    ReaderOptions options = files.options();
    append(options.input_files, path.c_str());
    getrusage(RUSAGE_SELF, &before);
    std::string out;
    OutputSink sink(out);
    const int failures = process_files(options, sink);
    getrusage(RUSAGE_SELF, &after);
    constexpr long kMostKib = 8 * 1024;
    _exit(failures == 0 && after.ru_maxrss - before.ru_maxrss < kMostKib ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST(ProcessFilesTest, BlockThatCannotBeAllocatedFailsItsFileOnly) {
  if (!test::MemoryLimit::kSupported) GTEST_SKIP() << "a sanitizer's memory does not fit under a limit";
  const ReaderFiles files;
  test::HeaderFields fields;
  fields.block_size = 125829119;
  const std::string huge = files.write("huge.bin", header_bytes(fields));
  const std::string good = files.write("good.bin", mixed_file());
  ReaderOptions options = files.options();
  RunResult result;
  {
    const test::MemoryLimit limit;
    result = run(options, {huge, good});
  }
  EXPECT_EQ(result.failures, 1);
  EXPECT_EQ(result.out, mixed_output());
}

TEST(ProcessFilesTest, SchemaReplacedBetweenTwoFilesIsReadAnew) {
  const ReaderFiles files;
  ReaderOptions options = files.options();
  const std::string fifo = files.path("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const std::string plain = files.write("a.bin", header_bytes() + padded(events_block({1}), 256));
  std::thread writer([&] {
    const int to = open(fifo.c_str(), O_WRONLY);  // returns when the reader has come to it
    files.write_schema(test::kEventsId, test::events_schema_with_field("renamed"));
    const std::string data = header_bytes() + padded(events_block({2}), 256);
    EXPECT_EQ(write(to, data.data(), data.size()), static_cast<ssize_t>(data.size()));
    close(to);
  });
  const RunResult result = run(options, {plain, fifo, plain});
  writer.join();
  EXPECT_EQ(result.out, "{\"v\":1}\n{\"renamed\":2}\n{\"renamed\":1}\n");
}

volatile std::sig_atomic_t interruptions = 0;

// Interrupts whatever the thread waits in, every millisecond.
class Interruptions {
 public:
  Interruptions() {
    interruptions = 0;
    struct sigaction action {};
    action.sa_handler = [](int) { interruptions = interruptions + 1; };
    sigaction(SIGALRM, &action, &old_);
    const itimerval every{{0, 1000}, {0, 1000}};
    setitimer(ITIMER_REAL, &every, nullptr);
  }
  ~Interruptions() {
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &old_, nullptr);
  }
  Interruptions(const Interruptions&) = delete;
  Interruptions& operator=(const Interruptions&) = delete;

 private:
  struct sigaction old_ {};
};

void feed_slowly(const std::string& fifo, const std::string& data) {
  sigset_t alarm;
  sigemptyset(&alarm);
  sigaddset(&alarm, SIGALRM);
  sigaddset(&alarm, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &alarm, nullptr);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  int to = -1;
  for (int attempt = 0; to < 0 && attempt < 1000;
       ++attempt) {  // not for ever, should the reader have given up
    to = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  for (std::size_t at = 0; at < data.size(); at += 100) {
    const std::string piece = data.substr(at, 100);
    if (write(to, piece.data(), piece.size()) != static_cast<ssize_t>(piece.size())) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  close(to);
}

TEST(ProcessFilesTest, InterruptedReadsOfAPipeLoseNothing) {
  const ReaderFiles files;
  ReaderOptions options = files.options();
  const std::string fifo = files.path("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string& data : {mixed_file(), gzipped(mixed_file())}) {
    std::thread writer(feed_slowly, fifo, data);
    RunResult result;
    {
      const Interruptions interrupted;
      result = run(options, {fifo});
    }
    writer.join();
    EXPECT_GT(interruptions, 5);
    EXPECT_EQ(result.out, mixed_output());
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.failures, 0);
  }
}

TEST(ProcessFilesTest, OutputThatCannotBeWrittenEndsTheRun) {
  const ReaderFiles files;
  ReaderOptions options = files.options();
  const std::string file = files.write("a.bin", mixed_file());
  for (int count = 0; count < 100; ++count)
    append(options.input_files, file.c_str());
  append(options.input_files, files.path("gone.bin").c_str());
  const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  ASSERT_GE(full, 0);
  {
    OutputSink sink(full, 512);
    EXPECT_EQ(process_files(options, sink), 0);
    EXPECT_EQ(sink.error(), ENOSPC);
  }
  close(full);
}

TEST(ProcessFilesTest, FailedAllocationsFailTheFileAtMost) {
  const ReaderFiles files;
  const std::string path = files.write("a.bin", mixed_file());
  for (const OutputFormat format : {OutputFormat::ndjson, OutputFormat::txt}) {
    ReaderOptions options = files.options(format);
    const std::string full = run(options, {path}).out;
    bool failed = true;
    for (std::size_t successes = 0; failed; ++successes) {
      ASSERT_LT(successes, 5000u);
      std::string out;
      out.reserve(64 * 1024);
      testing::internal::CaptureStderr();
      {
        OutputSink sink(out);
        const test::FailingAllocations failing(successes);
        try {
          EXPECT_LE(process_files(options, sink), 1);
        } catch (const std::bad_alloc&) {
        }
        failed = failing.any_failed();
      }
      testing::internal::GetCapturedStderr();
      EXPECT_TRUE(full.starts_with(out)) << successes;
    }
  }
}

}  // namespace
}  // namespace qvx
