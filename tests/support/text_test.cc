#include "qvx/support/text.h"

#include <gtest/gtest.h>
#include <printf.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/support/fake_clock.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/log_capture.h"
#include "tests/support/memory_limit.h"

namespace qvx {
namespace {

using test::FakeClock;
using test::GuardedBuffer;
using test::LogCapture;
using test::LogMessage;
using test::MemoryLimit;
using Messages = std::vector<LogMessage>;

TEST(ExpandTemplate, FormatsItsArguments) {
  EXPECT_EQ(qvx_expand_template("%s/schema_%s.json", "/etc", "0a"), "/etc/schema_0a.json");
  EXPECT_EQ(qvx_expand_template("%s", ""), "");
  EXPECT_EQ(qvx_expand_template("%*d", 5000, 1), std::string(4999, ' ') + "1");
}

TEST(ExpandTemplate, ReportsLengthThatCannotBeCalculated) {
  const LogCapture log;
  EXPECT_EQ(qvx_expand_template("%ls", L"\u20AC"), std::nullopt);  // no such character in the C locale
  EXPECT_EQ(log.messages(), (Messages{{3, "Failed to calculate length of expanded string template"}}));
}

TEST(ExpandTemplate, ReportsFailedAllocation) {
  if (!MemoryLimit::kSupported) GTEST_SKIP();
  const LogCapture log;
  const MemoryLimit limit;
  EXPECT_EQ(qvx_expand_template("%100000000d", 1), std::nullopt);
  EXPECT_EQ(log.messages(), (Messages{{3,
                                       "Failed to allocate buffer for expanded string of size 100000001: "
                                       "Cannot allocate memory"}}));
}

// A conversion that prints one character more each time.
int print_growing(std::FILE* stream, const printf_info*, const void* const*) {
  static int calls = 0;
  ++calls;
  for (int i = 0; i < calls; ++i)
    std::fputc('x', stream);
  return calls;
}

int take_no_argument(const printf_info*, std::size_t, int*, int*) {
  return 0;
}

TEST(ExpandTemplateDeathTest, ReportsTextThatChangesItsLength) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto expand = [] {
    register_printf_specifier('Q', print_growing, take_no_argument);
    const LogCapture log;
    const std::string format = "%Q %d";
    const bool failed = !qvx_expand_template(format.c_str(), 1);
    std::exit(failed && log.messages() == Messages{{3, "Failed to expand file string template"}} ? 0 : 1);
  };
  EXPECT_EXIT(expand(), testing::ExitedWithCode(0), "");
}

TEST(StringConcatCommaSeparatedToken, JoinsWithOneComma) {
  EXPECT_EQ(string_concat_comma_separated_token(nullptr, "a"), "a");
  EXPECT_EQ(string_concat_comma_separated_token("", "a"), "a");
  EXPECT_EQ(string_concat_comma_separated_token("a", "b"), "a,b");
  EXPECT_EQ(string_concat_comma_separated_token("a,b", ""), "a,b,");
}

TEST(StringConcat, JoinsBoth) {
  EXPECT_EQ(string_concat("ab", "cd"), "abcd");
  EXPECT_EQ(string_concat("", ""), "");
}

TEST(StringConcat, NothingIsAnEmptyText) {
  EXPECT_EQ(string_concat(nullptr, "b"), "b");
  EXPECT_EQ(string_concat("a", nullptr), "a");
  EXPECT_EQ(string_concat(nullptr, nullptr), "");
  EXPECT_EQ(string_concat_comma_separated_token("a", nullptr), "a,");
  EXPECT_EQ(string_concat_comma_separated_token(nullptr, nullptr), "");
}

TEST(StringConcat, ReportsFailedAllocation) {
  if (!MemoryLimit::kSupported) GTEST_SKIP();
  const std::string huge(MemoryLimit::kTooMuch, 'x');
  const LogCapture log;
  const MemoryLimit limit;
  EXPECT_EQ(string_concat(huge.c_str(), "a"), std::nullopt);
  EXPECT_EQ(string_concat_comma_separated_token(huge.c_str(), "a"), std::nullopt);
  EXPECT_EQ(log.messages(), (Messages{{3, "[string_concat] Failed in malloc"},
                                      {3, "[string_concat_comma_separated_token] Failed in malloc"}}));
}

TEST(FindIthSubstr, FindsOverlappingOccurrences) {
  std::size_t offset = 99;
  EXPECT_TRUE(find_ith_substr("aaaa", "aa", 0, &offset));
  EXPECT_EQ(offset, 0U);
  EXPECT_TRUE(find_ith_substr("aaaa", "aa", 2, &offset));
  EXPECT_EQ(offset, 2U);
  EXPECT_TRUE(find_ith_substr("x.y.z", ".", 1, &offset));
  EXPECT_EQ(offset, 3U);
}

TEST(FindIthSubstr, FailsSilentlyWhenThereAreTooFew) {
  std::size_t offset = 99;
  const LogCapture log;
  EXPECT_FALSE(find_ith_substr("aaaa", "aa", 3, &offset));
  EXPECT_FALSE(find_ith_substr("abc", "x", 2, &offset));
  EXPECT_FALSE(find_ith_substr("", "a", 0, &offset));
  EXPECT_FALSE(find_ith_substr("", "", 0, &offset));
  EXPECT_FALSE(find_ith_substr("ab", "", 3, &offset));
  EXPECT_EQ(offset, 99U);
  EXPECT_TRUE(log.messages().empty());
}

TEST(FindIthSubstr, ReportsNullArguments) {
  std::size_t offset = 99;
  const LogCapture log;
  EXPECT_FALSE(find_ith_substr(nullptr, "a", 0, &offset));
  EXPECT_FALSE(find_ith_substr("a", nullptr, 0, &offset));
  EXPECT_FALSE(find_ith_substr("a", "a", 0, nullptr));
  const LogMessage invalid{3, "[find_ith_substr] invalid input"};
  EXPECT_EQ(log.messages(), (Messages{invalid, invalid, invalid}));
}

// The destination after a copy, all of its bytes, on a page that ends with it.
std::string copied(const char* source, std::size_t size) {
  const GuardedBuffer destination(std::string(size, '#'));
  auto* const out = reinterpret_cast<char*>(destination.data());
  EXPECT_EQ(strncpy_visible_ascii(out, source, size), out);
  return std::string(destination.text());
}

TEST(StrncpyVisibleAscii, CopiesAndClearsTheRest) {
  EXPECT_EQ(copied("ab ~", 8), std::string("ab ~\0\0\0\0", 8));
  EXPECT_EQ(copied("", 3), std::string(3, '\0'));
}

TEST(StrncpyVisibleAscii, LeavesRoomForTheTerminator) {
  EXPECT_EQ(copied("abcdef", 4), std::string("abc\0", 4));
  EXPECT_EQ(copied("abc", 1), std::string(1, '\0'));
}

TEST(StrncpyVisibleAscii, StopsAtTheFirstInvisibleCharacter) {
  EXPECT_EQ(copied("ab\tcd", 6), std::string("ab\0\0\0\0", 6));
  EXPECT_EQ(copied("a\x7F", 4), std::string("a\0\0\0", 4));
  EXPECT_EQ(copied("a\xC3\xA9", 4), std::string("a\0\0\0", 4));
}

TEST(StrncpyVisibleAscii, InvisibleFirstCharacterGivesNotAvailable) {
  EXPECT_EQ(copied("\x01rest", 8), std::string("N/A\0\0\0\0\0", 8));
  EXPECT_EQ(copied("\xFFrest", 4), std::string("N/A\0", 4));
  EXPECT_EQ(copied("\x7F", 3), "N/A");
  EXPECT_EQ(copied("\x1F", 2), "N/");
}

TEST(StrncpyVisibleAscii, WrongArgumentsAreLoggedOnceInTenSecondsEach) {
  const LogMessage no_destination{3, "strncpy_visible_ascii: Destination buffer is NULL"};
  const LogMessage no_source{3, "strncpy_visible_ascii: Source string is NULL"};
  const LogMessage no_length{3, "strncpy_visible_ascii: Length is 0"};
  char out[4] = "abc";
  static std::int64_t start = 2'000'000'000;
  FakeClock clock(start, 0);
  start += 1000;  // for the test that is repeated in one program
  const auto misuse = [&out] {
    EXPECT_EQ(strncpy_visible_ascii(nullptr, "x", 4), nullptr);
    EXPECT_EQ(strncpy_visible_ascii(out, nullptr, 4), out);
    EXPECT_EQ(strncpy_visible_ascii(out, "x", 0), out);
  };
  LogCapture log;
  EXPECT_EQ(strncpy_visible_ascii(out, nullptr, 4), out);
  clock.advance_microseconds(5'000'000);
  misuse();
  EXPECT_EQ(log.messages(), (Messages{no_source, no_destination, no_length}));
  log.clear();
  clock.advance_microseconds(4'999'999);
  misuse();
  EXPECT_EQ(log.messages(), Messages{});
  clock.advance_microseconds(1);
  misuse();
  EXPECT_EQ(log.messages(), Messages{no_source});
  log.clear();
  clock.advance_microseconds(5'000'000);
  misuse();
  EXPECT_EQ(log.messages(), (Messages{no_destination, no_length}));
  EXPECT_STREQ(out, "abc");
}

TEST(StrncpyVisibleAscii, MessageWhoseLevelIsOffDoesNotBeginTheQuietTime) {
  static std::int64_t start = 1'000'000'000;
  const FakeClock clock(start, 0);
  start += 1000;
  LogCapture log(QVX_LOG_ERROR - 1);
  strncpy_visible_ascii(nullptr, "x", 4);
  EXPECT_EQ(log.messages(), Messages{});
  qvx_logger_set_level(QVX_LOG_ERROR);
  strncpy_visible_ascii(nullptr, "x", 4);
  EXPECT_EQ(log.messages(), (Messages{{3, "strncpy_visible_ascii: Destination buffer is NULL"}}));
}

TEST(Boolean, TextsThatAreTrue) {
  EXPECT_TRUE(bool_from_text(nullptr));
  EXPECT_TRUE(bool_from_text("1"));
  EXPECT_TRUE(bool_from_text("True"));
  EXPECT_TRUE(bool_from_text("true"));
}

TEST(Boolean, EveryOtherTextIsFalse) {
  for (const char* const text : {"", "0", "TRUE", "t", "yes", "1 ", "11", "false"})
    EXPECT_FALSE(bool_from_text(text)) << text;
}

TEST(Boolean, ToText) {
  EXPECT_STREQ(bool_to_text(true), "true");
  EXPECT_STREQ(bool_to_text(false), "false");
}

std::string cell(std::size_t width, std::int64_t count) {
  const GuardedBuffer room(std::string(width + kTableCellRoom, '#'));
  auto* const out = reinterpret_cast<char*>(room.data());
  return {out, write_table_cell(out, width, count)};
}

TEST(TableCell, SmallCountsStandAsTheyAre) {
  EXPECT_EQ(cell(6, 0), "      0 |");
  EXPECT_EQ(cell(6, 999), "    999 |");
  EXPECT_EQ(cell(6, -1234567), " -1234567 |");
  EXPECT_EQ(cell(20, -5), "                   -5 |");
}

TEST(TableCell, LargeCountsStandInThousands) {
  EXPECT_EQ(cell(6, 1000), "    1 k |");
  EXPECT_EQ(cell(6, 1999), "    1 k |");
  EXPECT_EQ(cell(2, 123456), " 123 k |");
  EXPECT_EQ(cell(20, INT64_MAX), "   9223372036854775 k |");
}

}  // namespace
}  // namespace qvx
