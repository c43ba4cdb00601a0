#include "qvx/support/output_sink.h"

#include <poll.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <stdexcept>

namespace qvx {
namespace {

// Half of what a reader may be kept waiting, since a data block is decoded between two calls.
constexpr std::uint64_t kPromptMilliseconds = 100;

std::uint64_t monotonic_milliseconds() noexcept {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1000 + static_cast<std::uint64_t>(now.tv_nsec) / 1'000'000;
}

bool may_be_awaited(int descriptor) noexcept {
  struct stat status {};
  if (fstat(descriptor, &status) != 0) return false;
  return S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode) || isatty(descriptor) != 0;
}

// A regular file is always at hand.
bool is_at_hand(int input) noexcept {
  pollfd asked{input, POLLIN, 0};
  return poll(&asked, 1, 0) != 0;
}

void wait_until_writable(int descriptor) noexcept {
  pollfd asked{descriptor, POLLOUT, 0};
  poll(&asked, 1, -1);
}

}  // namespace

OutputSink::OutputSink(int descriptor, std::size_t capacity)
    : descriptor_(descriptor), is_awaited_(may_be_awaited(descriptor)) {
  use_buffer(capacity);
}

OutputSink::OutputSink(std::string& target, std::size_t capacity) : target_(&target) {
  use_buffer(capacity);
}

OutputSink::~OutputSink() {
  write_committed();
}

void OutputSink::write(std::string_view text) {
  if (text.size() > static_cast<std::size_t>(end_ - position_)) {
    static_cast<void>(flush());
    if (text.size() > static_cast<std::size_t>(end_ - position_)) {
      write_out(text.data(), text.size());
      return;
    }
  }
  position_ += text.copy(position_, text.size());
}

bool OutputSink::flush() noexcept {
  write_committed();
  start_ = position_ = buffer_.get();
  return error_ == 0;
}

void OutputSink::write_committed() noexcept {
  write_out(start_, static_cast<std::size_t>(position_ - start_));
  start_ = position_;
}

void OutputSink::make_room(std::size_t size) {
  static_cast<void>(flush());
  if (size > capacity()) use_buffer(size);
}

void OutputSink::use_buffer(std::size_t capacity) {
  buffer_ = std::make_unique_for_overwrite<char[]>(capacity);
  start_ = position_ = buffer_.get();
  end_ = position_ + capacity;
}

void OutputSink::write_if_awaited(int input) noexcept {
  if (is_at_hand(input) && monotonic_milliseconds() - written_at_ < kPromptMilliseconds) return;
  write_committed();
}

void OutputSink::write_out(const char* data, std::size_t size) noexcept {
  if (target_ != nullptr) {
    append_to_target(data, size);
    return;
  }
  while (size > 0 && error_ == 0) {
    const ssize_t written = ::write(descriptor_, data, size);
    if (written >= 0) {
      data += written;
      size -= static_cast<std::size_t>(written);
    } else if (errno == EAGAIN) {
      wait_until_writable(descriptor_);
    } else if (errno != EINTR) {
      fail(errno);
    }
  }
  if (is_awaited_) written_at_ = monotonic_milliseconds();
}

void OutputSink::append_to_target(const char* data, std::size_t size) noexcept {
  if (error_ != 0) return;
  try {
    target_->append(data, size);
  } catch (const std::bad_alloc&) {
    fail(ENOMEM);
  } catch (const std::length_error&) {
    fail(ENOMEM);
  }
}

void OutputSink::fail(int error) noexcept {
  error_ = error;
  if (fault_handler_ != nullptr) fault_handler_(error);
}

}  // namespace qvx
