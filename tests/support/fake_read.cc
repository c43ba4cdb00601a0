#include "tests/support/fake_read.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace {

std::vector<qvx::test::ReadStep> steps;
std::size_t taken = 0;

}  // namespace

extern "C" ssize_t read(int descriptor, void* to, std::size_t size) {
  if (taken < steps.size()) {
    const qvx::test::ReadStep step = steps[taken++];
    if (step.error != 0) {
      errno = step.error;
      return -1;
    }
    size = std::min(size, step.most);
  }
  return syscall(SYS_read, descriptor, to, size);
}

namespace qvx::test {

FakeRead::FakeRead(std::vector<ReadStep> all) {
  steps = std::move(all);
  taken = 0;
}

FakeRead::~FakeRead() {
  steps.clear();
  taken = 0;
}

std::size_t FakeRead::steps_left() const {
  return steps.size() - taken;
}

}  // namespace qvx::test
