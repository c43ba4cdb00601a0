// Columns hold what NDJSON shows: the sample data, and random types and records.
#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/columns/column.h"
#include "qvx/columns/event_columns.h"
#include "qvx/columns/survey.h"
#include "qvx/data/schema/record_json.h"
#include "qvx/reader/options.h"
#include "qvx/reader/process_files.h"
#include "qvx/support/output_sink.h"
#include "tests/columns/column_files.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/type_set.h"

namespace qvx {
namespace {

using columns::Column;
using columns::Query;
using test::Numbers;

// The lines of event types that the pattern selects, or of counters and metrics.
enum class Lines { events, counters, metrics };

std::vector<std::string> ndjson(const std::string& path, const std::string& pattern, Lines lines_of) {
  ReaderOptions options;
  EXPECT_TRUE(reader_options_set_defaults(options));
  EXPECT_TRUE(append(options.input_files, path.c_str()));
  EXPECT_TRUE(append(options.include_counters, pattern.c_str()));
  options.schema_path = std::string(QVX_SAMPLE_DIR) + "/schema";
  options.format = OutputFormat::ndjson;
  std::string text;
  {
    OutputSink sink(text);
    EXPECT_EQ(process_files(options, sink), 0);
  }
  std::vector<std::string> lines;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = text.find('\n', at);
    const std::string line = text.substr(at, end - at);
    const Lines kind = line.find("\"counter_sets\"") != line.npos ? Lines::counters
                       : line.find("\"metrics\":[") != line.npos  ? Lines::metrics
                                                                  : Lines::events;
    if (kind == lines_of) lines.push_back(line);
    at = end + 1;
  }
  return lines;
}

// The member of a line, as text up to the next one at the same level.
std::string member(const std::string& line, const std::string& name) {
  const std::string key = "\"" + name + "\":";
  const std::size_t start = line.find(key);
  if (start == std::string::npos) return "null";
  std::size_t at = start + key.size();
  const std::size_t begin = at;
  int depth = 0;
  bool in_text = false;
  for (; at < line.size(); ++at) {
    const char c = line[at];
    if (in_text) {
      at += c == '\\';
      in_text = c != '"';
    } else if (c == '"') {
      in_text = true;
    } else if (c == '[' || c == '{') {
      ++depth;
    } else if (c == ']' || c == '}') {
      if (depth-- == 0) break;
    } else if (c == ',' && depth == 0) {
      break;
    }
  }
  return line.substr(begin, at - begin);
}

std::vector<std::string> sample_files() {
  std::vector<std::string> paths;
  for (const auto& entry : std::filesystem::directory_iterator(QVX_SAMPLE_DIR))
    if (entry.is_regular_file()) paths.push_back(entry.path());
  return paths;
}

TEST(JsonEquality, EventsOfAllSampleFilesAreTheNdjsonLines) {
  std::size_t compared = 0;
  for (const std::string& path : sample_files()) {
    const auto data = test::open({path});
    const columns::Survey survey = columns::survey(*data);
    for (const columns::TableSurvey& table : survey.tables) {
      if (table.kind != columns::TableKind::events) continue;
      SCOPED_TRACE(path + " " + table.name);
      const std::vector<std::string> rows = test::read(data, {.table = table.name}, Numbers::json).rows;
      EXPECT_EQ(rows.size(), table.rows);
      const std::string type = data->find(table.name)->type;
      EXPECT_EQ(rows, ndjson(path, type, Lines::events));
      compared += rows.size();
    }
    EXPECT_TRUE(data->faults().list().empty());
  }
  EXPECT_GT(compared, 300u);
}

TEST(JsonEquality, CountersOfAllSampleFilesAreTheValuesOfTheirSets) {
  std::size_t compared = 0;
  for (const std::string& path : sample_files()) {
    const auto data = test::open({path});
    const columns::Table table = *data->find("counters");
    if (table.columns.size() == columns::counters_row_columns().size()) continue;
    SCOPED_TRACE(path);
    const std::vector<std::string> rows = test::read(data, {.table = "counters"}, Numbers::json).rows;
    std::size_t row = 0;
    for (const std::string& line : ndjson(path, "no event type", Lines::counters)) {
      ASSERT_LT(row, rows.size());
      EXPECT_EQ(member(rows[row], "timestamp"), member(line, "timestamp"));
      for (const columns::ColumnType& column : table.columns) {
        const std::size_t dot = column.name.find('.');
        if (dot == std::string::npos) continue;
        const std::string group = line.substr(line.find("\"name\":\"" + column.name.substr(0, dot) + "\""));
        EXPECT_EQ(member(rows[row], column.name), member(group, column.name.substr(dot + 1)));
        ++compared;
      }
      do {
        ++row;
      } while (row < rows.size() && member(rows[row], "set") != "0");
    }
    EXPECT_EQ(row, rows.size());
  }
  EXPECT_GT(compared, 100u);
}

// The number that NDJSON shows, which is that of the sample's eight bytes.
std::string number_of_bits(const std::string& row) {
  std::string text = member(row, "value_u64");
  if (text != "null") return text;
  std::uint64_t bits = 0;
  if (text = member(row, "value_i64"); text != "null") {
    bits = static_cast<std::uint64_t>(std::stoll(text));
  } else {
    bits = std::bit_cast<std::uint64_t>(std::stod(member(row, "value")));
  }
  char buffer[kNumberRoom];
  return std::string(buffer, write_json_number(buffer, bits));
}

// NDJSON shows the last batch of each block only, so its samples are some of the rows.
TEST(JsonEquality, MetricsOfTheSampleHoldTheNdjsonSamplesInOrder) {
  const std::string path = std::string(QVX_SAMPLE_DIR) + "/metrics.bin";
  const auto data = test::open({path});
  const std::vector<std::string> rows = test::read(data, {.table = "metrics"}, Numbers::json).rows;
  std::size_t row = 0;
  std::size_t compared = 0;
  for (const std::string& line : ndjson(path, "*", Lines::metrics)) {
    const std::string samples = member(line, "metrics");
    for (std::size_t at = samples.find('{'); at != std::string::npos; at = samples.find('{', at + 1)) {
      const std::size_t colon = samples.find("\":", at);
      const std::string name = samples.substr(at + 1, colon - at);
      const std::string number = samples.substr(colon + 2, samples.find('}', at) - colon - 2);
      while (row < rows.size() && (member(rows[row], "metric") != name ||
                                   member(rows[row], "timestamp") != member(line, "timestamp") ||
                                   member(rows[row], "labels") != member(line, "labels")))
        ++row;
      ASSERT_LT(row, rows.size()) << name << " in " << line;
      EXPECT_EQ(number_of_bits(rows[row]), number);
      ++compared;
    }
  }
  EXPECT_EQ(compared, 36u);
  EXPECT_EQ(rows.size(), 84u);
}

// -- Random types

class Random {
 public:
  explicit Random(std::uint64_t seed) : engine_(seed) {}
  std::uint64_t below(std::uint64_t end) { return engine_() % end; }
  std::uint64_t bits() { return engine_(); }

