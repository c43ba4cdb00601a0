#include "examples/metrics_block.h"

#include <gtest/gtest.h>

#include <array>
#include <stdexcept>
#include <string>

namespace qvx::examples {
namespace {

std::string text_of(const ByteArray& bytes) {
  return std::string(as_text(bytes));
}

MetricsBlock small_block() {
  return MetricsBlock({{{"host"}}, {"a", "bc"}, {"rx"}, {"k", "v"}});
}

TEST(MetricsBlock, LabelsAreReferencesTextsOrWhatTheTableAllows) {
  const MetricsBlock block = small_block();
  EXPECT_EQ(text_of(block.labels(3, {"bc", "a"}, LabelEncoding::references)), std::string("\3\2L\1\0", 5));
  EXPECT_EQ(text_of(block.labels(0, {"bc"}, LabelEncoding::inline_texts)), std::string("\0\1I\2bc", 6));
  EXPECT_EQ(text_of(block.labels(0, {"bc", "d"}, LabelEncoding::mixed)), std::string("\0\2ML\1I\1d", 8));
}

TEST(MetricsBlock, RefusesAReferenceToWhatTheTableDoesNotHave) {
  EXPECT_THROW(small_block().labels(0, {"d"}, LabelEncoding::references), std::invalid_argument);
}

TEST(MetricsBlock, HoldsTablesHistogramsAndBatchesInOrder) {
  MetricsBlock block = small_block();
  const ByteArray labels = block.labels(0, {"a"}, LabelEncoding::references);
  const std::array<metrics::MetricSample, 1> samples = {{{0, 0x0102}}};
  block.add_batch(0x0304, metrics::MetricKind::gauge, metrics::MetricValueType::int64, samples, labels);
  metrics::Histogram histogram;
  histogram.name = "h";
  histogram.timestamp = 5;
  histogram.count = 6;
  block.add_histogram(histogram, labels);
  EXPECT_EQ(text_of(block.bytes()), std::string("CNTX\x93\0\0\0"
                                                "LBLN\1\4hostlbln"
                                                "LBLV\2\0\1a\2bclblv"
                                                "CNTI\1\0\2rxcnti"
                                                "HIST\5\0\0\0\0\0\0\0\1h\0"
                                                "\0\0\0\0\0\0\0\0\6\0\0\0\0\0\0\0"
                                                "\0\1L\0hist"
                                                "CLBL\2\0\1k\1vclbl"
                                                "CNTD\x1C\0\0\0"
                                                "\x1C\0\4\3\0\0\0\0\0\0G\4\1\0"
                                                "\0\0\2\1\0\0\0\0\0\0"
                                                "\0\1L\0"
                                                "cntdcntx",
                                                0x93));
}

}  // namespace
}  // namespace qvx::examples
