#include "qvx/data/schema/type_system.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

#include "qvx/counters/counters_json.h"
#include "qvx/counters/counters_schema.h"
#include "qvx/data/schema/schema_json.h"
#include "qvx/support/json_parse.h"
#include "qvx/support/json_text.h"
#include "qvx/support/log.h"
#include "qvx/support/md5.h"
#include "qvx/support/text.h"
#include "qvx/support/version.h"

namespace {

namespace json = qvx::json;

constexpr const char* kTypeSystemName = "Quorvex type system";
constexpr const char* kBuiltinSchemaName = "<built-in>";
constexpr std::uint32_t kBuiltinSchemaVersion = qvx::pack_version(1, 5, 0);

const char* name_of(const qvx_schema& schema) {
  return schema.name ? schema.name->c_str() : "<undefined>";
}

// Takes a schema into the next slot; false when memory is short.
bool append_schema(qvx_type_system* ts, qvx::SchemaPtr schema) noexcept {
  try {
    ts->schemas.push_back(std::move(schema));
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

bool adopt_and_resolve(qvx_type_system* ts, qvx_schema& schema) noexcept {
  schema.parent = ts->builtin.get();
  return qvx::schema_resolve(schema);
}

// Links what can be linked and says nothing of the rest.
void adopt_quietly(qvx_type_system* ts, qvx_schema& schema) noexcept {
  schema.parent = ts->builtin.get();
  for (const auto& type : schema.types)
    for (const auto& field : type->fields)
      field->type = qvx_schema_find_type(&schema, field->type_name ? field->type_name->c_str() : "");
}

// The counters schema of a type system in JSON: a member of its own, or the object itself.
bool read_counters_schema(qvx_type_system* ts, const json::Value& value, const char* message) noexcept {
  ts->counters_schema.reset(qvx_counters_schema_from_json(value));
  if (ts->counters_schema == nullptr) QVX_LOG(QVX_LOG_ERROR, "%s", message);
  return ts->counters_schema != nullptr;
}

bool read_event_schema(qvx_type_system* ts, const json::Value& element) noexcept {
  qvx::SchemaPtr schema = qvx::schema_from_json(element);
  if (schema == nullptr) {
    QVX_LOG(QVX_LOG_ERROR, "[ts] Failed to deserialize: unable to decode type schema");
    return false;
  }
  const auto digest = json::pretty_text_md5(element);
  if (!digest || !qvx::schema_set_digest(*schema, {*digest})) {
    QVX_LOG(QVX_LOG_ERROR, "[ts] Failed to fill schema '%s' md5 digest", name_of(*schema));
  }
  if (!adopt_and_resolve(ts, *schema)) {
    QVX_LOG(QVX_LOG_ERROR, "[ts] Failed to deserialize: unable to adjust type fields of schema %s",
            name_of(*schema));
    return false;
  }
  return append_schema(ts, std::move(schema));
}

bool read_type_system(qvx_type_system* ts, const json::Object& object) noexcept {
  const json::Value* const counters = object.find("counters_schema");
  const json::Array* const schemas = object.array_at("schemas");
  if (counters != nullptr &&
      !read_counters_schema(ts, *counters, "[ts] Failed to deserialize: unable to decode counters schema"))
    return false;
  if (schemas == nullptr) {
    if (counters != nullptr) return true;
    if (object.find("counter_groups") == nullptr) {
      QVX_LOG(QVX_LOG_ERROR,
              "[schema writer] schema was not recognized neither as type system nor as counters schema");
      return false;
    }
    try {
      return read_counters_schema(ts, json::Value(object),
                                  "[ts] Failed to deserialize: unable to decode JSON as counters schema");
    } catch (const std::bad_alloc&) {
      return false;
    }
  }
  if (schemas->size() > qvx::kMaxSchemas) {
    QVX_LOG(QVX_LOG_ERROR, "[ts] Failed to deserialize: number of schemas %zu exceeds limit %d",
            schemas->size(), static_cast<int>(qvx::kMaxSchemas));
  }
  const std::size_t count = std::min(schemas->size(), qvx::kMaxSchemas);
  for (std::size_t index = 0; index < count; ++index)
    if (!read_event_schema(ts, (*schemas)[index])) return false;
  return true;
}

}  // namespace

namespace qvx {

void OwnedCountersSchemaDelete::operator()(qvx_counters_schema* schema) const noexcept {
  qvx_counters_schema_destroy(schema);
}

std::optional<std::string> schema_file_path(const char* directory, const qvx_schema_id& id) noexcept {
  const std::optional<std::string> text = directory != nullptr ? schema_id_text(id) : std::nullopt;
  if (!text) return std::nullopt;
  return qvx_expand_template("%s/schema_%s.json", directory, text->c_str());
}

}  // namespace qvx

qvx_type_system* qvx_type_system_create() noexcept {
  qvx::TypeSystemPtr ts(new (std::nothrow) qvx_type_system);
  if (ts == nullptr) return nullptr;
  ts->builtin.reset(qvx_schema_create(kBuiltinSchemaName, kBuiltinSchemaVersion));
  if (ts->builtin == nullptr) return nullptr;
  if (qvx_schema_register_builtins(ts->builtin.get()) != 0) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to register built-in types");
    return nullptr;
  }
  ts->counters_schema.reset(qvx_counters_schema_create());
  if (ts->counters_schema == nullptr) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to create counters schema object");
    return nullptr;
  }
  return ts.release();
}

