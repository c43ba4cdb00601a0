// Both readers of metrics blocks against each other, and against a slow and obvious one, on random blocks.
#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>

#include "qvx/metrics/metrics_output.h"
#include "qvx/metrics/metrics_parser.h"
#include "qvx/support/clock.h"
#include "qvx/support/json_parse.h"
#include "qvx/support/json_text.h"
#include "qvx/support/json_value.h"
#include "tests/metrics/cntx_builder.h"
#include "tests/metrics/recording_target.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/log_capture.h"

namespace qvx::metrics {
namespace {

using namespace test;
using Format = MetricsRecordTarget::Format;

// What a random block holds.
struct Content {
  struct Batch {
    TestBatch wire;
    std::size_t set = 0;
    Texts values;
  };
  std::vector<Texts> name_sets;
  Texts label_values;
  Texts metric_names;
  Texts constants;
  std::vector<Batch> batches;
};

class Random {
 public:
  std::size_t below(std::size_t end) { return engine_() % end; }

  std::string text(std::size_t shortest) {
    static const Texts kPieces{"a", "rx", "\"", "\\", "\n", "\x1F", "\xC3\xA9", "/", "port_counter_", "7"};
    std::string text;
    const std::size_t pieces = shortest + below(6);
    for (std::size_t i = 0; i < pieces; ++i)
      text += kPieces[below(kPieces.size())];
    return text;
  }

  Texts texts(std::size_t count, std::size_t shortest) {
    Texts texts;
    for (std::size_t i = 0; i < count; ++i)
      texts.push_back(text(shortest));
    return texts;
  }

  std::uint64_t number() { return engine_() >> below(64); }

