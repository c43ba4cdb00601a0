// How a page lies in the memory of this process. Only the functions of pages look into it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "qvx/data/page.h"

struct qvx_data_page {
  std::byte* memory = nullptr;  // the header and the data area
  std::uint64_t size = 0;       // bytes at `memory`, at least 720
  std::uint32_t kind = QVX_REGULAR_PAGE;
  std::uint32_t number = 0;
  std::int32_t creator = 0;
  std::array<char, qvx::kPageNameSize> name{};
  // Of the shared-memory object; its number is nobody else's while it is mapped.
  std::uint64_t object_device = 0;
  std::uint64_t object_number = 0;
};

namespace qvx {

// Gets the memory that size, kind, name and number ask for, cleared unless an existing shared-memory object
// was opened. An object that a process died over before it was sized, or whose creator died and that is too
// small, counts as none. 0, or the error number of what failed; the page then has no memory.
[[nodiscard]] int page_memory_allocate(qvx_data_page& page) noexcept;
void page_memory_release(qvx_data_page& page) noexcept;

}  // namespace qvx
