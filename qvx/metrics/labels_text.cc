#include "qvx/metrics/labels_text.h"

#include <new>

#include "qvx/metrics/metrics_text.h"

namespace qvx::metrics {
namespace {

// Names and values have a length byte. A separator, both quotes of both texts and the spelling come on top.
constexpr std::size_t kLabelRoom = 2 * json::escaped_room(255) + 4 * ShortText::kRoom;
// For what opens the member and closes it.
constexpr std::size_t kRoomAround = 3 * ShortText::kRoom;

char* write_label(char* out, std::string_view name, std::string_view value, char separator,
                  const RecordSpelling& spelling) {
  *out++ = separator;
  out = put(out, spelling.element_open);
  out = json::write_escaped(out, up_to_nul(name));
  out = put(out, spelling.colon);
  *out++ = '"';
  out = json::write_escaped(out, up_to_nul(value));
  *out++ = '"';
  return put(out, spelling.element_close);
}

// Calls visit(name, value) for each label in order, until that says no.
template <typename Visit>
bool visit_all(const RecordLabels& labels, Visit&& visit) {
  for (const auto& [name, value] : labels.constants) {
    const std::string_view* const own = labels.own.find(name);
    if (!visit(name, own == nullptr ? value : *own)) return false;
  }
  for (const auto& [name, value] : labels.own) {
    if (!labels.constants.contains(name) && !visit(name, value)) return false;
  }
  return true;
}

}  // namespace

void write_labels(const RecordLabels& labels, json::Style style, OutputSink& sink) {
  const RecordSpelling& spelling = record_spelling(style);
  sink.write(spelling.labels);
  if (labels.constants.empty() && labels.own.empty()) return sink.write("[]");
  char separator = '[';
  visit_all(labels, [&](std::string_view name, std::string_view value) {
    sink.commit(write_label(sink.reserve(kLabelRoom), name, value, separator, spelling));
    separator = ',';
    return true;
  });
  sink.write(spelling.array_close);
}

bool LabelsText::make(const RecordLabels& labels, Bytes made_of, json::Style style) {
  static_assert(kLabelRoom + kRoomAround <= kAtFirst);
  made_of_.clear();
  const RecordSpelling& spelling = record_spelling(style);
  char* out = put(text_.data(), spelling.labels);
  char separator = '[';
  const bool fits = visit_all(labels, [&](std::string_view name, std::string_view value) {
    const auto size = static_cast<std::size_t>(out - text_.data());
    if (text_.size() - size < kLabelRoom + kRoomAround) {
      if (!grow()) return false;
      out = text_.data() + size;
    }
    out = write_label(out, name, value, separator, spelling);
    separator = ',';
    return true;
  });
  if (!fits) return false;
  out = put(out, separator == '[' ? ShortText("[]") : spelling.array_close);
  size_ = static_cast<std::size_t>(out - text_.data());
  made_of_ = as_text(made_of);
  return true;
}

// Without memory texts are written without being kept.
bool LabelsText::grow() {
  if (text_.size() >= kMostKept) return false;
  try {
    text_.resize(2 * text_.size());
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

}  // namespace qvx::metrics
