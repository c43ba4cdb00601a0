#include "qvx/data/write/schemas_in_force.h"

#include <cstddef>

namespace qvx {

SchemasInForce schemas_of_block(Bytes block) noexcept {
  constexpr std::size_t kEnd = kSchemasHeaderSize + kMaxSchemasInBlock * sizeof(qvx_schema_id);
  std::array<std::byte, kEnd> bytes{};
  std::copy_n(block.begin(), std::min(block.size(), bytes.size()), bytes.begin());
  const std::size_t count =
      std::min<std::size_t>(schemas_header_decode(bytes).num_schemas, kMaxSchemasInBlock);
  SchemasInForce schemas;
  for (std::size_t slot = 0; slot < count; ++slot)
    schemas.ids[slot] = schemas_block_id(bytes, slot);
  return schemas;
}

}  // namespace qvx
