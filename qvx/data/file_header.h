// The 256-byte header that begins every data file: who wrote it, the time it covers, the size of its data
// blocks and the schemas that decode them.
//
// Integers stand in the file as the writer's machine held them, which is little-endian; the header records
// the byte order but nothing converts. Timestamps are microseconds since 1970-01-01 00:00 UTC.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "qvx/data/schema_id.h"
#include "qvx/support/layout_table.h"

namespace qvx {

inline constexpr std::size_t kFileHeaderSize = 256;
inline constexpr std::size_t kEventSchemaSlots = 7;
inline constexpr std::size_t kSourceIdSize = 64;
inline constexpr std::size_t kSourceTagSize = 16;

// A reader accepts block sizes from the first up to, not including, the second.
inline constexpr std::size_t kMinBlockSize = 16;
inline constexpr std::size_t kBlockSizeEnd = 125829120;

inline constexpr std::array<LayoutField, 13> kFileHeaderLayout{{
    {"magic", 0, 4},
    {"version", 4, 4},
    {"file_size", 8, 8},
    {"source_id", 16, 64},
    {"source_tag", 80, 16},
    {"first_timestamp", 96, 8},
    {"last_timestamp", 104, 8},
    {"block_size", 112, 4},
    {"counters_schema_id", 116, 16},
    {"event_schema_ids", 132, 112},
    {"byte_order", 244, 1},
    {"padding", 245, 7},
    {"magic_end", 252, 4},
}};
static_assert(tiles(kFileHeaderLayout, kFileHeaderSize));

}  // namespace qvx

struct qvx_data_file_header {
  std::array<char, 4> magic{};
  std::uint8_t version_major = 0;
  std::uint8_t version_minor = 0;
  std::uint16_t version_patch = 0;
  std::uint64_t file_size = 0;  // bytes, the header included
  std::array<char, qvx::kSourceIdSize> source_id{};
  std::array<char, qvx::kSourceTagSize> source_tag{};
  std::uint64_t first_timestamp = 0;
  std::uint64_t last_timestamp = 0;
  std::uint32_t block_size = 0;  // bytes of every data block that follows the header
  qvx_schema_id counters_schema_id;
  std::array<qvx_schema_id, qvx::kEventSchemaSlots> event_schema_ids;
  std::uint8_t byte_order = 0;  // 0 little-endian, anything else big-endian
  std::array<std::byte, 7> padding{};
  std::array<char, 4> magic_end{};
};

namespace qvx {

using FileHeaderBytes = std::array<std::byte, kFileHeaderSize>;

qvx_data_file_header file_header_decode(std::span<const std::byte, kFileHeaderSize> bytes) noexcept;
FileHeaderBytes file_header_encode(const qvx_data_file_header& header) noexcept;

// A header as a writer begins a file: magics, format version 1.7.0, a file size of 256, everything else zero.
// Null when memory is short.
std::unique_ptr<qvx_data_file_header> create_header() noexcept;

// True when a file with this header may be read: magic, version and file size. Each fault is logged at
// level 3. The closing magic, the byte order and the block size are not looked at.
[[nodiscard]] bool validate_header(const qvx_data_file_header& header);
// The same without a word.
[[nodiscard]] bool header_is_valid(const qvx_data_file_header& header) noexcept;

// The text of one event schema slot; none for an index above 6.
std::optional<std::string> header_event_schema_id_text(const qvx_data_file_header& header,
                                                       std::size_t index) noexcept;

// The value dump, one line a field.
std::string header_dump(const qvx_data_file_header& header);
void print_header(std::FILE* stream, const qvx_data_file_header& header);

// Field names, offsets and sizes, to standard output.
void print_header_layout();

// "QVX" and the kind letter in four bytes, or its lower-case form.
void magic_set(std::span<char, 4> to, char kind_letter) noexcept;
void magic_set_lower(std::span<char, 4> to, char kind_letter) noexcept;
bool magic_is(std::span<const char, 4> magic, char kind_letter) noexcept;
bool magic_equal(std::span<const char, 4> a, std::span<const char, 4> b) noexcept;

}  // namespace qvx
