#include "qvx/metrics/metrics_parser.h"

#include <algorithm>
#include <bit>
#include <stdexcept>

#include "qvx/metrics/block_tables.h"
#include "qvx/metrics/metrics_batch.h"
#include "qvx/metrics/wire.h"
#include "qvx/support/log.h"

namespace qvx::metrics {
namespace {

// Stores the samples of one batch after the other.
class BatchStorer {
 public:
  BatchStorer(const MetricsBlockTables& tables, const MetricFilter* filter, MetricsStore& store)
      : names_(tables.metric_names),
        filter_(filter),
        store_(store),
        metrics_(store.resolved_metrics(tables.metric_names_bytes, tables.metric_names.size())) {}

  // Into the series of that label set, or of all.
  void store_batch(const MetricsRecordHeader& header, const MetricsBatch& batch, std::uint64_t label_set_id) {
    label_set_id_ = label_set_id;
    switch (static_cast<MetricValueType>(header.value_type)) {
      case MetricValueType::floating:
        return store_samples<double>(header, batch);
      case MetricValueType::bit64:
        return store_samples<Bit64>(header, batch);
      case MetricValueType::int64:
        return store_samples<std::int64_t>(header, batch);
      default:
        return store_samples<std::uint64_t>(header, batch);
    }
  }

 private:
  template <typename T>
  void store_samples(const MetricsRecordHeader& header, const MetricsBatch& batch) {
    const std::size_t count = batch.samples.size();
    for (std::size_t i = 0; i < count; ++i) {
      const MetricSample sample = batch.samples[i];
      if (sample.sample_id >= names_.size()) fail_metric_id(sample.sample_id, names_.size());
      ResolvedMetric& metric = resolve(sample.sample_id);
      if (!is_accepted(metric, names_[sample.sample_id])) continue;
      if (!store_sample<T>(header, metric, sample)) continue;
      QVX_LOG(QVX_LOG_DEBUG, "[qvx metrics parser] metric id: %lu, ts: %lu, name: %.*s, value: %lu",
              std::uint64_t{sample.sample_id}, header.timestamp, name_size(sample), name_text(sample),
              sample.sample_value);
    }
  }

  // Every sample counts as a use of its metric's symbol.
  ResolvedMetric& resolve(std::size_t id) {
    ResolvedMetric& metric = metrics_[id];
    if (metric.reference_count != nullptr) [[likely]] {
      ++*metric.reference_count;
      if (metric.label_set_id != label_set_id_) {
        metric.series = {};
        metric.label_set_id = label_set_id_;
      }
      return metric;
    }
    metric.label_set_id = label_set_id_;
    metric.symbol = store_.symbols().intern(names_[id]);
    metric.reference_count = &store_.symbols().reference_count(metric.symbol);
    return metric;
  }

  bool is_accepted(const ResolvedMetric& metric, std::string_view name) const {
    return filter_ == nullptr || metric.has_series() || store_.has_series(metric.symbol) ||
           filter_->accepts(name);
  }

  template <typename T>
  bool store_sample(const MetricsRecordHeader& header, ResolvedMetric& metric, const MetricSample& sample) {
    try {
      if (log_storing<T>(header, sample)) {
        TimeSeries<T>*& series = metric.of_type<T>();
        if (series == nullptr)
          series = &store_.series<T>(metric.symbol, names_[sample.sample_id], label_set_id_);
        series->set_kind(header.kind);
        const auto value = std::bit_cast<T>(sample.sample_value);
        if (filter_ != nullptr && filter_->changes_only()) {
          series->append_if_changed(header.timestamp, value);
        } else {
          series->append(header.timestamp, value);
        }
        return true;
      }
    } catch (const std::exception& fault) {
      QVX_LOG(QVX_LOG_ERROR,
              "[qvx metrics parser] Failed to store typed value for metric %.*s (type=%d, value=%lu): %s",
              name_size(sample), name_text(sample), int{header.value_type}, sample.sample_value,
              fault.what());
    } catch (...) {
      QVX_LOG(QVX_LOG_ERROR,
              "[qvx metrics parser] Unknown exception while storing typed value for metric %.*s (type=%d, "
              "value=%lu)",
              name_size(sample), name_text(sample), int{header.value_type}, sample.sample_value);
    }
    QVX_LOG(
        QVX_LOG_WARNING,
        "[qvx metrics parser] Failed to store metric %.*s (id=%lu, value=%lu) - continuing with next metrics",
        name_size(sample), name_text(sample), std::uint64_t{sample.sample_id}, sample.sample_value);
    return false;
  }

