#include "qvx/metrics/kept_tables.h"

#include <algorithm>

#include "qvx/metrics/wire.h"

namespace qvx::metrics {
namespace {

// Bytes of a marker that may stand at the end of the tables when it ends behind them.
constexpr std::size_t kSplitMarker = wire::kMarkerSize - 1;

// Whether one of the markers searched for may begin in the block's size field: all begin with one of these.
bool size_may_open_section(std::string_view block) {
  const std::string_view size = block.substr(wire::kTotalSizeAt, wire::kBlockHeaderSize - wire::kTotalSizeAt);
  return size.find('C') != size.npos || size.find('L') != size.npos;
}

}  // namespace

void KeptTables::read_names(Bytes block) {
  if (repeats_names(block) && find_sections_behind(block)) return;
  ++version_;
  region_.clear();
  data_marker_from_ = 0;
  constants_from_ = 0;
  const std::byte* const tables_end = read_name_tables(block, tables_);
  const auto size = static_cast<std::size_t>(tables_end - block.data());
  // A block without a table of metric names is read to its end.
  if (size < block.size() && size <= kMostKept && as_text(block).starts_with(wire::kBlockMarker))
    keep_names(block.first(size));
}

// The size field may differ, as that of blocks with more or fewer samples does, but markers are searched in
// it as well, so only where none can begin in it.
bool KeptTables::repeats_names(Bytes block) const {
  const std::string_view kept = region_;
  if (kept.empty() || block.size() < kept.size()) return false;
  const std::string_view text = as_text(block).substr(0, kept.size());
  if (text.substr(wire::kBlockHeaderSize) != kept.substr(wire::kBlockHeaderSize)) return false;
  static_assert(wire::kBlockHeaderSize == sizeof(std::uint64_t));
  if (load_le<std::uint64_t>(text.data()) == load_le<std::uint64_t>(kept.data())) return true;
  return text.starts_with(wire::kBlockMarker) && !size_may_open_section(text) && !size_may_open_section(kept);
}

// Walks once over what follows the repeated tables. False when it has a further label-name section, with
// which the tables would be others.
bool KeptTables::find_sections_behind(Bytes block) {
  const std::string_view text = as_text(block);
  const std::size_t behind = region_.size();
  // No data marker overlaps another one.
  data_marker_from_ = data_marker_in_region_ != kNone                      ? data_marker_in_region_
                      : text.substr(behind).starts_with(wire::kDataMarker) ? behind
                                                                           : behind - kSplitMarker;
  constants_from_ = constants_in_region_;
  // "LBLN" and "CLBL" have their one B in common, a letter that blocks have seldom.
  for (std::size_t at = behind - kSplitMarker + 1; (at = text.find('B', at)) != text.npos; ++at) {
    if (text[at - 1] != 'L') continue;
    if (text.substr(at - 1).starts_with(wire::kLabelNamesMarker)) return false;
    if (constants_from_ == kNone && text.substr(at - 2).starts_with(wire::kConstantLabelsMarker))
      constants_from_ = at - 2;
  }
  return true;
}

void KeptTables::keep_names(Bytes region) {
  region_ = as_text(region);
  const auto move = [&](std::string_view& text) {
    text = std::string_view(region_).substr(static_cast<std::size_t>(text.data() - as_text(region).data()),
                                            text.size());
  };
  for (StringTable& names : tables_.label_names.sets)
    std::for_each(names.begin(), names.end(), move);
  std::for_each(tables_.label_values.begin(), tables_.label_values.end(), move);
  std::for_each(tables_.metric_names.begin(), tables_.metric_names.end(), move);
  std::string_view names_bytes = as_text(tables_.metric_names_bytes);
  if (!names_bytes.empty()) move(names_bytes);
  tables_.metric_names_bytes = as_bytes(names_bytes);
  data_marker_in_region_ = region_.find(wire::kDataMarker);
  constants_in_region_ = region_.find(wire::kConstantLabelsMarker);
}

void KeptTables::read_constants(Bytes block) {
  const std::byte* const end = block.data() + block.size();
  const std::byte* marker = end;
  if (constants_from_ != kNone)
    marker = wire::find_marker(block.data() + constants_from_, end, wire::kConstantLabelsMarker);
  const Bytes rest(marker, end);
  if (constants_are_kept_ &&
      (constants_.empty() ? rest.empty() : as_text(rest).starts_with(std::string_view(constants_))))
    return;
  ++version_;
  constants_are_kept_ = false;
  const std::byte* const table_end = read_constant_labels(rest, tables_.constant_labels);
  const auto size = static_cast<std::size_t>(table_end - marker);
  if (size > kMostKept) return;
  constants_ = as_text(rest.first(size));
  read_constant_labels(as_bytes(constants_), tables_.constant_labels);
  constants_are_kept_ = true;
}

}  // namespace qvx::metrics
