#include "qvx/metrics/metrics_output.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "qvx/metrics/block_tables.h"
#include "qvx/metrics/kept_tables.h"
#include "qvx/metrics/labels_text.h"
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

  void clear() {
    size_ = 0;
    labels_repeat = false;
    samples = {};
  }
  void set(Member member) {
    if (!has(member)) members_[size_++] = member;
  }
  bool has(Member member) const { return std::find(begin(), end(), member) != end(); }
  const Member* begin() const { return members_.data(); }
  const Member* end() const { return members_.data() + size_; }

  std::uint64_t timestamp = 0;
  std::array<char, LocalTimeText::kRoom> time_text{};
  std::size_t time_text_size = 0;
  // The labels: those that the text at hand was made of, or the constant ones and these.
  bool labels_repeat = false;
  LabelMap own_labels;
  Bytes label_bytes;
  MetricSamples samples;

 private:
  std::array<Member, kMembers> members_{};
  std::size_t size_ = 0;
};

bool is_utf8_value(std::string_view value) {
  return json::is_valid_utf8(up_to_nul(value));
}

// None for a format that metrics are not written in.
std::optional<json::Style> style_of(MetricsRecordTarget::Format format) {
  switch (format) {
    case MetricsRecordTarget::Format::json:
      return json::Style::pretty;
    case MetricsRecordTarget::Format::ndjson:
      return json::Style::compact;
    case MetricsRecordTarget::Format::csv:
    case MetricsRecordTarget::Format::influx:
    case MetricsRecordTarget::Format::other:
      return std::nullopt;
  }
  return std::nullopt;
}

}  // namespace

class MetricsWriter::Impl {
 public:
  bool output_block(MetricsRecordTarget& target, Bytes block) {
    memory_is_short_ = false;
    try {
      if (const std::optional<json::Style> style = style_of(target.format())) use_style(*style);
      decode(block);
      write(target);
    } catch (const std::exception& fault) {
      QVX_LOG(QVX_LOG_ERROR, "failed to parse full block: %s", fault.what());
      note(fault);
    }
    return !memory_is_short_;
  }

 private:
  void use_style(json::Style style);
  void decode(Bytes block);
  void write(MetricsRecordTarget& target);
  void note(const std::exception& fault) {
    if (dynamic_cast<const std::bad_alloc*>(&fault) != nullptr) memory_is_short_ = true;
  }

  void check_records();
  std::size_t read_labels(const std::byte* record, const MetricsRecordHeader& header, const char* caller);
  bool build_record();
  bool add_batch();
  bool add_labels(const StringTable& names);
  void make_labels_text();
  void write_record(OutputSink& sink);
  void write_member(Record::Member member, OutputSink& sink);

  // Of the block at hand.
  MetricsDataSection section_;
  std::size_t records_ = 0;
  MetricsBatch batch_;
  Bytes batch_labels_;                // the labels block of the batch
  bool batch_labels_repeat_ = false;  // it is the one of labels_text_, and was not parsed
  Record record_;
  bool memory_is_short_ = false;

  // Kept from block to block.
  KeptTables tables_;
  LabelsText labels_text_;  // made with these tables and in this style
  json::Style style_ = json::Style::compact;
  MetricNameTexts name_texts_;
  LocalTimeText time_text_;
};

void MetricsWriter::Impl::use_style(json::Style style) {
  if (style != style_) labels_text_.forget();
  style_ = style;
}

void MetricsWriter::Impl::decode(Bytes block) {
  const std::uint32_t size = QvxMetricsParser::total_size(block.data(), block.data() + block.size());
  block = block.first(std::min<std::size_t>(size, block.size()));
  if (tables_.repeat_in(block, section_)) return check_records();
  labels_text_.forget();
  const std::byte* const labels_end = tables_.read_labels(block);
  const std::byte* const names_end = name_texts_.read_table(labels_end, block.data() + block.size());
  dump_label_tables(tables_.tables());
  section_ = find_data_section(block, has_output_trailer);
  check_records();
  tables_.read_constants(block);
  tables_.keep(block, names_end, section_);
}

// Goes through all records before the first text is made: a fault in any of them costs the block.
void MetricsWriter::Impl::check_records() {
  records_ = 0;
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
    offset += read_labels(record, header, "QvxMetricsParser::parse_metrics");
    // Tables that repeat are not read for want of a dump.
    if (QVX_LOG_IS_ENABLED(QVX_LOG_DEBUG)) dump_metrics_batch(batch_, tables_.tables().label_values);
    ++records_;
  }
}

// Parses the labels of a record, unless they repeat those whose text is at hand, and returns the record's
// length.
std::size_t MetricsWriter::Impl::read_labels(const std::byte* record, const MetricsRecordHeader& header,
                                             const char* caller) {
  const std::size_t labels_at = header.labels_at();
  const Bytes reach = reach_of_record(section_, record);
  batch_labels_repeat_ = false;
  if (labels_at < reach.size()) {
    const Bytes labels = reach.subspan(labels_at);
    if (const std::size_t size = labels_text_.size_of_same(labels); size != 0) {
      batch_labels_repeat_ = true;
      batch_labels_ = labels.first(size);
      return labels_at + size;
    }
  }
  const std::size_t length = read_record_labels(section_, record, header, caller, batch_);
  batch_labels_ = Bytes(record + labels_at, length - labels_at);
  return length;
}

