#include "qvx/metrics/reverse_index.h"

#include <boost/container_hash/hash.hpp>

#include <algorithm>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace qvx::metrics {
namespace {

// Of a LabelMap or a LabelSet.
std::size_t hash_of(const auto& labels) {
  std::size_t seed = 0;
  for (const auto& [name, value] : labels) {
    boost::hash_combine(seed, boost::hash<std::string_view>{}(name));
    boost::hash_combine(seed, boost::hash<std::string_view>{}(value));
  }
  return seed;
}

bool is_same(const LabelSet& stored, const LabelMap& label_set) {
  return std::equal(stored.begin(), stored.end(), label_set.begin(), label_set.end(),
                    [](const auto& left, const auto& right) {
                      return left.first == right.first && left.second == right.second;
                    });
}

// Takes back what was interned unless it is to be kept.
class Interning {
 public:
  Interning(data::metrics::SymbolTable& symbols, std::size_t texts) : symbols_(symbols) {
    texts_.reserve(texts);
  }
  Interning(const Interning&) = delete;
  Interning& operator=(const Interning&) = delete;
  ~Interning() {
    for (const std::string_view text : texts_)
      symbols_.release(text);
  }

  void add(std::string_view text) {
    symbols_.intern(text);
    texts_.push_back(text);
  }
  void keep() { texts_.clear(); }

 private:
  data::metrics::SymbolTable& symbols_;
  std::vector<std::string_view> texts_;
};

}  // namespace

std::uint64_t ReverseIndex::id_of(const LabelMap& label_set, std::uint64_t timestamp) {
  auto found = find_set(label_set, hash_of(label_set));
  if (found == entries_.end()) {
    const std::uint64_t id = next_id_;
    insert(id, next_sequence_, label_set);
    found = entries_.find(id);
  }
  found->second.last_seen = timestamp;
  return found->first;
}

void ReverseIndex::insert(std::uint64_t id, std::uint64_t sequence, const LabelMap& label_set) {
  const std::size_t hash = hash_of(label_set);
  if (id == kNoId || sequence == kNoId || entries_.contains(id) || id_by_sequence_.contains(sequence) ||
      find_set(label_set, hash) != entries_.end())
    throw std::runtime_error("[ReverseIndex] Duplicate key or value detected.");
  Entry entry;
  entry.sequence = sequence;
  Interning interning(symbols_, 2 * label_set.size());
  for (const auto& [name, value] : label_set) {
    interning.add(name);
    interning.add(value);
    entry.label_set.emplace_back(name, value);
  }
  const auto by_sequence = id_by_sequence_.emplace(sequence, id).first;
  try {
    const auto by_id = entries_.emplace(id, std::move(entry)).first;
    try {
      ids_by_hash_.emplace(hash, id);
    } catch (...) {
      entries_.erase(by_id);
      throw;
    }
  } catch (...) {
    id_by_sequence_.erase(by_sequence);
    throw;
  }
  interning.keep();
  next_id_ = std::max(next_id_, id + 1);
  next_sequence_ = std::max(next_sequence_, sequence + 1);
}

const ReverseIndex::Entry* ReverseIndex::find(std::uint64_t id) const {
  const auto found = entries_.find(id);
  return found == entries_.end() ? nullptr : &found->second;
}

ReverseIndex::Entries::iterator ReverseIndex::find_set(const LabelMap& label_set, std::size_t hash) {
  const auto [first, last] = ids_by_hash_.equal_range(hash);
  for (auto at = first; at != last; ++at) {
    const auto entry = entries_.find(at->second);
    if (entry != entries_.end() && is_same(entry->second.label_set, label_set)) return entry;
  }
  return entries_.end();
}

ReverseIndex::Entries::iterator ReverseIndex::erase(Entries::iterator at) {
  const auto& [id, entry] = *at;
  for (const auto& [name, value] : entry.label_set) {
    symbols_.release(name);
    symbols_.release(value);
  }
  id_by_sequence_.erase(entry.sequence);
  const auto [first, last] = ids_by_hash_.equal_range(hash_of(entry.label_set));
  ids_by_hash_.erase(
      std::find_if(first, last, [&at](const auto& known) { return known.second == at->first; }));
  return entries_.erase(at);
}

}  // namespace qvx::metrics
