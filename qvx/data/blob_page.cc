#include "qvx/data/blob_page.h"

#include <cstring>

#include "qvx/data/block.h"
#include "qvx/support/clock.h"

namespace qvx {
namespace {

constexpr std::size_t kMinBlobPageSize = kPageHeaderSize + kBlobHeaderSize;

}  // namespace

PagePtr blob_page_create(const qvx_source& source, Bytes data) noexcept {
  PagePtr page = page_alloc(0, data.size() + kMinBlobPageSize, {QVX_REGULAR_PAGE, "blob_data_page", 0});
  if (page == nullptr) return nullptr;
  page_set_source(*page, source);
  page_set_first_timestamp(page.get());
  page_update_last_timestamp(page.get());
  page_mark_blob(*page);
  if (!blob_page_fill(*page, data)) return nullptr;
  return page;
}

bool blob_page_fill(qvx_data_page& page, Bytes data) noexcept {
  const std::span<std::byte> area = page_data(page);
  if (area.size() < kBlobHeaderSize || area.size() - kBlobHeaderSize < data.size()) return false;
  std::array<char, kMagicSize> magic{};
  block_magic_set(magic, QVX_BLOB_BLOCK);
  std::memcpy(area.data(), magic.data(), magic.size());
  store_field<kBlobHeaderLayout, "timestamp">(area.data(), now_microseconds());
  store_field<kBlobHeaderLayout, "data_size">(area.data(), std::uint64_t{data.size()});
  if (!data.empty()) std::memcpy(area.data() + kBlobHeaderSize, data.data(), data.size());
  return true;
}

bool page_is_blob(const qvx_data_page& page) noexcept {
  return page_size(page) >= kMinBlobPageSize && page_filled_bytes(page) == kPageHeaderSize &&
         page_schema_id(page) == kBlobSchemaId;
}

void page_mark_blob(qvx_data_page& page) noexcept {
  page_set_filled_bytes(page, kPageHeaderSize);
  page_set_schema_id(page, kBlobSchemaId);
}

}  // namespace qvx
