#include "qvx/support/output_sink.h"

#include <unistd.h>

#include <cerrno>

namespace qvx {

OutputSink::OutputSink(int descriptor, std::size_t capacity)
    : descriptor_(descriptor),
      buffer_(std::make_unique_for_overwrite<char[]>(capacity)),
      position_(buffer_.get()),
      end_(position_ + capacity) {}

OutputSink::OutputSink(std::string& target, std::size_t capacity)
    : target_(&target),
      buffer_(std::make_unique_for_overwrite<char[]>(capacity)),
      position_(buffer_.get()),
      end_(position_ + capacity) {}

OutputSink::~OutputSink() {
  flush();
}

void OutputSink::write(std::string_view text) {
  if (text.size() > static_cast<std::size_t>(end_ - position_)) {
    flush();
    if (text.size() > static_cast<std::size_t>(end_ - position_)) {
      write_out(text.data(), text.size());
      return;
    }
  }
  position_ += text.copy(position_, text.size());
}

bool OutputSink::flush() {
  write_out(buffer_.get(), static_cast<std::size_t>(position_ - buffer_.get()));
  position_ = buffer_.get();
  return error_ == 0;
}

void OutputSink::make_room(std::size_t size) {
  flush();
  if (size <= static_cast<std::size_t>(end_ - position_)) return;
  buffer_ = std::make_unique_for_overwrite<char[]>(size);
  position_ = buffer_.get();
  end_ = position_ + size;
}

void OutputSink::write_out(const char* data, std::size_t size) {
  if (target_ != nullptr) {
    target_->append(data, size);
    return;
  }
  while (size > 0 && error_ == 0) {
    const ssize_t written = ::write(descriptor_, data, size);
    if (written < 0) {
      if (errno != EINTR) error_ = errno;
      continue;
    }
    data += written;
    size -= static_cast<std::size_t>(written);
  }
}

}  // namespace qvx
