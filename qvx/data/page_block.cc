#include "qvx/data/page_block.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "qvx/data/file_header.h"
#include "qvx/support/log.h"

namespace qvx {
namespace {

constexpr std::size_t kMagicBytes = 4;

// A text behind its length byte, cut at `limit` characters and at the end of the bytes. Takes both from
// `rest`.
std::string_view pascal_string(std::string_view& rest, std::size_t limit) {
  if (rest.empty()) return {};
  const std::string_view text = rest.substr(1, static_cast<unsigned char>(rest.front()));
  rest.remove_prefix(1 + text.size());
  return text.substr(0, limit);
}

bool has_uncompressed_size(const PageBlock& block, std::size_t size) {
  if (encoded_uncompressed_size(block.header.encoding, block.data) == size) return true;
  QVX_LOG(QVX_LOG_ERROR, "invalid buffer size to uncompress qvxp data");
  return false;
}

}  // namespace

bool page_block_read(Bytes unit, PageBlock& block) noexcept {
  std::array<std::byte, kPageBlockFixedSize> fixed{};
  std::copy_n(unit.begin(), std::min(unit.size(), fixed.size()), fixed.begin());
  const std::byte* const from = fixed.data();
  qvxp_header& header = block.header;
  header.header_size = load_field<kPageBlockLayout, "header_size">(from);
  header.encoding = load_field<kPageBlockLayout, "encoding">(from);
  header.encoded_size = load_field<kPageBlockLayout, "encoded_size">(from);
  header.first_timestamp = load_field<kPageBlockLayout, "first_timestamp">(from);
  header.last_timestamp = load_field<kPageBlockLayout, "last_timestamp">(from);

  // The length test leaves the end magic out, deliberately; an end magic that is not wholly there does not
  // match.
  const std::size_t data_start = kMagicBytes + header.header_size;
  const std::size_t data_end = data_start + header.encoded_size;
  if (unit.size() < data_end || unit.size() - data_end < kPageBlockEndMagic.size()) return false;
  if (as_text(unit.subspan(data_end, kPageBlockEndMagic.size())) != kPageBlockEndMagic) return false;

  block.data = unit.subspan(data_start, header.encoded_size);
  block.total_size = data_end + kPageBlockEndMagic.size();
  block.source_id = {};
  block.source_tag = {};
  if (unit.size() > kPageBlockFixedSize) {
    std::string_view strings = as_text(unit.subspan(kPageBlockFixedSize));
    block.source_id = pascal_string(strings, kSourceIdSize);
    block.source_tag = pascal_string(strings, kSourceTagSize);
  }
  return true;
}

bool qvxp_uncompress(const PageBlock& block, std::span<std::byte> to) {
  return has_uncompressed_size(block, to.size()) && encoded_decompress(block.header.encoding, block.data, to);
}

bool qvxp_uncompress(const PageBlock& block, PageBuffer& to, Decompressor& decompressor) {
  if (!has_uncompressed_size(block, to.bytes().size())) return false;
  const Decompressed result = decompressor.decompress(block.header.encoding, block.data, to.bytes());
  if (result.ok) to.clear_from(result.produced);
  return result.ok;
}

PageBuffer qvxp_uncompress_alloc(const PageBlock& block, std::uint64_t* out_size) {
  Decompressor decompressor;
  return qvxp_uncompress_alloc(block, out_size, decompressor);
}

PageBuffer qvxp_uncompress_alloc(const PageBlock& block, std::uint64_t* out_size,
                                 Decompressor& decompressor) {
  if (out_size == nullptr) {
    QVX_LOG(QVX_LOG_ERROR, "'uncompressed_size' must be allocated");
    return {};
  }
  const std::uint64_t size = encoded_uncompressed_size(block.header.encoding, block.data);
  *out_size = size;
  PageBuffer buffer = PageBuffer::allocate(size);
  if (!buffer) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to allocate data block of size %lu: %s", size, std::strerror(errno));
    return {};
  }
  if (!qvxp_uncompress(block, buffer, decompressor)) return {};
  return buffer;
}

}  // namespace qvx
