#include "qvx/scan/chain_walk.h"

#include <algorithm>
#include <array>

#include "qvx/support/format.h"
#include "qvx/support/log.h"

namespace qvx {
namespace {

bool may_be_followed(qvx_block_type type) {
  return type == QVX_EVENTS_BLOCK || type == QVX_SCHEMAS_BLOCK;
}

}  // namespace

ChainWalk::ChainWalk(TypesInForce& types, Bytes chain, const Place& start)
    : types_(&types), chain_(chain), start_(start) {}

WalkStep ChainWalk::next(ScanVisitor& visitor) {
  const Bytes block = chain_.subspan(offset_);
  const qvx_block_type type = block_type_of(block);
  if (!may_be_followed(type)) return only_block(visitor, type);  // the first one: see below
  if (block.size() <= kMagicSize) return WalkStep::end;
  const std::size_t step = type == QVX_EVENTS_BLOCK ? events(visitor, block) : schemas(visitor, block);
  if (step == 0) return block_failed(visitor, type);
  if (step >= block.size() || block.size() - step <= kMagicSize) return WalkStep::end;
  offset_ += step;
  const qvx_block_type next_type = block_type_of(block.subspan(step));
  if (may_be_followed(next_type)) return WalkStep::block;
  QVX_LOG(QVX_LOG_DEBUG, "Unexpected block type %d at offset %zu", static_cast<int>(next_type), offset_);
  return WalkStep::end;
}

WalkStep ChainWalk::only_block(ScanVisitor& visitor, qvx_block_type type) {
  switch (type) {
    case QVX_COUNTERS_BLOCK: {
      const CountersHeader header = counters_header_decode(chain_);
      const bool ok = visitor.on_counters({header, *types_->types.counters, chain_, place()});
      return ok ? WalkStep::end : WalkStep::failed;
    }
    case QVX_CNTX_BLOCK:
      visitor.on_metrics({chain_, place()});
      return WalkStep::end;
    case QVX_BLOB_BLOCK: {
      const BlobHeader header = blob_header_decode(chain_);
      Bytes data = chain_.subspan(std::min(chain_.size(), kBlobHeaderSize));
      data = data.first(std::min<std::uint64_t>(data.size(), header.data_size));
      if (visitor.on_blob({header, data, place()})) return WalkStep::end;
      break;
    }
    case QVX_EVENTS_BLOCK:
    case QVX_SCHEMAS_BLOCK:
    case QVX_PAGE_BLOCK:
    case QVX_UNKNOWN_BLOCK:
      break;
  }
  unknown_block(visitor, type);
  return WalkStep::failed;
}

// Hands an events block over. Gives the step to the next block, 0 on failure.
std::size_t ChainWalk::events(ScanVisitor& visitor, Bytes block) {
  const EventHeader header = event_header_decode(block);
  visitor.on_event_header(header);
  LoadedSchema* const schema = types_->types.find(header.schema_index, header.type_index);
  if (schema == nullptr) [[unlikely]] {
    unknown_type(visitor, header);
    return 0;
  }
  const qvx_type_definition& type = *schema->events->types[header.type_index];
  const Bytes records = block.subspan(std::min(block.size(), kEventHeaderSize));
  const std::size_t size = type.size;
  const std::size_t most = size > 0 ? records.size() / size : 0;
  const std::size_t count = std::min<std::size_t>(header.num_events, most);
  if (count > 0 && !visitor.on_events({header, *schema, header.type_index, type, count, records, place()}))
    return 0;
  if (count < header.num_events) [[unlikely]]
    events_cut(visitor, header, count);
  return kEventHeaderSize + count * size;
}

// Replaces the types by those that the block lists. Gives the step to the next block, 0 on failure.
std::size_t ChainWalk::schemas(ScanVisitor& visitor, Bytes block) {
  const SchemasHeader header = schemas_header_decode(block);
  if (block.size() < kMinSchemasBlockSize || block.size() < header.block_size ||
      header.num_schemas > kMaxSchemasInBlock || header.block_size == 0) {
    visitor.on_fault({FaultKind::schemas_block_invalid, place(),
                      format_text("Schemas block of %u bytes with %u identifiers, %zu bytes left",
                                  header.block_size, header.num_schemas, block.size())});
    return 0;
  }
  std::array<qvx_schema_id, kMaxSchemasInBlock> ids;
  for (std::size_t index = 0; index < header.num_schemas; ++index)
    ids[index] = schemas_block_id(block, index);
  const std::span<const qvx_schema_id> listed(ids.data(), header.num_schemas);
  if (!types_->cache.load(listed, types_->counters_schema, types_->types)) {
    visitor.on_fault(
        {FaultKind::schemas_failed, place(), "Failed to load the schemas that a schemas block names"});
    return 0;
  }
  visitor.on_schemas({listed, types_->types, place()});
  return header.block_size;
}

Place ChainWalk::place() const {
  Place place = start_;
  (place.in_page ? place.page_offset : place.offset) += offset_;
  return place;
}

// The words of faults are made apart from the walk, which small blocks make the greater part of all work.

WalkStep ChainWalk::block_failed(ScanVisitor& visitor, qvx_block_type type) const {
  visitor.on_fault(
      {FaultKind::block_failed, place(),
       format_text("Failed to process block of type %d at offset %zu", static_cast<int>(type), offset_)});
  return WalkStep::failed;
}

void ChainWalk::unknown_type(ScanVisitor& visitor, const EventHeader& header) const {
  visitor.on_fault({FaultKind::unknown_type, place(),
                    format_text("Type definition %u:%u not found", header.schema_index, header.type_index)});
}

void ChainWalk::events_cut(ScanVisitor& visitor, const EventHeader& header, std::size_t count) const {
  visitor.on_fault(
      {FaultKind::events_cut, place(), format_text("%zu of %u records are there", count, header.num_events)});
}

void ChainWalk::unknown_block(ScanVisitor& visitor, qvx_block_type type) const {
  const auto magic = as_text(chain_.first(std::min(chain_.size(), kMagicSize)));
  visitor.on_fault({FaultKind::unknown_block, place(),
                    format_text("Reached unknown block type %d %s. Magic value '%.*s'",
                                static_cast<int>(type), start_.in_page ? "in compressed data block" : "",
                                static_cast<int>(magic.size()), magic.data())});
}

}  // namespace qvx
