// The counters schema: which counters a counters block holds, in groups, and where each value lies.
//
// A schema is read from JSON, with offsets and size computed at the end, or built with the functions below;
// then qvx_counters_schema_update_counter_offsets must follow the last change. Faults are logged and told by
// the result.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "qvx/counters/counter_group.h"
#include "qvx/data/schema_id.h"

struct qvx_counters_schema {
  std::uint32_t size_of_counters = 0;  // bytes of the values area
  std::vector<qvx::CounterGroupPtr> groups;
};

[[nodiscard]] qvx_counters_schema* qvx_counters_schema_create() noexcept;
void qvx_counters_schema_destroy(qvx_counters_schema* schema) noexcept;

// Takes the group over. On failure the group stays the caller's; no group is one.
[[nodiscard]] bool qvx_counters_schema_add_group(qvx_counters_schema* schema,
                                                 qvx_counter_group* group) noexcept;

// The first counter of that name; null when there is none.
const qvx_counter_info* qvx_counters_schema_find_counter(const qvx_counters_schema* schema,
                                                         const char* name) noexcept;

// Lays all counters of all groups out in one run. Counter sets do not count: a group's counters lie there
// once. A string counter of length 0 ends the update and leaves the later offsets as they are.
void qvx_counters_schema_update_counter_offsets(qvx_counters_schema* schema) noexcept;

// The sum of the lengths of the string counters and 8 bytes for every other one, whatever its length.
std::uint32_t qvx_counters_schema_size_of_counters(const qvx_counters_schema* schema) noexcept;

// The number of counters of a schema whose groups all have one counter set; 0 when one has another number.
std::uint32_t qvx_counters_schema_number_of_counters(const qvx_counters_schema* schema) noexcept;

// The number of values: of each group the counters times the counter sets.
std::uint64_t qvx_counters_schema_number_of_values(const qvx_counters_schema* schema) noexcept;

namespace qvx {

// The most values that one counters block is printed with, in any format. A set without counters takes as
// much as one value.
inline constexpr std::uint64_t kMaxCounterValues = std::uint64_t{1} << 20;

struct CountersSchemaDelete {
  void operator()(qvx_counters_schema* schema) const noexcept { qvx_counters_schema_destroy(schema); }
};
using CountersSchemaPtr = std::unique_ptr<qvx_counters_schema, CountersSchemaDelete>;

}  // namespace qvx
