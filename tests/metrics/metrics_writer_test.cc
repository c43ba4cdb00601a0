// What a writer keeps from block to block must not show.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <utility>
#include <vector>

#include "qvx/metrics/metrics_output.h"
#include "tests/metrics/cntx_builder.h"
#include "tests/metrics/writer_sequence.h"
#include "tests/support/failing_allocations.h"

namespace qvx::metrics {
namespace {

using namespace test;

TestBlock full_block() {
  TestBlock block;
  block.label_name_sets = label_names({"host", "port"}) + label_names({"dev"});
  block.constant_labels = constant_labels({"site", "here"});
  block.records = {
      record({.samples = {{0, 5}, {2, 70}}, .labels = labels_m(0, {mixed_id(0), mixed_text("1")})})};
  return block;
}

std::string line_of(const std::string& labels, const std::string& metrics) {
  return R"({"timestamp":1700000000000000,"@timestamp":"2023-11-14 22:13:20.000","labels":[)" + labels +
         R"(],"metrics":[)" + metrics + "]}\n";
}

// Of the full block.
std::string full_line() {
  return line_of(R"({"site":"here"},{"host":"node7"},{"port":"1"})", R"({"rx":5},{"err":70})");
}

TEST(MetricsWriter, BlockThatDiffersInOneByteFromTheOneBefore) {
  const std::string bytes = full_block().bytes();
  for (const std::uint32_t level : {QVX_LOG_INFO, QVX_LOG_DEBUG}) {
    Sequence sequence(Format::ndjson, level);
    const std::string text = sequence.print(bytes);
    for (std::size_t at = 0; at < bytes.size(); ++at) {
      for (const int change : {0x01, 0x20, 0x80}) {
        std::string changed = bytes;
        changed[at] = static_cast<char>(changed[at] ^ change);
        sequence.print(changed);
        ASSERT_EQ(sequence.print(bytes), text) << "behind byte " << at;
      }
    }
  }
}

TEST(MetricsWriter, BlockThatIsCutBehindAWholeOne) {
  const std::string bytes = full_block().bytes();
  Sequence sequence;
  for (std::size_t size = 0; size < bytes.size(); ++size) {
    EXPECT_NE(sequence.print(bytes), "");
    EXPECT_EQ(sequence.print(std::string_view(bytes).substr(0, size)), "");
    sequence.print(bytes);
    EXPECT_EQ(sequence.print(full_block().bytes_of_size(static_cast<std::uint32_t>(size))), "");
    sequence.print(bytes);
    // With the trailer at its end, wherever that is.
    if (size >= 16) sequence.print(full_block().bytes_of_size(0xFFFF).substr(0, size - 8) + "cntdcntx");
  }
}

TEST(MetricsWriter, EveryPieceMayChange) {
  const TestBlock base = full_block();
  std::vector<TestBlock> blocks(10, base);
  blocks[0].label_name_sets = label_names({"host", "lane"}) + label_names({"dev"});
  blocks[1].label_values = label_values({"node9", "node8", "p1"});
  blocks[2].metric_names = metric_names({"rx", "tx", "bad", "drop"});
  blocks[3].constant_labels = constant_labels({"site", "away"});
  blocks[4].constant_labels.clear();
  blocks[5].records = {
      record({.samples = {{0, 5}, {2, 70}}, .labels = labels_m(0, {mixed_id(1), mixed_text("1")})})};
  blocks[6].records = {record({.samples = {{0, 5}, {2, 70}}, .labels = labels_l(1, {1})})};
  blocks[7].records = {record({.samples = {{3, 6}}, .labels = labels_m(0, {mixed_id(0), mixed_text("1")})})};
  blocks[8].records = {record({.samples = {}, .labels = labels_m(0, {mixed_id(0), mixed_text("1")})})};
  blocks[9].records = {record({.labels = labels_l(2, {})})};
  const std::string constant = R"({"site":"here"},)";
  const std::string labels = constant + R"({"host":"node7"},{"port":"1"})";
  const std::string metrics = R"({"rx":5},{"err":70})";
  const std::string expected[] = {
      line_of(constant + R"({"host":"node7"},{"lane":"1"})", metrics),
      line_of(constant + R"({"host":"node9"},{"port":"1"})", metrics),
      line_of(labels, R"({"rx":5},{"bad":70})"),
      line_of(R"({"site":"away"},{"host":"node7"},{"port":"1"})", metrics),
      line_of(R"({"host":"node7"},{"port":"1"})", metrics),
      line_of(constant + R"({"host":"node8"},{"port":"1"})", metrics),
      line_of(constant + R"({"dev":"node8"})", metrics),
      line_of(labels, R"({"drop":6})"),
      line_of(labels, ""),
      R"({"timestamp":1700000000000000,"@timestamp":"2023-11-14 22:13:20.000","metrics":[{"rx":5}]})"
      "\n"};
  Sequence sequence;
  for (std::size_t i = 0; i < blocks.size(); ++i) {
    for (int round = 0; round < 3; ++round) {
      EXPECT_EQ(sequence.print(base), line_of(labels, metrics)) << i;
      EXPECT_EQ(sequence.print(blocks[i]), expected[i]) << i;
      EXPECT_EQ(sequence.print(blocks[i]), expected[i]) << i;
    }
    for (const TestBlock& other : blocks) {
      sequence.print(other);
      EXPECT_EQ(sequence.print(blocks[i]), expected[i]) << i;
    }
  }
}

TEST(MetricsWriter, MarkersAreFoundBehindTablesThatRepeat) {
  const TestBlock base = full_block();
  // A marker and a table, as they may stand in a sample's value, between the sections or half in the closing
  // marker of the names, which is not compared.
  const auto value_of = [](std::string_view text) {
    std::uint64_t value = 0;
    for (std::size_t i = text.size(); i-- > 0;)
      value = value << 8 | static_cast<unsigned char>(text[i]);
    return value;
  };
  const auto with_closing = [](TestBlock block, std::string_view closing) {
    block.metric_names.replace(block.metric_names.size() - 4, 4, closing);
    return block;
  };
  std::vector<TestBlock> blocks;
  for (const std::string_view text :
       {std::string_view("LBLN\0", 5), std::string_view("LBLN\2", 5), std::string_view("xLBLN\0lb", 8),
        std::string_view("CLBL\0\0", 6), std::string_view("xxCLBL\0\0", 8), std::string_view("CNTDCNTD"),
        std::string_view("LBLBLBLN"), std::string_view("LBLV\0\0", 6)}) {
    for (const bool with_constants : {false, true}) {
      TestBlock block = base;
      if (!with_constants) block.constant_labels.clear();
      block.records = {record({.samples = {{0, value_of(text)}, {1, 1}}, .labels = labels_l(1, {0})})};
      blocks.push_back(block);
      block = base;
      block.histograms = "some" + std::string(text) + "bytes";
      if (!with_constants) block.constant_labels.clear();
      blocks.push_back(block);
    }
  }
  for (const std::string_view marker : {"LBLN", "LBLV", "CLBL", "CNTD", "CNTI"}) {
    for (std::size_t inside = 0; inside <= 4; ++inside) {
      TestBlock block =
          with_closing(base, std::string(4 - inside, 'x') + std::string(marker.substr(0, inside)));
      // The next table with the same names, with and without the rest of the marker.
      blocks.push_back(block);
      for (const std::string_view rest :
           {std::string_view("\0\0\0\0", 4), std::string_view("\1\0\1a\1\1b", 7)}) {
        block.histograms = std::string(marker.substr(inside)) + std::string(rest);
        blocks.push_back(block);
      }
      block.histograms.clear();
      block.constant_labels.clear();
      blocks.push_back(block);
    }
  }
  for (const std::string_view name :
       {"CNTD", "xCNTDx", "CLBL", "xCLBL", "LBLN", "LBLV", "LBL", "CNTI", "CNTX"}) {
    TestBlock block = base;
    block.metric_names = metric_names({"rx", std::string(name), "err", "drop"});
    blocks.push_back(block);
    block.constant_labels.clear();
    blocks.push_back(block);
    block = base;
    block.label_values = label_values({std::string(name), "node8", "p1"});
    blocks.push_back(block);
    block.label_name_sets = label_names({std::string(name), "port"});
    blocks.push_back(block);
  }
  Sequence sequence;
  const std::string text = full_line();
  for (const TestBlock& block : blocks) {
    EXPECT_EQ(sequence.print(base), text);
    sequence.print(block);
    sequence.print(block);
    // The same tables with other samples, so that a marker among these is not there any more.
    TestBlock other = block;
    other.records = base.records;
    sequence.print(other);
    other.histograms.clear();
    sequence.print(other);
    other.constant_labels = base.constant_labels;
    sequence.print(other);
    sequence.print(block);
  }
}

TEST(MetricsWriter, LabelNamesAmongTheSamplesMoveTheTables) {
  TestBlock block = full_block();
  Sequence sequence;
  EXPECT_EQ(sequence.print(block), full_line());
  block.records = {record({.samples = {{0, 0x006E6C4E4C424C}}, .labels = labels_l(0, {0})})};
  // "LBLN" in a value: the tables are searched behind it, where there are none.
  EXPECT_EQ(sequence.print(block), "");
  block.records = {record({.samples = {{0, 0x006E6C4E4C4243}}, .labels = labels_l(0, {0})})};
  EXPECT_EQ(sequence.print(block),
            line_of(R"({"site":"here"},{"host":"node7"})", R"({"rx":121411449143875})"));
}

TEST(MetricsWriter, SizeFieldMayHoldPartsOfMarkers) {
  Sequence sequence;
  const TestBlock plain = full_block();
  TestBlock unnamed = plain;
  unnamed.label_name_sets.clear();
  TestBlock valueless = unnamed;
  valueless.label_values = std::string("BLV\0\0lblv", 9);
  TestBlock setless = plain;
  setless.label_name_sets = std::string("BLN\0lbln", 8) + label_names({"host", "port"});
  const std::string text = full_line();
  for (const TestBlock& block : {plain, unnamed, valueless, setless}) {
    // All larger than the block, so that each means the whole of it.
    const std::uint32_t sizes[] = {0x4E4C424C, 0x564C424C, 0x44544E43, 0x4C424C43, 0x49544E43, 0x4C202020,
                                   0x43202020, 0x20202020, 0x4C4C4C4C, 0x4C424C20, 0x7FFFFFFF};
    for (const std::uint32_t first : sizes) {
      for (const std::uint32_t second : sizes) {
        sequence.print(block.bytes_of_size(first));
        sequence.print(block.bytes_of_size(second));
        EXPECT_EQ(sequence.print(plain.bytes_of_size(0x7FFFFFFF)), text);
      }
    }
  }
}

TEST(MetricsWriter, MagicMayStandElsewhere) {
  TestBlock block = full_block();
  // The magic from which the size is taken when the block does not begin with one.
  block.histograms = "CNTX" + le32(0x7FFFFFFF);
  Sequence sequence;
  const std::string text = sequence.print(block);
  for (const std::string_view start :
       {std::string_view("CLBL\0\0\0\0", 8), std::string_view("xCNTD\0\0\0", 8),
        std::string_view("xxxLBLN\0", 8), std::string_view("CNTDxxxx"), std::string_view("xxxxxxxx"),
        std::string_view("CNTXxxxx")}) {
    std::string bytes = block.bytes();
    bytes.replace(0, 8, start);
    sequence.print(bytes);
    EXPECT_EQ(sequence.print(block), text);
  }
}

TEST(MetricsWriter, FaultyBlocksBetweenGoodOnes) {
  const TestBlock base = full_block();
  std::vector<TestBlock> faulty(10, base);
  faulty[0].data_marker = "none";
  faulty[1].trailer = "????????";
  faulty[2].records = {record({.kind = 'D'})};
  faulty[3].records = {record({.samples = {{4, 1}}, .labels = labels_m(0, {mixed_id(0), mixed_text("1")})})};
  faulty[4].records = {record({.labels = labels_l(0, {3})})};
  faulty[5].records = {record({.labels = labels_i(0, {"\xFF"})})};
  faulty[6].constant_labels = "CLBL" + le16(99) + "clbl";
  faulty[7].metric_names = "CNTI" + le16(999) + entry("rx");
  faulty[8].label_values = "LBLV" + le16(999) + entry("rx");
  faulty[9].blocksize = 40;
  Sequence sequence;
  const std::string text = sequence.print(base);
  for (const TestBlock& block : faulty) {
    EXPECT_EQ(sequence.print(block), "");
    EXPECT_EQ(sequence.print(block), "");
    EXPECT_EQ(sequence.print(base), text);
  }
}

TEST(MetricsWriter, LabelsRepeatOnlyAsFarAsTheRecordReaches) {
  TestBlock block = full_block();
  Sequence sequence;
  const std::string text = sequence.print(block);
  for (std::uint32_t reach = 0; reach < 80; ++reach) {
    block.blocksize = reach;
    sequence.print(block);
    block.blocksize = 4096;
    EXPECT_EQ(sequence.print(block), text);
  }
}

TEST(MetricsWriter, SeveralRecordsWithLabelsThatRepeatOrNot) {
  const Texts labels = {labels_l(0, {0}), labels_l(0, {1}), labels_l(7, {1}), labels_i(1, {"a"}),
                        labels_l(0, {})};
  std::vector<std::vector<std::string>> lists = {{}};
  for (const std::string& first : labels) {
    lists.push_back({record({.labels = first})});
    for (const std::string& second : labels) {
      lists.push_back(
          {record({.labels = first}), record({.timestamp = 9, .samples = {{3, 1}}, .labels = second})});
      lists.push_back({lists.back()[1], lists.back()[0], lists.back()[1]});
    }
  }
  for (const std::uint32_t level : {QVX_LOG_INFO, QVX_LOG_DEBUG}) {
    Sequence sequence(Format::json, level);
    TestBlock block = full_block();
    for (const std::vector<std::string>& first : lists) {
      for (const std::vector<std::string>& second : lists) {
        block.records = first;
        EXPECT_NE(sequence.print(block), "");
        block.records = second;
        EXPECT_NE(sequence.print(block), "");
      }
    }
  }
}

TEST(MetricsWriter, FormatsAndLevelsMayChange) {
  Sequence sequence;
  TestBlock other = full_block();
  other.constant_labels = constant_labels({"q", "\xFF"});
  const std::string blocks[] = {full_block().bytes(), other.bytes(), TestBlock().bytes()};
  constexpr std::size_t kFaulty = 1;
  std::mt19937 random(7);
  constexpr Format kFormats[] = {Format::json, Format::ndjson, Format::csv, Format::influx, Format::ndjson};
  for (int round = 0; round < 2000; ++round) {
    const Format format = kFormats[random() % std::size(kFormats)];
    sequence.set_format(format);
    sequence.set_level(random() % 3 == 0 ? QVX_LOG_DEBUG : QVX_LOG_INFO);
    const std::size_t which = random() % std::size(blocks);
    const bool is_printed = which != kFaulty && (format == Format::json || format == Format::ndjson);
    EXPECT_EQ(!sequence.print(blocks[which]).empty(), is_printed);
  }
}

TEST(MetricsWriter, LongLabelsAndNames) {
  const std::string plain(255, 'x');
  const std::string escaped(255, '\x02');
  Sequence sequence;
  for (const Format format : {Format::ndjson, Format::json}) {
    sequence.set_format(format);
    for (const std::size_t length : {1u, 20u, 25u, 26u, 27u, 57u, 58u, 59u, 255u}) {
      TestBlock block;
      block.label_name_sets = label_names({escaped, plain, "c", escaped, "d"});
      block.label_values = label_values({plain, escaped, "v"});
      block.metric_names = metric_names({"rx", plain.substr(0, length), escaped.substr(0, length), "drop"});
      TestBatch batch;
      batch.samples.clear();
      for (std::uint16_t i = 0; i < 400; ++i)
        batch.samples.emplace_back(i % 4, std::uint64_t{1} << (i % 64));
      for (const std::vector<std::uint8_t>& values :
           {std::vector<std::uint8_t>{0, 1, 2}, {1, 1, 1, 1, 1}, {2, 2, 2, 2}}) {
        batch.labels = labels_l(0, values);
        block.blocksize = 65536;
        block.records = {record(batch)};
        EXPECT_NE(sequence.print(block), "");
        EXPECT_NE(sequence.print(block), "");
      }
      Texts constants;
      for (int i = 0; i < 40; ++i) {
        constants.push_back(std::to_string(i));
        constants.push_back(escaped);
      }
      block.constant_labels = constant_labels(constants);
      EXPECT_GT(sequence.print(block).size(), 40 * 6 * 255u);
      EXPECT_NE(sequence.print(block), "");
    }
  }
}

TEST(MetricsWriter, TablesTooLargeToKeep) {
  TestBlock block = full_block();
  Texts names;
  for (int i = 0; i < 12000; ++i)
    names.push_back(std::to_string(i) + std::string(200, 'n'));
  Sequence sequence;
  for (const bool values : {false, true}) {
    (values ? block.label_values : block.metric_names) = values ? label_values(names) : metric_names(names);
    for (const TestBlock& one : {block, block, full_block()})
      EXPECT_NE(sequence.print(one), "");
  }
  block = full_block();
  block.constant_labels = constant_labels(names);
  for (const TestBlock& one : {block, block, full_block()})
    EXPECT_NE(sequence.print(one), "");
}

TEST(MetricsWriter, BlockThatRepeatsTablesAndLabelsAllocatesNothing) {
  MetricsWriter writer;
  TestBlock block = full_block();
  const std::string first = block.bytes();
  block.records = {record({.timestamp = kBatchTime + 1,
                           .samples = {{2, 71}, {0, 6}, {2, 72}},
                           .labels = labels_m(0, {mixed_id(0), mixed_text("1")})})};
  const std::string second = block.bytes();
  RecordingTarget target(Format::ndjson);
  // Texts of names are kept from the second block on.
  writer.output_metrics_block(target, as_bytes(first));
  writer.output_metrics_block(target, as_bytes(first));
  {
    const FailingAllocations none(0);
    writer.output_metrics_block(target, as_bytes(second));
    EXPECT_FALSE(none.any_failed());
  }
  EXPECT_NE(target.text().find(R"("metrics":[{"err":71},{"rx":6},{"err":72}]})"), std::string::npos);
}

TEST(MetricsWriter, ShortMemoryLeavesTheWriterUsable) {
  TestBlock other = full_block();
  other.metric_names = metric_names({"a", "b", "c"});
  other.label_values = label_values({"one", "two"});
  other.constant_labels = constant_labels({"zone", "9"});
  const std::string blocks[] = {full_block().bytes(), other.bytes()};
  for (std::size_t successes = 0; successes < 60; ++successes) {
    MetricsWriter writer;
    for (const bool first : {true, false}) {
      // Texts of names are kept from the second block on.
      RecordingTarget before(Format::ndjson);
      writer.output_metrics_block(before, as_bytes(blocks[first]));
      for (const std::string* const block : {&blocks[first], &blocks[!first]}) {
        RecordingTarget target(Format::ndjson);
        const FailingAllocations failing(successes);
        writer.output_metrics_block(target, as_bytes(*block));
      }
      for (const std::string& block : blocks) {
        RecordingTarget kept(Format::ndjson);
        RecordingTarget fresh(Format::ndjson);
        writer.output_metrics_block(kept, as_bytes(block));
        output_metrics_block(fresh, as_bytes(block));
        ASSERT_EQ(kept.text(), fresh.text()) << successes;
        ASSERT_EQ(kept.records, 1);
      }
    }
  }
}

}  // namespace
}  // namespace qvx::metrics
