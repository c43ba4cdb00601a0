#include "qvx/support/format.h"

#include <cstddef>
#include <cstdio>

namespace qvx {

void append_vformat(std::string& out, const char* format, va_list args) {
  va_list measure;
  va_copy(measure, args);
  const int length = std::vsnprintf(nullptr, 0, format, measure);
  va_end(measure);
  if (length <= 0) return;
  const std::size_t start = out.size();
  out.resize(start + static_cast<std::size_t>(length) + 1);
  std::vsnprintf(out.data() + start, static_cast<std::size_t>(length) + 1, format, args);
  out.pop_back();
}

void append_format(std::string& out, const char* format, ...) {
  va_list args;
  va_start(args, format);
  append_vformat(out, format, args);
  va_end(args);
}

std::string format_text(const char* format, ...) {
  std::string text;
  va_list args;
  va_start(args, format);
  append_vformat(text, format, args);
  va_end(args);
  return text;
}

}  // namespace qvx
