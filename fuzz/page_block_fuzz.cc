// The page blocks of one data block, unpacked one after the other. Both ways to unpack must agree.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

#include "fuzz/quiet_log.h"
#include "qvx/data/block.h"
#include "qvx/data/encoded_payload.h"
#include "qvx/data/page_block.h"

namespace {

using namespace qvx;

// Larger pages cost time and show nothing new.
constexpr std::uint64_t kLargestPage = 1 << 18;

void check(bool holds) {
  if (!holds) __builtin_trap();
}

bool lies_in(std::string_view text, Bytes bytes) {
  const auto* const start = reinterpret_cast<const std::byte*>(text.data());
  return text.empty() || (start >= bytes.data() && start + text.size() <= bytes.data() + bytes.size());
}

void check_page(const PageBlock& block) {
  if (encoded_uncompressed_size(block.header.encoding, block.data) > kLargestPage) return;
  std::uint64_t size = 0;
  const PageBuffer page = qvxp_uncompress_alloc(block, &size);
  PageBuffer again = PageBuffer::allocate(size);
  check(static_cast<bool>(again));
  std::ranges::fill(again.bytes(), std::byte{0xAA});
  const bool unpacked = qvxp_uncompress(block, again.bytes());
  check(unpacked == static_cast<bool>(page));
  if (!unpacked) return;
  check(page.bytes().size() == size);
  check(std::ranges::equal(page.bytes(), again.bytes()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::quiet_log();
  Bytes unit = std::as_bytes(std::span(data, size));
  while (block_type_of(unit) == QVX_PAGE_BLOCK) {
    PageBlock block;
    if (!page_block_read(unit, block)) break;
    check(block.total_size >= 8 && block.total_size <= unit.size());
    check(block.source_id.size() <= 64 && lies_in(block.source_id, unit));
    check(block.source_tag.size() <= 16 && lies_in(block.source_tag, unit));
    check_page(block);
    unit = unit.subspan(block.total_size);
  }
  return 0;
}
