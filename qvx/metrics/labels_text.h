// The labels of a record as text, kept for the next record that has the same.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/metrics/block_tables.h"
#include "qvx/support/bytes.h"
#include "qvx/support/json_text.h"
#include "qvx/support/output_sink.h"

namespace qvx::metrics {

// The labels of a record: the constant ones, with the values that the record's own give to their names, then
// the record's own others.
struct RecordLabels {
  const LabelMap& constants;
  const LabelMap& own;
};

// Writes the member with the labels, an array of objects with one member each.
void write_labels(const RecordLabels& labels, json::Style style, OutputSink& sink);

// The text of the labels that a labels block gives with the tables at hand; to be forgotten with these. Texts
// of more than kMostKept bytes are not kept.
class LabelsText {
 public:
  LabelsText() : text_(kAtFirst) {}  // throws std::bad_alloc

  // The size of the labels block at the start of the bytes when it is the one that the text was made of, else
  // 0. Such a block has no fault.
  std::size_t size_of_same(Bytes labels) const {
    return !made_of_.empty() && as_text(labels).starts_with(std::string_view(made_of_)) ? made_of_.size() : 0;
  }

  void forget() { made_of_.clear(); }

  // Makes the text of the labels that the labels block `made_of` gives; false when it is too long. Throws
  // std::bad_alloc.
  bool make(const RecordLabels& labels, Bytes made_of, json::Style style);

  std::string_view text() const { return {text_.data(), size_}; }

 private:
  static constexpr std::size_t kAtFirst = 8 * 1024;
  static constexpr std::size_t kMostKept = 512 * 1024;

  bool grow();

  std::string made_of_;  // empty: no text
  std::vector<char> text_;
  std::size_t size_ = 0;
};

}  // namespace qvx::metrics