void qvx_type_system_destroy(qvx_type_system* ts) noexcept {
  delete ts;
}

qvx_schema* qvx_type_system_new_schema(qvx_type_system* ts, const char* name, std::uint32_t version,
                                       std::uint8_t* out_index) noexcept {
  if (ts->schemas.size() >= qvx::kMaxSchemas) return nullptr;
  qvx::SchemaPtr schema(qvx_schema_create(name, version));
  if (schema == nullptr) return nullptr;
  schema->parent = ts->builtin.get();
  if (!qvx::schema_fill_digest(*schema) || !append_schema(ts, std::move(schema))) return nullptr;
  if (out_index != nullptr) *out_index = static_cast<std::uint8_t>(ts->schemas.size() - 1);
  return ts->schemas.back().get();
}

void qvx_type_system_remove_last_schema(qvx_type_system* ts) noexcept {
  if (!ts->schemas.empty()) ts->schemas.pop_back();
}

int qvx_type_system_add_schema_json(qvx_type_system* ts, const char* text, std::uint8_t* out_index) noexcept {
  if (ts->schemas.size() >= qvx::kMaxSchemas) return -1;
  const std::optional<json::Value> value = text != nullptr ? json::parse(text) : std::nullopt;
  if (!value) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to read schemas as JSON");
    return -1;
  }
  qvx::SchemaPtr schema = qvx::schema_from_json(*value);
  qvx::CountersSchemaPtr counters;
  bool is_short = false;  // then a text of both kinds must not pass for an event schema
  try {
    counters = qvx::try_counters_schema_from_json(*value);
  } catch (const std::bad_alloc&) {
    is_short = true;
  }
  if (is_short || (schema == nullptr && counters == nullptr)) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to convert schema from JSON to internal memory representation");
    return -1;
  }
  const auto report = [out_index](std::size_t index) {
    if (out_index != nullptr) *out_index = static_cast<std::uint8_t>(index);
    return 0;
  };
  if (counters != nullptr) {
    QVX_LOG(QVX_LOG_DEBUG, "FOUND COUNTERS SCHEMA");
    ts->counters_schema.reset(counters.release());
    ts->counters_digest = {};
    return report(qvx::kCountersSchemaIndex);
  }
  const qvx_schema_id digest{qvx::md5(text)};
  for (std::size_t index = 0; index < ts->schemas.size(); ++index) {
    if (ts->schemas[index]->md5_digest != digest) continue;
    QVX_LOG(QVX_LOG_DEBUG, "Schema already exists");
    return report(index);
  }
  QVX_LOG(QVX_LOG_DEBUG, "FOUND EVENTS SCHEMA");
  if (!qvx::schema_set_digest(*schema, digest) || !append_schema(ts, std::move(schema))) return -1;
  // A type that stays unknown fails the records that need it, not the schema.
  adopt_and_resolve(ts, *ts->schemas.back());
  return report(ts->schemas.size() - 1);
}

int qvx_type_system_add_schemas_of(qvx_type_system* ts, qvx_type_system* other) noexcept {
  if (ts == other) return 0;
  std::vector<qvx::SchemaPtr>& from = other->schemas;
  try {
    ts->schemas.reserve(ts->schemas.size() + from.size());
  } catch (const std::bad_alloc&) {
    return -1;
  }
  auto next = from.begin();
  for (; next != from.end() && adopt_and_resolve(ts, **next); ++next)
    ts->schemas.push_back(std::move(*next));
  const bool complete = next == from.end();
  if (!complete) {
    QVX_LOG(QVX_LOG_ERROR, "Cannot add schema to type system");
    // It stays where it is, and must not be linked to types that may go before it.
    adopt_quietly(other, **next);
  }
  from.erase(from.begin(), next);
  return complete ? 0 : -1;
}

qvx_schema* qvx_type_system_load_schema_file(qvx_type_system* ts, const char* path) noexcept {
  if (ts->schemas.size() >= qvx::kMaxSchemas) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to load schema: schema limit exceeded '%u'",
            static_cast<unsigned>(ts->schemas.size()));
    return nullptr;
  }
  const std::optional<json::Value> value = json::parse_file(path);
  if (!value) {
    QVX_LOG(QVX_LOG_ERROR, "Failed reading schema JSON from file '%s'", path != nullptr ? path : "");
    return nullptr;
  }
  qvx::SchemaPtr schema = qvx::schema_from_json(*value);
  if (schema == nullptr) return nullptr;
  if (!adopt_and_resolve(ts, *schema)) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to adjust type fields within schema %s", name_of(*schema));
    return nullptr;
  }
  return append_schema(ts, std::move(schema)) ? ts->schemas.back().get() : nullptr;
}

