#include "qvx/metrics/metrics_output.h"

#include <gtest/gtest.h>

#include <string>

#include "qvx/metrics/labels_text.h"
#include "tests/metrics/cntx_builder.h"
#include "tests/metrics/recording_target.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/log_capture.h"

namespace qvx::metrics {
namespace {

using namespace test;
using Format = MetricsRecordTarget::Format;
using Messages = std::vector<std::string>;

struct Output {
  std::string text;
  int records = 0;
  Messages file_errors;
  Messages errors;
  Messages warnings;
};

Output output(std::string_view block, Format format = Format::ndjson) {
  const GuardedBuffer buffer(block);
  RecordingTarget target(format);
  LogCapture log;
  output_metrics_block(target, buffer.bytes());
  return {target.text(), target.records, target.file_errors, log.texts(QVX_LOG_ERROR),
          log.texts(QVX_LOG_WARNING)};
}

std::string line(const TestBlock& block) {
  return output(block.bytes()).text;
}

constexpr const char* kStart = R"({"timestamp":1700000000000000,"@timestamp":"2023-11-14 22:13:20.000",)";

// Of a block as the builder makes it.
constexpr const char* kUsualLine = R"({"timestamp":1700000000000000,"@timestamp":"2023-11-14 22:13:20.000",)"
                                   R"("labels":[{"host":"node7"}],"metrics":[{"rx":5}]})"
                                   "\n";

TEST(OutputMetricsBlock, NdjsonIsOneCompactLine) {
  TestBlock block;
  block.label_name_sets = label_names({"host", "port"});
  block.records = {
      record({.samples = {{0, 1234}, {1, 99}}, .labels = labels_m(0, {mixed_id(0), mixed_text("1")})})};
  const Output out = output(block.bytes());
  EXPECT_EQ(out.text, std::string(kStart) +
                          R"("labels":[{"host":"node7"},{"port":"1"}],"metrics":[{"rx":1234},{"tx":99}]})"
                          "\n");
  EXPECT_EQ(out.records, 1);
  EXPECT_TRUE(out.errors.empty() && out.file_errors.empty());
}

TEST(OutputMetricsBlock, JsonIsPretty) {
  TestBlock block;
  block.records = {record({.samples = {{0, 1}, {1, 2}}, .labels = labels_l(0, {2})})};
  EXPECT_EQ(output(block.bytes(), Format::json).text, R"({
    "timestamp": 1700000000000000,
    "@timestamp": "2023-11-14 22:13:20.000",
    "labels": [
        {
            "host": "p1"
        }
    ],
    "metrics": [
        {
            "rx": 1
        },
        {
            "tx": 2
        }
    ]
})");
}

TEST(OutputMetricsBlock, EmptyListsAndAnEmptyObject) {
  TestBlock block;
  block.records = {record({.samples = {}, .labels = labels_l(0, {})})};
  const Output out = output(block.bytes(), Format::json);
  EXPECT_NE(out.text.find("    \"labels\": [],\n    \"metrics\": []\n}"), std::string::npos);
  EXPECT_EQ(out.warnings, Messages{"[qvx metrics parser] no samples in the metrics batch"});
  block.records.clear();
  EXPECT_EQ(line(block), "{}\n");
  EXPECT_EQ(output(block.bytes(), Format::json).text, "{}");
}

// Of blocks only labels that are too long to be kept are written so.
TEST(WriteLabels, NoLabelsAreAnEmptyArray) {
  const auto written = [](const LabelMap& constants, const LabelMap& own, json::Style style) {
    std::string text;
    OutputSink sink(text);
    write_labels({constants, own}, style, sink);
    EXPECT_TRUE(sink.flush());
    return text;
  };
  const LabelMap none;
  LabelMap one;
  one.set("host", "node7");
  EXPECT_EQ(written(none, none, json::Style::compact), R"(,"labels":[])");
  EXPECT_EQ(written(none, none, json::Style::pretty), ",\n    \"labels\": []");
  EXPECT_EQ(written(none, one, json::Style::compact), R"(,"labels":[{"host":"node7"}])");
  EXPECT_EQ(written(one, none, json::Style::compact), R"(,"labels":[{"host":"node7"}])");
}

TEST(OutputMetricsBlock, SetWithoutSectionLeavesLabelsOutConstantOnesIncluded) {
  TestBlock block;
  block.constant_labels = constant_labels({"site", "here"});
  block.records = {record({.labels = labels_l(1, {99})})};
  EXPECT_EQ(line(block), std::string(kStart) + R"("metrics":[{"rx":5}]})"
                                               "\n");
}

TEST(OutputMetricsBlock, ValuesAreTheNearestDoublesOfUnsignedNumbers) {
  for (const std::uint8_t type : {std::uint8_t{1}, std::uint8_t{2}, std::uint8_t{4}, std::uint8_t{5}}) {
    TestBlock block;
    block.records = {record({.kind = 'G',
                             .value_type = type,
                             .samples = {{0, 0xFFFFFFFFFFFFFFFF}, {1, 9007199254740993}, {2, 0}}})};
    EXPECT_EQ(line(block), std::string(kStart) +
                               R"("labels":[{"host":"node7"}],"metrics":[{"rx":1.8446744073709552e+19},)"
                               R"({"tx":9007199254740992},{"err":0}]})"
                               "\n");
  }
}

TEST(OutputMetricsBlock, ConstantLabelsComeFirstAndKeepTheirPlaceWhenOverridden) {
  TestBlock block;
  block.label_name_sets = label_names({"host", "b", "host"});
  block.constant_labels = constant_labels({"a", "1", "b", "2", "c", "3"});
  block.records = {record({.labels = labels_i(0, {"first", "over", "last"})})};
  EXPECT_NE(line(block).find(R"("labels":[{"a":"1"},{"b":"over"},{"c":"3"},{"host":"last"}])"),
            std::string::npos);
}

TEST(OutputMetricsBlock, ShorterListOfNamesAndValuesEndsTheLabels) {
  TestBlock block;
  block.label_name_sets = label_names({"a", "b"});
  block.records = {record({.labels = labels_i(0, {"1", "2", "3"})})};
  EXPECT_NE(line(block).find(R"("labels":[{"a":"1"},{"b":"2"}])"), std::string::npos);
  block.records = {record({.labels = labels_i(0, {"1"})})};
  EXPECT_NE(line(block).find(R"("labels":[{"a":"1"}])"), std::string::npos);
}

TEST(OutputMetricsBlock, TextsAreEscapedAndEndAtTheirFirstNul) {
  TestBlock block;
  block.label_name_sets = label_names({"q\"\\", std::string("n\0x", 3)});
  block.metric_names = metric_names({"r\nx/", std::string("\0gone", 5)});
  block.records = {record(
      {.samples = {{0, 1}, {1, 2}, {0, 3}}, .labels = labels_i(0, {"\x01\t", std::string("v\0\xFF", 3)})})};
  EXPECT_EQ(line(block), std::string(kStart) + R"("labels":[{"q\"\\":"\u0001\t"},{"n":"v"}],)"
                                               R"("metrics":[{"r\nx/":1},{"":2},{"r\nx/":3}]})"
                                               "\n");
}

