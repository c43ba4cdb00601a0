// What the example programs share: describing what they record, packing it into blocks and appending the
// blocks to a data file. Faults are exceptions with the reason in their text.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/counters/counter_data.h"
#include "qvx/data/file_header.h"
#include "qvx/data/schema/schema.h"
#include "qvx/data/schema/type_system.h"
#include "qvx/data/schema_id.h"
#include "qvx/support/bytes.h"

namespace qvx::examples {

using ByteArray = std::vector<std::byte>;

// The bytes of one value of a type: its fields in declaration order, without gaps.
class Packer {
 public:
  template <Scalar T>
  Packer& add(T value) {
    std::array<std::byte, sizeof value> stored;
    store_le(stored.data(), value);
    for (const std::byte byte : stored)
      bytes_.push_back(byte);
    return *this;
  }
  Packer& add(const Packer& nested);
  // At most `width` - 1 characters, filled up with zeros.
  Packer& add_text(std::string_view text, std::size_t width);

  const ByteArray& bytes() const { return bytes_; }

 private:
  ByteArray bytes_;
};

// Where the type of an event is found: the slot of its schema in the file header, its slot in the schema.
struct EventType {
  std::uint8_t schema_index = 0;
  std::uint8_t type_index = 0;
};

struct Counter {
  const char* name;
  const char* description;
  const char* units;
  qvx_counter_data_type data_type;
  std::uint32_t counting_type = kAbsoluteCounting;
  std::uint32_t length = 8;
};

inline constexpr std::uint32_t kNodeGranularity = 0;
inline constexpr std::uint32_t kCpuGranularity = 1;

// The schemas of a data file, built up in the order in which its header names them.
class Schemas {
 public:
  Schemas();

  void add_schema(const char* provider, std::uint32_t version);
  // Adds a type to the schema that was added last. Fields have built-in types or types added before.
  EventType add_type(const char* name, std::initializer_list<qvx_field_info> fields);
  void set_index_fields(EventType type, std::initializer_list<const char*> names);
  void add_counters(const char* group_name, std::uint32_t granularity, std::uint32_t num_sets,
                    std::initializer_list<Counter> counters);

  std::size_t count() const { return types_->schemas.size(); }

  // Bytes of a block that holds one event of the largest type, or one set of all counters.
  std::uint32_t largest_block_size() const;

  // The identifier of a schema: the MD5 digest of its file.
  const qvx_schema_id& schema_id(std::size_t index);
  // All zero when there are no counters.
  qvx_schema_id counters_schema_id();

  // All of them in their slots, as a file header names them.
  std::array<qvx_schema_id, kEventSchemaSlots> event_schema_ids();

  // Writes each schema into the folder as the file that its identifier names.
  void write_files(const std::filesystem::path& folder);

 private:
  TypeSystemPtr types_;
};

ByteArray counters_block(std::uint64_t timestamp, const Packer& values);
// Names these schemas for the events behind it.
ByteArray schemas_block(const std::array<qvx_schema_id, kEventSchemaSlots>& ids);
ByteArray event_block(EventType type, std::uint64_t timestamp, std::span<const Packer> events);

void append(ByteArray& to, Bytes bytes);

// A data file that can be read at any moment: its header is right after every append.
class DataFile {
 public:
  // Creates the file, or empties one that exists. The header names the schemas.
  DataFile(const std::filesystem::path& path, Schemas& schemas, std::string_view source_id,
           std::string_view source_tag, std::uint32_t block_size, std::uint64_t first_timestamp);

  // Appends the bytes as one data block, filled up with zeros. After a failure the file ends where it did
  // before.
  void append_unit(Bytes bytes, std::uint64_t last_timestamp);

 private:
  void write_at(std::uint64_t position, Bytes bytes) const;
  void write_header() const;

  struct Descriptor {
    explicit Descriptor(const std::string& path);
    ~Descriptor();
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int value;
  };

  std::string path_;
  Descriptor descriptor_;
  qvx_data_file_header header_;
};

// Writes a whole file, replacing one that exists.
void write_file(const std::filesystem::path& path, Bytes bytes);

}  // namespace qvx::examples
