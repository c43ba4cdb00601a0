// A compressed page as it stands in a data block: a small header, the encoded bytes, an end magic.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "qvx/data/encoded_payload.h"
#include "qvx/data/page_buffer.h"
#include "qvx/support/bytes.h"
#include "qvx/support/layout_table.h"

namespace qvx {

// The fixed part, from the start of the block. The two strings, each with its length in one byte before it,
// follow.
inline constexpr std::array<LayoutField, 7> kPageBlockLayout{{
    {"magic", 0, 4},
    {"header_size", 4, 1},
    {"encoding", 5, 1},
    {"encoded_size", 6, 4},
    {"first_timestamp", 10, 8},
    {"last_timestamp", 18, 8},
    {"source_id", 26, 0},
}};
inline constexpr std::size_t kPageBlockFixedSize = 26;
static_assert(tiles(kPageBlockLayout, kPageBlockFixedSize));
inline constexpr std::string_view kPageBlockEndMagic = "qvxp";

}  // namespace qvx

// The fixed part of a page block's header, which begins behind the magic.
struct qvxp_header {
  std::uint8_t header_size = 0;  // bytes from here to the encoded data
  std::uint8_t encoding = 0;     // qvx_encoding
  std::uint32_t encoded_size = 0;
  std::uint64_t first_timestamp = 0;  // microseconds
  std::uint64_t last_timestamp = 0;
};

namespace qvx {

// A page block inside a data block. The views point into the data block.
struct PageBlock {
  qvxp_header header;
  Bytes data;                   // the encoded bytes
  std::string_view source_id;   // at most 64 characters
  std::string_view source_tag;  // at most 16 characters
  std::size_t total_size = 0;   // from the magic to behind the end magic
};

// Reads the page block at the start of `unit`, the rest of a data block. False when the block does not fit
// into it or its end magic is missing; header bytes that are not there read as zero.
[[nodiscard]] bool page_block_read(Bytes unit, PageBlock& block) noexcept;

// Decompresses into a buffer of exactly the uncompressed size. False on failure, which is logged.
[[nodiscard]] bool qvxp_uncompress(const PageBlock& block, std::span<std::byte> to);
[[nodiscard]] bool qvxp_uncompress(const PageBlock& block, PageBuffer& to, Decompressor& decompressor);

// Allocates the buffer itself, after storing the uncompressed size in `out_size`, and calls qvxp_uncompress;
// empty on failure, which is logged. Why a stream has no size is therefore logged twice, deliberately.
[[nodiscard]] PageBuffer qvxp_uncompress_alloc(const PageBlock& block, std::uint64_t* out_size);
// For those who unpack many.
[[nodiscard]] PageBuffer qvxp_uncompress_alloc(const PageBlock& block, std::uint64_t* out_size,
                                               Decompressor& decompressor);

}  // namespace qvx
