// The committed sample data: that its program still makes it, and what the reader makes of it.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/data/schema_id.h"
#include "qvx/support/json_parse.h"
#include "qvx/support/md5.h"
#include "tests/examples/program.h"
#include "tests/support/env_guard.h"
#include "tests/support/temp_dir.h"

namespace qvx::test {
namespace {

namespace fs = std::filesystem;

const fs::path kSample = QVX_SAMPLE_DIR;
const std::vector<std::string> kFiles = {"archive.bin.gz",  "counters.bin", "events.bin",
                                         "gzip_pages.bin",  "metrics.bin",  "schemas.bin",
                                         "snappy_pages.bin"};

std::string read_as(const std::string& format, const fs::path& folder, const std::string& name) {
  const ProgramResult result = run_program({QVX_READ, "-f", format, (folder / name).string()});
  EXPECT_EQ(result.status, 0) << name;
  return result.out;
}

std::string ndjson(const std::string& name) {
  return read_as("ndjson", kSample, name);
}

std::vector<std::string> names_in(const fs::path& folder) {
  std::vector<std::string> names;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder))
    if (entry.is_regular_file()) names.push_back(fs::relative(entry.path(), folder).string());
  std::sort(names.begin(), names.end());
  return names;
}

// Compressed bytes differ from one version of the compressor to the next; what they hold does not.
bool is_compressed(const std::string& name) {
  return name == "archive.bin.gz" || name == "gzip_pages.bin" || name == "snappy_pages.bin";
}

TEST(SampleData, IsWhatItsProgramMakes) {
  const TempDir made;
  ASSERT_EQ(run_program({QVX_MAKE_SAMPLE, made.path().string()}).status, 0);
  ASSERT_EQ(names_in(made.path()), names_in(kSample));
  for (const std::string& name : names_in(kSample)) {
    if (is_compressed(name))
      EXPECT_EQ(read_as("ndjson", made.path(), name), ndjson(name)) << name;
    else
      EXPECT_TRUE(read_file(made.path() / name) == read_file(kSample / name)) << name;
  }
}

TEST(SampleData, SchemaFilesAreNamedAfterTheirDigest) {
  std::size_t count = 0;
  for (const fs::directory_entry& entry : fs::directory_iterator(kSample / "schema")) {
    const qvx_schema_id id{md5(read_file(entry.path()))};
    EXPECT_EQ(entry.path().filename().string(), "schema_" + *schema_id_text(id) + ".json");
    ++count;
  }
  EXPECT_EQ(count, 5u);
}

TEST(SampleData, IsSmall) {
  std::uintmax_t size = 0;
  for (const std::string& name : names_in(kSample))
    size += fs::file_size(kSample / name);
  EXPECT_LT(size, 200u * 1024);
}

TEST(SampleData, AllFilesReadAsOneJsonDocumentWithoutComplaint) {
  std::vector<std::string> words = {QVX_READ};
  for (const std::string& name : kFiles)
    words.push_back((kSample / name).string());
  const ProgramResult result = run_program(words);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.error, "");
  const std::optional<json::Value> value = json::parse(result.out);
  ASSERT_TRUE(value && value->as_object() != nullptr);
  const auto count = [&](const char* key) { return value->as_object()->array_at(key)->size(); };
  EXPECT_EQ(value->as_object()->size(), 7u);
  EXPECT_EQ(count("archive"), 72u);
  EXPECT_EQ(count("counters"), 12u);
  EXPECT_EQ(count("events"), 72u);
  EXPECT_EQ(count("gzip_pages"), 78u);
  EXPECT_EQ(count("metrics"), 18u);
  EXPECT_EQ(count("schemas"), 14u);
  EXPECT_EQ(count("snappy_pages"), 78u);
}

TEST(SampleData, EveryNdjsonLineIsAnObject) {
  for (const std::string& name : kFiles)
    for (const std::string& line : lines_of(ndjson(name))) {
      const std::optional<json::Value> value = json::parse(line);
      EXPECT_TRUE(value && value->as_object() != nullptr) << line;
    }
}

TEST(SampleData, ArchiveHoldsWhatTheEventsFileHolds) {
  EXPECT_EQ(ndjson("archive.bin.gz"), ndjson("events.bin"));
}

TEST(SampleData, BothEncodingsHoldTheSamePages) {
  EXPECT_EQ(ndjson("snappy_pages.bin"), ndjson("gzip_pages.bin"));
}

TEST(SampleData, ChangedSchemasDecodeTheEventsBehindThem) {
  const std::vector<std::string> lines = lines_of(ndjson("schemas.bin"));
  ASSERT_EQ(lines.size(), 14u);
  EXPECT_EQ(lines[0].substr(0, 38), R"({"timestamp":1700000000000000,"job":60)");
  EXPECT_EQ(lines[6].substr(0, 49), R"({"timestamp":1700000060000000,"device":"nvme0n1",)");
  EXPECT_EQ(lines[8].substr(0, 38), R"({"timestamp":1700000060000000,"job":60)");
}

