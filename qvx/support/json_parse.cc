#include "qvx/support/json_parse.h"

#include <locale.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>
#include <utility>
#include <vector>

// No text may end the program, so a failed assertion of the parser is a refused text.
#define RAPIDJSON_ASSERT(condition) ((condition) ? static_cast<void>(0) : throw std::logic_error(#condition))
#ifdef __clang__
// The parser adds to a null pointer while its stack is empty, which is harmless but reported.
#pragma clang attribute push(__attribute__((no_sanitize("pointer-overflow"))), apply_to = function)
#endif
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include "qvx/support/file_descriptor.h"
#ifdef __clang__
#pragma clang attribute pop
#endif

namespace qvx::json {
namespace {

constexpr std::size_t kMaxLevels = 2048;
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

// The parser's own allocator does not check what it gets.
class ThrowingAllocator {
 public:
  void* Malloc(std::size_t size) { return size != 0 ? ::operator new(size) : nullptr; }
  void* Realloc(void* old, std::size_t old_size, std::size_t size) {
    void* const block = Malloc(size);
    if (old != nullptr && block != nullptr) std::memcpy(block, old, std::min(old_size, size));
    Free(old);
    return block;
  }
  static void Free(void* block) { ::operator delete(block); }
};

// The nearest double; nothing when it overflows. A number too small for a double is the nearest one, too,
// which from_chars does not say. Independent of the locale.
std::optional<double> to_double(const char* text, std::size_t size) {
  double value = 0;
  const std::from_chars_result result = std::from_chars(text, text + size, value);
  if (result.ptr != text + size) return std::nullopt;
  if (result.ec == std::errc::result_out_of_range) {
    static const locale_t c_locale = newlocale(LC_ALL_MASK, "C", nullptr);
    if (c_locale == nullptr) return std::nullopt;
    value = strtod_l(std::string(text, size).c_str(), nullptr, c_locale);
  }
  return std::isfinite(value) ? std::optional(value) : std::nullopt;
}

// Takes the parser's events and builds the document. Every function answers whether to go on.
class Builder : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, Builder> {
 public:
  // Stands for the number events, which do not come: numbers arrive as text.
  bool Default() { return false; }

  bool Null() { return place(Value()); }
  bool Bool(bool value) { return place(Value::boolean(value)); }

  bool RawNumber(const char* text, rapidjson::SizeType size, bool) {
    const std::string_view digits(text, size);
    root_is_bare_zero_ = open_.empty() && (digits == "0" || digits == "-0");
    const std::optional<double> number = to_double(text, size);
    return number && place(*Value::number(*number));
  }

  bool String(const char* text, rapidjson::SizeType size, bool) {
    return place(Value::raw_string(std::string(text, size)));
  }

  bool Key(const char* text, rapidjson::SizeType size, bool) {
    open_.back().name.assign(text, size);
    return open_.back().name.find('\0') == std::string::npos;
  }

  bool StartObject() { return open(Value(Object())); }
  bool EndObject(rapidjson::SizeType) { return close(); }
  bool StartArray() { return open(Value(Array())); }
  bool EndArray(rapidjson::SizeType) { return close(); }

  // True when the root is "0" or "-0" and nothing more.
  bool root_is_bare_zero() const { return root_is_bare_zero_; }
  Value take_root() { return std::move(root_); }

 private:
  struct Open {
    Value container;
    std::string name;  // of the member whose value comes next
  };

  bool open(Value container) {
    if (open_.size() > kMaxLevels) return false;
    open_.push_back({std::move(container), {}});
    return true;
  }

  bool close() {
    Value container = std::move(open_.back().container);
    open_.pop_back();
    return place(std::move(container));
  }

  bool place(Value value) {
    if (open_.empty()) {
      root_ = std::move(value);
      return true;
    }
    if (open_.size() > kMaxLevels) return false;
    Open& parent = open_.back();
    if (Array* const elements = parent.container.as_array()) {
      elements->push_back(std::move(value));
      return true;
    }
    return parent.container.as_object()->add(parent.name, std::move(value));
  }

  std::vector<Open> open_;
  Value root_;
  bool root_is_bare_zero_ = false;
};

// "\uD" with this hex digit or a higher one behind it.
bool is_surrogate_escape(std::string_view escape, char lowest) {
  const auto upper = [](char c) { return c >= 'a' ? static_cast<char>(c - 'a' + 'A') : c; };
  return escape.size() >= 4 && escape[1] == 'u' && upper(escape[2]) == 'D' && upper(escape[3]) >= lowest;
}

// The parser checks that the second half of a surrogate pair follows the first, but lets one without the
// first pass. `text` is what it took for good.
bool has_lone_low_surrogate(std::string_view text) {
  constexpr std::size_t kPair = std::string_view("\\u0000\\u0000").size();
  for (std::size_t at = text.find('\\'); at != std::string_view::npos; at = text.find('\\', at)) {
    const std::string_view escape = text.substr(at);
    if (is_surrogate_escape(escape, 'C')) return true;
    at += is_surrogate_escape(escape, '8') ? kPair : 2;
  }
  return false;
}

// Throws when memory is short.
std::optional<Value> build(std::string_view text) {
  text = text.substr(0, text.find('\0'));
  if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
  // The parser counts in 32 bits.
  if (text.empty() || text.size() > std::numeric_limits<rapidjson::SizeType>::max()) return std::nullopt;

  constexpr unsigned kFlags = rapidjson::kParseStopWhenDoneFlag | rapidjson::kParseTrailingCommasFlag |
                              rapidjson::kParseNumbersAsStringsFlag | rapidjson::kParseIterativeFlag;
  ThrowingAllocator allocator;
  rapidjson::GenericReader<rapidjson::UTF8<>, rapidjson::UTF8<>, ThrowingAllocator> reader(&allocator);
  rapidjson::MemoryStream stream(text.data(), text.size());
  Builder builder;
  if (reader.Parse<kFlags>(stream, builder).IsError()) return std::nullopt;

  // "01" and "0x1" are no numbers, not a 0 with something behind it.
  const std::string_view behind = text.substr(stream.Tell());
  if (builder.root_is_bare_zero() && !behind.empty() &&
      std::strchr("0123456789xX", behind.front()) != nullptr)
    return std::nullopt;
  if (has_lone_low_surrogate(text.substr(0, stream.Tell()))) return std::nullopt;
  return builder.take_root();
}

// The content up to the first NUL or the end; false, and errno set, when reading fails.
bool read_text(const FileDescriptor& file, std::string& text) {
  // Schemas are small: a buffer as large as a large one, zeroed first, costs more than reading a small one.
  std::array<char, std::size_t{16} * 1024> piece;
  for (;;) {
    const ssize_t count = ::read(file.get(), piece.data(), piece.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    text.append(piece.data(), static_cast<std::size_t>(count));
    if (count == 0 || std::memchr(piece.data(), '\0', static_cast<std::size_t>(count)) != nullptr)
      return true;
  }
}

}  // namespace

std::optional<Value> parse(std::string_view text) noexcept {
  try {
    return build(text);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::optional<Value> parse_file(const char* path) noexcept {
  try {
    const FileDescriptor file = open_to_read(path);
    std::string text;
    if (!file || !read_text(file, text)) return std::nullopt;
    auto value = build(text);
    errno = 0;
    return value;
  } catch (const std::exception&) {
    errno = ENOMEM;
    return std::nullopt;
  }
}

}  // namespace qvx::json
