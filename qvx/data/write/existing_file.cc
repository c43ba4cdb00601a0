#include "qvx/data/write/existing_file.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>
#include <vector>

#include "qvx/data/block.h"
#include "qvx/support/bytes.h"

namespace qvx {
namespace {

constexpr std::size_t kSchemasSize = kSchemasHeaderSize + kMaxSchemasInBlock * sizeof(qvx_schema_id);
constexpr std::size_t kPiece = 65536;

// Reads up to the end of `to` or of the file; the part that was read.
std::span<std::byte> read_at(int descriptor, std::uint64_t offset, std::span<std::byte> to) {
  std::size_t total = 0;
  while (total < to.size()) {
    const ssize_t count =
        pread(descriptor, to.data() + total, to.size() - total, static_cast<off_t>(offset + total));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    total += static_cast<std::size_t>(count);
  }
  return to.first(total);
}

// How the bytes behind the last whole block let a file take data. Fewer than four are not read by anybody. A
// block of a known type is a legal short last one. Anything else ends every reading there, with or without
// data behind it.
Taking taking_behind(int descriptor, std::uint64_t offset, std::uint64_t size) {
  std::array<std::byte, kMagicSize> magic{};
  if (size < magic.size()) return Taking::whole;
  const qvx_block_type type = block_type_of(read_at(descriptor, offset, magic));
  const bool known = type != QVX_UNKNOWN_BLOCK && type != QVX_BLOB_BLOCK;
  return known ? Taking::not_at_all : Taking::as_stated;
}

// Whether a schemas block in the last data block, behind its start, names other schemas. Where an events
// block ends is not known here, so anything that looks like a schemas block counts.
bool last_block_names_others(int descriptor, std::uint64_t offset, std::uint64_t end,
                             const SchemasInForce& wanted) {
  constexpr std::string_view kMagic = "QVXS";
  std::vector<std::byte> piece(kPiece + kSchemasSize);
  for (; offset < end; offset += kPiece) {
    const Bytes bytes = read_at(descriptor, offset,
                                std::span(piece).first(std::min<std::uint64_t>(piece.size(), end - offset)));
    const std::string_view text = as_text(bytes);
    for (std::size_t at = 0; (at = text.find(kMagic, at)) != std::string_view::npos; ++at) {
      if (schemas_of_block(bytes.subspan(at)) != wanted) return true;
    }
    if (bytes.size() < piece.size()) break;
  }
  return false;
}

bool data_blocks_name_others(int descriptor, std::uint64_t end, const FileKind& wanted) {
  std::array<std::byte, kSchemasSize> start{};
  const std::size_t room = std::min<std::size_t>(start.size(), wanted.block_size);
  for (std::uint64_t offset = kFileHeaderSize; offset < end; offset += wanted.block_size) {
    const Bytes block = read_at(descriptor, offset, std::span(start).first(room));
    if (block_type_of(block) == QVX_SCHEMAS_BLOCK && schemas_of_block(block) != wanted.schemas) return true;
  }
  const bool empty = end < kFileHeaderSize + wanted.block_size;
  return !empty && last_block_names_others(descriptor, end - wanted.block_size, end, wanted.schemas);
}

}  // namespace

ExistingFile look_at_existing(int descriptor, std::uint64_t size, const FileKind& wanted) {
  FileHeaderBytes bytes{};
  if (read_at(descriptor, 0, bytes).size() < bytes.size()) return {Taking::as_stated, size};
  const qvx_data_file_header header = file_header_decode(bytes);
  if (!header_is_valid(header)) return {Taking::as_stated, size};
  if (header.block_size != wanted.block_size || header.counters_schema_id != wanted.counters_schema_id ||
      header.event_schema_ids != wanted.schemas.for_header() || wanted.block_size == 0) {
    return {};
  }
  const std::uint64_t rest = (size - kFileHeaderSize) % wanted.block_size;
  const std::uint64_t whole = size - rest;
  if (data_blocks_name_others(descriptor, whole, wanted)) return {};
  return {taking_behind(descriptor, whole, rest), whole};
}

}  // namespace qvx
