// The columns of counters blocks: a row for each counter set.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "qvx/columns/column.h"
#include "qvx/columns/column_type.h"
#include "qvx/counters/counters_schema.h"

namespace qvx::columns {

// Row `s` of a block shows the counters of the groups that have a set `s`; the others are null. As in JSON,
// all sets of a group are read from the same offsets.
struct CountersColumns {
  std::vector<ColumnType> types;    // "group.counter"; of the same name the later ones get "_2", "_3", ...
  std::vector<ColumnPlan> plans;    // offsets count from the magic of a block
  std::vector<std::uint32_t> sets;  // of the group of each column
  std::uint64_t reach = 0;          // furthest byte read, from the magic
  std::uint32_t rows = 0;           // of a block: the most sets that a group has
};

// Field metadata: "description", "units", "counting_mode", "granularity" and "schema". Of counters of one
// name in a group the last is shown, at the place of the first. Nothing, and why, when blocks would have more
// than 2^20 rows or values. Throws std::bad_alloc.
[[nodiscard]] std::optional<CountersColumns> compile_counters_columns(const qvx_counters_schema& schema,
                                                                      const std::string& schema_id,
                                                                      std::string& why_not);

}  // namespace qvx::columns
