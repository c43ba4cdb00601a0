#include "qvx/columns/counters_columns.h"

#include <algorithm>
#include <map>
#include <set>
#include <string_view>

#include "qvx/data/block.h"
#include "qvx/support/saturate.h"

namespace qvx::columns {
namespace {

constexpr std::uint64_t kMostValues = std::uint64_t{1} << 20;

std::string_view name_of(const qvx_counter_info& counter) {
  return counter.name ? std::string_view(*counter.name) : std::string_view();
}

ColumnKind kind_of(std::uint32_t data_type) {
  switch (data_type) {
    case QVX_COUNTER_UINT64:
    case QVX_COUNTER_BIT64:
      return ColumnKind::u64;
    case QVX_COUNTER_FP64:
      return ColumnKind::f64;
    case QVX_COUNTER_STRING:
      return ColumnKind::text;
    default:
      return ColumnKind::i64;
  }
}

void describe(const qvx_counter_group& group, const qvx_counter_info& counter, const std::string& schema_id,
              ColumnType& type) {
  const auto add = [&type](const char* key, const std::optional<std::string>& text) {
    if (text && !text->empty()) type.metadata.emplace_back(key, utf8_text(*text));
  };
  add("description", counter.description);
  add("units", counter.units);
  if (const char* const mode = counter_counting_type_name(counter.counting_type))
    type.metadata.emplace_back("counting_mode", mode);
  if (const char* const granularity = granularity_name(group.granularity))
    type.metadata.emplace_back("granularity", granularity);
  if (!schema_id.empty()) type.metadata.emplace_back("schema", schema_id);
}

std::string unused(const std::string& name, std::set<std::string>& names) {
  std::string free = name;
  for (int number = 2; !names.insert(free).second; ++number)
    free = name + "_" + std::to_string(number);
  return free;
}

}  // namespace

std::optional<CountersColumns> compile_counters_columns(const qvx_counters_schema& schema,
                                                        const std::string& schema_id, std::string& why_not) {
  CountersColumns columns;
  std::uint64_t values = 0;
  std::set<std::string> names;
  for (const auto& group : schema.groups) {
    columns.rows = std::max(columns.rows, group->num_counter_sets);
    values = saturating_add(values, saturating_multiply(group->num_counter_sets, group->counters.size()));
    if (std::max<std::uint64_t>(columns.rows, values) > kMostValues) {
      why_not = "a block has more than 1048576 values";
      return std::nullopt;
    }
    std::vector<const qvx_counter_info*> shown;
    std::map<std::string_view, std::size_t> places;
    for (const auto& counter : group->counters) {
      const auto [place, is_first] = places.try_emplace(name_of(*counter), shown.size());
      if (is_first) {
        shown.push_back(counter.get());
      } else {
        shown[place->second] = counter.get();
      }
    }
    const char* const group_name = counter_group_display_name(*group);
    const std::string prefix = utf8_text(group_name != nullptr ? group_name : "unset") + ".";
    for (const qvx_counter_info* const counter : shown) {
      ColumnType& type = columns.types.emplace_back();
      ColumnPlan& plan = columns.plans.emplace_back();
      type.name = unused(prefix + utf8_text(name_of(*counter)), names);
      type.kind = plan.kind = kind_of(counter->data_type);
      describe(*group, *counter, schema_id, type);
      plan.offset = std::uint64_t{kCountersHeaderSize} + counter->offset;
      plan.is_utf8 = plan.kind == ColumnKind::text;
      plan.count = plan.is_utf8 ? counter->length : 1;
      type.count = plan.is_utf8 ? counter->length : 0;
      columns.sets.push_back(group->num_counter_sets);
      columns.reach =
          std::max(columns.reach, plan.offset + (plan.is_utf8 ? counter->length : kCounterSlotSize));
    }
  }
  return columns;
}

}  // namespace qvx::columns
