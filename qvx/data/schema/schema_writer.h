// Writes the schemas of schemas blocks as schema files, one file per schema, named after the MD5 digest of
// its content: what a reader looks for later.
#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "qvx/support/json_value.h"

namespace qvx {

class SchemaWriter {
 public:
  // The files go to this folder, which must exist when the first one is written.
  explicit SchemaWriter(std::string directory) : directory_(std::move(directory)) {}

  // Takes the JSON text of one schemas block: an event schema, a type system, whose schemas are written one
  // by one, or a counters schema. A file that exists is kept: its name says what is in it; one that does not
  // read as that schema is reported. New files stand under a temporary name until they are whole. Text that
  // is no JSON, elements that are no objects and files that cannot be written are logged at level 4; the
  // first file that cannot be created turns the writer off. Throws std::runtime_error for JSON that holds no
  // schema, for a version that is too old, and for a folder that is none.
  void onSchema(std::string_view text);

 private:
  void write_counters_schema(const json::Value& value);
  void write_each(const json::Array& schemas);
  void write_schema(const json::Value& schema);

  std::string directory_;
  bool enabled_ = true;
};

}  // namespace qvx
