#include "qvx/columns/buffer.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <vector>

namespace qvx::columns {
namespace {

constexpr std::size_t kAlignment = 64;
constexpr int kSmallest = 8;  // log2 of the smallest and of the largest size that is kept
constexpr int kLargest = 26;
constexpr std::size_t kMostKept = std::size_t{64} << 20;

// Freed memory by size, which is a power of two.
class Pool {
 public:
  std::byte* take(int log2_size) {
    if (log2_size > kLargest) return nullptr;
    const std::lock_guard lock(mutex_);
    auto& list = lists_[static_cast<std::size_t>(log2_size - kSmallest)];
    if (list.empty()) return nullptr;
    std::byte* const memory = list.back();
    list.pop_back();
    kept_ -= std::size_t{1} << log2_size;
    return memory;
  }

  bool keep(std::byte* memory, int log2_size) noexcept {
    const std::size_t size = std::size_t{1} << log2_size;
    if (log2_size > kLargest) return false;
    const std::lock_guard lock(mutex_);
    if (kept_ + size > kMostKept) return false;
    try {
      lists_[static_cast<std::size_t>(log2_size - kSmallest)].push_back(memory);
    } catch (const std::bad_alloc&) {
      return false;
    }
    kept_ += size;
    return true;
  }

 private:
  std::mutex mutex_;
  std::array<std::vector<std::byte*>, kLargest - kSmallest + 1> lists_;
  std::size_t kept_ = 0;
};

// Never destroyed: consumers may free their last batch after everything else.
Pool& pool() {
  static Pool* const kPool = new Pool;
  return *kPool;
}

int log2_of(std::size_t size) {
  return std::max(kSmallest, static_cast<int>(std::bit_width(size - 1)));
}

}  // namespace

void Buffer::grow(std::size_t size) {
  const int log2_size = log2_of(std::max(size, 2 * capacity_) + kSlack);
  std::byte* memory = pool().take(log2_size);
  if (memory == nullptr)
    memory = static_cast<std::byte*>(std::aligned_alloc(kAlignment, std::size_t{1} << log2_size));
  if (memory == nullptr) throw std::bad_alloc();
  if (size_ > 0) std::memcpy(memory, data_, size_);
  const std::size_t filled = size_;
  free();
  data_ = memory;
  size_ = filled;
  capacity_ = (std::size_t{1} << log2_size) - kSlack;
}

void Buffer::free() noexcept {
  if (data_ != nullptr && !pool().keep(data_, log2_of(capacity_ + kSlack))) std::free(data_);
  data_ = nullptr;
  size_ = capacity_ = 0;
}

void Buffer::push_zeros(std::size_t count) {
  std::memset(extend(count), 0, count);
  commit(count);
}

}  // namespace qvx::columns
