#include "qvx/scan/type_cache.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <optional>
#include <tuple>

#include "qvx/counters/counters_json.h"
#include "qvx/support/log.h"

namespace qvx {
namespace {

// What changes with a file's content.
auto state_of(const struct stat& file) {
  return std::tuple(file.st_dev, file.st_ino, file.st_size, file.st_mtim.tv_sec, file.st_mtim.tv_nsec,
                    file.st_ctim.tv_sec, file.st_ctim.tv_nsec);
}

bool is_unchanged(const char* path, const struct stat& then) {
  struct stat now {};
  return stat(path, &now) == 0 && state_of(now) == state_of(then);
}

std::size_t bytes_of(const std::string& text) {
  return sizeof text + text.capacity();
}

std::size_t bytes_of(const std::optional<std::string>& text) {
  return sizeof text + (text ? text->capacity() : 0);
}

std::size_t bytes_of(const qvx_schema& schema) {
  std::size_t bytes = sizeof schema;
  for (const auto& type : schema.types) {
    bytes += sizeof *type + sizeof type + type->name.capacity();
    for (const auto& field : type->fields)
      bytes += sizeof *field + sizeof field + bytes_of(field->field_name) + bytes_of(field->description) +
               bytes_of(field->type_name);
  }
  return bytes;
}

std::size_t bytes_of(const qvx_counters_schema& schema) {
  std::size_t bytes = sizeof schema;
  for (const auto& group : schema.groups) {
    bytes += sizeof *group + sizeof group;
    for (const auto& counter : group->counters)
      bytes += sizeof *counter + sizeof counter + bytes_of(counter->name) + bytes_of(counter->description) +
               bytes_of(counter->units);
  }
  return bytes;
}

std::size_t bytes_of(const LoadedSchema& schema) {
  return sizeof schema + (schema.events ? bytes_of(*schema.events) : bytes_of(*schema.counters));
}

}  // namespace

TypeCache::TypeCache(std::string folder, std::size_t most_kept)
    : folder_(std::move(folder)), most_kept_(most_kept) {}

bool TypeCache::load(std::span<const qvx_schema_id> event_schemas, const qvx_schema_id& counters_schema,
                     TypeSet& to) {
  if (loader_ == nullptr) loader_.reset(qvx_type_system_create());
  if (loader_ == nullptr) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to create type system object: %s", std::strerror(errno));
    return false;
  }
  TypeSet set;
  for (const qvx_schema_id& id : event_schemas) {
    if (schema_id_is_empty(id)) continue;
    set.events.push_back(find_or_load(Kind::events, id));
    if (set.events.back() == nullptr) return false;
  }
  if (!schema_id_is_empty(counters_schema)) {
    set.counters = find_or_load(Kind::counters, counters_schema);
    if (set.counters == nullptr) return false;
  } else {
    if (no_counters_ == nullptr) {
      auto made = std::make_shared<LoadedSchema>();
      made->counters.reset(qvx_counters_schema_create());
      if (made->counters == nullptr) throw std::bad_alloc();
      no_counters_ = std::move(made);
    }
    set.counters = no_counters_;
  }
  to = std::move(set);
  forget_unused();
  return true;
}

std::shared_ptr<LoadedSchema> TypeCache::find_or_load(Kind kind, const qvx_schema_id& id) {
  const Key key(kind, id.bytes);
  if (const auto found = by_key_.find(key); found != by_key_.end()) {
    const auto entry = found->second;
    if (is_unchanged(entry->path.c_str(), entry->status)) {
      entries_.splice(entries_.begin(), entries_, entry);
      account(*entry);
      replay_messages(entry->said);
      return entry->schema;
    }
    forget(entry);
  }

  Entry entry{key, {}, {}, nullptr, {}, 0, 0};
  const std::optional<std::string> path = schema_file_path(folder_.c_str(), id);
  if (!path) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to build schema file name from the %s",
            kind == Kind::events ? "schema id" : "counters schema id");
    return nullptr;
  }
  entry.path = *path;
  stat(entry.path.c_str(), &entry.status);
  const LogRecorder recorder(QVX_LOG_IS_ENABLED(QVX_LOG_DEBUG) ? QVX_LOG_DEBUG : QVX_LOG_INFO,
                             LogRecorder::Mode::besides);
  entry.schema = load_file(kind, entry.path);
  if (entry.schema == nullptr) return nullptr;
  std::shared_ptr<LoadedSchema> schema = entry.schema;
  schema->id = id;
  if (!recorder.is_complete()) return schema;
  entry.said = recorder.messages();
  entry.base_bytes = sizeof entry + bytes_of(entry.path) + bytes_of(*schema);
  for (const LoggedMessage& message : entry.said)
    entry.base_bytes += bytes_of(message.text);
  entries_.push_front(std::move(entry));
  try {
    by_key_.emplace(key, entries_.begin());
  } catch (const std::bad_alloc&) {
    entries_.pop_front();
    throw;
  }
  account(entries_.front());
  return schema;
}

std::shared_ptr<LoadedSchema> TypeCache::load_file(Kind kind, const std::string& path) {
  auto schema = std::make_shared<LoadedSchema>();
  if (kind == Kind::counters) {
    schema->counters.reset(qvx_counters_schema_from_json_file(path.c_str()));
    if (schema->counters != nullptr) return schema;
    QVX_LOG(QVX_LOG_ERROR, "Failed to load counters schema from file: %s", path.c_str());
    return nullptr;
  }
  if (qvx_type_system_load_schema_file(loader_.get(), path.c_str()) == nullptr) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to load schema from file: %s", path.c_str());
    return nullptr;
  }
  schema->events = std::move(loader_->schemas.back());
  loader_->schemas.pop_back();
  return schema;
}

// Counts an entry with what its visitor has added to it since.
void TypeCache::account(Entry& entry) {
  const SchemaNotes* const notes = entry.schema->notes.get();
  const std::size_t now = entry.base_bytes + (notes != nullptr ? notes->bytes() : 0);
  bytes_ += now - entry.bytes;
  entry.bytes = now;
}

void TypeCache::forget(std::list<Entry>::iterator entry) {
  bytes_ -= entry->bytes;
  by_key_.erase(entry->key);
  entries_.erase(entry);
}

// Schemas that a set outside holds stay, and do not count.
void TypeCache::forget_unused() {
  const auto is_in_use = [](const Entry& entry) { return entry.schema.use_count() > 1; };
  std::size_t in_use = 0;
  for (auto entry = entries_.begin(); entry != entries_.end() && is_in_use(*entry); ++entry)
    in_use += entry->bytes;
  for (auto entry = entries_.end(); bytes_ - in_use > most_kept_ && entry != entries_.begin();) {
    --entry;
    if (!is_in_use(*entry)) forget(entry++);
  }
}

}  // namespace qvx
