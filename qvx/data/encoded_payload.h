// The two encodings of a compressed page: a gzip stream and a raw snappy stream. Decoding only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "qvx/support/bytes.h"

struct libdeflate_decompressor;

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

// Decompresses one stream after another and keeps what that takes, which it gets when it is first needed.
// Used by one thread at a time.
class Decompressor {
 public:
  Decompressor() noexcept;
  ~Decompressor();
  Decompressor(Decompressor&&) noexcept;
  Decompressor& operator=(Decompressor&&) noexcept;

  // Decompresses into `to`. The bytes behind those produced may hold anything afterwards.
  [[nodiscard]] Decompressed decompress(std::uint8_t encoding, Bytes data, std::span<std::byte> to);

 private:
  struct Free {
    void operator()(libdeflate_decompressor* decompressor) const noexcept;
  };

  Decompressed gzip_fast(Bytes data, std::span<std::byte> to);

  std::unique_ptr<libdeflate_decompressor, Free> gzip_;
};

// Decompresses one stream. The bytes behind those produced are set to zero: a stream that ends early, such as
// the first of two joined gzip members, is a success.
[[nodiscard]] bool encoded_decompress(std::uint8_t encoding, Bytes data, std::span<std::byte> to);

}  // namespace qvx
