#include "qvx/scan/schema_folder.h"

#include <libgen.h>
#include <sys/stat.h>

#include <cstring>

#include "qvx/scan/long_path.h"

namespace qvx {

std::optional<std::string> find_schema_folder(const char* file) {
  std::string path = file;
  char* directory = dirname(path.data());
  for (int level = 0; level < kSchemaSearchLevels; ++level) {
    std::string candidate = std::string(directory) + "/schema";
    struct stat status {};
    if (stat_path(candidate.c_str(), status) == 0) return candidate;
    directory = dirname(directory);
    if (std::strcmp(directory, "/") == 0) break;
  }
  return std::nullopt;
}

}  // namespace qvx
