#include "qvx/data/block.h"

#include <algorithm>
#include <cinttypes>
#include <cstring>

#include "qvx/support/clock.h"
#include "qvx/support/format.h"

namespace qvx {
namespace {

struct BlockKind {
  qvx_block_type type;
  char letter;
  const char* name;
};

constexpr std::array<BlockKind, 6> kBlockKinds{{
    {QVX_COUNTERS_BLOCK, 'D', "QVX_COUNTERS_BLOCK"},
    {QVX_EVENTS_BLOCK, 'E', "QVX_EVENTS_BLOCK"},
    {QVX_SCHEMAS_BLOCK, 'S', "QVX_SCHEMAS_BLOCK"},
    {QVX_BLOB_BLOCK, 'B', "QVX_BLOB_BLOCK"},
    {QVX_PAGE_BLOCK, 'P', "QVX_PAGE_BLOCK"},
    {QVX_CNTX_BLOCK, 'X', "QVX_CNTX_BLOCK"},
}};

// By the letter: every block of a file asks.
constexpr auto kTypeOfLetter = [] {
  std::array<qvx_block_type, 256> types;
  types.fill(QVX_UNKNOWN_BLOCK);
  for (const BlockKind& kind : kBlockKinds)
    types[static_cast<unsigned char>(kind.letter)] = kind.type;
  return types;
}();

// The first bytes of a block with zeros for what is missing.
template <std::size_t kSize>
std::array<std::byte, kSize> header_bytes(Bytes block) {
  std::array<std::byte, kSize> bytes{};
  if (block.size() >= kSize) [[likely]] {
    std::memcpy(bytes.data(), block.data(), kSize);
  } else {
    std::copy_n(block.begin(), block.size(), bytes.begin());
  }
  return bytes;
}

std::array<char, 4> magic_of(const std::byte* header) {
  std::array<char, 4> magic;
  std::memcpy(magic.data(), header, magic.size());
  return magic;
}

}  // namespace

CountersHeader counters_header_decode(Bytes block) noexcept {
  const auto bytes = header_bytes<kCountersHeaderSize>(block);
  return {magic_of(bytes.data()), load_field<kCountersBlockLayout, "timestamp">(bytes.data())};
}

EventHeader event_header_decode(Bytes block) noexcept {
  const auto bytes = header_bytes<kEventHeaderSize>(block);
  const std::byte* const from = bytes.data();
  return {magic_of(from), load_field<kEventHeaderLayout, "timestamp">(from),
          load_field<kEventHeaderLayout, "schema_index">(from),
          load_field<kEventHeaderLayout, "type_index">(from),
          load_field<kEventHeaderLayout, "num_events">(from)};
}

BlobHeader blob_header_decode(Bytes block) noexcept {
  const auto bytes = header_bytes<kBlobHeaderSize>(block);
  const std::byte* const from = bytes.data();
  return {magic_of(from), load_field<kBlobHeaderLayout, "timestamp">(from),
          load_field<kBlobHeaderLayout, "data_size">(from)};
}

SchemasHeader schemas_header_decode(Bytes block) noexcept {
  const auto bytes = header_bytes<kSchemasHeaderSize>(block);
  return {load_field<kSchemasBlockLayout, "block_size">(bytes.data()),
          load_field<kSchemasBlockLayout, "num_schemas">(bytes.data())};
}

qvx_schema_id schemas_block_id(Bytes block, std::size_t index) noexcept {
  qvx_schema_id id;
  const std::size_t offset = offset_of(kSchemasBlockLayout, "schema_ids[]") + index * id.bytes.size();
  std::copy_n(block.begin() + static_cast<std::ptrdiff_t>(offset), id.bytes.size(), id.bytes.begin());
  return id;
}

const char* block_type_name(int type) noexcept {
  for (const BlockKind& kind : kBlockKinds)
    if (kind.type == type) return kind.name;
  return "Unknown block";
}

qvx_block_type block_type_of(Bytes block) noexcept {
  if (block.size() < kMagicSize) return QVX_UNKNOWN_BLOCK;
  return kTypeOfLetter[std::to_integer<unsigned char>(block[3])];
}

void block_magic_set(std::span<char, 4> to, int type) noexcept {
  for (const BlockKind& kind : kBlockKinds)
    if (kind.type == type) magic_set(to, kind.letter);
}

void counters_block_init(std::span<std::byte, kCountersHeaderSize> block) noexcept {
  std::array<char, 4> magic;
  block_magic_set(magic, QVX_COUNTERS_BLOCK);
  std::memcpy(block.data(), magic.data(), magic.size());
  store_field<kCountersBlockLayout, "padding">(block.data(), std::uint32_t{0});
  store_field<kCountersBlockLayout, "timestamp">(block.data(), now_microseconds());
}

std::string counters_header_dump(const CountersHeader& header) {
  std::string text = "Data block\n";
  append_format(text, " %-20s = %4.4s\n", "magic number", header.magic.data());
  append_format(text, " %-20s = %" PRIu64 "\n", "last timestamp", header.timestamp);
  return text;
}

std::string event_header_dump(const EventHeader& header) {
  std::string text = "Event header\n";
  append_format(text, " %-20s = %4.4s\n", "magic number", header.magic.data());
  append_format(text, " %-20s = %u\n", "schema index", header.schema_index);
  append_format(text, " %-20s = %u\n", "type index", header.type_index);
  append_format(text, " %-20s = %u\n", "number of events", header.num_events);
  return text;
}

std::string blob_header_dump(const BlobHeader& header) {
  std::string text = "Blob block\n";
  append_format(text, " %-20s = %4.4s\n", "magic number", header.magic.data());
  append_format(text, " %-20s = %" PRIu64 "\n", "timestamp", header.timestamp);
  append_format(text, " %-20s = %" PRIu64 "\n", "data size", header.data_size);
  return text;
}

void print_event_header(std::FILE* stream, const EventHeader& header) {
  std::fputs(event_header_dump(header).c_str(), stream);
}

void print_blob_header(std::FILE* stream, const BlobHeader& header) {
  std::fputs(blob_header_dump(header).c_str(), stream);
}

void print_counters_block_layout(std::FILE* stream) {
  std::fputs(layout_text(kCountersBlockLayout).c_str(), stream);
}

void print_event_header_layout(std::FILE* stream) {
  std::fputs(layout_text(kEventHeaderLayout).c_str(), stream);
}

void print_blob_header_layout(std::FILE* stream) {
  std::fputs(layout_text(kBlobHeaderLayout).c_str(), stream);
}

}  // namespace qvx
