// The examples of docs/file_format.md, decoded with the library, and its tables against those of the code.
//
// Examples are fenced blocks with an info string of two words, a language and a name.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <map>
#include <span>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "qvx/counters/counters_block.h"
#include "qvx/counters/counters_json.h"
#include "qvx/data/block.h"
#include "qvx/data/file_header.h"
#include "qvx/data/page_block.h"
#include "qvx/data/schema/record_json.h"
#include "qvx/data/schema/schema_json.h"
#include "qvx/data/schema/type_system.h"
#include "qvx/metrics/block_tables.h"
#include "qvx/metrics/metrics_output.h"
#include "qvx/metrics/wire.h"
#include "tests/metrics/recording_target.h"

namespace qvx {
namespace {

using ByteString = std::vector<std::byte>;

constexpr const char* kEventSchemaId = "37c3a2929737010991d07af9514f28e7";
constexpr const char* kCountersSchemaId = "d2f18a9111a73b4c8901edca08b2bf2f";
constexpr std::uint64_t kTime = 1700000000000000;

class Document {
 public:
  Document() {
    std::ifstream file(QVX_TEST_DATA_DIR "/../docs/file_format.md");
    std::string line;
    std::string* example = nullptr;
    while (std::getline(file, line)) {
      if (line.starts_with("```")) {
        example = example == nullptr ? &examples_[line.substr(3)] : nullptr;
      } else if (example != nullptr) {
        *example += line + "\n";
      } else {
        rows_ += line + "\n";
      }
    }
  }

  std::vector<std::string> example_names() const {
    std::vector<std::string> names;
    for (const auto& [name, text] : examples_)
      names.push_back(name);
    return names;
  }

  // The text of an example, without the last line end.
  std::string text(const std::string& info) const {
    const std::string& text = examples_.at(info);
    return text.substr(0, text.size() - 1);
  }

  ByteString bytes(const std::string& name) const {
    ByteString bytes;
    std::istringstream lines(examples_.at("hex " + name));
    for (std::string line; std::getline(lines, line);) {
      std::istringstream words(line.substr(0, line.find('#')));
      for (std::string word; words >> word;)
        append(bytes, word);
    }
    return bytes;
  }

  bool has_row(std::string_view row) const { return rows_.find(row) != std::string::npos; }

 private:
  // "7f", or "00*56" for 56 zero bytes.
  static void append(ByteString& bytes, const std::string& word) {
    const auto value = static_cast<std::byte>(std::stoul(word.substr(0, 2), nullptr, 16));
    const bool repeated = word.size() > 3 && word[2] == '*';
    if (!repeated && word.size() != 2) throw std::runtime_error("no byte: " + word);
    bytes.insert(bytes.end(), repeated ? std::stoul(word.substr(3)) : 1, value);
  }

  std::map<std::string, std::string> examples_;  // by info string
  std::string rows_;                             // everything outside the examples
};

class FileFormat : public testing::Test {
 protected:
  FileFormat() { setenv("TZ", "UTC", 1); }

  std::string event_schema_text() const { return document_.text("json event-schema"); }
  std::string counters_schema_text() const { return document_.text("json counters-schema"); }

  TypeSystemPtr type_system() const {
    TypeSystemPtr types(qvx_type_system_create());
    EXPECT_EQ(qvx_type_system_add_schema_json(types.get(), event_schema_text().c_str(), nullptr), 0);
    EXPECT_EQ(qvx_type_system_add_schema_json(types.get(), counters_schema_text().c_str(), nullptr), 0);
    return types;
  }

