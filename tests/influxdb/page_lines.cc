// Prints the Influx lines of a data page with its header:
//
//   page_lines TYPES.json PAGE
//
// The types are the JSON text of a type system; the adapters are those of the page's header.
#include <unistd.h>

#include <array>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iterator>
#include <string>

#include "qvx/data/page.h"
#include "qvx/data/schema/serializer.h"

namespace {

using namespace qvx;

std::string file_text(const char* path) {
  std::ifstream file;
  file.exceptions(std::ios::failbit | std::ios::badbit);
  file.open(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::array<qvx_adapter_info, kPageAdapters> adapters_of(Bytes page) {
  std::array<qvx_adapter_info, kPageAdapters> adapters;
  Bytes entries = page.subspan(offset_of(kPageLayout, "adapters[0]"));
  for (qvx_adapter_info& adapter : adapters) {
    adapter = adapter_decode(entries.first<kAdapterEntrySize>());
    entries = entries.subspan(kAdapterEntrySize);
  }
  return adapters;
}

}  // namespace

int main(int count, char** words) try {
  if (count != 3) return 2;
  const TypeSystemPtr types(qvx_type_system_from_json_text(file_text(words[1]).c_str()));
  const std::string bytes = file_text(words[2]);
  const Bytes page = as_bytes(bytes);
  if (types == nullptr || page.size() < kPageHeaderSize) return 1;
  OutputSink sink(STDOUT_FILENO);
  data::InfluxSerializer().write(page, adapters_of(page), *types, sink);
  return sink.flush() ? 0 : 1;
} catch (const std::exception& fault) {
  std::fprintf(stderr, "%s\n", fault.what());
  return 1;
}
