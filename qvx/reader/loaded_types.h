// The type system that a file names, together with the plans that were compiled from it, and a cache of both.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "qvx/counters/counters_tables.h"
#include "qvx/data/schema/type_system.h"
#include "qvx/data/schema_id.h"
#include "qvx/plan/record_plan.h"
#include "qvx/reader/options.h"

namespace qvx {

// How records of one event type are printed.
struct EventType {
  const qvx_type_definition* type = nullptr;
  bool selected = false;           // by the include and exclude patterns
  std::optional<RecordPlan> plan;  // none: records of the type have no text in this format
};

// A type system and what the run's options make of its types. Types are compiled when they are first met.
class LoadedTypes {
 public:
  LoadedTypes(TypeSystemPtr type_system, const ReaderOptions& options);

  const qvx_type_system& type_system() const { return *type_system_; }

  // Null when there is no such type.
  const EventType* event_type(std::size_t schema_index, std::size_t type_index);

  // None: the counters have no JSON text.
  const std::optional<RecordPlan>& counters_plan();
  const CountersTables& counters_tables();

 private:
  struct Slot {
    bool compiled = false;
    EventType event_type;
  };

  EventType compile(const qvx_type_definition& type) const;

  TypeSystemPtr type_system_;
  const ReaderOptions& options_;
  std::vector<std::vector<Slot>> slots_;  // by schema and type
  bool counters_compiled_ = false;
  std::optional<RecordPlan> counters_plan_;
  std::optional<CountersTables> counters_tables_;
};

// Loads the schemas that a list of identifiers and a counters schema identifier name. What was loaded without
// a word is kept and given out again for the same identifiers, as long as the schema files have not changed;
// anything that had something to say is loaded anew, so that it says it again.
class TypeCache {
 public:
  explicit TypeCache(const ReaderOptions& options) : options_(options) {}

  // Null on failure, which is logged. All-zero identifiers are skipped and take no slot.
  std::shared_ptr<LoadedTypes> load(std::span<const qvx_schema_id> event_schemas,
                                    const qvx_schema_id& counters_schema);

 private:
  struct FileState {
    std::string path;
    struct stat status;
  };
  struct Entry {
    std::vector<qvx_schema_id> identifiers;  // the counters schema's is the last
    std::vector<FileState> files;
    std::shared_ptr<LoadedTypes> types;
  };

  TypeSystemPtr load_anew(std::span<const qvx_schema_id> event_schemas, const qvx_schema_id& counters_schema,
                          std::vector<FileState>& files) const;

  const ReaderOptions& options_;
  std::list<Entry> entries_;  // the one used last in front
};

}  // namespace qvx
