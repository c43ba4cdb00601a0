// The schemas that data files name, loaded from the schema folder once per identifier.
#pragma once

#include <sys/stat.h>

#include <array>
#include <cstddef>
#include <list>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "qvx/counters/counters_schema.h"
#include "qvx/data/schema/schema.h"
#include "qvx/data/schema/type_system.h"
#include "qvx/data/schema_id.h"
#include "qvx/support/log_recorder.h"

namespace qvx {

// What a visitor derives from a schema and keeps with it, such as compiled plans.
class SchemaNotes {
 public:
  virtual ~SchemaNotes() = default;
  // Memory in use, roughly.
  virtual std::size_t bytes() const = 0;
};

// The schema of one file: event types or counters.
struct LoadedSchema {
  qvx_schema_id id;
  SchemaPtr events;                    // null for a counters schema
  CountersSchemaPtr counters;          // null for an event schema
  std::unique_ptr<SchemaNotes> notes;  // made by the visitor when it first meets the schema
};

// The types that decode blocks.
struct TypeSet {
  std::vector<std::shared_ptr<LoadedSchema>> events;  // by slot
  std::shared_ptr<LoadedSchema> counters;             // without counters when the file names none

  // The schema in the slot, when it holds a type of that index; else null.
  LoadedSchema* find(std::size_t slot, std::size_t type_index) const {
    const bool found = slot < events.size() && type_index < events[slot]->events->types.size();
    return found ? events[slot].get() : nullptr;
  }
};

// Gives out schemas by identifier. A schema is read again when its file has changed; one whose loading logged
// something says it again each time it is asked for. What is kept beside the set given out last is bounded:
// schemas that were not used for the longest time are forgotten first. One cache serves one thread and one
// kind of visitor, since the notes are the visitor's; sets do not outlive it.
class TypeCache {
 public:
  static constexpr std::size_t kMostKept = std::size_t{32} << 20;  // bytes

  explicit TypeCache(std::string folder, std::size_t most_kept = kMostKept);

  // Loads the set that a list of identifiers and a counters schema identifier name. False on failure, which
  // is logged. All-zero identifiers are skipped and take no slot. Throws std::bad_alloc.
  [[nodiscard]] bool load(std::span<const qvx_schema_id> event_schemas, const qvx_schema_id& counters_schema,
                          TypeSet& to);

  // Memory of everything kept, roughly.
  std::size_t bytes() const { return bytes_; }

 private:
  enum class Kind { events, counters };
  using Key = std::pair<Kind, std::array<std::byte, 16>>;

  struct Entry {
    Key key;
    std::string path;
    struct stat status;
    std::shared_ptr<LoadedSchema> schema;
    std::vector<LoggedMessage> said;  // while it was loaded
    std::size_t base_bytes = 0;       // without the notes
    std::size_t bytes = 0;
  };

  std::shared_ptr<LoadedSchema> find_or_load(Kind kind, const qvx_schema_id& id);
  std::shared_ptr<LoadedSchema> load_file(Kind kind, const std::string& path);
  void account(Entry& entry);
  void forget(std::list<Entry>::iterator entry);
  void forget_unused();

  std::string folder_;
  std::size_t most_kept_;
  TypeSystemPtr loader_;  // owns the built-in types that every schema refers to
  std::shared_ptr<LoadedSchema> no_counters_;
  std::list<Entry> entries_;  // the one used last in front
  std::map<Key, std::list<Entry>::iterator> by_key_;
  std::size_t bytes_ = 0;
};

}  // namespace qvx
