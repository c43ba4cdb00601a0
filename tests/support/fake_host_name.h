// The system's host name replaced for a scope. Works in programs that link fake_host_name.cc, which takes the
// place of gethostname.
#pragma once

namespace qvx::test {

class FakeHostName {
 public:
  // gethostname gives this name, or fails with this error number.
  explicit FakeHostName(const char* name);
  explicit FakeHostName(int error);
  ~FakeHostName();
  FakeHostName(const FakeHostName&) = delete;
  FakeHostName& operator=(const FakeHostName&) = delete;
};

}  // namespace qvx::test
