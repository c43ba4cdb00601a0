// Which event schemas are in force through a file whose pages are saved as they are: a written file must name
// those that its first page was read with.
#pragma once

#include <optional>
#include <span>

#include "qvx/data/file_header.h"
#include "qvx/data/schema_id.h"
#include "qvx/data/write/schemas_in_force.h"
#include "qvx/scan/chain_walk.h"
#include "qvx/scan/type_cache.h"
#include "qvx/support/bytes.h"

namespace qvx {

class SchemasFollower {
 public:
  // Starts with what the header names. The cache outlives this.
  SchemasFollower(TypeCache& cache, const qvx_data_file_header& header);

  // A schemas block outside the pages.
  void set(std::span<const qvx_schema_id> ids);

  // Goes on to the end of an unpacked page. Where blocks end is told by the types in force, so a schemas
  // block behind events is found as a reader finds it; one that no reader reaches does not count. Logs
  // nothing. Throws std::bad_alloc.
  PageSchemas follow(Bytes page);

 private:
  bool load_types();
  void walk(Bytes page);

  SchemasInForce in_force_;
  TypesInForce types_;
  std::optional<SchemasInForce> types_of_;  // what types_ was loaded for
};

}  // namespace qvx
