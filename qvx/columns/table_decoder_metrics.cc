// The rows of the metrics table.
#include <algorithm>
#include <stdexcept>

#include "qvx/columns/table_decoder.h"
#include "qvx/metrics/wire.h"
#include "qvx/support/json_text.h"

namespace qvx::columns {
namespace {

constexpr std::int32_t kNotKnown = -1;

ColumnPlan plan_of_values(ColumnKind kind) {
  ColumnPlan plan;
  plan.kind = kind;
  plan.offset = metrics::wire::kSampleValueAt;
  return plan;
}

}  // namespace

void TableDecoder::metrics_fault(const char* words) {
  recorder_->add(place_, "metrics_failed", std::string("Metrics block: ") + words);
}

void TableDecoder::on_metrics(const MetricsBlock& block) {
  place_ = block.place;
  if (query_.table.kind != TableKind::metrics) return;
  choose_source(block.place);
  if (!is_source_selected_) return;
  try {
    metrics_.open(block.block);
    has_metrics_ = true;
    has_samples_ = false;
  } catch (const std::runtime_error& error) {
    metrics_fault(error.what());
  }
  if (metrics_.tables_repeat()) return;
  selected_metrics_.clear();
  metric_indices_.clear();
}

// False, and nothing is left of the block, when no batch in the range is.
bool TableDecoder::next_metrics_batch() {
  try {
    while ((has_metrics_ = metrics_.next()) && !is_in_range(metrics_.time())) {
    }
  } catch (const std::runtime_error& error) {
    metrics_fault(error.what());
    has_metrics_ = false;
  }
  has_samples_ = has_metrics_;
  next_sample_ = 0;
  return has_metrics_;
}

// Whether the conditions select a metric.
bool TableDecoder::is_selected(std::size_t metric) {
  const metrics::StringTable& names = *metrics_.batch().metric_names;
  if (selected_metrics_.empty()) selected_metrics_.resize(names.size());
  std::optional<bool>& selected = selected_metrics_[metric];
  if (!selected) selected = matches_any(std::string(names[metric]), *metric_patterns_);
  return *selected;
}

void TableDecoder::drain_metrics() {
  while (room() > 0) {
    if (!has_samples_ && !next_metrics_batch()) return;
    bool labels_are_utf8 = true;
    const metrics::MetricSamples samples = metrics_.samples();
    while (next_sample_ < samples.size() && room() > 0) {
      const std::size_t first = next_sample_;
      const std::size_t most = first + std::min(samples.size() - first, room());
      if (metric_patterns_ == nullptr) next_sample_ = most;
      while (next_sample_ < most && is_selected(samples[next_sample_].sample_id))
        ++next_sample_;
      if (next_sample_ > first) {
        labels_are_utf8 = add_samples(samples.part(first, next_sample_));
      } else {
        ++next_sample_;
      }
    }
    if (!labels_are_utf8) metrics_fault("a label value is not UTF-8");
    if (next_sample_ == samples.size()) has_samples_ = false;
  }
}

// Rows of one batch; next_sample_ goes back to those that a batch of columns has no room for. False when a
// label value is no UTF-8: it is then null.
bool TableDecoder::add_samples(const metrics::MetricSamples& samples) {
  enum Own : std::size_t { kTimestamp, kMetric, kKind, kLabels, kValue, kUnsigned, kSigned };
  const auto column = [this](Own own) {
    const std::optional<std::size_t> place = query_.place_of(static_cast<std::size_t>(own));
    return place ? &columns_[*place] : nullptr;
  };
  bool labels_are_utf8 = true;
  std::size_t count = samples.size();
  if (Column* const labels = column(kLabels)) {
    count = add_labels(*labels, count, labels_are_utf8);
    next_sample_ -= samples.size() - count;
  }
  const metrics::MetricSamples added = samples.part(0, count);
  if (const auto at = query_.place_of(static_cast<std::size_t>(kTimestamp)))
    add_times(*at, metrics_.time(), count);
  if (const auto at = query_.place_of(ExtraColumn::time)) add_times(*at, metrics_.time(), count);
  if (Column* const metric = column(kMetric)) add_metrics(*metric, added);
  if (Column* const kind = column(kKind)) {
    const bool is_counter = metrics_.batch().kind == metrics::MetricKind::counter;
    kind->append_index(kind->index_of(is_counter ? "counter" : "gauge"), count);
  }
  const auto type = static_cast<metrics::MetricValueType>(metrics_.value_type());
  const bool is_float = type == metrics::MetricValueType::floating;
  const bool is_signed = type == metrics::MetricValueType::int64;
  const auto add_values = [&](Column& to, ColumnKind kind) {
    to.append(plan_of_values(kind), added.bytes().data(), metrics::wire::kSampleSize, count);
  };
  if (Column* const value = column(kValue)) {
    if (is_float) {
      add_values(*value, ColumnKind::f64);
    } else {
      sample_values_.clear();
      for (const metrics::MetricSample sample : added)
        sample_values_.push_back(is_signed
                                     ? static_cast<double>(static_cast<std::int64_t>(sample.sample_value))
                                     : static_cast<double>(sample.sample_value));
      value->append_values<double>(sample_values_);
    }
  }
  if (Column* const value = column(kUnsigned)) {
    if (is_float || is_signed) {
      value->append_nulls(count);
    } else {
      add_values(*value, ColumnKind::u64);
    }
  }
  if (Column* const value = column(kSigned)) {
    if (is_signed) {
      add_values(*value, ColumnKind::i64);
    } else {
      value->append_nulls(count);
    }
  }
  add_extras(place_, count);
  rows_ += count;
  return labels_are_utf8;
}

void TableDecoder::add_metrics(Column& column, const metrics::MetricSamples& samples) {
  const metrics::StringTable& names = *metrics_.batch().metric_names;
  if (metric_indices_.empty()) metric_indices_.resize(names.size(), kNotKnown);
  sample_indices_.clear();
  for (const metrics::MetricSample sample : samples) {
    std::int32_t& index = metric_indices_[sample.sample_id];
    if (index == kNotKnown) [[unlikely]] {
      const std::string_view name = names[sample.sample_id];
      index = column.index_of(json::is_valid_utf8(name) ? name : std::string_view(utf8_text(name)));
    }
    sample_indices_.push_back(index);
  }
  column.append_values<std::int32_t>(sample_indices_);
}

// The labels of the batch at hand, in up to `count` rows; gives their number. Labels are as long as a block
// says: where many are, the batch of columns ends early.
std::size_t TableDecoder::add_labels(Column& column, std::size_t count, bool& are_utf8) {
  if (!metrics_.has_labels()) {
    column.append_nulls(count);
    return count;
  }
  const std::size_t before = column.text_bytes();
  for (const MetricLabel& label : metrics_.batch().labels) {
    column.label_names().append_text(utf8_text(label.name));
    if (json::is_valid_utf8(label.value)) {
      column.label_values().append_index(column.label_values().index_of(label.value));
    } else {
      column.label_values().append_null();
      are_utf8 = false;
    }
  }
  column.end_labels();
  const std::size_t bytes = column.text_bytes();
  std::size_t more = 0;
  if (bytes <= kMostBatchBytes)
    more = std::min(count - 1, (kMostBatchBytes - bytes) / std::max<std::size_t>(1, bytes - before) + 1);
  column.repeat(1, more);
  if (column.text_bytes() > kMostBatchBytes) batch_rows_ = rows_ + 1 + more;
  return 1 + more;
}

}  // namespace qvx::columns
