// Shared-memory pages whose processes die, start at once, or outlive one another.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "qvx/data/page_memory.h"
#include "qvx/support/file_descriptor.h"
#include "qvx/support/file_lock.h"
#include "qvx/support/log.h"
#include "tests/data/shared_object.h"
#include "tests/support/faulty_calls.h"
#include "tests/support/log_capture.h"
#include "tests/support/memory_limit.h"
#include "tests/support/trust_run.h"

namespace qvx {
namespace {

using test::FaultyCalls;
using test::in_another_process;
using test::LogCapture;
using test::ObjectName;
using test::TrustRun;

TEST(SharedPageFaults, ObjectThatADeadCreatorLeftEmptyBecomesANewPage) {
  const ObjectName name;
  name.make(0);
  const PagePtr page = name.allocate();
  ASSERT_NE(page, nullptr);
  EXPECT_EQ(page_creator(*page), getpid());
  EXPECT_EQ(page_size(*page), 4096u);
}

TEST(SharedPageFaults, ObjectThatADeadCreatorLeftTooSmallIsReplaced) {
  const ObjectName name;
  for (const off_t size : {1, 719, 720, 4095}) {
    name.make(size);
    PagePtr page = name.allocate();
    ASSERT_NE(page, nullptr) << size;
    EXPECT_EQ(page_creator(*page), getpid());
    page.reset();
    EXPECT_FALSE(name.exists());
  }
  ASSERT_TRUE(in_another_process([&] { return name.allocate(1000).release() != nullptr; }));
  const PagePtr page = name.allocate(4096);
  ASSERT_NE(page, nullptr);
  EXPECT_EQ(page_creator(*page), getpid());
}

TEST(SharedPageFaults, ThoseWhoHoldTheSmallObjectKeepIt) {
  const ObjectName name;
  ASSERT_TRUE(in_another_process([&] { return name.allocate(1000).release() != nullptr; }));
  const PagePtr small = name.allocate(1000);
  ASSERT_NE(small, nullptr);
  ASSERT_TRUE(page_consume_free_space(*small, as_bytes("kept")));
  const PagePtr large = name.allocate(4096);
  ASSERT_NE(large, nullptr);
  EXPECT_EQ(as_text(page_filled_data(*small)), "kept");
  EXPECT_TRUE(page_filled_data(*large).empty());
}

TEST(SharedPageFaults, ReleaseRemovesOnlyItsOwnObject) {
  const ObjectName name;
  PagePtr first = name.allocate();
  ASSERT_NE(first, nullptr);
  shm_unlink(name.object().c_str());
  const PagePtr second = name.allocate();
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(page_creator(*second), getpid());
  LogCapture log;
  first.reset();
  EXPECT_TRUE(name.exists());
  EXPECT_TRUE(log.has(QVX_LOG_INFO, "| --> shm_unlink(" + name.object() + ") failed"));
  EXPECT_TRUE(log.has(QVX_LOG_ERROR, "Problem freeing shared-memory page"));
}

TEST(SharedPageFaults, ObjectThatLosesItsNameBeforeItIsLockedIsNotTaken) {
  const ObjectName name;
  name.make(4096);
  const FileDescriptor object(shm_open(name.object().c_str(), O_RDWR, 0));
  std::optional<FileLock> lock(std::in_place, object.get());
  ASSERT_TRUE(*lock);
  PagePtr page;
  std::thread opener([&] { page = name.allocate(); });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // by then it waits for the lock
  shm_unlink(name.object().c_str());
  lock.reset();
  opener.join();
  ASSERT_NE(page, nullptr);
  EXPECT_EQ(page_creator(*page), getpid());
  EXPECT_TRUE(name.exists());
}

TEST(SharedPageFaults, InterruptedReservationIsTriedAgainAndAMissingOneWillDo) {
  for (const auto& [error, count] : {std::pair(EINTR, 3), std::pair(EOPNOTSUPP, 1000)}) {
    const ObjectName name;
    const FaultyCalls faults(test::Call::fallocate, error, 0, static_cast<std::size_t>(count));
    const PagePtr page = name.allocate();
    ASSERT_NE(page, nullptr) << error;
    EXPECT_TRUE(faults.any_failed());
    EXPECT_TRUE(page_consume_free_space(*page, as_bytes("kept")));
  }
}

TEST(SharedPageFaults, ObjectWithoutStorageForItsPageIsNotTakenAndNotRemoved) {
  const ObjectName name;
  name.make(4096);
  {
    const FaultyCalls faults(test::Call::fallocate, ENOSPC);
    LogCapture log;
    EXPECT_EQ(name.allocate(), nullptr);
    EXPECT_TRUE(faults.any_failed());
    EXPECT_TRUE(log.has(QVX_LOG_ERROR, "[data_page] Data page allocation failed: No space left on device"));
  }
  EXPECT_TRUE(name.exists());
  EXPECT_NE(name.allocate(), nullptr);
}

TEST(SharedPageFaults, ObjectThatCannotBeMappedStaysUnlessItIsNew) {
  if (!test::MemoryLimit::kSupported) GTEST_SKIP();
  const ObjectName name;
  name.make(test::MemoryLimit::kTooMuch);
  {
    const test::MemoryLimit limit;
    EXPECT_EQ(name.allocate(test::MemoryLimit::kTooMuch), nullptr);
  }
  EXPECT_TRUE(name.exists());
}

TEST(SharedPageFaults, ObjectThatCannotBeLockedIsNotTakenAndNotRemoved) {
  const ObjectName name;
  {
    const FaultyCalls faults(test::Call::flock, ENOLCK);
    EXPECT_EQ(name.allocate(), nullptr);
  }
  PagePtr page = name.allocate();
  ASSERT_NE(page, nullptr);
  {
    const FaultyCalls faults(test::Call::flock, ENOLCK);
    const LogCapture log;
    page.reset();
    EXPECT_TRUE(log.has(QVX_LOG_INFO, "| --> shm_unlink(" + name.object() + ") failed"));
  }
  EXPECT_TRUE(name.exists());
}

TEST(SharedPageFaults, ObjectThatLosesItsNameAtOnceIsMadeAgain) {
  const ObjectName name;
  // The third call asks whether the name still leads to the object that the second one made.
  const FaultyCalls faults(test::Call::shm_open, ENOENT, 2, 1);
  const PagePtr page = name.allocate();
  ASSERT_NE(page, nullptr);
  EXPECT_TRUE(faults.any_failed());
  EXPECT_EQ(page_creator(*page), getpid());
}

TEST(SharedPageFaults, PageThatFindsNoRoomLeavesNoObject) {
  if (!test::MemoryLimit::kSupported) GTEST_SKIP();
  const ObjectName name;
  {
    const test::MemoryLimit limit;
    EXPECT_EQ(name.allocate(test::MemoryLimit::kTooMuch), nullptr);
  }
  EXPECT_FALSE(name.exists());
  EXPECT_EQ(name.allocate(std::uint64_t{1} << 63), nullptr);
  EXPECT_FALSE(name.exists());
  const PagePtr page = name.allocate();
  ASSERT_NE(page, nullptr);
  EXPECT_EQ(name.allocate(std::uint64_t{1} << 63), nullptr);
  EXPECT_TRUE(name.exists());
}

TEST(SharedPageFaults, KilledAtAnyCallTheNextProcessGetsAPage) {
  TrustRun run("page-kill");
  do {
    bool died = true;
    for (std::size_t number = 0; died; ++number) {
      const ObjectName name;
      const pid_t child = fork();
      if (child == 0) {
        qvx_logger_set_level(0);
        const FaultyCalls faults = FaultyCalls::dying_at(number);
        PagePtr page = name.allocate();
        page.reset();
        _exit(0);
      }
      int status = 0;
      ASSERT_EQ(waitpid(child, &status, 0), child);
      died = WIFSIGNALED(status);
      const PagePtr page = name.allocate();
      const bool ok =
          page != nullptr && page_filled_bytes(*page) == 720 &&
          std::ranges::all_of(page_data(*page), [](std::byte byte) { return byte == std::byte{0}; });
      EXPECT_TRUE(ok) << "killed at " << number;
      run.count(ok);
      shm_unlink(name.object().c_str());
    }
  } while (run.time_is_left());
  EXPECT_GE(run.cases(), 5u);
}

// Many processes open the same name at the same moment: all get it, one creates it.
TEST(SharedPageFaults, ProcessesThatStartAtOnceAllGetThePage) {
  TrustRun run("page-together");
  constexpr int kProcesses = 8;
  do {
    const ObjectName name;
    int start[2];
    int done[2];
    ASSERT_EQ(pipe(start), 0);
    ASSERT_EQ(pipe(done), 0);
    std::vector<pid_t> children;
    for (int process = 0; process < kProcesses; ++process) {
      const pid_t child = fork();
      if (child == 0) {
        qvx_logger_set_level(0);
        close(start[1]);
        char byte = 0;
        static_cast<void>(!read(start[0], &byte, 1));  // ends when the parent closes it
        const PagePtr page = name.allocate();
        byte = page == nullptr ? 'n' : page_creator(*page) == getpid() ? 'c' : 'o';
        static_cast<void>(!write(done[1], &byte, 1));
        close(done[1]);
        static_cast<void>(!read(done[0], &byte, 0));
        pause();  // the creator must not remove it before all have it
        _exit(0);
      }
      children.push_back(child);
    }
    close(start[0]);
    close(start[1]);
    std::string answers;
    for (char byte = 0; answers.size() < kProcesses && read(done[0], &byte, 1) == 1;)
      answers += byte;
    for (const pid_t child : children) {
      kill(child, SIGKILL);
      waitpid(child, nullptr, 0);
    }
    close(done[0]);
    close(done[1]);
    const bool ok =
        std::ranges::count(answers, 'c') == 1 && std::ranges::count(answers, 'o') == kProcesses - 1;
    EXPECT_TRUE(ok) << answers;
    run.count(ok);
  } while (run.cases() < 30 || run.time_is_left());
}

}  // namespace
}  // namespace qvx
