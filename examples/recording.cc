#include "examples/recording.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <fstream>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <system_error>

#include "qvx/counters/counters_json.h"
#include "qvx/counters/counters_schema.h"
#include "qvx/data/block.h"
#include "qvx/data/schema/schema_json.h"
#include "qvx/support/json_text.h"
#include "qvx/support/layout_table.h"

namespace qvx::examples {
namespace {

template <std::size_t kSize>
void store_text(std::array<char, kSize>& field, std::string_view text) {
  const std::string_view kept = text.substr(0, kSize - 1);
  std::copy(kept.begin(), kept.end(), field.begin());
}

void store_magic(ByteArray& block, int type) {
  std::array<char, kMagicSize> magic{};
  block_magic_set(magic, type);
  std::copy_n(as_bytes({magic.data(), magic.size()}).begin(), kMagicSize, block.begin());
}

void write_schema_file(const std::filesystem::path& folder, const qvx_schema_id& id,
                       const std::optional<std::string>& text) {
  const std::optional<std::string> path = schema_file_path(folder.c_str(), id);
  if (!path || !text) throw std::runtime_error("a schema cannot be written as JSON");
  write_file(*path, as_bytes(*text));
}

}  // namespace

Packer& Packer::add(const Packer& nested) {
  append(bytes_, nested.bytes());
  return *this;
}

Packer& Packer::add_text(std::string_view text, std::size_t width) {
  const std::string_view kept = text.substr(0, width - 1);
  append(bytes_, as_bytes(kept));
  bytes_.resize(bytes_.size() + width - kept.size());
  return *this;
}

Schemas::Schemas() : types_(qvx_type_system_create()) {
  if (types_ == nullptr) throw std::bad_alloc();
}

void Schemas::add_schema(const char* provider, std::uint32_t version) {
  if (qvx_type_system_new_schema(types_.get(), provider, version, nullptr) == nullptr)
    throw std::runtime_error(std::string("cannot add schema ") + provider);
}

EventType Schemas::add_type(const char* name, std::initializer_list<qvx_field_info> fields) {
  EventType added;
  added.schema_index = static_cast<std::uint8_t>(types_->schemas.size() - 1);
  qvx_schema* const schema = types_->schemas.back().get();
  if (qvx_schema_add_type(schema, name, fields.begin(), fields.size(), &added.type_index) != 0)
    throw std::runtime_error(std::string("cannot add type ") + name);
  return added;
}

void Schemas::set_index_fields(EventType type, std::initializer_list<const char*> names) {
  qvx_schema* const schema = types_->schemas[type.schema_index].get();
  if (qvx_schema_set_field_indexes(schema, type.type_index, names.begin(), names.size()) != 0)
    throw std::runtime_error("cannot set index fields");
}

void Schemas::add_counters(const char* group_name, std::uint32_t granularity, std::uint32_t num_sets,
                           std::initializer_list<Counter> counters) {
  CounterGroupPtr group(new qvx_counter_group);
  group->granularity = granularity;
  group->num_counter_sets = num_sets;
  group->name = group_name;
  for (const Counter& counter : counters) {
    qvx_counter_info info;
    info.name = counter.name;
    info.description = counter.description;
    info.units = counter.units;
    info.data_type = counter.data_type;
    info.counting_type = counter.counting_type;
    info.length = counter.length;
    if (!qvx_counter_group_add_counter(group.get(), &info)) throw std::bad_alloc();
  }
  qvx_counters_schema* const schema = types_->counters_schema.get();
  if (!qvx_counters_schema_add_group(schema, group.get())) throw std::bad_alloc();
  group.release();
  qvx_counters_schema_update_counter_offsets(schema);
  schema->size_of_counters = qvx_counters_schema_size_of_counters(schema);
}

std::uint32_t Schemas::largest_block_size() const {
  static_assert(kCountersHeaderSize == kEventHeaderSize);
  return static_cast<std::uint32_t>(kEventHeaderSize) +
         qvx_type_system_max_type_or_counters_size(types_.get());
}

const qvx_schema_id& Schemas::schema_id(std::size_t index) {
  if (!qvx_type_system_fill_digests(types_.get())) throw std::bad_alloc();
  return types_->schemas[index]->md5_digest;
}

qvx_schema_id Schemas::counters_schema_id() {
  if (types_->counters_schema->groups.empty()) return {};
  return qvx_type_system_counters_digest(types_.get());
}

std::array<qvx_schema_id, kEventSchemaSlots> Schemas::event_schema_ids() {
  std::array<qvx_schema_id, kEventSchemaSlots> ids;
  for (std::size_t index = 0; index < std::min(count(), ids.size()); ++index)
    ids[index] = schema_id(index);
  return ids;
}

void Schemas::write_files(const std::filesystem::path& folder) {
  std::filesystem::create_directories(folder);
  for (std::size_t index = 0; index < types_->schemas.size(); ++index) {
    const std::optional<json::Value> value = schema_to_json(*types_->schemas[index]);
    write_schema_file(folder, schema_id(index),
                      value ? json::to_text(*value, json::Style::pretty) : std::nullopt);
  }
  if (!types_->counters_schema->groups.empty())
    write_schema_file(folder, counters_schema_id(),
                      qvx_counters_schema_jsonify_text(types_->counters_schema.get()));
}

ByteArray counters_block(std::uint64_t timestamp, const Packer& values) {
  ByteArray block(kCountersHeaderSize);
  store_magic(block, QVX_COUNTERS_BLOCK);
  store_le(block.data() + offset_of(kCountersBlockLayout, "timestamp"), timestamp);
  append(block, values.bytes());
  return block;
}

ByteArray schemas_block(const std::array<qvx_schema_id, kEventSchemaSlots>& ids) {
  ByteArray block(kMinSchemasBlockSize);
  store_magic(block, QVX_SCHEMAS_BLOCK);
  store_le(block.data() + offset_of(kSchemasBlockLayout, "block_size"),
           static_cast<std::uint16_t>(block.size()));
  store_le(block.data() + offset_of(kSchemasBlockLayout, "num_schemas"),
           static_cast<std::uint8_t>(ids.size()));
  auto to = block.begin() + offset_of(kSchemasBlockLayout, "schema_ids[]");
  for (const qvx_schema_id& id : ids)
    to = std::copy(id.bytes.begin(), id.bytes.end(), to);
  return block;
}

ByteArray event_block(EventType type, std::uint64_t timestamp, std::span<const Packer> events) {
  ByteArray block(kEventHeaderSize);
  store_magic(block, QVX_EVENTS_BLOCK);
  store_le(block.data() + offset_of(kEventHeaderLayout, "timestamp"), timestamp);
  store_le(block.data() + offset_of(kEventHeaderLayout, "schema_index"), type.schema_index);
  store_le(block.data() + offset_of(kEventHeaderLayout, "type_index"), std::uint16_t{type.type_index});
  store_le(block.data() + offset_of(kEventHeaderLayout, "num_events"),
           static_cast<std::uint8_t>(events.size()));
  for (const Packer& event : events)
    append(block, event.bytes());
  return block;
}

void append(ByteArray& to, Bytes bytes) {
  to.insert(to.end(), bytes.begin(), bytes.end());
}

DataFile::Descriptor::Descriptor(const std::string& path)
    : value(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644)) {
  if (value < 0) throw std::system_error(errno, std::generic_category(), path);
}

