#include "qvx/columns/faults.h"

#include <utility>

#include "qvx/columns/column_type.h"

namespace qvx::columns {

void FaultList::add(DataFault fault) {
  const std::lock_guard lock(mutex_);
  std::set<Key>& faults = by_file_[fault.file];
  Key key(fault.offset, fault.page_offset, std::move(fault.kind), utf8_text(fault.words));
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
    for (const auto& [offset, page_offset, kind, words] : faults)
      all.push_back({file, offset, kind, words, page_offset});
  return all;
}

std::uint64_t FaultList::left_out() const {
  const std::lock_guard lock(mutex_);
  return left_out_;
}

}  // namespace qvx::columns
