#include "qvx/support/file_descriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <utility>

namespace qvx {
namespace {

TEST(FileDescriptor, AssignmentClosesWhatWasHeldButNotToItself) {
  FileDescriptor held(open("/dev/null", O_RDONLY | O_CLOEXEC));
  const int number = held.get();
  FileDescriptor& same = held;
  held = std::move(same);
  EXPECT_EQ(held.get(), number);
  EXPECT_NE(fcntl(number, F_GETFD), -1);
  held = FileDescriptor();
  EXPECT_FALSE(held);
  EXPECT_EQ(fcntl(number, F_GETFD), -1);
}

}  // namespace
}  // namespace qvx