TEST(SampleData, FirstRecordsReadAsInvented) {
  const TimeZoneGuard utc("UTC");
  EXPECT_EQ(lines_of(ndjson("events.bin")).at(0),
            R"({"timestamp":1700000000000000,"host":"node-017.cluster.example","swapping":0,)"
            R"("memory_free":27259000000,"load":[1.6000000000000001,1.29,3.04],"cores":[)"
            R"({"core":0,"user":18.5,"system":4},{"core":1,"user":79.75,"system":13.25},)"
            R"({"core":2,"user":63.5,"system":4.75},{"core":3,"user":6,"system":13.5}]})");
  EXPECT_EQ(lines_of(read_as("influx", kSample, "schemas.bin")).at(3),
            "timestamp=1700000020000000i,job=60000i,exit_status=0i,signal=0i,"
            "use.cpu_seconds=19122.540000,use.memory_peak=20979000000i");
  EXPECT_EQ(lines_of(ndjson("counters.bin")).at(0),
            R"({"timestamp":1700000000000000,"@timestamp":"2023-11-14 22:13:20.000","groups":[)"
            R"({"granularity":"NODE","name":"node","counter_sets":[{"memory_used":28304000000,)"
            R"("memory_growth":-286,"context_switches":910003259,"load_1m":3.3599999999999999,)"
            R"("throttle_flags":128,"kernel":"6.1.0-13-arm64"}]},)"
            R"({"granularity":"CPU","name":"cpu","counter_sets":[)"
            R"({"user_time":7200960,"system_time":1800429,"frequency":1.1299999999999999},)"
            R"({"user_time":7200960,"system_time":1800429,"frequency":1.1299999999999999},)"
            R"({"user_time":7200960,"system_time":1800429,"frequency":1.1299999999999999},)"
            R"({"user_time":7200960,"system_time":1800429,"frequency":1.1299999999999999}]}]})");
}

TEST(SampleData, MetricsBlocksReadAsTheirLastBatch) {
  const TimeZoneGuard utc("UTC");
  const std::vector<std::string> lines = lines_of(ndjson("metrics.bin"));
  ASSERT_EQ(lines.size(), 18u);
  EXPECT_EQ(lines[0],
            R"({"timestamp":1700000000000000,"@timestamp":"2023-11-14 22:13:20.000","labels":[)"
            R"({"cluster":"alpha"},{"rack":"r17"},{"host":"node-017.cluster.example"},{"interface":"ib0"}],)"
            R"("metrics":[{"net_received_bytes":8880000000},{"net_sent_bytes":3720000000},)"
            R"({"net_dropped_frames":0}]})");
  // The form knows no value types: a floating-point value shows as its bits.
  EXPECT_EQ(
      lines[16],
      R"({"timestamp":1700000050000000,"@timestamp":"2023-11-14 22:14:10.000","labels":[)"
      R"({"cluster":"alpha"},{"rack":"r17"},{"host":"node-017.cluster.example"},{"job":"train resnet"}],)"
      R"("metrics":[{"job_cpu_seconds":4.6362974867035259e+18},{"job_load":4.6133748682876518e+18}]})");
  EXPECT_EQ(lines[17], R"({"timestamp":1700000050000000,"@timestamp":"2023-11-14 22:14:10.000","labels":[)"
                       R"({"cluster":"alpha"},{"rack":"r17"},{"host":"node-017.cluster.example"}],)"
                       R"("metrics":[{"node_energy_joules":52023000}]})");
}

TEST(SampleData, TextTableHasARowOfValuesForEachCore) {
  const TimeZoneGuard utc("UTC");
  const std::vector<std::string> lines = lines_of(read_as("txt", kSample, "gzip_pages.bin"));
  ASSERT_EQ(lines.size(), 66u);
  EXPECT_EQ(lines[0], "Data collected at 2023-11-14 22:13:20.000");
  EXPECT_EQ(
      lines[6],
      "|   0 |                  259 |                   60 |                   69 |            2.040 |");
  EXPECT_EQ(
      lines[9],
      "|   3 |                    4 |                  134 |                   71 |            2.130 |");
}

// Splits a line into its field texts at the commas outside quotes.
std::vector<std::string_view> influx_fields(std::string_view line) {
  std::vector<std::string_view> fields;
  bool is_quoted = false;
  std::size_t start = 0;
  for (std::size_t i = 0; i <= line.size(); ++i) {
    if (i < line.size() && line[i] == '"') is_quoted = !is_quoted;
    if (i < line.size() && (is_quoted || line[i] != ',')) continue;
    fields.push_back(line.substr(start, i - start));
    start = i + 1;
  }
  return fields;
}

bool is_influx_value(std::string_view value) {
  constexpr std::string_view kDigits = "0123456789";
  if (value == "true" || value == "false") return true;
  if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
    return value.substr(1, value.size() - 2).find_first_of("\"\\") == std::string_view::npos;
  if (value.starts_with('-')) value.remove_prefix(1);
  const std::size_t point = value.find('.');
  const std::string_view whole = value.substr(0, std::min(point, value.size() - 1));
  if (whole.empty() || whole.find_first_not_of(kDigits) != std::string_view::npos) return false;
  if (point == std::string_view::npos) return value.back() == 'i';
  const std::string_view fraction = value.substr(point + 1);
  return !fraction.empty() && fraction.find_first_not_of(kDigits) == std::string_view::npos;
}

TEST(SampleData, EveryInfluxLineIsAFieldSet) {
  std::size_t count = 0;
  for (const std::string name : {"events.bin", "gzip_pages.bin", "schemas.bin"})
    for (const std::string& line : lines_of(read_as("influx", kSample, name))) {
      ++count;
      for (const std::string_view field : influx_fields(line)) {
        const std::size_t equals = field.find('=');
        ASSERT_NE(equals, std::string_view::npos) << line;
        EXPECT_GT(equals, 0u) << line;
        EXPECT_EQ(field.substr(0, equals).find(' '), std::string_view::npos) << line;
        EXPECT_TRUE(is_influx_value(field.substr(equals + 1))) << field;
      }
    }
  EXPECT_EQ(count, 158u);
}

}  // namespace
}  // namespace qvx::test
