// The yardstick: a decoder written by hand for the benchmark's event type and nothing else, printing the same
// NDJSON with std::to_chars.
//
//   qvx_hand_decoder <events.bin>

#include <fcntl.h>
#include <unistd.h>

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <vector>

#include "qvx/support/bytes.h"

namespace {

constexpr std::size_t kUnit = 64 * 1024;
constexpr std::size_t kRecord = 77;
constexpr std::size_t kMaxLine = 512;

char* put(char* out, std::string_view text) {
  std::memcpy(out, text.data(), text.size());
  return out + text.size();
}

template <typename T>
char* put_integer(char* out, const std::byte* from) {
  return std::to_chars(out, out + 24, qvx::load_le<T>(from)).ptr;
}

char* put_double(char* out, const std::byte* from) {
  return std::to_chars(out, out + 32, qvx::load_le<double>(from), std::chars_format::general, 17).ptr;
}

char* put_record(char* out, const std::byte* record) {
  out = put_integer<std::uint64_t>(put(out, "{\"timestamp\":"), record);
  out = put_integer<std::uint32_t>(put(out, ",\"node\":"), record + 8);
  out = put_integer<std::uint16_t>(put(out, ",\"cpu\":"), record + 12);
  out = put(out, ",\"device\":\"");
  for (std::size_t i = 0; i < 16; ++i) {
    const char letter = static_cast<char>(record[14 + i]);
    if (letter < 0x20 || letter > 0x7E) break;
    if (letter == '"' || letter == '\\') *out++ = '\\';
    *out++ = letter;
  }
  out = put_integer<std::uint64_t>(put(out, "\",\"job_id\":"), record + 30);
  out = put_integer<std::uint64_t>(put(out, ",\"bytes_received\":"), record + 38);
  out = put_integer<std::uint32_t>(put(out, ",\"packets_received\":"), record + 46);
  out = put_integer<std::uint16_t>(put(out, ",\"errors\":"), record + 50);
  out = put_integer<std::uint8_t>(put(out, ",\"state\":"), record + 52);
  out = put_double(put(out, ",\"load_average\":"), record + 53);
  out = put_double(put(out, ",\"temperature\":"), record + 61);
  out = put_double(put(out, ",\"utilisation\":"), record + 69);
  return put(out, "}\n");
}

bool write_all(const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t count = write(STDOUT_FILENO, data, size);
    if (count <= 0) return false;
    data += count;
    size -= static_cast<std::size_t>(count);
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const int file = argc == 2 ? open(argv[1], O_RDONLY) : -1;
  if (file < 0 || lseek(file, 256, SEEK_SET) != 256) return 1;
  std::vector<std::byte> unit(kUnit);
  std::vector<char> buffer(256 * 1024);
  char* out = buffer.data();
  while (read(file, unit.data(), kUnit) == static_cast<ssize_t>(kUnit)) {
    for (const std::byte* block = unit.data();
         block + 16 < unit.data() + kUnit && block[3] == std::byte{'E'};) {
      const auto count = std::to_integer<unsigned>(block[15]);
      for (unsigned i = 0; i < count; ++i) {
        if (out + kMaxLine > buffer.data() + buffer.size()) {
          if (!write_all(buffer.data(), static_cast<std::size_t>(out - buffer.data()))) return 1;
          out = buffer.data();
        }
        out = put_record(out, block + 16 + i * kRecord);
      }
      block += 16 + count * kRecord;
    }
  }
  return write_all(buffer.data(), static_cast<std::size_t>(out - buffer.data())) ? 0 : 1;
}
