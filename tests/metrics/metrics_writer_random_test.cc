#include <gtest/gtest.h>

#include <random>
#include <string>

#include "tests/metrics/cntx_builder.h"
#include "tests/metrics/writer_sequence.h"

namespace qvx::metrics {
namespace {

using namespace test;

// A block of pieces that each have few forms, so that pieces often repeat from block to block.
std::string random_block(std::mt19937& random) {
  const auto one_of = [&](const Texts& forms) { return forms[random() % forms.size()]; };
  TestBlock block;
  block.label_name_sets =
      one_of({"", label_names({"host"}), label_names({"host", "port"}) + label_names({"dev", "dev"})});
  block.label_values = one_of({label_values({"node7", "node8", "p1"}), label_values({"node7", "node8", "p2"}),
                               label_values({"CLBL", "LB", ""})});
  block.metric_names = one_of({metric_names({"rx", "tx", "err"}), metric_names({"rx", "tx", "bad"}),
                               metric_names({"CNTD", "tx", "a name of more than thirty-two bytes"})});
  if (random() % 4 == 0) block.histograms = one_of({"CLBL", "LBLNx", "CLBLN", "C", "LBL", "HIST"});
  if (random() % 2 == 0)
    block.constant_labels = one_of({constant_labels({"site", "here"}), constant_labels({"dev", "\xFF"}),
                                    constant_labels({}), constant_labels({"odd"})});
  block.records.clear();
  constexpr std::size_t kCounts[] = {1, 1, 1, 1, 0, 2, 3};
  for (std::size_t count = kCounts[random() % std::size(kCounts)]; count > 0; --count) {
    TestBatch batch;
    batch.timestamp += random() % 3;
    batch.samples.clear();
    for (std::size_t samples = random() % 4; samples > 0; --samples)
      batch.samples.emplace_back(random() % 3, random());
    batch.labels =
        one_of({labels_l(0, {0}), labels_l(0, {0, 1}), labels_l(0, {2, 2}), labels_i(1, {"x", "y"}),
                labels_m(1, {mixed_id(1), mixed_text("\"")}), labels_l(3, {}), labels_l(0, {9})});
    block.records.push_back(record(batch));
  }
  std::string bytes = block.bytes();
  if (random() % 8 == 0) bytes[random() % bytes.size()] = "CLBLNTD\0\1\xFF"[random() % 10];
  if (random() % 16 == 0) bytes = bytes.substr(0, random() % bytes.size());
  return bytes;
}

TEST(MetricsWriter, RandomBlocksOneAfterTheOther) {
  std::mt19937 random(20240607);
  for (const std::uint32_t level : {QVX_LOG_INFO, QVX_LOG_DEBUG}) {
    Sequence sequence(Format::ndjson, level);
    std::string block;
    int printed = 0;
    for (int round = 0; round < 15000; ++round) {
      if (random() % 3 != 0) block = random_block(random);
      if (!sequence.print(block).empty()) ++printed;
      if (HasFailure()) return;
    }
    EXPECT_GT(printed, 4000);
  }
}

}  // namespace
}  // namespace qvx::metrics
