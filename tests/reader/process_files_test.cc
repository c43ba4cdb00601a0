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
#include <string_view>
#include <thread>
#include <vector>

#include "qvx/support/log.h"
#include "tests/reader/reader_files.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/log_capture.h"
#include "tests/support/memory_limit.h"

namespace qvx {
namespace {

using test::counters_line;
using test::file_header;
using test::gunzip_beginning;
using test::gzip;
using test::padded;
using test::ReaderFiles;
using test::run;
using test::RunResult;
using test::usual_counters;
using test::usual_events;
using test::usual_header;
using test::usual_page;

// One data block of each kind.
std::string mixed_file() {
  return file_header(usual_header()) + padded(usual_events({1, 2}), 256) + padded(usual_counters(3), 256) +
         padded(usual_page('G', usual_events({4})) + usual_page('S', usual_counters(5)), 256) +
         test::usual_schemas(test::kEventsId) + padded(usual_events({6}), 100);
}

std::string mixed_output() {
  return "{\"v\":1}\n{\"v\":2}\n" + counters_line(3) + "{\"v\":4}\n" + counters_line(5) + "{\"v\":6}\n";
}

TEST(ProcessFilesTest, ReadsPlainAndGzipFilesAlike) {
  const ReaderFiles files;
  ReaderOptions options = files.options();
  const RunResult result =
      run(options, {files.write("a.bin", mixed_file()), files.write("b.bin", gzip(mixed_file()))});
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
  const std::string empty = files.write("empty.bin", file_header(usual_header()));
  const std::string bad = files.write("bad.bin", "");
  EXPECT_EQ(run(options, {bad, empty, bad, empty}).out, "{,\"empty\":[],\"empty\":[]}");
  EXPECT_EQ(run(options, {}).out, "{}");
}

TEST(ProcessFilesTest, FileIsSkippedOnlyWhenAllFourConditionsHold) {
  const ReaderFiles files;
  ReaderOptions options = files.options();
  test::FileHeader fields = test::usual_header();
  fields.first_timestamp = 200;
  fields.last_timestamp = 210;
  const std::string file = files.write("a.bin", file_header(fields) + padded("QVXB", 256));
  options.timestamp_gt = 211;
  options.timestamp_lt = 199;
  EXPECT_EQ(run(options, {file}).failures, 0);
  options.timestamp_gt = 210;
  EXPECT_EQ(run(options, {file}).failures, 1);
  options.timestamp_gt = 211;
  options.timestamp_lt = 200;
  EXPECT_EQ(run(options, {file}).failures, 1);
  fields.last_timestamp = 199;
  const std::string backwards = files.write("b.bin", file_header(fields) + padded("QVXB", 256));
  options.timestamp_lt = 199;
  EXPECT_EQ(run(options, {backwards}).failures, 1);
}

// Where the data block with the pages begins.
constexpr std::size_t kPagesAt = 768;

// What mixed_file() prints in ndjson when it ends at any byte.
std::string output_of_beginning(std::size_t size) {
  const std::size_t first_page = usual_page('G', usual_events({4})).size();
  const std::size_t second_page = usual_page('S', usual_counters(5)).size();
  std::string out;
  const auto print_from = [&](std::size_t needed, const std::string& line) {
    if (size >= needed) out += line;
  };
  print_from(256 + 18, "{\"v\":1}\n");
  print_from(256 + 20, "{\"v\":2}\n");
  print_from(512 + 24, counters_line(3));
  print_from(kPagesAt + first_page, "{\"v\":4}\n");
  print_from(kPagesAt + first_page + second_page, counters_line(5));
  print_from(1280 + 18, "{\"v\":6}\n");
  return out;
}

// Too short for a header, for the magic of a data block, for the value of the counters or for the schemas.
bool beginning_fails(std::size_t size) {
  const bool no_magic = size > 256 && size % 256 > 0 && size % 256 < 4;
  const bool no_counter = size >= 512 + 4 && size < 512 + 24;
  const bool no_schemas = size > 1024 + 4 && size < 1280;
  return size < 256 || no_magic || no_counter || no_schemas;
}

TEST(ProcessFilesTest, EveryTruncationPrintsWhatStandsBeforeIt) {
  const ReaderFiles files;
  ReaderOptions options = files.options();
  const std::string whole = mixed_file();
  const std::string path = files.write("a.bin", whole);
  EXPECT_EQ(output_of_beginning(whole.size()), mixed_output());
  for (std::size_t size = whole.size(); size-- > 0;) {
    std::filesystem::resize_file(path, size);
    const RunResult result = run(options, {path});
    ASSERT_EQ(result.out, output_of_beginning(size)) << size;
    ASSERT_EQ(result.failures, beginning_fails(size) ? 1 : 0) << size;
    ASSERT_EQ(result.err.ends_with("Failed to process data file " + path + "\n"),
              beginning_fails(size) && size >= 256)
        << size << result.err;
    ASSERT_EQ(result.err.empty(), !beginning_fails(size)) << size;
  }
}

TEST(ProcessFilesTest, EveryTruncationOfADocumentClosesWhatIsWhole) {
  const ReaderFiles files;
  ReaderOptions options = files.options(OutputFormat::json);
  const std::string whole =
      file_header(usual_header()) + padded(usual_events({1, 2}), 256) + usual_events({3});
  const std::string path = files.write("a.bin", whole);
  for (std::size_t size = whole.size();; --size) {
    std::string expected;
    if (size >= 274) expected += "{\n    \"v\": 1\n}";
    if (size >= 276) expected += ",\n{\n    \"v\": 2\n}";
    if (size >= 530) expected += ",\n{\n    \"v\": 3\n}";
    const bool fails = size < 256 || (size > 256 && size % 256 > 0 && size % 256 < 4);
    expected = size < 256 ? "{}" : "{\"a\":[" + expected + (fails ? "}" : "]}");
    std::filesystem::resize_file(path, size);
    const RunResult result = run(options, {path});
    ASSERT_EQ(result.out, expected) << size;
    ASSERT_EQ(result.failures, fails ? 1 : 0) << size;
    if (size == 0) break;
  }
}

TEST(ProcessFilesTest, EveryTruncationOfAGzipFilePrintsWhatWasDecodedAndFails) {
  const ReaderFiles files;
  ReaderOptions options = files.options();
  const std::string whole = gzip(mixed_file());
  for (std::size_t size = 0; size < whole.size(); ++size) {
    const std::string path = files.write("a.bin", whole.substr(0, size));
    const std::size_t unpacked = size < 2 ? 0 : gunzip_beginning(whole.substr(0, size)).size();
    const test::LogCapture log(QVX_LOG_ERROR);
    const RunResult result = run(options, {path});
    ASSERT_EQ(result.out, output_of_beginning(unpacked)) << size;
    ASSERT_EQ(result.failures, 1) << size;
    if (unpacked >= 256 && !beginning_fails(unpacked)) {
      ASSERT_TRUE(log.has(QVX_LOG_ERROR, "Failed to read data file " + path + ": unexpected end of file"))
          << size;
    }
  }
}

// 10,000 files.
class ManyFilesTest : public testing::Test {
 protected:
  static constexpr std::size_t kCount = 10000;