TEST(OutputMetricsBlock, NamesMayBeAnyBytesButValuesMustBeUtf8) {
  TestBlock block;
  block.label_name_sets = label_names({"h\xFF"});
  block.metric_names = metric_names({"m\xC3"});
  EXPECT_NE(line(block).find("\"h\xFF\":\"node7\"}],\"metrics\":[{\"m\xC3\":5}]"), std::string::npos);
  block.records = {record({.labels = labels_i(0, {"v\xFF"})})};
  const Output out = output(block.bytes());
  EXPECT_EQ(out.text, "");
  EXPECT_EQ(out.errors, Messages{"Failed allocating JSON object"});
  EXPECT_EQ(out.file_errors, Messages{"Failed to JSONify metric values"});
}

TEST(OutputMetricsBlock, OverriddenValuesNeedNotBeUtf8) {
  TestBlock block;
  block.label_name_sets = label_names({"a", "a"});
  block.constant_labels = constant_labels({"a", "\xFF"});
  block.records = {record({.labels = labels_i(0, {"\xFE", "good"})})};
  EXPECT_NE(line(block).find(R"("labels":[{"a":"good"}])"), std::string::npos);
  block.constant_labels = constant_labels({"b", "\xFF"});
  EXPECT_EQ(output(block.bytes()).errors, Messages{"Failed allocating JSON object"});
  block.constant_labels = constant_labels({"a", "\xFF", "b", "\xFF"});
  EXPECT_EQ(output(block.bytes()).errors, Messages{"Failed allocating JSON object"});
}

