// Which event schemas hold at one place of a data file: those of its header, until a schemas block names
// others. A written file says in its header what held where its first page stood.
#pragma once

#include <algorithm>
#include <array>

#include "qvx/data/block.h"
#include "qvx/data/file_header.h"
#include "qvx/data/schema_id.h"
#include "qvx/support/bytes.h"

namespace qvx {

struct SchemasInForce {
  std::array<qvx_schema_id, kMaxSchemasInBlock> ids{};  // the rest is empty

  SchemasInForce() = default;
  explicit SchemasInForce(const std::array<qvx_schema_id, kEventSchemaSlots>& of_header) {
    std::copy(of_header.begin(), of_header.end(), ids.begin());
  }

  std::array<qvx_schema_id, kEventSchemaSlots> for_header() const {
    std::array<qvx_schema_id, kEventSchemaSlots> first;
    std::copy_n(ids.begin(), first.size(), first.begin());
    return first;
  }
  // False when there are more than a header has room for.
  bool fit_header() const {
    return std::all_of(ids.begin() + kEventSchemaSlots, ids.end(),
                       [](const qvx_schema_id& id) { return id == qvx_schema_id{}; });
  }

  friend bool operator==(const SchemasInForce&, const SchemasInForce&) = default;
};

// What a schemas block puts in force: as many identifiers as it states, at most fourteen. Bytes that it is
// too short for are zero.
SchemasInForce schemas_of_block(Bytes block) noexcept;

// What holds at the start of a page and what holds behind it.
struct PageSchemas {
  SchemasInForce before;
  SchemasInForce after;
};

}  // namespace qvx
