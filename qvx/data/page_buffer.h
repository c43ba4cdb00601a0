// The buffer that a page is unpacked into.
#pragma once

#include <cstddef>
#include <span>

#include "qvx/support/bytes.h"

namespace qvx {

// The bytes of an unpacked page. A large size that a block merely claims costs no memory: such a buffer comes
// from the system page by page as it is written, and reads as zero where nothing was.
class PageBuffer {
 public:
  PageBuffer() = default;
  // Empty, with errno set, when the memory cannot be had.
  [[nodiscard]] static PageBuffer allocate(std::size_t size) noexcept;
  PageBuffer(PageBuffer&& other) noexcept;
  PageBuffer& operator=(PageBuffer&& other) noexcept;
  ~PageBuffer();

  explicit operator bool() const { return data_ != nullptr; }
  std::span<std::byte> bytes() { return {data_, size_}; }
  Bytes bytes() const { return {data_, size_}; }

  // Sets the bytes from `start` on to zero.
  void clear_from(std::size_t start) noexcept;

 private:
  std::byte* data_ = nullptr;
  std::size_t size_ = 0;
  bool mapped_ = false;
};

}  // namespace qvx