  Document document_;
};

TEST_F(FileFormat, EveryExampleIsDecodedHere) {
  const std::vector<std::string> expected = {
      "hex blob-block",       "hex counters-block",  "hex events-block",      "hex file-header",
      "hex metrics-block",    "hex page-block-gzip", "hex page-block-snappy", "hex schemas-block",
      "json counters-schema", "json event-schema",
  };
  EXPECT_EQ(document_.example_names(), expected);
}

TEST_F(FileFormat, TablesHaveTheRowsOfTheCode) {
  const auto expect_rows = [this](const auto& layout) {
    for (const LayoutField& field : layout) {
      const std::string size = field.size == 0 ? "to the end" : std::to_string(field.size);
      const std::string row =
          "| " + std::to_string(field.offset) + " | " + size + " | `" + std::string(field.name) + "` |";
      EXPECT_TRUE(document_.has_row(row)) << row;
    }
  };
  expect_rows(kFileHeaderLayout);
  expect_rows(kCountersBlockLayout);
  expect_rows(kEventHeaderLayout);
  expect_rows(kSchemasBlockLayout);
  expect_rows(kBlobHeaderLayout);
  expect_rows(std::span(kPageBlockLayout).first<6>());
  expect_rows(metrics::wire::kBlockHeader);
  expect_rows(metrics::wire::kLabelNamesHeader);
  expect_rows(metrics::wire::kStringTableHeader);
  expect_rows(metrics::wire::kDataHeader);
  expect_rows(metrics::wire::kRecordHeader);
  expect_rows(metrics::wire::kSample);
  expect_rows(metrics::wire::kLabelsHeader);
  expect_rows(metrics::wire::kHistogramHeader);
}

TEST_F(FileFormat, FileHeader) {
  const ByteString bytes = document_.bytes("file-header");
  ASSERT_EQ(bytes.size(), 256u);
  const auto fixed = std::span<const std::byte, 256>(bytes);
  const qvx_data_file_header header = file_header_decode(fixed);
  EXPECT_TRUE(validate_header(header));
  EXPECT_EQ(header.file_size, 65792u);
  EXPECT_STREQ(header.source_id.data(), "node7");
  EXPECT_STREQ(header.source_tag.data(), "lab");
  EXPECT_EQ(header.first_timestamp, kTime);
  EXPECT_EQ(header.last_timestamp, 1700000060000000u);
  EXPECT_EQ(header.block_size, 65536u);
  EXPECT_EQ(schema_id_text(header.counters_schema_id), kCountersSchemaId);
  EXPECT_EQ(header_event_schema_id_text(header, 0), kEventSchemaId);
  EXPECT_EQ(header_event_schema_id_text(header, 1), std::string(32, '0'));
  EXPECT_EQ(header.byte_order, 0);
  const FileHeaderBytes encoded = file_header_encode(header);
  EXPECT_EQ(ByteString(encoded.begin(), encoded.end()), bytes);
}

TEST_F(FileFormat, CountersBlock) {
  const ByteString bytes = document_.bytes("counters-block");
  EXPECT_EQ(block_type_of(bytes), QVX_COUNTERS_BLOCK);
  EXPECT_EQ(counters_header_decode(bytes).timestamp, kTime);
  const TypeSystemPtr types = type_system();
  EXPECT_EQ(qvx_counters_block_to_json(bytes, types->counters_schema.get(), json::Style::compact),
            R"({"timestamp":1700000000000000,"@timestamp":"2023-11-14 22:13:20.000","groups":[)"
            R"({"granularity":"NODE","name":"system","counter_sets":[)"
            R"({"uptime":86400,"load":0.75,"kernel":"6.1.0"}]}]})");
}

TEST_F(FileFormat, EventsBlock) {
  const ByteString bytes = document_.bytes("events-block");
  EXPECT_EQ(block_type_of(bytes), QVX_EVENTS_BLOCK);
  const EventHeader header = event_header_decode(bytes);
  EXPECT_EQ(header.timestamp, kTime);
  EXPECT_EQ(header.schema_index, 0);
  EXPECT_EQ(header.type_index, 0);
  EXPECT_EQ(header.num_events, 2);
  ASSERT_EQ(bytes.size(), 16u + 2 * 25);

  const TypeSystemPtr types = type_system();
  const qvx_type_definition& type = *types->schemas.at(0)->types.at(0);
  ASSERT_EQ(type.size, 25u);
  const Bytes records = Bytes(bytes).subspan(16);
  EXPECT_EQ(qvx_record_to_json(&type, records, json::Style::compact),
            R"({"timestamp":1700000000000000,"interface":"eth0","up":1,"load":0.5})");
  EXPECT_EQ(qvx_record_to_json(&type, records.subspan(25), json::Style::compact),
            R"({"timestamp":1700000001500000,"interface":"eth1","up":0,"load":0})");
}

TEST_F(FileFormat, SchemasBlock) {
  const ByteString bytes = document_.bytes("schemas-block");
  EXPECT_EQ(block_type_of(bytes), QVX_SCHEMAS_BLOCK);
  ASSERT_EQ(bytes.size(), 256u);
  EXPECT_EQ(schemas_header_decode(bytes).block_size, 256);
  EXPECT_EQ(schemas_header_decode(bytes).num_schemas, 1);
  EXPECT_EQ(schema_id_text(schemas_block_id(bytes, 0)), kEventSchemaId);
}

TEST_F(FileFormat, BlobBlock) {
  const ByteString bytes = document_.bytes("blob-block");
  EXPECT_EQ(block_type_of(bytes), QVX_BLOB_BLOCK);
  EXPECT_EQ(blob_header_decode(bytes).timestamp, kTime);
  EXPECT_EQ(blob_header_decode(bytes).data_size, 5u);
  EXPECT_EQ(as_text(Bytes(bytes).subspan(20)), "hello");
}

TEST_F(FileFormat, PageBlocks) {
  const ByteString page = document_.bytes("counters-block");
  for (const auto& [name, encoding] :
       {std::pair("page-block-gzip", 'G'), std::pair("page-block-snappy", 'S')}) {
    SCOPED_TRACE(name);
    const ByteString bytes = document_.bytes(name);
    EXPECT_EQ(block_type_of(bytes), QVX_PAGE_BLOCK);
    PageBlock block;
    ASSERT_TRUE(page_block_read(bytes, block));
    EXPECT_EQ(block.header.header_size, 32);
    EXPECT_EQ(block.header.encoding, encoding);
    EXPECT_EQ(block.header.first_timestamp, kTime);
    EXPECT_EQ(block.header.last_timestamp, kTime);
    EXPECT_EQ(block.source_id, "node7");
    EXPECT_EQ(block.source_tag, "lab");
    EXPECT_EQ(block.total_size, bytes.size());
    std::uint64_t size = 0;
    const PageBuffer unpacked = qvxp_uncompress_alloc(block, &size);
    ASSERT_TRUE(unpacked);
    EXPECT_EQ(size, 40u);
    EXPECT_EQ(ByteString(unpacked.bytes().begin(), unpacked.bytes().end()), page);
  }
}

TEST_F(FileFormat, MetricsBlock) {
  const ByteString bytes = document_.bytes("metrics-block");
  EXPECT_EQ(block_type_of(bytes), QVX_CNTX_BLOCK);
  ASSERT_EQ(bytes.size(), 224u);
  test::RecordingTarget target(metrics::MetricsRecordTarget::Format::ndjson);
  metrics::output_metrics_block(target, bytes);
  EXPECT_EQ(target.text(), R"({"timestamp":1700000000000000,"@timestamp":"2023-11-14 22:13:20.000",)"
                           R"("labels":[{"rack":"r1"},{"host":"node7"},{"port":"1"}],)"
                           R"("metrics":[{"rx_bytes":1234},{"tx_bytes":99}]})"
                           "\n");
}

TEST_F(FileFormat, HistogramOfTheMetricsBlock) {
  const ByteString bytes = document_.bytes("metrics-block");
  metrics::MetricsBlockTables tables;
  metrics::read_block_tables(bytes, metrics::HistogramUse::keep, tables);
  const metrics::Histogram& histogram = tables.histograms.at(0);
  EXPECT_EQ(histogram.name, "latency");
  EXPECT_EQ(histogram.timestamp, kTime);
  const std::vector<metrics::HistogramBucket> buckets = {{0.5, 3}, {2, 1}};
  EXPECT_EQ(histogram.buckets, buckets);
  EXPECT_EQ(histogram.sum, 2.25);
  EXPECT_EQ(histogram.count, 4u);
  EXPECT_EQ(histogram.labels.values, std::vector<std::string>{"node7"});
}

TEST_F(FileFormat, EventSchemaIsItsOwnPrettyText) {
  const TypeSystemPtr types = type_system();
  qvx_schema& schema = *types->schemas.at(0);
  const auto value = schema_to_json(schema);
  ASSERT_TRUE(value);
  EXPECT_EQ(json::to_text(*value, json::Style::pretty), event_schema_text());
  ASSERT_TRUE(schema_fill_digest(schema));
  EXPECT_EQ(schema.md5_text, kEventSchemaId);
}

TEST_F(FileFormat, CountersSchemaIsItsOwnPrettyText) {
  const TypeSystemPtr types = type_system();
  EXPECT_EQ(qvx_counters_schema_jsonify_text(types->counters_schema.get()), counters_schema_text());
  EXPECT_EQ(schema_id_text(qvx_type_system_counters_digest(types.get())), kCountersSchemaId);
  EXPECT_EQ(types->counters_schema->size_of_counters, 24u);
}

TEST_F(FileFormat, IdentifiersInTheTextAreThoseOfTheSchemas) {
  EXPECT_TRUE(document_.has_row("Its identifier is `" + std::string(kEventSchemaId) + "`."));
  EXPECT_TRUE(document_.has_row("Its identifier is `" + std::string(kCountersSchemaId) + "`."));
}

}  // namespace
}  // namespace qvx
