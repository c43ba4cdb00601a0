#include "qvx/support/json_text.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <exception>

#include "qvx/support/bytes.h"
#include "qvx/support/md5.h"
#include "qvx/support/number.h"

namespace qvx::json {
namespace {

using Word = std::uint64_t;

constexpr Word in_every_byte(unsigned char byte) {
  return Word{0x0101010101010101} * byte;
}

constexpr Word kHighBits = in_every_byte(0x80);

// Marks the bytes that need an escape in their high bits. A borrow can mark a byte wrongly, but only behind
// one that is marked rightly, so the lowest mark always holds.
constexpr Word marks_to_escape(Word word) {
  const Word quote = word ^ in_every_byte('"');
  const Word backslash = word ^ in_every_byte('\\');
  return (((word - in_every_byte(0x20)) & ~word) | ((quote - in_every_byte(1)) & ~quote) |
          ((backslash - in_every_byte(1)) & ~backslash)) &
         kHighBits;
}

// Sixteen bytes in a vector register where the processor has them.
using Piece = unsigned char __attribute__((vector_size(16)));

// Copies one piece. False when one of its bytes needs an escape.
bool copy_piece(char* out, const char* at) {
  Piece piece;
  std::memcpy(&piece, at, sizeof piece);
  std::memcpy(out, &piece, sizeof piece);
  const auto marks = (piece < 0x20) | (piece == '"') | (piece == '\\');
  const auto words = std::bit_cast<std::array<Word, 2>>(marks);
  return (words[0] | words[1]) == 0;
}

// One to seven bytes, in a word whose others are zero.
Word load_tail(const char* at, std::size_t size) {
  if (size >= sizeof(std::uint32_t)) {
    const std::size_t last = size - sizeof(std::uint32_t);
    return load_le<std::uint32_t>(at) | Word{load_le<std::uint32_t>(at + last)} << (8 * last);
  }
  const auto byte = [at](std::size_t i) { return Word{static_cast<unsigned char>(at[i])} << (8 * i); };
  return byte(0) | byte(size / 2) | byte(size - 1);
}

char* write_escape(char* out, unsigned char byte) {
  *out++ = '\\';
  switch (byte) {
    case '"':
    case '\\':
      *out++ = static_cast<char>(byte);
      return out;
    case '\b':
      *out++ = 'b';
      return out;
    case '\f':
      *out++ = 'f';
      return out;
    case '\n':
      *out++ = 'n';
      return out;
    case '\r':
      *out++ = 'r';
      return out;
    case '\t':
      *out++ = 't';
      return out;
    default:
      *out++ = 'u';
      *out++ = '0';
      *out++ = '0';
      *out++ = static_cast<char>('0' + (byte >> 4));
      *out++ = "0123456789abcdef"[byte & 15];
      return out;
  }
}

class Writer {
 public:
  using Take = std::function<void(std::string_view)>;

  Writer(Style style, const Take& take) : pretty_(style == Style::pretty), take_(take) {}

  void finish() { hand_out(); }

  // One frame a level of the value.
  void write(const Value& value, std::size_t level) {
    switch (value.kind()) {
      case Kind::null:
        text_ += "null";
        return;
      case Kind::boolean:
        text_ += *value.as_boolean() ? "true" : "false";
        return;
      case Kind::number:
        write_number(*value.as_number());
        return;
      case Kind::string:
        append_quoted(text_, *value.as_string());
        return;
      case Kind::array: {
        bool first = true;
        text_ += '[';
        for (const Value& element : *value.as_array()) {
          begin_entry(first, level + 1);
          write(element, level + 1);
        }
        if (!first) break_line(level);
        text_ += ']';
        return;
      }
      case Kind::object: {
        bool first = true;
        text_ += '{';
        for (const Member& member : value.as_object()->members()) {
          begin_entry(first, level + 1);
          append_quoted(text_, member.name);
          text_ += pretty_ ? ": " : ":";
          write(member.value, level + 1);
        }
        if (!first) break_line(level);
        text_ += '}';
        return;
      }
    }
  }

 private:
  static constexpr std::size_t kPiece = std::size_t{4} * 1024;

  void hand_out() {
    take_(text_);
    text_.clear();
  }

  void write_number(double number) {
    char digits[kNumberRoom];
    text_.append(digits, write_json_number(digits, number));
  }

  void begin_entry(bool& first, std::size_t level) {
    if (!first) text_ += ',';
    first = false;
    break_line(level);
  }

