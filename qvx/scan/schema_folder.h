// Where the schema files of a data file are, when nobody says so.
#pragma once

#include <optional>
#include <string>

namespace qvx {

inline constexpr int kSchemaSearchLevels = 5;

// The folder "schema" next to the file or up to four folders above it; "/schema" is never tried.
std::optional<std::string> find_schema_folder(const char* file);

}  // namespace qvx
