#include "qvx/metrics/metrics_json.h"

#include <gtest/gtest.h>

#include <string>

#include "qvx/metrics/metrics_output.h"
#include "qvx/support/json_text.h"
#include "tests/metrics/cntx_builder.h"
#include "tests/metrics/recording_target.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/log_capture.h"

namespace qvx::metrics {
namespace {

using namespace test;
using Messages = std::vector<std::string>;

// A block as it is decoded; the bytes must outlive it.
struct Decoded {
  explicit Decoded(const std::string& bytes) {
    read_block_tables(as_bytes(bytes), HistogramUse::check, tables);
    const MetricsDataSection section = find_data_section(as_bytes(bytes), has_output_trailer);
    for (std::size_t at = kFirstRecordAt; at < section.end;) {
      const std::byte* const record = section.area + at;
      const MetricsRecordHeader header = read_record_header(record, section.block_end);
      MetricsBatch& batch = batches.emplace_back();
      batch.timestamp = header.timestamp;
      batch.samples = read_record_samples(record, section.block_end, header);
      at += read_record_labels(section, record, header, "test", batch);
    }
  }
  std::optional<json::Value> json() const {
    return metrics_to_json(tables.label_names, tables.label_values, tables.constant_labels,
                           tables.metric_names, batches);
  }

  MetricsBlockTables tables;
  std::vector<MetricsBatch> batches;
};

std::optional<std::string> json_of(const TestBlock& block) {
  const std::string bytes = block.bytes();
  const std::optional<json::Value> value = Decoded(bytes).json();
  if (!value) return std::nullopt;
  return json::to_text(*value, json::Style::compact);
}

TestBlock full_block() {
  TestBlock block;
  block.label_name_sets = label_names({"host", std::string("port\0x", 6)});
  block.constant_labels = constant_labels({"site", "here", "host", "none"});
  block.records = {record({.samples = {{0, 5}, {2, 0xFFFFFFFFFFFFFFFF}},
                           .labels = labels_m(0, {mixed_id(0), mixed_text("\"1\"")})})};
  return block;
}

TEST(MetricsToJson, HoldsTimeLabelsAndMetrics) {
  EXPECT_EQ(
      json_of(full_block()),
      R"({"timestamp":1700000000000000,"@timestamp":"2023-11-14 22:13:20.000","labels":[{"site":"here"},)"
      R"({"host":"node7"},{"port":"\"1\""}],"metrics":[{"rx":5},{"err":1.8446744073709552e+19}]})");
}

TEST(MetricsToJson, IsWhatTheOutputWrites) {
  TestBlock several = full_block();
  several.records = {record({.labels = labels_l(9, {})}), record({.timestamp = 7, .samples = {{1, 6}}}),
                     record({.timestamp = 8, .samples = {}, .labels = labels_l(9, {1})})};
  TestBlock empty;
  empty.records.clear();
  for (const TestBlock& block : {full_block(), several, empty}) {
    RecordingTarget target(MetricsRecordTarget::Format::ndjson);
    output_metrics_block(target, as_bytes(block.bytes()));
    EXPECT_EQ(json_of(block).value() + "\n", target.text());
  }
}

TEST(MetricsToJson, FaultsAreLoggedAndGiveNothing) {
  TestBlock block;
  block.records = {record({}), record({.labels = labels_i(0, {"v\xFF"})})};
  LogCapture log(QVX_LOG_ERROR);
  EXPECT_EQ(json_of(block), std::nullopt);
  block.records = {record({.samples = {{4, 1}}})};
  EXPECT_EQ(json_of(block), std::nullopt);
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            (Messages{"Failed allocating JSON object",
                      "[qvx metrics parser] invalid metric id: 4, total metric names size: 4",
                      "failed to JSONify metrics: invalid metric id"}));
}

TEST(MetricsToJson, ShortMemoryGivesNothing) {
  const std::string bytes = full_block().bytes();
  const Decoded decoded(bytes);
  bool is_made = false;
  for (std::size_t successes = 0; !is_made; ++successes) {
    ASSERT_LT(successes, 1000u);
    std::optional<json::Value> value;
    bool any_failed = false;
    {
      const FailingAllocations failing(successes);
      value = decoded.json();
      any_failed = failing.any_failed();
    }
    is_made = value.has_value();
    EXPECT_NE(is_made, any_failed);
  }
}

}  // namespace
}  // namespace qvx::metrics
