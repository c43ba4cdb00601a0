// A buffered writer on a file descriptor that hands out room in its buffer, so that text is formatted in
// place.
//
// The first failed write is kept: from then on everything is dropped, and error() tells why. What reached the
// descriptor is then a prefix of what was meant to be written. Interrupted and short writes are continued,
// and a descriptor that does not block is waited for.
#pragma once

#include <cstddef>
#include <cstdint>
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
  // Writes out what is left. Whether that worked only flush() tells, so it is called before.
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

  // Takes over what was written into the reserved room, up to `end`. Not calling it drops the text. What was
  // committed cannot be taken back.
  void commit(char* end) { position_ = end; }

  void write(std::string_view text);

  // Writes everything out. False when this or an earlier write failed; a text that could not grow fails with
  // ENOMEM. Room that was reserved is lost.
  [[nodiscard]] bool flush() noexcept;

  // Writes out what was committed, in the middle of a record too: reserved room stays valid.
  void write_committed() noexcept;

  // To be called before input is read from a descriptor. Where somebody may be waiting for the output (a
  // terminal, a FIFO or a socket), it is written out when no input is at hand or nothing was written for 100
  // ms. Costs one compare elsewhere.
  void before_reading(int input) noexcept {
    if (is_awaited_ && position_ != start_) [[unlikely]]
      write_if_awaited(input);
  }

  // errno of the first failed write, 0 while there was none.
  int error() const { return error_; }

  // Is called with errno of the first failed write, when it fails.
  using FaultHandler = void (*)(int error);
  void set_fault_handler(FaultHandler handler) { fault_handler_ = handler; }

 private:
  void make_room(std::size_t size);
  void use_buffer(std::size_t capacity);
  void write_if_awaited(int input) noexcept;
  void write_out(const char* data, std::size_t size) noexcept;
  void append_to_target(const char* data, std::size_t size) noexcept;
  void fail(int error) noexcept;

  int descriptor_ = -1;
  std::string* target_ = nullptr;
  int error_ = 0;
  bool is_awaited_ = false;
  std::uint64_t written_at_ = 0;  // milliseconds of the monotonic clock; kept only when awaited
  FaultHandler fault_handler_ = nullptr;
  std::unique_ptr<char[]> buffer_;
  char* start_ = nullptr;  // of what is not yet written out
  char* position_ = nullptr;
  char* end_ = nullptr;
};

}  // namespace qvx
