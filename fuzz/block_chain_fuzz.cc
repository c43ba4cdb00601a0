// A chain of blocks, as it stands in a data block or in an unpacked page.
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "fuzz/reader_fuzz.h"
#include "qvx/data/block.h"
#include "qvx/reader/block_walk.h"
#include "qvx/reader/reader_context.h"

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
  const std::unique_ptr<ReaderContext> context = create_reader_context(way.run, "/dev/null");
  fuzz::check(context != nullptr);
  qvx_data_file_header& header = context->header;
  fuzz::check(schema_id_parse(kEventsId, header.event_schema_ids[0]));
  fuzz::check(schema_id_parse(kCountersId, header.counters_schema_id));
  context->types = way.run.types.load(header.event_schema_ids, header.counters_schema_id);
  fuzz::check(context->types != nullptr);
  if (block_type_of(chain) == QVX_PAGE_BLOCK) {
    walk_page_blocks(*context, chain);
  } else {
    walk_block_chain(*context, chain, (choice & 32U) != 0);
  }
  way.sink.flush();
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
