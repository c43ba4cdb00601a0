// Any bytes as a string table: the texts lie inside the bytes, one behind the other.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string_view>

#include "qvx/metrics/string_table.h"
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
  const auto* const begin = reinterpret_cast<const std::byte*>(data);
  const std::byte* const end = begin + size;
  StringTable table;
  try {
    const std::byte* const table_end = read_string_table(begin, end, "LBLV", "lblv", table);
    check(table_end >= begin && table_end <= end);
    const std::byte* previous = begin;
    for (const std::string_view text : table) {
      const std::byte* const first = qvx::as_bytes(text).data();
      check(first > previous && first + text.size() + 4 <= table_end);
      previous = first;
    }
  } catch (const std::runtime_error&) {
  }
  return 0;
}
