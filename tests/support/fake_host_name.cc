#include "tests/support/fake_host_name.h"

#include <sys/utsname.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

namespace {

const char* fake_name = nullptr;
int fake_error = 0;

}  // namespace

extern "C" int gethostname(char* buffer, std::size_t size) noexcept {
  if (fake_error != 0) {
    errno = fake_error;
    return -1;
  }
  utsname system{};
  uname(&system);
  const char* const name = fake_name != nullptr ? fake_name : system.nodename;
  // As the C library does: what fits, without a terminator, when the name is too long.
  std::strncpy(buffer, name, size);
  if (std::strlen(name) < size) return 0;
  errno = ENAMETOOLONG;
  return -1;
}

namespace qvx::test {

FakeHostName::FakeHostName(const char* name) {
  fake_name = name;
}

FakeHostName::FakeHostName(int error) {
  fake_error = error;
}

FakeHostName::~FakeHostName() {
  fake_name = nullptr;
  fake_error = 0;
}

}  // namespace qvx::test