  void break_line(std::size_t level) {
    if (text_.size() >= kPiece) hand_out();
    if (!pretty_) return;
    text_ += '\n';
    text_.append(level * kIndentation.size(), kIndentation[0]);
  }

  bool pretty_;
  const Take& take_;
  std::string text_;
};

// The number of bytes of the character that begins at `at`, 0 when it is not well formed. `left` is not 0.
std::size_t character_size(const unsigned char* at, std::size_t left) {
  const unsigned char lead = at[0];
  if (lead < 0x80) return 1;
  const std::size_t size = lead < 0xC2 ? 0 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF5 ? 4 : 0;
  if (size == 0 || size > left) return 0;
  for (std::size_t i = 1; i < size; ++i)
    if ((at[i] & 0xC0) != 0x80) return 0;
  // The second byte tells overlong forms, surrogates and what lies above U+10FFFF.
  if (lead == 0xE0 && at[1] < 0xA0) return 0;
  if (lead == 0xED && at[1] > 0x9F) return 0;
  if (lead == 0xF0 && at[1] < 0x90) return 0;
  if (lead == 0xF4 && at[1] > 0x8F) return 0;
  return size;
}

// A word at a time, whatever has to be escaped.
[[gnu::noinline]] char* write_words(char* out, const char* at, std::size_t left) {
  for (;;) {
    Word marks = 0;
    while (left >= sizeof(Word)) {
      const auto word = load_le<Word>(at);
      store_le(out, word);
      marks = marks_to_escape(word);
      if (marks != 0) break;
      at += sizeof(Word);
      out += sizeof(Word);
      left -= sizeof(Word);
    }
    if (marks == 0) {
      if (left == 0) return out;
      const Word word = load_tail(at, left);
      store_le(out, word);
      marks = marks_to_escape(word) & (~Word{0} >> (8 * (sizeof(Word) - left)));
      if (marks == 0) return out + left;
    }
    const auto clean = static_cast<std::size_t>(std::countr_zero(marks)) / 8;
    out = write_escape(out + clean, static_cast<unsigned char>(at[clean]));
    at += clean + 1;
    left -= clean + 1;
  }
}

}  // namespace

std::optional<std::string> to_text(const Value& value, Style style) noexcept {
  std::string text;
  if (!write_text(value, style, [&text](std::string_view piece) { text += piece; })) return std::nullopt;
  return text;
}

bool write_text(const Value& value, Style style, const std::function<void(std::string_view)>& take) noexcept {
  try {
    Writer writer(style, take);
    writer.write(value, 0);
    writer.finish();
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

std::optional<std::array<std::byte, 16>> pretty_text_md5(const Value& value) noexcept {
  Md5 md5;
  if (!write_text(value, Style::pretty, [&md5](std::string_view piece) { md5.add(piece); }))
    return std::nullopt;
  return md5.digest();
}

char* write_escaped(char* out, std::string_view text) {
  const char* at = text.data();
  std::size_t left = text.size();
  if (left < sizeof(Piece)) return write_words(out, at, left);
  for (; left >= sizeof(Piece); left -= sizeof(Piece)) {
    if (!copy_piece(out, at)) return write_words(out, at, left);
    at += sizeof(Piece);
    out += sizeof(Piece);
  }
  // The last bytes once more with some of those before them.
  const std::size_t back = sizeof(Piece) - left;
  return copy_piece(out - back, at - back) ? out + left : write_words(out, at, left);
}

void append_quoted(std::string& out, std::string_view text) {
  constexpr std::size_t kPiece = 128;
  char escaped[escaped_room(kPiece)];
  out += '"';
  while (!text.empty()) {
    const std::string_view piece = text.substr(0, kPiece);
    out.append(escaped, write_escaped(escaped, piece));
    text.remove_prefix(piece.size());
  }
  out += '"';
}

bool is_valid_utf8(std::string_view text) {
  const auto* at = reinterpret_cast<const unsigned char*>(text.data());
  std::size_t left = text.size();
  while (left > 0) {
    if (left >= sizeof(Word) && (load_le<Word>(at) & kHighBits) == 0) {
      at += sizeof(Word);
      left -= sizeof(Word);
      continue;
    }
    const std::size_t size = character_size(at, left);
    if (size == 0) return false;
    at += size;
    left -= size;
  }
  return true;
}

}  // namespace qvx::json
