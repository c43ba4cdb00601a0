// The text of a metrics record: the two spellings, and the metric names escaped once per table.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/metrics/metrics_batch.h"
#include "qvx/support/bytes.h"
#include "qvx/support/json_text.h"
#include "qvx/support/output_sink.h"

namespace qvx::metrics {

// What stands between the texts of a record that is one object of numbers, strings and arrays of objects with
// one member each.
struct RecordSpelling {
  std::string_view record_open;
  std::string_view member_separator;
  std::string_view record_close;
  std::string_view colon;
  std::string_view element_open;
  std::string_view element_close;
  std::string_view array_close;
};

const RecordSpelling& record_spelling(json::Style style);

// JSON keeps names and values as C strings.
inline std::string_view up_to_nul(std::string_view text) {
  return text.substr(0, text.find('\0'));
}

// For each metric name of a table the text from the end of the sample before it to its own value, such as
// `},{"name":`. Texts are made when first used and kept while the table's bytes stay the same, up to a limit.
class MetricNameTexts {
 public:
  // Forgets the texts unless table and style are those of the last call. Throws std::bad_alloc.
  void use_table(Bytes table_bytes, const StringTable& names, json::Style style);

  // Makes the texts of the samples' names, so that writing them cannot fail. Throws std::bad_alloc.
  void prepare(const MetricSamples& samples) {
    for (std::size_t i = 0; i < samples.size(); ++i) {
      const std::size_t id = samples[i].sample_id;
      if (kept_[id].size == 0) [[unlikely]]
        keep(id);
    }
  }

  // Writes the samples, which were prepared, as the elements of an array that is not empty.
  void write_samples(const MetricSamples& samples, OutputSink& sink);

 private:
  // Texts are copied in steps of this size, so as many bytes are readable behind each.
  static constexpr std::size_t kStep = 32;
  static constexpr std::size_t kLongestName = 255;
  static constexpr std::size_t kLongestText = json::escaped_room(kLongestName) + 64;
  // Names that do not fit are escaped at each use: a table of control characters would grow sixfold.
  static constexpr std::size_t kMostKept = 8 * 1024 * 1024;

  struct Kept {
    std::uint32_t offset = 0;
    std::uint32_t size = 0;  // 0: not kept
  };

  void keep(std::size_t id);
  // Writes the text of a name, which needs kLongestText bytes of room, and a copy kStep more.
  char* compose(char* out, std::size_t id) const;
  char* write_text(char* out, std::size_t id) const;

  std::string table_;
  json::Style style_ = json::Style::compact;
  const StringTable* names_ = nullptr;
  std::vector<Kept> kept_;
  std::vector<char> texts_;  // kStep spare bytes at the end
  std::size_t texts_size_ = 0;
  std::size_t longest_text_ = 0;  // of those kept; the longest possible once one was not kept
};

}  // namespace qvx::metrics
