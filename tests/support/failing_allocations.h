// Makes allocations fail, to test what the library promises when memory is short: those of operator new and,
// but under a sanitizer, of malloc and its like.
#pragma once

#include <cstddef>

namespace qvx::test {

// While one exists, the first `successes` allocations of this thread succeed; the one behind them, and unless
// only that is to fail all others, do not.
class FailingAllocations {
 public:
  enum class Failing { lasting, once };

  // The sanitizers bring a malloc of their own, behind which only operator new can be made to fail.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || !defined(__GLIBC__)
  static constexpr bool kFailsMalloc = false;
#else
  static constexpr bool kFailsMalloc = true;
#endif

  explicit FailingAllocations(std::size_t successes, Failing failing = Failing::lasting);
  ~FailingAllocations();
  FailingAllocations(const FailingAllocations&) = delete;
  FailingAllocations& operator=(const FailingAllocations&) = delete;

  // True when at least one allocation was refused.
  bool any_failed() const;
};

}  // namespace qvx::test
