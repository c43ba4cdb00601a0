// A chain of blocks, as it stands in a data block or in an unpacked page.
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "fuzz/reader_fuzz.h"
#include "qvx/data/block.h"
#include "qvx/reader/print_visitor.h"
#include "qvx/scan/unit_walk.h"

namespace {

using namespace qvx;

constexpr const char* kEventsId = "e1e1e1e1e1e1e1e1e1e1e1e1e1e1e1e1";
constexpr const char* kCountersId = "c1c1c1c1c1c1c1c1c1c1c1c1c1c1c1c1";

// One way to read, kept over the inputs so that schemas are loaded once.
struct Way {
  explicit Way(std::uint8_t choice) : options(fuzz::reader_options(choice)), sink(out), run(options, sink) {}

  const ReaderOptions options;
  std::string out;
  OutputSink sink;
  Run run;
};

void walk(std::uint8_t choice, Bytes chain) {
  static std::map<std::uint8_t, Way> ways;
  Way& way = ways.try_emplace(choice, choice).first->second;
  TypesInForce types{way.run.types, {}, {}};
  qvx_schema_id events;
  fuzz::check(schema_id_parse(kEventsId, events) && schema_id_parse(kCountersId, types.counters_schema));
  fuzz::check(way.run.types.load({&events, 1}, types.counters_schema, types.types));
  PrintVisitor visitor(way.run, "input");
  const auto go_through = [&visitor](auto walk) {
    while (walk.next(visitor) == WalkStep::block) {
    }
  };
  if (block_type_of(chain) == QVX_PAGE_BLOCK) {
    Decompressor decompressor;
    go_through(UnitWalk(types, decompressor, chain, 0));
  } else {
    go_through(ChainWalk(types, chain, Place{0, (choice & 32U) != 0, 0}));
  }
  static_cast<void>(way.sink.flush());
  fuzz::check_output(way.options, way.out);
  way.out.clear();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool quiet = (fuzz::quiet_reader(), true);
  static_cast<void>(quiet);
  if (size == 0) return 0;
  walk(data[0] & 63U, {reinterpret_cast<const std::byte*>(data + 1), size - 1});
  return 0;
}
