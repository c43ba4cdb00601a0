// Whatever is parsed must have a text, and that text must parse to a document of the same text.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "qvx/support/json_parse.h"
#include "qvx/support/json_text.h"

namespace {

using qvx::json::Style;

void check(bool holds) {
  if (!holds) __builtin_trap();
}

void check_stable(const qvx::json::Value& value, Style style) {
  const auto text = qvx::json::to_text(value, style);
  check(text.has_value());
  const auto again = qvx::json::parse(*text);
  check(again.has_value());
  check(qvx::json::to_text(*again, style) == text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto value = qvx::json::parse({reinterpret_cast<const char*>(data), size});
  if (value) {
    check_stable(*value, Style::compact);
    check_stable(*value, Style::pretty);
  }
  return 0;
}