  // Announces the value under its type; false for the one type that no series takes.
  template <typename T>
  bool log_storing(const MetricsRecordHeader& header, const MetricSample& sample) const {
    if constexpr (std::is_same_v<T, double>) {
      QVX_LOG(QVX_LOG_DEBUG, "[qvx metrics parser] Storing double metric %.*s: %f", name_size(sample),
              name_text(sample), std::bit_cast<double>(sample.sample_value));
    } else if constexpr (std::is_same_v<T, Bit64>) {
      QVX_LOG(QVX_LOG_DEBUG, "[qvx metrics parser] Storing bit64 metric %.*s: 0x%lx", name_size(sample),
              name_text(sample), sample.sample_value);
    } else if constexpr (std::is_same_v<T, std::int64_t>) {
      QVX_LOG(QVX_LOG_DEBUG, "[qvx metrics parser] Storing int64 metric %.*s: %ld", name_size(sample),
              name_text(sample), std::bit_cast<std::int64_t>(sample.sample_value));
    } else if (header.value_type == static_cast<std::uint8_t>(MetricValueType::uint64)) [[likely]] {
      QVX_LOG(QVX_LOG_DEBUG, "[qvx metrics parser] Storing uint64 metric %.*s: %lu", name_size(sample),
              name_text(sample), sample.sample_value);
    } else if (header.value_type == static_cast<std::uint8_t>(MetricValueType::string)) {
      QVX_LOG(QVX_LOG_WARNING,
              "[qvx metrics parser] String value type in numeric metrics path for metric %.*s",
              name_size(sample), name_text(sample));
      return false;
    } else {
      QVX_LOG(
          QVX_LOG_WARNING,
          "[qvx metrics parser] Unknown/unsupported value type %d for metric %.*s, falling back to UInt64",
          int{header.value_type}, name_size(sample), name_text(sample));
    }
    return true;
  }

  int name_size(const MetricSample& sample) const {
    return static_cast<int>(names_[sample.sample_id].size());
  }
  const char* name_text(const MetricSample& sample) const { return names_[sample.sample_id].data(); }

