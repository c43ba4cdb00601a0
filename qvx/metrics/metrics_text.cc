#include "qvx/metrics/metrics_text.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "qvx/support/number.h"

namespace qvx::metrics {
namespace {

constexpr RecordSpelling kCompact{"{", ",", "}", ":", "{", "}", "]"};
constexpr RecordSpelling kPretty{
    .record_open = "{\n    ",
    .member_separator = ",\n    ",
    .record_close = "\n}",
    .colon = ": ",
    .element_open = "\n        {\n            ",
    .element_close = "\n        }",
    .array_close = "\n    ]",
};

char* put(char* out, std::string_view text) {
  std::memcpy(out, text.data(), text.size());
  return out + text.size();
}

}  // namespace

const RecordSpelling& record_spelling(json::Style style) {
  return style == json::Style::pretty ? kPretty : kCompact;
}

void MetricNameTexts::use_table(Bytes table_bytes, const StringTable& names, json::Style style) {
  names_ = &names;
  if (style == style_ && names.size() == kept_.size() && as_text(table_bytes) == table_) return;
  kept_.clear();
  texts_size_ = 0;
  longest_text_ = 0;
  style_ = style;
  table_ = as_text(table_bytes);
  kept_.resize(names.size());
}

void MetricNameTexts::keep(std::size_t id) {
  char text[kLongestText];
  const auto size = static_cast<std::size_t>(compose(text, id) - text);
  if (texts_size_ + size > kMostKept) {
    longest_text_ = kLongestText;
    return;
  }
  longest_text_ = std::max(longest_text_, size);
  if (texts_.size() < texts_size_ + size + kStep) texts_.resize(2 * (texts_size_ + size) + kStep);
  std::memcpy(texts_.data() + texts_size_, text, size);
  kept_[id] = {static_cast<std::uint32_t>(texts_size_), static_cast<std::uint32_t>(size)};
  texts_size_ += size;
}

char* MetricNameTexts::compose(char* out, std::size_t id) const {
  const RecordSpelling& spelling = record_spelling(style_);
  out = put(out, spelling.element_close);
  *out++ = ',';
  out = put(out, spelling.element_open);
  *out++ = '"';
  out = json::write_escaped(out, up_to_nul((*names_)[id]));
  *out++ = '"';
  return put(out, spelling.colon);
}

char* MetricNameTexts::write_text(char* out, std::size_t id) const {
  const Kept kept = kept_[id];
  if (kept.size == 0) [[unlikely]]
    return compose(out, id);
  const char* const text = texts_.data() + kept.offset;
  for (std::size_t at = 0; at < kept.size; at += kStep)
    std::memcpy(out + at, text + at, kStep);
  return out + kept.size;
}

void MetricNameTexts::write_samples(const MetricSamples& samples, OutputSink& sink) {
  // No more than any sink has: a record is not begun to be given up for want of memory.
  constexpr std::size_t kRoomAtOnce = OutputSink::kSmallCapacity;
  static_assert(kLongestText + kStep + kNumberRoom <= kRoomAtOnce);
  const RecordSpelling& spelling = record_spelling(style_);
  const std::size_t room = longest_text_ + kStep + kNumberRoom;
  const std::size_t at_once = kRoomAtOnce / room;
  // The first sample has none before it: the end of that one is cut off its text.
  std::size_t cut = spelling.element_close.size() + 1;
  const std::size_t count = samples.size();
  for (std::size_t i = 0; i < count;) {
    const std::size_t stop = i + std::min(at_once, count - i);
    char* const begin = sink.reserve(at_once * room);
    char* out = begin;
    for (; i < stop; ++i) {
      const MetricSample sample = samples[i];
      out = write_text(out, sample.sample_id);
      if (cut != 0) [[unlikely]] {
        std::memmove(begin, begin + cut, static_cast<std::size_t>(out - begin) - cut);
        out -= std::exchange(cut, 0);
      }
      out = write_json_number(out, sample.sample_value);
    }
    sink.commit(out);
  }
  sink.write(spelling.element_close);
}

}  // namespace qvx::metrics
