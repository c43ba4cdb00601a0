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

// Gives every label set an id. Ids count up and none is given twice, so an id never comes to mean another
// label set, whatever is forgotten and however texts hash. Names and values are interned with each set.
class ReverseIndex {
 public:
  // Never the id of a label set.
  static constexpr std::uint64_t kNoId = static_cast<std::uint64_t>(-1);

  struct Entry {
    LabelSet label_set;
    std::uint64_t sequence = 0;   // place in the order of insertion
    std::uint64_t last_seen = 0;  // the time last given to id_of
  };

  // The id of the label set, which is added when it is new, as seen at that time (microseconds since 1970).
  // Throws std::runtime_error "[ReverseIndex] Duplicate key or value detected." when no number is left, and
  // std::bad_alloc.
  std::uint64_t id_of(const LabelMap& label_set, std::uint64_t timestamp = 0);

  // Adds an entry; id_of gives larger ids from then on. Throws the same when the id or the sequence number is
  // taken, or the label set is known; nothing is added or interned then.
  void insert(std::uint64_t id, std::uint64_t sequence, const LabelMap& label_set);

  // The entry of an id, or null. Valid until it is forgotten.
  const Entry* find(std::uint64_t id) const;

  // Forgets the entries for which forgotten(id, entry) is true.
  template <typename Forgotten>
  void forget_if(const Forgotten& forgotten) {
    for (auto at = entries_.begin(); at != entries_.end();)
      at = forgotten(at->first, at->second) ? erase(at) : std::next(at);
  }

  std::size_t size() const { return entries_.size(); }
  const data::metrics::SymbolTable& symbols() const { return symbols_; }

  // All entries by id.
  auto begin() const { return entries_.begin(); }
  auto end() const { return entries_.end(); }

 private:
  using Entries = std::unordered_map<std::uint64_t, Entry>;

  Entries::iterator find_set(const LabelMap& label_set, std::size_t hash);
  Entries::iterator erase(Entries::iterator at);

  data::metrics::SymbolTable symbols_;
  Entries entries_;
  std::unordered_multimap<std::size_t, std::uint64_t> ids_by_hash_;
  std::unordered_map<std::uint64_t, std::uint64_t> id_by_sequence_;
  // One more than the largest ever.
  std::uint64_t next_id_ = 0;
  std::uint64_t next_sequence_ = 0;
};

}  // namespace qvx::metrics
