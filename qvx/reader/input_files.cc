#include "qvx/reader/input_files.h"

#include <boost/algorithm/string.hpp>
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>

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

bool comes_first(const FileEntry& a, const FileEntry& b, const SortOrder& order) {
  for (std::size_t i = 0; i < order.count; ++i) {
    switch (order.keys[i]) {
      case SortKey::source_id:
        if (const int result = std::strcmp(a.source_id.c_str(), b.source_id.c_str()); result != 0)
          return result < 0;
        break;
      case SortKey::source_tag:
        if (const int result = std::strcmp(a.source_tag.c_str(), b.source_tag.c_str()); result != 0)
          return result < 0;
        break;
      case SortKey::first_timestamp:
        if (a.first_timestamp != b.first_timestamp) return a.first_timestamp < b.first_timestamp;
        break;
    }
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
    if (token == "source_id") {
      order.keys[order.count++] = SortKey::source_id;
    } else if (token == "source_tag") {
      order.keys[order.count++] = SortKey::source_tag;
    } else if (token == "first_timestamp") {
      order.keys[order.count++] = SortKey::first_timestamp;
    } else {
      QVX_LOG(QVX_LOG_ERROR, "[sort] Unknown sort key: '%s'", token.c_str());
      return std::nullopt;
    }
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
