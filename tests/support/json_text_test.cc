#include "qvx/support/json_text.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <limits>
#include <new>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/support/bytes.h"
#include "qvx/support/json_parse.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/memory_limit.h"

namespace qvx::json {
namespace {

std::string escaped(std::string_view text) {
  std::vector<char> room(escaped_room(text.size()));
  return {room.data(), write_escaped(room.data(), text)};
}

std::string in_quotes(std::string_view text) {
  std::string out;
  append_quoted(out, text);
  return out;
}

// The slow and obvious way, a byte at a time.
std::string escaped_bytewise(std::string_view text) {
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    constexpr std::string_view kShort = "\"\\\b\f\n\r\t";
    if (const std::size_t i = kShort.find(c); i != std::string_view::npos) {
      out += '\\';
      out += "\"\\bfnrt"[i];
    } else if (byte < 0x20) {
      char code[8];
      std::snprintf(code, sizeof code, "\\u%04x", byte);
      out += code;
    } else {
      out += c;
    }
  }
  return out;
}

std::string text_of(const Value& value, Style style) {
  return to_text(value, style).value_or("(no text)");
}

Value number(double value) {
  return Value::number(value).value_or(Value());
}

Value sample() {
  Object inner;
  inner.set("key \"1\"", Value::raw_string("a/b\n"));
  inner.set("", Value());
  Array list;
  list.push_back(number(1));
  list.push_back(Value::boolean(true));
  list.push_back(Value::boolean(false));
  list.push_back(Value(Array{}));
  list.push_back(Value(Object{}));
  list.push_back(Value(std::move(inner)));
  Object root;
  root.set("list", Value(std::move(list)));
  root.set("last", Value::raw_string(""));
  return Value(std::move(root));
}

TEST(JsonText, CompactHasNoWhiteSpace) {
  EXPECT_EQ(text_of(sample(), Style::compact),
            R"({"list":[1,true,false,[],{},{"key \"1\"":"a/b\n","":null}],"last":""})");
}

TEST(JsonText, PrettyHasAnElementALineAndFourBlanksALevel) {
  EXPECT_EQ(text_of(sample(), Style::pretty),
            "{\n"
            "    \"list\": [\n"
            "        1,\n"
            "        true,\n"
            "        false,\n"
            "        [],\n"
            "        {},\n"
            "        {\n"
            "            \"key \\\"1\\\"\": \"a/b\\n\",\n"
            "            \"\": null\n"
            "        }\n"
            "    ],\n"
            "    \"last\": \"\"\n"
            "}");
}

TEST(JsonText, EmptyContainersStayOnTheLine) {
  EXPECT_EQ(text_of(Value(Array{}), Style::pretty), "[]");
  EXPECT_EQ(text_of(Value(Object{}), Style::pretty), "{}");
  EXPECT_EQ(text_of(Value(Array{}), Style::compact), "[]");
  EXPECT_EQ(text_of(Value(Object{}), Style::compact), "{}");
}

TEST(JsonText, NumbersAreSeventeenDigitDoubles) {
  EXPECT_EQ(text_of(number(0.1), Style::compact), "0.10000000000000001");
  EXPECT_EQ(text_of(number(-0.0), Style::compact), "-0");
  EXPECT_EQ(text_of(number(1e17), Style::compact), "1e+17");
  EXPECT_EQ(text_of(number(99999999999999984.0), Style::compact), "99999999999999984");
  EXPECT_EQ(text_of(number(5e-324), Style::compact), "4.9406564584124654e-324");
  EXPECT_EQ(text_of(number(std::numeric_limits<double>::max()), Style::compact), "1.7976931348623157e+308");
  EXPECT_EQ(text_of(Value::integer(std::uint64_t{18446744073709551615U}), Style::compact),
            "1.8446744073709552e+19");
}

TEST(JsonText, StringsAreEscapedWhereTheyMustBe) {
  EXPECT_EQ(in_quotes("\"\\\b\f\n\r\t"), R"("\"\\\b\f\n\r\t")");
  EXPECT_EQ(in_quotes(std::string_view("\0\x01\x0B\x0E\x1F", 5)), R"("\u0000\u0001\u000b\u000e\u001f")");
  EXPECT_EQ(in_quotes("/ ' <&> \x7F"), "\"/ ' <&> \x7F\"");
  EXPECT_EQ(in_quotes("\xC3\xA9\xF0\x9F\x98\x80 \xFF\x80"), "\"\xC3\xA9\xF0\x9F\x98\x80 \xFF\x80\"");
  EXPECT_EQ(in_quotes(""), "\"\"");
  EXPECT_EQ(in_quotes(std::string(1000, '\n')).size(), 2002U);
  EXPECT_EQ(in_quotes(std::string(1000, 'n')), "\"" + std::string(1000, 'n') + "\"");
}

TEST(JsonText, EveryByteAtEveryPlaceIsWrittenAsByteByByte) {
  for (int byte = 0; byte < 256; ++byte) {
    for (std::size_t size = 1; size <= 40; ++size) {
      for (std::size_t place = 0; place < size; ++place) {
        std::string text(size, 'x');
        text[place] = static_cast<char>(byte);
        ASSERT_EQ(escaped(text), escaped_bytewise(text)) << byte << " at " << place << " of " << size;
      }
    }
  }
}

