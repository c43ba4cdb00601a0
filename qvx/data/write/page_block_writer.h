// Making page blocks: the header in front of the encoded bytes, and whole blocks out of pages.
//
// A header here begins at its size byte, behind the block's magic. Every function that writes one returns its
// size, 0 on failure, which is logged.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "qvx/data/encoded_payload.h"
#include "qvx/data/page.h"
#include "qvx/data/page_block.h"
#include "qvx/data/source.h"
#include "qvx/support/bytes.h"

namespace qvx {

// The fixed part of a header, without the two strings.
inline constexpr std::size_t kQvxpFixedSize = 22;

// Writes the text, of which at most `max_len` characters count, behind one byte with its length, and returns
// the bytes written. `capacity` is room for characters only, deliberately: `to` has one byte more. Text over
// 255 characters is cut there.
std::size_t copy_as_pascal_string(std::string_view text, std::size_t max_len, std::byte* to,
                                  std::size_t capacity) noexcept;

// The size of a header for this source, or for texts of any length.
std::size_t qvxp_header_size(const qvx_source& source) noexcept;
std::size_t qvxp_header_size(std::string_view source_id, std::string_view source_tag) noexcept;

// Writes the header of a block that holds this page in `encoded_size` encoded bytes. Of a size above 32 bits
// the low 32 are kept, with an error logged.
std::size_t copy_qvxp_header(const qvx_data_page& page, std::uint8_t encoding, std::uint64_t encoded_size,
                             std::span<std::byte> to) noexcept;

// Writes a header with the values of another and with this source; its size byte is made anew.
std::size_t embed_qvxp_header(const qvxp_header& header, const qvx_source& source,
                              std::span<std::byte> to) noexcept;

// Copies the source that a block names into a page.
void qvxp_header_source(const PageBlock& block, qvx_data_page& page) noexcept;

// The filled data of a page as one whole page block, from its magic to its end magic. Nothing when the
// encoding is unknown, the block would not fit 32 bits, or memory is short.
std::optional<std::vector<std::byte>> encode_page_block(const qvx_data_page& page,
                                                        qvx_encoding encoding) noexcept;

}  // namespace qvx
