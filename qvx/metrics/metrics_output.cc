#include "qvx/metrics/metrics_output.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "qvx/metrics/block_tables.h"
#include "qvx/metrics/metrics_batch.h"
#include "qvx/metrics/metrics_parser.h"
#include "qvx/metrics/metrics_text.h"
#include "qvx/support/clock.h"
#include "qvx/support/json_text.h"
#include "qvx/support/log.h"
#include "qvx/support/number.h"

namespace qvx::metrics {
namespace {

// The record of a block, as far as its batches have been gone through. Members keep the place at which they
// were set first.
class Record {
 public:
  enum Member : std::uint8_t { kTimestamp, kTimeText, kLabels, kMetrics };
  static constexpr std::size_t kMembers = 4;

  void clear() { size_ = 0; }
  void set(Member member) {
    if (std::find(begin(), end(), member) == end()) members_[size_++] = member;
  }
  const Member* begin() const { return members_.data(); }
  const Member* end() const { return members_.data() + size_; }

  std::uint64_t timestamp = 0;
  std::array<char, LocalTimeText::kRoom> time_text{};
  std::size_t time_text_size = 0;
  const StringTable* label_names = nullptr;
  std::vector<std::string_view> label_values;
  MetricSamples samples;

 private:
  std::array<Member, kMembers> members_{};
  std::size_t size_ = 0;
};

bool is_utf8_value(std::string_view value) {
  return json::is_valid_utf8(up_to_nul(value));
}

void write_quoted(std::string_view text, OutputSink& sink) {
  char* out = sink.reserve(json::escaped_room(text.size()) + 2);
  *out++ = '"';
  out = json::write_escaped(out, text);
  *out++ = '"';
  sink.commit(out);
}

}  // namespace

class MetricsWriter::Impl {
 public:
  void output_block(MetricsRecordTarget& target, Bytes block) {
    try {
      decode(block);
      write(target);
    } catch (const std::exception& fault) {
      QVX_LOG(QVX_LOG_ERROR, "failed to parse full block: %s", fault.what());
    }
  }

 private:
  void decode(Bytes block);
  void write(MetricsRecordTarget& target);

  void check_records();
  bool build_record();
  bool add_batch();
  bool labels_can_be_made();
  void check_sample_ids() const;
  void write_record(OutputSink& sink);
  void write_member(Record::Member member, OutputSink& sink);
  void write_labels(OutputSink& sink);

  // The block that is being written.
  MetricsBlockTables tables_;
  MetricsDataSection section_;
  std::vector<std::string_view> constants_without_utf8_;
  MetricsBatch batch_;
  Record record_;
  LabelMap labels_;

  const RecordSpelling* spelling_ = nullptr;

