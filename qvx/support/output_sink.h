// A buffered writer on a file descriptor that hands out room in its buffer, so that text is formatted in
// place.
//
// The first failed write is kept: from then on everything is dropped, and error() tells why. What reached the
// descriptor is then a prefix of what was meant to be written. Interrupted and short writes are continued.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace qvx {

class OutputSink {
 public:
  static constexpr std::size_t kDefaultCapacity = 256 * 1024;
  static constexpr std::size_t kSmallCapacity = 4 * 1024;

  // The descriptor is not owned. The buffer is allocated here; throws std::bad_alloc.
  explicit OutputSink(int descriptor, std::size_t capacity = kDefaultCapacity);
  // Appends to a text instead, which must outlive the sink.
  explicit OutputSink(std::string& target, std::size_t capacity = kSmallCapacity);
  ~OutputSink();
  OutputSink(const OutputSink&) = delete;
  OutputSink& operator=(const OutputSink&) = delete;

  // At least `size` writable bytes; writes out or enlarges the buffer when there are fewer. The pointer is
  // valid until the next call. Throws std::bad_alloc when a larger buffer cannot be had; nothing is lost
  // then.
  char* reserve(std::size_t size) {
    if (size > static_cast<std::size_t>(end_ - position_)) make_room(size);
    return position_;
  }

  // reserve() of no more than this needs no larger buffer.
  std::size_t capacity() const { return static_cast<std::size_t>(end_ - buffer_.get()); }

  // Takes over what was written into the reserved room, up to `end`. Not calling it drops the text.
  void commit(char* end) { position_ = end; }

  void write(std::string_view text);

  // Writes everything out. False when this or an earlier write failed.
  bool flush();

  // errno of the first failed write, 0 while there was none.
  int error() const { return error_; }

 private:
  void make_room(std::size_t size);
  void write_out(const char* data, std::size_t size);

  int descriptor_ = -1;
  std::string* target_ = nullptr;
  int error_ = 0;
  std::unique_ptr<char[]> buffer_;
  char* position_;
  char* end_;
};

}  // namespace qvx
