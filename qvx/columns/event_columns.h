// The columns of an event type.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "qvx/columns/column.h"
#include "qvx/columns/column_type.h"
#include "qvx/data/schema/schema.h"

namespace qvx::columns {

// A type compiled: one column for each field that a JSON record shows, in the same order.
struct EventColumns {
  std::vector<ColumnType> types;
  std::vector<ColumnPlan> plans;             // one for each
  std::uint64_t reach = 0;                   // furthest byte read, from the start of a record
  std::optional<std::uint64_t> time_offset;  // of the first field that is a time; it tells the time of a row
};

// Field metadata: "description", "type", "counting_mode" and "schema", the identifier. On failure gives
// nothing and says why: nested too deeply, too many columns, or values that together take far more bytes than
// the record has. Throws std::bad_alloc.
[[nodiscard]] std::optional<EventColumns> compile_event_columns(const qvx_type_definition& type,
                                                                const std::string& schema_id,
                                                                std::string& why_not);

// The digits of a schema's identifier. Throws std::bad_alloc.
std::string id_text(const qvx_schema_id& id);

}  // namespace qvx::columns
