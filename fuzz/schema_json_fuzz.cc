// A schema text, and behind its NUL the bytes of a record: whatever types the text makes, the record has no
// text or one that is sound, and what the types are written as is read back as the same.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "fuzz/input_split.h"
#include "qvx/data/schema/record_influx.h"
#include "qvx/data/schema/record_json.h"
#include "qvx/data/schema/type_system.h"
#include "qvx/support/json_parse.h"
#include "qvx/support/json_text.h"

namespace {

using qvx::Bytes;
using qvx::fuzz::check;
using qvx::json::Style;

void write_record(const qvx_type_definition& type, Bytes record) {
  constexpr std::size_t kMaxChecked = 1 << 16;
  const std::optional<std::string> compact = qvx_record_to_json(&type, record, Style::compact);
  const std::optional<std::string> pretty = qvx_record_to_json(&type, record, Style::pretty);
  static_cast<void>(qvx_record_to_influx(&type, record));
  // Pretty text may pass a limit that compact text does not.
  check(compact.has_value() || !pretty.has_value());
  if (!compact || compact->size() > kMaxChecked) return;
  const auto value = qvx::json::parse(*compact);
  check(value.has_value());
  check(qvx::json::to_text(*value, Style::compact) == compact);
  check(!pretty || qvx::json::to_text(*value, Style::pretty) == pretty);
}

void write_records(const qvx_type_system& ts, Bytes record) {
  for (const auto& schema : ts.schemas)
    for (const auto& type : schema->types)
      write_record(*type, record);
}

void check_read_back(const qvx_type_system& ts) {
  const std::optional<std::string> text = qvx_type_system_to_json_text(&ts, true);
  if (!text) return;
  const qvx::TypeSystemPtr again(qvx_type_system_from_json_text(text->c_str()));
  check(again != nullptr);
  check(qvx_type_system_to_json_text(again.get(), true) == text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  qvx::fuzz::drop_messages();
  const qvx::fuzz::SplitInput input = qvx::fuzz::split_input(data, size);
  const qvx::TypeSystemPtr whole(qvx_type_system_from_json_text(input.text.c_str()));
  if (whole != nullptr) {
    write_records(*whole, input.bytes);
    check_read_back(*whole);
  }
  const qvx::TypeSystemPtr single(qvx_type_system_create());
  if (qvx_type_system_add_schema_json(single.get(), input.text.c_str(), nullptr) == 0)
    write_records(*single, input.bytes);
  return 0;
}