 private:
  std::mt19937_64 engine_{20240501};
};

Content random_content(Random& random, std::size_t batches, bool with_constants) {
  Content content;
  for (std::size_t i = random.below(4); i > 0; --i)
    content.name_sets.push_back(random.texts(random.below(5), 0));
  content.label_values = random.texts(1 + random.below(20), 1);
  content.metric_names = random.texts(1 + random.below(30), 0);
  if (with_constants) content.constants = random.texts(2 * random.below(12), 0);
  for (std::size_t i = 0; i < batches; ++i) {
    Content::Batch batch;
    batch.wire.timestamp = 1 + random.number() % 4000000000000000;
    batch.wire.kind = random.below(2) == 0 ? 'C' : 'G';
    batch.wire.samples.clear();
    for (std::size_t sample = random.below(40); sample > 0; --sample)
      batch.wire.samples.emplace_back(random.below(content.metric_names.size()), random.number());
    batch.set = random.below(4);
    const std::size_t encoding = random.below(3);
    Texts mixed;
    std::vector<std::uint8_t> ids;
    for (std::size_t value = random.below(7); value > 0; --value) {
      const std::size_t id = random.below(content.label_values.size());
      const bool is_text = encoding == 0 || (encoding == 1 && random.below(2) == 0);
      batch.values.push_back(is_text ? random.text(0) : content.label_values[id]);
      ids.push_back(static_cast<std::uint8_t>(id));
      mixed.push_back(is_text ? mixed_text(batch.values.back()) : mixed_id(id));
    }
    batch.wire.labels = encoding == 0   ? labels_i(batch.set, batch.values)
                        : encoding == 1 ? labels_m(batch.set, mixed)
                                        : labels_l(batch.set, ids);
    content.batches.push_back(batch);
  }
  return content;
}

std::string bytes_of(const Content& content) {
  TestBlock block;
  block.label_name_sets.clear();
  for (const Texts& names : content.name_sets)
    block.label_name_sets += label_names(names);
  block.label_values = label_values(content.label_values);
  block.metric_names = metric_names(content.metric_names);
  block.constant_labels = content.constants.empty() ? "" : constant_labels(content.constants);
  block.records.clear();
  for (const Content::Batch& batch : content.batches)
    block.records.push_back(record(batch.wire));
  return block.bytes();
}

json::Value one_member(const std::string& name, json::Value value) {
  json::Object object;
  object.set(name, std::move(value));
  return json::Value(std::move(object));
}

// The document of a block, built member by member.
json::Value document_of(const Content& content) {
  json::Object object;
  for (const Content::Batch& batch : content.batches) {
    object.set("timestamp", json::Value::integer(batch.wire.timestamp));
    object.set("@timestamp", *json::Value::string(*timestamp_text(batch.wire.timestamp)));
    if (batch.set < content.name_sets.size()) {
      std::vector<std::pair<std::string, std::string>> labels;
      const auto set = [&labels](const std::string& name, const std::string& value) {
        for (auto& label : labels) {
          if (label.first == name) {
            label.second = value;
            return;
          }
        }
        labels.emplace_back(name, value);
      };
      for (std::size_t i = 0; i + 1 < content.constants.size(); i += 2)
        set(content.constants[i], content.constants[i + 1]);
      const Texts& names = content.name_sets[batch.set];
      for (std::size_t i = 0; i < names.size() && i < batch.values.size(); ++i)
        set(names[i], batch.values[i]);
      json::Array array;
      for (const auto& [name, value] : labels)
        array.push_back(one_member(name, *json::Value::string(value)));
      object.set("labels", json::Value(std::move(array)));
    }
    json::Array array;
    for (const auto& [id, value] : batch.wire.samples)
      array.push_back(one_member(content.metric_names[id], json::Value::integer(value)));
    object.set("metrics", json::Value(std::move(array)));
  }
  return json::Value(std::move(object));
}

using Series = std::map<std::string, std::vector<std::pair<std::uint64_t, std::uint64_t>>>;

Series series_of(const Content& content) {
  Series series;
  for (const Content::Batch& batch : content.batches) {
    for (const auto& [id, value] : batch.wire.samples)
      series[content.metric_names[id]].emplace_back(batch.wire.timestamp, value);
  }
  return series;
}

Series series_of(const MetricsStore& store) {
  Series all;
  store.for_each_series<std::uint64_t>([&](std::uint64_t symbol, const TimeSeries<std::uint64_t>& series) {
    auto& pairs = all[store.symbols().name_of(symbol)];
    for (std::size_t i = 0; i < series.size(); ++i)
      pairs.emplace_back(series.timestamp(i), series.value(i));
  });
  return all;
}

TEST(BothDecoders, RandomBlocksGiveTheDocumentAndTheSeriesOfTheirContent) {
  Random random;
  MetricsWriter writer;
  for (int round = 0; round < 3000; ++round) {
    const Content content = random_content(random, random.below(4), true);
    const GuardedBuffer block(bytes_of(content));
    const json::Value document = document_of(content);
    RecordingTarget compact(Format::ndjson);
    writer.output_metrics_block(compact, block.bytes());
    ASSERT_EQ(compact.text(), *json::to_text(document, json::Style::compact) + "\n");
    RecordingTarget pretty(Format::json);
    output_metrics_block(pretty, block.bytes());
    ASSERT_EQ(pretty.text(), *json::to_text(document, json::Style::pretty));

    MetricsStore store;
    QvxMetricsParser::parse_metrics(block.data(), block.data() + block.size(), nullptr, store);
    ASSERT_EQ(series_of(store), series_of(content));
  }
}

// Why each reader refuses a block; nothing when it does not.
std::optional<std::string> store_fault(Bytes block, MetricsStore& store) {
  try {
    QvxMetricsParser::parse_metrics(block.data(), block.data() + block.size(), nullptr, store);
  } catch (const std::runtime_error& fault) {
    return fault.what();
  }
  return std::nullopt;
}

std::optional<std::string> output_fault(RecordingTarget& target, Bytes block) {
  LogCapture log(QVX_LOG_ERROR);
  output_metrics_block(target, block);
  if (target.records == 1) return std::nullopt;
  std::string text = log.texts(QVX_LOG_ERROR).back();
  for (const std::string prefix : {"failed to parse full block: ", "failed to JSONify metrics: "})
    if (text.starts_with(prefix)) text = text.substr(prefix.size());
  return text;
}

// The samples of a printed record.
std::vector<std::pair<std::string, double>> samples_of(const std::string& text) {
  std::vector<std::pair<std::string, double>> samples;
  const auto document = json::parse(text);
  if (!document || document->as_object()->array_at("metrics") == nullptr) return samples;
  for (const json::Value& element : *document->as_object()->array_at("metrics")) {
    const json::Member& member = element.as_object()->members().at(0);
    samples.emplace_back(member.name, member.value.as_number().value());
  }
  return samples;
}

TEST(BothDecoders, DamagedRecordsFailForTheSameReason) {
  Random random;
  std::map<std::string, int> faults;
  int unharmed = 0;
  for (int round = 0; round < 10000; ++round) {
    const Content content = random_content(random, 1, false);
    std::string bytes = bytes_of(content);
    for (std::size_t damages = 1 + random.below(2); damages > 0; --damages) {
      // Behind the block header, whose size the readers are given in different ways.
      bytes[8 + random.below(bytes.size() - 8)] =
          static_cast<char>(random.below(4) == 0 ? random.below(256) : random.below(8));
    }
    const GuardedBuffer block(bytes);
    MetricsStore store;
    LogCapture quiet(QVX_LOG_ERROR);
    const std::optional<std::string> stored = store_fault(block.bytes(), store);
    RecordingTarget target(Format::ndjson);
    const std::optional<std::string> printed = output_fault(target, block.bytes());
    ++faults[stored.value_or("")];
    if (stored == printed) {
      if (!stored) {
        ++unharmed;
        std::size_t kept = 0;
        for (const auto& [name, pairs] : series_of(store))
          kept += pairs.size();
        if (kept > 0) {
          EXPECT_EQ(samples_of(target.text()).size(), kept);
        }
      }
      continue;
    }
    // Where the two differ on purpose.
    if (printed == "Failed allocating JSON object") continue;  // the store takes labels that are not UTF-8
    if (stored == "Invalid magic numbers in the binary data") {
      EXPECT_EQ(bytes.substr(bytes.size() - 8, 4), "cntd");
      continue;
    }
    // A record that ends early leaves bytes that are read as another one, whose form the output checks before
    // the content of the first.
    ASSERT_TRUE(stored == "invalid metric id" ||
                stored.value_or("").starts_with("Failed to decode label value"))
        << stored.value_or("stored") << "\n"
        << printed.value_or("printed");
    // Only the store decodes the labels of a set that the block does not have.
    if (!printed) {
      EXPECT_EQ(target.text().find("\"labels\""), std::string::npos);
    }
  }
  EXPECT_GT(unharmed, 1000);
  EXPECT_GT(faults["invalid metric type"], 20);
  EXPECT_GT(faults["invalid metric id"], 20);
  EXPECT_GT(faults["Insufficient data for metrics samples"], 20);
  EXPECT_GT(faults["Invalid binary data format: Missing suffix"], 20);
  EXPECT_GT(faults["Invalid magic numbers in the binary data"], 20);
}

TEST(BothDecoders, CountingPassFindsTheNamesOfWhatIsStored) {
  Random random;
  for (int round = 0; round < 1000; ++round) {
    Content content = random_content(random, 3, true);
    for (Content::Batch& batch : content.batches) {
      // An empty batch ends the counting of its block, and nothing else.
      if (batch.wire.samples.empty()) batch.wire.samples = {{0, 1}};
    }
    const GuardedBuffer block(bytes_of(content));
    std::unordered_set<std::string> names;
    EXPECT_TRUE(
        QvxMetricsParser::count_metrics_from_cntx_blocks(block.data(), block.data() + block.size(), names));
    std::unordered_set<std::string> expected;
    for (const auto& [name, pairs] : series_of(content))
      expected.insert(name);
    ASSERT_EQ(names, expected);
  }
}

}  // namespace
}  // namespace qvx::metrics
