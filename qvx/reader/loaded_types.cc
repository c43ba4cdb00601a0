#include "qvx/reader/loaded_types.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "qvx/counters/counters_block.h"
#include "qvx/counters/counters_json.h"
#include "qvx/data/schema/record_influx.h"
#include "qvx/data/schema/record_json.h"
#include "qvx/support/log.h"
#include "qvx/support/name_match.h"

namespace qvx {
namespace {

// Files with more different sets of schemas than this are rare; the limit bounds the memory of a run.
constexpr std::size_t kMaxEntries = 64;

bool is_unchanged(const std::string& path, const struct stat& then) {
  struct stat now {};
  return stat(path.c_str(), &now) == 0 && now.st_dev == then.st_dev && now.st_ino == then.st_ino &&
         now.st_size == then.st_size && now.st_mtim.tv_sec == then.st_mtim.tv_sec &&
         now.st_mtim.tv_nsec == then.st_mtim.tv_nsec && now.st_ctim.tv_sec == then.st_ctim.tv_sec &&
         now.st_ctim.tv_nsec == then.st_ctim.tv_nsec;
}

}  // namespace

LoadedTypes::LoadedTypes(TypeSystemPtr type_system, const ReaderOptions& options)
    : type_system_(std::move(type_system)), options_(options) {
  for (const auto& schema : type_system_->schemas)
    slots_.emplace_back(schema->types.size());
}

const EventType* LoadedTypes::event_type(std::size_t schema_index, std::size_t type_index) {
  if (schema_index >= slots_.size() || type_index >= slots_[schema_index].size()) return nullptr;
  Slot& slot = slots_[schema_index][type_index];
  if (!slot.compiled) {
    slot.event_type = compile(*type_system_->schemas[schema_index]->types[type_index]);
    slot.compiled = true;
  }
  return &slot.event_type;
}

EventType LoadedTypes::compile(const qvx_type_definition& type) const {
  EventType compiled;
  compiled.type = &type;
  compiled.selected =
      qvx_name_matches(type.name.c_str(), options_.include_counters.get(), MatchMode::kWildcard) &&
      !qvx_name_matches(type.name.c_str(), options_.exclude_counters.get(), MatchMode::kWildcard);
  if (!compiled.selected) return compiled;
  switch (options_.format) {
    case OutputFormat::json:
      compiled.plan = compile_json_plan(type, json::Style::pretty, "");
      break;
    case OutputFormat::ndjson:
      compiled.plan = compile_json_plan(type, json::Style::compact, "\n");
      break;
    case OutputFormat::influx:
      compiled.plan = compile_influx_plan(type);
      break;
    default:
      break;
  }
  return compiled;
}

const std::optional<RecordPlan>& LoadedTypes::counters_plan() {
  if (!counters_compiled_) {
    const bool pretty = options_.format == OutputFormat::json;
    counters_plan_ =
        compile_counters_plan(*type_system_->counters_schema,
                              pretty ? json::Style::pretty : json::Style::compact, pretty ? "" : "\n");
    counters_compiled_ = true;
  }
  return counters_plan_;
}

const CountersTables& LoadedTypes::counters_tables() {
  if (!counters_tables_) counters_tables_.emplace(*type_system_->counters_schema);
  return *counters_tables_;
}

std::shared_ptr<LoadedTypes> TypeCache::load(std::span<const qvx_schema_id> event_schemas,
                                             const qvx_schema_id& counters_schema) {
  const auto is_wanted = [&](const Entry& entry) {
    return entry.identifiers.size() == event_schemas.size() + 1 &&
           entry.identifiers.back() == counters_schema &&
           std::equal(event_schemas.begin(), event_schemas.end(), entry.identifiers.begin());
  };
  const auto found = std::find_if(entries_.begin(), entries_.end(), is_wanted);
  if (found != entries_.end()) {
    const bool unchanged = std::all_of(found->files.begin(), found->files.end(), [](const FileState& file) {
      return is_unchanged(file.path, file.status);
    });
    if (unchanged) {
      entries_.splice(entries_.begin(), entries_, found);
      return entries_.front().types;
    }
    entries_.erase(found);
  }

  const std::uint64_t messages_before = qvx_logged_messages();
  Entry entry;
  TypeSystemPtr type_system = load_anew(event_schemas, counters_schema, entry.files);
  if (type_system == nullptr) return nullptr;
  entry.types = std::make_shared<LoadedTypes>(std::move(type_system), options_);
  std::shared_ptr<LoadedTypes> types = entry.types;
  if (qvx_logged_messages() == messages_before) {
    entry.identifiers.assign(event_schemas.begin(), event_schemas.end());
    entry.identifiers.push_back(counters_schema);
    if (entries_.size() >= kMaxEntries) entries_.pop_back();
    entries_.push_front(std::move(entry));
  }
  return types;
}

TypeSystemPtr TypeCache::load_anew(std::span<const qvx_schema_id> event_schemas,
                                   const qvx_schema_id& counters_schema,
                                   std::vector<FileState>& files) const {
  const auto path_of = [this, &files](const qvx_schema_id& id) {
    std::optional<std::string> path = schema_file_path(options_.schema_path.c_str(), id);
    if (path) {
      FileState& file = files.emplace_back();
      file.path = *path;
      file.status = {};
      stat(path->c_str(), &file.status);
    }
    return path;
  };
  TypeSystemPtr type_system(qvx_type_system_create());
  if (type_system == nullptr) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to create type system object: %s", std::strerror(errno));
    return nullptr;
  }
  for (const qvx_schema_id& id : event_schemas) {
    if (schema_id_is_empty(id)) continue;
    const std::optional<std::string> path = path_of(id);
    if (!path) {
      QVX_LOG(QVX_LOG_ERROR, "Failed to build schema file name from the schema id");
      return nullptr;
    }
    if (qvx_type_system_load_schema_file(type_system.get(), path->c_str()) == nullptr) {
      QVX_LOG(QVX_LOG_ERROR, "Failed to load schema from file: %s", path->c_str());
      return nullptr;
    }
  }
  if (schema_id_is_empty(counters_schema)) return type_system;
  const std::optional<std::string> path = path_of(counters_schema);
  if (!path) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to build schema file name from the counters schema id");
    return nullptr;
  }
  type_system->counters_schema.reset(qvx_counters_schema_from_json_file(path->c_str()));
  if (type_system->counters_schema == nullptr) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to load counters schema from file: %s", path->c_str());
    return nullptr;
  }
  return type_system;
}

}  // namespace qvx
