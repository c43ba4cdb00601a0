#include "qvx/support/text.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <string_view>

#include "qvx/support/clock.h"
#include "qvx/support/log.h"
#include "qvx/support/number.h"

namespace {

bool is_visible_ascii(char character) {
  return character >= 0x20 && character <= 0x7E;
}

// True at most once in ten seconds, for a message that a caller's loop would repeat without end.
bool may_log_again(std::uint64_t& last_logged) {
  constexpr std::uint64_t kQuietMicroseconds = 9'999'999;
  if (!QVX_LOG_IS_ENABLED(QVX_LOG_ERROR)) return false;
  const std::uint64_t now = qvx::now_microseconds();
  if (now - last_logged <= kQuietMicroseconds) return false;
  last_logged = now;
  return true;
}

}  // namespace

std::optional<std::string> qvx_expand_template(const char* format, ...) noexcept {
  va_list args;
  va_start(args, format);
  std::optional<std::string> text = qvx_expand_template_v(format, args);
  va_end(args);
  return text;
}

std::optional<std::string> qvx_expand_template_v(const char* format, va_list args) noexcept {
  va_list measured;
  va_copy(measured, args);
  const int length = std::vsnprintf(nullptr, 0, format, measured);
  va_end(measured);
  if (length < 0) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to calculate length of expanded string template");
    return std::nullopt;
  }
  const std::size_t size = static_cast<std::size_t>(length) + 1;
  std::string text;
  try {
    text.resize(size);
  } catch (const std::bad_alloc&) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to allocate buffer for expanded string of size %d: %s",
            static_cast<int>(size), std::strerror(errno));
    return std::nullopt;
  }
  if (std::vsnprintf(text.data(), size, format, args) != length) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to expand file string template");
    return std::nullopt;
  }
  text.pop_back();
  return text;
}

namespace qvx {

std::optional<std::string> string_concat_comma_separated_token(const char* accumulated,
                                                               const char* token) noexcept {
  if (token == nullptr) token = "";
  try {
    if (accumulated == nullptr || *accumulated == '\0') return std::string(token);
    return std::string(accumulated).append(",").append(token);
  } catch (const std::bad_alloc&) {
    QVX_LOG(QVX_LOG_ERROR, "[%s] Failed in malloc", "string_concat_comma_separated_token");
    return std::nullopt;
  }
}

std::optional<std::string> string_concat(const char* first, const char* second) noexcept {
  try {
    return std::string(first != nullptr ? first : "").append(second != nullptr ? second : "");
  } catch (const std::bad_alloc&) {
    QVX_LOG(QVX_LOG_ERROR, "[%s] Failed in malloc", "string_concat");
    return std::nullopt;
  }
}

bool find_ith_substr(const char* text, const char* needle, std::size_t index, std::size_t* offset) noexcept {
  if (text == nullptr || needle == nullptr || offset == nullptr) {
    QVX_LOG(QVX_LOG_ERROR, "[%s] invalid input", "find_ith_substr");
    return false;
  }
  const std::string_view searched(text);
  if (searched.empty()) return false;
  std::size_t found = searched.find(needle);
  for (std::size_t i = 0; i < index && found != std::string_view::npos; ++i)
    found = searched.find(needle, found + 1);
  if (found == std::string_view::npos) return false;
  *offset = found;
  return true;
}

char* strncpy_visible_ascii(char* destination, const char* source, std::size_t size) noexcept {
  constexpr const char* kRoutine = "strncpy_visible_ascii";
  static std::uint64_t destination_logged = 0;
  static std::uint64_t source_logged = 0;
  static std::uint64_t length_logged = 0;
  if (destination == nullptr) {
    if (may_log_again(destination_logged)) QVX_LOG(QVX_LOG_ERROR, "%s: Destination buffer is NULL", kRoutine);
    return destination;
  }
  if (source == nullptr) {
    if (may_log_again(source_logged)) QVX_LOG(QVX_LOG_ERROR, "%s: Source string is NULL", kRoutine);
    return destination;
  }
  if (size == 0) {
    if (may_log_again(length_logged)) QVX_LOG(QVX_LOG_ERROR, "%s: Length is 0", kRoutine);
    return destination;
  }
  std::memset(destination, 0, size);
  if (*source != '\0' && !is_visible_ascii(*source)) {
    constexpr std::string_view kNotAvailable = "N/A";
    std::memcpy(destination, kNotAvailable.data(), std::min(size, kNotAvailable.size()));
    return destination;
  }
  for (std::size_t i = 0; i < size - 1 && is_visible_ascii(source[i]); ++i)
    destination[i] = source[i];
  return destination;
}

bool bool_from_text(const char* text) noexcept {
  if (text == nullptr) return true;
  const std::string_view value(text);
  return value == "1" || value == "True" || value == "true";
}

const char* bool_to_text(bool value) noexcept {
  return value ? "true" : "false";
}

char* write_table_cell(char* out, std::size_t width, std::int64_t count) noexcept {
  const bool in_thousands = count > 999;
  if (in_thousands) {
    count /= 1000;
    width -= 2;
  }
  char digits[kNumberRoom];
  const auto length = static_cast<std::size_t>(write_decimal(digits, count) - digits);
  *out++ = ' ';
  if (width > length) {
    std::memset(out, ' ', width - length);
    out += width - length;
  }
  out = std::copy_n(digits, length, out);
  const std::string_view end = in_thousands ? " k |" : " |";
  return std::copy(end.begin(), end.end(), out);
}

}  // namespace qvx
