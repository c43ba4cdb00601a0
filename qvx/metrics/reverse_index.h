// Label sets as numbers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "qvx/metrics/block_tables.h"
#include "qvx/metrics/symbol_table.h"

namespace qvx::metrics {

// Label names and values, in order, with texts of their own.
using LabelSet = std::vector<std::pair<std::string, std::string>>;

// Gives every label set an id: a hash of its ordered pairs, the same in every run. Names and values are
// interned when a set is added, and each entry carries its place in the order of insertion.
class ReverseIndex {
 public:
  struct Entry {
    LabelSet label_set;
    std::uint64_t sequence = 0;
  };

  // The id of the label set, which is added when it is new. Throws std::runtime_error "[ReverseIndex]
  // Duplicate key or value detected." when another label set has the same id.
  std::uint64_t id_of(const LabelMap& label_set);

  // Adds an entry. Throws the same when the id or the sequence number is taken; nothing is added then.
  void insert(std::uint64_t id, std::uint64_t sequence, const LabelMap& label_set);

  // The entry of an id, or null.
  const Entry* find(std::uint64_t id) const;

  std::size_t size() const { return entries_.size(); }
  const data::metrics::SymbolTable& symbols() const { return symbols_; }

  // All entries by id.
  auto begin() const { return entries_.begin(); }
  auto end() const { return entries_.end(); }

 private:
  data::metrics::SymbolTable symbols_;
  std::unordered_map<std::uint64_t, Entry> entries_;
  std::unordered_map<std::uint64_t, std::uint64_t> id_by_sequence_;
  std::uint64_t next_sequence_ = 0;
};

}  // namespace qvx::metrics
