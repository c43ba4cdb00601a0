// Makes operator new fail, to test what the library promises when memory is short.
#pragma once

#include <cstddef>

namespace qvx::test {

// While one exists, the first `successes` allocations of this thread succeed and the others throw
// std::bad_alloc.
class FailingAllocations {
 public:
  explicit FailingAllocations(std::size_t successes);
  ~FailingAllocations();
  FailingAllocations(const FailingAllocations&) = delete;
  FailingAllocations& operator=(const FailingAllocations&) = delete;

  // True when at least one allocation was refused.
  bool any_failed() const;
};

}  // namespace qvx::test
