#include "qvx/data/page.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <limits>
#include <new>

#include "qvx/data/page_memory.h"
#include "qvx/support/clock.h"
#include "qvx/support/log.h"
#include "qvx/support/version.h"

namespace qvx {
namespace {

// A number of the header, read once: behind the barrier the compiler cannot fetch it again from memory that
// another process may have changed since it was checked.
template <FieldName kName>
auto load(const qvx_data_page& page) {
  auto value = load_field<kPageLayout, kName>(page.memory);
  asm volatile("" : "+r"(value));
  return value;
}

template <FieldName kName, typename T>
void store(qvx_data_page& page, const T& value) {
  store_field<kPageLayout, kName>(page.memory, value);
}

void note_request(qvx_data_page& page, const qvx_page_alloc_params& params) {
  const char* const name = params.name != nullptr ? params.name : "";
  page.kind = params.kind;
  page.number = params.number;
  if (params.kind == QVX_SHARED_PAGE) {
    std::snprintf(page.name.data(), page.name.size(), "%s_%d", name, static_cast<int>(params.number));
  } else {
    std::snprintf(page.name.data(), page.name.size(), "%s", name);
  }
}

// The first timestamp is left alone: it is zero in fresh memory and keeps its value in an opened page. So is
// the creator, which is its own process's to write.
void fill_header(qvx_data_page& page, std::uint32_t data_size) {
  store<"version">(page, kProgramVersion);
  store<"page_size">(page, page.size);
  store<"data_size">(page, data_size);
  store<"kind">(page, page.kind);
  store<"number">(page, page.number);
  std::array<char, kPageLayout[10].size> name{};
  static_assert(kPageLayout[10].name == "name");
  std::copy_n(page.name.begin(), name.size() - 1, name.begin());
  store<"name">(page, name);
  page_reset(page);
}

// Null with the error number of what failed.
PagePtr make_page(std::uint32_t data_size, std::uint64_t size, const qvx_page_alloc_params& params,
                  int& error) {
  error = EINVAL;
  if (size < kPageHeaderSize || size - kPageHeaderSize < data_size) return nullptr;
  const std::uint64_t block_size = data_size != 0 ? data_size : size - kPageHeaderSize;
  error = EOVERFLOW;
  if (block_size > std::numeric_limits<std::uint32_t>::max()) return nullptr;
  error = ENOMEM;
  PagePtr page(new (std::nothrow) qvx_data_page);
  if (page == nullptr) return nullptr;
  page->size = size;
  note_request(*page, params);
  error = page_memory_allocate(*page);
  if (error != 0) return nullptr;
  fill_header(*page, static_cast<std::uint32_t>(block_size));
  return page;
}

// How much of the data area is filled. What the header says may point anywhere.
std::uint64_t filled_data_size(const qvx_data_page& page) {
  const std::uint64_t filled = std::min(page_filled_bytes(page), page.size);
  return filled > kPageHeaderSize ? filled - kPageHeaderSize : 0;
}

std::uint64_t blocks_for(std::uint64_t size, std::uint64_t block_size) {
  return block_size == 0 ? 0 : size / block_size + (size % block_size != 0 ? 1 : 0);
}

}  // namespace

PagePtr page_alloc(std::uint32_t data_size, std::uint64_t page_size,
                   const qvx_page_alloc_params& params) noexcept {
  int error = 0;
  PagePtr page = make_page(data_size, page_size, params, error);
  if (page == nullptr)
    QVX_LOG(QVX_LOG_ERROR, "[data_page] Data page allocation failed: %s", std::strerror(error));
  return page;
}

void page_free(qvx_data_page* page) noexcept {
  if (page == nullptr) return;
  if (page->memory != nullptr) page_memory_release(*page);
  delete page;
}

void PageDelete::operator()(qvx_data_page* page) const noexcept {
  page_free(page);
}

void page_set_first_timestamp(qvx_data_page* page) noexcept {
  if (page == nullptr) return;
  const std::uint64_t now = now_microseconds();
  store<"first_timestamp">(*page, now);
  QVX_LOG(QVX_LOG_DEBUG, "[data_page] set first_ts = %" PRIu64 " for page %p", now,
          static_cast<void*>(page->memory));
}

void page_update_last_timestamp(qvx_data_page* page) noexcept {
  if (page == nullptr) return;
  const std::uint64_t now = now_microseconds();
  store<"last_timestamp">(*page, now);
  QVX_LOG(QVX_LOG_DEBUG, "[data_page] update last_ts = %" PRIu64 " for page %p", now,
          static_cast<void*>(page->memory));
}

std::uint64_t page_first_timestamp(const qvx_data_page& page) noexcept {
  const auto first = load<"first_timestamp">(page);
  QVX_LOG(QVX_LOG_DEBUG, "[data_page] page %p, first_timestamp = %" PRIu64, static_cast<void*>(page.memory),
          first);
  if (first != 0) return first;
  QVX_LOG(QVX_LOG_ERROR,
          "[data_page] going to return local timestamp rather than (correct) remote timestamp");
  return now_microseconds();
}

std::uint64_t page_last_timestamp(const qvx_data_page& page) noexcept {
  return load<"last_timestamp">(page);
}

void page_set_timestamps(qvx_data_page& page, std::uint64_t first, std::uint64_t last) noexcept {
  store<"first_timestamp">(page, first);
  store<"last_timestamp">(page, last);
}

bool page_consume_free_space(qvx_data_page& page, Bytes bytes) noexcept {
  std::uint64_t filled = page_filled_bytes(page);
  const bool in_data_area = filled >= kPageHeaderSize && filled < page.size;
  const bool fits = bytes.empty() || (in_data_area && bytes.size() <= page.size - filled);
  if (fits && !bytes.empty()) {
    std::memcpy(page.memory + filled, bytes.data(), bytes.size());
    filled += bytes.size();
    store<"filled_bytes">(page, filled);
  }
  if (filled > page.size) {
    QVX_LOG(QVX_LOG_ERROR,
            "qvx_data_page_consume_free_space: page->filled_bytes > page->page_size  %" PRIu64 " %" PRIu64
            " ",
            filled, page.size);
  }
  return fits;
}

void page_reset(qvx_data_page& page) noexcept {
  store<"filled_bytes">(page, std::uint64_t{kPageHeaderSize});
  store<"last_timestamp">(page, std::uint64_t{0});
}

std::uint64_t page_size(const qvx_data_page& page) noexcept {
  return page.size;
}

std::uint32_t page_version(const qvx_data_page& page) noexcept {
  return load<"version">(page);
}

std::uint64_t page_filled_bytes(const qvx_data_page& page) noexcept {
  return load<"filled_bytes">(page);
}

void page_set_filled_bytes(qvx_data_page& page, std::uint64_t filled) noexcept {
  store<"filled_bytes">(page, filled);
}

std::uint32_t page_data_size(const qvx_data_page& page) noexcept {
  return load<"data_size">(page);
}

qvx_schema_id page_schema_id(const qvx_data_page& page) noexcept {
  qvx_schema_id id;
  load_field<kPageLayout, "schema_id">(page.memory, id.bytes);
  return id;
}

void page_set_schema_id(qvx_data_page& page, const qvx_schema_id& id) noexcept {
  store<"schema_id">(page, id.bytes);
}

qvx_source page_source(const qvx_data_page& page) noexcept {
  qvx_source source;
  load_field<kPageLayout, "source_id">(page.memory, source.id);
  load_field<kPageLayout, "source_tag">(page.memory, source.tag);
  return source;
}

void page_set_source(qvx_data_page& page, const qvx_source& source) noexcept {
  store<"source_id">(page, source.id);
  store<"source_tag">(page, source.tag);
}

std::array<qvx_adapter_info, kPageAdapters> page_adapters(const qvx_data_page& page) noexcept {
  std::array<qvx_adapter_info, kPageAdapters> adapters;
  const std::byte* from = page.memory + offset_of(kPageLayout, "adapters[0]");
  for (qvx_adapter_info& adapter : adapters) {
    adapter = adapter_decode(std::span<const std::byte, kAdapterEntrySize>(from, kAdapterEntrySize));
    from += kAdapterEntrySize;
  }
  return adapters;
}

void page_set_adapters(qvx_data_page& page, std::span<const qvx_adapter_info> adapters) noexcept {
  std::byte* to = page.memory + offset_of(kPageLayout, "adapters[0]");
  for (std::size_t i = 0; i < kPageAdapters; ++i) {
    const AdapterBytes bytes = adapter_encode(i < adapters.size() ? adapters[i] : qvx_adapter_info{});
    std::memcpy(to, bytes.data(), bytes.size());
    to += kAdapterEntrySize;
  }
}

std::uint32_t page_kind(const qvx_data_page& page) noexcept {
  return page.kind;
}

const char* page_name(const qvx_data_page& page) noexcept {
  return page.name.data();
}

std::uint32_t page_number(const qvx_data_page& page) noexcept {
  return page.number;
}

std::int32_t page_creator(const qvx_data_page& page) noexcept {
  return page.creator;
}

std::span<std::byte, kPageHeaderSize> page_header(qvx_data_page& page) noexcept {
  return std::span<std::byte, kPageHeaderSize>(page.memory, kPageHeaderSize);
}

Bytes page_data(const qvx_data_page& page) noexcept {
  return {page.memory + kPageHeaderSize, page.size - kPageHeaderSize};
}

std::span<std::byte> page_data(qvx_data_page& page) noexcept {
  return {page.memory + kPageHeaderSize, page.size - kPageHeaderSize};
}

Bytes page_filled_data(const qvx_data_page& page) noexcept {
  return page_data(page).first(filled_data_size(page));
}

std::uint64_t page_block_count(const qvx_data_page& page) noexcept {
  return blocks_for(filled_data_size(page), page_data_size(page));
}

PageBlocks page_blocks(const qvx_data_page& page) noexcept {
  PageBlocks blocks;
  blocks.data = page_filled_data(page);
  blocks.block_size = page_data_size(page);
  if (blocks.block_size == 0) blocks.block_size = page.size - kPageHeaderSize;
  blocks.count = blocks_for(blocks.data.size(), blocks.block_size);
  blocks.padding = blocks.block_size * blocks.count - blocks.data.size();
  return blocks;
}

}  // namespace qvx
