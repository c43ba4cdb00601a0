#include "qvx/reader/print_plans.h"

#include <memory>
#include <utility>

#include "qvx/counters/counters_block.h"
#include "qvx/data/schema/record_influx.h"
#include "qvx/data/schema/record_json.h"
#include "qvx/support/name_match.h"

namespace qvx {
namespace {

std::optional<RecordPlan> compile(const qvx_type_definition& type, RecordForm form) {
  switch (form) {
    case RecordForm::json_pretty:
      return compile_json_plan(type, json::Style::pretty, "");
    case RecordForm::json_compact:
      return compile_json_plan(type, json::Style::compact, "\n");
    case RecordForm::influx_fields:
      return compile_influx_plan(type);
    case RecordForm::none:
    case RecordForm::tables:
      break;
  }
  return std::nullopt;
}

}  // namespace

const EventPrint& EventPrints::of(LoadedSchema& schema, std::size_t type_index,
                                  const ReaderOptions& options) {
  if (schema.notes == nullptr) schema.notes = std::make_unique<EventPrints>();
  auto& prints = static_cast<EventPrints&>(*schema.notes);
  if (prints.types_.empty()) prints.types_.resize(schema.events->types.size());
  std::optional<EventPrint>& print = prints.types_[type_index];
  if (print) [[likely]]
    return *print;
  const qvx_type_definition& type = *schema.events->types[type_index];
  // Kept when it is whole: memory may run out while it is compiled.
  EventPrint made;
  made.selected = qvx_name_matches(type.name.c_str(), options.include_counters.get(), MatchMode::kWildcard) &&
                  !qvx_name_matches(type.name.c_str(), options.exclude_counters.get(), MatchMode::kWildcard);
  if (made.selected) made.plan = compile(type, output_format_row(options.format).events);
  print = std::move(made);
  prints.bytes_ += sizeof *print + (print->plan ? print->plan->bytes() : 0);
  return *print;
}

const CountersPrint& CountersPrint::of(LoadedSchema& schema, const ReaderOptions& options) {
  if (schema.notes != nullptr) [[likely]]
    return static_cast<CountersPrint&>(*schema.notes);
  auto print = std::make_unique<CountersPrint>();
  switch (output_format_row(options.format).counters) {
    case RecordForm::json_pretty:
      print->plan = compile_counters_plan(*schema.counters, json::Style::pretty, "");
      break;
    case RecordForm::json_compact:
      print->plan = compile_counters_plan(*schema.counters, json::Style::compact, "\n");
      break;
    case RecordForm::tables:
      print->tables.emplace(*schema.counters);
      break;
    case RecordForm::influx_fields:
    case RecordForm::none:
      break;
  }
  schema.notes = std::move(print);
  return static_cast<CountersPrint&>(*schema.notes);
}

std::size_t CountersPrint::bytes() const {
  return sizeof *this + (plan ? plan->bytes() : 0) + (tables ? tables->bytes() : 0);
}

}  // namespace qvx
