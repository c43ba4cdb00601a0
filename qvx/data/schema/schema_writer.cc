#include "qvx/data/schema/schema_writer.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <system_error>

#include "qvx/data/schema/type_system.h"
#include "qvx/support/env.h"
#include "qvx/support/format.h"
#include "qvx/support/json_parse.h"
#include "qvx/support/json_text.h"
#include "qvx/support/log.h"
#include "qvx/support/md5.h"
#include "qvx/support/version.h"

namespace qvx {
namespace {

// Asked once per process.
bool writes_empty_counters_schemas() {
  static const bool value = is_true_switch(qvx_getenv("QVX_ALLOW_EMPTY_COUNTER_SCHEMA"));
  return value;
}

bool has_counter_groups(const json::Object* schema) {
  const json::Array* const groups = schema != nullptr ? schema->array_at("counter_groups") : nullptr;
  return groups != nullptr && !groups->empty();
}

void check_version(const json::Object* object) {
  const std::string* const version = object != nullptr ? object->string_at("version") : nullptr;
  if (version == nullptr) throw std::runtime_error("[schema writer] missing Quorvex schema version");
  if (compare_versions(parse_version(version->c_str()), parse_version(kMinTypeSystemVersionText)) >= 0)
    return;
  throw std::runtime_error(format_text(
      "[schema writer] schema version %s is incompatible with the serializer, the minimal supported version "
      "is %s",
      version->c_str(), kMinTypeSystemVersionText));
}

// errno when not all of the text could be written and the file closed.
int write_and_close(int file, std::string_view text) {
  int error = 0;
  while (!text.empty() && error == 0) {
    const ssize_t written = ::write(file, text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno != EINTR) {
      error = errno;
    }
  }
  if (::close(file) != 0 && error == 0) error = errno;
  return error;
}

}  // namespace

void SchemaWriter::onSchema(std::string_view text) {
  if (!enabled_) return;
  const std::optional<json::Value> value = json::parse(text);
  if (!value) {
    QVX_LOG(QVX_LOG_WARNING, "[schema writer] Failed to deserialize schema JSON");
    return;
  }
  const json::Object* const object = value->as_object();
  if (object != nullptr && object->find("provider_version") != nullptr) {
    QVX_LOG(QVX_LOG_INFO, "qvx::SchemaWriter::onSchema() identified single event schema.");
    write_schema(*value);
    return;
  }
  check_version(object);
  const json::Value* const counters = object->find("counters_schema");
  const json::Array* const schemas = object->array_at("schemas");
  if (counters != nullptr) write_counters_schema(*counters);
  if (schemas != nullptr) write_each(*schemas);
  if (counters != nullptr || schemas != nullptr) return;
  if (!writes_empty_counters_schemas() && !has_counter_groups(object)) {
    throw std::runtime_error(
        "[schema writer] schema was not recognized neither as type system nor as counters schema");
  }
  write_schema(*value);
}

void SchemaWriter::write_counters_schema(const json::Value& value) {
  if (!writes_empty_counters_schemas() && !has_counter_groups(value.as_object())) {
    QVX_LOG(QVX_LOG_INFO, "[schema writer] Skipping empty counters_schema.");
    return;
  }
  write_schema(value);
}

void SchemaWriter::write_each(const json::Array& schemas) {
  for (const json::Value& schema : schemas)
    write_schema(schema);
}

void SchemaWriter::write_schema(const json::Value& schema) {
  if (!enabled_) return;
  const std::optional<std::string> text = json::to_text(schema, json::Style::pretty);
  if (!text) throw std::runtime_error("[data] Failed to serialize JSON schema");
  std::error_code ignored;
  if (!std::filesystem::is_directory(directory_, ignored))
    throw std::runtime_error("Inaccessible data path " + directory_);
  const std::optional<std::string> path = schema_file_path(directory_.c_str(), {md5(*text)});
  if (!path) throw std::bad_alloc();
  const int file = ::open(path->c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (file < 0 && errno == EEXIST) return;
  if (file < 0) {
    QVX_LOG(QVX_LOG_WARNING, "[data] Failed to create schema file '%s': %s", path->c_str(),
            std::strerror(errno));
    enabled_ = false;
    return;
  }
  const int error = write_and_close(file, *text);
  if (error == 0) return;
  QVX_LOG(QVX_LOG_WARNING, "[data] Failed writing schema file '%s': %s", path->c_str(), std::strerror(error));
  // Part of a schema under the name of the whole would be kept for good.
  ::unlink(path->c_str());
}

}  // namespace qvx
