// What read() gives to the test program, call by call: faults and pieces that no file on disk has.
#pragma once

#include <cstddef>
#include <limits>
#include <vector>

namespace qvx::test {

struct ReadStep {
  int error = 0;                                               // fails with it
  std::size_t most = std::numeric_limits<std::size_t>::max();  // or reads no more than this
};

// For the life of the object the steps are taken in turn by reads from any descriptor; behind the last one
// reads are ordinary. One at a time.
class FakeRead {
 public:
  explicit FakeRead(std::vector<ReadStep> steps);
  ~FakeRead();
  FakeRead(const FakeRead&) = delete;
  FakeRead& operator=(const FakeRead&) = delete;

  std::size_t steps_left() const;
};

}  // namespace qvx::test