TEST(OutputMetricsBlock, LaterBatchReplacesTheMembersInPlace) {
  TestBlock block;
  block.records = {record({}),
                   record({.timestamp = 1700000001000000, .samples = {{2, 3}}, .labels = labels_l(0, {1})})};
  EXPECT_EQ(line(block), R"({"timestamp":1700000001000000,"@timestamp":"2023-11-14 22:13:21.000",)"
                         R"("labels":[{"host":"node8"}],"metrics":[{"err":3}]})"
                         "\n");
}

TEST(OutputMetricsBlock, MembersKeepThePlaceOfTheirFirstSetting) {
  TestBlock block;
  block.records = {record({.labels = labels_l(7, {})}), record({.samples = {{1, 6}}})};
  EXPECT_EQ(line(block), std::string(kStart) + R"("metrics":[{"tx":6}],"labels":[{"host":"node7"}]})"
                                               "\n");
  block.records = {record({}), record({.samples = {{1, 6}}, .labels = labels_l(7, {})})};
  EXPECT_EQ(line(block), std::string(kStart) + R"("labels":[{"host":"node7"}],"metrics":[{"tx":6}]})"
                                               "\n")
      << "labels of the first batch stay";
}

TEST(OutputMetricsBlock, TimeThatHasNoTextIsLeftOut) {
  TestBlock block;
  block.records = {record({.timestamp = 0xFFFFFFFFFFFFFFFF})};
  const std::string text = line(block);
  // Every 64-bit count of microseconds is a year below 600000, which the calendar can hold.
  EXPECT_EQ(text.substr(0, 60), R"({"timestamp":1.8446744073709552e+19,"@timestamp":"586524-01-)");
}

TEST(OutputMetricsBlock, ZeroTimestampIsLoggedAndPrinted) {
  TestBlock block;
  block.records = {record({.timestamp = 0})};
  const Output out = output(block.bytes());
  EXPECT_EQ(out.errors, Messages{"[qvx metrics parser] invalid timestamp in the metrics batch"});
  EXPECT_EQ(out.text.substr(0, 57), R"({"timestamp":0,"@timestamp":"1970-01-01 00:00:00.000","la)");
}

TEST(OutputMetricsBlock, OtherFormatsAreRefusedOncePerBlock) {
  const std::pair<Format, const char*> refusals[] = {
      {Format::csv, "CSV output is not supported yet"},
      {Format::influx, "Influx line API output is not yet supported for metrics data"},
      {Format::other, "Unsupported output format"}};
  for (const auto& [format, text] : refusals) {
    TestBlock block;
    block.records = {record({}), record({.labels = labels_l(0, {77})})};
    Output out = output(block.bytes(), format);
    EXPECT_EQ(out.file_errors, Messages{text});
    EXPECT_EQ(out.text, "");
    EXPECT_TRUE(out.errors.empty()) << "references are not decoded";
    block.records = {record({.kind = 'H'})};
    out = output(block.bytes(), format);
    EXPECT_TRUE(out.file_errors.empty()) << "a faulty block is not even refused";
    EXPECT_EQ(out.errors.size(), 2u);
  }
}

TEST(OutputMetricsBlock, DecodingFaultsAreLoggedAndWriteNothing) {
  TestBlock block;
  block.records = {record({}), record({.kind = 'D'})};
  Output out = output(block.bytes());
  EXPECT_EQ(out.errors, (Messages{"[qvx metrics parser] invalid metric type",
                                  "failed to parse full block: invalid metric type"}));
  EXPECT_EQ(out.text, "");
  EXPECT_EQ(out.records, 0);
  block = {};
  block.data_marker = "none";
  out = output(block.bytes());
  EXPECT_EQ(out.errors,
            (Messages{"[qvx metrics parser] Invalid binary data format: Missing 'CNTD' magic number",
                      "failed to parse full block: Missing 'CNTD' magic number in the binary data"}));
  block = {};
  block.constant_labels = "CLBL" + le16(99) + "clbl";
  out = output(block.bytes());
  EXPECT_EQ(out.errors, (Messages{"[qvx metrics parser] Invalid binary data format: Missing 'clbl' suffix",
                                  "failed to parse full block: Invalid binary data format: Missing suffix"}));
}

