#include "qvx/metrics/block_tables.h"

#include <boost/container_hash/hash.hpp>

#include <algorithm>

#include "qvx/metrics/wire.h"
#include "qvx/support/log.h"

namespace qvx::metrics {

void LabelMap::set(std::string_view name, std::string_view value) {
  const std::size_t at = place_of(name);
  if (at != kNone) {
    entries_[at].second = value;
    return;
  }
  entries_.emplace_back(name, value);
  if (entries_.size() < kIndexedFrom) return;
  if (index_.empty()) {
    for (std::size_t i = 0; i < entries_.size(); ++i)
      index_.emplace(entries_[i].first, i);
  } else {
    index_.emplace(name, entries_.size() - 1);
  }
}

void LabelMap::clear() {
  entries_.clear();
  if (!index_.empty()) index_.clear();
}

std::size_t LabelMap::place_of(std::string_view name) const {
  if (!index_.empty()) {
    const auto found = index_.find(name);
    return found == index_.end() ? kNone : found->second;
  }
  const auto found = std::find_if(entries_.begin(), entries_.end(),
                                  [name](const Entry& entry) { return entry.first == name; });
  return found == entries_.end() ? kNone : static_cast<std::size_t>(found - entries_.begin());
}

std::uint64_t label_names_fingerprint(const StringTable& names) {
  std::size_t seed = 0;
  for (const std::string_view name : names)
    boost::hash_combine(seed, boost::hash<std::string_view>{}(name));
  return seed;
}

namespace {

// Reads every LBLN section and returns the position behind the last one, or behind the block's magic.
const std::byte* read_label_name_sets(Bytes block, LabelNameSets& sets_out) {
  const std::byte* const end = block.data() + block.size();
  const std::byte* pos = block.data() + std::min(wire::kMarkerSize, block.size());
  StringTable unkept;
  for (std::size_t ordinal = 0;; ++ordinal) {
    const std::byte* const marker = wire::find_marker(pos, end, wire::kLabelNamesMarker);
    if (marker == end) return pos;
    if (static_cast<std::size_t>(end - marker) < wire::kLabelNamesHeaderSize)
      fail_missing_prefix(wire::kLabelNamesMarker);
    const std::size_t count = load_le<std::uint8_t>(marker + wire::kLabelNamesCountAt);
    const bool kept = ordinal < LabelNameSets::kMost;
    StringTable& names = kept ? sets_out.sets.emplace_back() : unkept;
    names.clear();
    pos = read_string_entries(marker + wire::kLabelNamesHeaderSize, end, count, wire::kLabelNamesEnd, names);
    // The closing marker is stepped over unseen, as far as the block has one.
    pos += std::min(wire::kMarkerSize, static_cast<std::size_t>(end - pos));
  }
}

}  // namespace

const std::byte* read_label_tables(Bytes block, MetricsBlockTables& tables) {
  tables.label_names.sets.clear();
  tables.label_values.clear();
  const std::byte* const pos = read_label_name_sets(block, tables.label_names);
  return read_string_table(pos, block.data() + block.size(), wire::kLabelValuesMarker, wire::kLabelValuesEnd,
                           tables.label_values);
}

const std::byte* read_name_tables(Bytes block, MetricsBlockTables& tables) {
  tables.metric_names.clear();
  const std::byte* const end = block.data() + block.size();
  const std::byte* const pos = read_label_tables(block, tables);
  const std::byte* const names_end =
      read_string_table(pos, end, wire::kMetricNamesMarker, wire::kMetricNamesEnd, tables.metric_names);
  tables.metric_names_bytes = {};
  if (!tables.metric_names.empty()) {
    const std::string_view last = tables.metric_names.back();
    const std::byte* const first = as_bytes(tables.metric_names.front()).data() - 1;  // from its length byte
    tables.metric_names_bytes = Bytes(first, as_bytes(last).data() + last.size());
  }
  return names_end;
}

const std::byte* read_constant_labels(Bytes block, LabelMap& labels_out) {
  labels_out.clear();
  StringTable table;
  const std::byte* const table_end =
      read_string_table(block.data(), block.data() + block.size(), wire::kConstantLabelsMarker,
                        wire::kConstantLabelsEnd, table);
  for (std::size_t i = 0; i + 1 < table.size(); i += 2)
    labels_out.set(table[i], table[i + 1]);
  return table_end;
}

void read_block_tables(Bytes block, HistogramUse use, MetricsBlockTables& tables) {
  const std::byte* const pos = read_name_tables(block, tables);
  tables.histograms.clear();
  try {
    parse_histograms(pos, block.data() + block.size(), tables.label_values,
                     use == HistogramUse::keep ? &tables.histograms : nullptr);
  } catch (const std::exception& fault) {
    QVX_LOG(QVX_LOG_ERROR, "[qvx metrics parser] Error parsing histograms: %s", fault.what());
  }
  read_constant_labels(block, tables.constant_labels);
}

void set_labels(const StringTable& names, const std::vector<std::string_view>& values, LabelMap& labels) {
  const std::size_t count = std::min(names.size(), values.size());
  for (std::size_t i = 0; i < count; ++i)
    labels.set(names[i], values[i]);
}

}  // namespace qvx::metrics
