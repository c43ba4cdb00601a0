// How JSON text is laid out around the values of a plan.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "qvx/support/json_text.h"

namespace qvx {

// What stands before a member or an element, and before a closing bracket. `depth` counts the levels that
// enclose it.
class JsonSpelling {
 public:
  explicit JsonSpelling(json::Style style) : pretty_(style == json::Style::pretty) {}

  std::string line(std::size_t depth) const;
  std::string item(bool first, std::size_t depth) const;
  // The quoted, escaped name and the colon.
  std::string key(std::string_view name) const;

 private:
  bool pretty_;
};

}  // namespace qvx
