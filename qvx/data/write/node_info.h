// The node information file that stands beside a source's data files: the adapters of its host, as JSON.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "qvx/data/page.h"
#include "qvx/data/write/output_folder.h"
#include "qvx/host/adapters.h"

// What a writer keeps per source, so that a file is written only when there is news.
struct qvx_nodeinfo_cache {
  std::optional<std::string> json_text;  // nothing before the first page
  std::array<std::byte, 16> adapters_digest{};
  std::optional<std::string> directory;  // the one the text was last written to
  std::uint64_t timestamp = 0;           // that the text was made for, microseconds
};

namespace qvx {

// The text for these adapters, up to the first without a name. Nothing on failure, which is logged.
[[nodiscard]] std::optional<std::string> nodeinfo_text(std::span<const qvx_adapter_info> adapters,
                                                       std::uint64_t timestamp) noexcept;

// Writes the node information of the page into the directory, unless it is what was last written there. A
// second file gets the name "nodeinfo.<timestamp>.json"; QVX_ALLOW_MULTIPLE_NODEINFO can forbid it. No
// symbolic link is followed for the file's name, and nothing is left of a new file that could not be written
// whole. False on failure, which is logged; the next call then tries again.
[[nodiscard]] bool nodeinfo_write(qvx_nodeinfo_cache& cache, const char* directory,
                                  const qvx_data_page& page) noexcept;

// The same for a directory that is open, whatever stands at its path by now.
[[nodiscard]] bool nodeinfo_write_in(qvx_nodeinfo_cache& cache, int folder, const std::string& directory,
                                     const qvx_data_page& page, const MakeRoom& make_room = {}) noexcept;

}  // namespace qvx
