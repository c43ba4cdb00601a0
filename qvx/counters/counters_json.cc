#include "qvx/counters/counters_json.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "qvx/support/json_parse.h"
#include "qvx/support/json_text.h"
#include "qvx/support/log.h"
#include "qvx/support/saturate.h"
#include "qvx/support/text.h"
#include "qvx/support/version.h"

namespace {

namespace json = qvx::json;

constexpr const char* kTitle = "Quorvex performance counters collector";
constexpr const char* kVersion = "1.5.0";
constexpr const char* kNoJson = "Failed to JSONify counters schemaector schema";
constexpr const char* kNoText = "Failed to serialize JSON counters schemaector schema";

constexpr const char* kSchemaTemplate = R"({"version" : "", "counter_groups" : []})";
constexpr const char* kGroupTemplate =
    R"({"granularity" : "", "num_counters" : 0, "num_counter_sets" : 0, "counters" : []})";
constexpr const char* kCounterTemplate =
    R"({"name" : "", "description" : "", "units" : "", "data_type" : "", "counting_type" : ""})";

bool set_name(json::Object& object, const char* member, const char* name) {
  return name != nullptr && object.set_string(member, name);
}

// A text that is absent is written as an empty one, so that what was built can be written.
bool set_text(json::Object& object, const char* member, const std::optional<std::string>& text) {
  return object.set_string(member, text ? std::string_view(*text) : std::string_view());
}

bool counter_to_json(const qvx_counter_info& counter, json::Object& object) {
  if (!counter.name || !set_text(object, "name", counter.name) ||
      !set_text(object, "description", counter.description) || !set_text(object, "units", counter.units) ||
      !set_name(object, "data_type", qvx::counter_data_type_name(counter.data_type)))
    return false;
  object.set("length", json::Value::integer(counter.length));
  object.set("offset", json::Value::integer(counter.offset));
  object.set("hidden", json::Value::integer(counter.hidden));
  object.set("mandatory", json::Value::integer(counter.mandatory));
  return set_name(object, "counting_type", qvx::counter_counting_type_name(counter.counting_type));
}

bool group_to_json(const qvx_counter_group& group, json::Object& object) {
  if (!set_name(object, "granularity", qvx::granularity_name(group.granularity))) return false;
  const char* const name = qvx::counter_group_display_name(group);
  if (name != nullptr && !object.set_string("name", name)) return false;
  if (group.provider && !object.set_string("provider", *group.provider)) return false;
  object.set("num_counter_sets", json::Value::integer(group.num_counter_sets));
  object.set("num_counters", json::Value::integer(group.counters.size()));
  json::Array counters;
  for (const auto& counter : group.counters) {
    json::Object element;
    if (counter == nullptr || !counter_to_json(*counter, element)) return false;
    counters.emplace_back(std::move(element));
  }
  object.set("counters", json::Value(std::move(counters)));
  return true;
}

// A template that objects are checked against before they are read, parsed once for all of them.
struct Template {
  explicit Template(const char* template_text) : text(template_text), pattern(json::parse(text)) {}

  bool matches(const json::Value& value) const {
    if (!pattern) {
      QVX_LOG(QVX_LOG_ERROR, "Unable to parse schema to JSON value: '%s'", text);
      throw std::bad_alloc();  // nothing else keeps a literal from being parsed
    }
    if (json::matches(*pattern, value)) return true;
    QVX_LOG(QVX_LOG_ERROR, "JSON does not match schema '%s'", text);
    return false;
  }

  const char* text;
  std::optional<json::Value> pattern;
};

struct Templates {
  Template schema{kSchemaTemplate};
  Template group{kGroupTemplate};
  Template counter{kCounterTemplate};
};

// Texts of schemas end at their first NUL, which JSON can spell.
std::optional<std::string> text_at(const json::Object& object, const char* name) {
  const std::string* const text = object.string_at(name);
  if (text == nullptr) return std::nullopt;
  return text->c_str();
}

std::uint32_t number_at(const json::Object& object, const char* name) {
  return qvx::saturate_to<std::uint32_t>(object.number_at(name).value_or(0));
}

std::uint8_t flag_at(const json::Object& object, const char* name) {
  return object.number_at(name).value_or(0) != 0 ? 1 : 0;
}

qvx::CounterInfoPtr counter_from_json(const json::Value& value, const Templates& templates) {
  if (!templates.counter.matches(value)) return nullptr;
  const json::Object& object = *value.as_object();
  qvx::CounterInfoPtr counter(new qvx_counter_info);
  counter->name = text_at(object, "name");
  counter->description = text_at(object, "description");
  counter->units = text_at(object, "units");
  counter->data_type = qvx::counter_data_type_from_name(*text_at(object, "data_type"));
  counter->counting_type = qvx::counter_counting_type_from_name(*text_at(object, "counting_type"));
  counter->offset = number_at(object, "offset");
  counter->length = number_at(object, "length");
  counter->hidden = flag_at(object, "hidden");
  counter->mandatory = flag_at(object, "mandatory");
  return counter;
}

qvx::CounterGroupPtr group_from_json(const json::Value& value, const Templates& templates) {
  if (!templates.group.matches(value)) return nullptr;
  const json::Object& object = *value.as_object();
  qvx::CounterGroupPtr group(new qvx_counter_group);
  group->num_counter_sets = number_at(object, "num_counter_sets");
  group->granularity = qvx::granularity_from_name(*text_at(object, "granularity"));
  group->name = text_at(object, "name");
  group->provider = text_at(object, "provider");
  for (const json::Value& element : *object.array_at("counters")) {
    qvx::CounterInfoPtr counter = counter_from_json(element, templates);
    if (counter == nullptr) return nullptr;
    group->counters.push_back(std::move(counter));
  }
  return group;
}

}  // namespace

