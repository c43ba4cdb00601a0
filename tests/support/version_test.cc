#include "qvx/support/version.h"

#include <gtest/gtest.h>

#include <string>

namespace qvx {
namespace {

constexpr std::uint32_t k1_5_0 = 0x0000'0501;

TEST(Version, ProgramVersionIsPacked) {
  EXPECT_STREQ(kProgramVersionText, "1.22.1");
  EXPECT_EQ(kProgramVersion, 71169U);
  EXPECT_EQ(parse_version(kProgramVersionText), 71169U);
}

TEST(Version, PackedFieldsAreMajorMinorPatchFromTheLowEnd) {
  EXPECT_EQ(pack_version(1, 2, 0x0304), 0x03040201U);
  EXPECT_EQ(version_major(0x03040201), 1);
  EXPECT_EQ(version_minor(0x03040201), 2);
  EXPECT_EQ(version_patch(0x03040201), 0x0304);
}

TEST(Version, TextIsInOneBuffer) {
  EXPECT_STREQ(version_text(71169), "1.22.1");
  const char* const longest = version_text(0xFFFFFFFF);
  EXPECT_STREQ(longest, "255.255.65535");
  EXPECT_EQ(version_text(0), longest);
  EXPECT_STREQ(longest, "0.0.0");
}

TEST(Version, ParsesTwoOrThreeNumbers) {
  EXPECT_EQ(parse_version("1.5.7"), 0x0007'0501U);
  EXPECT_EQ(parse_version("1.5"), k1_5_0);
  EXPECT_EQ(parse_version("1.5.0-rc1"), k1_5_0);
  EXPECT_EQ(parse_version("1.5 \t.9"), 0x0009'0501U);
}

TEST(Version, BlankBeforeTheFirstDotEndsTheVersion) {
  EXPECT_EQ(parse_version("1 .5.0"), 0U);
}

TEST(Version, FewerThanTwoNumbersAreNoVersion) {
  for (const char* const text : {"", "none", "1", "1.", "1.x", ".5"})
    EXPECT_EQ(parse_version(text), 0U) << text;
  EXPECT_EQ(parse_version(nullptr), 0U);
}

TEST(Version, CompatibleUpToTheCurrentMinor) {
  EXPECT_TRUE(is_compatible_version(parse_version("1.5.7"), k1_5_0));
  EXPECT_TRUE(is_compatible_version(parse_version("1.2.0"), k1_5_0));
  EXPECT_TRUE(is_compatible_version(parse_version("1.0.65535"), k1_5_0));
  EXPECT_FALSE(is_compatible_version(parse_version("1.6.0"), k1_5_0));
  EXPECT_FALSE(is_compatible_version(parse_version("2.5.0"), k1_5_0));
  EXPECT_FALSE(is_compatible_version(parse_version("0.5.0"), k1_5_0));
}

TEST(Version, NoVersionIsCompatibleWithNone) {
  EXPECT_FALSE(is_compatible_version(parse_version("none"), k1_5_0));
  EXPECT_FALSE(is_compatible_version(parse_version(""), k1_5_0));
  EXPECT_FALSE(is_compatible_version(k1_5_0, 0));
  EXPECT_FALSE(is_compatible_version(0, 0));
}

TEST(Version, ComparesMajorsThenMinors) {
  EXPECT_EQ(compare_versions(pack_version(1, 4, 9), pack_version(1, 4, 0)), 0);
  EXPECT_EQ(compare_versions(pack_version(1, 3, 9), pack_version(1, 4, 0)), -1);
  EXPECT_EQ(compare_versions(pack_version(1, 255, 0), pack_version(1, 4, 0)), 251);
  EXPECT_EQ(compare_versions(pack_version(0, 9, 0), pack_version(200, 1, 0)), -200);
}

TEST(FormatVersion, CompatibleFromTheRequiredMinorOn) {
  EXPECT_TRUE(is_compatible_format_version(0x0201, 0x0201));
  EXPECT_TRUE(is_compatible_format_version(0x0201, 0xFF01));
  EXPECT_FALSE(is_compatible_format_version(0x0201, 0x0101));
  EXPECT_FALSE(is_compatible_format_version(0x0201, 0x0202));
}

TEST(FormatVersion, ComparesMajorsThenMinors) {
  EXPECT_EQ(compare_format_versions(0x0201, 0x0501), -3);
  EXPECT_EQ(compare_format_versions(0x0004, 0xFF01), 3);
  EXPECT_EQ(compare_format_versions(0x0303, 0x0303), 0);
}

}  // namespace
}  // namespace qvx
