// Data pages: the unit in which a collector fills data in memory. A page is a header of 720 bytes and a data
// area behind it, in ordinary memory or in a shared-memory object that several processes open by name.
//
// The header stands in the page itself, so in shared memory any process may have written anything into it:
// no value of it is trusted to lie inside the page, and what is decided by the page's size, name or creator
// is decided by what this process noted when it opened the page. No lock is taken; whoever shares a page
// keeps to one writer at a time, and nobody may shrink the object while it is open.
//
// Sizes are bytes, timestamps microseconds since 1970-01-01 00:00 UTC. Nothing here throws.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "qvx/data/schema_id.h"
#include "qvx/data/source.h"
#include "qvx/host/adapters.h"
#include "qvx/support/bytes.h"
#include "qvx/support/layout_table.h"

inline constexpr std::uint32_t QVX_REGULAR_PAGE = 0;  // ordinary memory
inline constexpr std::uint32_t QVX_SHARED_PAGE = 1;   // shared memory

// A page as this process holds it.
struct qvx_data_page;

struct qvx_page_alloc_params {
  std::uint32_t kind = QVX_REGULAR_PAGE;
  const char* name = "";     // a shared-memory object is called "<name>_<number>", cut at 118 characters
  std::uint32_t number = 0;  // carried into the page
};

namespace qvx {

inline constexpr std::size_t kPageHeaderSize = 720;
inline constexpr std::size_t kPageAdapters = 6;
// A page's header has room for the first 67 characters of the name; the page in this process keeps all.
inline constexpr std::size_t kPageNameSize = 119;

inline constexpr std::array<LayoutField, 19> kPageLayout{{
    {"version", 0, 4},
    {"page_size", 4, 8},
    {"filled_bytes", 12, 8},
    {"data_size", 20, 4},
    {"first_timestamp", 24, 8},
    {"last_timestamp", 32, 8},
    {"schema_id", 40, 16},
    {"source_id", 56, 64},
    {"source_tag", 120, 16},
    {"kind", 136, 4},
    {"name", 140, 68},
    {"creator", 208, 4},
    {"number", 212, 4},
    {"adapters[0]", 216, kAdapterEntrySize},
    {"adapters[1]", 300, kAdapterEntrySize},
    {"adapters[2]", 384, kAdapterEntrySize},
    {"adapters[3]", 468, kAdapterEntrySize},
    {"adapters[4]", 552, kAdapterEntrySize},
    {"adapters[5]", 636, kAdapterEntrySize},
}};
static_assert(tiles(kPageLayout, kPageHeaderSize));

struct PageDelete {
  void operator()(qvx_data_page* page) const noexcept;
};
using PagePtr = std::unique_ptr<qvx_data_page, PageDelete>;

// An empty page of `page_size` bytes, header included. `data_size` is the size of the blocks it will be saved
// in, 0 for the whole data area. A shared page is opened when an object of its name exists, and then keeps
// its data, source, schema, adapters and first timestamp, and is created otherwise. Null on failure, which is
// logged: no room for `data_size`, an unknown kind, no memory, an object smaller than the page.
PagePtr page_alloc(std::uint32_t data_size, std::uint64_t page_size,
                   const qvx_page_alloc_params& params) noexcept;

// Releases the memory. The process that created a shared page also removes its name. Null is ignored.
void page_free(qvx_data_page* page) noexcept;

// Stamp a page with the current time; null is ignored.
void page_set_first_timestamp(qvx_data_page* page) noexcept;
void page_update_last_timestamp(qvx_data_page* page) noexcept;

// The time of the first data; for a page that was never stamped the current time, with an error logged.
std::uint64_t page_first_timestamp(const qvx_data_page& page) noexcept;
std::uint64_t page_last_timestamp(const qvx_data_page& page) noexcept;
void page_set_timestamps(qvx_data_page& page, std::uint64_t first, std::uint64_t last) noexcept;

// Appends bytes to what is filled of the data area. False, with nothing changed, when they do not fit.
bool page_consume_free_space(qvx_data_page& page, Bytes bytes) noexcept;

// Makes the page empty for reuse: nothing filled, last timestamp 0. The data area keeps its bytes.
void page_reset(qvx_data_page& page) noexcept;

// The size of the page as this process allocated or opened it.
std::uint64_t page_size(const qvx_data_page& page) noexcept;
// What the header says, which in shared memory may be anything.
std::uint32_t page_version(const qvx_data_page& page) noexcept;
std::uint64_t page_filled_bytes(const qvx_data_page& page) noexcept;
// What is appended next goes there; the header of the page is counted.
void page_set_filled_bytes(qvx_data_page& page, std::uint64_t filled) noexcept;
std::uint32_t page_data_size(const qvx_data_page& page) noexcept;

qvx_schema_id page_schema_id(const qvx_data_page& page) noexcept;
void page_set_schema_id(qvx_data_page& page, const qvx_schema_id& id) noexcept;
qvx_source page_source(const qvx_data_page& page) noexcept;
void page_set_source(qvx_data_page& page, const qvx_source& source) noexcept;

// All six entries; the list ends at the first empty name. Setting clears those that are not given, and takes
// at most six.
std::array<qvx_adapter_info, kPageAdapters> page_adapters(const qvx_data_page& page) noexcept;
void page_set_adapters(qvx_data_page& page, std::span<const qvx_adapter_info> adapters) noexcept;

std::uint32_t page_kind(const qvx_data_page& page) noexcept;
// The name of the shared-memory object; of a regular page, the name it was requested with.
const char* page_name(const qvx_data_page& page) noexcept;
std::uint32_t page_number(const qvx_data_page& page) noexcept;
// The process that created the shared memory; -1 when this process opened what existed, 0 for regular memory.
std::int32_t page_creator(const qvx_data_page& page) noexcept;

// The bytes of the header, laid out as kPageLayout, and the whole data area. Both belong to the page.
std::span<std::byte, kPageHeaderSize> page_header(qvx_data_page& page) noexcept;
Bytes page_data(const qvx_data_page& page) noexcept;
std::span<std::byte> page_data(qvx_data_page& page) noexcept;
// The part of the data area that is filled, never more than the data area.
Bytes page_filled_data(const qvx_data_page& page) noexcept;

// The number of blocks of `data_size` that hold what is filled; 0 when `data_size` is 0.
std::uint64_t page_block_count(const qvx_data_page& page) noexcept;

// A page as it is saved: `data`, then `padding` zero bytes, are `count` blocks of `block_size`.
struct PageBlocks {
  std::uint64_t block_size = 0;  // the page's data_size, or its data area when that is 0
  std::uint64_t count = 0;
  Bytes data;                 // points into the page
  std::uint64_t padding = 0;  // fewer than block_size
};
PageBlocks page_blocks(const qvx_data_page& page) noexcept;

}  // namespace qvx
