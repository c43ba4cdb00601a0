// Counters blocks as text tables for people.
//
// A block is given with all bytes at hand from its magic on; the values area begins behind its 16-byte
// header.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "qvx/counters/counters_schema.h"
#include "qvx/support/bytes.h"
#include "qvx/support/clock.h"
#include "qvx/support/output_sink.h"

namespace qvx {

// Writes counters blocks as one table per group. Values are taken by position, eight bytes each, and not by
// offset: row s and column c show slot c + s × columns of the values area. A slot outside the block shows as
// zero. Tables stop when a block has kMaxCounterValues values; how many rows are then left out is logged at
// level 4.
class CountersTables {
 public:
  explicit CountersTables(const qvx_counters_schema& schema);

  void write(Bytes block, OutputSink& sink, LocalTimeText& clock) const;

  // Memory in use, roughly.
  std::size_t bytes() const;

 private:
  struct Group {
    std::string head;  // from the first rule to the one below the column names
    std::string rule;
    std::size_t row_label_width = 0;  // 0: rows have no label
    std::uint64_t rows = 0;
    std::vector<std::uint32_t> data_types;  // a column each
  };

  static void write_rows(const Group& group, Bytes values, OutputSink& sink);

  std::vector<Group> groups_;
  std::uint64_t rows_left_out_ = 0;
};

}  // namespace qvx

// The tables of one block. False when they could not be written or memory is short.
[[nodiscard]] bool qvx_counters_block_print(std::FILE* stream, qvx::Bytes block,
                                            const qvx_counters_schema* schema) noexcept;
