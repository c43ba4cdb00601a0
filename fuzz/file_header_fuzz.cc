// A header that was read must write back to the same bytes, and everything that a run prints of it and of the
// headers of the block behind it must be printable, however short the file is.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

#include "fuzz/quiet_log.h"
#include "qvx/data/block.h"
#include "qvx/data/file_header.h"

namespace {

using namespace qvx;

void check(bool holds) {
  if (!holds) __builtin_trap();
}

void check_file_header(std::span<const std::byte, kFileHeaderSize> bytes) {
  const qvx_data_file_header header = file_header_decode(bytes);
  check(std::ranges::equal(file_header_encode(header), bytes));
  check(header_dump(header).size() > 256);
  if (validate_header(header)) check(header.version_major == 1 && header.file_size >= kFileHeaderSize);
}

void check_block_headers(Bytes block) {
  check(block_type_name(block_type_of(block)) != nullptr);
  check(!counters_header_dump(counters_header_decode(block)).empty());
  check(!event_header_dump(event_header_decode(block)).empty());
  check(!blob_header_dump(blob_header_decode(block)).empty());
  const SchemasHeader schemas = schemas_header_decode(block);
  if (block.size() < kMinSchemasBlockSize || schemas.num_schemas > kMaxSchemasInBlock) return;
  for (std::size_t index = 0; index < schemas.num_schemas; ++index)
    check(schema_id_text(schemas_block_id(block, index)).has_value());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::quiet_log();
  const Bytes file = std::as_bytes(std::span(data, size));
  if (file.size() >= kFileHeaderSize) check_file_header(file.first<kFileHeaderSize>());
  check_block_headers(file.subspan(std::min(file.size(), kFileHeaderSize)));
  return 0;
}
