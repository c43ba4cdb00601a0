// Writes a data file and its schema, or appends to it, and prints the values that are in it:
//
//   write_file [FOLDER]        the file is readings.bin in the folder
#include <array>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>

#include "qvx/data/schema/schema_writer.h"
#include "qvx/data/schema/type_system.h"
#include "qvx/data/write/data_writer.h"
#include "qvx/scan/data_file_reader.h"
#include "qvx/support/version.h"

namespace {

using namespace qvx;

// The type of the records, as a schema file. Gives its identifier, all zero on failure.
qvx_schema_id write_schema() {
  const TypeSystemPtr types(qvx_type_system_create());
  if (types == nullptr) return {};
  const qvx_field_info fields[] = {{"station", "number of the station", "uint16_t", kAbsoluteCounting, 1},
                                   {"celsius", "temperature", "double", kAbsoluteCounting, 1}};
  qvx_schema* schema = qvx_type_system_new_schema(types.get(), "weather", pack_version(1, 0, 0), nullptr);
  if (schema == nullptr || qvx_schema_add_type(schema, "reading", fields, 2, nullptr) != 0) return {};
  if (!qvx_type_system_fill_digests(types.get())) return {};
  SchemaWriter(".").onSchema(qvx_type_system_to_json_text(types.get(), true).value_or(""));
  return schema->md5_digest;
}

// One page with one events block of two records, in the file of the source "roof".
bool write_page(const qvx_schema_id& schema) {
  constexpr std::uint64_t kTime = 1700000000000000;  // microseconds
  constexpr std::size_t kRecordSize = 10;
  std::array<std::byte, kEventHeaderSize + 2 * kRecordSize> block{};
  store_field<kEventHeaderLayout, "magic">(block.data(), std::array{'Q', 'V', 'X', 'E'});
  store_field<kEventHeaderLayout, "timestamp">(block.data(), kTime);
  store_field<kEventHeaderLayout, "num_events">(block.data(), std::uint8_t{2});
  for (std::uint16_t i = 0; i < 2; ++i) {
    store_le(block.data() + kEventHeaderSize + i * kRecordSize, i);
    store_le(block.data() + kEventHeaderSize + i * kRecordSize + 2, 21.5 + i);
  }
  const PagePtr page = page_alloc(4096, kPageHeaderSize + 4096, {});
  const ClientIdPtr host(qvx_client_id_create());
  const DataWriterPtr writer(host != nullptr ? data_writer_create(*host) : nullptr);
  if (page == nullptr || writer == nullptr) return false;
  page_set_source(*page, make_source("roof", "demo"));
  page_set_timestamps(*page, kTime, kTime);
  writer->path_template = "readings.bin";
  writer->event_schema_ids[0] = schema;
  return page_consume_free_space(*page, block) && data_writer_write_page(*writer, *page);
}

}  // namespace

int main(int count, char** words) try {
  if (count > 1) std::filesystem::current_path(words[1]);
  if (!write_page(write_schema())) return 1;
  DataFileReader reader(".");
  FieldHandle station("station"), celsius("celsius");
  if (!reader.open("readings.bin")) std::puts(reader.error().c_str());
  for (const Record& record : reader.records())
    std::printf("%u: %.1f\n", record.get<unsigned>(station).value_or(0),
                record.get<double>(celsius).value_or(0));
  return reader.failed() ? 1 : 0;
} catch (const std::exception& fault) {
  return std::fprintf(stderr, "%s\n", fault.what()), 1;
}
