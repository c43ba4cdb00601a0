#include "qvx/data/write/page_block_writer.h"

#include <snappy.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <new>
#include <string>

#include "qvx/data/block.h"
#include "qvx/support/log.h"
#include "qvx/support/text.h"

namespace qvx {
namespace {

constexpr const char* kCopyRoutine = "qvx_copy_qvxp_header_into_buffer";
constexpr std::size_t kMaxPascalLength = 255;
constexpr std::uint64_t kMaxEncodedSize = std::numeric_limits<std::uint32_t>::max();
constexpr int kGzipWindowBits = 31;  // 32 KiB window, gzip wrapper
constexpr int kGzipMemoryLevel = 8;

static_assert(kMagicSize + kQvxpFixedSize == kPageBlockFixedSize);

// The offset of a field from the start of the header; the table counts from the start of the block.
template <std::size_t kSize>
consteval std::size_t at(const char (&name)[kSize]) {
  return offset_of(kPageBlockLayout, std::string_view(name, kSize - 1)) - kMagicSize;
}

std::size_t write_header(const qvxp_header& header, const qvx_source& source, std::span<std::byte> to,
                         const char* routine) {
  const std::size_t size = qvxp_header_size(source);
  if (size > to.size()) {
    QVX_LOG(QVX_LOG_ERROR, "[%s] buffer of %zu bytes is too small to accomodate QVXP header of %zu bytes",
            routine, to.size(), size);
    return 0;
  }
  store_le(to.data() + at("header_size"), static_cast<std::uint8_t>(size));
  store_le(to.data() + at("encoding"), header.encoding);
  store_le(to.data() + at("encoded_size"), header.encoded_size);
  store_le(to.data() + at("first_timestamp"), header.first_timestamp);
  store_le(to.data() + at("last_timestamp"), header.last_timestamp);
  std::span<std::byte> rest = to.subspan(at("source_id"));
  rest = rest.subspan(copy_as_pascal_string(field_text(source.id), kSourceIdSize, rest.data(), rest.size()));
  copy_as_pascal_string(field_text(source.tag), kSourceTagSize, rest.data(), rest.size());
  return size;
}

qvxp_header header_for(const qvx_data_page& page, std::uint8_t encoding, std::uint64_t encoded_size) {
  qvxp_header header;
  header.encoding = encoding;
  header.encoded_size = static_cast<std::uint32_t>(encoded_size);
  header.first_timestamp = page_first_timestamp(page);
  header.last_timestamp = page_last_timestamp(page);
  return header;
}

// Both append the encoded bytes to `to`; false when that cannot be done.
bool append_gzip(Bytes data, std::vector<std::byte>& to) {
  z_stream stream{};
  if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, kGzipWindowBits, kGzipMemoryLevel,
                   Z_DEFAULT_STRATEGY) != Z_OK) {
    return false;
  }
  struct End {
    z_stream& stream;
    ~End() { deflateEnd(&stream); }
  } const end{stream};
  const std::size_t start = to.size();
  const std::size_t room = deflateBound(&stream, data.size());
  if (room > kMaxEncodedSize) return false;
  to.resize(start + room);
  Bytef nothing = 0;  // zlib takes no null input, not even of size 0
  stream.next_in = data.empty() ? &nothing : const_cast<Bytef*>(reinterpret_cast<const Bytef*>(data.data()));
  stream.avail_in = static_cast<uInt>(data.size());
  stream.next_out = reinterpret_cast<Bytef*>(to.data() + start);
  stream.avail_out = static_cast<uInt>(room);
  if (deflate(&stream, Z_FINISH) != Z_STREAM_END) return false;
  to.resize(to.size() - stream.avail_out);
  return true;
}

bool append_snappy(Bytes data, std::vector<std::byte>& to) {
  const std::size_t start = to.size();
  to.resize(start + snappy::MaxCompressedLength(data.size()));
  std::size_t length = 0;
  snappy::RawCompress(reinterpret_cast<const char*>(data.data()), data.size(),
                      reinterpret_cast<char*>(to.data() + start), &length);
  to.resize(start + length);
  return length <= kMaxEncodedSize;
}

