// What was found wrong while files were read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace qvx::columns {

struct DataFault {
  std::string file;
  std::uint64_t offset = 0;  // in the file, unpacked if the whole file is compressed
  std::string kind = {};     // that of FaultKind, or "warning"
  std::string words = {};    // one line, UTF-8
  // Of a block in a compressed page, which stands at the offset: where it stands in the unpacked page.
  std::optional<std::uint64_t> page_offset = {};
};

// Shared by everything that reads the same files; any thread may add. A fault that is found again is not
// added again, and of one file only the first kMostOfFile are kept.
class FaultList {
 public:
  static constexpr std::size_t kMostOfFile = 1000;

  // Throws std::bad_alloc.
  void add(DataFault fault);

  // In the order of files' names and offsets.
  std::vector<DataFault> list() const;
  // Those beyond kMostOfFile.
  std::uint64_t left_out() const;

 private:
  // Offset, offset in the page, kind, words.
  using Key = std::tuple<std::uint64_t, std::optional<std::uint64_t>, std::string, std::string>;

  mutable std::mutex mutex_;
  std::map<std::string, std::set<Key>> by_file_;
  std::uint64_t left_out_ = 0;
};

}  // namespace qvx::columns
