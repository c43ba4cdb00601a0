// A labels block at any offset: what is parsed must have its count and end inside the bytes, and decoding it
// against a table of any texts must give a text per value or refuse.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <vector>

#include "qvx/metrics/labels_block.h"
#include "qvx/support/bytes.h"
#include "qvx/support/log.h"

namespace {

void check(bool holds) {
  if (!holds) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace qvx::metrics;
  qvx_logger_set_level(0);
  if (size < 2) return 0;
  const std::size_t start = data[0];
  const std::size_t texts = data[1];
  const auto* const bytes = reinterpret_cast<const std::byte*>(data + 2);
  StringTable table;
  for (std::size_t i = 0; i < texts; ++i)
    table.push_back(i % 5 == 0 ? "" : "text");
  std::uint64_t set = 0;
  std::vector<EncodedLabelValue> values;
  try {
    const std::size_t end = parse_labels_block(bytes, bytes + size - 2, start, set, values, "fuzz");
    check(end >= start + 3 && end <= size - 2);
    check(set < 256 && values.size() == static_cast<std::size_t>(bytes[start + 1]));
    check(decode_label_values(values, table).size() == values.size());
  } catch (const std::runtime_error&) {
  }
  return 0;
}
