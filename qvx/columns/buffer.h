// Memory of columns.
#pragma once

#include <cstddef>
#include <string_view>
#include <utility>

namespace qvx::columns {

// A growing run of bytes that begins at a multiple of 64, with room for at least kSlack bytes behind the last
// one. What is freed is kept for the next buffer of its size, up to a limit for the whole process: batches
// follow one another, and fresh pages of memory cost more than filling them. Any thread may free a buffer.
class Buffer {
 public:
  static constexpr std::size_t kSlack = 64;

  Buffer() = default;
  ~Buffer() { free(); }
  Buffer(Buffer&& other) noexcept
      : data_(std::exchange(other.data_, nullptr)),
        size_(std::exchange(other.size_, 0)),
        capacity_(std::exchange(other.capacity_, 0)) {}
  Buffer& operator=(Buffer&& other) noexcept {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    std::swap(capacity_, other.capacity_);
    return *this;
  }

  std::byte* data() { return data_; }
  const std::byte* data() const { return data_; }
  std::size_t size() const { return size_; }

  // Makes room for so many bytes in all. Throws std::bad_alloc.
  void reserve(std::size_t size) {
    if (size > capacity_) [[unlikely]]
      grow(size);
  }

  // Room for `more` bytes behind the last one, which commit() counts. Throws std::bad_alloc.
  std::byte* extend(std::size_t more) {
    reserve(size_ + more);
    return data_ + size_;
  }
  void commit(std::size_t more) { size_ += more; }

  template <typename T>
  void push(T value) {
    __builtin_memcpy(extend(sizeof value), &value, sizeof value);
    commit(sizeof value);
  }

  void append(std::string_view bytes) {
    if (bytes.empty()) return;  // there may be no memory yet
    __builtin_memcpy(extend(bytes.size()), bytes.data(), bytes.size());
    commit(bytes.size());
  }

  void clear() { size_ = 0; }

  // Adds so many zeros.
  void push_zeros(std::size_t count);

 private:
  void grow(std::size_t size);
  void free() noexcept;

  std::byte* data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;  // without the slack; 0: nothing allocated
};

}  // namespace qvx::columns
