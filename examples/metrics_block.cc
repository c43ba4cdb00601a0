#include "examples/metrics_block.h"

#include <algorithm>
#include <stdexcept>

namespace qvx::examples {
namespace {

namespace wire = metrics::wire;

template <Scalar T>
void add(ByteArray& to, T value) {
  append(to, Packer().add(value).bytes());
}

// A length byte and the text, which is how every table and every label has it.
void add_text(ByteArray& to, std::string_view text) {
  add(to, static_cast<std::uint8_t>(text.size()));
  append(to, as_bytes(text));
}

// The label-name sets count their texts in one byte, all other tables in two.
template <Scalar Count>
void add_table(ByteArray& to, std::string_view opening, const Names& texts, std::string_view closing) {
  append(to, as_bytes(opening));
  add(to, static_cast<Count>(texts.size()));
  for (const std::string_view text : texts)
    add_text(to, text);
  append(to, as_bytes(closing));
}

}  // namespace

ByteArray MetricsBlock::labels(std::uint8_t label_set, const Names& values, LabelEncoding encoding) const {
  ByteArray labels;
  add(labels, label_set);
  add(labels, static_cast<std::uint8_t>(values.size()));
  add(labels, static_cast<char>(encoding));
  const Names& table = tables_.label_values;
  for (const std::string_view value : values) {
    const auto found = std::find(table.begin(), table.end(), value);
    const bool is_inline =
        encoding == LabelEncoding::inline_texts || (encoding == LabelEncoding::mixed && found == table.end());
    if (encoding == LabelEncoding::mixed) add(labels, is_inline ? wire::kInlineTexts : wire::kReferences);
    if (is_inline) {
      add_text(labels, value);
    } else if (found != table.end()) {
      add(labels, static_cast<std::uint8_t>(found - table.begin()));
    } else {
      throw std::invalid_argument("no such label value");
    }
  }
  return labels;
}

void MetricsBlock::add_histogram(const metrics::Histogram& histogram, const ByteArray& labels) {
  constexpr std::size_t kCapacity = 65536;  // above 255 buckets with all they need
  metrics::PreallocatedVector record(kCapacity);
  metrics::serialize(histogram, labels, record);
  append(histograms_, record.bytes());
}

void MetricsBlock::add_batch(std::uint64_t timestamp, metrics::MetricKind kind, metrics::MetricValueType type,
                             std::span<const metrics::MetricSample> samples, const ByteArray& labels) {
  ByteArray batch(wire::kRecordHeaderSize);
  for (const metrics::MetricSample& sample : samples) {
    add(batch, sample.sample_id);
    add(batch, sample.sample_value);
  }
  append(batch, labels);
  const auto store = [&batch](std::size_t at, auto value) { store_le(batch.data() + at, value); };
  store(wire::kRecordLengthAt, static_cast<std::uint16_t>(batch.size()));
  store(wire::kRecordTimestampAt, timestamp);
  store(wire::kRecordKindAt, static_cast<char>(kind));
  store(wire::kRecordValueTypeAt, static_cast<std::uint8_t>(type));
  store(wire::kRecordSamplesAt, static_cast<std::uint16_t>(samples.size()));
  append(batches_, batch);
  longest_batch_ = std::max(longest_batch_, static_cast<std::uint32_t>(batch.size()));
}

ByteArray MetricsBlock::bytes() const {
  ByteArray block(wire::kBlockHeaderSize);
  const Bytes magic = as_bytes(wire::kBlockMarker);
  std::copy(magic.begin(), magic.end(), block.begin());
  for (const Names& names : tables_.label_names)
    add_table<std::uint8_t>(block, wire::kLabelNamesMarker, names, wire::kLabelNamesEnd);
  add_table<std::uint16_t>(block, wire::kLabelValuesMarker, tables_.label_values, wire::kLabelValuesEnd);
  add_table<std::uint16_t>(block, wire::kMetricNamesMarker, tables_.metric_names, wire::kMetricNamesEnd);
  append(block, histograms_);
  add_table<std::uint16_t>(block, wire::kConstantLabelsMarker, tables_.constant_labels,
                           wire::kConstantLabelsEnd);
  append(block, as_bytes(wire::kDataMarker));
  add(block, longest_batch_);
  append(block, batches_);
  append(block, as_bytes(wire::kTrailer));
  store_le(block.data() + wire::kTotalSizeAt, static_cast<std::uint32_t>(block.size()));
  return block;
}

}  // namespace qvx::examples