// Neighbours in a word must not mark one another.
TEST(JsonText, EveryPairOfBytesIsWrittenAsByteByByte) {
  std::string text(12, 'x');
  for (int first = 0; first < 256; ++first) {
    for (int second = 0; second < 256; ++second) {
      text[3] = static_cast<char>(first);
      text[4] = static_cast<char>(second);
      ASSERT_EQ(escaped(text), escaped_bytewise(text)) << first << " " << second;
    }
  }
}

TEST(JsonText, EscapingKeepsToItsRoomAndItsText) {
  for (const char byte : {'x', '\x01'}) {
    const std::string text(40, byte);
    test::for_every_truncation(std::as_bytes(std::span(text)), [&](std::span<const std::byte> bytes) {
      const std::string room(6 * bytes.size() + 16, '\0');
      const test::GuardedBuffer out(room);
      char* const begin = reinterpret_cast<char*>(out.data());
      const auto size = static_cast<std::size_t>(write_escaped(begin, as_text(bytes)) - begin);
      EXPECT_EQ(size, bytes.size() * (byte == 'x' ? 1 : 6));
      EXPECT_TRUE(is_valid_utf8(as_text(bytes)));
    });
  }
}

TEST(JsonText, ShortMemoryGivesNoText) {
  const Value value = sample();
  std::size_t failures = 0;
  for (std::size_t successes = 0;; ++successes) {
    bool failed;
    std::optional<std::string> text;
    {
      const test::FailingAllocations failing(successes);
      text = to_text(value, Style::pretty);
      failed = failing.any_failed();
    }
    EXPECT_EQ(text.has_value(), !failed);
    if (!failed) break;
    ++failures;
  }
  EXPECT_GT(failures, 0U);
}

TEST(JsonUtf8, WellFormedTextIsValid) {
  for (const std::string_view text :
       {"", "plain", "\x7F", "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80",
        "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF", "eight by\xC3\xA9tes and \xE4\xB8\xAD more",
        "\xEF\xBB\xBF"}) {
    EXPECT_TRUE(is_valid_utf8(text)) << text;
  }
  EXPECT_TRUE(is_valid_utf8(std::string_view("\0", 1)));
}

TEST(JsonUtf8, EverythingElseIsNot) {
  for (const std::string_view text : {
           "\x80",  // a continuation alone
           "\xBF",  //
           "\xC0\x80",
           "\xC1\xBF",  // overlong
           "\xE0\x80\x80",
           "\xE0\x9F\xBF",      //
           "\xF0\x80\x80\x80",  //
           "\xF0\x8F\xBF\xBF",  //
           "\xED\xA0\x80",
           "\xED\xBF\xBF",      // surrogates
           "\xF4\x90\x80\x80",  // above U+10FFFF
           "\xF5\x80\x80\x80",
           "\xFE",
           "\xFF",  //
           "\xC3",
           "\xE4\xB8",
           "\xF0\x9F\x98",  // cut short
           "\xC3x",
           "\xE4\xB8x",
           "\xE4x\xAD",
           "\xF0\x9F\x98x",
           "eight bytes and\xFF more and more",
       }) {
    EXPECT_FALSE(is_valid_utf8(text)) << text;
  }
}

// 24,000 empty arrays inside 2,000 others: 76 KB that have a pretty text of 208 MB.
std::string hexadecimal(const std::array<std::byte, 16>& digest) {
  std::string text;
  for (const std::byte byte : digest) {
    text += "0123456789abcdef"[std::to_integer<std::size_t>(byte) >> 4];
    text += "0123456789abcdef"[std::to_integer<std::size_t>(byte) & 15];
  }
  return text;
}

std::optional<Value> deep_document() {
  std::string text(2000, '[');
  for (int i = 0; i < 24000; ++i)
    text += i > 0 ? ",[]" : "[]";
  return parse(text.append(2000, ']'));
}

TEST(JsonText, LongTextIsHandedOutInPieces) {
  const std::optional<Value> value = deep_document();
  ASSERT_TRUE(value);
  std::size_t size = 0;
  std::size_t largest = 0;
  EXPECT_TRUE(write_text(*value, Style::pretty, [&](std::string_view piece) {
    size += piece.size();
    largest = std::max(largest, piece.size());
  }));
  EXPECT_EQ(size, 208095998U);
  EXPECT_LT(largest, 20000U);
}

TEST(JsonText, DigestOfALongTextNeedsLittleMemory) {
  if (!test::MemoryLimit::kSupported) GTEST_SKIP();
  const std::optional<Value> value = deep_document();
  ASSERT_TRUE(value);
  const test::MemoryLimit limit;
  EXPECT_FALSE(to_text(*value, Style::pretty));
  const auto digest = pretty_text_md5(*value);
  ASSERT_TRUE(digest);
  EXPECT_EQ(hexadecimal(*digest), "4004d5f453baee58cb90ddc6c7c3e005");
}

TEST(JsonText, PiecesEndAtATakerThatThrows) {
  int taken = 0;
  EXPECT_FALSE(write_text(Value::boolean(true), Style::compact, [&](std::string_view) {
    ++taken;
    throw std::bad_alloc();
  }));
  EXPECT_EQ(taken, 1);
}

}  // namespace
}  // namespace qvx::json
