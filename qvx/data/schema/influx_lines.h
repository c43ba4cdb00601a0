// Plans that write whole Influx lines but for their time: `measurement,tag=value,... field=value,... `.
//
// What a server would refuse is left out: NaN and the infinities, text that is not UTF-8, integers beyond the
// signed 64-bit ones, names without a character. A record or block whose line would have no field has none.
#pragma once

#include <array>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/counters/counters_schema.h"
#include "qvx/data/schema/schema.h"
#include "qvx/host/adapters.h"
#include "qvx/plan/record_plan.h"

namespace qvx {

// A measurement of counters with the keys of its tags, in the order in which they are written.
struct InfluxMeasurement {
  const char* name;
  std::vector<const char*> tag_keys;
};

inline constexpr std::size_t kHcaCounters = 0;
inline constexpr std::size_t kHcaPortCounters = 1;
inline constexpr std::size_t kCpuCounters = 2;
inline constexpr std::size_t kNodeCounters = 3;
using InfluxMeasurements = std::array<InfluxMeasurement, 4>;

// Of a record of the type: the measurement is the type's name, fields marked as index become tags. Nothing
// when records of the type have no text.
[[nodiscard]] std::optional<RecordPlan> compile_influx_line(const qvx_type_definition& type);

// Of a counters block with its header: one plan a line, by measurement, then adapter, port and set. A counter
// whose name begins with "hcx" belongs to the adapter whose name is the longest that begins it. All sets of a
// group have the same offsets, so only the first set has values of its own. Names and GUIDs that are not
// known make no tag. Throws std::bad_alloc.
[[nodiscard]] std::vector<RecordPlan> compile_influx_counters_lines(
    const qvx_counters_schema& schema, std::span<const qvx_adapter_info> adapters,
    const InfluxMeasurements& measurements);

}  // namespace qvx