  // Kept from block to block.
  LocalTimeText time_text_;
  MetricNameTexts name_texts_;
};

void MetricsWriter::Impl::decode(Bytes block) {
  const std::uint32_t size = QvxMetricsParser::total_size(block.data(), block.data() + block.size());
  block = block.first(std::min<std::size_t>(size, block.size()));
  read_name_tables(block, tables_);
  dump_label_tables(tables_);
  section_ = find_data_section(block, has_output_trailer);
  check_records();
  read_constant_labels(block, tables_.constant_labels);
}

// Goes through all records before the first text is made: a fault in any of them costs the block.
void MetricsWriter::Impl::check_records() {
  std::size_t offset = kFirstRecordAt;
  while (offset < section_.end) {
    QVX_LOG(QVX_LOG_DEBUG, "[qvx metrics parser] offset=%lu end=%lu", offset, section_.end);
    const std::byte* const record = section_.area + offset;
    const MetricsRecordHeader header = read_record_header(record, section_.block_end);
    log_record_oddities(header);
    if (!header.is_counter_or_gauge()) {
      QVX_LOG(QVX_LOG_ERROR, "[qvx metrics parser] invalid metric type");
      throw std::runtime_error("invalid metric type");
    }
    batch_.timestamp = header.timestamp;
    batch_.samples = read_record_samples(record, section_.block_end, header);
    offset += read_record_labels(section_, record, header, "QvxMetricsParser::parse_metrics", batch_);
    dump_metrics_batch(batch_, tables_.label_values);
  }
}

void MetricsWriter::Impl::write(MetricsRecordTarget& target) {
  json::Style style = json::Style::compact;
  switch (target.format()) {
    case MetricsRecordTarget::Format::json:
      style = json::Style::pretty;
      break;
    case MetricsRecordTarget::Format::ndjson:
      break;
    case MetricsRecordTarget::Format::csv:
      return target.file_error("CSV output is not supported yet");
    case MetricsRecordTarget::Format::influx:
      return target.file_error("Influx line API output is not yet supported for metrics data");
    default:
      return target.file_error("Unsupported output format");
  }
  if (!build_record()) return target.file_error("Failed to JSONify metric values");
  // Whatever can fail comes before the first byte of the record.
  try {
    labels_ = tables_.constant_labels;
    if (record_.label_names != nullptr) set_labels(*record_.label_names, record_.label_values, labels_);
    name_texts_.use_table(tables_.metric_names_bytes, tables_.metric_names, style);
    name_texts_.prepare(record_.samples);
  } catch (const std::bad_alloc&) {
    QVX_LOG(QVX_LOG_WARNING, "Failed to serialize json.");
    return;
  }
  spelling_ = &record_spelling(style);
  write_record(target.begin_record());
  target.end_record();
}

// Goes through the records again, now with what a record needs of them: each batch is checked like the last
// one, though only the last one's members stay. The memory needed does not grow with the number of batches.
bool MetricsWriter::Impl::build_record() {
  record_.clear();
  record_.label_names = nullptr;
  record_.samples = {};
  constants_without_utf8_.clear();
  for (const auto& [name, value] : tables_.constant_labels) {
    if (!is_utf8_value(value)) constants_without_utf8_.push_back(name);
  }
  try {
    std::size_t offset = kFirstRecordAt;
    while (offset < section_.end) {
      const std::byte* const record = section_.area + offset;
      const MetricsRecordHeader header = read_record_header(record, section_.block_end);
      batch_.timestamp = header.timestamp;
      batch_.samples = read_record_samples(record, section_.block_end, header);
      offset += read_record_labels(section_, record, header, nullptr, batch_);
      if (!add_batch()) {
        QVX_LOG(QVX_LOG_ERROR, "Failed allocating JSON object");
        return false;
      }
    }
  } catch (const std::exception& fault) {
    QVX_LOG(QVX_LOG_ERROR, "failed to JSONify metrics: %s", fault.what());
    return false;
  }
  return true;
}

// False when a label value is no string that JSON can hold.
bool MetricsWriter::Impl::add_batch() {
  record_.timestamp = batch_.timestamp;
  record_.set(Record::kTimestamp);
  std::array<char, LocalTimeText::kRoom> text;
  if (const std::size_t size = time_text_.write(text.data(), batch_.timestamp); size != 0) {
    record_.time_text = text;
    record_.time_text_size = size;
    record_.set(Record::kTimeText);
  }
  if (const StringTable* const names = tables_.label_names.find(batch_.label_set_id)) {
    record_.label_values = decode_label_values(batch_.label_values, tables_.label_values);
    record_.label_names = names;
    if (!labels_can_be_made()) return false;
    record_.set(Record::kLabels);
  }
  check_sample_ids();
  record_.samples = batch_.samples;
  record_.set(Record::kMetrics);
  return true;
}

// Whether the batch's labels, set over the constant ones, are all valid UTF-8.
bool MetricsWriter::Impl::labels_can_be_made() {
  labels_.clear();
  set_labels(*record_.label_names, record_.label_values, labels_);
  return std::all_of(labels_.begin(), labels_.end(),
                     [](const LabelMap::Entry& label) { return is_utf8_value(label.second); }) &&
         constants_without_utf8_.size() <= labels_.size() &&
         std::all_of(constants_without_utf8_.begin(), constants_without_utf8_.end(),
                     [this](std::string_view name) { return labels_.contains(name); });
}

void MetricsWriter::Impl::check_sample_ids() const {
  const std::size_t names = tables_.metric_names.size();
  for (std::size_t i = 0; i < batch_.samples.size(); ++i) {
    const std::size_t id = batch_.samples[i].sample_id;
    if (id < names) continue;
    QVX_LOG(QVX_LOG_ERROR, "[qvx metrics parser] invalid metric id: %lu, total metric names size: %lu", id,
            names);
    throw std::runtime_error("invalid metric id");
  }
}

void MetricsWriter::Impl::write_record(OutputSink& sink) {
  if (record_.begin() == record_.end()) return sink.write("{}");
  sink.write(spelling_->record_open);
  for (const Record::Member& member : record_) {
    if (&member != record_.begin()) sink.write(spelling_->member_separator);
    write_member(member, sink);
  }
  sink.write(spelling_->record_close);
}

void MetricsWriter::Impl::write_member(Record::Member member, OutputSink& sink) {
  constexpr std::array<std::string_view, Record::kMembers> kKeys{"\"timestamp\"", "\"@timestamp\"",
                                                                 "\"labels\"", "\"metrics\""};
  sink.write(kKeys[member]);
  sink.write(spelling_->colon);
  switch (member) {
    case Record::kTimestamp:
      return sink.commit(write_json_number(sink.reserve(kNumberRoom), record_.timestamp));
    case Record::kTimeText:
      return write_quoted({record_.time_text.data(), record_.time_text_size}, sink);
    case Record::kLabels:
      return write_labels(sink);
    case Record::kMetrics:
      if (record_.samples.size() == 0) return sink.write("[]");
      sink.write("[");
      name_texts_.write_samples(record_.samples, sink);
      return sink.write(spelling_->array_close);
  }
}

void MetricsWriter::Impl::write_labels(OutputSink& sink) {
  if (labels_.empty()) return sink.write("[]");
  std::string_view separator = "[";
  for (const auto& [name, value] : labels_) {
    sink.write(separator);
    sink.write(spelling_->element_open);
    write_quoted(up_to_nul(name), sink);
    sink.write(spelling_->colon);
    write_quoted(up_to_nul(value), sink);
    sink.write(spelling_->element_close);
    separator = ",";
  }
  sink.write(spelling_->array_close);
}

MetricsWriter::MetricsWriter() : impl_(std::make_unique<Impl>()) {}

MetricsWriter::~MetricsWriter() = default;

void MetricsWriter::output_metrics_block(MetricsRecordTarget& target, Bytes block) {
  impl_->output_block(target, block);
}

void output_metrics_block(MetricsRecordTarget& target, Bytes block) {
  try {
    MetricsWriter().output_metrics_block(target, block);
  } catch (const std::bad_alloc& fault) {
    QVX_LOG(QVX_LOG_ERROR, "failed to parse full block: %s", fault.what());
  }
}

}  // namespace qvx::metrics
