#include "tests/trust/failing_calls.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#if defined(__SANITIZE_ADDRESS__) || !defined(__GLIBC__)
#define QVX_FAILS_ALLOCATIONS 0
#else
#define QVX_FAILS_ALLOCATIONS 1
#endif

namespace {

using qvx::trust::FailingCalls;
using qvx::trust::kCapturedDescriptor;

// The program has one thread. The bytes written are kept in an array, since writing must not allocate.
constexpr std::size_t kMostCaptured = std::size_t{4} << 20;
char captured[kMostCaptured];
std::size_t captured_size = 0;
FailingCalls told;
bool active = false;
bool any_failed = false;
std::uint64_t allocations = 0;
std::uint64_t inputs = 0;
std::uint64_t writes = 0;

#if QVX_FAILS_ALLOCATIONS
bool allocation_fails() {
  if (!active) return false;
  const std::uint64_t number = allocations++;
  const bool fails = number == told.allocation || (told.is_lasting && number > told.allocation);
  if (fails) errno = ENOMEM;
  any_failed = any_failed || fails;
  return fails;
}
#endif

// A schema file is a regular one, and reading it never has to wait. Neither has opening.
bool is_schema[kCapturedDescriptor];

// Whether this call is the one that is told to fail.
bool is_told_input(bool never_waits) {
  const bool is_it = active && inputs++ == told.input_call && !(never_waits && told.input_error == EAGAIN);
  any_failed = any_failed || is_it;
  return is_it;
}

ssize_t capture(const char* bytes, std::size_t size) {
  const std::uint64_t number = writes++;
  if (told.interrupted_one_in != 0 && number % told.interrupted_one_in == 0) {
    any_failed = true;
    errno = told.interruption;
    return -1;
  }
  const std::size_t room = std::min(told.room - captured_size, kMostCaptured - captured_size);
  if (room == 0) {
    any_failed = true;
    errno = told.full_error;
    return -1;
  }
  const std::size_t taken = std::min({size, room, told.most_at_once});
  std::memcpy(captured + captured_size, bytes, taken);
  captured_size += taken;
  return static_cast<ssize_t>(taken);
}

}  // namespace

extern "C" {

#if QVX_FAILS_ALLOCATIONS
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);

void* malloc(std::size_t size) {
  return allocation_fails() ? nullptr : __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
  return allocation_fails() ? nullptr : __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) {
  return allocation_fails() ? nullptr : __libc_realloc(block, size);
}
#endif

int open(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const int mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, int) : 0;
  va_end(rest);
  if (is_told_input(true) && told.input == FailingCalls::Input::fails) {
    errno = told.input_error;
    return -1;
  }
  const auto descriptor = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
  if (descriptor >= 0 && descriptor < kCapturedDescriptor)
    is_schema[descriptor] = std::strstr(path, "/schema_") != nullptr;
  return descriptor;
}

ssize_t read(int descriptor, void* to, std::size_t size) {
  if (active) {
    const bool is_told = is_told_input(descriptor < kCapturedDescriptor && is_schema[descriptor]);
    const bool is_every =
        told.input == FailingCalls::Input::one_byte && told.input_call == FailingCalls::kNever;
    if (is_told && told.input == FailingCalls::Input::ends) return 0;
    if (is_told && told.input == FailingCalls::Input::fails) {
      errno = told.input_error;
      return -1;
    }
    if (is_every || (is_told && told.input == FailingCalls::Input::one_byte))
      size = std::min<std::size_t>(size, 1);
  }
  return syscall(SYS_read, descriptor, to, size);
}

ssize_t write(int descriptor, const void* from, std::size_t size) {
  if (active && descriptor == kCapturedDescriptor) return capture(static_cast<const char*>(from), size);
  return syscall(SYS_write, descriptor, from, size);
}

// What a captured descriptor waits for has come.
int poll(pollfd* asked, nfds_t count, int milliseconds) {
  if (active) return static_cast<int>(count);
  const timespec limit{milliseconds / 1000, milliseconds % 1000 * 1'000'000L};
  return static_cast<int>(syscall(SYS_ppoll, asked, count, milliseconds < 0 ? nullptr : &limit, nullptr, 0));
}

}  // extern "C"

namespace qvx::trust {

const bool can_fail_allocations = QVX_FAILS_ALLOCATIONS != 0;

void begin_failing(const FailingCalls& calls) {
  told = calls;
  any_failed = false;
  captured_size = 0;
  allocations = inputs = writes = 0;
  active = true;
}

CallCounts end_failing() {
  active = false;
  return {allocations, inputs, any_failed, std::string(captured, captured_size)};
}

}  // namespace qvx::trust