 private:
  std::mt19937_64 engine_;
};

// Without booleans and times, which columns show as what they are.
constexpr const char* kBuiltins[] = {
    "char",   "short",   "int",     "long",    "unsigned char", "unsigned int", "float",    "double",
    "int8_t", "int16_t", "int32_t", "int64_t", "uint8_t",       "uint16_t",     "uint32_t", "uint64_t"};

const qvx_type_definition& random_type(Random& random, test::TypeSet& types) {
  std::vector<qvx_type_definition*> made;
  const std::uint64_t count = 1 + random.below(4);
  for (std::uint64_t i = 0; i < count; ++i) {
    qvx_type_definition& type = types.make();
    const std::uint64_t fields = 1 + random.below(7);
    for (std::uint64_t k = 0; k < fields; ++k) {
      const bool composite = !made.empty() && random.below(3) == 0;
      const qvx_type_definition& of = composite
                                          ? *made[random.below(made.size())]
                                          : types.builtin(kBuiltins[random.below(std::size(kBuiltins))]);
      const auto length = static_cast<std::uint32_t>(random.below(2) == 0 ? 1 : 1 + random.below(9));
      // Names repeat at times.
      types.add(type, std::string(1, static_cast<char>('a' + random.below(12))), of, length);
    }
    made.push_back(&type);
  }
  return *made.back();
}

TEST(JsonEquality, RandomRecordsHaveTheirJsonValues) {
  std::size_t compared = 0;
  for (std::uint64_t seed = 0; seed < 1000; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Random random(seed);
    test::TypeSet types;
    const qvx_type_definition& type = random_type(random, types);
    if (type.size > 20000) continue;
    std::string why_not;
    const auto columns = columns::compile_event_columns(type, "", why_not);
    ASSERT_TRUE(columns) << why_not;
    ASSERT_LE(columns->reach, type.size);
    const std::size_t count = 1 + random.below(20);
    std::vector<std::byte> bytes(count * type.size);
    for (std::byte& byte : bytes) {
      const std::uint64_t bits = random.bits();
      byte = static_cast<std::byte>(bits % 3 == 0 ? 0x20 + (bits >> 8) % 0x5F : bits >> 8);
    }
    const test::GuardedBuffer records(bytes, seed % 2 == 0 ? test::Guard::kBehind : test::Guard::kBefore);

    const test::OwnedSchema schema(new ArrowSchema{});
    columns::export_schema(columns->types, {}, schema.get());
    std::vector<Column> filled;
    for (const columns::ColumnType& column : columns->types)
      filled.emplace_back(column);
    // In two pieces, as batches are filled.
    const std::size_t first = random.below(count + 1);
    for (std::size_t i = 0; i < filled.size(); ++i) {
      filled[i].append(columns->plans[i], records.data(), type.size, first);
      filled[i].append(columns->plans[i], records.data() + first * type.size, type.size, count - first);
    }
    const test::OwnedArray batch(new ArrowArray{});
    columns::export_batch(filled, count, batch.get());
    const test::ArrowValues values(*schema, *batch, Numbers::json);
    for (std::size_t row = 0; row < count; ++row) {
      const auto text = qvx_record_to_json(&type, Bytes(records.bytes()).subspan(row * type.size, type.size),
                                           json::Style::compact);
      if (!text) continue;  // NaN or an infinity, which columns hold
      ASSERT_EQ(values.text(static_cast<std::int64_t>(row)), *text);
      ++compared;
    }
  }
  EXPECT_GT(compared, 3000u);
}

TEST(EventColumns, TypesThatNoPlanTakesAreRefusedWithAReason) {
  test::TypeSet types;
  std::string why_not;
  qvx_type_definition* inner = &types.make();
  types.add(*inner, "v", "int8_t");
  for (int depth = 0; depth < 61; ++depth) {
    qvx_type_definition& outer = types.make();
    types.add(outer, "in", *inner);
    inner = &outer;
  }
  EXPECT_FALSE(columns::compile_event_columns(*inner, "", why_not));
  EXPECT_EQ(why_not, "it is nested too deeply");

  qvx_type_definition& shared = types.make();
  for (int field = 0; field < 200; ++field)
    types.add(shared, "f" + std::to_string(field), "uint64_t").offset = 0;
  shared.size = 8;
  EXPECT_FALSE(columns::compile_event_columns(shared, "", why_not));
  EXPECT_EQ(why_not, "its values take far more bytes than a record has");
  shared.size = 36;  // 16 bytes of values for each, and 1024
  EXPECT_TRUE(columns::compile_event_columns(shared, "", why_not));

  qvx_type_definition& wide = types.make();
  for (int field = 0; field < 65537; ++field)
    types.add(wide, "f" + std::to_string(field), "uint8_t");
  EXPECT_FALSE(columns::compile_event_columns(wide, "", why_not));
  EXPECT_EQ(why_not, "it has too many fields");
}

}  // namespace
}  // namespace qvx
