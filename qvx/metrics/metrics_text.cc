#include "qvx/metrics/metrics_text.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "qvx/metrics/wire.h"
#include "qvx/support/number.h"

namespace qvx::metrics {

constexpr RecordSpelling kCompactRecord{
    .timestamp = "{\"timestamp\":",
    .time_text = ",\"@timestamp\":\"",
    .labels = ",\"labels\":",
    .metrics = ",\"metrics\":",
    .record_close = "}",
    .element_open = "{\"",
    .colon = "\":",
    .element_close = "}",
    .next_element = "},",
    .array_close = "]",
};
constexpr RecordSpelling kPrettyRecord{
    .timestamp = "{\n    \"timestamp\": ",
    .time_text = ",\n    \"@timestamp\": \"",
    .labels = ",\n    \"labels\": ",
    .metrics = ",\n    \"metrics\": ",
    .record_close = "\n}",
    .element_open = "\n        {\n            \"",
    .colon = "\": ",
    .element_close = "\n        }",
    .next_element = "\n        },",
    .array_close = "\n    ]",
};

namespace {

// Writes the text of a name up to its value.
char* compose(char* out, std::string_view name, const RecordSpelling& spelling) {
  out = put(put(out, spelling.next_element), spelling.element_open);
  return put(json::write_escaped(out, name), spelling.colon);
}

}  // namespace

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
  // A NUL, or the length of a name without characters.
  const bool has_nul = table_.find('\0', wire::kStringTableHeaderSize) != std::string::npos;
  longest_ = 0;
  for (std::string_view& name : names_) {
    name = {table_.data() + (name.data() - text.data()), name.size()};
    if (has_nul) name = up_to_nul(name);
    longest_ = std::max(longest_, name.size());
  }
  is_new_ = true;
  return table_end;
}

void MetricNameTexts::use_style(json::Style style) {
  const bool is_new = std::exchange(is_new_, false);
  if (!is_new && sizes_.size() == names_.size() && style == style_) return;
  sizes_.clear();
  style_ = style;
  if (is_new) return;
  make_slots();
  sizes_.resize(names_.size());
  unmade_ = names_.size();
  all_fit_ = true;
}

// As long as the longest name needs, as far as memory goes.
void MetricNameTexts::make_slots() {
  const RecordSpelling& spelling = record_spelling(style_);
  const std::size_t longest =
      spelling.next_element.size + spelling.element_open.size + longest_ + spelling.colon.size;
  const std::size_t count = std::max<std::size_t>(names_.size(), 1);
  slot_size_ = std::min((longest + kStep - 1) / kStep, kMostKept / count / kStep) * kStep;
  if (slots_room_ >= count * slot_size_) return;
  slots_room_ = 0;
  slots_ = std::make_unique_for_overwrite<char[]>(count * slot_size_);
  slots_room_ = count * slot_size_;
}

void MetricNameTexts::keep(std::size_t id) {
  char text[kLongestText];
  const auto size = static_cast<std::size_t>(compose(text, names_[id], record_spelling(style_)) - text);
  --unmade_;
  if (size > slot_size_) {
    sizes_[id] = kTooLong;
    all_fit_ = false;
    return;
  }
  std::memcpy(slots_.get() + id * slot_size_, text, size);
  sizes_[id] = static_cast<std::uint16_t>(size);
}

char* MetricNameTexts::write_unkept(char* out, const MetricSamples& samples) const {
  const std::string_view* const names = names_.data();
  const RecordSpelling& spelling = record_spelling(style_);
  for (const MetricSample sample : samples) {
    out = compose(out, names[sample.sample_id], spelling);
    out = write_json_number(out, sample.sample_value);
  }
  return out;
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
      out = compose(out, names_[sample.sample_id], record_spelling(style_));
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
  const bool is_kept = !sizes_.empty();
  if (is_kept && unmade_ != 0) {
    for (const MetricSample sample : samples)
      if (sizes_[sample.sample_id] == 0) keep(sample.sample_id);
  }
  // No more at once than the sink has: a record is not begun to be given up for want of memory.
  constexpr std::size_t kRoomAround = 4 * ShortText::kRoom;
  static_assert(kRoomAround + kLongestText + kNumberRoom <= OutputSink::kSmallCapacity);
  const bool is_short = is_kept && all_fit_ && slot_size_ == kStep;
  const std::size_t text_room =
      is_kept && all_fit_ ? slot_size_ : json::escaped_room(longest_) + 3 * ShortText::kRoom;
  const std::size_t room = text_room + kNumberRoom;
  const std::size_t most = std::max(sink.capacity(), OutputSink::kSmallCapacity) - kRoomAround;
  std::size_t at = 0;
  while (at < count) {
    std::size_t stop = count;
    if ((count - at) * room > most) stop = at + most / room;
    char* const start = sink.reserve((stop - at) * room + kRoomAround);
    char* out = start;
    // The first sample's text has the end of a sample before it, which the opening is written over.
    if (at == 0) out += spelling.metrics.size + 1 - spelling.next_element.size;
    const MetricSamples part = samples.part(at, stop);
    out = !is_kept ? write_unkept(out, part) : is_short ? write_short(out, part) : write_any(out, part);
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
