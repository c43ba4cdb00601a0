#include "qvx/data/encoded_payload.h"

#include <libdeflate.h>
#include <snappy.h>
#include <zlib.h>

#include <algorithm>
#include <limits>

#include "qvx/support/log.h"

namespace qvx {
namespace {

constexpr int kGzipWindowBits = 31;  // 32 KiB window, gzip wrapper
constexpr std::size_t kGzipTrailerSize = 4;

bool has_gzip_signature(Bytes data) {
  return data.size() >= 2 && data[0] == std::byte{0x1F} && data[1] == std::byte{0x8B};
}

Decompressed gzip_exact(Bytes data, std::span<std::byte> to) {
  z_stream stream{};
  if (inflateInit2_(&stream, kGzipWindowBits, "1.2.7", static_cast<int>(sizeof stream)) != Z_OK) {
    QVX_LOG(QVX_LOG_ERROR, "[encoded_data] inflateInit failed while decompressing.");
    return {};
  }
  // zlib counts in 32 bits, and takes no null output, not even of size 0.
  constexpr std::size_t kMost = std::numeric_limits<uInt>::max();
  const auto room = static_cast<uInt>(std::min(to.size(), kMost));
  Bytef nothing = 0;
  stream.next_in = const_cast<Bytef*>(reinterpret_cast<const Bytef*>(data.data()));
  stream.avail_in = static_cast<uInt>(std::min(data.size(), kMost));
  stream.next_out = to.empty() ? &nothing : reinterpret_cast<Bytef*>(to.data());
  stream.avail_out = room;
  const int result = inflate(&stream, Z_NO_FLUSH);
  const std::size_t produced = room - stream.avail_out;
  inflateEnd(&stream);
  if (result < 0) {
    QVX_LOG(QVX_LOG_ERROR, "[encoded_data] zlib error while decompressing");
    return {};
  }
  if (result != Z_STREAM_END) {
    QVX_LOG(QVX_LOG_ERROR, "[encoded_data] zlib decompression failed");
    return {};
  }
  return {true, produced};
}

Decompressed snappy_decompress(Bytes data, std::span<std::byte> to) {
  const auto* const stream = reinterpret_cast<const char*>(data.data());
  std::size_t length = 0;
  const bool fits = snappy::GetUncompressedLength(stream, data.size(), &length) && length <= to.size();
  if (!fits || !snappy::RawUncompress(stream, data.size(), reinterpret_cast<char*>(to.data()))) {
    QVX_LOG(QVX_LOG_ERROR, "[encoded_data] snappy decompression failed");
    return {};
  }
  return {true, length};
}

}  // namespace

std::uint64_t encoded_uncompressed_size(std::uint8_t encoding, Bytes data) {
  switch (encoding) {
    case QVX_ENCODING_GZIP:
      if (!has_gzip_signature(data)) {
        QVX_LOG(QVX_LOG_ERROR, "[encoded_data] Error: stream is not gzip compressed data");
        return 0;
      }
      if (data.size() <= 3) {
        QVX_LOG(QVX_LOG_ERROR, "[encoded_data] Error: Compressed data is too small");
        return 0;
      }
      return load_le<std::uint32_t>(data.last(kGzipTrailerSize).data());
    case QVX_ENCODING_SNAPPY: {
      std::size_t length = 0;
      const auto* const stream = reinterpret_cast<const char*>(data.data());
      return snappy::GetUncompressedLength(stream, data.size(), &length) ? length : 0;
    }
    default:
      return 0;
  }
}

Decompressor::Decompressor() noexcept = default;
Decompressor::~Decompressor() = default;
Decompressor::Decompressor(Decompressor&&) noexcept = default;
Decompressor& Decompressor::operator=(Decompressor&&) noexcept = default;

void Decompressor::Free::operator()(libdeflate_decompressor* decompressor) const noexcept {
  libdeflate_free_decompressor(decompressor);
}

Decompressed Decompressor::decompress(std::uint8_t encoding, Bytes data, std::span<std::byte> to) {
  switch (encoding) {
    case QVX_ENCODING_GZIP: {
      const Decompressed fast = gzip_fast(data, to);
      return fast.ok ? fast : gzip_exact(data, to);
    }
    case QVX_ENCODING_SNAPPY:
      return snappy_decompress(data, to);
    default:
      return {};
  }
}

// The fast way. It decides nothing: whatever it does not take goes to zlib, which words the failure. A header
// that carries its own checksum or reserved flags is not checked by it, so such streams are zlib's from the
// start.
Decompressed Decompressor::gzip_fast(Bytes data, std::span<std::byte> to) {
  constexpr std::size_t kFlagsOffset = 3;
  constexpr std::byte kHeaderChecksumOrReserved{0xE2};
  if (data.size() <= kFlagsOffset || (data[kFlagsOffset] & kHeaderChecksumOrReserved) != std::byte{0})
    return {};
  if (gzip_ == nullptr) gzip_.reset(libdeflate_alloc_decompressor());
  if (gzip_ == nullptr) return {};
  std::size_t consumed = 0;
  std::size_t produced = 0;
  const libdeflate_result result = libdeflate_gzip_decompress_ex(gzip_.get(), data.data(), data.size(),
                                                                 to.data(), to.size(), &consumed, &produced);
  if (result != LIBDEFLATE_SUCCESS) return {};
  return {true, produced};
}

bool encoded_decompress(std::uint8_t encoding, Bytes data, std::span<std::byte> to) {
  const Decompressed result = Decompressor().decompress(encoding, data, to);
  if (result.ok) std::fill(to.begin() + static_cast<std::ptrdiff_t>(result.produced), to.end(), std::byte{0});
  return result.ok;
}

}  // namespace qvx
