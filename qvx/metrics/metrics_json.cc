#include "qvx/metrics/metrics_json.h"

#include <array>
#include <string_view>
#include <utility>

#include "qvx/metrics/labels_block.h"
#include "qvx/metrics/metrics_text.h"
#include "qvx/support/clock.h"
#include "qvx/support/log.h"

namespace qvx::metrics {
namespace {

// An object of one member. JSON keeps names and values as C strings.
json::Value single_member(std::string_view name, json::Value value) {
  json::Object object;
  object.set(up_to_nul(name), std::move(value));
  return json::Value(std::move(object));
}

// Nothing when a value cannot be a JSON string.
std::optional<json::Array> labels_to_json(const LabelMap& labels) {
  json::Array array;
  for (const auto& [name, value] : labels) {
    std::optional<json::Value> text = json::Value::string(up_to_nul(value));
    if (!text) return std::nullopt;
    array.push_back(single_member(name, std::move(*text)));
  }
  return array;
}

json::Array samples_to_json(const MetricSamples& samples, const StringTable& names) {
  check_sample_ids(samples, names.size());
  json::Array array;
  for (const MetricSample sample : samples)
    array.push_back(single_member(names[sample.sample_id], json::Value::integer(sample.sample_value)));
  return array;
}

}  // namespace

std::optional<json::Value> metrics_to_json(const LabelNameSets& label_name_sets,
                                           const StringTable& label_values, const LabelMap& constant_labels,
                                           const StringTable& metric_names,
                                           std::span<const MetricsBatch> batches) noexcept {
  try {
    json::Object object;
    LocalTimeText clock;
    for (const MetricsBatch& batch : batches) {
      object.set("timestamp", json::Value::integer(batch.timestamp));
      std::array<char, LocalTimeText::kRoom> time;
      if (const std::size_t size = clock.write(time.data(), batch.timestamp); size != 0)
        static_cast<void>(object.set_string("@timestamp", {time.data(), size}));  // digits are UTF-8
      if (const StringTable* const names = label_name_sets.find(batch.label_set_id)) {
        LabelMap labels = constant_labels;
        set_labels(*names, decode_label_values(batch.label_values, label_values), labels);
        std::optional<json::Array> array = labels_to_json(labels);
        if (!array) {
          QVX_LOG(QVX_LOG_ERROR, "Failed allocating JSON object");
          return std::nullopt;
        }
        object.set("labels", json::Value(std::move(*array)));
      }
      object.set("metrics", json::Value(samples_to_json(batch.samples, metric_names)));
    }
    return json::Value(std::move(object));
  } catch (const std::exception& fault) {
    QVX_LOG(QVX_LOG_ERROR, "failed to JSONify metrics: %s", fault.what());
    return std::nullopt;
  }
}

}  // namespace qvx::metrics
