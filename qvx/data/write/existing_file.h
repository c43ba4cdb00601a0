// Data files that were there before: what may be appended to them, so that a reader takes old and new data
// for what they are.
#pragma once

#include <cstdint>
#include <optional>

#include "qvx/data/file_header.h"
#include "qvx/data/schema_id.h"
#include "qvx/data/write/schemas_in_force.h"

namespace qvx {

// What decides how the data of a file read.
struct FileKind {
  std::uint32_t block_size = 0;
  qvx_schema_id counters_schema_id;
  SchemasInForce schemas;

  friend bool operator==(const FileKind&, const FileKind&) = default;
};

// How an existing file takes data.
enum class Taking {
  as_stated,  // whatever comes is appended: its header is not valid, or no reader gets to its end
  whole,      // behind its last whole block, which is its end but for bytes that no reader reads
  not_at_all  // it would be read as something else, or splits a block
};

struct ExistingFile {
  Taking taking = Taking::not_at_all;
  std::uint64_t whole = 0;  // bytes up to the end of the last whole block
};

// Looks at a file of this size. It takes data when its header and all schemas blocks that begin its data
// blocks, or stand in the last one, name what the data need.
ExistingFile look_at_existing(int descriptor, std::uint64_t size, const FileKind& wanted);

}  // namespace qvx
