// The input files: those found in a data folder, and their order.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "qvx/reader/options.h"

namespace qvx {

// Appends every regular file below the directory to the input files, links followed, in the order in which
// the system lists them. A failure is written to standard error.
bool collect_input_files(ReaderOptions& options, const char* directory);

// What files are sorted by. The texts end at their first NUL and hold at most one byte less than their field.
struct FileEntry {
  std::string source_id;
  std::string source_tag;
  std::uint64_t first_timestamp = 0;  // microseconds
  std::string path;
};

enum class SortKey : std::uint8_t { source_id = 0, source_tag = 1, first_timestamp = 2 };

struct SortOrder {
  std::array<SortKey, 3> keys{};
  std::size_t count = 0;
};

// First timestamp, then source id, then source tag.
SortOrder default_sort_order() noexcept;

// A comma-separated list of "source_id", "source_tag" and "first_timestamp", of which the first three count.
// Nothing when there is no key, or an unknown one, which is logged.
std::optional<SortOrder> parse_sort_order(const char* text);

// The order that the options ask for; falls back to the default with a message.
SortOrder choose_sort_order(const ReaderOptions& options);

// Sorts in ascending order. Entries equal in all keys come in any order.
void sort_files(std::vector<FileEntry>& entries, const SortOrder& order);

}  // namespace qvx
