// A data file together with the schemas that decode it. typed_file_mutator.cc changes them together.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fuzz/reader_fuzz.h"
#include "fuzz/typed_input.h"
#include "qvx/counters/counters_json.h"
#include "qvx/data/schema/type_system.h"

namespace {

using namespace qvx;

// The schemas of the last input, which the next one often shares.
struct Types {
  std::uint8_t choice = 0;  // what a reader keeps with a schema is its own
  std::string events_text;
  std::string counters_text;
  TypeSystemPtr owner;
  TypeSet set;
};

// A text that is no schema leaves its slot empty.
void load(const fuzz::TypedInput& input, Types& types) {
  types.set = {};
  types.owner.reset(qvx_type_system_create());
  fuzz::check(types.owner != nullptr);
  types.choice = input.choice;
  types.events_text = input.events;
  types.counters_text = input.counters;
  types.set.counters = std::make_shared<LoadedSchema>();
  types.set.counters->counters.reset(qvx_counters_schema_from_json_text(input.counters.c_str()));
  if (types.set.counters->counters == nullptr)
    types.set.counters->counters.reset(qvx_counters_schema_create());
  if (qvx_type_system_add_schema_json(types.owner.get(), input.events.c_str(), nullptr) != 0) return;
  for (SchemaPtr& schema : types.owner->schemas) {
    types.set.events.push_back(std::make_shared<LoadedSchema>());
    types.set.events.back()->events = std::move(schema);
  }
  types.owner->schemas.clear();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool quiet = (fuzz::quiet_reader(), true);
  static_cast<void>(quiet);
  static Types types;
  fuzz::TypedInput input = fuzz::split_typed_input({reinterpret_cast<const char*>(data), size});
  input.choice &= fuzz::kAllChoices - fuzz::kFree;
  if (types.owner == nullptr || types.choice != input.choice || types.events_text != input.events ||
      types.counters_text != input.counters) {
    load(input, types);
  }
  const Bytes bytes = std::as_bytes(std::span(input.file));
  const std::vector<std::byte> file(bytes.begin(), bytes.end());
  test::FilesInMemory& reader = fuzz::reader_of(input.choice);
  fuzz::check_output(reader.options(), reader.read(file, &types.set).out);
  return 0;
}
