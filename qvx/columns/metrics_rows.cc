#include "qvx/columns/metrics_rows.h"

#include <algorithm>
#include <stdexcept>

#include "qvx/metrics/labels_block.h"
#include "qvx/metrics/metrics_parser.h"
#include "qvx/metrics/wire.h"

namespace qvx::columns {

using namespace metrics;

void MetricsRows::open(Bytes block) {
  offset_ = section_.end = 0;  // nothing to go through if reading fails
  const std::uint32_t size = QvxMetricsParser::total_size(block.data(), block.data() + block.size());
  block = block.first(std::min<std::size_t>(size, block.size()));
  read_name_tables(block, tables_);
  const std::byte* const end = block.data() + block.size();
  const std::byte* const marker = wire::find_marker(block.data(), end, wire::kConstantLabelsMarker);
  tables_.constant_labels.clear();
  read_constant_labels(Bytes(marker, end), tables_.constant_labels);
  section_ = find_data_section(block, has_output_trailer);
  offset_ = kFirstRecordAt;
}

bool MetricsRows::next() {
  if (offset_ >= section_.end) return false;
  const std::byte* const record = section_.area + offset_;
  offset_ = section_.end;  // a fault ends the block
  header_ = read_record_header(record, section_.block_end);
  log_record_oddities(header_);
  if (!header_.is_counter_or_gauge()) throw std::runtime_error("invalid metric type");
  batch_.timestamp = header_.timestamp;
  batch_.samples = read_record_samples(record, section_.block_end, header_);
  const std::size_t length = read_record_labels(section_, record, header_, nullptr, batch_);
  if (!batch_.samples.ids_are_below(tables_.metric_names.size()))
    throw std::runtime_error("invalid metric id");
  labels_.clear();
  const StringTable* const names = tables_.label_names.find(batch_.label_set_id);
  has_labels_ = names != nullptr;
  if (has_labels_) {
    for (const auto& [name, value] : tables_.constant_labels)
      labels_.set(name, value);
    set_labels(*names, decode_label_values(batch_.label_values, tables_.label_values), labels_);
  }
  offset_ = static_cast<std::size_t>(record - section_.area) + length;
  return true;
}

}  // namespace qvx::columns