DataFile::Descriptor::~Descriptor() {
  close(value);
}

DataFile::DataFile(const std::filesystem::path& path, Schemas& schemas, std::string_view source_id,
                   std::string_view source_tag, std::uint32_t block_size, std::uint64_t first_timestamp)
    : path_(path), descriptor_(path_) {
  const std::unique_ptr<qvx_data_file_header> fresh = create_header();
  if (fresh == nullptr) throw std::bad_alloc();
  header_ = *fresh;
  store_text(header_.source_id, source_id);
  store_text(header_.source_tag, source_tag);
  header_.first_timestamp = first_timestamp;
  header_.block_size = block_size;
  header_.counters_schema_id = schemas.counters_schema_id();
  header_.event_schema_ids = schemas.event_schema_ids();
  write_header();
}

void DataFile::append_unit(Bytes bytes, std::uint64_t last_timestamp) {
  if (bytes.size() > header_.block_size) throw std::length_error("more than one data block: " + path_);
  ByteArray unit(bytes.begin(), bytes.end());
  unit.resize(header_.block_size);
  try {
    write_at(header_.file_size, unit);
  } catch (const std::system_error&) {
    // Half a block would be read as a short one, with its missing values as zeros.
    if (ftruncate(descriptor_.value, static_cast<off_t>(header_.file_size)) != 0) errno = 0;
    throw;
  }
  header_.file_size += unit.size();
  header_.last_timestamp = last_timestamp;
  write_header();
}

void DataFile::write_header() const {
  write_at(0, file_header_encode(header_));
}

void DataFile::write_at(std::uint64_t position, Bytes bytes) const {
  while (!bytes.empty()) {
    const ssize_t count = pwrite(descriptor_.value, bytes.data(), bytes.size(), static_cast<off_t>(position));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw std::system_error(errno, std::generic_category(), path_);
    bytes = bytes.subspan(static_cast<std::size_t>(count));
    position += static_cast<std::uint64_t>(count);
  }
}

void write_file(const std::filesystem::path& path, Bytes bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  const std::string_view text = as_text(bytes);
  out.write(text.data(), static_cast<std::streamsize>(text.size()));
  if (!out.flush()) throw std::runtime_error("cannot write " + path.string());
}

}  // namespace qvx::examples
