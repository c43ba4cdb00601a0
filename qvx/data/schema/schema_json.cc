#include "qvx/data/schema/schema_json.h"

#include <cerrno>
#include <cmath>
#include <cstring>
#include <new>
#include <utility>

#include "qvx/support/json_parse.h"
#include "qvx/support/json_text.h"
#include "qvx/support/log.h"
#include "qvx/support/saturate.h"
#include "qvx/support/version.h"

namespace qvx {
namespace {

constexpr const char* kSchemaTitle = "Quorvex schema";

constexpr const char* kSchemaTemplate =
    R"({"qvx_version" : "", "provider_name" : "", "provider_version" : "", "types" : []})";
constexpr const char* kTypeTemplate = R"({"name" : "", "size" : 0, "fields" : []})";
constexpr const char* kFieldTemplateWithIndex =
    R"({"field_name" : "", "description" : "", "type_size" : 0, "offset" : 0, "type_name" : "", "counting_mode" : "", "index" : 0})";
constexpr const char* kFieldTemplate =
    R"({"field_name" : "", "description" : "", "type_size" : 0, "offset" : 0, "type_name" : "", "counting_mode" : ""})";

// Texts of schemas end at their first NUL, which JSON can spell.
std::string text_at(const json::Object& object, const char* name) {
  const std::string* const text = object.string_at(name);
  return text != nullptr ? text->c_str() : "";
}

double number_at(const json::Object& object, const char* name) {
  return object.number_at(name).value_or(0);
}

// Array lengths are 16-bit numbers in the text: larger ones wrap, after the conversion to 64 bits that stops
// at its limits. 0 means one element.
std::uint32_t array_length_of(double number) {
  const auto length = static_cast<std::uint16_t>(saturate_to<std::uint64_t>(number));
  return length == 0 ? 1 : length;
}

// Index numbers wrap like array lengths.
std::uint16_t index_of(double number) {
  return static_cast<std::uint16_t>(saturate_to<std::uint32_t>(number));
}

bool set_text(json::Object& object, const char* name, const std::optional<std::string>& text) {
  return text && object.set_string(name, *text);
}

// Nothing when it cannot be made or memory is short.
template <typename Make>
std::optional<json::Value> guarded(Make make) noexcept {
  try {
    return make();
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

// A template that is part of the program, parsed when it is first needed. Null when memory is short.
class Template {
 public:
  explicit Template(const char* text, const char* kind = "") : text_(text), kind_(kind) {}

  const json::Value* pattern() {
    if (!pattern_) pattern_ = json::parse(text_);
    if (!pattern_) QVX_LOG(QVX_LOG_ERROR, "Unable to parse schema to JSON value%s: '%s'", kind_, text_);
    return pattern_ ? &*pattern_ : nullptr;
  }

 private:
  const char* text_;
  const char* kind_;
  std::optional<json::Value> pattern_;
};

// Those of one schema, so that they are not parsed again for each of its fields.
struct Templates {
  Template type{kTypeTemplate};
  Template field_with_index{kFieldTemplateWithIndex};
  Template field{kFieldTemplate, " (without index)"};
};

// The makers of JSON throw when memory is short.

std::optional<json::Value> make_field(const qvx_field_definition& field) {
  json::Object object;
  const char* const mode = counting_mode_name(field.counting_mode);
  if (!set_text(object, "field_name", field.field_name) ||
      !object.set_string("description", field.description ? std::string_view(*field.description) : "") ||
      !set_text(object, "type_name", field.type_name) || mode == nullptr ||
      !object.set_string("counting_mode", mode))
    return std::nullopt;
  if (field.array_length > 1) object.set("array_length", json::Value::integer(field.array_length));
  object.set("offset", json::Value::integer(field.offset));
  object.set("type_size", json::Value::integer(field.type_size));
  object.set("index", json::Value::integer(field.index));
  return json::Value(std::move(object));
}

std::optional<json::Value> make_type(const qvx_type_definition& type) {
  json::Object object;
  if (!object.set_string("name", type.name)) return std::nullopt;
  object.set("size", json::Value::integer(type.size));
  json::Array fields;
  for (const auto& field : type.fields) {
    std::optional<json::Value> value = make_field(*field);
    if (!value) return std::nullopt;
    fields.push_back(std::move(*value));
  }
  object.set("fields", json::Value(std::move(fields)));
  return json::Value(std::move(object));
}

std::unique_ptr<qvx_field_definition> read_field(const json::Value& value, Templates& templates) noexcept {
  const json::Value* const with_index = templates.field_with_index.pattern();
  if (with_index == nullptr) return nullptr;
  if (!json::matches(*with_index, value)) {
    const json::Value* const without_index = templates.field.pattern();
    if (without_index == nullptr) return nullptr;
    if (!json::matches(*without_index, value)) {
      QVX_LOG(QVX_LOG_ERROR, "Field definition JSON does not match schema with or without 'index'.");
      return nullptr;
    }
  }
  try {
    const json::Object& object = *value.as_object();
    auto field = std::make_unique<qvx_field_definition>();
    field->field_name = text_at(object, "field_name");
    field->description = text_at(object, "description");
    field->type_name = text_at(object, "type_name");
    field->counting_mode = counting_mode_from_name(text_at(object, "counting_mode"));
    field->array_length = array_length_of(number_at(object, "array_length"));
    field->offset = saturate_to<std::uint64_t>(number_at(object, "offset"));
    field->type_size = saturate_to<std::uint64_t>(number_at(object, "type_size"));
    field->index = index_of(number_at(object, "index"));
    return field;
  } catch (const std::bad_alloc&) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to allocate field definition: %s", std::strerror(ENOMEM));
    return nullptr;
  }
}

std::unique_ptr<qvx_type_definition> read_type(const json::Value& value, Templates& templates) noexcept {
  const json::Value* const pattern = templates.type.pattern();
  if (pattern == nullptr) return nullptr;
  if (!json::matches(*pattern, value)) {
    QVX_LOG(QVX_LOG_ERROR, "Type definition JSON does not match schema '%s'", kTypeTemplate);
    return nullptr;
  }
  try {
    const json::Object& object = *value.as_object();
    auto type = std::make_unique<qvx_type_definition>();
    type->name = text_at(object, "name");
    type->size = saturate_to<std::uint64_t>(number_at(object, "size"));
    if (type->size == 0) return nullptr;
    for (const json::Value& element : *object.array_at("fields")) {
      std::unique_ptr<qvx_field_definition> field = read_field(element, templates);
      if (field == nullptr) return nullptr;
      type->fields.push_back(std::move(field));
    }
    return type;
  } catch (const std::bad_alloc&) {
    QVX_LOG(QVX_LOG_ERROR, "Failed to allocate type definition object: %s", std::strerror(ENOMEM));
    return nullptr;
  }
}

}  // namespace

std::optional<json::Value> field_to_json(const qvx_field_definition& field) noexcept {
  return guarded([&field] { return make_field(field); });
}

std::optional<json::Value> type_to_json(const qvx_type_definition& type) noexcept {
  return guarded([&type] { return make_type(type); });
}

std::optional<json::Value> try_schema_to_json(const qvx_schema& schema) {
  if (schema.types.empty()) return std::nullopt;
  json::Object object;
  if (!object.set_string("title", kSchemaTitle) || !object.set_string("qvx_version", kSchemaVersionText) ||
      !set_text(object, "provider_name", schema.name) ||
      !object.set_string("provider_version", version_text(schema.version)))
    return std::nullopt;
  json::Array types;
  for (std::size_t index = 0; index < schema.types.size(); ++index) {
    if (schema.types[index] == nullptr) return std::nullopt;
    std::optional<json::Value> type = make_type(*schema.types[index]);
    if (!type) return std::nullopt;
    type->as_object()->set("type_index", json::Value::integer(index));
    types.push_back(std::move(*type));
  }
  object.set("types", json::Value(std::move(types)));
  return json::Value(std::move(object));
}

std::optional<json::Value> schema_to_json(const qvx_schema& schema) noexcept {
  return guarded([&schema] { return try_schema_to_json(schema); });
}

std::unique_ptr<qvx_field_definition> field_from_json(const json::Value& value) noexcept {
  Templates templates;
  return read_field(value, templates);
}

std::unique_ptr<qvx_type_definition> type_from_json(const json::Value& value) noexcept {
  Templates templates;
  return read_type(value, templates);
}

SchemaPtr schema_from_json(const json::Value& value) noexcept {
  Template schema_template(kSchemaTemplate);
  const json::Value* const pattern = schema_template.pattern();
  if (pattern == nullptr) return nullptr;
  if (!json::matches(*pattern, value)) {
    QVX_LOG(QVX_LOG_INFO, "Not an event schema");
    return nullptr;
  }
  try {
    const json::Object& object = *value.as_object();
    const std::string version = text_at(object, "qvx_version");
    if (!is_compatible_version(parse_version(version.c_str()), parse_version(kSchemaVersionText))) {
      QVX_LOG(QVX_LOG_ERROR, "Schema version %s is incompatible with current version %s", version.c_str(),
              kSchemaVersionText);
      return nullptr;
    }
    const std::string provider = text_at(object, "provider_name");
    SchemaPtr schema(
        qvx_schema_create(provider.c_str(), parse_version(text_at(object, "provider_version").c_str())));
    if (schema == nullptr) {
      QVX_LOG(QVX_LOG_ERROR, "Failed to initialize '%s' schema: %s", provider.c_str(), std::strerror(ENOMEM));
      return nullptr;
    }
    const json::Array& types = *object.array_at("types");
    Templates templates;
    for (std::size_t index = 0; index < types.size(); ++index) {
      std::unique_ptr<qvx_type_definition> type = read_type(types[index], templates);
      // There are no slots behind the last one, so a type too many cannot be taken.
      if (type == nullptr || schema->types.size() >= QVX_MAX_TYPES) {
        QVX_LOG(QVX_LOG_ERROR, "Failed to deserialize type #%d from JSON array", static_cast<int>(index));
        return nullptr;
      }
      schema->types.push_back(std::move(type));
    }
    return schema;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

bool schema_set_digest(qvx_schema& schema, const qvx_schema_id& digest) noexcept {
  std::optional<std::string> text = schema_id_text(digest);
  if (!text) return false;
  schema.md5_digest = digest;
  schema.md5_text = std::move(*text);
  return true;
}

bool schema_fill_digest(qvx_schema& schema) noexcept {
  schema.md5_digest = {};
  schema.md5_text.clear();
  try {
    qvx_schema_id digest;
    if (const std::optional<json::Value> value = try_schema_to_json(schema)) {
      const auto md5 = json::pretty_text_md5(*value);
      if (!md5) return false;
      digest.bytes = *md5;
    }
    return schema_set_digest(schema, digest);
  } catch (const std::bad_alloc&) {
    return false;
  }
}

bool schema_resolve(qvx_schema& schema) noexcept {
  for (const auto& type : schema.types)
    if (type != nullptr && qvx_schema_resolve_types(&schema, type.get()) != 0) return false;
  return true;
}

}  // namespace qvx

std::optional<std::string> qvx_schema_type_to_json_text(const qvx_schema* schema, const char* name,
                                                        bool pretty) noexcept {
  const qvx_type_definition* const type = qvx_schema_find_type(schema, name);
  if (type == nullptr) return std::nullopt;
  const std::optional<qvx::json::Value> value = qvx::type_to_json(*type);
  if (!value) return std::nullopt;
  return qvx::json::to_text(*value, pretty ? qvx::json::Style::pretty : qvx::json::Style::compact);
}

qvx_schema* qvx_schema_load_file(const char* path, const qvx_schema* parent) noexcept {
  std::optional<qvx::json::Value> value = qvx::json::parse_file(path);
  if (!value) {
    QVX_LOG(QVX_LOG_ERROR, "Failed reading schema JSON from file '%s'", path != nullptr ? path : "");
    return nullptr;
  }
  qvx::SchemaPtr schema = qvx::schema_from_json(*value);
  if (schema == nullptr) return nullptr;
  schema->parent = parent;
  if (!qvx::schema_resolve(*schema) || !qvx::schema_fill_digest(*schema)) return nullptr;
  return schema.release();
}
