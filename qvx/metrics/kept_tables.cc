#include "qvx/metrics/kept_tables.h"

#include "qvx/metrics/metrics_text.h"
#include "qvx/metrics/wire.h"
#include "qvx/support/json_text.h"
#include "qvx/support/log.h"

namespace qvx::metrics {
namespace {

// Sections are searched for in the whole block, also in its size and its records. These must hold none that
// would give other tables: no marker fits into or across a size whose highest byte is 0, and behind the kept
// tables only label names and constant labels are searched for.
bool has_size_without_marker(std::string_view block) {
  const std::string_view header = block.substr(0, wire::kBlockHeaderSize);  // which ends with the size
  return header.starts_with(wire::kBlockMarker) && header.ends_with('\0');
}

bool has_label_section_behind(std::string_view block, std::size_t prefix) {
  constexpr std::string_view kInBothMarkers = "LBL";
  static_assert(wire::kLabelNamesMarker.starts_with(kInBothMarkers) &&
                wire::kConstantLabelsMarker.ends_with(kInBothMarkers));
  // Either marker may begin in the last bytes before the records.
  return block.substr(prefix - (kInBothMarkers.size() - 1)).find(kInBothMarkers) != block.npos;
}

}  // namespace

bool KeptTables::repeat_in(Bytes block, MetricsDataSection& section) {
  const std::string_view kept = kept_;
  const std::string_view text = as_text(block);
  is_repeated_ = !kept.empty() && text.size() >= kept.size() + wire::kTrailer.size() &&
                 text.substr(wire::kBlockHeaderSize, kept.size() - wire::kBlockHeaderSize) ==
                     kept.substr(wire::kBlockHeaderSize) &&
                 has_size_without_marker(text) && has_output_trailer(block) &&
                 !has_label_section_behind(text, kept.size()) && !QVX_LOG_IS_ENABLED(QVX_LOG_DEBUG);
  if (is_repeated_)
    section =
        data_section_at(block.data() + kept.size() - wire::kDataHeaderSize, block.data() + block.size());
  return is_repeated_;
}

const std::byte* KeptTables::read_labels(Bytes block) {
  kept_.clear();
  tables_are_of_kept_ = false;
  return read_label_tables(block, tables_);
}

void KeptTables::read_constants(Bytes block) {
  const std::byte* const end = block.data() + block.size();
  const std::byte* const marker = wire::find_marker(block.data(), end, wire::kConstantLabelsMarker);
  const std::byte* const table_end = read_constant_labels(Bytes(marker, end), tables_.constant_labels);
  constants_end_ = marker == end ? nullptr : table_end;
  constants_without_utf8_.clear();
  for (const auto& [name, value] : tables_.constant_labels) {
    if (!json::is_valid_utf8(up_to_nul(value))) constants_without_utf8_.push_back(name);
  }
}

void KeptTables::keep(Bytes block, const std::byte* names_end, const MetricsDataSection& section) {
  const std::byte* const first_record = section.area + kFirstRecordAt;
  const Bytes prefix(block.data(), first_record);
  if (prefix.size() <= kMostKept && names_end <= first_record &&
      (constants_end_ == nullptr || constants_end_ <= first_record) &&
      has_size_without_marker(as_text(block)))
    kept_ = as_text(prefix);
}

const MetricsBlockTables& KeptTables::tables() {
  if (is_repeated_ && !tables_are_of_kept_) read_kept();
  return tables_;
}

const std::vector<std::string_view>& KeptTables::constants_without_utf8() {
  static_cast<void>(tables());  // has them read
  return constants_without_utf8_;
}

// Only now, as tables that are seen once or whose texts suffice need not be read again.
void KeptTables::read_kept() {
  const Bytes kept = as_bytes(kept_);
  read_label_tables(kept, tables_);
  read_constants(kept);
  tables_are_of_kept_ = true;
}

}  // namespace qvx::metrics
