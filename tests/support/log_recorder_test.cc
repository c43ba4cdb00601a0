#include "qvx/support/log_recorder.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/failing_allocations.h"
#include "tests/support/log_capture.h"

namespace qvx {

void PrintTo(const LoggedMessage& message, std::ostream* out) {
  *out << '{' << message.level << ", \"" << message.text << "\"}";
}

namespace {

using test::FailingAllocations;
using test::LogCapture;
using test::LogMessage;
using Mode = LogRecorder::Mode;
using Recorded = std::vector<LoggedMessage>;
using Logged = std::vector<LogMessage>;

TEST(LogRecorder, KeepsMessagesUpToItsLevelFromTheLogger) {
  const LogCapture log(QVX_LOG_DEBUG);
  const LogRecorder recorder(QVX_LOG_WARNING);
  QVX_LOG(QVX_LOG_ERROR, "%s-%d", "a", 1);
  QVX_LOG(QVX_LOG_WARNING, "b");
  QVX_LOG(5, "c");
  EXPECT_EQ(recorder.messages(), (Recorded{{3, "a-1"}, {4, "b"}}));
  EXPECT_EQ(log.messages(), (Logged{{5, "c"}}));
  EXPECT_TRUE(recorder.is_complete());
}

TEST(LogRecorder, BesidesLetsMessagesGoOnAtTheLevelOfTheProcess) {
  const LogCapture log(QVX_LOG_ERROR);
  const LogRecorder recorder(QVX_LOG_WARNING, Mode::besides);
  QVX_LOG(QVX_LOG_ERROR, "100%%");
  QVX_LOG(QVX_LOG_WARNING, "suppressed by the process");
  EXPECT_EQ(recorder.messages(), (Recorded{{3, "100%"}, {4, "suppressed by the process"}}));
  EXPECT_EQ(log.messages(), (Logged{{3, "100%"}}));
}

TEST(LogRecorder, CollectsWhatASilentProcessSuppresses) {
  const LogCapture log(0);
  const LogRecorder recorder(QVX_LOG_WARNING);
  EXPECT_TRUE(QVX_LOG_IS_ENABLED(QVX_LOG_WARNING));
  EXPECT_FALSE(QVX_LOG_IS_ENABLED(QVX_LOG_INFO));
  QVX_LOG(QVX_LOG_ERROR, "fault");
  QVX_LOG(QVX_LOG_WARNING, "warning");
  EXPECT_EQ(recorder.messages(), (Recorded{{3, "fault"}, {4, "warning"}}));
  EXPECT_TRUE(log.messages().empty());
}

TEST(LogRecorder, KeepsAMessageThatCannotBeFormattedAsAnEmptyOne) {
  const LogRecorder recorder(QVX_LOG_WARNING);
  QVX_LOG(QVX_LOG_ERROR, "%ls", L"\u20AC");  // no such character in the C locale
  EXPECT_EQ(recorder.messages(), (Recorded{{3, ""}}));
  EXPECT_TRUE(recorder.is_complete());
}

TEST(LogRecorder, LevelThatIsKeptServesOneRecorderAfterTheOther) {
  const LogCapture log(0);
  {
    const LogRecorderLevel level(QVX_LOG_WARNING);
    for (int round = 0; round < 2; ++round) {
      const LogRecorder recorder(level);
      QVX_LOG(QVX_LOG_WARNING, "warning");
      QVX_LOG(QVX_LOG_INFO, "beyond it");
      EXPECT_EQ(recorder.messages(), (Recorded{{4, "warning"}}));
    }
    QVX_LOG(QVX_LOG_WARNING, "for nobody");
    EXPECT_FALSE(QVX_LOG_IS_ENABLED(QVX_LOG_INFO));
  }
  EXPECT_FALSE(QVX_LOG_IS_ENABLED(QVX_LOG_WARNING));
  EXPECT_TRUE(log.messages().empty());
}

TEST(LogRecorder, LevelWithoutARecorderChangesNothingOfWhatIsLogged) {
  const LogCapture log(QVX_LOG_ERROR);
  const LogRecorderLevel level(99);
  QVX_LOG(QVX_LOG_ERROR, "a");
  QVX_LOG(QVX_LOG_WARNING, "b");
  EXPECT_EQ(log.messages(), (Logged{{3, "a"}}));
}

TEST(LogRecorder, ChangeOfTheProcessLevelChangesNothingInside) {
  const LogCapture log(QVX_LOG_INFO);
  const LogRecorder recorder(QVX_LOG_ERROR, Mode::besides);
  EXPECT_EQ(qvx_logger_set_level(0), QVX_LOG_INFO);
  QVX_LOG(QVX_LOG_ERROR, "a");
  EXPECT_EQ(qvx_logger_set_level(QVX_LOG_INFO), 0U);
  QVX_LOG(QVX_LOG_INFO, "b");
  EXPECT_EQ(recorder.messages(), (Recorded{{3, "a"}}));
  EXPECT_EQ(log.messages(), (Logged{{6, "b"}}));
}

TEST(LogRecorder, EvaluatesNothingOfADisabledMessage) {
  const LogCapture log(QVX_LOG_ERROR);
  const LogRecorder recorder(QVX_LOG_WARNING);
  int evaluated = 0;
  QVX_LOG(QVX_LOG_INFO, "%d", ++evaluated);
  EXPECT_EQ(evaluated, 0);
  QVX_LOG(QVX_LOG_WARNING, "%d", ++evaluated);
  EXPECT_EQ(evaluated, 1);
}

TEST(LogRecorder, ThresholdIsTheHighestLevelThatSomebodyTakesFromWarningsOn) {
  const LogCapture log(QVX_LOG_ERROR);
  EXPECT_EQ(detail::log_threshold, 4U);
  {
    const LogRecorder outer(QVX_LOG_INFO);
    EXPECT_EQ(detail::log_threshold, 6U);
    {
      const LogRecorder inner(QVX_LOG_WARNING);
      EXPECT_EQ(detail::log_threshold, 6U);
    }
    const LogRecorder beyond(99);
    EXPECT_EQ(detail::log_threshold, 7U);
  }
  EXPECT_EQ(detail::log_threshold, 4U);
}

TEST(LogRecorder, InnerIsAskedFirst) {
  const LogCapture log(QVX_LOG_DEBUG);
  const LogRecorder outer(QVX_LOG_INFO);
  {
    const LogRecorder inner(QVX_LOG_ERROR);
    QVX_LOG(QVX_LOG_ERROR, "inner");
    QVX_LOG(QVX_LOG_WARNING, "outer");
    QVX_LOG(QVX_LOG_DEBUG, "process");
    EXPECT_EQ(inner.messages(), (Recorded{{3, "inner"}}));
  }
  {
    const LogRecorder inner(QVX_LOG_ERROR, Mode::besides);
    QVX_LOG(QVX_LOG_ERROR, "both");
    EXPECT_EQ(inner.messages(), (Recorded{{3, "both"}}));
  }
  EXPECT_EQ(outer.messages(), (Recorded{{4, "outer"}, {3, "both"}}));
  EXPECT_EQ(log.messages(), (Logged{{7, "process"}}));
}

TEST(LogRecorder, ReplaySaysMessagesToTheOuterRecorderAndTheLogger) {
  const LogCapture log(QVX_LOG_ERROR);
  const LogRecorder outer(QVX_LOG_WARNING, Mode::besides);
  const LogRecorder inner(QVX_LOG_WARNING);
  QVX_LOG(QVX_LOG_ERROR, "100%% \x01");
  QVX_LOG(QVX_LOG_WARNING, "b");
  EXPECT_TRUE(outer.messages().empty());
  inner.replay();
  EXPECT_EQ(inner.messages(), (Recorded{{3, "100% \x01"}, {4, "b"}}));
  EXPECT_EQ(outer.messages(), (Recorded{{3, "100% \x01"}, {4, "b"}}));
  EXPECT_EQ(log.messages(), (Logged{{3, "100% \x01"}}));
}

TEST(LogRecorder, KeptMessagesAreReplayedLater) {
  const LogCapture log(QVX_LOG_WARNING);
  Recorded kept;
  {
    const LogRecorder recorder(QVX_LOG_INFO);
    QVX_LOG(QVX_LOG_INFO, "a");
    QVX_LOG(QVX_LOG_WARNING, "b");
    kept = recorder.messages();
  }
  replay_messages(kept);
  replay_messages(kept);
  EXPECT_EQ(log.messages(), (Logged{{4, "b"}, {4, "b"}}));
}

TEST(LogRecorder, LeavesOtherThreadsAlone) {
  const LogCapture log(QVX_LOG_WARNING);
  const LogRecorder recorder(QVX_LOG_INFO);
  std::thread([] {
    QVX_LOG(QVX_LOG_WARNING, "of the thread");
    QVX_LOG(QVX_LOG_INFO, "that only the other thread takes");
    const LogRecorder own(QVX_LOG_INFO);
    QVX_LOG(QVX_LOG_INFO, "own");
    EXPECT_EQ(own.messages(), (Recorded{{6, "own"}}));
  }).join();
  EXPECT_TRUE(recorder.messages().empty());
  EXPECT_EQ(log.messages(), (Logged{{4, "of the thread"}}));
}

TEST(LogRecorder, LongMessagesAreWhole) {
  const LogCapture log(0);
  const LogRecorder recorder(QVX_LOG_ERROR);
  for (const int length : {1022, 1023, 1024, 1025, 5000})
    QVX_LOG(QVX_LOG_ERROR, "%0*d", length, 5);
  Recorded expected;
  for (const std::size_t length : {1022U, 1023U, 1024U, 1025U, 5000U})
    expected.push_back({3, std::string(length - 1, '0') + "5"});
  EXPECT_EQ(recorder.messages(), expected);
}

TEST(LogRecorder, ErrnoOutlivesAMessage) {
  const LogRecorder recorder(QVX_LOG_ERROR);
  errno = ENOSPC;
  QVX_LOG(QVX_LOG_ERROR, "%0*d", 5000, 5);
  EXPECT_EQ(errno, ENOSPC);
}

TEST(LogRecorder, ShortMemoryMakesItIncompleteAndThrowsNothing) {
  const LogCapture log(0);
  LogRecorder recorder(QVX_LOG_ERROR);
  {
    const FailingAllocations none(0);
    QVX_LOG(QVX_LOG_ERROR, "lost");
  }
  EXPECT_FALSE(recorder.is_complete());
  EXPECT_TRUE(recorder.messages().empty());
  QVX_LOG(QVX_LOG_ERROR, "kept");
  EXPECT_EQ(recorder.messages(), (Recorded{{3, "kept"}}));
  EXPECT_FALSE(recorder.is_complete());
}

}  // namespace
}  // namespace qvx
