#include "qvx/metrics/string_table.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "qvx/metrics/block_tables.h"
#include "qvx/metrics/metrics_parser.h"
#include "qvx/support/bytes.h"
#include "tests/metrics/cntx_builder.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/log_capture.h"

namespace qvx::metrics {
namespace {

using namespace test;
using Messages = std::vector<std::string>;

struct Read {
  std::ptrdiff_t end = -1;
  Texts texts;
  std::string fault;
};

Read read(std::string_view bytes) {
  const GuardedBuffer buffer(bytes);
  Read read;
  StringTable table{"left over"};
  try {
    const std::byte* const end = QvxMetricsParser::read_string_table(
        buffer.data(), buffer.data() + buffer.size(), "CNTI", "cnti", table);
    read.end = end - buffer.data();
    read.texts.assign(table.begin(), table.end());
  } catch (const std::runtime_error& fault) {
    read.fault = fault.what();
  }
  return read;
}

TEST(ReadStringTable, TextsAreReadAndThePositionBehindTheTableReturned) {
  const Read table = read("junk" + metric_names({"rx", "", "err"}) + "more");
  EXPECT_EQ(table.texts, (Texts{"rx", "", "err"}));
  EXPECT_EQ(table.end, 4 + 6 + 3 + 1 + 4 + 4);
}

TEST(ReadStringTable, EmptyTableHasTenBytes) {
  const Read table = read(metric_names({}) + "rest");
  EXPECT_EQ(table.end, 10);
  EXPECT_TRUE(table.texts.empty());
}

TEST(ReadStringTable, MissingTableIsEmptyAndEndsTheRange) {
  EXPECT_EQ(read("").end, 0);
  const Read table = read("no such table");
  EXPECT_EQ(table.end, 13);
  EXPECT_TRUE(table.texts.empty());
}

TEST(ReadStringTable, HeaderThatIsCutIsAMissingPrefix) {
  for (const char* const bytes : {"CNTI", "CNTI\x01", "xxCNTI\1\0\0"}) {
    LogCapture log;
    EXPECT_EQ(read(bytes).fault, "Invalid binary data format: Missing prefix");
    EXPECT_EQ(log.texts(QVX_LOG_ERROR),
              Messages{"[qvx metrics parser] Invalid binary data format: Missing 'CNTI' prefix"});
  }
}

TEST(ReadStringTable, ClosingBytesInsideTheRangeAreNotCompared) {
  const Read table = read(string_table("CNTI", "????", {"rx"}));
  EXPECT_EQ(table.texts, Texts{"rx"});
  EXPECT_EQ(table.end, 13);
}

TEST(ReadStringTable, ClosingMarkerThatReachesPastTheRangeIsAMissingSuffix) {
  LogCapture log;
  EXPECT_EQ(read(string_table("CNTI", "cnt", {"rx"})).fault, "Invalid binary data format: Missing suffix");
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            Messages{"[qvx metrics parser] Invalid binary data format: Missing 'cnti' suffix"});
}

TEST(ReadStringTable, CountOfEntriesThatAreNotThereIsAMissingSuffix) {
  LogCapture log;
  EXPECT_EQ(read("CNTI" + le16(65535) + entries({"rx", "tx"}) + "cnti").fault,
            "Invalid binary data format: Missing suffix");
  EXPECT_EQ(read("CNTI" + le16(1) + "\xFFshort").fault, "Invalid binary data format: Missing suffix");
}

TEST(ReadStringTable, EveryTruncationBehindTheMarkerIsAFault) {
  LogCapture log(QVX_LOG_ERROR);
  const std::string bytes = metric_names({"rx", "a longer name", ""});
  for (std::size_t size = 0; size < bytes.size(); ++size) {
    const Read table = read(std::string_view(bytes).substr(0, size));
    EXPECT_EQ(table.fault.empty(), size < 4) << size;
  }
}

MetricsBlockTables tables_of(const std::string& bytes) {
  MetricsBlockTables tables;
  read_block_tables(as_bytes(bytes), HistogramUse::keep, tables);
  return tables;
}

TEST(ReadBlockTables, AllTablesAreFoundInTheirOrder) {
  TestBlock block;
  block.label_name_sets = label_names({"host", "port"}) + "junk" + label_names({}) + label_names({"x"});
  block.histograms = histogram_record("lat", {{1, 2}}, labels_l(0, {2}));
  block.constant_labels = constant_labels({"site", "here", "rack", "r1"});
  const std::string bytes = block.bytes();
  const MetricsBlockTables tables = tables_of(bytes);
  ASSERT_EQ(tables.label_names.sets.size(), 3u);
  EXPECT_EQ(tables.label_names.sets[0], (StringTable{"host", "port"}));
  EXPECT_TRUE(tables.label_names.sets[1].empty());
  EXPECT_EQ(tables.label_names.sets[2], StringTable{"x"});
  EXPECT_EQ(tables.label_values, (StringTable{"node7", "node8", "p1"}));
  EXPECT_EQ(tables.metric_names, (StringTable{"rx", "tx", "err", "drop"}));
  EXPECT_EQ(as_text(tables.metric_names_bytes), "\2rx\2tx\3err\4drop");
  ASSERT_EQ(tables.histograms.size(), 1u);
  EXPECT_EQ(tables.histograms.at(0).labels.values, std::vector<std::string>{"p1"});
  EXPECT_EQ(std::vector<LabelMap::Entry>(tables.constant_labels.begin(), tables.constant_labels.end()),
            (std::vector<LabelMap::Entry>{{"site", "here"}, {"rack", "r1"}}));
}

TEST(ReadBlockTables, MissingLabelValuesHideMetricNamesAndHistograms) {
  TestBlock block;
  block.label_values.clear();
  block.histograms = histogram_record("lat", {}, labels_i(0, {}));
  block.constant_labels = constant_labels({"site", "here"});
  const std::string bytes = block.bytes();
  const MetricsBlockTables tables = tables_of(bytes);
  EXPECT_TRUE(tables.metric_names.empty());
  EXPECT_TRUE(tables.histograms.empty());
  EXPECT_EQ(tables.constant_labels.size(), 1u);
}

TEST(ReadBlockTables, LabelNamesReachingPastTheBlockAreAMissingSuffix) {
  LogCapture log;
  EXPECT_THROW(tables_of("CNTX____LBLN\x02\x04hostlbln"), std::runtime_error);
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            Messages{"[qvx metrics parser] Invalid binary data format: Missing 'lbln' suffix"});
  log.clear();
  EXPECT_THROW(tables_of("CNTX____LBLN"), std::runtime_error);
  EXPECT_EQ(log.texts(QVX_LOG_ERROR),
            Messages{"[qvx metrics parser] Invalid binary data format: Missing 'LBLN' prefix"});
}

