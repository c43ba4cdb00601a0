// Turns what a walk over a file finds wrong, and what is logged meanwhile, into entries of a list.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

#include "qvx/columns/faults.h"
#include "qvx/scan/visitor.h"
#include "qvx/support/log_recorder.h"

namespace qvx::columns {

// Lives as long as one step of a walk, on its thread: errors and warnings of the library are taken from the
// logger, so that nothing goes to standard error. They become the details of the fault that follows them;
// those that nothing follows are entries of their own. The list and the name of the file outlive it.
class FaultRecorder {
 public:
  FaultRecorder(FaultList& list, const std::string& file)
      : list_(list), file_(file), recorder_(QVX_LOG_WARNING) {}
  FaultRecorder(const FaultRecorder&) = delete;
  FaultRecorder& operator=(const FaultRecorder&) = delete;
  ~FaultRecorder() = default;

  void fault(const Fault& fault) { add(fault.place, fault_kind_name(fault.kind), fault.words); }

  void add(const Place& place, const char* kind, const std::string& words) {
    std::string text = words;
    for (const std::string& said : unused())
      text += (text.empty() ? "" : ": ") + said;
    list_at(place, kind, std::move(text));
  }

  // Fields may lie behind their record, so that the last records of a block lack some bytes: lists that, and
  // gives the number of those that are whole. `reach`: bytes from the start of a record to the end of its
  // last field.
  std::size_t whole_records(const EventsBlock& block, std::uint64_t reach) {
    const std::size_t size = block.type.size;
    if (reach <= size) [[likely]]
      return block.count;
    const std::size_t left = block.records.size();
    const std::size_t whole = left < reach ? 0 : 1 + (left - static_cast<std::size_t>(reach)) / size;
    if (whole >= block.count) return block.count;
    add(block.place, fault_kind_name(FaultKind::block_failed),
        std::to_string(block.count - whole) + " of " + std::to_string(block.count) +
            " records have fields outside the bytes at hand");
    return whole;
  }

  // Lists what was logged and explains no fault.
  void finish(const Place& place) {
    for (std::string& said : unused())
      list_at(place, "warning", std::move(said));
  }

 private:
  void list_at(const Place& place, const char* kind, std::string words) {
    DataFault fault{file_, place.offset, kind, std::move(words)};
    if (place.in_page) fault.page_offset = place.page_offset;
    list_.add(std::move(fault));
  }

  std::vector<std::string> unused() {
    std::vector<std::string> texts;
    for (; used_ < recorder_.messages().size(); ++used_)
      texts.push_back(recorder_.messages()[used_].text);
    return texts;
  }

  FaultList& list_;
  const std::string& file_;
  LogRecorder recorder_;
  std::size_t used_ = 0;
};

}  // namespace qvx::columns
