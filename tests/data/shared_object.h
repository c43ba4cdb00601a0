// Names of shared-memory objects for tests, and other processes.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>

#include "qvx/data/page.h"

namespace qvx::test {

// A shared-memory name of this test alone, whose object is removed in any case.
class ObjectName {
 public:
  ObjectName()
      : base_("qvx_page_test_" + std::to_string(getpid()) + "_" +
              testing::UnitTest::GetInstance()->current_test_info()->name()),
        object_(base_ + "_7") {}
  ~ObjectName() { shm_unlink(object_.c_str()); }

  PagePtr allocate(std::uint64_t size = 4096, std::uint32_t data_size = 16) const {
    return page_alloc(data_size, size, {QVX_SHARED_PAGE, base_.c_str(), 7});
  }

  // The name as the system knows it.
  const std::string& object() const { return object_; }

  bool exists() const {
    const int descriptor = shm_open(object_.c_str(), O_RDONLY, 0);
    if (descriptor >= 0) close(descriptor);
    return descriptor >= 0;
  }

  void make(off_t size) const {
    const int descriptor = shm_open(object_.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_GE(descriptor, 0);
    ASSERT_EQ(ftruncate(descriptor, size), 0);
    close(descriptor);
  }

 private:
  std::string base_;
  std::string object_;
};

inline std::string text_of_pointer(const void* pointer) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", pointer);
  return text;
}

// Runs in a child process; true when it returned true.
inline bool in_another_process(const std::function<bool()>& run) {
  const pid_t child = fork();
  if (child == 0) _exit(run() ? 0 : 1);
  int status = 0;
  return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace qvx::test
