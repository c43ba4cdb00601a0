// The text of a metrics record: the two spellings, and the metric names, whose texts are kept with a table
// that repeats.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/metrics/metrics_batch.h"
#include "qvx/metrics/string_table.h"
#include "qvx/support/bytes.h"
#include "qvx/support/json_text.h"
#include "qvx/support/output_sink.h"

namespace qvx::metrics {

// A text of a few bytes that is copied without looking at its size: kRoom bytes, whatever it has.
struct ShortText {
  static constexpr std::size_t kRoom = 32;

  template <std::size_t kSize>
  constexpr ShortText(const char (&literal)[kSize]) : size(kSize - 1) {
    static_assert(kSize - 1 <= kRoom);
    std::copy_n(literal, kSize - 1, text);
  }
  constexpr operator std::string_view() const { return {text, size}; }

  char text[kRoom] = {};
  std::size_t size;
};

// What stands between the texts of a record that is one object of numbers, strings and arrays of objects with
// one member each. The members' openings hold what separates them from the member before; every record begins
// with its timestamp.
struct RecordSpelling {
  ShortText timestamp;
  ShortText time_text;  // and its opening quote
  ShortText labels;
  ShortText metrics;
  ShortText record_close;
  ShortText element_open;  // and the opening quote of the name
  ShortText colon;         // and the closing quote of the name
  ShortText element_close;
  ShortText next_element;  // the close and a comma
  ShortText array_close;
};

extern const RecordSpelling kCompactRecord;
extern const RecordSpelling kPrettyRecord;

inline const RecordSpelling& record_spelling(json::Style style) {
  return style == json::Style::pretty ? kPrettyRecord : kCompactRecord;
}

// Copies the text, for which there is room, and returns the position behind it.
inline char* put(char* out, const ShortText& text) {
  std::memcpy(out, text.text, ShortText::kRoom);
  return out + text.size;
}

// JSON keeps names and values as C strings.
inline std::string_view up_to_nul(std::string_view text) {
  return text.substr(0, text.find('\0'));
}

// For each metric name of a table the text from the end of the sample before it to its own value, such as
// `},{"name":`. A table that a second block has, too, has its texts kept from then on, each when it is first
// used: blocks that differ in their labels mostly have their metrics in common.
class MetricNameTexts {
 public:
  // Reads the table of metric names in [pos, end), as read_string_table does. A copy is kept, and the same
  // table is not read again.
  const std::byte* read_table(const std::byte* pos, const std::byte* end);

  // How many names the table has.
  std::size_t size() const { return names_.size(); }

  // To be called before the samples of a block are written. Throws std::bad_alloc.
  void use_style(json::Style style);

  // Writes the member with the samples, whose ids are all in the table.
  void write_metrics(const MetricSamples& samples, OutputSink& sink);

 private:
  // Texts are copied in steps of this size.
  static constexpr std::size_t kStep = 32;
  static constexpr std::size_t kLongestName = 255;
  static constexpr std::size_t kLongestText = json::escaped_room(kLongestName) + 3 * ShortText::kRoom;
  static constexpr std::uint16_t kTooLong = 0xFFFF;
  static constexpr std::size_t kMostKept = 8 * 1024 * 1024;

  void make_slots();
  void keep(std::size_t id);
  char* write_unkept(char* out, const MetricSamples& samples) const;
  char* write_short(char* out, const MetricSamples& samples) const;
  char* write_any(char* out, const MetricSamples& samples) const;

  std::string table_;        // from its marker to its last name; empty for a table without names
  StringTable names_;        // in table_, up to their first NUL
  std::size_t longest_ = 0;  // of the names
  bool is_new_ = true;       // met for the first time, so that nothing is kept of it
  json::Style style_ = json::Style::compact;

  // A slot for each name, a whole number of steps long. A text that does not fit, because of its escapes or
  // because the table is so large, is made at each use.
  std::unique_ptr<char[]> slots_;
  std::size_t slots_room_ = 0;
  std::size_t slot_size_ = kStep;
  std::vector<std::uint16_t> sizes_;  // of the texts; 0: not made so far. Empty: no slots chosen
  std::size_t unmade_ = 0;
  bool all_fit_ = true;  // of those made
};

}  // namespace qvx::metrics
