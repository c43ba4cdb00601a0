// Every allocation of a call fails, one after the other.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>

#include "qvx/support/log.h"
#include "tests/support/failing_allocations.h"

namespace qvx::test {

// Calls `call` again and again: allocation k fails, alone or with all behind it, for k = 0, 1, ... until none
// is left to fail. Its result must be false when it tells of a failure; any other must pass `is_whole`, and
// so must that of the call without a failure. Returns the number of calls with a failed allocation.
template <typename Call, typename Check>
std::size_t sweep_allocations(Call call, Check is_whole) {
  constexpr std::size_t kEndless = 100000;
  const std::uint32_t level = qvx_logger_set_level(0);
  std::size_t failed_calls = 0;
  for (const auto failing : {FailingAllocations::Failing::lasting, FailingAllocations::Failing::once}) {
    bool any_failed = true;
    for (std::size_t successes = 0; any_failed && successes < kEndless; ++successes) {
      auto result = [&] {
        const FailingAllocations failures(successes, failing);
        auto made = call();
        any_failed = failures.any_failed();
        return made;
      }();
      if (any_failed) ++failed_calls;
      const bool succeeded = static_cast<bool>(result);
      EXPECT_TRUE(succeeded || any_failed) << "call fails although no allocation did";
      if (succeeded) {
        EXPECT_TRUE(is_whole(result)) << "something is missing after allocation " << successes;
      }
      if (testing::Test::HasFailure()) break;
    }
    EXPECT_FALSE(any_failed);
  }
  qvx_logger_set_level(level);
  testing::Test::RecordProperty("failed_allocations", static_cast<int>(failed_calls));
  EXPECT_GT(failed_calls, 0U);
  return failed_calls;
}

}  // namespace qvx::test
