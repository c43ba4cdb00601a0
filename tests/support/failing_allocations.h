// Makes operator new fail, to test what the library promises when memory is short.
#pragma once

#include <cstddef>

namespace qvx::test {

// While one exists, the first `successes` allocations of this thread succeed; the one behind them, and unless
// only that is to fail all others, throw std::bad_alloc.
class FailingAllocations {
 public:
  enum class Failing { lasting, once };

  explicit FailingAllocations(std::size_t successes, Failing failing = Failing::lasting);
  ~FailingAllocations();
  FailingAllocations(const FailingAllocations&) = delete;
  FailingAllocations& operator=(const FailingAllocations&) = delete;

  // True when at least one allocation was refused.
  bool any_failed() const;
};

}  // namespace qvx::test
