#include "qvx/support/format.h"

#include <gtest/gtest.h>

#include <string>

namespace qvx {
namespace {

TEST(FormatText, HasTheLengthOfItsText) {
  EXPECT_EQ(format_text("%s-%d", "a", 1), "a-1");
  EXPECT_EQ(format_text("%*d", 5000, 1), std::string(4999, ' ') + "1");
  EXPECT_EQ(format_text("%s", ""), "");
}

TEST(FormatText, TextThatCannotBeFormattedAddsNothing) {
  std::string text = "before";
  append_format(text, "%ls", L"\u20AC");  // no such character in the C locale
  EXPECT_EQ(text, "before");
  append_format(text, " and %c", 'b');
  EXPECT_EQ(text, "before and b");
}

}  // namespace
}  // namespace qvx
