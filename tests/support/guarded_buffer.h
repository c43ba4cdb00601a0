// Bytes next to a page that cannot be touched: one step beyond them ends the test program.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <new>
#include <span>
#include <string_view>

namespace qvx::test {

enum class Guard { kBehind, kBefore };

// A writable copy of the bytes that ends exactly where the guard page begins, or begins exactly where it
// ends.
class GuardedBuffer {
 public:
  explicit GuardedBuffer(std::span<const std::byte> bytes, Guard guard = Guard::kBehind)
      : size_(bytes.size()) {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t room = (size_ + page - 1) / page * page;
    mapped_size_ = room + page;
    mapped_ = mmap(nullptr, mapped_size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped_ == MAP_FAILED) throw std::bad_alloc();
    auto* const base = static_cast<std::byte*>(mapped_);
    std::byte* const guard_page = guard == Guard::kBehind ? base + room : base;
    mprotect(guard_page, page, PROT_NONE);
    data_ = guard == Guard::kBehind ? base + room - size_ : base + page;
    if (size_ > 0) std::memcpy(data_, bytes.data(), size_);
  }

  explicit GuardedBuffer(std::string_view text, Guard guard = Guard::kBehind)
      : GuardedBuffer(std::as_bytes(std::span(text)), guard) {}

  ~GuardedBuffer() { munmap(mapped_, mapped_size_); }

  GuardedBuffer(const GuardedBuffer&) = delete;
  GuardedBuffer& operator=(const GuardedBuffer&) = delete;

  std::byte* data() const { return data_; }
  std::size_t size() const { return size_; }
  std::span<std::byte> bytes() const { return {data_, size_}; }
  std::string_view text() const { return {reinterpret_cast<const char*>(data_), size_}; }

 private:
  std::size_t size_;
  std::size_t mapped_size_ = 0;
  void* mapped_ = nullptr;
  std::byte* data_ = nullptr;
};

// Calls `use` with every beginning of the bytes, from none of them to all but the last, each ending at a
// guard page.
template <typename Use>
void for_every_truncation(std::span<const std::byte> bytes, Use use) {
  for (std::size_t size = 0; size < bytes.size(); ++size) {
    const GuardedBuffer truncated(bytes.first(size));
    use(std::span<const std::byte>(truncated.bytes()));
  }
}

}  // namespace qvx::test
