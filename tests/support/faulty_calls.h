// Calls of the system that fail, or that the process does not survive, when a test wants it.
//
// A program that compiles faulty_calls.cc in makes these calls through it. Outside the life of a FaultyCalls
// they are the system's own.
#pragma once

#include <array>
#include <cstddef>
#include <initializer_list>

namespace qvx::test {

enum class Call {
  open,
  open_nameless,  // openat with O_TMPFILE
  mkdirat,
  linkat,
  renameat2,
  write,
  writev,
  ftruncate,
  lseek,
  flock,
  close,
  unlinkat,
  fallocate,
  shm_open,
  shm_unlink,
  rename,
};
inline constexpr std::size_t kCalls = 16;
const char* call_name(Call call);

// What happens to the calls of one kind: after `first` that go through, `count` fail with `error`; with
// `kill`, the process ends with SIGKILL instead. One at a time, on the thread that made it. A close that
// fails has closed.
class FaultyCalls {
 public:
  // Only counts.
  FaultyCalls();
  FaultyCalls(Call call, int error, std::size_t first = 0, std::size_t count = static_cast<std::size_t>(-1));
  // All calls of these kinds fail.
  FaultyCalls(std::initializer_list<Call> calls, int error);
  // Dies at the call of this number among all those that change something.
  static FaultyCalls dying_at(std::size_t number);
  ~FaultyCalls();
  FaultyCalls(const FaultyCalls&) = delete;
  FaultyCalls& operator=(const FaultyCalls&) = delete;

  // Calls of one more kind fail.
  void also(Call call, int error, std::size_t first = 0, std::size_t count = static_cast<std::size_t>(-1));

  // How many there were so far.
  std::size_t calls(Call call) const;
  std::size_t changing_calls() const;
  bool any_failed() const;

 private:
  explicit FaultyCalls(std::size_t dies_at);
};

}  // namespace qvx::test
