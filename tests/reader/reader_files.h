// Data files and schema files for the reader's tests, and a run over them.
#pragma once

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/reader/options.h"
#include "qvx/reader/process_files.h"
#include "qvx/support/bytes.h"
#include "qvx/support/output_sink.h"
#include "tests/support/temp_dir.h"

namespace qvx::test {

inline constexpr std::uint64_t kStart = 1'700'000'000'000'000;  // 2023-11-14 22:13:20 UTC
inline constexpr std::string_view kEventsId = "e1e1e1e1e1e1e1e1e1e1e1e1e1e1e1e1";
inline constexpr std::string_view kCountersId = "c1c1c1c1c1c1c1c1c1c1c1c1c1c1c1c1";

inline std::string id_bytes(std::string_view id_text) {
  std::string bytes;
  for (std::size_t at = 0; at < id_text.size(); at += 2)
    bytes += static_cast<char>(std::stoi(std::string(id_text.substr(at, 2)), nullptr, 16));
  return bytes;
}

template <typename T>
std::string le(T value) {
  std::string bytes(sizeof value, '\0');
  store_le(bytes.data(), value);
  return bytes;
}

inline std::string padded(std::string bytes, std::size_t size) {
  EXPECT_LE(bytes.size(), size);
  bytes.resize(size);
  return bytes;
}

struct HeaderFields {
  std::uint32_t block_size = 256;
  std::uint64_t first_timestamp = kStart;
  std::string source_id = "host-a";
  std::string source_tag = "tag-a";
  std::string_view counters_id = kCountersId;
  std::string_view events_id = kEventsId;
};

inline std::string header_bytes(const HeaderFields& fields = {}) {
  std::string bytes = "QVXF\x01\x07";
  bytes += le<std::uint16_t>(0) + le<std::uint64_t>(256);
  bytes += padded(fields.source_id, 64) + padded(fields.source_tag, 16);
  bytes += le(fields.first_timestamp) + le(fields.first_timestamp + 10) + le(fields.block_size);
  bytes += id_bytes(fields.counters_id) + padded(id_bytes(fields.events_id), 112);
  bytes += std::string(8, '\0') + "qvxf";
  EXPECT_EQ(bytes.size(), 256u);
  return bytes;
}

// One value, as the usual counters schema has it.
inline std::string counters_block(std::uint64_t value, std::uint64_t timestamp = kStart) {
  return "QVXD" + std::string(4, '\0') + le(timestamp) + le(value);
}

// Records of the usual event type: one 16-bit number each.
inline std::string events_block(const std::vector<std::uint16_t>& values, std::uint8_t schema_index = 0,
                                std::uint16_t type_index = 0) {
  std::string bytes = "QVXE" + le(kStart) + le(schema_index) + le(type_index);
  bytes += static_cast<char>(values.size());
  for (const std::uint16_t value : values)
    bytes += le(value);
  return bytes;
}

inline std::string schemas_block(std::string_view id_text) {
  return padded("QVXS" + le<std::uint16_t>(256) + '\x01' + std::string(9, '\0') + id_bytes(id_text), 256);
}

inline std::string gzipped(std::string_view data) {
  z_stream stream{};
  EXPECT_EQ(deflateInit2(&stream, 6, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY), Z_OK);
  std::string packed(deflateBound(&stream, static_cast<uLong>(data.size())), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  stream.avail_in = static_cast<uInt>(data.size());
  stream.next_out = reinterpret_cast<Bytef*>(packed.data());
  stream.avail_out = static_cast<uInt>(packed.size());
  EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
  packed.resize(packed.size() - stream.avail_out);
  deflateEnd(&stream);
  return packed;
}

// The same data as one literal of a snappy stream; at most 127 bytes.
inline std::string snappied(std::string_view data) {
  EXPECT_LE(data.size(), 127u);
  const auto size = static_cast<std::uint8_t>(data.size());
  return le(size) + '\xf0' + le(static_cast<std::uint8_t>(size - 1)) + std::string(data);
}

inline std::string page_block(char encoding, std::string_view encoded) {
  std::string bytes = "QVXP";
  bytes += '\x1a';  // 22 and the strings "h" and "t" with their lengths
  bytes += encoding;
  bytes += le(static_cast<std::uint32_t>(encoded.size())) + le(kStart) + le(kStart);
  bytes += "\x01h\x01t";
  return bytes + std::string(encoded) + "qvxp";
}

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