TEST(ReadBlockTables, ClosingBytesOfLabelNamesAreSteppedOverUnseen) {
  const std::string bytes =
      "CNTX____LBLN\x01\x01"
      "aLBLNLBLN\x01\x01"
      "blb";
  const MetricsBlockTables tables = tables_of(bytes);
  ASSERT_EQ(tables.label_names.sets.size(), 2u);
  EXPECT_EQ(tables.label_names.sets[1], StringTable{"b"});
}

TEST(ReadBlockTables, LabelNameSetsThatNoBatchCanNameAreReadOver) {
  TestBlock block;
  block.label_name_sets.clear();
  for (int i = 0; i < 300; ++i)
    block.label_name_sets += label_names({std::to_string(i)});
  const std::string bytes = block.bytes();
  const MetricsBlockTables tables = tables_of(bytes);
  EXPECT_EQ(tables.label_names.sets.size(), 256u);
  EXPECT_EQ(tables.label_names.sets[255], StringTable{"255"});
  EXPECT_EQ(tables.label_names.find(256), nullptr);
  EXPECT_EQ(tables.metric_names.size(), 4u);
}

TEST(ReadBlockTables, UnpairedConstantLabelIsIgnoredAndALaterValueReplaces) {
  TestBlock block;
  block.constant_labels = constant_labels({"a", "1", "b", "2", "a", "3", "c"});
  const std::string bytes = block.bytes();
  const MetricsBlockTables tables = tables_of(bytes);
  EXPECT_EQ(std::vector<LabelMap::Entry>(tables.constant_labels.begin(), tables.constant_labels.end()),
            (std::vector<LabelMap::Entry>{{"a", "3"}, {"b", "2"}}));
}

TEST(LabelNamesFingerprint, DependsOnTheNamesAndTheirOrder) {
  EXPECT_EQ(label_names_fingerprint({}), 0u);
  const std::uint64_t ab = label_names_fingerprint({"a", "b"});
  EXPECT_NE(ab, 0u);
  EXPECT_EQ(ab, label_names_fingerprint({"a", "b"}));
  EXPECT_NE(ab, label_names_fingerprint({"b", "a"}));
  EXPECT_NE(ab, label_names_fingerprint({"ab"}));
}

TEST(LabelMap, SettingAgainReplacesInPlaceHoweverManyThereAre) {
  Texts names;
  for (int i = 0; i < 40; ++i)
    names.push_back("name" + std::to_string(i));
  LabelMap labels;
  for (const std::string& name : names) {
    labels.set(name, "first");
    labels.set(names[0], name);
  }
  labels.set("name30", "second");
  ASSERT_EQ(labels.size(), 40u);
  EXPECT_EQ(*labels.begin(), (LabelMap::Entry{"name0", "name39"}));
  EXPECT_EQ(*(labels.begin() + 30), (LabelMap::Entry{"name30", "second"}));
  EXPECT_TRUE(labels.contains("name39"));
  EXPECT_FALSE(labels.contains("name40"));
  labels.clear();
  EXPECT_FALSE(labels.contains("name0"));
  labels.set("name1", "x");
  EXPECT_EQ(labels.size(), 1u);
}

}  // namespace
}  // namespace qvx::metrics
