#include "qvx/reader/input_files.h"

#include <boost/algorithm/string.hpp>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "qvx/scan/long_path.h"
#include "qvx/support/format.h"
#include "qvx/support/log.h"

namespace qvx {
namespace {

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};

// A folder whose entries are being gone through. It is read as a whole, so that no descriptor stays open.
struct OpenFolder {
  std::size_t path_size = 0;       // of the path of what is being gone through
  std::vector<std::string> names;  // in the order of the system
  std::size_t next = 0;
  int fault = 0;  // why reading stopped behind these names
  dev_t device = 0;
  ino_t inode = 0;
};

bool complain(const std::string& text) {
  write_diagnostic(stderr, text.data(), text.size());
  return false;
}

bool complain_of_folder(const std::string& path, int reason) {
  return complain(format_text("Failed to open directory '%s': %s\n", path.c_str(), std::strerror(reason)));
}

bool complain_of_path(const std::string& path, int reason) {
  return complain(format_text("Failed to stat path '%s': %s\n", path.c_str(), std::strerror(reason)));
}

// Reads a folder and makes it the one at hand; false, with a complaint, when it cannot be opened.
bool enter(std::vector<OpenFolder>& folders, const std::string& path) {
  const int descriptor = open_path(path.c_str(), O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC);
  if (descriptor < 0) return complain_of_folder(path, errno);
  const std::unique_ptr<DIR, CloseDirectory> handle(fdopendir(descriptor));
  if (handle == nullptr) {
    const int reason = errno;
    close(descriptor);
    return complain_of_folder(path, reason);
  }
  OpenFolder folder;
  folder.path_size = path.size();
  struct stat status {};
  if (fstat(descriptor, &status) != 0) return complain_of_folder(path, errno);
  folder.device = status.st_dev;
  folder.inode = status.st_ino;
  for (;;) {
    errno = 0;
    const dirent* const entry = readdir(handle.get());
    if (entry == nullptr) break;
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") folder.names.emplace_back(name);
  }
  folder.fault = errno;
  folders.push_back(std::move(folder));
  return true;
}

// Whether one of the folders being gone through is the one of this status.
bool is_inside(const std::vector<OpenFolder>& folders, const struct stat& status) {
  return std::any_of(folders.begin(), folders.end(), [&status](const OpenFolder& folder) {
    return folder.device == status.st_dev && folder.inode == status.st_ino;
  });
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
  std::vector<OpenFolder> folders;
  std::string path = directory;
  if (!enter(folders, path)) return false;
  while (!folders.empty()) {
    OpenFolder& folder = folders.back();
    path.resize(folder.path_size);
    if (folder.next == folder.names.size()) {
      if (folder.fault != 0) return complain_of_folder(path, folder.fault);
      folders.pop_back();
      continue;
    }
    path += '/';
    path += folder.names[folder.next++];
    struct stat status {};
    if (stat_path(path.c_str(), status) != 0) return complain_of_path(path, errno);
    if (S_ISREG(status.st_mode)) {
      if (!append(options.input_files, path.c_str())) {
        return complain(format_text("Failed appending '%s' to the list of counters: %s\n", path.c_str(),
                                    std::strerror(errno)));
      }
    } else if (S_ISDIR(status.st_mode)) {
      // The system counts the links of a path that it takes in one piece only.
      if (path.size() >= PATH_MAX && is_inside(folders, status)) return complain_of_path(path, ELOOP);
      if (!enter(folders, path)) return false;
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
