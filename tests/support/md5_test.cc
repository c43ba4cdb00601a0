#include "qvx/support/md5.h"

#include <gtest/gtest.h>

#include <string>

namespace qvx {
namespace {

std::string hex(std::string_view text) {
  std::string digits;
  for (const std::byte byte : md5(text)) {
    digits += "0123456789abcdef"[std::to_integer<unsigned>(byte) >> 4];
    digits += "0123456789abcdef"[std::to_integer<unsigned>(byte) & 15];
  }
  return digits;
}

TEST(Md5, GivesThePublishedDigests) {
  EXPECT_EQ(hex(""), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(hex("abc"), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(hex("12345678901234567890123456789012345678901234567890123456789012345678901234567890"),
            "57edf4a22be3c955ac49da2e2107b67a");
}

TEST(Md5, CountsZeroBytes) {
  EXPECT_EQ(hex(std::string_view("\0", 1)), "93b885adfe0da089cdf634904fd59f71");
}

TEST(Md5, PiecesHaveTheDigestOfTheWhole) {
  Md5 pieces;
  pieces.add("abc");
  pieces.add("");
  pieces.add("defghijklmnopqrstuvwxyz");
  EXPECT_EQ(pieces.digest(), md5("abcdefghijklmnopqrstuvwxyz"));
  EXPECT_EQ(Md5().digest(), md5(""));
}

}  // namespace
}  // namespace qvx
