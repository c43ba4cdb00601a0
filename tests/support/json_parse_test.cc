#include "qvx/support/json_parse.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <clocale>
#include <cmath>
#include <fstream>
#include <span>
#include <string>
#include <string_view>

#include "qvx/support/bytes.h"
#include "qvx/support/json_text.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/fake_read.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/temp_dir.h"

namespace qvx::json {
namespace {

constexpr const char* kRefused = "(refused)";

// The compact text of what was parsed.
std::string reread(std::string_view text) {
  const auto value = parse(text);
  return value ? to_text(*value, Style::compact).value_or("(no text)") : kRefused;
}

std::string repeated(std::string_view text, std::size_t count) {
  std::string out;
  for (std::size_t i = 0; i < count; ++i)
    out += text;
  return out;
}

std::string from_base64(std::string_view text) {
  constexpr std::string_view kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  unsigned bits = 0;
  int count = 0;
  for (const char c : text) {
    const std::size_t digit = kDigits.find(c);
    if (digit == std::string_view::npos) break;
    bits = bits << 6 | static_cast<unsigned>(digit);
    count += 6;
    if (count >= 8) {
      count -= 8;
      out += static_cast<char>(bits >> count & 0xFF);
    }
  }
  return out;
}

TEST(JsonVectors, EveryVerdictAndEveryTextIsTheExpectedOne) {
  std::ifstream file(std::string(QVX_TEST_DATA_DIR) + "/support/json_vectors.tsv");
  ASSERT_TRUE(file);
  std::size_t cases = 0;
  for (std::string line; std::getline(file, line); ++cases) {
    std::array<std::string, 5> columns;
    std::size_t start = 0;
    for (std::string& column : columns) {
      const std::size_t tab = line.find('\t', start);
      column = line.substr(start, tab - start);
      start = tab == std::string::npos ? line.size() : tab + 1;
    }
    const auto& [name, input, verdict, compact, pretty] = columns;
    ASSERT_TRUE(verdict == "accept" || verdict == "reject") << name;
    const auto value = parse(from_base64(input));
    ASSERT_EQ(value.has_value(), verdict == "accept") << name;
    if (!value) continue;
    EXPECT_EQ(to_text(*value, Style::compact), from_base64(compact)) << name;
    EXPECT_EQ(to_text(*value, Style::pretty), from_base64(pretty)) << name;
  }
  EXPECT_EQ(cases, 288U);
}

TEST(JsonParse, EveryKindIsRead) {
  EXPECT_EQ(reread(" { \"a\" : [ null , true , false , 1.5 , \"t\" ] , \"b\" : { } }\r\n\t"),
            R"({"a":[null,true,false,1.5,"t"],"b":{}})");
}

TEST(JsonParse, AByteOrderMarkIsSkippedOnceAndOnlyInFront) {
  EXPECT_EQ(reread("\xEF\xBB\xBF[1]"), "[1]");
  EXPECT_EQ(reread("\xEF\xBB\xBF\xEF\xBB\xBF[1]"), kRefused);
  EXPECT_EQ(reread(" \xEF\xBB\xBF[1]"), kRefused);
  EXPECT_EQ(reread("\xEF\xBB\xBF"), kRefused);
  EXPECT_EQ(reread("\xEF\xBB[1]"), kRefused);
}

TEST(JsonParse, TextBehindTheRootIsIgnored) {
  EXPECT_EQ(reread("{}}"), "{}");
  EXPECT_EQ(reread("[1] // {"), "[1]");
  EXPECT_EQ(reread("\"a\"\x01"), "\"a\"");
  EXPECT_EQ(reread("nullnull"), "null");
  EXPECT_EQ(reread("12,34"), "12");
  EXPECT_EQ(reread("1.5.2"), "1.5");
}

TEST(JsonParse, OneTrailingCommaIsAccepted) {
  EXPECT_EQ(reread("[1,]"), "[1]");
  EXPECT_EQ(reread("{\"a\":[1 , ] , }"), R"({"a":[1]})");
  EXPECT_EQ(reread("[1,,]"), kRefused);
  EXPECT_EQ(reread("[,]"), kRefused);
  EXPECT_EQ(reread("{,}"), kRefused);
  EXPECT_EQ(reread("{\"a\":1,,}"), kRefused);
}

TEST(JsonParse, ANameThatOccursTwiceInOneObjectIsRefused) {
  EXPECT_EQ(reread(R"({"a":1,"b":2,"a":3})"), kRefused);
  EXPECT_EQ(reread(R"([{"x":{"a":1,"\u0061":1}}])"), kRefused);
  EXPECT_EQ(reread(R"({"":1,"":1})"), kRefused);
  EXPECT_EQ(reread(R"({"a":{"a":1},"b":{"a":1}})"), R"({"a":{"a":1},"b":{"a":1}})");
  EXPECT_EQ(reread(R"({"a":1,"A":2})"), R"({"a":1,"A":2})");
  std::string many = "{";
  for (int i = 0; i < 40; ++i)
    many.append("\"k").append(std::to_string(i)).append("\":0,");
  EXPECT_NE(reread(many + "\"k40\":0}"), kRefused);
  EXPECT_EQ(reread(many + "\"k17\":0}"), kRefused);
}

TEST(JsonParse, CommentsAreRefused) {
  EXPECT_EQ(reread("/* c */[1]"), kRefused);
  EXPECT_EQ(reread("[1 /* c */]"), kRefused);
  EXPECT_EQ(reread("// c\n[1]"), kRefused);
  EXPECT_EQ(reread("{\"a\": // c\n1}"), kRefused);
}

TEST(JsonParse, ValuesAreReadDownToLevel2048) {
  const std::string deepest = repeated("[", 2048) + "1" + repeated("]", 2048);
  EXPECT_EQ(reread(deepest), deepest);
  EXPECT_EQ(reread("[" + deepest + "]"), kRefused);
  // The last array is itself a value inside 2048 others.
  const std::string empty = repeated("[", 2049) + repeated("]", 2049);
  EXPECT_EQ(reread(empty), empty);
  EXPECT_EQ(reread("[" + empty + "]"), kRefused);
  const std::string objects = repeated("{\"a\":", 2048) + "null" + repeated("}", 2048);
  EXPECT_EQ(reread(objects), objects);
  EXPECT_EQ(reread("{\"a\":" + objects + "}"), kRefused);
  EXPECT_EQ(reread(repeated("[", 1000000)), kRefused);
}

TEST(JsonParse, DepthCountsLevelsAndNotContainers) {
  const std::string wide = std::string("[") + repeated("[],{},", 5000) + "1]";
  EXPECT_EQ(reread(wide), wide);
}

TEST(JsonParse, ControlCharactersInStringsAreRefused) {
  for (char control = 1; control < 0x20; ++control) {
    EXPECT_EQ(reread(std::string("[\"a") + control + "\"]"), kRefused) << int{control};
    EXPECT_EQ(reread(std::string("{\"a") + control + "\":1}"), kRefused) << int{control};
  }
  EXPECT_EQ(reread("\"\x7F\""), "\"\x7F\"");
}

TEST(JsonParse, AnEscapedNulIsAcceptedInAStringButNotInAName) {
  EXPECT_EQ(reread(R"(["a\u0000b"])"), R"(["a\u0000b"])");
  EXPECT_EQ(reread(R"({"a\u0000b":1})"), kRefused);
  EXPECT_EQ(reread(R"({"\u0000":1})"), kRefused);
}

TEST(JsonParse, EscapesAreRead) {
  EXPECT_EQ(reread(R"("\"\\\/\b\f\n\r\t\u0041\u00e9\u4E2d\ud83d\uDE00")"),
            "\"\\\"\\\\/\\b\\f\\n\\r\\tA\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80\"");
  for (const char* const text : {R"("\x")", R"("\u12")", R"("\u12g4")", R"("\U0041")", R"("\)", R"("\")"})
    EXPECT_EQ(reread(text), kRefused) << text;
}

TEST(JsonParse, HalvesOfSurrogatePairsAreRefused) {
  for (const char* const text :
       {R"("\ud83d")", R"("\ud83dx")", R"("\ud83d\n")", R"("\ud83d\u0041")", R"("\ud83d\ud83d")",
        R"("\ude00")", R"("\uDFFF")", R"(["\\\udc00"])", R"({"\udbff\udfff\udc00":1})"})
    EXPECT_EQ(reread(text), kRefused) << text;
  EXPECT_EQ(reread(R"("\\ude00")"), R"("\\ude00")");
  EXPECT_EQ(reread(R"("\ud83d\ude00\\udc00")"), "\"\xF0\x9F\x98\x80\\\\udc00\"");
  EXPECT_EQ(reread(R"("\ud7ff\ue000")"), "\"\xED\x9F\xBF\xEE\x80\x80\"");
  EXPECT_EQ(reread(R"([1]"\ude00")"), "[1]");
}

TEST(JsonParse, BytesThatAreNotUtf8AreKept) {
  EXPECT_EQ(reread("{\"\xFF\":\"\x80\xC3\xED\xB0\x80\"}"), "{\"\xFF\":\"\x80\xC3\xED\xB0\x80\"}");
}

TEST(JsonParse, NumbersAreTheNearestDouble) {
  EXPECT_EQ(parse("0.1")->as_number(), 0.1);
  EXPECT_EQ(parse("-12.5e-1")->as_number(), -1.25);
  EXPECT_EQ(parse("1E+2")->as_number(), 100.0);
  EXPECT_EQ(parse("9007199254740993")->as_number(), 9007199254740992.0);
  EXPECT_EQ(parse("[123456789012345678901234567890]")->as_array()->at(0).as_number(),
            123456789012345678901234567890.0);
  EXPECT_EQ(parse("1.7976931348623157e308")->as_number(), 1.7976931348623157e308);
  EXPECT_EQ(parse("1797693134862315807e290")->as_number(), 1.7976931348623157e308);
  EXPECT_EQ(parse("2.2250738585072011e-308")->as_number(), 2.2250738585072011e-308);
  EXPECT_EQ(parse("5e-324")->as_number(), 5e-324);
  EXPECT_TRUE(std::signbit(*parse("-0")->as_number()));
}

TEST(JsonParse, NumbersTooSmallForADoubleAreTheNearestOne) {
  EXPECT_EQ(parse("1e-400")->as_number(), 0.0);
  EXPECT_EQ(parse("3e-324")->as_number(), 5e-324);
  EXPECT_EQ(parse("1e-99999999999")->as_number(), 0.0);
  EXPECT_TRUE(std::signbit(*parse("-1e-400")->as_number()));
}

TEST(JsonParse, NumbersThatOverflowAreRefused) {
  for (const char* const text :
       {"1e309", "-1e309", "1.8e308", "[1e400]", "1e99999999999", "1797693134862315808e290"})
    EXPECT_EQ(reread(text), kRefused) << text;
  EXPECT_EQ(reread(repeated("9", 400)), kRefused);
}

TEST(JsonParse, WhatIsNoNumberIsRefused) {
  for (const char* const text :
       {"01",   "-01",  "[01]", "[-01]", "00",  "0x10", "-0x1",     "[0x10]",    "0X1", "+1", ".5",
        "[1.]", "[1e]", "-",    "[-]",   "NaN", "-NaN", "Infinity", "-Infinity", "inf", "nan"})
    EXPECT_EQ(reread(text), kRefused) << text;
  EXPECT_EQ(reread("0 1"), "0");
  EXPECT_EQ(reread("0"), "0");
}

TEST(JsonParse, NumbersDoNotDependOnTheLocale) {
  const std::string old = std::setlocale(LC_ALL, nullptr);
  for (const char* const name : {"de_DE.UTF-8", "fr_FR.UTF-8", "C.UTF-8"}) {
    if (std::setlocale(LC_ALL, name) == nullptr) continue;
    EXPECT_EQ(reread("[1.5,1.5e-400]"), "[1.5,0]") << name;
  }
  std::setlocale(LC_ALL, old.c_str());
}

TEST(JsonParse, IncompleteOrEmptyTextIsRefused) {
  for (const char* const text :
       {"",          " ",     "\n",    "nul",    "tru",     "\"",       "\"a",   "[",
        "[1",        "[1,",   "{",     "{\"a\"", "{\"a\":", "{\"a\":1", "{a:1}", "{'a':1}",
        "{\"a\" 1}", "{1:1}", "[1 2]", "]",      "}",       "NULL",     "True"})
    EXPECT_EQ(reread(text), kRefused) << text;
}

TEST(JsonParse, TextEndsAtItsFirstNul) {
  EXPECT_EQ(reread(std::string_view("[1]\0{", 5)), "[1]");
  EXPECT_EQ(reread(std::string_view("[1\0]", 4)), kRefused);
  EXPECT_EQ(reread(std::string_view("\"a\0b\"", 5)), kRefused);
  EXPECT_EQ(reread(std::string_view("\0[1]", 4)), kRefused);
  EXPECT_EQ(reread(std::string_view("12\0"
                                    "3",
                                    4)),
            "12");
}

TEST(JsonParse, EveryTruncationIsRefusedWithoutReadingBeyondIt) {
  const std::string text =
      "\xEF\xBB\xBF{\"key\\u00e9\" : [1.25e-3, -17, true, false, null, \"\\ud83d\\ude00\\n\xC3\xA9\"], "
      "\"o\":{\"n\":{},},}";
  ASSERT_NE(reread(text), kRefused);
  test::for_every_truncation(std::as_bytes(std::span(text)), [](std::span<const std::byte> bytes) {
    EXPECT_EQ(reread(as_text(bytes)), kRefused) << bytes.size();
  });
  EXPECT_EQ(
      reread(test::GuardedBuffer(text).text()),
      "{\"key\xC3\xA9\":[0.00125,-17,true,false,null,\"\xF0\x9F\x98\x80\\n\xC3\xA9\"],\"o\":{\"n\":{}}}");
  for (const std::string_view root : {"-12.5e+10", "true", "false", "null", "0"})
    EXPECT_NE(reread(test::GuardedBuffer(root).text()), kRefused) << root;
}

TEST(JsonParse, ShortMemoryIsARefusal) {
  std::string text = R"({"a":[1e-400,"a string that needs memory of its own"],"o":{)";
  for (int i = 0; i < 20; ++i)
    text.append("\"a name that needs memory of its own ").append(std::to_string(i)).append("\":{},");
  text += "}}";
  std::size_t failures = 0;
  for (std::size_t successes = 0;; ++successes) {
    bool failed;
    std::optional<Value> value;
    {
      const test::FailingAllocations failing(successes);
      value = parse(text);
      failed = failing.any_failed();
    }
    ASSERT_EQ(value.has_value(), !failed) << successes;
    if (!failed) break;
    ++failures;
  }
  EXPECT_GT(failures, 50U);
}

TEST(JsonParseFile, WholeFilesAreRead) {
  const test::TempDir folder;
  const std::string large = std::string("[") + repeated("\"0123456789abcdef\",", 20000) + "1]";
  const auto value = parse_file(folder.write_file("large.json", large));
  ASSERT_TRUE(value);
  EXPECT_EQ(to_text(*value, Style::compact), large);
}

TEST(JsonParseFile, InterruptedAndShortReadsAreContinued) {
  const test::TempDir folder;
  const std::string path = folder.write_file("short.json", "[1,2,3]");
  const test::FakeRead pieces({{.error = EINTR}, {.most = 2}, {.error = EINTR}, {.most = 3}});
  const auto value = parse_file(path);
  ASSERT_TRUE(value);
  EXPECT_EQ(to_text(*value, Style::compact), "[1,2,3]");
  EXPECT_EQ(pieces.steps_left(), 0U);
}

TEST(JsonParseFile, AFileEndsAtItsFirstNul) {
  const test::TempDir folder;
  EXPECT_TRUE(parse_file(folder.write_file("tail.json", std::string_view("{\"a\":1}\0{", 9))));
  EXPECT_FALSE(parse_file(folder.write_file("cut.json", std::string_view("{\"a\":\0 1}", 9))));
  // Has no end, but a NUL at once.
  EXPECT_FALSE(parse_file("/dev/zero"));
}

TEST(JsonParseFile, AFileThatIsNoDocumentLeavesNoError) {
  const test::TempDir folder;
  for (const char* const content : {"", " \n", "{"}) {
    const std::string path = folder.write_file("no.json", content);
    errno = EIO;
    EXPECT_FALSE(parse_file(path));
    EXPECT_EQ(errno, 0);
  }
}

TEST(JsonParseFile, AFileThatCannotBeReadTellsWhy) {
  const test::TempDir folder;
  EXPECT_FALSE(parse_file(folder.file("missing.json")));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(parse_file(folder.path().string()));
  EXPECT_EQ(errno, EISDIR);
  EXPECT_FALSE(parse_file(""));
  EXPECT_EQ(errno, ENOENT);
}

TEST(JsonParseFile, ShortMemoryIsAnErrorOfItsOwn) {
  const test::TempDir folder;
  const std::string path = folder.write_file("a.json", "[\"a string that needs memory of its own\"]");
  const test::FailingAllocations failing(0);
  EXPECT_FALSE(parse_file(path));
  EXPECT_EQ(errno, ENOMEM);
}

}  // namespace
}  // namespace qvx::json
