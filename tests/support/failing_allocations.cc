#include "tests/support/failing_allocations.h"

#include <cerrno>
#include <cstdlib>
#include <new>

// FailingAllocations::kFailsMalloc for the preprocessor.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || !defined(__GLIBC__)
#define QVX_FAILS_MALLOC 0
#else
#define QVX_FAILS_MALLOC 1
#endif

namespace {

thread_local bool limited = false;
thread_local bool refused = false;
thread_local bool once = false;
thread_local std::size_t left = 0;

// Whether this allocation is one that fails.
bool refuses() {
  if (!limited) return false;
  if (left > 0) {
    --left;
    return false;
  }
  refused = true;
  limited = !once;
  errno = ENOMEM;
  return true;
}

void* allocate(std::size_t size) {
#if !QVX_FAILS_MALLOC
  if (refuses()) throw std::bad_alloc();
#endif
  void* const block = std::malloc(size != 0 ? size : 1);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

}  // namespace

#if QVX_FAILS_MALLOC
extern "C" {

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);

void* malloc(std::size_t size) {
  return refuses() ? nullptr : __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
  return refuses() ? nullptr : __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) {
  return refuses() ? nullptr : __libc_realloc(block, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
  return refuses() ? nullptr : __libc_memalign(alignment, size);
}

}  // extern "C"
#endif

void* operator new(std::size_t size) {
  return allocate(size);
}
void* operator new[](std::size_t size) {
  return allocate(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return allocate(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
  return operator new(size, tag);
}
void operator delete(void* block) noexcept {
  std::free(block);
}
void operator delete[](void* block) noexcept {
  std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
  std::free(block);
}
void operator delete[](void* block, std::size_t) noexcept {
  std::free(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
  std::free(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
  std::free(block);
}

namespace qvx::test {

FailingAllocations::FailingAllocations(std::size_t successes, Failing failing) {
  once = failing == Failing::once;
  limited = true;
  refused = false;
  left = successes;
}

FailingAllocations::~FailingAllocations() {
  limited = false;
}

bool FailingAllocations::any_failed() const {
  return refused;
}

}  // namespace qvx::test
