// The two encodings of a compressed page: a gzip stream and a raw snappy stream. Decoding only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "qvx/support/bytes.h"

enum qvx_encoding : std::uint8_t {
  QVX_ENCODING_GZIP = 'G',
  QVX_ENCODING_SNAPPY = 'S',
};

namespace qvx {

// The size that the stream itself states: the last four bytes of a gzip stream, the length at the start of a
// snappy stream. 0 when the encoding is unknown or the stream invalid. The size is a claim; it says nothing
// about how much really comes out.
[[nodiscard]] std::uint64_t encoded_uncompressed_size(std::uint8_t encoding, Bytes data);

// What a decompression left in its buffer.
struct Decompressed {
  bool ok = false;
  std::size_t produced = 0;  // bytes written; fewer than the buffer's when the stream ended early
};

// Decompresses into `to`. The bytes behind those produced may hold anything afterwards.
[[nodiscard]] Decompressed encoded_decompress_into(std::uint8_t encoding, Bytes data,
                                                   std::span<std::byte> to);

// The same, with the bytes behind those produced set to zero: a stream that ends early, such as the first of
// two joined gzip members, is a success.
[[nodiscard]] bool encoded_decompress(std::uint8_t encoding, Bytes data, std::span<std::byte> to);

}  // namespace qvx
