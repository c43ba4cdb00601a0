// The label tables of the last metrics block, which most blocks of a file repeat byte for byte.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/metrics/block_tables.h"
#include "qvx/metrics/metrics_batch.h"
#include "qvx/support/bytes.h"

namespace qvx::metrics {

// Keeps a copy of what a block has before its records, and answers one question of each block: is it the one
// of before but for its records? Then all that was made of the tables holds; otherwise everything is read
// anew. Blocks with more than kMostKept bytes before their records are never kept.
//
// The tables are valid until the block's bytes are gone or the next block is asked about.
class KeptTables {
 public:
  static constexpr std::size_t kMostKept = 2 * 1024 * 1024;

  // The question. Then `section` is the block's data section. At debug level the answer is no, as reading the
  // tables traces them.
  bool repeat_in(Bytes block, MetricsDataSection& section);

  // For a block that does not repeat the last one: reads what stands before the metric names, and returns the
  // position behind it. Throws what read_label_tables throws.
  const std::byte* read_labels(Bytes block);

  // The constant labels of the same block. Throws what read_constant_labels throws.
  void read_constants(Bytes block);

  // Keeps the tables of this block, of which all was read; the metric names end at `names_end`. Throws
  // std::bad_alloc.
  void keep(Bytes block, const std::byte* names_end, const MetricsDataSection& section);

  // The label-name sets, label values and constant labels. Throws std::bad_alloc.
  const MetricsBlockTables& tables();

  // The names of constant labels whose values are not valid UTF-8. Throws std::bad_alloc.
  const std::vector<std::string_view>& constants_without_utf8();

 private:
  void read_kept();

  std::string kept_;  // from the block's start to its first record; empty for none
  bool is_repeated_ = false;
  bool tables_are_of_kept_ = false;  // rather than of the block that kept_ was copied from
  MetricsBlockTables tables_;
  std::vector<std::string_view> constants_without_utf8_;
  const std::byte* constants_end_ = nullptr;  // null: the block at hand has none
};

}  // namespace qvx::metrics
