#include "qvx/qvx.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "qvx/columns/dataset.h"
#include "qvx/columns/query.h"
#include "qvx/columns/table_stream.h"
#include "qvx/scan/data_file_reader.h"
#include "qvx/scan/records.h"
#include "qvx/support/version.h"

struct qvx_reader {
  explicit qvx_reader(const char* schema_folder) : reader(schema_folder) {}

  qvx::DataFileReader reader;
  std::vector<const qvx::RecordType*> tables;
  bool is_short = false;  // no memory for the tables of the file
};

struct qvx_field {
  explicit qvx_field(const char* name) : handle(name) {}

  qvx::FieldHandle handle;
};

namespace {

// What C sees as a table or a record is that of the C++ interface.
const qvx_table* to_c(const qvx::RecordType* type) {
  return reinterpret_cast<const qvx_table*>(type);
}
const qvx_record* to_c(const qvx::Record* record) {
  return reinterpret_cast<const qvx_record*>(record);
}
const qvx::RecordType& from_c(const qvx_table* table) {
  return *reinterpret_cast<const qvx::RecordType*>(table);
}
const qvx::Record& from_c(const qvx_record* record) {
  return *reinterpret_cast<const qvx::Record*>(record);
}

const char* type_name(qvx::FieldKind kind) {
  switch (kind) {
    case qvx::FieldKind::boolean:
      return "bool";
    case qvx::FieldKind::u8:
      return "u8";
    case qvx::FieldKind::i8:
      return "i8";
    case qvx::FieldKind::u16:
      return "u16";
    case qvx::FieldKind::i16:
      return "i16";
    case qvx::FieldKind::u32:
      return "u32";
    case qvx::FieldKind::i32:
      return "i32";
    case qvx::FieldKind::u64:
      return "u64";
    case qvx::FieldKind::i64:
      return "i64";
    case qvx::FieldKind::f32:
      return "f32";
    case qvx::FieldKind::f64:
      return "f64";
    case qvx::FieldKind::characters:
    case qvx::FieldKind::string:
      return "text";
    case qvx::FieldKind::record:
      return "record";
    case qvx::FieldKind::none:
      break;
  }
  return nullptr;
}

// The first byte of a value, or null.
const std::byte* value_in(const qvx::Record& record, const qvx::FieldPlace& place, std::size_t index) {
  const qvx::Bytes bytes = record.bytes_at_hand();
  if (!place || index >= place.count || place.end > bytes.size()) return nullptr;
  return bytes.data() + place.offset + index * place.stride;
}

template <typename T>
int get_number(const qvx_record* record, qvx_field* field, std::size_t index, T* to) {
  const qvx::Record& from = from_c(record);
  const qvx::FieldPlace& place = field->handle.in(from.type());
  const std::byte* const value = value_in(from, place, index);
  if (value == nullptr) return 0;
  const std::optional<T> number = qvx::detail::number_at<T>(place.kind, value);
  if (!number) return 0;
  *to = *number;
  return 1;
}

int give_text(std::string_view from, const char** text, std::size_t* length) {
  *text = from.data();
  *length = from.size();
  return 1;
}

}  // namespace

