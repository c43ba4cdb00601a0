// Data files with schemas for tests of columns, and queries against them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "qvx/columns/dataset.h"
#include "qvx/columns/query.h"
#include "qvx/columns/table_stream.h"
#include "tests/columns/arrow_rows.h"
#include "tests/data/sample_builder.h"
#include "tests/metrics/cntx_builder.h"
#include "tests/support/temp_dir.h"

namespace qvx::test {

// One type of every kind of field: 8 + 8 + 1 + 8 + 2 * 2 + 8 bytes.
inline constexpr std::string_view kJobs =
    R"({"qvx_version":"1.5.0","provider_name":"batch","provider_version":"1.0.0","types":[)"
    R"({"name":"position","size":4,"fields":[)"
    R"({"field_name":"x","description":"","type_name":"uint16_t","counting_mode":"ABSOLUTE","offset":0,"type_size":2},)"
    R"({"field_name":"y","description":"","type_name":"int16_t","counting_mode":"ABSOLUTE","offset":2,"type_size":2}]},)"
    R"({"name":"job","size":37,"fields":[)"
    R"({"field_name":"time","description":"when","type_name":"timestamp","counting_mode":"ABSOLUTE","offset":0,"type_size":8},)"
    R"({"field_name":"id","description":"","type_name":"uint64_t","counting_mode":"ABSOLUTE","offset":8,"type_size":8},)"
    R"({"field_name":"ok","description":"","type_name":"bool","counting_mode":"ABSOLUTE","offset":16,"type_size":1},)"
    R"({"field_name":"user","description":"","type_name":"char","counting_mode":"ABSOLUTE","array_length":8,"offset":17,"type_size":1},)"
    R"({"field_name":"nodes","description":"","type_name":"int16_t","counting_mode":"ABSOLUTE","array_length":2,"offset":25,"type_size":2},)"
    R"({"field_name":"at","description":"","type_name":"position","counting_mode":"ABSOLUTE","array_length":2,"offset":29,"type_size":4}]}]})";

inline constexpr std::string_view kLoads =
    R"({"version":"1.5.0","counter_groups":[)"
    R"({"granularity":"NODE","name":"node","num_counters":2,"num_counter_sets":1,"counters":[)"
    R"({"name":"used","description":"memory","units":"bytes","data_type":"UINT64","counting_type":"ABSOLUTE"},)"
    R"({"name":"name","description":"","units":"","data_type":"STRING","length":4,"counting_type":"ABSOLUTE"}]},)"
    R"({"granularity":"CPU","name":"cpu","num_counters":1,"num_counter_sets":3,"counters":[)"
    R"({"name":"load","description":"","units":"","data_type":"FP64","counting_type":"ABSOLUTE"}]}]})";

// -- Other schemas, piece by piece: joined by commas where there are several

inline std::string event_field(const std::string& name, const std::string& type, std::uint64_t offset,
                               int size, int array_length = 1) {
  return R"({"field_name":")" + name + R"(","description":"","type_name":")" + type +
         R"(","counting_mode":"ABSOLUTE","offset":)" + std::to_string(offset) + R"(,"type_size":)" +
         std::to_string(size) + R"(,"array_length":)" + std::to_string(array_length) + "}";
}
inline std::string event_type(const std::string& name, int size, const std::string& fields) {
  return R"({"name":")" + name + R"(","size":)" + std::to_string(size) + R"(,"fields":[)" + fields + "]}";
}
inline std::string event_schema(const std::string& provider, const std::string& types) {
  return R"({"qvx_version":"1.5.0","provider_name":")" + provider +
         R"(","provider_version":"1.0.0","types":[)" + types + "]}";
}

inline std::string counter_of(const std::string& name, const std::string& type) {
  return R"({"name":")" + name + R"(","description":"","units":"","data_type":")" + type +
         R"(","counting_type":"ABSOLUTE"})";
}
inline std::string counter_group(const std::string& name, std::uint64_t sets, const std::string& counters) {
  return R"({"granularity":"NODE","name":")" + name + R"(","num_counters":1,"num_counter_sets":)" +
         std::to_string(sets) + R"(,"counters":[)" + counters + "]}";
}
inline std::string counters_schema(const std::string& groups, const std::string& version = "1.5.0") {
  return R"({"version":")" + version + R"(","counter_groups":[)" + groups + "]}";
}

