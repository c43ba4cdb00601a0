#include "qvx/reader/output_format.h"

#include <cstring>

namespace qvx {

std::int32_t output_format_from_name(const char* name) noexcept {
  for (const OutputFormatRow& row : kOutputFormats)
    if (std::strcmp(row.name, name) == 0) return static_cast<std::int32_t>(row.format);
  return -1;
}

const char* output_format_name(std::int32_t value) noexcept {
  for (const OutputFormatRow& row : kOutputFormats)
    if (static_cast<std::int32_t>(row.format) == value) return row.name;
  return nullptr;
}

}  // namespace qvx
