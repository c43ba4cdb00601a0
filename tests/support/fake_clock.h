// The wall clock standing still for a scope. Works in programs that link fake_clock.cc, which takes the place
// of clock_gettime.
#pragma once

#include <cstdint>

namespace qvx::test {

class FakeClock {
 public:
  FakeClock(std::int64_t seconds, long nanoseconds);
  ~FakeClock();
  FakeClock(const FakeClock&) = delete;
  FakeClock& operator=(const FakeClock&) = delete;

  void advance_microseconds(std::int64_t microseconds);
};

}  // namespace qvx::test
