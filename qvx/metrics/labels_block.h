// The labels block that ends every batch record and every histogram record.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "qvx/metrics/string_table.h"

namespace qvx::metrics {

// One label value as it is written: a reference into the block's table of label values, or a text.
struct EncodedLabelValue {
  static constexpr std::uint32_t kReference = 0;
  static constexpr std::uint32_t kInlineText = 1;

  std::uint32_t type = kReference;
  std::uint64_t label_value_id = 0;  // 0 for an inline text
  std::string_view label_value;      // a view of the parsed bytes; empty for a reference
};

// "label_value_id", "label_value" or "unknown".
const char* label_value_type_text(std::uint32_t type);

// Parses the labels block at `start_offset` of the record at `data`, which may be read up to `data_end`.
// Replaces `values_out` by the values, in block order, and returns the offset from `data` just behind the
// block. `caller` is named in a debug line; null for a block that was parsed before and shall not be traced
// again. Throws std::runtime_error, with a log line, for every fault; `values_out` then holds the values up
// to it. The label set is not checked here.
std::size_t parse_labels_block(const std::byte* data, const std::byte* data_end, std::size_t start_offset,
                               std::uint64_t& label_set_id_out, std::vector<EncodedLabelValue>& values_out,
                               const char* caller);

// The text of one value, a view of the block. Throws std::runtime_error "invalid label id format" for a
// reference that finds no text or an empty one, "unknown label key type" for a type that is neither.
std::string_view decode_label_value(const EncodedLabelValue& value, const StringTable& label_values);

// The texts of all values. Throws std::runtime_error "Failed to decode label value at index ..." at the first
// that fails.
std::vector<std::string_view> decode_label_values(const std::vector<EncodedLabelValue>& values,
                                                  const StringTable& label_values);

}  // namespace qvx::metrics