TEST(OutputMetricsBlock, OnlyTheFirstHalfOfTheTrailerIsCompared) {
  TestBlock block;
  block.trailer = "cntd????";
  EXPECT_EQ(line(block), kUsualLine);
  block.trailer = "????cntx";
  EXPECT_EQ(output(block.bytes()).errors,
            Messages{"failed to parse full block: Invalid magic numbers in the binary data"});
}

TEST(OutputMetricsBlock, SizeIsThatOfTheFirstMagicCountedFromTheFirstByte) {
  const std::string block = TestBlock().bytes();
  EXPECT_EQ(output(block + "what follows").text, kUsualLine);
  EXPECT_EQ(output(TestBlock().bytes_of_size(0xFFFFFFFF)).text, kUsualLine);
  EXPECT_EQ(output("QVXX____" + block).errors,
            Messages{"failed to parse full block: Invalid magic numbers in the binary data"});
  for (const std::string& bytes :
       {TestBlock().bytes_of_size(0), std::string(), std::string("CNTX"), std::string("x")})
    EXPECT_EQ(output(bytes).errors.back(),
              "failed to parse full block: Missing 'CNTD' magic number in the binary data");
}

TEST(OutputMetricsBlock, SampleIdPastTheNamesFailsTheJson) {
  TestBlock block;
  block.records = {record({.samples = {{4, 1}}}), record({})};
  const Output out = output(block.bytes());
  EXPECT_EQ(out.errors, (Messages{"[qvx metrics parser] invalid metric id: 4, total metric names size: 4",
                                  "failed to JSONify metrics: invalid metric id"}));
  EXPECT_EQ(out.file_errors, Messages{"Failed to JSONify metric values"});
  EXPECT_EQ(out.text, "");
}

TEST(OutputMetricsBlock, LabelFaultOfALaterBatchDropsTheWholeObject) {
  TestBlock block;
  block.records = {record({}), record({.labels = labels_l(0, {3})})};
  const Output out = output(block.bytes());
  EXPECT_EQ(out.errors.back(),
            "failed to JSONify metrics: Failed to decode label value at index 0: invalid label id format");
  EXPECT_EQ(out.file_errors, Messages{"Failed to JSONify metric values"});
  EXPECT_EQ(out.text, "");
}

TEST(OutputMetricsBlock, HistogramsAreNotLookedAt) {
  TestBlock block;
  block.histograms = histogram_record("lat", {}, labels_l(0, {9}));
  const Output out = output(block.bytes());
  EXPECT_EQ(out.text, kUsualLine);
  EXPECT_EQ(out.records, 1);
  EXPECT_TRUE(out.errors.empty());
}

TEST(OutputMetricsBlock, DecodedBatchesAreDumpedAtDebugLevel) {
  TestBlock block;
  block.label_name_sets += label_names({}) + label_names({"a", "b"});
  block.records = {record({.labels = labels_m(2, {mixed_id(1), mixed_text("in"), mixed_id(9)})})};
  RecordingTarget target(Format::ndjson);
  LogCapture log;
  output_metrics_block(target, as_bytes(block.bytes()));
  for (const char* const text :
       {"[qvx metrics parser] Label Names [0] host", "[qvx metrics parser] empty label names vector",
        "[qvx metrics parser] Label Names [2] a, b",
        "[qvx metrics parser] Values: 'node7, node8, p1', Size: 3",
        "[qvx metrics parser] Metrics Batch:", "[qvx metrics parser] Timestamp: 1700000000000000",
        "[qvx metrics parser]   sample_id: 0, sample_value: 5",
        "[qvx metrics parser] encoded label: label_value_id: 1, decoded label[0]: node8",
        "[qvx metrics parser] encoded label: label_value: 0, decoded label[1]: in",
        "[qvx metrics parser] encoded label: label_value_id: 9, decoded label[2]: ",
        "[qvx labels block] parse_labels_block: header - label_set_id=2, encoded_label_value_count=3, "
        "encoding_type=M, called by QvxMetricsParser::parse_metrics"})
    EXPECT_TRUE(log.has(QVX_LOG_DEBUG, text)) << text;
}

