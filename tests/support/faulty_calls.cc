#include "tests/support/faulty_calls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>

namespace qvx::test {
namespace {

constexpr std::size_t kNever = static_cast<std::size_t>(-1);

struct Faults {
  int error = 0;
  std::size_t first = 0;
  std::size_t count = 0;
};

struct State {
  bool active = false;
  std::array<Faults, kCalls> faults{};
  std::size_t dies_at = kNever;
  std::array<std::size_t, kCalls> calls{};
  std::size_t changing = 0;
  bool struck = false;
};
thread_local State state;

// True, with errno, when this call is to fail.
bool strikes(Call call, bool changes) {
  if (!state.active) return false;
  const std::size_t number = state.calls[static_cast<std::size_t>(call)]++;
  if (changes && state.changing++ == state.dies_at) raise(SIGKILL);
  const Faults& faults = state.faults[static_cast<std::size_t>(call)];
  if (number < faults.first || number - faults.first >= faults.count) return false;
  state.struck = true;
  errno = faults.error;
  return true;
}

bool takes_mode(int flags) {
  return (flags & (O_CREAT | (O_TMPFILE & ~O_DIRECTORY))) != 0;
}

template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

const char* call_name(Call call) {
  constexpr std::array<const char*, kCalls> kNames{
      "open",  "open_nameless", "mkdirat", "linkat",   "renameat2", "write",    "writev",     "ftruncate",
      "lseek", "flock",         "close",   "unlinkat", "fallocate", "shm_open", "shm_unlink", "rename"};
  return kNames[static_cast<std::size_t>(call)];
}

FaultyCalls::FaultyCalls() {
  state = {};
  state.active = true;
}

FaultyCalls::FaultyCalls(Call call, int error, std::size_t first, std::size_t count) : FaultyCalls() {
  also(call, error, first, count);
}

FaultyCalls::FaultyCalls(std::initializer_list<Call> calls, int error) : FaultyCalls() {
  for (const Call call : calls)
    also(call, error);
}

FaultyCalls::FaultyCalls(std::size_t dies_at) : FaultyCalls() {
  state.dies_at = dies_at;
}

FaultyCalls FaultyCalls::dying_at(std::size_t number) {
  return FaultyCalls(number);
}

FaultyCalls::~FaultyCalls() {
  state = {};
}

void FaultyCalls::also(Call call, int error, std::size_t first, std::size_t count) {
  state.faults[static_cast<std::size_t>(call)] = {error, first, count};
}

std::size_t FaultyCalls::calls(Call call) const {
  return state.calls[static_cast<std::size_t>(call)];
}

std::size_t FaultyCalls::changing_calls() const {
  return state.changing;
}

bool FaultyCalls::any_failed() const {
  return state.struck;
}

}  // namespace qvx::test

using qvx::test::Call;
using qvx::test::next;
using qvx::test::strikes;
using qvx::test::takes_mode;

extern "C" {

int open(const char* path, int flags, ...) {
  static auto* const real = next<int(const char*, int, ...)>("open");
  va_list args;
  va_start(args, flags);
  const mode_t mode = takes_mode(flags) ? va_arg(args, mode_t) : 0;
  va_end(args);
  return strikes(Call::open, false) ? -1 : real(path, flags, mode);
}

int openat(int folder, const char* path, int flags, ...) {
  static auto* const real = next<int(int, const char*, int, ...)>("openat");
  va_list args;
  va_start(args, flags);
  const mode_t mode = takes_mode(flags) ? va_arg(args, mode_t) : 0;
  va_end(args);
  const bool nameless = (flags & O_TMPFILE) == O_TMPFILE;
  const bool changes = nameless || (flags & (O_CREAT | O_TRUNC)) != 0;
  return strikes(nameless ? Call::open_nameless : Call::open, changes) ? -1 : real(folder, path, flags, mode);
}

int mkdirat(int folder, const char* path, mode_t mode) noexcept {
  static auto* const real = next<int(int, const char*, mode_t)>("mkdirat");
  return strikes(Call::mkdirat, true) ? -1 : real(folder, path, mode);
}

int linkat(int from_folder, const char* from, int to_folder, const char* to, int flags) noexcept {
  static auto* const real = next<int(int, const char*, int, const char*, int)>("linkat");
  return strikes(Call::linkat, true) ? -1 : real(from_folder, from, to_folder, to, flags);
}

int renameat2(int from_folder, const char* from, int to_folder, const char* to, unsigned flags) noexcept {
  static auto* const real = next<int(int, const char*, int, const char*, unsigned)>("renameat2");
  return strikes(Call::renameat2, true) ? -1 : real(from_folder, from, to_folder, to, flags);
}

ssize_t write(int descriptor, const void* bytes, size_t size) {
  static auto* const real = next<ssize_t(int, const void*, size_t)>("write");
  return strikes(Call::write, true) ? -1 : real(descriptor, bytes, size);
}

ssize_t writev(int descriptor, const iovec* pieces, int count) {
  static auto* const real = next<ssize_t(int, const iovec*, int)>("writev");
  return strikes(Call::writev, true) ? -1 : real(descriptor, pieces, count);
}

int ftruncate(int descriptor, off_t size) noexcept {
  static auto* const real = next<int(int, off_t)>("ftruncate");
  return strikes(Call::ftruncate, true) ? -1 : real(descriptor, size);
}

off_t lseek(int descriptor, off_t offset, int whence) noexcept {
  static auto* const real = next<off_t(int, off_t, int)>("lseek");
  return strikes(Call::lseek, false) ? -1 : real(descriptor, offset, whence);
}

int flock(int descriptor, int operation) noexcept {
  static auto* const real = next<int(int, int)>("flock");
  return strikes(Call::flock, false) ? -1 : real(descriptor, operation);
}

int close(int descriptor) {
  static auto* const real = next<int(int)>("close");
  const bool fails = strikes(Call::close, false);
  const int error = errno;
  const int result = real(descriptor);
  if (fails) errno = error;
  return fails ? -1 : result;
}

int fallocate(int descriptor, int mode, off_t offset, off_t size) {
  static auto* const real = next<int(int, int, off_t, off_t)>("fallocate");
  return strikes(Call::fallocate, true) ? -1 : real(descriptor, mode, offset, size);
}

int shm_open(const char* name, int flags, mode_t mode) {
  static auto* const real = next<int(const char*, int, mode_t)>("shm_open");
  return strikes(Call::shm_open, (flags & O_CREAT) != 0) ? -1 : real(name, flags, mode);
}

int shm_unlink(const char* name) {
  static auto* const real = next<int(const char*)>("shm_unlink");
  return strikes(Call::shm_unlink, true) ? -1 : real(name);
}

int rename(const char* from, const char* to) noexcept {
  static auto* const real = next<int(const char*, const char*)>("rename");
  return strikes(Call::rename, true) ? -1 : real(from, to);
}

int unlinkat(int folder, const char* path, int flags) noexcept {
  static auto* const real = next<int(int, const char*, int)>("unlinkat");
  return strikes(Call::unlinkat, true) ? -1 : real(folder, path, flags);
}
}
