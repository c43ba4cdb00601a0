// The typed blocks that fill a data block of a file: their kinds, their headers and the dumps of both.
//
// Decoded headers are plain records. A header that is cut short by the end of its bytes reads the missing
// bytes as zero; whether the block is long enough is the caller's question.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <span>
#include <string>

#include "qvx/data/file_header.h"
#include "qvx/data/schema_id.h"
#include "qvx/support/bytes.h"
#include "qvx/support/layout_table.h"

enum qvx_block_type : int {
  QVX_COUNTERS_BLOCK = 0,
  QVX_EVENTS_BLOCK = 1,
  QVX_SCHEMAS_BLOCK = 2,
  QVX_BLOB_BLOCK = 3,
  QVX_UNKNOWN_BLOCK = 4,
  QVX_PAGE_BLOCK = 5,
  QVX_CNTX_BLOCK = 6,
};

namespace qvx {

inline constexpr std::size_t kMagicSize = 4;

inline constexpr std::array<LayoutField, 4> kCountersBlockLayout{{
    {"header.magic", 0, 4},
    {"padding", 4, 4},
    {"timestamp", 8, 8},
    {"values[]", 16, 0},
}};
inline constexpr std::size_t kCountersHeaderSize = 16;
static_assert(tiles(kCountersBlockLayout, kCountersHeaderSize));

inline constexpr std::array<LayoutField, 5> kEventHeaderLayout{{
    {"magic", 0, 4},
    {"timestamp", 4, 8},
    {"schema_index", 12, 1},
    {"type_index", 13, 2},
    {"num_events", 15, 1},
}};
inline constexpr std::size_t kEventHeaderSize = 16;
static_assert(tiles(kEventHeaderLayout, kEventHeaderSize));

inline constexpr std::array<LayoutField, 3> kBlobHeaderLayout{{
    {"header.magic", 0, 4},
    {"timestamp", 4, 8},
    {"data_size", 12, 8},
}};
inline constexpr std::size_t kBlobHeaderSize = 20;
static_assert(tiles(kBlobHeaderLayout, kBlobHeaderSize));

// A schemas block lists the identifiers of the schemas that replace the type system: up to 14 of them, of
// which a writer fills the first seven.
inline constexpr std::array<LayoutField, 5> kSchemasBlockLayout{{
    {"header.magic", 0, 4},
    {"block_size", 4, 2},
    {"num_schemas", 6, 1},
    {"padding", 7, 9},
    {"schema_ids[]", 16, 0},
}};
inline constexpr std::size_t kSchemasHeaderSize = 16;
inline constexpr std::size_t kMinSchemasBlockSize = 256;
inline constexpr std::size_t kMaxSchemasInBlock = 14;
static_assert(tiles(kSchemasBlockLayout, kSchemasHeaderSize));

struct CountersHeader {
  std::array<char, 4> magic{};
  std::uint64_t timestamp = 0;  // microseconds
};

struct EventHeader {
  std::array<char, 4> magic{};
  std::uint64_t timestamp = 0;
  std::uint8_t schema_index = 0;  // slot of the type system
  std::uint16_t type_index = 0;   // type within that schema
  std::uint8_t num_events = 0;
};

struct BlobHeader {
  std::array<char, 4> magic{};
  std::uint64_t timestamp = 0;
  std::uint64_t data_size = 0;
};

struct SchemasHeader {
  std::uint16_t block_size = 0;
  std::uint8_t num_schemas = 0;
};

CountersHeader counters_header_decode(Bytes block) noexcept;
EventHeader event_header_decode(Bytes block) noexcept;
BlobHeader blob_header_decode(Bytes block) noexcept;
SchemasHeader schemas_header_decode(Bytes block) noexcept;

// The `index`th identifier of a schemas block that is long enough to hold it.
qvx_schema_id schemas_block_id(Bytes block, std::size_t index) noexcept;

// "QVX_EVENTS_BLOCK" and so on; "Unknown block" for any other type.
const char* block_type_name(int type) noexcept;

// The kind of a block, told by its fourth byte alone; fewer than four bytes are of unknown type.
qvx_block_type block_type_of(Bytes block) noexcept;

// Writes the magic of a type. For QVX_CNTX_BLOCK this is, deliberately, "QVXX" and not "CNTX": it classifies
// as the same type. Writes nothing for a type that has no magic.
void block_magic_set(std::span<char, 4> to, int type) noexcept;

// Magic, zero padding and the current time at the start of a counters block.
void counters_block_init(std::span<std::byte, kCountersHeaderSize> block) noexcept;

std::string counters_header_dump(const CountersHeader& header);
std::string event_header_dump(const EventHeader& header);
std::string blob_header_dump(const BlobHeader& header);
void print_event_header(std::FILE* stream, const EventHeader& header);
void print_blob_header(std::FILE* stream, const BlobHeader& header);

void print_counters_block_layout(std::FILE* stream);
void print_event_header_layout(std::FILE* stream);
void print_blob_header_layout(std::FILE* stream);

}  // namespace qvx
