#include "qvx/metrics/preallocated_vector.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>

namespace qvx::metrics {
namespace {

TEST(PreallocatedVector, FailingWriteLeavesRoomForASmallerOne) {
  PreallocatedVector buffer(5);
  buffer.append("abc");
  EXPECT_THROW(buffer.push_back(std::uint32_t{1}), std::out_of_range);
  EXPECT_THROW(buffer.insert(as_bytes("xyz")), std::out_of_range);
  buffer.push_back(std::uint16_t{0x3130});
  EXPECT_EQ(as_text(buffer.bytes()), "abc01");
  EXPECT_EQ(buffer.capacity(), 5u);
}

}  // namespace
}  // namespace qvx::metrics
