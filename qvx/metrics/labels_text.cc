#include "qvx/metrics/labels_text.h"

#include "qvx/metrics/metrics_text.h"

namespace qvx::metrics {
namespace {

// Names and values have a length byte. A separator, both quotes of both texts and the spelling come on top.
constexpr std::size_t kLabelRoom = 2 * json::escaped_room(255) + 4 * ShortText::kRoom;
// For what opens the member and closes it.
constexpr std::size_t kRoomAround = 3 * ShortText::kRoom;

char* write_label(char* out, const LabelMap::Entry& label, char separator, const RecordSpelling& spelling) {
  *out++ = separator;
  out = put(out, spelling.element_open);
  *out++ = '"';
  out = json::write_escaped(out, up_to_nul(label.first));
  *out++ = '"';
  out = put(out, spelling.colon);
  *out++ = '"';
  out = json::write_escaped(out, up_to_nul(label.second));
  *out++ = '"';
  return put(out, spelling.element_close);
}

}  // namespace

void write_labels(const LabelMap& labels, json::Style style, OutputSink& sink) {
  const RecordSpelling& spelling = record_spelling(style);
  sink.write(spelling.labels);
  if (labels.empty()) return sink.write("[]");
  char separator = '[';
  for (const LabelMap::Entry& label : labels) {
    sink.commit(write_label(sink.reserve(kLabelRoom), label, separator, spelling));
    separator = ',';
  }
  sink.write(spelling.array_close);
}

bool LabelsText::make(const LabelMap& labels, Bytes made_of, std::uint64_t tables_version,
                      json::Style style) {
  static_assert(kLabelRoom + kRoomAround <= kMostKept);
  made_of_.clear();
  const RecordSpelling& spelling = record_spelling(style);
  char* out = put(text_.data(), spelling.labels);
  const char* const last_start = text_.data() + text_.size() - kLabelRoom - kRoomAround;
  char separator = '[';
  for (const LabelMap::Entry& label : labels) {
    if (out > last_start) return false;
    out = write_label(out, label, separator, spelling);
    separator = ',';
  }
  out = put(out, labels.empty() ? ShortText("[]") : spelling.array_close);
  size_ = static_cast<std::size_t>(out - text_.data());
  tables_version_ = tables_version;
  style_ = style;
  made_of_ = as_text(made_of);
  return true;
}

}  // namespace qvx::metrics
