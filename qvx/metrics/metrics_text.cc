#include "qvx/metrics/metrics_text.h"

#include <algorithm>
#include <cstring>

#include "qvx/metrics/wire.h"
#include "qvx/support/number.h"

namespace qvx::metrics {

constexpr RecordSpelling kCompactRecord{
    .timestamp = "{\"timestamp\":",
    .time_text = ",\"@timestamp\":\"",
    .labels = ",\"labels\":",
    .metrics = ",\"metrics\":",
    .record_close = "}",
    .colon = ":",
    .element_open = "{",
    .element_close = "}",
    .array_close = "]",
};
constexpr RecordSpelling kPrettyRecord{
    .timestamp = "{\n    \"timestamp\": ",
    .time_text = ",\n    \"@timestamp\": \"",
    .labels = ",\n    \"labels\": ",
    .metrics = ",\n    \"metrics\": ",
    .record_close = "\n}",
    .colon = ": ",
    .element_open = "\n        {\n            ",
    .element_close = "\n        }",
    .array_close = "\n    ]",
};

const std::byte* MetricNameTexts::read_table(const std::byte* pos, const std::byte* end) {
  pos = wire::find_marker(pos, end, wire::kMetricNamesMarker);
  const std::string_view text = as_text(Bytes(pos, end));
  if (!table_.empty() && text.starts_with(table_) && text.size() - table_.size() >= wire::kMarkerSize)
    return pos + table_.size() + wire::kMarkerSize;
  table_.clear();
  sizes_.clear();
  const std::byte* const table_end =
      read_string_table(pos, end, wire::kMetricNamesMarker, wire::kMetricNamesEnd, names_);
  if (names_.empty()) return table_end;
  table_ = text.substr(0, static_cast<std::size_t>(table_end - pos) - wire::kMarkerSize);
  for (std::string_view& name : names_)
    name = {table_.data() + (name.data() - text.data()), name.size()};
  return table_end;
}

void MetricNameTexts::use_style(json::Style style) {
  if (sizes_.size() == names_.size() && style == style_) return;
  sizes_.clear();
  style_ = style;
  make_slots();
  sizes_.resize(names_.size());
  unmade_ = names_.size();
  all_fit_ = true;
}

// As long as the longest name needs, as far as memory goes.
void MetricNameTexts::make_slots() {
  std::size_t longest = 0;
  for (const std::string_view name : names_)
    longest = std::max(longest, name.size());
  const RecordSpelling& spelling = record_spelling(style_);
  longest += spelling.element_close.size + 1 + spelling.element_open.size + 2 + spelling.colon.size;
  const std::size_t count = std::max<std::size_t>(names_.size(), 1);
  slot_size_ = std::min((longest + kStep - 1) / kStep, kMostKept / count / kStep) * kStep;
  if (slots_room_ >= count * slot_size_) return;
  slots_room_ = 0;
  slots_ = std::make_unique_for_overwrite<char[]>(count * slot_size_);
  slots_room_ = count * slot_size_;
}

char* MetricNameTexts::compose(char* out, std::size_t id) const {
  const RecordSpelling& spelling = record_spelling(style_);
  out = put(out, spelling.element_close);
  *out++ = ',';
  out = put(out, spelling.element_open);
  *out++ = '"';
  out = json::write_escaped(out, up_to_nul(names_[id]));
  *out++ = '"';
  return put(out, spelling.colon);
}

void MetricNameTexts::keep(std::size_t id) {
  char text[kLongestText];
  const auto size = static_cast<std::size_t>(compose(text, id) - text);
  --unmade_;
  if (size > slot_size_) {
    sizes_[id] = kTooLong;
    all_fit_ = false;
    return;
  }
  std::memcpy(slots_.get() + id * slot_size_, text, size);
  sizes_[id] = static_cast<std::uint16_t>(size);
}

// Writes samples whose texts are in slots of one step.
char* MetricNameTexts::write_short(char* out, const MetricSamples& samples) const {
  // In variables of their own, which no byte written can be part of.
  const char* const slots = slots_.get();
  const std::uint16_t* const sizes = sizes_.data();
  for (const MetricSample sample : samples) {
    std::memcpy(out, slots + sample.sample_id * kStep, kStep);
    out = write_json_number(out + sizes[sample.sample_id], sample.sample_value);
  }
  return out;
}

char* MetricNameTexts::write_any(char* out, const MetricSamples& samples) const {
  const char* const slots = slots_.get();
  const std::uint16_t* const sizes = sizes_.data();
  const std::size_t slot_size = slot_size_;
  for (const MetricSample sample : samples) {
    const std::size_t size = sizes[sample.sample_id];
    if (size == kTooLong) [[unlikely]] {
      out = compose(out, sample.sample_id);
    } else {
      const char* const text = slots + sample.sample_id * slot_size;
      for (std::size_t copied = 0; copied < size; copied += kStep)
        std::memcpy(out + copied, text + copied, kStep);
      out += size;
    }
    out = write_json_number(out, sample.sample_value);
  }
  return out;
}

void MetricNameTexts::write_metrics(const MetricSamples& samples, OutputSink& sink) {
  const RecordSpelling& spelling = record_spelling(style_);
  const std::size_t count = samples.size();
  if (count == 0) {
    sink.write(spelling.metrics);
    return sink.write("[]");
  }
  if (unmade_ != 0) {
    for (const MetricSample sample : samples)
      if (sizes_[sample.sample_id] == 0) keep(sample.sample_id);
  }
  // No more at once than the sink has: a record is not begun to be given up for want of memory.
  constexpr std::size_t kRoomAround = 4 * ShortText::kRoom;
  static_assert(kRoomAround + kLongestText + kNumberRoom <= OutputSink::kSmallCapacity);
  const std::size_t room = (all_fit_ ? slot_size_ : kLongestText) + kNumberRoom;
  const std::size_t most = std::max(sink.capacity(), OutputSink::kSmallCapacity) - kRoomAround;
  std::size_t at = 0;
  while (at < count) {
    std::size_t stop = count;
    if ((count - at) * room > most) stop = at + most / room;
    char* const start = sink.reserve((stop - at) * room + kRoomAround);
    char* out = start;
    // The first sample's text has the end of a sample before it, which the opening is written over.
    if (at == 0) out += spelling.metrics.size + 1 - (spelling.element_close.size + 1);
    const MetricSamples part = samples.part(at, stop);
    out = all_fit_ && slot_size_ == kStep ? write_short(out, part) : write_any(out, part);
    if (at == 0) {
      std::memcpy(start, spelling.metrics.text, spelling.metrics.size);
      start[spelling.metrics.size] = '[';
    }
    at = stop;
    if (at == count) out = put(put(out, spelling.element_close), spelling.array_close);
    sink.commit(out);
  }
}

}  // namespace qvx::metrics
