#include "qvx/reader/input_files.h"

#include <boost/algorithm/string.hpp>
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

#include "qvx/support/format.h"
#include "qvx/support/log.h"

namespace qvx {
namespace {

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};

bool complain(const std::string& text) {
  write_diagnostic(stderr, text.data(), text.size());
  return false;
}

void trace(const char* label, const FileEntry& entry) {
  QVX_LOG(QVX_LOG_DEBUG, "%s %s → source_id = %s | source_tag = %s | ts = %lu", label, entry.path.c_str(),
          entry.source_id.c_str(), entry.source_tag.c_str(), entry.first_timestamp);
}

// A row a key: its name, and how two files compare by it: below 0 when the first comes first.
struct SortKeyRow {
  SortKey key;
  std::string_view name;
  int (*compare)(const FileEntry& a, const FileEntry& b);
};

constexpr std::array<SortKeyRow, 3> kSortKeys{{
    {SortKey::source_id, "source_id",
     [](const FileEntry& a, const FileEntry& b) { return a.source_id.compare(b.source_id); }},
    {SortKey::source_tag, "source_tag",
     [](const FileEntry& a, const FileEntry& b) { return a.source_tag.compare(b.source_tag); }},
    {SortKey::first_timestamp, "first_timestamp",
     [](const FileEntry& a, const FileEntry& b) {
       return a.first_timestamp < b.first_timestamp ? -1 : int{a.first_timestamp > b.first_timestamp};
     }},
}};

bool comes_first(const FileEntry& a, const FileEntry& b, const SortOrder& order) {
  for (std::size_t i = 0; i < order.count; ++i) {
    const auto row = std::find_if(kSortKeys.begin(), kSortKeys.end(),
                                  [key = order.keys[i]](const SortKeyRow& at) { return at.key == key; });
    if (const int result = row->compare(a, b); result != 0) return result < 0;
  }
  return false;
}

}  // namespace

bool collect_input_files(ReaderOptions& options, const char* directory) {
  const std::unique_ptr<DIR, CloseDirectory> handle(opendir(directory));
  if (handle == nullptr)
    return complain(format_text("Failed to open directory '%s': %s\n", directory, std::strerror(errno)));
  while (const dirent* const entry = readdir(handle.get())) {
    const char* const name = entry->d_name;
    if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
    char path[PATH_MAX];
    std::snprintf(path, sizeof path, "%s/%s", directory, name);
    struct stat status {};
    if (stat(path, &status) != 0)
      return complain(format_text("Failed to stat path '%s': %s\n", path, std::strerror(errno)));
    if (S_ISREG(status.st_mode)) {
      if (!append(options.input_files, path)) {
        return complain(
            format_text("Failed appending '%s' to the list of counters: %s\n", path, std::strerror(errno)));
      }
    } else if (S_ISDIR(status.st_mode)) {
      if (!collect_input_files(options, path)) return false;
    }
  }
  return true;
}

SortOrder default_sort_order() noexcept {
  return {{SortKey::first_timestamp, SortKey::source_id, SortKey::source_tag}, 3};
}

std::optional<SortOrder> parse_sort_order(const char* text) {
  std::vector<std::string> tokens;
  boost::split(tokens, text, boost::is_any_of(","));
  for (std::string& token : tokens)
    boost::trim(token);
  std::erase(tokens, std::string());
  if (tokens.empty()) return std::nullopt;
  SortOrder order;
  for (const std::string& token : tokens) {
    const auto row = std::find_if(kSortKeys.begin(), kSortKeys.end(),
                                  [&token](const SortKeyRow& at) { return at.name == token; });
    if (row == kSortKeys.end()) {
      QVX_LOG(QVX_LOG_ERROR, "[sort] Unknown sort key: '%s'", token.c_str());
      return std::nullopt;
    }
    order.keys[order.count++] = row->key;
    if (order.count == order.keys.size()) break;
  }
  return order;
}

SortOrder choose_sort_order(const ReaderOptions& options) {
  if (!options.sort_order || options.sort_order->empty()) {
    QVX_LOG(QVX_LOG_INFO, "Sort order not specified. Using default.");
    return default_sort_order();
  }
  const std::optional<SortOrder> order = parse_sort_order(options.sort_order->c_str());
  if (order) return *order;
  QVX_LOG(QVX_LOG_WARNING, "Invalid sort order string '%s'. Using default.", options.sort_order->c_str());
  return default_sort_order();
}

void sort_files(std::vector<FileEntry>& entries, const SortOrder& order) {
  for (const FileEntry& entry : entries)
    trace("before sort:", entry);
  std::sort(entries.begin(), entries.end(),
            [&order](const FileEntry& a, const FileEntry& b) { return comes_first(a, b, order); });
  for (const FileEntry& entry : entries)
    trace("after sort: ", entry);
}

}  // namespace qvx
