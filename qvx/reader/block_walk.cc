#include "qvx/reader/block_walk.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "qvx/data/block.h"
#include "qvx/data/encoded_payload.h"
#include "qvx/data/page_block.h"
#include "qvx/reader/record_output.h"
#include "qvx/support/log.h"

namespace qvx {
namespace {

// Unpacks one page block and hands its bytes on; false when that failed.
bool process_page_block(ReaderContext& context, const PageBlock& block) {
  if (context.bin != nullptr) return context.bin->process_page_block(block);
  const std::uint64_t size = encoded_uncompressed_size(block.header.encoding, block.data);
  PageBuffer page = PageBuffer::allocate(size);
  if (!page) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to allocate data block of size %lu: %s", size, std::strerror(errno));
    return false;
  }
  if (!qvxp_uncompress(block, page)) return false;
  return walk_block_chain(context, page.bytes(), true);
}

// Replaces the type system by the schemas that the block lists. Gives the step to the next block, 0 on
// failure.
std::size_t process_schemas_block(ReaderContext& context, Bytes block) {
  const SchemasHeader header = schemas_header_decode(block);
  if (block.size() < kMinSchemasBlockSize || block.size() < header.block_size ||
      header.num_schemas > kMaxSchemasInBlock)
    return 0;
  std::array<qvx_schema_id, kMaxSchemasInBlock> ids;
  for (std::size_t index = 0; index < header.num_schemas; ++index)
    ids[index] = schemas_block_id(block, index);
  context.types = context.run.types.load({ids.data(), header.num_schemas}, context.header.counters_schema_id);
  return context.types != nullptr ? header.block_size : 0;
}

bool walk_event_chain(ReaderContext& context, Bytes chain) {
  constexpr std::size_t kLastMagic = kMagicSize;
  if (chain.size() <= kLastMagic) return true;
  std::size_t offset = 0;
  while (chain.size() - offset > kLastMagic) {
    const Bytes block = chain.subspan(offset);
    const qvx_block_type type = block_type_of(block);
    std::size_t step = 0;
    if (type == QVX_SCHEMAS_BLOCK) {
      step = process_schemas_block(context, block);
    } else if (type == QVX_EVENTS_BLOCK) {
      step = process_events_block(context, block);
    } else {
      QVX_LOG(QVX_LOG_DEBUG, "Unexpected block type %d at offset %zu", static_cast<int>(type), offset);
      return true;
    }
    if (step == 0) {
      QVX_LOG(QVX_LOG_ERROR, "Failed to process block of type %d at offset %zu", static_cast<int>(type),
              offset);
      return false;
    }
    if (step >= chain.size() - offset) break;
    offset += step;
  }
  return true;
}

}  // namespace

bool walk_page_blocks(ReaderContext& context, Bytes unit) {
  bool ok = true;
  while (block_type_of(unit) == QVX_PAGE_BLOCK) {
    if (!ok) return false;
    PageBlock block;
    if (!page_block_read(unit, block)) return true;
    ok = process_page_block(context, block);
    unit = unit.subspan(block.total_size);
  }
  return ok;
}

bool walk_block_chain(ReaderContext& context, Bytes chain, bool in_compressed_data) {
  const qvx_block_type type = block_type_of(chain);
  switch (type) {
    case QVX_COUNTERS_BLOCK: {
      const bool ok = process_counters_block(context, chain);
      ++context.records_written;
      return ok;
    }
    case QVX_CNTX_BLOCK:
      process_metrics_block(context, chain);
      ++context.records_written;
      return true;
    case QVX_EVENTS_BLOCK:
    case QVX_SCHEMAS_BLOCK:
      return walk_event_chain(context, chain);
    default: {
      const auto magic = as_text(chain.first(std::min(chain.size(), kMagicSize)));
      QVX_LOG(QVX_LOG_ERROR, "Reached unknown block type %d %s. Magic value '%.*s'", static_cast<int>(type),
              in_compressed_data ? "in compressed data block" : "", static_cast<int>(magic.size()),
              magic.data());
      return false;
    }
  }
}

}  // namespace qvx
