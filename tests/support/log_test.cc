#include "qvx/support/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "qvx/support/env.h"
#include "qvx/support/file_descriptor.h"
#include "qvx/support/log_recorder.h"
#include "tests/support/env_guard.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/fake_clock.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace {

// What went to the log of the machine, which no test writes into.
std::string system_log;

void log_to_system(int level, const char* format, va_list args) {
  char text[100];
  std::vsnprintf(text, sizeof text, format, args);
  system_log += std::to_string(level) + ' ' + text + '\n';
}

}  // namespace

// In place of the C library's; the second is the name where the compiler fortifies it.
extern "C" {
void vsyslog(int level, const char* format, va_list args) {
  log_to_system(level, format, args);
}
void __vsyslog_chk(int level, int, const char* format, va_list args) {
  log_to_system(level, format, args);
}
}

namespace qvx {
namespace {

using test::EnvGuard;
using test::FailingAllocations;
using test::FakeClock;
using test::LogCapture;
using test::LogMessage;
using test::read_file;
using test::TempDir;
using test::TimeZoneGuard;
using Messages = std::vector<LogMessage>;

const std::string kNoThreadSafeValue =
    "[debug] [qvx_getenv] No value for 'QVX_LOG_THREAD_SAFE' or 'LOG_THREAD_SAFE'";

// Matches a text of exactly these lines, each with a time stamp before it.
auto LogLines(const std::vector<std::string>& lines) {
  std::string pattern;
  for (const std::string& line : lines) {
    pattern += "\\[[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}\\] ";
    for (const char character : line) {
      if (std::string_view("[]().*+?|").find(character) != std::string_view::npos) pattern += '\\';
      pattern += character;
    }
    pattern += '\n';
  }
  return testing::MatchesRegex(pattern);
}

// Each test of the sinks runs in a new process, in which nothing has been logged yet: the state of the logger
// is that of the process.
class LogDeathTest : public testing::Test {
 protected:
  void SetUp() override {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (const char* const name :
         {"QVX_API_LOG_LEVEL", "API_LOG_LEVEL", "QVX_LOG_THREAD_SAFE", "LOG_THREAD_SAFE"})
      unsetenv(name);
  }
};

[[noreturn]] void finish(bool passed) {
  std::exit(passed ? 0 : 1);
}

#define EXPECT_LOGGED(body, ...) \
  EXPECT_EXIT(finish(body), testing::ExitedWithCode(0), LogLines(std::vector<std::string> __VA_ARGS__))

bool thread_safe() {
  qvx_logger_state* const state = qvx_logger_export_state();
  const bool has_mutex = state->mutex != nullptr;
  std::free(state);
  return has_mutex;
}

using LogLazyDeathTest = LogDeathTest;

TEST_F(LogLazyDeathTest, WithoutVariableNothingIsLogged) {
  const auto body = [] {
    QVX_LOG(QVX_LOG_ERROR, "dropped");
    QVX_LOG(1, "dropped");
    return qvx_logger_set_level(0) == 0;
  };
  EXPECT_LOGGED(body(), {});
}

TEST_F(LogLazyDeathTest, WithoutVariableLevelZeroIsLogged) {
  const auto body = [] {
    for (const std::uint32_t level : {0U, 1U})
      QVX_LOG(level, "level %u", level);
    return true;
  };
  EXPECT_LOGGED(body(), {"level 0"});
}

TEST_F(LogLazyDeathTest, FirstMessageInitialisesFromTheVariable) {
  const auto body = [] {
    setenv("QVX_API_LOG_LEVEL", "4", 1);
    QVX_LOG(QVX_LOG_WARNING, "shown %d", 1);
    QVX_LOG(QVX_LOG_INFO, "dropped");
    return true;
  };
  EXPECT_LOGGED(body(), {"[warning] shown 1"});
}

TEST_F(LogLazyDeathTest, DebugLevelTracesThreadSafetyBeforeTheFirstLookup) {
  const auto body = [] {
    setenv("QVX_API_LOG_LEVEL", "7", 1);
    unsetenv("QVX_DONT_SET_LOCALE");
    unsetenv("DONT_SET_LOCALE");
    return qvx_getenv("QVX_DONT_SET_LOCALE") == nullptr;
  };
  EXPECT_LOGGED(body(), {kNoThreadSafeValue,
                         "[debug] [qvx_getenv] No value for 'QVX_DONT_SET_LOCALE' or 'DONT_SET_LOCALE'"});
}

TEST_F(LogLazyDeathTest, PrefixedLevelWinsWithoutAWord) {
  const auto body = [] {
    setenv("QVX_API_LOG_LEVEL", "3", 1);
    setenv("API_LOG_LEVEL", "6", 1);
    QVX_LOG(QVX_LOG_INFO, "dropped");
    return qvx_logger_set_level(0) == 3;
  };
  EXPECT_LOGGED(body(), {});
}

TEST_F(LogLazyDeathTest, AliasIsRead) {
  const auto body = [] {
    setenv("API_LOG_LEVEL", " 6 and more", 1);
    QVX_LOG(QVX_LOG_INFO, "shown");
    return true;
  };
  EXPECT_LOGGED(body(), {"[info] shown"});
}

TEST_F(LogLazyDeathTest, WordGivesLevelZero) {
  const auto body = [] {
    setenv("API_LOG_LEVEL", "debug", 1);
    QVX_LOG(QVX_LOG_ERROR, "dropped");
    return qvx_logger_set_level(3) == 0;
  };
  EXPECT_LOGGED(body(), {});
}

TEST_F(LogLazyDeathTest, MinusOneEnablesEverythingAndEnds) {
  const auto body = [] {
    setenv("QVX_API_LOG_LEVEL", "-1", 1);
    QVX_LOG(9, "shown");
    return true;
  };
  EXPECT_LOGGED(body(), {kNoThreadSafeValue, "shown"});
}

TEST_F(LogLazyDeathTest, LevelSetBeforeTheFirstMessageIsKept) {
  const auto body = [] {
    const bool was_uninitialised = qvx_logger_set_level(QVX_LOG_WARNING) == 0xFFFFFFFF;
    QVX_LOG(QVX_LOG_WARNING, "shown");
    return was_uninitialised;
  };
  EXPECT_LOGGED(body(), {"[warning] shown"});
}

TEST_F(LogLazyDeathTest, ClosingALoggerNeverUsedIsQuiet) {
  const auto body = [] {
    qvx_close_logger();
    return qvx_logger_set_level(3) == 0;
  };
  EXPECT_LOGGED(body(), {});
}

TEST_F(LogDeathTest, FourLevelsHaveANameOthersNone) {
  const auto body = [] {
    const bool done = qvx_init_stderr_logger(QVX_LOG_INFO);
    for (std::uint32_t level = 0; level < 7; ++level)
      QVX_LOG(level, "level %u", level);
    qvx_logger_set_level(7);
    QVX_LOG(7, "level 7");
    return done;
  };
  EXPECT_LOGGED(body(), {"level 0", "level 1", "level 2", "[error] level 3", "[warning] level 4", "level 5",
                         "[info] level 6", "[debug] level 7"});
}

TEST_F(LogDeathTest, LineBeginsWithLocalTimeInMilliseconds) {
  const auto body = [] {
    const FakeClock clock(1'700'000'000, 7'999'999);
    const TimeZoneGuard zone("ABC-5:30");
    qvx_init_stderr_logger(QVX_LOG_INFO);
    QVX_LOG(QVX_LOG_ERROR, "text");
    QVX_LOG(5, "text");
    return true;
  };
  EXPECT_EXIT(finish(body()), testing::ExitedWithCode(0),
              testing::Eq("[2023-11-15 03:43:20.007] [error] text\n[2023-11-15 03:43:20.007] text\n"));
}

TEST_F(LogDeathTest, LongMessagesAreWhole) {
  const auto body = [] {
    qvx_init_stderr_logger(QVX_LOG_ERROR);
    for (const int length : {980, 985, 986, 987, 988, 989, 990, 991, 5000})
      QVX_LOG(QVX_LOG_ERROR, "%0*d", length, 5);
    return true;
  };
  std::vector<std::string> lines;
  for (const std::size_t length : {980U, 985U, 986U, 987U, 988U, 989U, 990U, 991U, 5000U})
    lines.push_back("[error] " + std::string(length - 1, '0') + "5");
  EXPECT_EXIT(finish(body()), testing::ExitedWithCode(0), LogLines(lines));
}

TEST_F(LogDeathTest, ErrnoOutlivesAMessage) {
  const auto body = [] {
    qvx_init_stderr_logger(QVX_LOG_ERROR);
    errno = ENOSPC;
    QVX_LOG(QVX_LOG_ERROR, "text");
    return errno == ENOSPC;
  };
  EXPECT_LOGGED(body(), {"[error] text"});
}

TEST_F(LogDeathTest, ThreadSafetyIsOnByDefaultAndWhenEmptyOrTrue) {
  const auto body = [](const char* value) {
    if (value != nullptr) setenv("QVX_LOG_THREAD_SAFE", value, 1);
    qvx_init_stderr_logger(QVX_LOG_INFO);
    return thread_safe();
  };
  EXPECT_LOGGED(body(nullptr), {});
  EXPECT_LOGGED(body(""), {});
  EXPECT_LOGGED(body("Yes"), {});
}

TEST_F(LogDeathTest, ThreadSafetyIsSwitchedOff) {
  const auto body = [] {
    setenv("LOG_THREAD_SAFE", "no", 1);
    const bool initialised = qvx_init_stderr_logger(QVX_LOG_DEBUG);
    return initialised && !thread_safe();
  };
  EXPECT_LOGGED(body(),
                {"[debug] [qvx_getenv] Using 'LOG_THREAD_SAFE'='no'",
                 "[debug] [logger] [_qvx_init_logger_mutex] Thread safety is disabled by environment "
                 "variable QVX_LOG_THREAD_SAFE",
                 "[debug] [logger] [qvx_init_stderr_logger] Initialized logger without thread-safety"});
}

TEST_F(LogDeathTest, ConflictOverThreadSafetyIsWonByThePrefixedValue) {
  const auto body = [] {
    setenv("QVX_LOG_THREAD_SAFE", "0", 1);
    setenv("LOG_THREAD_SAFE", "1", 1);
    qvx_init_stderr_logger(QVX_LOG_INFO);
    return !thread_safe();
  };
  EXPECT_LOGGED(body(), {"[warning] [qvx_getenv] Environment variables conflict - QVX_LOG_THREAD_SAFE=0 and "
                         "LOG_THREAD_SAFE=1. Using QVX_LOG_THREAD_SAFE"});
}

TEST_F(LogDeathTest, SecondInitialiserKeepsTheMutex) {
  const auto body = [] {
    qvx_init_stderr_logger(QVX_LOG_INFO);
    qvx_logger_state* const first = qvx_logger_export_state();
    qvx_init_stderr_logger(QVX_LOG_ERROR);
    qvx_logger_state* const second = qvx_logger_export_state();
    const bool same = first->mutex == second->mutex;
    std::free(first);
    std::free(second);
    return same;
  };
  EXPECT_LOGGED(body(), {});
}

TEST_F(LogDeathTest, SyslogLoggerReturnsTrueAndClosesToStandardError) {
  const auto body = [] {
    const bool done = qvx_init_syslog_logger("qvx_test", QVX_LOG_ERROR);
    qvx_logger_state* const state = qvx_logger_export_state();
    const bool is_syslog = state->sink == 1 && state->stream == nullptr && state->level == QVX_LOG_ERROR;
    std::free(state);
    qvx_close_logger();
    QVX_LOG(QVX_LOG_ERROR, "after");
    return done && is_syslog;
  };
  EXPECT_LOGGED(body(), {"[error] after"});
}

TEST_F(LogDeathTest, SyslogLoggerHandsMessagesOnWithTheirLevelAndNothingElse) {
  const auto body = [] {
    const bool done = qvx_init_syslog_logger("qvx_test", QVX_LOG_WARNING) &&
                      qvx_init_syslog_logger("qvx_test_again", QVX_LOG_WARNING);
    QVX_LOG(QVX_LOG_ERROR, "number %d", 5);
    QVX_LOG(QVX_LOG_WARNING, "text");
    QVX_LOG(QVX_LOG_INFO, "dropped");
    return done && system_log == "3 number 5\n4 text\n";
  };
  EXPECT_LOGGED(body(), {});
}

TEST_F(LogDeathTest, MessageThatCannotBeFormattedIsAnEmptyLine) {
  const auto body = [] {
    qvx_init_stderr_logger(QVX_LOG_ERROR);
    QVX_LOG(QVX_LOG_ERROR, "%ls", L"\u20AC");  // no such character in the C locale
    return true;
  };
  EXPECT_LOGGED(body(), {"[error] "});
}

TEST_F(LogDeathTest, LevelThatMeansNotInitialisedLeavesItToTheFirstMessage) {
  const auto body = [] {
    qvx_logger_set_level(0xFFFFFFFF);
    setenv("QVX_API_LOG_LEVEL", "4", 1);
    QVX_LOG(QVX_LOG_INFO, "dropped");
    QVX_LOG(QVX_LOG_WARNING, "shown");
    return true;
  };
  EXPECT_LOGGED(body(), {"[warning] shown"});
}

TEST_F(LogDeathTest, ExportWithoutMemoryGivesNone) {
  if (!FailingAllocations::kFailsMalloc) GTEST_SKIP();
  const auto body = [] {
    qvx_init_stderr_logger(QVX_LOG_ERROR);
    const FailingAllocations none(0);
    return qvx_logger_export_state() == nullptr;
  };
  EXPECT_LOGGED(body(), {});
}

TEST_F(LogDeathTest, StateThatDiffersInItsSinkOrItsMutexIsImported) {
  const auto body = [](bool other_sink) {
    qvx_init_stderr_logger(QVX_LOG_ERROR);
    qvx_logger_state* const state = qvx_logger_export_state();
    if (other_sink)
      *state = {1, nullptr, nullptr, QVX_LOG_ERROR, state->mutex};
    else
      state->mutex = nullptr;
    const bool taken = qvx_logger_import_state(state);
    std::free(state);
    QVX_LOG(QVX_LOG_ERROR, "text");
    return taken && !qvx_init_stderr_logger(QVX_LOG_ERROR) && system_log == (other_sink ? "3 text\n" : "");
  };
  EXPECT_LOGGED(body(true), {});
  EXPECT_LOGGED(body(false), {"[error] text"});
}

TEST_F(LogDeathTest, SyslogLoggerReportsItsOwnName) {
  const auto body = [] {
    qvx_init_stderr_logger(QVX_LOG_INFO);
    qvx_logger_state* const state = qvx_logger_export_state();
    state->level = QVX_LOG_DEBUG;
    qvx_logger_import_state(state);
    std::free(state);
    return !qvx_init_stderr_logger(3) && !qvx_init_syslog_logger("qvx_test", 3) &&
           !qvx_init_file_logger("/dev/null", 3);
  };
  EXPECT_LOGGED(body(),
                {"[debug] [logger] [qvx_init_stderr_logger] registered logger cannot initialize logger",
                 "[debug] [logger] [qvx_init_syslog_logger] registered logger cannot initialize logger",
                 "[debug] [logger] [qvx_init_file_logger] registered logger cannot initialize logger"});
}

TEST_F(LogDeathTest, FileLoggerWritesToANewFileUntilClosed) {
  const auto body = [] {
    const TempDir dir;
    const std::string path = dir.write_file("log", "old text");
    const bool done = qvx_init_file_logger(path.c_str(), QVX_LOG_INFO);
    const FakeClock clock(1'700'000'000, 0);
    const TimeZoneGuard zone("UTC");
    QVX_LOG(QVX_LOG_INFO, "in the file");
    const bool flushed = read_file(path) == "[2023-11-14 22:13:20.000] [info] in the file\n";
    qvx_close_logger();
    QVX_LOG(QVX_LOG_INFO, "on standard error");
    return done && flushed;
  };
  EXPECT_LOGGED(body(), {"[info] on standard error"});
}

TEST_F(LogDeathTest, FileIsClosedByWhateverFollowsIt) {
  const auto open_files = [] {
    const auto entries = std::filesystem::directory_iterator("/proc/self/fd");
    return std::distance(begin(entries), end(entries));
  };
  const auto body = [&] {
    const TempDir dir;
    const std::string path = dir.file("log");
    qvx_init_stderr_logger(QVX_LOG_ERROR);
    const auto before = open_files();
    qvx_init_file_logger(path.c_str(), QVX_LOG_ERROR);
    const bool opened = open_files() == before + 1;
    qvx_init_stderr_logger(QVX_LOG_ERROR);
    const bool closed_by_stderr = open_files() == before;
    qvx_init_file_logger(path.c_str(), QVX_LOG_ERROR);
    qvx_init_file_logger(path.c_str(), QVX_LOG_ERROR);
    qvx_logger_register_callback(nullptr, QVX_LOG_ERROR);
    qvx_close_logger();
    return opened && closed_by_stderr && open_files() == before;
  };
  EXPECT_LOGGED(body(), {});
}

TEST_F(LogDeathTest, FileThatCannotBeOpenedFallsBackToStandardError) {
  const auto body = [] {
    const TempDir dir;
    const bool done = qvx_init_file_logger(dir.file("none/log").c_str(), QVX_LOG_INFO);
    QVX_LOG(QVX_LOG_INFO, "shown");
    return !done;
  };
  EXPECT_LOGGED(body(), {"[info] shown"});
}

TEST_F(LogDeathTest, LinesOfThreadsDoNotInterleave) {
  const auto body = [] {
    const TempDir dir;
    const std::string path = dir.file("log");
    const FakeClock clock(1'700'000'000, 0);
    const TimeZoneGuard zone("UTC");
    qvx_init_file_logger(path.c_str(), QVX_LOG_INFO);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
      threads.emplace_back([] {
        for (int i = 0; i < 500; ++i)
          QVX_LOG(QVX_LOG_INFO, "%s", "the same line");
      });
    }
    for (std::thread& thread : threads)
      thread.join();
    std::string expected;
    for (int i = 0; i < 2000; ++i)
      expected += "[2023-11-14 22:13:20.000] [info] the same line\n";
    return read_file(path) == expected;
  };
  EXPECT_LOGGED(body(), {});
}

TEST_F(LogDeathTest, ImportRefusesNullAndLeavesAnEqualStateAlone) {
  const auto body = [] {
    qvx_init_stderr_logger(QVX_LOG_INFO);
    qvx_logger_state* const state = qvx_logger_export_state();
    const bool filled = state->sink == 0 && state->stream == stderr && state->callback == nullptr &&
                        state->level == QVX_LOG_INFO && state->mutex != nullptr;
    const bool refused = !qvx_logger_import_state(nullptr);
    const bool taken = qvx_logger_import_state(state);
    std::free(state);
    return filled && refused && taken && qvx_init_stderr_logger(QVX_LOG_ERROR);
  };
  EXPECT_LOGGED(body(), {});
}

TEST_F(LogDeathTest, ExportedStateIsInitialised) {
  const auto body = [] {
    setenv("QVX_API_LOG_LEVEL", "4", 1);
    qvx_logger_state* const state = qvx_logger_export_state();
    const bool filled = state->sink == 0 && state->stream == stderr && state->level == QVX_LOG_WARNING &&
                        state->mutex != nullptr;
    std::free(state);
    return filled;
  };
  EXPECT_LOGGED(body(), {});
}

TEST_F(LogDeathTest, ImportTakesTheFileOfTheOtherModuleAndCannotCloseIt) {
  const auto body = [] {
    const TempDir dir;
    const std::string path = dir.file("log");
    std::FILE* const stream = std::fopen(path.c_str(), "w");
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    const qvx_logger_state state{2, stream, nullptr, QVX_LOG_DEBUG, &mutex};
    const FakeClock clock(1'700'000'000, 0);
    const TimeZoneGuard zone("UTC");
    const bool taken = qvx_logger_import_state(&state);
    qvx_close_logger();
    qvx_logger_state* const now = qvx_logger_export_state();
    const bool same = now->sink == 2 && now->stream == stream && now->mutex == &mutex;
    std::free(now);
    return taken && same &&
           read_file(path) ==
               "[2023-11-14 22:13:20.000] [debug] [logger] [qvx_close_logger] tried closing a "
               "registered logger, skipping closure\n";
  };
  EXPECT_LOGGED(body(), {});
}

TEST_F(LogDeathTest, ImportedStateWithoutStreamWritesToStandardError) {
  const auto body = [] {
    const qvx_logger_state state{0, nullptr, nullptr, QVX_LOG_DEBUG, nullptr};
    qvx_logger_import_state(&state);
    QVX_LOG(QVX_LOG_DEBUG, "shown");
    return true;
  };
  EXPECT_LOGGED(body(), {"[debug] shown"});
}

int imported_calls = 0;

void count_call(std::uint32_t, const char*, ...) {
  ++imported_calls;
}

void say_written(void* name) noexcept {
  std::fprintf(stderr, "%s written\n", static_cast<const char*>(name));
}

// The lines after the time stamps.
auto TextLines(const std::string& lines) {
  std::string pattern;
  for (std::size_t start = 0; start < lines.size();) {
    const std::size_t end = lines.find('\n', start);
    const std::string line = lines.substr(start, end - start);
    pattern += line.ends_with("written") ? line : "[^\n]* " + line;
    pattern += '\n';
    start = end + 1;
  }
  return testing::MatchesRegex(pattern);
}

TEST_F(LogDeathTest, OutputIsWrittenBeforeErrorsAndWarningsOnly) {
  const auto body = [] {
    qvx_init_stderr_logger(QVX_LOG_INFO);
    char outer_name[] = "outer";
    char inner_name[] = "inner";
    const BeforeErrorLines outer(say_written, outer_name);
    {
      const BeforeErrorLines inner(say_written, inner_name);
      QVX_LOG(QVX_LOG_ERROR, "error");
      QVX_LOG(5, "notice");
      QVX_LOG(QVX_LOG_INFO, "info");
      QVX_LOG(QVX_LOG_DEBUG, "dropped");
    }
    QVX_LOG(QVX_LOG_WARNING, "warning");
    const LogRecorder recorder(QVX_LOG_WARNING);
    QVX_LOG(QVX_LOG_ERROR, "recorded");
    return true;
  };
  EXPECT_EXIT((body(), finish(true)), testing::ExitedWithCode(0),
              TextLines("inner written\nerror\nnotice\ninfo\nouter written\nwarning\n"));
}

TEST_F(LogDeathTest, OutputIsNotWrittenBeforeLinesThatGoToAFile) {
  const auto body = [] {
    const TempDir dir;
    qvx_init_file_logger(dir.file("log").c_str(), QVX_LOG_ERROR);
    char name[] = "output";
    const BeforeErrorLines before(say_written, name);
    QVX_LOG(QVX_LOG_ERROR, "error");
    return true;
  };
  EXPECT_LOGGED(body(), {});
}

TEST_F(LogDeathTest, ImportTakesTheCallbackOfTheOtherModule) {
  const auto body = [] {
    const qvx_logger_state state{3, nullptr, count_call, QVX_LOG_ERROR, nullptr};
    qvx_logger_import_state(&state);
    QVX_LOG(QVX_LOG_ERROR, "to the callback");
    QVX_LOG(QVX_LOG_WARNING, "dropped");
    return imported_calls == 1;
  };
  EXPECT_LOGGED(body(), {});
}

TEST(LogCallback, GetsEveryEnabledMessageWithItsLevel) {
  const LogCapture log(QVX_LOG_INFO);
  QVX_LOG(QVX_LOG_ERROR, "%s-%d", "a", 1);
  QVX_LOG(5, "plain");
  QVX_LOG(QVX_LOG_DEBUG, "dropped");
  EXPECT_EQ(log.messages(), (Messages{{3, "a-1"}, {5, "plain"}}));
}

TEST(LogCallback, StaysWhenTheStandardErrorLoggerIsInitialised) {
  const LogCapture log(QVX_LOG_ERROR);
  EXPECT_TRUE(qvx_init_stderr_logger(QVX_LOG_INFO));
  QVX_LOG(QVX_LOG_INFO, "still here");
  EXPECT_EQ(log.messages(), (Messages{{6, "still here"}}));
}

TEST(LogCallback, IsInTheExportedState) {
  const LogCapture log(QVX_LOG_ERROR);
  qvx_logger_state* const state = qvx_logger_export_state();
  EXPECT_EQ(state->sink, 3U);
  EXPECT_EQ(state->stream, nullptr);
  EXPECT_NE(state->callback, nullptr);
  EXPECT_EQ(state->level, 3U);
  EXPECT_TRUE(qvx_logger_import_state(state));  // equal, so nothing is taken over
  std::free(state);
  EXPECT_TRUE(qvx_init_stderr_logger(QVX_LOG_ERROR));
}

TEST(LogCall, DisabledMessageEvaluatesNothing) {
  const LogCapture log(QVX_LOG_INFO);
  int evaluated = 0;
  QVX_LOG(QVX_LOG_DEBUG, "%d", ++evaluated);
  EXPECT_EQ(evaluated, 0);
  QVX_LOG(QVX_LOG_INFO, "%d", ++evaluated);
  EXPECT_EQ(evaluated, 1);
}

TEST(LogCall, LevelIsEvaluatedOnceAndMayBeSigned) {
#pragma GCC diagnostic push
#pragma GCC diagnostic error "-Wsign-compare"
#pragma GCC diagnostic error "-Wsign-conversion"
  const LogCapture log(QVX_LOG_INFO);
  int level = 2;
  QVX_LOG(++level, "text");
  EXPECT_EQ(level, 3);
  EXPECT_TRUE(QVX_LOG_IS_ENABLED(++level));
  EXPECT_EQ(level, 4);
  QVX_LOG(-1, "dropped");
  EXPECT_EQ(log.messages(), (Messages{{3, "text"}}));
#pragma GCC diagnostic pop
}

// What a terminal gets of a text.
std::string on_terminal(std::string_view text) {
  const FileDescriptor master(posix_openpt(O_RDWR | O_NOCTTY));
  if (!master || grantpt(master.get()) != 0 || unlockpt(master.get()) != 0) return "no terminal";
  FileDescriptor slave(open(ptsname(master.get()), O_RDWR | O_NOCTTY));
  termios settings{};
  tcgetattr(slave.get(), &settings);
  cfmakeraw(&settings);
  tcsetattr(slave.get(), TCSANOW, &settings);
  std::FILE* const stream = fdopen(dup(slave.get()), "w");
  write_diagnostic(stream, text.data(), text.size());
  std::fclose(stream);
  std::string shown(1024, '\0');
  const ssize_t count = read(master.get(), shown.data(), shown.size());
  shown.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
  return shown;
}

TEST(WriteDiagnostic, ShowsControlCharactersOnATerminalAsNumbers) {
  EXPECT_EQ(on_terminal("\x1b[2J\r\x7f tab\t end\n"), "\\x1b[2J\\x0d\\x7f tab\t end\n");
}

TEST(WriteDiagnostic, LetsNoUpperControlCharacterReachATerminal) {
  EXPECT_EQ(on_terminal("a\xc2\x80"
                        "b\xc2\x9b"
                        "2J"),
            "a\\xc2\\x80b\\xc2\\x9b2J");
  EXPECT_EQ(on_terminal("a\x80"
                        "b\x9b"
                        "2J\x9f"),
            "a\\x80b\\x9b2J\\x9f");
  EXPECT_EQ(on_terminal("\xe2\x9b"), "\\xe2\\x9b");
  EXPECT_EQ(on_terminal("\xc3\xc2\x9b\xe2(\x9b\xf5\x80\x80\x80"),
            "\\xc3\\xc2\\x9b\\xe2(\\x9b\\xf5\\x80\\x80\\x80");
  EXPECT_EQ(on_terminal("\xc1\x9b\xe0\x82\x9b\xf0\x80\x82\x9b\xed\xa0\x80\xf4\x90\x80\x80"),
            "\\xc1\\x9b\\xe0\\x82\\x9b\\xf0\\x80\\x82\\x9b\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80");
}

TEST(WriteDiagnostic, LeavesLettersOfEveryLengthAsTheyAre) {
  const std::string_view text =
      "\xc2\xa0 \xc3\x89 \xdf\xbf \xe0\xa0\x80 \xe2\x82\xac \xed\x9f\xbf \xf0\x90\x80\x80 \xf4\x8f\xbf\xbf";
  EXPECT_EQ(on_terminal(text), text);
}

TEST(LogLevel, SetLevelReturnsTheOldOne) {
  const LogCapture log(QVX_LOG_INFO);
  EXPECT_EQ(qvx_logger_set_level(QVX_LOG_WARNING), QVX_LOG_INFO);
  EXPECT_FALSE(QVX_LOG_IS_ENABLED(QVX_LOG_INFO));
  EXPECT_TRUE(QVX_LOG_IS_ENABLED(QVX_LOG_WARNING));
}

TEST(LogHexDump, TwentyBytesGiveTwoLinesTheSecondPadded) {
  const LogCapture log;
  qvx_log_hex_dump("ABCDEFGH\x00\x1F ~\x7F\x80\xFFz1234", 20);
  EXPECT_EQ(log.messages(),
            (Messages{{7, "41 42 43 44 45 46 47 48  00 1F 20 7E 7F 80 FF 7A |  ABCDEFGH.. ~...z "},
                      {7, "31 32 33 34                                      |  1234 "}}));
}

TEST(LogHexDump, EightBytesHaveTheBlankBetweenTheHalves) {
  const LogCapture log;
  qvx_log_hex_dump("12345678", 8);
  EXPECT_EQ(log.messages(), (Messages{{7, "31 32 33 34 35 36 37 38                          |  12345678 "}}));
}

TEST(LogHexDump, NeedsTheDebugLevelAndBytes) {
  const LogCapture log(QVX_LOG_INFO);
  qvx_log_hex_dump("1234", 4);
  qvx_logger_set_level(QVX_LOG_DEBUG);
  qvx_log_hex_dump("1234", 0);
  EXPECT_TRUE(log.messages().empty());
}

}  // namespace
}  // namespace qvx