std::optional<json::Value> qvx_counters_schema_jsonify(const qvx_counters_schema* schema) noexcept {
  try {
    json::Object object;
    json::Array groups;
    for (std::size_t index = 0; index < schema->groups.size(); ++index) {
      json::Object group;
      if (schema->groups[index] == nullptr || !group_to_json(*schema->groups[index], group)) {
        QVX_LOG(QVX_LOG_ERROR, "Failed to JSONify counter group #%d", static_cast<int>(index));
        return std::nullopt;
      }
      groups.emplace_back(std::move(group));
    }
    object.set("title", json::Value::raw_string(kTitle));
    object.set("version", json::Value::raw_string(kVersion));
    object.set("counter_groups", json::Value(std::move(groups)));
    return json::Value(std::move(object));
  } catch (const std::bad_alloc&) {
    QVX_LOG(QVX_LOG_ERROR, "[%s] json_value_init_object() failed", "qvx_counters_schema_jsonify");
    return std::nullopt;
  }
}

std::optional<std::string> qvx_counters_schema_jsonify_text(const qvx_counters_schema* schema) noexcept {
  const std::optional<json::Value> value = qvx_counters_schema_jsonify(schema);
  if (!value) {
    QVX_LOG(QVX_LOG_ERROR, "%s", kNoJson);
    return std::nullopt;
  }
  std::optional<std::string> text = json::to_text(*value, json::Style::pretty);
  if (!text) QVX_LOG(QVX_LOG_ERROR, "%s", kNoText);
  return text;
}

bool qvx_counters_schema_jsonify_print(std::FILE* stream, const qvx_counters_schema* schema) noexcept {
  const std::optional<json::Value> value = qvx_counters_schema_jsonify(schema);
  if (!value) {
    QVX_LOG(QVX_LOG_ERROR, "%s", kNoJson);
    return false;
  }
  bool written = true;
  const bool whole = json::write_text(*value, json::Style::pretty, [&](std::string_view piece) {
    written = std::fwrite(piece.data(), 1, piece.size(), stream) == piece.size() && written;
  });
  if (!whole) QVX_LOG(QVX_LOG_ERROR, "%s", kNoText);
  written = std::fputc('\n', stream) != EOF && written;
  return std::fflush(stream) == 0 && written && whole;
}

namespace qvx {

CountersSchemaPtr try_counters_schema_from_json(const json::Value& value) {
  const Templates templates;
  if (!templates.schema.matches(value)) return nullptr;
  const json::Object& object = *value.as_object();
  const std::string version = *text_at(object, "version");
  if (!is_compatible_version(parse_version(version.c_str()), parse_version(kVersion))) {
    QVX_LOG(QVX_LOG_ERROR, "Version '%s' of parsing schema is incompatible with current schema version '%s'",
            version.c_str(), kVersion);
  }
  CountersSchemaPtr schema(new qvx_counters_schema);
  const json::Array* const groups = object.array_at("counter_groups");
  if (groups == nullptr) {
    QVX_LOG(QVX_LOG_ERROR, "Schema JSON is missing counter groups information");
    return nullptr;
  }
  for (const json::Value& element : *groups) {
    CounterGroupPtr group = group_from_json(element, templates);
    if (group == nullptr) {
      QVX_LOG(QVX_LOG_ERROR, "Failed to decode counter group from JSON");
      return nullptr;
    }
    schema->groups.push_back(std::move(group));
  }
  qvx_counters_schema_update_counter_offsets(schema.get());
  schema->size_of_counters = qvx_counters_schema_size_of_counters(schema.get());
  return schema;
}

}  // namespace qvx

qvx_counters_schema* qvx_counters_schema_from_json(const json::Value& value) noexcept {
  try {
    return qvx::try_counters_schema_from_json(value).release();
  } catch (const std::bad_alloc&) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to allocate schema object: %s", std::strerror(ENOMEM));
    return nullptr;
  }
}

qvx_counters_schema* qvx_counters_schema_from_json_text(const char* text) noexcept {
  const std::optional<json::Value> value = text != nullptr ? json::parse(text) : std::nullopt;
  if (!value) {
    QVX_LOG(QVX_LOG_ERROR, "Failed parsing counters schema JSON from string");
    return nullptr;
  }
  return qvx_counters_schema_from_json(*value);
}

qvx_counters_schema* qvx_counters_schema_from_json_file(const char* path) noexcept {
  errno = 0;
  const std::optional<json::Value> value = json::parse_file(path);
  if (!value) {
    QVX_LOG(QVX_LOG_ERROR, "Failed reading counters schema JSON from file '%s': %s",
            path != nullptr ? path : "", std::strerror(errno));
    return nullptr;
  }
  return qvx_counters_schema_from_json(*value);
}

qvx_counters_schema* qvx_counters_schema_load_by_id(const qvx_schema_id* id, const char* directory) noexcept {
  if (id == nullptr || qvx::schema_id_is_empty(*id)) return nullptr;
  const std::optional<std::string> id_text = qvx::schema_id_text(*id);
  const std::optional<std::string> path =
      id_text && directory != nullptr ? qvx_expand_template("%s/schema_%s.json", directory, id_text->c_str())
                                      : std::nullopt;
  if (!path) {
    QVX_LOG(QVX_LOG_ERROR, "asprintf failed");
    return nullptr;
  }
  QVX_LOG(QVX_LOG_DEBUG, "opening counters schema: %s\n", path->c_str());
  qvx_counters_schema* const schema = qvx_counters_schema_from_json_file(path->c_str());
  if (schema == nullptr)
    QVX_LOG(QVX_LOG_DEBUG, "Failed to load counters schema from file: %s", path->c_str());
  return schema;
}
