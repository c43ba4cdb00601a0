#include "tests/support/failing_allocations.h"

#include <cstdlib>
#include <new>

namespace {

thread_local bool limited = false;
thread_local bool refused = false;
thread_local bool once = false;
thread_local std::size_t left = 0;

void* allocate(std::size_t size) {
  if (limited && left == 0) {
    refused = true;
    limited = !once;
    throw std::bad_alloc();
  }
  if (limited) --left;
  void* const block = std::malloc(size != 0 ? size : 1);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

}  // namespace

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
