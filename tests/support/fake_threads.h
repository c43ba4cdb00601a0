// Threads that the system refuses to start, or whose allocations fail. A program that compiles
// fake_threads.cc in starts its threads through it.
#pragma once

#include <cstddef>
#include <limits>

namespace qvx::test {

// For the life of the object: so many threads can be started; and of each so many allocations succeed. One at
// a time.
class FakeThreads {
 public:
  static constexpr std::size_t kAny = std::numeric_limits<std::size_t>::max();

  explicit FakeThreads(std::size_t started, std::size_t successes = kAny);
  ~FakeThreads();
  FakeThreads(const FakeThreads&) = delete;
  FakeThreads& operator=(const FakeThreads&) = delete;
};

}  // namespace qvx::test