TEST(OutputMetricsBlock, EveryTruncationStaysInsideTheBytesAndWritesNothing) {
  TestBlock block;
  block.label_name_sets += label_names({"a", "b"});
  block.constant_labels = constant_labels({"site", "here"});
  block.records = {record({.labels = labels_i(1, {"x", "y"})}),
                   record({.labels = labels_m(0, {mixed_id(1)})})};
  const std::string bytes = block.bytes();
  LogCapture log(QVX_LOG_ERROR);
  for (const bool own_size : {false, true}) {
    for_every_truncation(as_bytes(bytes), [&](Bytes cut) {
      std::string whole(as_text(cut));
      if (own_size && whole.size() >= 8) whole.replace(4, 4, le32(static_cast<std::uint32_t>(whole.size())));
      // Cut behind the first half of the trailer, the second half of the size's last eight bytes is not seen.
      const Output out = output(whole);
      EXPECT_EQ(out.text, "") << whole.size();
      EXPECT_FALSE(out.errors.empty()) << whole.size();
    });
  }
}

TEST(MetricsWriter, NamesAreEscapedAnewForEachTableAndStyle) {
  MetricsWriter writer;
  TestBlock block;
  const std::string first = block.bytes();
  block.metric_names = metric_names({"xr", "tx"});
  const std::string second = block.bytes();
  RecordingTarget compact(Format::ndjson);
  RecordingTarget pretty(Format::json);
  for (const std::string* const bytes : {&first, &first, &second, &first}) {
    writer.output_metrics_block(compact, as_bytes(*bytes));
    writer.output_metrics_block(pretty, as_bytes(*bytes));
  }
  const std::string start = std::string(kStart) + R"("labels":[{"host":"node7"}],"metrics":[{)";
  EXPECT_EQ(compact.text(), start + "\"rx\":5}]}\n" + start + "\"rx\":5}]}\n" + start + "\"xr\":5}]}\n" +
                                start + "\"rx\":5}]}\n");
  EXPECT_EQ(pretty.records, 4);
  EXPECT_NE(pretty.text().find("            \"xr\": 5\n        }\n    ]\n}{"), std::string::npos);
}

TEST(MetricsWriter, MoreNamesThanAreKeptPrintLikeTheOthers) {
  // 20000 names of 255 bytes that escape to six times their length: beyond what the writer keeps.
  Texts names;
  for (int i = 0; i < 20000; ++i) {
    std::string name = std::to_string(i);
    names.push_back(name + std::string(255 - name.size(), '\x01'));
  }
  TestBlock block;
  block.metric_names = metric_names(names);
  TestBatch batch;
  batch.samples.clear();
  for (std::uint16_t i = 0; i < 20000; ++i)
    batch.samples.emplace_back(i, i);
  block.records = {record(batch)};
  block.blocksize = 0xFFFFFFFF;
  std::string expected = std::string(kStart) + R"("labels":[{"host":"node7"}],"metrics":[)";
  for (int i = 0; i < 20000; ++i) {
    const std::string number = std::to_string(i);
    expected += (i == 0 ? "{\"" : ",{\"") + number;
    for (std::size_t j = number.size(); j < 255; ++j)
      expected += "\\u0001";
    expected += "\":" + number + "}";
  }
  expected += "]}\n";
  EXPECT_TRUE(line(block) == expected);
}

TEST(MetricsWriter, ShortMemoryWritesNoPartOfARecord) {
  const std::string bytes = TestBlock().bytes();
  bool written = false;
  for (std::size_t successes = 0; !written; ++successes) {
    ASSERT_LT(successes, 1000u);
    RecordingTarget target(Format::ndjson);
    {
      const FailingAllocations failing(successes);
      output_metrics_block(target, as_bytes(bytes));
    }
    written = target.records == 1;
    EXPECT_EQ(target.text(), written ? kUsualLine : "");
  }
}

}  // namespace
}  // namespace qvx::metrics
