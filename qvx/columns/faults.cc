#include "qvx/columns/faults.h"

#include <utility>

#include "qvx/columns/column_type.h"

namespace qvx::columns {

void FaultList::add(const std::string& file, std::uint64_t offset, std::string kind, std::string words) {
  const std::lock_guard lock(mutex_);
  std::set<Key>& faults = by_file_[file];
  Key key(offset, std::move(kind), utf8_text(words));
  if (faults.size() < kMostOfFile) {
    faults.insert(std::move(key));
  } else if (!faults.contains(key)) {
    ++left_out_;
  }
}

std::vector<DataFault> FaultList::list() const {
  const std::lock_guard lock(mutex_);
  std::vector<DataFault> all;
  for (const auto& [file, faults] : by_file_)
    for (const auto& [offset, kind, words] : faults)
      all.push_back({file, offset, kind, words});
  return all;
}

std::uint64_t FaultList::left_out() const {
  const std::lock_guard lock(mutex_);
  return left_out_;
}

}  // namespace qvx::columns
