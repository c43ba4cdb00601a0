#include "qvx/support/string_array.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/support/log_capture.h"
#include "tests/support/memory_limit.h"
#include "tests/support/temp_dir.h"

namespace qvx {
namespace {

using test::LogCapture;
using test::LogMessage;
using test::MemoryLimit;
using test::TempDir;
using Texts = std::vector<std::string>;

Texts texts(const StringArrayPtr& array) {
  const auto all = strings(array);
  return {all.begin(), all.end()};
}

StringArrayPtr from_commas(const std::string& text) {
  return StringArrayPtr(qvx_string_array_from_comma_separated(text.data(), text.size()));
}

bool remove_duplicates(StringArrayPtr& array, bool sorted) {
  qvx_string_array* raw = array.release();
  const bool done = qvx_string_array_remove_duplicates(&raw, sorted);
  array.reset(raw);
  return done;
}

bool load_lines(StringArrayPtr& array, const std::string& path, const char* label) {
  qvx_string_array* raw = array.release();
  const bool done = qvx_string_array_load_lines(&raw, path.c_str(), label);
  array.reset(raw);
  return done;
}

TEST(StringArray, NewArrayIsEmpty) {
  const StringArrayPtr array(qvx_string_array_create());
  ASSERT_NE(array, nullptr);
  EXPECT_EQ(array->count, 0U);
  EXPECT_TRUE(strings(array).empty());
}

TEST(StringArray, BlockIsCountFollowedByPointers) {
  const StringArrayPtr array = make_string_array({"first", "second"});
  const auto* const block = reinterpret_cast<const std::byte*>(array.get());
  std::uint64_t count = 0;
  std::memcpy(&count, block, 8);
  EXPECT_EQ(count, 2U);
  const char* second = nullptr;
  std::memcpy(&second, block + 8 + sizeof(char*), sizeof second);
  EXPECT_STREQ(second, "second");
}

TEST(StringArray, AppendCopiesTheTextAndKeepsTheOrder) {
  StringArrayPtr array = make_string_array();
  std::string text = "zeta";
  EXPECT_TRUE(append(array, text.c_str()));
  text = "none";
  EXPECT_TRUE(append(array, "alpha"));
  EXPECT_TRUE(append(array, ""));
  EXPECT_EQ(texts(array), (Texts{"zeta", "alpha", ""}));
}

TEST(StringArray, AppendingNullFails) {
  StringArrayPtr array = make_string_array({"one"});
  EXPECT_FALSE(append(array, nullptr));
  EXPECT_EQ(texts(array), Texts{"one"});
  StringArrayPtr none;
  EXPECT_FALSE(append(none, "one"));
  EXPECT_FALSE(qvx_string_array_append(nullptr, "one"));
}

TEST(StringArray, FailedCopyKeepsTheCount) {
  if (!MemoryLimit::kSupported) GTEST_SKIP();
  StringArrayPtr array = make_string_array({"one"});
  const std::string huge(MemoryLimit::kTooMuch, 'x');
  const MemoryLimit limit;
  EXPECT_FALSE(append(array, huge.c_str()));
  EXPECT_EQ(texts(array), Texts{"one"});
}

TEST(StringArray, AppendAllCopiesEveryString) {
  StringArrayPtr array = make_string_array({"a"});
  StringArrayPtr source = make_string_array({"b", "c"});
  qvx_string_array* raw = array.release();
  EXPECT_TRUE(qvx_string_array_append_all(&raw, source.get()));
  array.reset(raw);
  source.reset();
  EXPECT_EQ(texts(array), (Texts{"a", "b", "c"}));
}

TEST(StringArray, AppendAllOfTheArrayItselfDoublesIt) {
  qvx_string_array* raw = make_string_array({"a", "b"}).release();
  EXPECT_TRUE(qvx_string_array_append_all(&raw, raw));
  EXPECT_EQ(texts(StringArrayPtr(raw)), (Texts{"a", "b", "a", "b"}));
}

TEST(StringArray, AppendAllRefusesNull) {
  qvx_string_array* none = nullptr;
  const StringArrayPtr source = make_string_array({"a"});
  EXPECT_FALSE(qvx_string_array_append_all(nullptr, source.get()));
  EXPECT_FALSE(qvx_string_array_append_all(&none, source.get()));
  StringArrayPtr array = make_string_array();
  qvx_string_array* raw = array.get();
  EXPECT_FALSE(qvx_string_array_append_all(&raw, nullptr));
}

TEST(StringArray, FailedAppendAllFreesTheDestination) {
  if (!MemoryLimit::kSupported) GTEST_SKIP();
  const std::string huge(MemoryLimit::kTooMuch, 'x');
  const StringArrayPtr source = make_string_array({"small", huge.c_str()});
  qvx_string_array* raw = make_string_array({"a"}).release();
  const MemoryLimit limit;
  EXPECT_FALSE(qvx_string_array_append_all(&raw, source.get()));
  EXPECT_EQ(raw, nullptr);
}

TEST(StringArray, WhatIsMissingIsRefused) {
  qvx_string_array* none = nullptr;
  EXPECT_FALSE(qvx_string_array_append(nullptr, "a"));
  EXPECT_FALSE(qvx_string_array_remove_duplicates(nullptr, true));
  EXPECT_FALSE(qvx_string_array_remove_duplicates(&none, true));
  EXPECT_FALSE(qvx_string_array_load_lines(nullptr, "/dev/null", nullptr));
  EXPECT_FALSE(qvx_string_array_load_lines(&none, "/dev/null", nullptr));
  StringArrayPtr array = make_string_array({"a"});
  qvx_string_array* const raw = array.get();
  qvx_string_array* same = raw;
  EXPECT_FALSE(qvx_string_array_load_lines(&same, nullptr, nullptr));
  EXPECT_EQ(same, raw);
  const StringArrayPtr of_nothing(qvx_string_array_from_comma_separated(nullptr, 3));
  ASSERT_NE(of_nothing, nullptr);
  EXPECT_EQ(of_nothing->count, 0U);
}

TEST(StringArray, FreeIgnoresNull) {
  qvx_string_array_free(nullptr);
  EXPECT_TRUE(strings(StringArrayPtr()).empty());
}

TEST(StringArray, ContainsComparesWholeTextsInTheirCase) {
  const StringArrayPtr array = make_string_array({"port", "node"});
  EXPECT_TRUE(qvx_string_array_contains(array.get(), "node"));
  EXPECT_FALSE(qvx_string_array_contains(array.get(), "nod"));
  EXPECT_FALSE(qvx_string_array_contains(array.get(), "Node"));
  EXPECT_FALSE(qvx_string_array_contains(array.get(), nullptr));
}

TEST(StringArray, EmptyArrayContainsNothing) {
  EXPECT_FALSE(qvx_string_array_contains(make_string_array().get(), ""));
  EXPECT_FALSE(qvx_string_array_contains(nullptr, ""));
}

TEST(StringArray, TwoCommasAndOneWordGiveOneElement) {
  EXPECT_EQ(texts(from_commas(",word,")), Texts{"word"});
  EXPECT_EQ(texts(from_commas(",,word")), Texts{"word"});
}

TEST(StringArray, CommaSeparatedTokensKeepOrderAndBlanks) {
  EXPECT_EQ(texts(from_commas("b, a ,,c")), (Texts{"b", " a ", "c"}));
  EXPECT_EQ(texts(from_commas("")), Texts{});
  EXPECT_EQ(texts(from_commas(",,,")), Texts{});
}

TEST(StringArray, CommaSeparatedTextEndsAtItsLength) {
  const StringArrayPtr array(qvx_string_array_from_comma_separated("ab,cd,ef", 4));
  EXPECT_EQ(texts(array), (Texts{"ab", "c"}));
}

TEST(StringArray, CommaSeparatedTextReportsFailedAppend) {
  if (!MemoryLimit::kSupported) GTEST_SKIP();
  const std::string huge(MemoryLimit::kTooMuch, 'x');
  const LogCapture log;
  const MemoryLimit limit;
  EXPECT_EQ(from_commas(huge), nullptr);
  EXPECT_EQ(log.messages(), (std::vector<LogMessage>{{3, "Unable to append string"}}));
}

TEST(StringArray, RemoveDuplicatesLeavesOneOfThree) {
  StringArrayPtr array = make_string_array({"same", "same", "same"});
  EXPECT_TRUE(remove_duplicates(array, true));
  EXPECT_EQ(texts(array), Texts{"same"});
}

TEST(StringArray, RemoveDuplicatesComparesWithThePredecessorOnly) {
  StringArrayPtr array = make_string_array({"a", "a", "b", "a", "c", "c"});
  EXPECT_TRUE(remove_duplicates(array, true));
  EXPECT_EQ(texts(array), (Texts{"a", "b", "a", "c"}));
}

TEST(StringArray, RemoveDuplicatesLeavesShortArraysAlone) {
  StringArrayPtr none = make_string_array();
  EXPECT_TRUE(remove_duplicates(none, true));
  EXPECT_EQ(none->count, 0U);
  StringArrayPtr one = make_string_array({"a"});
  EXPECT_TRUE(remove_duplicates(one, true));
  EXPECT_EQ(texts(one), Texts{"a"});
}

TEST(StringArray, RemoveDuplicatesOfUnsortedArrayIsNotImplemented) {
  StringArrayPtr array = make_string_array({"a", "a"});
  const LogCapture log;
  EXPECT_FALSE(remove_duplicates(array, false));
  EXPECT_EQ(array->count, 2U);
  EXPECT_EQ(log.messages(),
            (std::vector<LogMessage>{{3, "[qvx_string_array_remove_duplicates] not implemented"}}));
}

TEST(StringArray, PrintLogsEveryElement) {
  const StringArrayPtr array = make_string_array({"x", "y"});
  const LogCapture log(6);
  qvx_string_array_print(6, array.get(), "files");
  qvx_string_array_print(7, array.get(), "files");
  EXPECT_EQ(log.messages(), (std::vector<LogMessage>{{6, "files[0] = x"}, {6, "files[1] = y"}}));
}

TEST(StringArray, LoadLinesTrimsAndSkipsEmptyAndCommentLines) {
  const TempDir dir;
  const std::string path =
      dir.write_file("list", "first\n\n  \t\n# note\n   # note\n \tsecond word\v \r\nlast#1");
  StringArrayPtr array = make_string_array({"kept"});
  const LogCapture log;
  EXPECT_TRUE(load_lines(array, path, "pattern"));
  EXPECT_EQ(texts(array), (Texts{"kept", "first", "second word", "last#1"}));
  EXPECT_EQ(log.messages(), (std::vector<LogMessage>{{6, "Loading pattern from " + path}}));
}

TEST(StringArray, LoadLinesWithoutLabelIsQuiet) {
  const TempDir dir;
  StringArrayPtr array = make_string_array();
  const LogCapture log;
  EXPECT_TRUE(load_lines(array, dir.write_file("list", "a\n"), nullptr));
  EXPECT_EQ(texts(array), Texts{"a"});
  EXPECT_TRUE(log.messages().empty());
}

TEST(StringArray, LoadLinesReportsFileThatCannotBeOpened) {
  const TempDir dir;
  const std::string path = dir.file("none");
  StringArrayPtr array = make_string_array();
  const LogCapture log;
  EXPECT_FALSE(load_lines(array, path, "pattern"));
  EXPECT_FALSE(load_lines(array, path, nullptr));
  EXPECT_EQ(log.messages(), (std::vector<LogMessage>{
                                {6, "Failed to open pattern file " + path + ": No such file or directory"},
                                {6, "Failed to open  file " + path + ": No such file or directory"}}));
}

}  // namespace
}  // namespace qvx
