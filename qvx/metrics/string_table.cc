#include "qvx/metrics/string_table.h"

#include <algorithm>
#include <cstdint>
#include <stdexcept>

#include "qvx/metrics/wire.h"
#include "qvx/support/bytes.h"
#include "qvx/support/log.h"

namespace qvx::metrics {
namespace {

[[noreturn]] void fail_missing_suffix(std::string_view closing) {
  QVX_LOG(QVX_LOG_ERROR, "[qvx metrics parser] Invalid binary data format: Missing '%.*s' suffix",
          static_cast<int>(closing.size()), closing.data());
  throw std::runtime_error("Invalid binary data format: Missing suffix");
}

}  // namespace

void fail_missing_prefix(std::string_view opening) {
  QVX_LOG(QVX_LOG_ERROR, "[qvx metrics parser] Invalid binary data format: Missing '%.*s' prefix",
          static_cast<int>(opening.size()), opening.data());
  throw std::runtime_error("Invalid binary data format: Missing prefix");
}

const std::byte* read_string_entries(const std::byte* pos, const std::byte* end, std::size_t count,
                                     std::string_view closing, StringTable& table_out) {
  // The count comes out of the file: room is made only for as many entries as the bytes can hold.
  table_out.reserve(table_out.size() + std::min(count, static_cast<std::size_t>(end - pos)));
  for (std::size_t i = 0; i < count; ++i) {
    if (pos == end) fail_missing_suffix(closing);
    const std::size_t length = load_le<std::uint8_t>(pos++);
    if (length > static_cast<std::size_t>(end - pos)) fail_missing_suffix(closing);
    table_out.push_back(as_text(Bytes(pos, length)));
    pos += length;
  }
  return pos;
}

const std::byte* read_string_table(const std::byte* pos, const std::byte* end, std::string_view opening,
                                   std::string_view closing, StringTable& table_out) {
  table_out.clear();
  const std::byte* const marker = wire::find_marker(pos, end, opening);
  if (marker == end) return end;
  constexpr std::ptrdiff_t kLeastBehindMarker = 4;
  if (end - marker - static_cast<std::ptrdiff_t>(wire::kMarkerSize) < kLeastBehindMarker)
    fail_missing_prefix(opening);
  const auto count = load_le<std::uint16_t>(marker + wire::kStringTableCountAt);
  pos = read_string_entries(marker + wire::kStringTableHeaderSize, end, count, closing, table_out);
  // Deliberate: four bytes that lie inside the range close the table whatever they are; the closing marker is
  // missed only when the range ends before it does.
  if (static_cast<std::size_t>(end - pos) < wire::kMarkerSize) fail_missing_suffix(closing);
  return pos + wire::kMarkerSize;
}

}  // namespace qvx::metrics
