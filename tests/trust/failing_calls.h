// Calls of the C library and the system that fail when they are told to: this program's own malloc, calloc,
// realloc, open, read, write and poll, which stand before those of the system.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace qvx::trust {

// Not under the address sanitizer, which has an allocator of its own.
extern const bool can_fail_allocations;

struct FailingCalls {
  static constexpr std::uint64_t kNever = ~std::uint64_t{0};

  // Allocations: the one of this number fails, counted from 0, and all later ones if lasting.
  std::uint64_t allocation = kNever;
  bool is_lasting = false;

  // Calls of open and read, counted together. EINTR and EAGAIN are told once, then the call works.
  enum class Input { none, one_byte, fails, ends };
  Input input = Input::none;
  std::uint64_t input_call = kNever;  // this one; all of them for one_byte when kNever
  int input_error = 0;

  // Calls of write to the captured descriptor.
  std::uint64_t room = kNever;  // bytes that fit; then the write fails
  int full_error = 0;
  std::size_t most_at_once = ~std::size_t{0};
  std::uint64_t interrupted_one_in = 0;  // of so many calls one is told that it was interrupted; 0: none
  int interruption = 0;                  // EINTR or EAGAIN
};

// The descriptor whose bytes are kept; it is never open.
inline constexpr int kCapturedDescriptor = 1000;

// From here on calls fail as told, and are counted from 0.
void begin_failing(const FailingCalls& calls);
// All calls work again. What was written since begin_failing() is in `captured`.
struct CallCounts {
  std::uint64_t allocations;
  std::uint64_t inputs;
  bool any_failed;
  std::string captured;
};
CallCounts end_failing();

}  // namespace qvx::trust
