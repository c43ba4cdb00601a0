// Counters blocks as text: JSON objects through a record plan, and tables for people.
//
// A block is given with all bytes at hand from its magic on; the values area begins behind its 16-byte
// header.
#pragma once

#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/counters/counters_schema.h"
#include "qvx/plan/record_plan.h"
#include "qvx/support/bytes.h"
#include "qvx/support/clock.h"
#include "qvx/support/json_text.h"
#include "qvx/support/output_sink.h"

namespace qvx {

// The plan that writes counters blocks of the schema as JSON, each followed by `after`. All counter sets
// of a group are read from the same offsets, deliberately, so they show the same values. Counters without
// a JSON value are left out. Of counters of one name in a group the last is shown, at the place of the
// first. Nothing when the schema is too large.
std::optional<RecordPlan> compile_counters_plan(const qvx_counters_schema& schema, json::Style style,
                                                std::string_view after);

// Writes counters blocks as one table per group. Values are taken by position, eight bytes each, and not by
// offset: row s and column c show slot c + s × columns of the values area. A slot outside the block shows as
// zero, and a group has no more rows than lie in its block or 65536 values take, whatever its schema says.
class CountersTables {
 public:
  explicit CountersTables(const qvx_counters_schema& schema);

  void write(Bytes block, OutputSink& sink, LocalTimeText& clock) const;

 private:
  struct Group {
    std::string head;  // from the first rule to the one below the column names
    std::string rule;
    std::size_t row_label_width = 0;  // 0: rows have no label
    std::uint32_t rows = 0;
    std::vector<std::uint32_t> data_types;  // a column each
  };

  static void write_rows(const Group& group, Bytes values, OutputSink& sink);

  std::vector<Group> groups_;
};

}  // namespace qvx

// The JSON text of one block; nothing when it cannot be made. Compiles the schema anew: for more than a few
// blocks keep a plan.
std::optional<std::string> qvx_counters_block_to_json(qvx::Bytes block, const qvx_counters_schema* schema,
                                                      qvx::json::Style style);

// The tables of one block.
void qvx_counters_block_print(std::FILE* stream, qvx::Bytes block, const qvx_counters_schema* schema);
