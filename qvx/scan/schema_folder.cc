#include "qvx/scan/schema_folder.h"

#include <libgen.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstring>

namespace qvx {

std::optional<std::string> find_schema_folder(const char* file) {
  std::string path = file;
  char* directory = dirname(path.data());
  for (int level = 0; level < kSchemaSearchLevels; ++level) {
    char candidate[PATH_MAX];
    std::snprintf(candidate, sizeof candidate, "%s/schema", directory);
    if (access(candidate, F_OK) == 0) return candidate;
    directory = dirname(directory);
    if (std::strcmp(directory, "/") == 0) break;
  }
  return std::nullopt;
}

}  // namespace qvx
