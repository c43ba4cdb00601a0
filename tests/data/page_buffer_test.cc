#include "qvx/data/page_buffer.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <string>
#include <utility>

namespace qvx {
namespace {

constexpr std::size_t k20MiB = 20971520;

TEST(PageBuffer, HasExactlyTheSizeAskedFor) {
  for (const std::size_t size :
       {std::size_t{0}, std::size_t{1}, std::size_t{16777215}, std::size_t{16777216}}) {
    PageBuffer buffer = PageBuffer::allocate(size);
    ASSERT_TRUE(buffer);
    ASSERT_EQ(buffer.bytes().size(), size);
    std::ranges::fill(buffer.bytes(), std::byte{0x5A});
  }
  EXPECT_FALSE(PageBuffer());
  EXPECT_FALSE(PageBuffer::allocate(static_cast<std::size_t>(-1)));
}

TEST(PageBuffer, MovesWithItsMemory) {
  for (const std::size_t size : {std::size_t{100}, k20MiB}) {
    PageBuffer first = PageBuffer::allocate(size);
    ASSERT_TRUE(first);
    const std::byte* const data = first.bytes().data();
    PageBuffer second(std::move(first));
    EXPECT_FALSE(first);
    EXPECT_EQ(first.bytes().size(), 0u);
    PageBuffer third = PageBuffer::allocate(10);
    third = std::move(second);
    EXPECT_EQ(third.bytes().data(), data);
    EXPECT_EQ(third.bytes().size(), size);
  }
}

TEST(PageBuffer, ClearsFromTheStartToTheEndAndNothingBefore) {
  for (const std::size_t size : {std::size_t{10000}, k20MiB, k20MiB + 1}) {
    PageBuffer buffer = PageBuffer::allocate(size);
    ASSERT_TRUE(buffer);
    for (const std::size_t start : {std::size_t{0}, std::size_t{1}, std::size_t{4095}, std::size_t{4096},
                                    std::size_t{4097}, size - 4097, size - 1, size}) {
      std::ranges::fill(buffer.bytes(), std::byte{0x5A});
      buffer.clear_from(start);
      EXPECT_TRUE(as_text(buffer.bytes()) == std::string(start, 'Z') + std::string(size - start, '\0'))
          << start;
    }
  }
}

// The system gives no memory back that somebody keeps from being swapped out.
TEST(PageBuffer, ClearsMemoryThatIsLocked) {
  PageBuffer buffer = PageBuffer::allocate(k20MiB);
  ASSERT_TRUE(buffer);
  std::ranges::fill(buffer.bytes(), std::byte{0x5A});
  if (mlock(buffer.bytes().data() + k20MiB - 4096, 4096) != 0) GTEST_SKIP() << "no memory can be locked";
  buffer.clear_from(100);
  EXPECT_TRUE(as_text(buffer.bytes()) == std::string(100, 'Z') + std::string(k20MiB - 100, '\0'));
}

}  // namespace
}  // namespace qvx