void MetricsWriter::Impl::write(MetricsRecordTarget& target) {
  switch (target.format()) {
    case MetricsRecordTarget::Format::json:
    case MetricsRecordTarget::Format::ndjson:
      break;
    case MetricsRecordTarget::Format::csv:
      return target.file_error("CSV output is not supported yet");
    case MetricsRecordTarget::Format::influx:
      return target.file_error("Influx line API output is not yet supported for metrics data");
    case MetricsRecordTarget::Format::other:
      return target.file_error("Unsupported output format");
  }
  if (!build_record()) return target.file_error("Failed to JSONify metric values");
  // Whatever can fail comes before the first byte of the record.
  try {
    if (!record_.labels_repeat && record_.has(Record::kLabels)) make_labels_text();
    name_texts_.use_style(style_);
  } catch (const std::bad_alloc&) {
    QVX_LOG(QVX_LOG_WARNING, "Failed to serialize json.");
    memory_is_short_ = true;
    return;
  }
  write_record(target.begin_record());
  target.end_record();
}

// Goes through the records again, now with what a record needs of them: each batch is checked like the last
// one, though only the last one's members stay. The memory needed does not grow with the number of batches.
bool MetricsWriter::Impl::build_record() {
  record_.clear();
  try {
    bool can_be_made = true;
    if (records_ == 1) {  // and still at hand
      can_be_made = add_batch();
    } else {
      for (std::size_t offset = kFirstRecordAt; can_be_made && offset < section_.end;) {
        const std::byte* const record = section_.area + offset;
        const MetricsRecordHeader header = read_record_header(record, section_.block_end);
        batch_.timestamp = header.timestamp;
        batch_.samples = read_record_samples(record, section_.block_end, header);
        offset += read_labels(record, header, nullptr);
        can_be_made = add_batch();
      }
    }
    if (!can_be_made) QVX_LOG(QVX_LOG_ERROR, "Failed allocating JSON object");
    return can_be_made;
  } catch (const std::exception& fault) {
    QVX_LOG(QVX_LOG_ERROR, "failed to JSONify metrics: %s", fault.what());
    note(fault);
    return false;
  }
}

// False when a label value is no string that JSON can hold.
bool MetricsWriter::Impl::add_batch() {
  record_.timestamp = batch_.timestamp;
  record_.set(Record::kTimestamp);
  // A time that has no text leaves the one before.
  if (const std::size_t size = time_text_.write(record_.time_text.data(), batch_.timestamp); size != 0) {
    record_.time_text_size = size;
    record_.set(Record::kTimeText);
  }
  if (batch_labels_repeat_) {
    record_.labels_repeat = true;
    record_.set(Record::kLabels);
  } else if (const StringTable* const names = tables_.tables().label_names.find(batch_.label_set_id)) {
    if (!add_labels(*names)) return false;
    record_.set(Record::kLabels);
  }
  check_sample_ids(batch_.samples, name_texts_.size());
  record_.samples = batch_.samples;
  record_.set(Record::kMetrics);
  return true;
}

// False when one of the batch's labels, set over the constant ones, is not valid UTF-8.
bool MetricsWriter::Impl::add_labels(const StringTable& names) {
  LabelMap& labels = record_.own_labels;
  labels.clear();
  set_labels(names, decode_label_values(batch_.label_values, tables_.tables().label_values), labels);
  record_.labels_repeat = false;
  record_.label_bytes = batch_labels_;
  const std::vector<std::string_view>& faulty_constants = tables_.constants_without_utf8();
  return std::all_of(labels.begin(), labels.end(),
                     [](const LabelMap::Entry& label) { return is_utf8_value(label.second); }) &&
         faulty_constants.size() <= labels.size() &&
         std::all_of(faulty_constants.begin(), faulty_constants.end(),
                     [&labels](std::string_view name) { return labels.contains(name); });
}

void MetricsWriter::Impl::make_labels_text() {
  const RecordLabels labels{tables_.tables().constant_labels, record_.own_labels};
  record_.labels_repeat = labels_text_.make(labels, record_.label_bytes, style_);
}

void MetricsWriter::Impl::write_record(OutputSink& sink) {
  if (record_.begin() == record_.end()) return sink.write("{}");
  for (const Record::Member& member : record_)
    write_member(member, sink);
  sink.commit(put(sink.reserve(ShortText::kRoom), record_spelling(style_).record_close));
}

void MetricsWriter::Impl::write_member(Record::Member member, OutputSink& sink) {
  const RecordSpelling& spelling = record_spelling(style_);
  switch (member) {
    case Record::kTimestamp: {
      char* const out = put(sink.reserve(ShortText::kRoom + kNumberRoom), spelling.timestamp);
      return sink.commit(write_json_number(out, record_.timestamp));
    }
    case Record::kTimeText: {
      char* out = put(sink.reserve(ShortText::kRoom + LocalTimeText::kRoom + 1), spelling.time_text);
      std::memcpy(out, record_.time_text.data(), record_.time_text.size());
      out += record_.time_text_size;
      *out++ = '"';
      return sink.commit(out);
    }
    case Record::kLabels:
      if (record_.labels_repeat) return sink.write(labels_text_.text());
      return write_labels({tables_.tables().constant_labels, record_.own_labels}, style_, sink);
    case Record::kMetrics:
      return name_texts_.write_metrics(record_.samples, sink);
  }
}

MetricsWriter::MetricsWriter() : impl_(std::make_unique<Impl>()) {}

MetricsWriter::~MetricsWriter() = default;

bool MetricsWriter::output_metrics_block(MetricsRecordTarget& target, Bytes block) {
  return impl_->output_block(target, block);
}

bool output_metrics_block(MetricsRecordTarget& target, Bytes block) {
  try {
    return MetricsWriter().output_metrics_block(target, block);
  } catch (const std::bad_alloc& fault) {
    QVX_LOG(QVX_LOG_ERROR, "failed to parse full block: %s", fault.what());
    return false;
  }
}

}  // namespace qvx::metrics