  const StringTable& names_;
  const MetricFilter* filter_;
  MetricsStore& store_;
  ResolvedMetric* metrics_;
  std::uint64_t label_set_id_ = MetricsStore::kAllLabelSets;
};

void register_histograms(const MetricsBlockTables& tables, MetricsStore& store) {
  for (const auto& [id, histogram] : tables.histograms) {
    LabelMap labels;
    if (const StringTable* const names = tables.label_names.find(histogram.labels.label_set_id)) {
      const std::vector<std::string_view> values(histogram.labels.values.begin(),
                                                 histogram.labels.values.end());
      set_labels(*names, values, labels);
    }
    store.register_histogram(histogram, labels);
  }
}

// Adds the names of one batch, each once.
void count_samples(const MetricSamples& samples, const StringTable& names, std::vector<bool>& counted,
                   std::unordered_set<std::string>& names_out) {
  for (std::size_t i = 0; i < samples.size(); ++i) {
    const std::size_t id = samples[i].sample_id;
    if (id >= names.size()) {
      QVX_LOG(QVX_LOG_WARNING, "[qvx metrics parser] Invalid metric_id %zu (max: %zu), skipping", id,
              names.size());
    } else if (!counted[id]) {
      names_out.emplace(names[id]);
      counted[id] = true;
    }
  }
}

// Counts one block; false when it has no records to look at.
bool count_block(Bytes block, std::unordered_set<std::string>& names_out) {
  MetricsBlockTables tables;
  read_block_tables(block, HistogramUse::check, tables);
  const std::byte* const block_end = block.data() + block.size();
  const std::byte* const marker = wire::find_marker(block.data(), block_end, wire::kDataMarker);
  if (marker == block_end) {
    QVX_LOG(QVX_LOG_WARNING, "[qvx metrics parser] No CNTD section found in CNTX block, skipping");
    return false;
  }
  if (!has_full_trailer(Bytes(marker, block_end))) {
    QVX_LOG(QVX_LOG_WARNING, "[qvx metrics parser] Invalid magic numbers in CNTX block");
    return false;
  }
  const MetricsDataSection section = data_section_at(marker, block_end);
  if (section.end < wire::kBlocksizeSize) {
    QVX_LOG(QVX_LOG_WARNING, "[qvx metrics parser] Insufficient data for blocksize in CNTX block");
    return false;
  }
  const std::byte* const area_end = section.area + section.end;
  std::vector<bool> counted(tables.metric_names.size());
  MetricsBatch batch;
  const std::byte* record = section.area + kFirstRecordAt;
  // A labels block may end behind the data area.
  while (record <= area_end && static_cast<std::size_t>(area_end - record) >= wire::kRecordHeaderSize) {
    const MetricsRecordHeader header = read_record_header(record, area_end);
    if (header.num_samples == 0) {
      QVX_LOG(QVX_LOG_DEBUG, "[qvx metrics parser] Empty metrics batch, skipping");
      break;
    }
    const std::size_t room = static_cast<std::size_t>(area_end - record) - wire::kRecordHeaderSize;
    const std::size_t most_samples = room / wire::kSampleSize;
    if (header.num_samples > most_samples) {
      QVX_LOG(QVX_LOG_WARNING, "[qvx metrics parser] num_samples %zu exceeds available data (max: %zu)",
              std::size_t{header.num_samples}, most_samples);
      break;
    }
    count_samples(read_record_samples(record, area_end, header), tables.metric_names, counted, names_out);
    try {
      record += read_record_labels(section, record, header,
                                   "QvxMetricsParser::count_metrics_from_cntx_blocks", batch);
    } catch (const std::exception& fault) {
      QVX_LOG(QVX_LOG_WARNING, "[qvx metrics parser] Failed to parse labels block for counting: %s",
              fault.what());
      break;
    }
  }
  return true;
}

// Walks the blocks; false when one had a size that cannot be true.
bool count_blocks(const std::byte* pos, const std::byte* end, std::size_t& counted,
                  std::unordered_set<std::string>& names_out) {
  constexpr std::uint32_t kLargestSize = 1073741824;
  bool sizes_are_good = true;
  while (true) {
    const std::byte* const block = wire::find_marker(pos, end, wire::kBlockMarker);
    if (block == end) return sizes_are_good;
    const auto left = static_cast<std::size_t>(end - block);
    if (left < wire::kBlockHeaderSize) {
      QVX_LOG(QVX_LOG_WARNING, "[qvx metrics parser] Insufficient data for CNTX block header");
      return sizes_are_good;
    }
    const auto size = load_le<std::uint32_t>(block + wire::kTotalSizeAt);
    if (size == 0 || size > kLargestSize) {
      QVX_LOG(QVX_LOG_WARNING, "[qvx metrics parser] Invalid block size %u in CNTX block", size);
      sizes_are_good = false;
      pos = block + wire::kBlockHeaderSize;
      continue;
    }
    pos = block + std::min<std::size_t>(size, left);
    try {
      if (!count_block(Bytes(block, pos), names_out)) continue;
      ++counted;
      QVX_LOG(QVX_LOG_DEBUG, "[qvx metrics parser] Counted metrics from CNTX block %zu", counted);
    } catch (const std::exception& fault) {
      QVX_LOG(QVX_LOG_WARNING, "[qvx metrics parser] Failed to count metrics from CNTX block %zu: %s",
              counted + 1, fault.what());
    }
  }
}

}  // namespace

void QvxMetricsParser::parse_metrics(const std::byte* block_begin, const std::byte* block_end,
                                     const MetricFilter* filter, MetricsStore& store) {
  const Bytes block(block_begin, block_end);
  MetricsBlockTables tables;
  read_block_tables(block, HistogramUse::keep, tables);
  register_histograms(tables, store);

  const MetricsDataSection section = find_data_section(block, has_full_trailer);
  BatchStorer storer(tables, filter, store);
  MetricsBatch batch;
  LabelMap labels;
  std::size_t offset = kFirstRecordAt;
  while (offset < section.end) {
    QVX_LOG(QVX_LOG_DEBUG, "[qvx metrics parser] offset=%lu end=%lu", offset, section.end);
    const std::byte* const record = section.area + offset;
    const MetricsRecordHeader header = read_record_header(record, block_end);
    log_record_oddities(header);
    if (!header.is_counter_or_gauge()) throw std::runtime_error("invalid metric type");
    batch.timestamp = header.timestamp;
    batch.samples = read_record_samples(record, block_end, header);
    const std::size_t length = read_record_labels(section, record, header, "unknown", batch);

    const std::vector<std::string_view> values = decode_label_values(batch.label_values, tables.label_values);
    if (store.has_series_per_label_set()) {
      labels = tables.constant_labels;
    } else {
      labels.clear();
    }
    if (const StringTable* const names = tables.label_names.find(batch.label_set_id))
      set_labels(*names, values, labels);
    const std::uint64_t label_set_id = store.label_sets().id_of(labels, header.timestamp);

    storer.store_batch(header, batch,
                       store.has_series_per_label_set() ? label_set_id : MetricsStore::kAllLabelSets);
    offset += length;
  }
}

const std::byte* QvxMetricsParser::process_cntx_blocks(const std::byte* begin, const std::byte* end,
                                                       const MetricFilter* filter, MetricsStore& store) {
  const std::byte* pos = begin;
  std::size_t parsed = 0;
  while (pos < end) {
    const std::byte* const block = wire::find_marker(pos, end, wire::kBlockMarker);
    const auto left = static_cast<std::size_t>(end - block);
    if (left < wire::kBlockHeaderSize) break;
    // Deliberately unchecked, see the header: with a size of 0 the position stays on this block.
    const auto size = load_le<std::uint32_t>(block + wire::kTotalSizeAt);
    pos = block + std::min<std::size_t>(size, left);
    try {
      parse_metrics(block, pos, filter, store);
      ++parsed;
    } catch (const std::exception& fault) {
      QVX_LOG(QVX_LOG_WARNING, "[qvx metrics parser] Failed to parse CNTX block %zu: %s", parsed + 1,
              fault.what());
    }
  }
  QVX_LOG(QVX_LOG_DEBUG, "[qvx metrics parser] Processed %zu CNTX blocks", parsed);
  return pos;
}

bool QvxMetricsParser::count_metrics_from_cntx_blocks(const std::byte* begin, const std::byte* end,
                                                      std::unordered_set<std::string>& names_out) {
  std::size_t counted = 0;
  bool sizes_are_good = false;
  try {
    sizes_are_good = count_blocks(begin, end, counted, names_out);
  } catch (const std::exception& fault) {
    QVX_LOG(QVX_LOG_ERROR, "[qvx metrics parser] Failed to count metrics from CNTX blocks: %s", fault.what());
  }
  QVX_LOG(QVX_LOG_DEBUG,
          "[qvx metrics parser] Counted metrics from %zu CNTX blocks, found %zu unique metrics", counted,
          names_out.size());
  return sizes_are_good;
}

std::uint32_t QvxMetricsParser::total_size(const std::byte* begin, const std::byte* end) {
  const std::byte* const block = wire::find_marker(begin, end, wire::kBlockMarker);
  if (static_cast<std::size_t>(end - block) < wire::kBlockHeaderSize) {
    QVX_LOG(QVX_LOG_DEBUG, "[qvx metrics parser] Missing 'CNTX' magic number in the binary data");
    return 0;
  }
  const auto size = load_le<std::uint32_t>(block + wire::kTotalSizeAt);
  QVX_LOG(QVX_LOG_DEBUG, "[qvx metrics parser] total_size: %lu", std::uint64_t{size});
  return size;
}

}  // namespace qvx::metrics
