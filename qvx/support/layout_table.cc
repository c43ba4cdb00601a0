#include "qvx/support/layout_table.h"

#include <cstdio>

namespace qvx {

std::string layout_text(std::span<const LayoutField> rows) {
  std::string text = "Field                       Offset    Size\n";
  for (const LayoutField& row : rows) {
    char line[96];
    const int name_length = static_cast<int>(row.name.size());
    if (row.size == 0) {
      std::snprintf(line, sizeof line, " %-25.*s  %-8zu\n", name_length, row.name.data(), row.offset);
    } else {
      std::snprintf(line, sizeof line, " %-25.*s  %-8zu  %-zu\n", name_length, row.name.data(), row.offset,
                    row.size);
    }
    text += line;
  }
  return text;
}

}  // namespace qvx