bool qvx_type_system_fill_digests(qvx_type_system* ts) noexcept {
  bool complete = true;
  for (const auto& schema : ts->schemas)
    complete = qvx::schema_fill_digest(*schema) && complete;
  return complete;
}

const qvx_schema_id& qvx_type_system_counters_digest(qvx_type_system* ts) noexcept {
  if (ts->counters_schema != nullptr && qvx::schema_id_is_empty(ts->counters_digest)) {
    const std::optional<json::Value> value = qvx_counters_schema_jsonify(ts->counters_schema.get());
    const auto digest = value ? json::pretty_text_md5(*value) : std::nullopt;
    if (digest) ts->counters_digest.bytes = *digest;
  }
  return ts->counters_digest;
}

bool qvx_type_system_find_schema(const qvx_type_system* ts, const char* id_text,
                                 std::uint8_t* out_index) noexcept {
  // A schema behind the last slot has no index.
  const std::size_t slots = id_text != nullptr ? std::min(ts->schemas.size(), qvx::kMaxSchemas) : 0;
  for (std::size_t index = 0; index < slots; ++index) {
    if (ts->schemas[index]->md5_text != id_text) continue;
    QVX_LOG(QVX_LOG_DEBUG, "Schema already exists %s", id_text);
    if (out_index != nullptr) *out_index = static_cast<std::uint8_t>(index);
    return true;
  }
  return false;
}

std::uint32_t qvx_type_system_max_type_size(const qvx_type_system* ts) noexcept {
  std::uint64_t largest = 0;
  for (const auto& schema : ts->schemas)
    for (const auto& type : schema->types)
      if (type != nullptr) largest = std::max(largest, type->size);
  return static_cast<std::uint32_t>(
      std::min<std::uint64_t>(largest, std::numeric_limits<std::uint32_t>::max()));
}

std::uint32_t qvx_type_system_max_type_or_counters_size(const qvx_type_system* ts) noexcept {
  const std::uint32_t counters = ts->counters_schema != nullptr ? ts->counters_schema->size_of_counters : 0;
  return std::max(qvx_type_system_max_type_size(ts), counters);
}

std::optional<json::Value> qvx_type_system_to_json(const qvx_type_system* ts) noexcept {
  try {
    json::Object object;
    object.set("name", json::Value::raw_string(kTypeSystemName));
    object.set("version", json::Value::raw_string(qvx::kSchemaVersionText));
    if (ts->counters_schema != nullptr) {
      std::optional<json::Value> counters = qvx_counters_schema_jsonify(ts->counters_schema.get());
      if (!counters) return std::nullopt;
      object.set("counters_schema", std::move(*counters));
    }
    json::Array schemas;
    for (const auto& schema : ts->schemas)
      if (std::optional<json::Value> value = qvx::try_schema_to_json(*schema))
        schemas.push_back(std::move(*value));
    object.set("schemas", json::Value(std::move(schemas)));
    return json::Value(std::move(object));
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

std::optional<std::string> qvx_type_system_to_json_text(const qvx_type_system* ts, bool pretty) noexcept {
  const std::optional<json::Value> value = qvx_type_system_to_json(ts);
  if (!value) return std::nullopt;
  return json::to_text(*value, pretty ? json::Style::pretty : json::Style::compact);
}

qvx_type_system* qvx_type_system_from_json(const json::Value& value) noexcept {
  const json::Object* const object = value.as_object();
  if (object == nullptr) {
    QVX_LOG(QVX_LOG_ERROR, "[ts] Failed to deserialize: schema is not a JSON object");
    return nullptr;
  }
  const std::string* const version = object->string_at("version");
  if (version == nullptr) {
    QVX_LOG(QVX_LOG_ERROR, "[ts] Failed to deserialize: missing Quorvex schema version");
    return nullptr;
  }
  if (qvx::compare_versions(qvx::parse_version(version->c_str()),
                            qvx::parse_version(qvx::kMinTypeSystemVersionText)) < 0) {
    QVX_LOG(
        QVX_LOG_ERROR,
        "[ts] Failed to deserialize: schema version %s is incompatible with the deserializer, the minimal "
        "supported schema version is %s",
        version->c_str(), qvx::kMinTypeSystemVersionText);
  }
  qvx::TypeSystemPtr ts(qvx_type_system_create());
  if (ts == nullptr) {
    QVX_LOG(QVX_LOG_ERROR, "[ts] Failed to deserialize: unable to create type system object");
    return nullptr;
  }
  ts->counters_schema.reset();
  return read_type_system(ts.get(), *object) ? ts.release() : nullptr;
}

qvx_type_system* qvx_type_system_from_json_text(const char* text) noexcept {
  const std::optional<json::Value> value = text != nullptr ? json::parse(text) : std::nullopt;
  if (!value) {
    QVX_LOG(QVX_LOG_ERROR, "Failed parsing schema JSON string");
    return nullptr;
  }
  return qvx_type_system_from_json(*value);
}
