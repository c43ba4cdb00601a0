#include "qvx/scan/sample_reader.h"

#include <algorithm>
#include <stdexcept>

#include "qvx/metrics/metrics_parser.h"
#include "qvx/metrics/metrics_text.h"
#include "qvx/metrics/string_table.h"
#include "qvx/metrics/wire.h"
#include "qvx/support/log.h"

namespace qvx {

using metrics::up_to_nul;

void SampleReader::open(Bytes block) {
  offset_ = 0;
  section_ = {};
  tables_repeat_ = false;
  const std::uint32_t size = metrics::QvxMetricsParser::total_size(block.data(), block.data() + block.size());
  block = block.first(std::min<std::size_t>(size, block.size()));
  tables_repeat_ = tables_.repeat_in(block, section_);
  if (!tables_repeat_) {
    labels_made_of_.clear();
    const std::byte* const names_end = read_names(tables_.read_labels(block), block.data() + block.size());
    section_ = metrics::find_data_section(block, metrics::has_output_trailer);
    tables_.read_constants(block);
    tables_.keep(block, names_end, section_);
  }
  offset_ = metrics::kFirstRecordAt;
}

// Into a copy: the block's bytes will be gone when the next one repeats the table.
const std::byte* SampleReader::read_names(const std::byte* from, const std::byte* end) {
  names_.clear();
  from = metrics::wire::find_marker(from, end, metrics::wire::kMetricNamesMarker);
  const std::byte* const table_end = metrics::read_string_table(from, end, metrics::wire::kMetricNamesMarker,
                                                                metrics::wire::kMetricNamesEnd, names_);
  const std::string_view table = as_text({from, table_end});
  names_text_ = table;
  for (std::string_view& name : names_)
    name = up_to_nul({names_text_.data() + (name.data() - table.data()), name.size()});
  return table_end;
}

bool SampleReader::next() {
  if (offset_ >= section_.end) return false;
  const std::byte* const record = section_.area + offset_;
  offset_ = section_.end;  // unless nothing is wrong with the record
  const metrics::MetricsRecordHeader header = metrics::read_record_header(record, section_.block_end);
  metrics::log_record_oddities(header);
  if (!header.is_counter_or_gauge()) throw std::runtime_error("invalid metric type");
  decoded_.timestamp = header.timestamp;
  decoded_.samples = metrics::read_record_samples(record, section_.block_end, header);
  const std::size_t length = read_labels(record, header);
  value_type_ = header.value_type;
  batch_.kind = header.kind;
  batch_.metric_names = &names_;
  check_sample_ids();
  offset_ = static_cast<std::size_t>(record - section_.area) + length;
  return true;
}

// Reads the labels of a record, unless they repeat those at hand, and returns the record's length.
std::size_t SampleReader::read_labels(const std::byte* record, const metrics::MetricsRecordHeader& header) {
  const std::size_t labels_at = header.labels_at();
  const Bytes reach = metrics::reach_of_record(section_, record);
  if (!labels_made_of_.empty() && labels_at < reach.size() &&
      as_text(reach.subspan(labels_at)).starts_with(labels_made_of_))
    return labels_at + labels_made_of_.size();
  labels_made_of_.clear();
  const std::size_t length = metrics::read_record_labels(section_, record, header, nullptr, decoded_);
  make_labels();
  keep_labels({record + labels_at, record + length});
  return length;
}

// The labels stay as long as the tables do, unless texts of them stand in the block itself.
void SampleReader::keep_labels(Bytes made_of) {
  const bool stay = tables_repeat_ && std::all_of(decoded_.label_values.begin(), decoded_.label_values.end(),
                                                  [](const metrics::EncodedLabelValue& value) {
                                                    return value.type == value.kReference;
                                                  });
  if (stay) labels_made_of_ = as_text(made_of);
}

// The constant labels, with the values that the batch's own give to their names, then its other ones. A batch
// whose set of names the block does not have has none.
void SampleReader::make_labels() {
  batch_.labels.clear();
  const metrics::MetricsBlockTables& tables = tables_.tables();
  const metrics::StringTable* const names = tables.label_names.find(decoded_.label_set_id);
  has_labels_ = names != nullptr;
  if (!has_labels_) return;
  own_labels_.clear();
  metrics::set_labels(*names, metrics::decode_label_values(decoded_.label_values, tables.label_values),
                      own_labels_);
  for (const auto& [name, value] : tables.constant_labels) {
    const std::string_view* const own = own_labels_.find(name);
    batch_.labels.push_back({up_to_nul(name), up_to_nul(own != nullptr ? *own : value)});
  }
  for (const auto& [name, value] : own_labels_)
    if (!tables.constant_labels.contains(name)) batch_.labels.push_back({up_to_nul(name), up_to_nul(value)});
}

void SampleReader::check_sample_ids() const {
  if (decoded_.samples.ids_are_below(names_.size())) return;
  if (unknown_ == UnknownMetrics::fault) throw std::runtime_error("invalid metric id");
  for (const metrics::MetricSample sample : decoded_.samples) {
    if (sample.sample_id < names_.size()) continue;
    QVX_LOG(QVX_LOG_ERROR, "[qvx metrics parser] invalid metric id: %u, total metric names size: %zu",
            unsigned{sample.sample_id}, names_.size());
    return;
  }
}

}  // namespace qvx