bool append_encoded(Bytes data, qvx_encoding encoding, std::vector<std::byte>& to) {
  // The uncompressed size of either encoding has 32 bits.
  if (data.size() > kMaxEncodedSize) return false;
  switch (encoding) {
    case QVX_ENCODING_GZIP:
      return append_gzip(data, to);
    case QVX_ENCODING_SNAPPY:
      return append_snappy(data, to);
  }
  return false;
}

void put_text(std::span<std::byte> to, std::string_view text) {
  std::memcpy(to.data(), text.data(), text.size());
}

}  // namespace

std::size_t copy_as_pascal_string(std::string_view text, std::size_t max_len, std::byte* to,
                                  std::size_t capacity) noexcept {
  constexpr const char* kRoutine = "qvx_copy_as_pascal_string_info_buffer";
  std::size_t length = std::min(text.size(), max_len);
  if (length > kMaxPascalLength) {
    QVX_LOG(QVX_LOG_ERROR, "[%s] string of %zu bytes cannot fit pascal string, truncated to 255 characters",
            kRoutine, length);
    length = kMaxPascalLength;
  }
  if (length > capacity) {
    QVX_LOG(QVX_LOG_ERROR, "[%s] buffer of %zu bytes is too small to accomodate string of %zu bytes",
            kRoutine, capacity, length);
    return 0;
  }
  store_le(to, static_cast<std::uint8_t>(length));
  if (length != 0) std::memcpy(to + 1, text.data(), length);
  return length + 1;
}

std::size_t qvxp_header_size(const qvx_source& source) noexcept {
  return qvxp_header_size(field_text(source.id), field_text(source.tag));
}

std::size_t qvxp_header_size(std::string_view source_id, std::string_view source_tag) noexcept {
  constexpr std::size_t kLengthBytes = 2;
  return source_id.size() + source_tag.size() + kQvxpFixedSize + kLengthBytes;
}

std::size_t copy_qvxp_header(const qvx_data_page& page, std::uint8_t encoding, std::uint64_t encoded_size,
                             std::span<std::byte> to) noexcept {
  const qvx_source source = page_source(page);
  if (encoded_size > kMaxEncodedSize && qvxp_header_size(source) <= to.size()) {
    QVX_LOG(QVX_LOG_ERROR, "[%s] encoded stream size of %lu bytes is too large", kCopyRoutine, encoded_size);
  }
  return write_header(header_for(page, encoding, encoded_size), source, to, kCopyRoutine);
}

std::size_t embed_qvxp_header(const qvxp_header& header, const qvx_source& source,
                              std::span<std::byte> to) noexcept {
  return write_header(header, source, to, "qvx_embed_qvxp_header_into_buffer");
}

void qvxp_header_source(const PageBlock& block, qvx_data_page& page) noexcept {
  page_set_source(page, make_source(block.source_id, block.source_tag));
}

std::optional<std::vector<std::byte>> encode_page_block(const qvx_data_page& page,
                                                        qvx_encoding encoding) noexcept {
  try {
    const qvx_source source = page_source(page);
    const std::size_t data_start = kMagicSize + qvxp_header_size(source);
    std::vector<std::byte> block(data_start);
    if (!append_encoded(page_filled_data(page), encoding, block)) return std::nullopt;
    std::array<char, kMagicSize> magic{};
    block_magic_set(magic, QVX_PAGE_BLOCK);
    put_text(block, {magic.data(), magic.size()});
    write_header(header_for(page, encoding, block.size() - data_start), source,
                 std::span(block).first(data_start).subspan(kMagicSize), kCopyRoutine);
    block.resize(block.size() + kPageBlockEndMagic.size());
    put_text(std::span(block).last(kPageBlockEndMagic.size()), kPageBlockEndMagic);
    return block;
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

}  // namespace qvx
