#include "qvx/data/schema_id.h"

#include <cstdio>
#include <cstring>
#include <new>
#include <string_view>

namespace qvx {

const qvx_schema_id kBlobSchemaId = [] {
  qvx_schema_id id;
  std::memcpy(id.bytes.data(), "BLOB_DATA_SCHEMA", id.bytes.size());
  return id;
}();

std::optional<std::string> schema_id_text(const qvx_schema_id& id) noexcept {
  constexpr std::string_view kDigits = "0123456789abcdef";
  try {
    std::string text;
    text.reserve(2 * id.bytes.size());
    for (const std::byte byte : id.bytes) {
      text += kDigits[std::to_integer<std::size_t>(byte) >> 4];
      text += kDigits[std::to_integer<std::size_t>(byte) & 15];
    }
    return text;
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

bool schema_id_parse(const char* text, qvx_schema_id& id) noexcept {
  if (text == nullptr) return true;
  for (std::byte& byte : id.bytes) {
    // A pair is copied out: scanf would skip blanks and read past the second digit's place.
    const char pair[3] = {text[0], text[0] == '\0' ? '\0' : text[1], '\0'};
    unsigned char value = 0;
    if (std::sscanf(pair, "%02hhx", &value) != 1) return false;
    byte = std::byte{value};
    text += text[1] == '\0' ? 1 : 2;
  }
  return true;
}

bool schema_id_is_empty(const qvx_schema_id& id) noexcept {
  return id == qvx_schema_id{};
}

bool schema_id_equal(const qvx_schema_id& a, const qvx_schema_id& b) noexcept {
  return a == b;
}

void schema_id_copy(qvx_schema_id& to, const qvx_schema_id& from) noexcept {
  to = from;
}

}  // namespace qvx
