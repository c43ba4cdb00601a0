// Inputs of typed_file_fuzz: how to read, an event schema text, a counters schema text, and the data file. A
// NUL ends each of the texts.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qvx::fuzz {

struct TypedInput {
  std::uint8_t choice = 0;
  std::string events;
  std::string counters;
  std::string file;
};

inline TypedInput split_typed_input(std::string_view input) {
  TypedInput parts;
  if (input.empty()) return parts;
  parts.choice = static_cast<std::uint8_t>(input.front());
  input.remove_prefix(1);
  for (std::string* const text : {&parts.events, &parts.counters}) {
    const std::size_t end = std::min(input.find('\0'), input.size());
    *text = input.substr(0, end);
    input.remove_prefix(std::min(end + 1, input.size()));
  }
  parts.file = input;
  return parts;
}

inline std::string join(const TypedInput& parts) {
  std::string input(1, static_cast<char>(parts.choice));
  for (const std::string* const text : {&parts.events, &parts.counters})
    input.append(*text).push_back('\0');
  return input.append(parts.file);
}

}  // namespace qvx::fuzz
