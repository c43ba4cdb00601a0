#include "qvx/plan/json_spelling.h"

namespace qvx {

std::string JsonSpelling::line(std::size_t depth) const {
  std::string text;
  if (!pretty_) return text;
  text.push_back('\n');
  for (std::size_t level = 0; level < depth; ++level)
    text += json::kIndentation;
  return text;
}

std::string JsonSpelling::item(bool first, std::size_t depth) const {
  std::string text = line(depth);
  if (!first) text.insert(text.begin(), ',');
  return text;
}

std::string JsonSpelling::key(std::string_view name) const {
  std::string text;
  json::append_quoted(text, name);
  text += pretty_ ? ": " : ":";
  return text;
}

}  // namespace qvx
