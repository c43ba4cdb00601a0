#include "tests/support/fake_clock.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <ctime>

namespace {

// Nanoseconds since 1970 that the wall clock shows, negative while it runs.
std::atomic<std::int64_t> shown{-1};

constexpr std::int64_t kNanoseconds = 1'000'000'000;

}  // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
  const std::int64_t still = shown.load();
  if (clock != CLOCK_REALTIME || still < 0) return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
  time->tv_sec = still / kNanoseconds;
  time->tv_nsec = still % kNanoseconds;
  return 0;
}

namespace qvx::test {

FakeClock::FakeClock(std::int64_t seconds, long nanoseconds) {
  shown = seconds * kNanoseconds + nanoseconds;
}

FakeClock::~FakeClock() {
  shown = -1;
}

void FakeClock::advance_microseconds(std::int64_t microseconds) {
  shown += microseconds * 1000;
}

}  // namespace qvx::test
