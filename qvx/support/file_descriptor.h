// A file descriptor that is closed with its owner.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace qvx {

class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int number) noexcept : number_(number) {}
  FileDescriptor(FileDescriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    if (this != &other) {
      reset();
      number_ = std::exchange(other.number_, -1);
    }
    return *this;
  }
  ~FileDescriptor() { reset(); }

  // Gives it up: whoever takes it closes it.
  [[nodiscard]] int release() noexcept { return std::exchange(number_, -1); }

  explicit operator bool() const noexcept { return number_ >= 0; }
  int get() const noexcept { return number_; }

  // Closes it, if any. False with errno when the system tells only now that what was written through it is
  // lost; an interruption is no such loss.
  [[nodiscard]] bool close() noexcept {
    return number_ < 0 || ::close(std::exchange(number_, -1)) == 0 || errno == EINTR;
  }

  // Closes it, if any. Leaves errno alone.
  void reset() noexcept {
    if (number_ < 0) return;
    const int saved = errno;
    ::close(std::exchange(number_, -1));
    errno = saved;
  }

 private:
  int number_ = -1;
};

// Opens a file to read it, again when a signal interrupts that. None, and errno set, on failure: for an
// absent path to EFAULT.
inline FileDescriptor open_to_read(const char* path, int more_flags = 0) noexcept {
  if (path == nullptr) {
    errno = EFAULT;
    return {};
  }
  int number = -1;
  do {
    number = open(path, O_RDONLY | O_CLOEXEC | more_flags);
  } while (number < 0 && errno == EINTR);
  return FileDescriptor(number);
}

}  // namespace qvx
