#include "qvx/support/number_parse.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <string>

namespace {

template <typename T>
bool parse(T (*convert)(const char*, char**, int), const char* text, T& value) {
  errno = 0;
  char* end = nullptr;
  value = convert(text, &end, 0);
  // An empty text is wholly consumed, and so is 0.
  return *end == '\0' && errno == 0;
}

template <typename T, typename Result>
bool parse_into(T (*convert)(const char*, char**, int), const char* text, Result* result) {
  if (text == nullptr || result == nullptr) return false;
  T value = 0;
  if (!parse(convert, text, value)) return false;
  *result = static_cast<Result>(value);
  return true;
}

template <typename Result>
bool parse_ranged(const char* text, Result* result) {
  std::uint64_t value = 0;
  if (result == nullptr || !qvx::uint64_from_text(text, &value)) return false;
  if (value > std::numeric_limits<Result>::max()) return false;
  *result = static_cast<Result>(value);
  return true;
}

}  // namespace

namespace qvx {

bool long_from_text(const char* text, long* result) noexcept {
  return parse_into(std::strtol, text, result);
}

bool unsigned_long_from_text(const char* text, unsigned long* result) noexcept {
  return parse_into(std::strtoul, text, result);
}

bool int64_from_text(const char* text, std::int64_t* result) noexcept {
  return parse_into(std::strtoll, text, result);
}

bool uint64_from_text(const char* text, std::uint64_t* result) noexcept {
  return parse_into(std::strtoull, text, result);
}

bool uint8_from_text(const char* text, std::uint8_t* result) noexcept {
  return parse_ranged(text, result);
}

bool uint16_from_text(const char* text, std::uint16_t* result) noexcept {
  return parse_ranged(text, result);
}

bool uint32_from_text(const char* text, std::uint32_t* result) noexcept {
  return parse_ranged(text, result);
}

bool int32_from_text(const char* text, std::size_t length, std::int32_t* result) noexcept {
  if (text == nullptr || result == nullptr) return false;
  long value = 0;
  try {
    const std::string first(text, strnlen(text, length));
    if (!long_from_text(first.c_str(), &value)) return false;
  } catch (const std::bad_alloc&) {
    return false;
  }
  using Limits = std::numeric_limits<std::int32_t>;
  if (value < Limits::min() || value > Limits::max()) return false;
  *result = static_cast<std::int32_t>(value);
  return true;
}

}  // namespace qvx
