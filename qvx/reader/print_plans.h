// How the records of a schema are printed: compiled when they are first met, kept with the schema.
#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "qvx/counters/counters_tables.h"
#include "qvx/plan/record_plan.h"
#include "qvx/reader/options.h"
#include "qvx/scan/type_cache.h"

namespace qvx {

// How records of one event type are printed.
struct EventPrint {
  bool selected = false;           // by the include and exclude patterns
  std::optional<RecordPlan> plan;  // none: records of the type have no text in this format
};

class EventPrints final : public SchemaNotes {
 public:
  // Those of the schema of an events block; compiles what is missing.
  static const EventPrint& of(LoadedSchema& schema, std::size_t type_index, const ReaderOptions& options);

  std::size_t bytes() const override { return bytes_; }

 private:
  std::vector<std::optional<EventPrint>> types_;  // by index; none: not compiled so far
  std::size_t bytes_ = 0;
};

// One of the two, as the format has it. A plan of its own may be missing: the counters then have no JSON
// text.
class CountersPrint final : public SchemaNotes {
 public:
  static const CountersPrint& of(LoadedSchema& schema, const ReaderOptions& options);

  std::size_t bytes() const override;

  std::optional<RecordPlan> plan;
  std::optional<CountersTables> tables;
};

}  // namespace qvx
