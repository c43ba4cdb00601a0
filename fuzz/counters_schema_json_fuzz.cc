// A counters schema text, and behind its NUL a counters block: the block has no JSON text or one that is
// sound, it has tables, and the schema is read back as the same.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "fuzz/input_split.h"
#include "qvx/counters/counters_block.h"
#include "qvx/counters/counters_json.h"
#include "qvx/counters/counters_tables.h"
#include "qvx/support/clock.h"
#include "qvx/support/json_parse.h"
#include "qvx/support/json_text.h"
#include "qvx/support/output_sink.h"

namespace {

using qvx::Bytes;
using qvx::fuzz::check;
using qvx::json::Style;

void write_json(const qvx_counters_schema& schema, Bytes block) {
  constexpr std::size_t kMaxChecked = 1 << 16;
  const std::optional<std::string> compact = qvx_counters_block_to_json(block, &schema, Style::compact);
  const std::optional<std::string> pretty = qvx_counters_block_to_json(block, &schema, Style::pretty);
  check(compact.has_value() || !pretty.has_value());
  if (!compact || compact->size() > kMaxChecked) return;
  const auto value = qvx::json::parse(*compact);
  check(value.has_value());
  check(qvx::json::to_text(*value, Style::compact) == compact);
  check(!pretty || qvx::json::to_text(*value, Style::pretty) == pretty);
}

void write_tables(const qvx_counters_schema& schema, Bytes block) {
  std::string text;
  qvx::LocalTimeText clock;
  qvx::OutputSink sink(text);
  qvx::CountersTables(schema).write(block, sink, clock);
}

void check_read_back(const qvx_counters_schema& schema) {
  const std::optional<std::string> text = qvx_counters_schema_jsonify_text(&schema);
  if (!text) return;
  const qvx::CountersSchemaPtr again(qvx_counters_schema_from_json_text(text->c_str()));
  check(again != nullptr);
  check(qvx_counters_schema_jsonify_text(again.get()) == text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  qvx::fuzz::drop_messages();
  const qvx::fuzz::SplitInput input = qvx::fuzz::split_input(data, size);
  const qvx::CountersSchemaPtr schema(qvx_counters_schema_from_json_text(input.text.c_str()));
  if (schema == nullptr) return 0;
  write_json(*schema, input.bytes);
  write_tables(*schema, input.bytes);
  check_read_back(*schema);
  return 0;
}
