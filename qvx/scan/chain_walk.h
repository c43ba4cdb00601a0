// The chain of typed blocks in a data block or in an unpacked page.
#pragma once

#include <cstddef>

#include "qvx/data/schema_id.h"
#include "qvx/scan/type_cache.h"
#include "qvx/scan/visitor.h"
#include "qvx/support/bytes.h"

namespace qvx {

// The types that decode blocks: those that a file's header names, until a schemas block replaces them. The
// counters schema is always the header's.
struct TypesInForce {
  TypeCache& cache;
  qvx_schema_id counters_schema;
  TypeSet types;
};

enum class WalkStep {
  block,   // a block was handed over, or nothing; more may follow
  end,     // the walk is over; a last block may have been handed over
  failed,  // the file must fail; the visitor has been told
};

// Goes through one chain, block after block. The type of the first decides: of counters, metrics and blob
// blocks only that block is read; events and schemas blocks follow one another without gaps until something
// else begins.
class ChainWalk {
 public:
  // `start` is the place of the first byte. The bytes and the types outlive the walk.
  ChainWalk(TypesInForce& types, Bytes chain, const Place& start);

  // Throws what the visitor throws, and std::bad_alloc.
  WalkStep next(ScanVisitor& visitor);

 private:
  WalkStep only_block(ScanVisitor& visitor, qvx_block_type type);
  std::size_t events(ScanVisitor& visitor, Bytes block);
  std::size_t schemas(ScanVisitor& visitor, Bytes block);
  Place place() const;
  WalkStep block_failed(ScanVisitor& visitor, qvx_block_type type) const;
  void unknown_type(ScanVisitor& visitor, const EventHeader& header) const;
  void events_cut(ScanVisitor& visitor, const EventHeader& header, std::size_t count) const;
  void unknown_block(ScanVisitor& visitor, qvx_block_type type) const;

  TypesInForce* types_;
  Bytes chain_;
  Place start_;
  std::size_t offset_ = 0;
};

}  // namespace qvx
