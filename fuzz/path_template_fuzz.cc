// A path template and what it is filled in with, separated by NULs; the time stands in front.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "qvx/data/write/path_template.h"
#include "qvx/support/bytes.h"

namespace {

std::string_view next_text(std::string_view& rest) {
  const std::size_t end = std::min(rest.find('\0'), rest.size());
  const std::string_view text = rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace qvx;
  PathFields fields;
  if (size < sizeof fields.first_timestamp) return 0;
  fields.first_timestamp = load_le<std::uint64_t>(data);
  std::string_view rest(reinterpret_cast<const char*>(data) + 8, size - 8);
  const std::string_view path_template = next_text(rest);
  fields.source_id = next_text(rest);
  fields.source_tag = next_text(rest);
  fields.node = next_text(rest);
  fields.id = next_text(rest);
  std::string path;
  std::string fault;
  const bool expanded = expand_path_template(path_template, fields, path, fault);
  if (expanded != fault.empty()) __builtin_trap();
  std::string again;
  if (expand_path_template(path_template, fields, again, fault) != expanded || again != path)
    __builtin_trap();
  return 0;
}
