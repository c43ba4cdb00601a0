#include "qvx/data/schema/schema_writer.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "qvx/data/schema/type_system.h"
#include "qvx/support/env.h"
#include "qvx/support/file_descriptor.h"
#include "qvx/support/format.h"
#include "qvx/support/json_parse.h"
#include "qvx/support/json_text.h"
#include "qvx/support/log.h"
#include "qvx/support/output_sink.h"
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

// A new file beside the one that is wanted, so that nobody sees a part of it under its name. An invalid one,
// and errno, when none can be made.
FileDescriptor create_beside(const std::string& path, std::string& temporary) {
  constexpr int kTries = 100;
  for (int number = 0; number < kTries; ++number) {
    temporary = format_text("%s.%ld.%d.tmp", path.c_str(), static_cast<long>(::getpid()), number);
    FileDescriptor file(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (file || (errno != EEXIST && errno != EINTR)) return file;
  }
  return FileDescriptor();
}

// Removes a file unless it gets its name, also when something is thrown on the way there.
class Temporary {
 public:
  explicit Temporary(const std::string& path) : path_(path) {}
  ~Temporary() {
    if (!is_renamed_) ::unlink(path_.c_str());
  }
  Temporary(const Temporary&) = delete;
  Temporary& operator=(const Temporary&) = delete;

  // 0, or errno.
  int rename_to(const std::string& path) {
    is_renamed_ = ::rename(path_.c_str(), path.c_str()) == 0;
    return is_renamed_ ? 0 : errno;
  }

 private:
  const std::string& path_;
  bool is_renamed_ = false;
};

// errno when not all of the text could be written and the file closed.
int write_text(FileDescriptor file, const json::Value& schema) {
  constexpr std::size_t kBuffer = std::size_t{64} * 1024;
  OutputSink sink(file.get(), kBuffer);
  const bool whole =
      json::write_text(schema, json::Style::pretty, [&sink](std::string_view piece) { sink.write(piece); });
  const bool written = sink.flush();
  const bool closed = file.close();
  if (!written) return sink.error();
  if (!closed) return errno;
  return whole ? 0 : ENOMEM;
}

// A file that memory is too short to read is not known to.
bool holds_another_schema(const std::string& path, const qvx_schema_id& id) {
  const std::optional<json::Value> value = json::parse_file(path);
  if (!value) return errno != ENOMEM;
  const auto digest = json::pretty_text_md5(*value);
  return digest && *digest != id.bytes;
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
  for (std::size_t index = 0; index < schemas.size(); ++index) {
    if (schemas[index].as_object() != nullptr) {
      write_schema(schemas[index]);
    } else {
      QVX_LOG(QVX_LOG_WARNING, "[schema writer] Element #%zu of \"schemas\" is no schema", index);
    }
  }
}

void SchemaWriter::write_schema(const json::Value& schema) {
  if (!enabled_) return;
  const auto digest = json::pretty_text_md5(schema);
  if (!digest) throw std::runtime_error("[data] Failed to serialize JSON schema");
  std::error_code ignored;
  if (!std::filesystem::is_directory(directory_, ignored))
    throw std::runtime_error("Inaccessible data path " + directory_);
  const std::optional<std::string> path = schema_file_path(directory_.c_str(), {*digest});
  if (!path) throw std::bad_alloc();
  if (::access(path->c_str(), F_OK) == 0) {
    if (holds_another_schema(*path, {*digest}))
      QVX_LOG(QVX_LOG_WARNING, "[schema writer] Existing file '%s' does not hold its schema", path->c_str());
    return;
  }
  std::string temporary_path;
  FileDescriptor file = create_beside(*path, temporary_path);
  if (!file) {
    QVX_LOG(QVX_LOG_WARNING, "[data] Failed to create schema file '%s': %s", path->c_str(),
            std::strerror(errno));
    enabled_ = false;
    return;
  }
  Temporary temporary(temporary_path);
  int error = write_text(std::move(file), schema);
  if (error == 0) error = temporary.rename_to(*path);
  if (error == 0) return;
  QVX_LOG(QVX_LOG_WARNING, "[data] Failed writing schema file '%s': %s", path->c_str(), std::strerror(error));
}

}  // namespace qvx
