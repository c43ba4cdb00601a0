#include "qvx/data/page_buffer.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace qvx {
namespace {

// From here on a buffer is mapped, so that a claimed size costs nothing until bytes are really written.
constexpr std::size_t kMapFrom = std::size_t{16} << 20;

}  // namespace

PageBuffer PageBuffer::allocate(std::size_t size) noexcept {
  PageBuffer buffer;
  if (size >= kMapFrom) {
    void* const mapped = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) return {};
    buffer.data_ = static_cast<std::byte*>(mapped);
    buffer.mapped_ = true;
  } else {
    buffer.data_ = static_cast<std::byte*>(std::malloc(std::max<std::size_t>(size, 1)));
    if (buffer.data_ == nullptr) return {};
  }
  buffer.size_ = size;
  return buffer;
}

PageBuffer::PageBuffer(PageBuffer&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      mapped_(std::exchange(other.mapped_, false)) {}

PageBuffer& PageBuffer::operator=(PageBuffer&& other) noexcept {
  std::swap(data_, other.data_);
  std::swap(size_, other.size_);
  std::swap(mapped_, other.mapped_);
  return *this;
}

PageBuffer::~PageBuffer() {
  if (mapped_) {
    munmap(data_, size_);
  } else {
    std::free(data_);
  }
}

void PageBuffer::clear_from(std::size_t start) noexcept {
  std::size_t end = size_;
  if (mapped_) {
    // Decoders write ahead of what they produce, so the rest is not untouched. Given back, whole pages of the
    // system read as zero again and cost nothing.
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t whole = (start + page - 1) / page * page;
    if (whole < size_ && madvise(data_ + whole, size_ - whole, MADV_DONTNEED) == 0) end = whole;
  }
  if (start < end) std::memset(data_ + start, 0, end - start);
}

}  // namespace qvx
