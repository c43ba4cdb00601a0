// The rows of the metrics table.
#include <bit>
#include <stdexcept>

#include "qvx/columns/table_decoder.h"
#include "qvx/metrics/metrics_text.h"
#include "qvx/support/json_text.h"

namespace qvx::columns {

using metrics::up_to_nul;

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
    recorder_->add(block.place, "metrics_failed", std::string("Metrics block: ") + error.what());
  }
}

// False when a label value is no UTF-8: it is then null.
bool TableDecoder::add_labels(Column& column) {
  if (!metrics_.has_labels()) {
    column.append_null();
    return true;
  }
  bool ok = true;
  for (const auto& [name, value] : metrics_.labels()) {
    const std::string_view text = up_to_nul(value);
    column.label_names().append_text(utf8_text(up_to_nul(name)));
    if (json::is_valid_utf8(text)) {
      column.label_values().append_index(column.label_values().index_of(text));
    } else {
      column.label_values().append_null();
      ok = false;
    }
  }
  column.end_labels();
  return ok;
}

void TableDecoder::drain_metrics() {
  enum Own : std::size_t { kTimestamp, kMetric, kKind, kLabels, kValue, kUnsigned, kSigned };
  const auto place = [this](Own own) { return query_.place_of(static_cast<std::size_t>(own)); };
  const auto* const patterns = query_.patterns_for("metric");
  while (room() > 0) {
    if (!has_samples_) {
      try {
        has_metrics_ = metrics_.next();
      } catch (const std::runtime_error& error) {
        recorder_->add(place_, "metrics_failed", std::string("Metrics block: ") + error.what());
        has_metrics_ = false;
      }
      if (!has_metrics_) return;
      if (!is_in_range(metrics_.timestamp())) continue;
      has_samples_ = true;
      next_sample_ = 0;
    }
    bool labels_ok = true;
    const metrics::MetricSamples& samples = metrics_.samples();
    for (; next_sample_ < samples.size() && room() > 0; ++next_sample_) {
      const metrics::MetricSample sample = samples[next_sample_];
      const std::string_view name = up_to_nul(metrics_.metric(sample.sample_id));
      if (patterns != nullptr) {
        const auto [selected, is_new] = selected_metrics_.try_emplace(std::string(name), false);
        if (is_new) selected->second = matches_any(selected->first, *patterns);
        if (!selected->second) continue;
      }
      if (const auto at = place(kTimestamp)) add_times(*at, metrics_.timestamp(), 1);
      if (const auto at = query_.place_of(ExtraColumn::time)) add_times(*at, metrics_.timestamp(), 1);
      if (const auto at = place(kMetric))
        columns_[*at].append_index(
            columns_[*at].index_of(json::is_valid_utf8(name) ? name : std::string_view(utf8_text(name))));
      if (const auto at = place(kKind))
        columns_[*at].append_index(columns_[*at].index_of(metrics_.is_counter() ? "counter" : "gauge"));
      if (const auto at = place(kLabels)) {
        labels_ok = add_labels(columns_[*at]) && labels_ok;
        // Labels are as long as a block says; a batch of many ends early.
        if (columns_[*at].text_bytes() > kMostBatchBytes) batch_rows_ = rows_ + 1;
      }
      const bool is_float = metrics_.value_type() == metrics::MetricValueType::floating;
      const bool is_signed = metrics_.value_type() == metrics::MetricValueType::int64;
      if (const auto at = place(kValue)) {
        columns_[*at].append_value(is_float ? std::bit_cast<double>(sample.sample_value)
                                   : is_signed
                                       ? static_cast<double>(static_cast<std::int64_t>(sample.sample_value))
                                       : static_cast<double>(sample.sample_value));
      }
      if (const auto at = place(kUnsigned)) {
        if (is_float || is_signed) {
          columns_[*at].append_null();
        } else {
          columns_[*at].append_value(sample.sample_value);
        }
      }
      if (const auto at = place(kSigned)) {
        if (is_signed) {
          columns_[*at].append_value(static_cast<std::int64_t>(sample.sample_value));
        } else {
          columns_[*at].append_null();
        }
      }
      add_extras(place_, 1);
      ++rows_;
    }
    if (!labels_ok) recorder_->add(place_, "metrics_failed", "Metrics block: a label value is not UTF-8");
    if (next_sample_ == samples.size()) has_samples_ = false;
  }
}

}  // namespace qvx::columns