  ManyFilesTest() {
    for (std::size_t at = 0; at < kCount; ++at) {
      test::FileHeader fields = test::usual_header();
      fields.first_timestamp = kCount - at;
      fields.block_size = 64;
      const std::string name = "data/" + std::to_string(at) + ".bin";
      paths_.push_back(files_.write(
          name, file_header(fields) + padded(usual_events({static_cast<std::uint16_t>(at)}), 64)));
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
  test::FileHeader fields = test::usual_header(125829119);
  const std::string path = files.write("a.bin", file_header(fields));
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
  test::FileHeader fields = test::usual_header(125829119);
  const std::string huge = files.write("huge.bin", file_header(fields));
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
  const std::string plain =
      files.write("a.bin", file_header(usual_header()) + padded(usual_events({1}), 256));
  std::thread writer([&] {
    const int to = open(fifo.c_str(), O_WRONLY);  // returns when the reader has come to it
    files.write_schema(test::kEventsId, test::events_schema_with_field("renamed"));
    const std::string data = file_header(usual_header()) + padded(usual_events({2}), 256);
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
  for (const std::string& data : {mixed_file(), gzip(mixed_file())}) {
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

// A schemas block after the other, 1 MiB of them, that name the same two schemas in changing order.
TEST(ProcessFilesTest, SchemasInChangingOrderTakeNeitherTimeNorMemory) {
  constexpr const char* kOtherId = "e2e2e2e2e2e2e2e2e2e2e2e2e2e2e2e2";
  const ReaderFiles files;
  files.write_schema(kOtherId, test::events_schema_with_field("other"));
  std::string blocks;
  for (unsigned pattern = 0; pattern < 4096; ++pattern) {
    std::string block = "QVXS" + test::le<std::uint16_t>(256) + '\x0e' + std::string(9, '\0');
    for (unsigned bit = 0; bit < 14; ++bit)
      block += test::id_bytes(test::id_of((pattern >> bit & 1U) != 0 ? kOtherId : test::kEventsId));
    blocks += padded(block, 256);
  }
  test::FileHeader fields = test::usual_header(4096);
  const std::string path = files.write("a.bin", file_header(fields) + blocks + usual_events({7}));
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ReaderOptions options = files.options();
    append(options.input_files, path.c_str());
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDERR_FILENO);
    int fault = 0;
    for (const std::uint32_t level : {6U, 7U}) {
      qvx_init_stderr_logger(level);
      rusage before{};
      rusage after{};
      getrusage(RUSAGE_SELF, &before);
      std::string out;
      {
        OutputSink sink(out);
        if (process_files(options, sink) != 0) fault |= 1;
      }
      getrusage(RUSAGE_SELF, &after);
      if (out != "{\"other\":7}\n") fault |= 2;
      constexpr long kMostKib = 16 * 1024;
      if (test::MemoryLimit::kSupported && after.ru_maxrss - before.ru_maxrss > kMostKib) fault |= 4;
      if (after.ru_utime.tv_sec - before.ru_utime.tv_sec >= 10) fault |= 8;
    }
    _exit(fault);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace qvx
