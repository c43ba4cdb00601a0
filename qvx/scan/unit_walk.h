// What is in one data block of a file: a chain of blocks, or page blocks with a chain in each.
#pragma once

#include <cstdint>
#include <optional>

#include "qvx/data/encoded_payload.h"
#include "qvx/data/page_buffer.h"
#include "qvx/scan/chain_walk.h"
#include "qvx/scan/visitor.h"
#include "qvx/support/bytes.h"

namespace qvx {

// Page blocks are gone through as long as one follows the other; what stands behind the last is padding. One
// that does not fit or lacks its end magic ends the walk without failing it. A page that failed fails the
// walk when it comes to the next one or to the end.
class UnitWalk {
 public:
  // `start` is the unit's offset in the file. All that is given outlives the walk.
  UnitWalk(TypesInForce& types, Decompressor& decompressor, Bytes unit, std::uint64_t start);

  // The bytes of a block that is handed over stay as they are until the next call, and are there for as long
  // as this walk. Throws what the visitor throws, and std::bad_alloc.
  WalkStep next(ScanVisitor& visitor);

 private:
  WalkStep next_page(ScanVisitor& visitor);

  TypesInForce& types_;
  Decompressor& decompressor_;
  std::uint64_t start_;
  Bytes unit_;
  bool in_pages_;
  Bytes pages_;               // those not gone through so far
  bool page_failed_ = false;  // the one before
  PageBuffer page_;
  std::optional<ChainWalk> chain_;  // of the unit or of the page at hand
};

}  // namespace qvx
