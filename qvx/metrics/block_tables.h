// The tables that one metrics block carries, and the label lists made from them. Every text here is a view of
// the block and lives as long as its bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "qvx/metrics/histogram_store.h"
#include "qvx/metrics/string_table.h"
#include "qvx/support/bytes.h"

namespace qvx::metrics {

// An ordered map from label name to label value. A value that is set again keeps its place.
class LabelMap {
 public:
  using Entry = std::pair<std::string_view, std::string_view>;

  void set(std::string_view name, std::string_view value);
  void clear();

  // The value of a name, or null.
  const std::string_view* find(std::string_view name) const {
    const std::size_t at = place_of(name);
    return at == kNone ? nullptr : &entries_[at].second;
  }
  bool contains(std::string_view name) const { return place_of(name) != kNone; }

  bool empty() const { return entries_.empty(); }
  std::size_t size() const { return entries_.size(); }
  auto begin() const { return entries_.begin(); }
  auto end() const { return entries_.end(); }

 private:
  static constexpr std::size_t kNone = static_cast<std::size_t>(-1);
  // Up to this many entries a walk beats a hash.
  static constexpr std::size_t kIndexedFrom = 16;

  std::size_t place_of(std::string_view name) const;

  std::vector<Entry> entries_;
  std::unordered_map<std::string_view, std::size_t> index_;  // all entries, or none below kIndexedFrom
};

// The label-name sets of a block. A set is named by its ordinal among the LBLN sections.
struct LabelNameSets {
  // A batch names its set in one byte; sections behind these are read over and not kept.
  static constexpr std::size_t kMost = 256;

  std::vector<StringTable> sets;  // by ordinal

  // The set, or null when the block has no such section.
  const StringTable* find(std::uint64_t label_set_id) const {
    return label_set_id < sets.size() ? &sets[label_set_id] : nullptr;
  }
};

struct MetricsBlockTables {
  LabelNameSets label_names;
  StringTable label_values;
  StringTable metric_names;
  Bytes metric_names_bytes;  // the table as it is written, to recognise it in the next block
  HistogramStore histograms;
  LabelMap constant_labels;
};

// The boost hash-combine of the names' boost string hashes, in order; 0 for an empty set.
std::uint64_t label_names_fingerprint(const StringTable& names);

// Empties these tables and reads label-name sets and label values; returns the position behind the last one,
// where metric names are searched from. Throws what read_string_table throws.
const std::byte* read_label_tables(Bytes block, MetricsBlockTables& tables);

// The same, and the metric names; returns the position behind these, where histograms are searched from.
const std::byte* read_name_tables(Bytes block, MetricsBlockTables& tables);

// Reads the constant labels, a table of names and values in turn, and returns the position behind them, as
// read_string_table does. A name without a value is ignored. Throws what read_string_table throws.
const std::byte* read_constant_labels(Bytes block, LabelMap& labels_out);

// What becomes of histogram records: kept in the tables, or only checked.
enum class HistogramUse { keep, check };

// All tables, in the order in which they are read: names, histograms, constant labels. A faulty histogram
// section is logged and costs the histograms from the fault on.
void read_block_tables(Bytes block, HistogramUse use, MetricsBlockTables& tables);

// Sets each name of the set to the value of the same place; the shorter list ends it.
void set_labels(const StringTable& names, const std::vector<std::string_view>& values, LabelMap& labels);

}  // namespace qvx::metrics
