// Data files and schema files for the reader's tests, and a run over them.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/reader/options.h"
#include "qvx/reader/process_files.h"
#include "qvx/support/output_sink.h"
#include "tests/data/sample_builder.h"
#include "tests/support/temp_dir.h"

namespace qvx::test {

inline constexpr std::uint64_t kStart = 1'700'000'000'000'000;  // 2023-11-14 22:13:20 UTC
inline constexpr const char* kEventsId = "e1e1e1e1e1e1e1e1e1e1e1e1e1e1e1e1";
inline constexpr const char* kCountersId = "c1c1c1c1c1c1c1c1c1c1c1c1c1c1c1c1";

// -- The usual pieces, one of each kind

inline FileHeader usual_header(std::uint32_t block_size = 256) {
  FileHeader header;
  header.source_id = "host-a";
  header.source_tag = "tag-a";
  header.first_timestamp = kStart;
  header.last_timestamp = kStart + 10;
  header.block_size = block_size;
  header.counters_schema_id = id_of(kCountersId);
  header.event_schema_ids = {id_of(kEventsId)};
  return header;
}

// One value, as the usual counters schema has it.
inline std::string usual_counters(std::uint64_t value, std::uint64_t timestamp = kStart) {
  return counters_block(timestamp, le(value));
}

// Records of the usual event type: one 16-bit number each.
inline std::string usual_events(const std::vector<std::uint16_t>& values, std::uint8_t schema_index = 0,
                                std::uint16_t type_index = 0) {
  std::vector<std::string> records;
  for (const std::uint16_t value : values)
    records.push_back(le(value));
  return events_block({kStart, schema_index, type_index}, records);
}

inline std::string usual_schemas(const char* id_text) {
  return schemas_block({id_of(id_text)});
}

inline PageBlockHeader usual_page_header(char encoding) {
  return {encoding, kStart, kStart, "h", "t"};
}

inline std::string usual_page(char encoding, std::string_view page) {
  return page_block(usual_page_header(encoding), page);
}

// -- Their schemas

inline constexpr std::string_view kUsualEvents =
    R"({"qvx_version":"1.5.0","provider_name":"p","provider_version":"1.0.0","types":[{"name":"sample","size":2,)"
    R"("fields":[{"field_name":"v","description":"","type_name":"uint16_t","counting_mode":"ABSOLUTE",)"
    R"("offset":0,"type_size":2,"index":0}]}]})";
inline constexpr std::string_view kUsualCounters =
    R"({"version":"1.5.0","counter_groups":[{"granularity":"NODE","name":"g","num_counters":1,)"
    R"("num_counter_sets":1,"counters":[{"name":"c","description":"","units":"","data_type":"UINT64",)"
    R"("counting_type":"ABSOLUTE"}]}]})";

// The events schema with another field name.
inline std::string events_schema_with_field(std::string_view name) {
  std::string text(kUsualEvents);
  const std::string_view old = R"("field_name":"v")";
  text.replace(text.find(old), old.size(), R"("field_name":")" + std::string(name) + '"');
  return text;
}

// What a counters block with the value prints in ndjson.
inline std::string counters_line(std::uint64_t value) {
  return R"({"timestamp":1700000000000000,"@timestamp":"2023-11-14 22:13:20.000","groups":[{"granularity":"NODE",)"
         R"("name":"g","counter_sets":[{"c":)" +
         std::to_string(value) + "}]}]}\n";
}

// A folder with the usual schemas, and runs over files in it.
class ReaderFiles {
 public:
  ReaderFiles() {
    write_schema(kEventsId, kUsualEvents);
    write_schema(kCountersId, kUsualCounters);
  }

  std::string write(std::string_view name, std::string_view content) const {
    return folder_.write_file(name, content);
  }
  std::string write_schema(std::string_view id_text, std::string_view content) const {
    return write("schema/schema_" + std::string(id_text) + ".json", content);
  }
  std::string path(std::string_view name) const { return folder_.file(name); }

  ReaderOptions options(OutputFormat format = OutputFormat::ndjson) const {
    ReaderOptions options;
    EXPECT_TRUE(reader_options_set_defaults(options));
    EXPECT_TRUE(append(options.include_counters, "*"));
    options.schema_path = path("schema");
    options.format = format;
    return options;
  }

 private:
  TempDir folder_;
};

struct RunResult {
  int failures = 0;
  std::string out;
  std::string err;
};

// Runs over the files with the options' list of files replaced.
inline RunResult run(ReaderOptions& options, const std::vector<std::string>& files) {
  options.input_files = make_string_array();
  for (const std::string& file : files)
    EXPECT_TRUE(append(options.input_files, file.c_str()));
  RunResult result;
  testing::internal::CaptureStderr();
  {
    OutputSink sink(result.out);
    result.failures = process_files(options, sink);
  }
  result.err = testing::internal::GetCapturedStderr();
  return result;
}

}  // namespace qvx::test
