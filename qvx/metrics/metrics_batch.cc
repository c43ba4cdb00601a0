#include "qvx/metrics/metrics_batch.h"

#include <algorithm>
#include <stdexcept>
#include <string>

#include "qvx/support/log.h"

namespace qvx::metrics {
namespace {

bool ends_with(Bytes block, std::string_view part_of_trailer) {
  return block.size() >= wire::kTrailer.size() &&
         as_text(block.last(wire::kTrailer.size())).starts_with(part_of_trailer);
}

std::string joined(const StringTable& texts) {
  std::string all;
  for (const std::string_view text : texts) {
    if (!all.empty()) all += ", ";
    all += text;
  }
  return all;
}

}  // namespace

bool MetricSamples::ids_are_below(std::size_t limit) const {
  if (limit == 0) return bytes_.empty();
  // Without a branch per sample: a difference has its highest bit set when the id is not below the limit.
  const auto last = static_cast<std::uint32_t>(std::min<std::size_t>(limit - 1, 0xFFFF));
  const auto beyond = [last](const std::byte* sample) {
    return last - load_le<std::uint16_t>(sample + wire::kSampleIdAt);
  };
  constexpr auto kStride = static_cast<std::ptrdiff_t>(wire::kSampleSize);
  const std::byte* sample = bytes_.data();
  const std::byte* const end = sample + bytes_.size();
  std::uint32_t any = 0;
  for (; end - sample >= 4 * kStride; sample += 4 * kStride)
    any |= beyond(sample) | beyond(sample + kStride) | beyond(sample + 2 * kStride) |
           beyond(sample + 3 * kStride);
  for (; sample != end; sample += kStride)
    any |= beyond(sample);
  return any >> 31 == 0;
}

bool has_full_trailer(Bytes block) {
  return ends_with(block, wire::kTrailer);
}

bool has_output_trailer(Bytes block) {
  return ends_with(block, wire::kTrailer.substr(0, 4));
}

MetricsDataSection data_section_at(const std::byte* marker, const std::byte* block_end) {
  // The marker's capital letters cannot be part of a trailer, so a section with its trailer has at least the
  // 12 bytes of both, and the four bytes behind the marker can be read.
  MetricsDataSection section;
  section.area = marker + wire::kDataAreaAt;
  section.end = static_cast<std::size_t>(block_end - section.area) - wire::kTrailer.size();
  section.block_end = block_end;
  section.blocksize = load_le<std::uint32_t>(section.area);
  return section;
}

MetricsDataSection find_data_section(Bytes block, bool (*has_trailer)(Bytes), std::size_t from) {
  const std::byte* const block_end = block.data() + block.size();
  const std::byte* const marker = wire::find_marker(block.data() + from, block_end, wire::kDataMarker);
  if (marker == block_end) {
    QVX_LOG(QVX_LOG_ERROR, "[qvx metrics parser] Invalid binary data format: Missing 'CNTD' magic number");
    throw std::runtime_error("Missing 'CNTD' magic number in the binary data");
  }
  const Bytes data(marker, block_end);
  QVX_LOG(QVX_LOG_DEBUG, "[qvx metrics parser] data_len = %lu", data.size());
  if (!has_trailer(data)) throw std::runtime_error("Invalid magic numbers in the binary data");
  const MetricsDataSection section = data_section_at(marker, block_end);
  QVX_LOG(QVX_LOG_DEBUG, "[qvx metrics parser] End of data at %lu", section.end);
  QVX_LOG(QVX_LOG_DEBUG, "[qvx metrics parser] blocksize= %u", section.blocksize);
  return section;
}

void fail_metric_id(std::size_t id, std::size_t names) {
  QVX_LOG(QVX_LOG_ERROR, "[qvx metrics parser] invalid metric id: %lu, total metric names size: %lu", id,
          names);
  throw std::runtime_error("invalid metric id");
}

void check_sample_ids(const MetricSamples& samples, std::size_t names) {
  if (samples.ids_are_below(names)) return;
  for (const MetricSample sample : samples) {
    if (sample.sample_id >= names) fail_metric_id(sample.sample_id, names);
  }
}

void fail_record_size() {
  throw std::runtime_error("Insufficient data for metrics samples");
}

std::size_t read_record_labels(const MetricsDataSection& section, const std::byte* record,
                               const MetricsRecordHeader& header, const char* caller, MetricsBatch& batch) {
  const Bytes reach = reach_of_record(section, record);
  return parse_labels_block(record, reach.data() + reach.size(), header.labels_at(), batch.label_set_id,
                            batch.label_values, caller);
}

void dump_metrics_batch(const MetricsBatch& batch, const StringTable& label_values) {
  QVX_LOG(QVX_LOG_DEBUG, "[qvx metrics parser] Metrics Batch:");
  QVX_LOG(QVX_LOG_DEBUG, "[qvx metrics parser] Timestamp: %lu", batch.timestamp);
  for (std::size_t i = 0; i < batch.samples.size(); ++i) {
    const MetricSample sample = batch.samples[i];
    QVX_LOG(QVX_LOG_DEBUG, "[qvx metrics parser]   sample_id: %lu, sample_value: %lu",
            std::uint64_t{sample.sample_id}, sample.sample_value);
  }
  for (std::size_t i = 0; i < batch.label_values.size(); ++i) {
    const EncodedLabelValue& value = batch.label_values[i];
    // Looked up without decode_label_value: whether a reference is at fault is for the one who needs its
    // text.
    std::string_view text = value.label_value;
    if (value.type == EncodedLabelValue::kReference && value.label_value_id < label_values.size())
      text = label_values[value.label_value_id];
    QVX_LOG(QVX_LOG_DEBUG, "[qvx metrics parser] encoded label: %s: %lu, decoded label[%lu]: %.*s",
            label_value_type_text(value.type), value.label_value_id, i, static_cast<int>(text.size()),
            text.data());
  }
}

void dump_label_tables(const MetricsBlockTables& tables) {
  if (!QVX_LOG_IS_ENABLED(QVX_LOG_DEBUG)) return;
  for (std::size_t i = 0; i < tables.label_names.sets.size(); ++i) {
    const StringTable& names = tables.label_names.sets[i];
    if (names.empty()) {
      QVX_LOG(QVX_LOG_DEBUG, "[qvx metrics parser] empty label names vector");
    } else {
      QVX_LOG(QVX_LOG_DEBUG, "[qvx metrics parser] Label Names [%lu] %s", i, joined(names).c_str());
    }
  }
  QVX_LOG(QVX_LOG_DEBUG, "[qvx metrics parser] Values: '%s', Size: %lu", joined(tables.label_values).c_str(),
          tables.label_values.size());
}

}  // namespace qvx::metrics