// -- Records of both

// Record `number` of type job.
inline std::string job(std::uint64_t number, std::string_view user = "ann") {
  const auto small = static_cast<std::uint16_t>(number);
  return le(kNoon + number) + le(number) + le(static_cast<std::uint8_t>(number % 2)) + field(user, 8) +
         le(small) + le(std::int16_t{-1}) + le(small) + le(std::int16_t{-2}) + le(small) +
         le(std::int16_t{-3});
}

inline std::string job_row(std::uint64_t number, std::string_view user = "ann") {
  const std::string n = std::to_string(number);
  return R"({"time":)" + std::to_string(kNoon + number) + R"(,"id":)" + n + R"(,"ok":)" +
         (number % 2 == 1 ? "true" : "false") + R"(,"user":")" + std::string(user) + R"(","nodes":[)" + n +
         R"(,-1],"at":[{"x":)" + n + R"(,"y":-2},{"x":)" + n + R"(,"y":-3}]})";
}

inline std::string jobs_block(std::uint64_t first, std::uint64_t count) {
  std::vector<std::string> records;
  for (std::uint64_t number = first; number < first + count; ++number)
    records.push_back(job(number));
  return events_block({.timestamp = kNoon, .type_index = 1}, records);
}

inline std::string loads_block(std::uint64_t used, std::string_view name, double load,
                               std::uint64_t time = kNoon) {
  return counters_block(time, le(used) + field(name, 4) + le(load));
}

// A metrics block of so many rows with 200 labels, whose names have 250 bytes: 51,600 bytes a row. Needs
// units of 128 KiB.
inline std::string long_labels_block(std::size_t rows) {
  std::vector<std::string> names;
  for (int i = 0; i < 200; ++i)
    names.push_back(std::to_string(100 + i) + std::string(247, 'n'));
  TestBlock block;
  block.label_name_sets = label_names(names);
  block.blocksize = 100000;
  block.records = {record({.samples = std::vector<std::pair<std::uint16_t, std::uint64_t>>(rows, {1, 7}),
                           .labels = labels_l(0, std::vector<std::uint8_t>(200, 0))})};
  return block.bytes();
}

// A folder with the schemas of both.
class ColumnFiles {
 public:
  ColumnFiles() {
    add_schema(kJobs);
    add_schema(kLoads);
  }

  void add_schema(std::string_view text) const {
    folder_.write_file("schema/" + schema_file_name(md5_id(text)), text);
  }

  static FileHeader header(std::uint32_t block_size = 512) {
    FileHeader header;
    header.block_size = block_size;
    header.event_schema_ids = {md5_id(kJobs)};
    header.counters_schema_id = md5_id(kLoads);
    return header;
  }

  std::string write(std::string_view name, const std::vector<std::string>& units,
                    const FileHeader& with = header()) const {
    return folder_.write_file(name, sample_file(with, units));
  }
  // Under these schemas; the counters schema may be left out.
  std::string write(std::string_view name, const std::vector<std::string>& units, std::string_view events,
                    std::string_view counters = "") const {
    FileHeader with = header();
    with.event_schema_ids.clear();
    if (!events.empty()) with.event_schema_ids = {md5_id(events)};
    with.counters_schema_id = counters.empty() ? qvx_schema_id{} : md5_id(counters);
    for (const std::string_view text : {events, counters})
      if (!text.empty()) add_schema(text);
    return write(name, units, with);
  }
  std::string write_bytes(std::string_view name, std::string_view bytes) const {
    return folder_.write_file(name, bytes);
  }

 private:
  TempDir folder_;
};

inline std::string id_text(std::string_view schema) {
  return schema_id_text(md5_id(schema)).value();
}

inline std::shared_ptr<columns::Dataset> open(std::vector<std::string> paths) {
  return std::make_shared<columns::Dataset>(std::move(paths));
}

inline ReadTable read(const std::shared_ptr<columns::Dataset>& dataset, const columns::Query& query,
                      Numbers numbers = Numbers::exact) {
  columns::TableStream stream(dataset, columns::resolve(*dataset, query));
  return read_all(stream, numbers);
}

inline std::vector<std::string> rows(const std::vector<std::string>& paths, const columns::Query& query) {
  return read(open(paths), query).rows;
}

}  // namespace qvx::test
