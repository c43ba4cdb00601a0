#include "qvx/support/bytes.h"

#include <gtest/gtest.h>

#include <cstdint>

#include "tests/support/guarded_buffer.h"

namespace qvx {
namespace {

using test::GuardedBuffer;

TEST(Cursor, WhatDoesNotFitMovesNothing) {
  const GuardedBuffer buffer(std::string_view("\x01\x02\x03\x04\x05", 5));
  Cursor cursor(buffer.bytes());
  EXPECT_FALSE(cursor.skip(6));
  EXPECT_EQ(cursor.left(), 5U);
  EXPECT_TRUE(cursor.skip(2));
  std::uint32_t word = 0;
  EXPECT_FALSE(cursor.read(word));
  Bytes part;
  EXPECT_FALSE(cursor.read_bytes(4, part));
  std::uint16_t half = 0;
  EXPECT_TRUE(cursor.read(half));
  EXPECT_EQ(half, 0x0403);
  EXPECT_TRUE(cursor.skip(1));
  EXPECT_EQ(cursor.left(), 0U);
  EXPECT_TRUE(cursor.skip(0));
  EXPECT_FALSE(cursor.skip(1));
}

}  // namespace
}  // namespace qvx
