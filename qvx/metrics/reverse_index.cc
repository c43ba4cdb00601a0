#include "qvx/metrics/reverse_index.h"

#include <boost/container_hash/hash.hpp>

#include <algorithm>
#include <stdexcept>

namespace qvx::metrics {
namespace {

std::uint64_t hash_of(const LabelMap& label_set) {
  std::size_t seed = 0;
  for (const auto& [name, value] : label_set) {
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

}  // namespace

std::uint64_t ReverseIndex::id_of(const LabelMap& label_set) {
  const std::uint64_t id = hash_of(label_set);
  const auto found = entries_.find(id);
  if (found != entries_.end() && is_same(found->second.label_set, label_set)) return id;
  insert(id, next_sequence_, label_set);
  ++next_sequence_;
  return id;
}

void ReverseIndex::insert(std::uint64_t id, std::uint64_t sequence, const LabelMap& label_set) {
  if (entries_.contains(id) || id_by_sequence_.contains(sequence))
    throw std::runtime_error("[ReverseIndex] Duplicate key or value detected.");
  Entry entry;
  entry.sequence = sequence;
  for (const auto& [name, value] : label_set) {
    symbols_.intern(name);
    symbols_.intern(value);
    entry.label_set.emplace_back(name, value);
  }
  id_by_sequence_.emplace(sequence, id);
  entries_.emplace(id, std::move(entry));
}

const ReverseIndex::Entry* ReverseIndex::find(std::uint64_t id) const {
  const auto found = entries_.find(id);
  return found == entries_.end() ? nullptr : &found->second;
}

}  // namespace qvx::metrics