extern "C" {

const char* qvx_library_version(void) {
  return qvx::kProgramVersionText;
}

qvx_reader* qvx_reader_create(const char* schema_folder) {
  try {
    return new qvx_reader(schema_folder);
  } catch (const std::exception&) {
    return nullptr;
  }
}

void qvx_reader_destroy(qvx_reader* reader) {
  delete reader;
}

int qvx_reader_open(qvx_reader* reader, const char* path) {
  reader->tables.clear();
  reader->is_short = false;
  try {
    if (!reader->reader.open(path)) return 0;
    reader->tables = reader->reader.types();
    return 1;
  } catch (const std::exception&) {
    reader->reader.close();
    reader->is_short = true;
    return 0;
  }
}

void qvx_reader_close(qvx_reader* reader) {
  reader->tables.clear();
  reader->reader.close();
}

size_t qvx_reader_table_count(const qvx_reader* reader) {
  return reader->tables.size();
}

const qvx_table* qvx_reader_table(const qvx_reader* reader, size_t index) {
  return index < reader->tables.size() ? to_c(reader->tables[index]) : nullptr;
}

const qvx_record* qvx_reader_next(qvx_reader* reader) {
  return to_c(reader->reader.next());
}

int qvx_reader_failed(const qvx_reader* reader) {
  return int{reader->is_short || reader->reader.failed()};
}

const char* qvx_reader_error(const qvx_reader* reader) {
  return reader->is_short ? std::strerror(ENOMEM) : reader->reader.error().c_str();
}

size_t qvx_reader_fault_count(const qvx_reader* reader) {
  return reader->reader.faults().size();
}

int qvx_reader_fault(const qvx_reader* reader, size_t index, qvx_fault* fault) {
  if (index >= reader->reader.faults().size()) return 0;
  const qvx::Fault& from = reader->reader.faults()[index];
  *fault = {from.place.offset, qvx::fault_kind_name(from.kind), from.words.c_str()};
  return 1;
}

const char* qvx_table_name(const qvx_table* table) {
  return from_c(table).name().c_str();
}

qvx_table_kind qvx_table_kind_of(const qvx_table* table) {
  switch (from_c(table).kind()) {
    case qvx::RecordKind::event:
      return QVX_EVENT;
    case qvx::RecordKind::counters:
      return QVX_COUNTERS;
    case qvx::RecordKind::sample:
      break;
  }
  return QVX_SAMPLE;
}

size_t qvx_table_field_count(const qvx_table* table) {
  return from_c(table).fields().size();
}

const char* qvx_table_field_name(const qvx_table* table, size_t index) {
  const auto& fields = from_c(table).fields();
  return index < fields.size() ? fields[index].name.c_str() : nullptr;
}

const char* qvx_table_field_type(const qvx_table* table, size_t index) {
  const auto& fields = from_c(table).fields();
  return index < fields.size() ? type_name(fields[index].kind) : nullptr;
}

qvx_field* qvx_field_create(const char* name) {
  try {
    return new qvx_field(name);
  } catch (const std::exception&) {
    return nullptr;
  }
}

void qvx_field_destroy(qvx_field* field) {
  delete field;
}

const qvx_table* qvx_record_table(const qvx_record* record) {
  return to_c(&from_c(record).type());
}

uint64_t qvx_record_time(const qvx_record* record) {
  return from_c(record).time();
}

size_t qvx_record_length(const qvx_record* record, qvx_field* field) {
  const qvx::Record& from = from_c(record);
  const qvx::FieldPlace& place = field->handle.in(from.type());
  return value_in(from, place, 0) != nullptr ? place.count : 0;
}

int qvx_record_u64(const qvx_record* record, qvx_field* field, size_t index, uint64_t* value) {
  return get_number(record, field, index, value);
}

int qvx_record_i64(const qvx_record* record, qvx_field* field, size_t index, int64_t* value) {
  return get_number(record, field, index, value);
}

int qvx_record_double(const qvx_record* record, qvx_field* field, size_t index, double* value) {
  return get_number(record, field, index, value);
}

int qvx_record_text(const qvx_record* record, qvx_field* field, size_t index, const char** text,
                    size_t* length) {
  const qvx::Record& from = from_c(record);
  const qvx::FieldPlace& place = field->handle.in(from.type());
  if (place.kind != qvx::FieldKind::characters && place.kind != qvx::FieldKind::string) return 0;
  const std::byte* const value = value_in(from, place, index);
  return value == nullptr ? 0 : give_text(qvx::detail::text_at(place.kind, value, place.size), text, length);
}

int qvx_open_arrow(const char* const* paths, size_t count, const char* schema_folder, const char* table,
                   struct ArrowArrayStream* stream, char* words, size_t room) {
  using namespace qvx::columns;
  try {
    const auto dataset = std::make_shared<const Dataset>(std::vector<std::string>(paths, paths + count),
                                                         schema_folder != nullptr ? schema_folder : "");
    export_stream(std::make_unique<TableStream>(dataset, resolve(*dataset, Query{.table = table})), stream,
                  StreamFaults::end_stream);
    return 1;
  } catch (const std::exception& fault) {
    std::snprintf(words, room, "%s", fault.what());
    return 0;
  }
}

int qvx_record_metric(const qvx_record* record, const char** text, size_t* length) {
  if (from_c(record).kind() != qvx::RecordKind::sample) return 0;
  return give_text(from_c(record).metric(), text, length);
}

int qvx_record_label(const qvx_record* record, const char* name, const char** text, size_t* length) {
  for (const qvx::MetricLabel& label : from_c(record).labels())
    if (label.name == name) return give_text(label.value, text, length);
  return 0;
}

}  // extern "C"
