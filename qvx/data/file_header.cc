#include "qvx/data/file_header.h"

#include <algorithm>
#include <cctype>
#include <cinttypes>
#include <cstring>
#include <new>

#include "qvx/support/bytes.h"
#include "qvx/support/format.h"
#include "qvx/support/log.h"
#include "qvx/support/version.h"

namespace qvx {
namespace {

constexpr char kFileKind = 'F';
constexpr std::uint8_t kFormatMajor = 1;
constexpr std::uint8_t kFormatMinor = 7;
constexpr std::size_t kDumpRoom = 1024;

template <std::size_t kSize>
consteval std::size_t at(const char (&name)[kSize]) {
  return offset_of(kFileHeaderLayout, std::string_view(name, kSize - 1));
}

// Fields of plain bytes are copied between the record and the bytes of the header.
template <typename Field>
void take(Field& field, const std::byte* from) {
  std::memcpy(&field, from, sizeof field);
}

template <typename Field>
void put(std::byte* to, const Field& field) {
  std::memcpy(to, &field, sizeof field);
}

// Points into the text, so that the excuse needs no memory.
const char* or_excuse(const std::optional<std::string>& text) {
  return text ? text->c_str() : "Failed to get schema id string";
}

}  // namespace

qvx_data_file_header file_header_decode(std::span<const std::byte, kFileHeaderSize> bytes) noexcept {
  qvx_data_file_header header;
  const std::byte* const from = bytes.data();
  take(header.magic, from + at("magic"));
  header.version_major = load_le<std::uint8_t>(from + at("version"));
  header.version_minor = load_le<std::uint8_t>(from + at("version") + 1);
  header.version_patch = load_le<std::uint16_t>(from + at("version") + 2);
  header.file_size = load_le<std::uint64_t>(from + at("file_size"));
  take(header.source_id, from + at("source_id"));
  take(header.source_tag, from + at("source_tag"));
  header.first_timestamp = load_le<std::uint64_t>(from + at("first_timestamp"));
  header.last_timestamp = load_le<std::uint64_t>(from + at("last_timestamp"));
  header.block_size = load_le<std::uint32_t>(from + at("block_size"));
  take(header.counters_schema_id, from + at("counters_schema_id"));
  take(header.event_schema_ids, from + at("event_schema_ids"));
  header.byte_order = load_le<std::uint8_t>(from + at("byte_order"));
  take(header.padding, from + at("padding"));
  take(header.magic_end, from + at("magic_end"));
  return header;
}

FileHeaderBytes file_header_encode(const qvx_data_file_header& header) noexcept {
  FileHeaderBytes bytes;
  std::byte* const to = bytes.data();
  put(to + at("magic"), header.magic);
  store_le(to + at("version"), header.version_major);
  store_le(to + at("version") + 1, header.version_minor);
  store_le(to + at("version") + 2, header.version_patch);
  store_le(to + at("file_size"), header.file_size);
  put(to + at("source_id"), header.source_id);
  put(to + at("source_tag"), header.source_tag);
  store_le(to + at("first_timestamp"), header.first_timestamp);
  store_le(to + at("last_timestamp"), header.last_timestamp);
  store_le(to + at("block_size"), header.block_size);
  put(to + at("counters_schema_id"), header.counters_schema_id);
  put(to + at("event_schema_ids"), header.event_schema_ids);
  store_le(to + at("byte_order"), header.byte_order);
  put(to + at("padding"), header.padding);
  put(to + at("magic_end"), header.magic_end);
  return bytes;
}

std::unique_ptr<qvx_data_file_header> create_header() noexcept {
  std::unique_ptr<qvx_data_file_header> header(new (std::nothrow) qvx_data_file_header);
  if (header == nullptr) return nullptr;
  magic_set(header->magic, kFileKind);
  magic_set_lower(header->magic_end, kFileKind);
  header->version_major = kFormatMajor;
  header->version_minor = kFormatMinor;
  header->file_size = kFileHeaderSize;
  return header;
}

bool validate_header(const qvx_data_file_header& header) {
  if (!magic_is(header.magic, kFileKind)) {
    QVX_LOG(QVX_LOG_ERROR, "Wrong data page magic number.");
    return false;
  }
  if (header.version_major != kFormatMajor || header.version_minor > kFormatMinor) {
    QVX_LOG(QVX_LOG_ERROR, "Version of data page %u.%u.%u is incompatible with Quorvex version %s",
            header.version_major, header.version_minor, header.version_patch, kProgramVersionText);
    return false;
  }
  if (header.file_size < kFileHeaderSize) {
    QVX_LOG(QVX_LOG_ERROR, "Wrong data file size %" PRId64 " is less then file header size %zu",
            static_cast<std::int64_t>(header.file_size), kFileHeaderSize);
    return false;
  }
  return true;
}

std::optional<std::string> header_event_schema_id_text(const qvx_data_file_header& header,
                                                       std::size_t index) noexcept {
  if (index >= header.event_schema_ids.size()) return std::nullopt;
  return schema_id_text(header.event_schema_ids[index]);
}

std::string header_dump(const qvx_data_file_header& header) {
  std::string text;
  text.reserve(kDumpRoom);
  text += "Data file header\n";
  // The precisions bound texts that fill their field without a terminator.
  append_format(text, " %-20s = %4.4s\n", "magic number", header.magic.data());
  append_format(text, " %-20s = %u.%u.%u\n", "version", header.version_major, header.version_minor,
                header.version_patch);
  append_format(text, " %-20s = %" PRIu64 "\n", "file size", header.file_size);
  append_format(text, " %-20s = %.64s\n", "source id", header.source_id.data());
  append_format(text, " %-20s = %.16s\n", "source tag", header.source_tag.data());
  append_format(text, " %-20s = %" PRIu64 "\n", "first timestamp", header.first_timestamp);
  append_format(text, " %-20s = %" PRIu64 "\n", "last timestamp", header.last_timestamp);
  append_format(text, " %-20s = %u\n", "data block size", header.block_size);
  append_format(text, " %-20s = %s\n", "counters schema id",
                or_excuse(schema_id_text(header.counters_schema_id)));
  for (std::size_t slot = 0; slot < kEventSchemaSlots; ++slot) {
    append_format(text, " schema id[%d]         = %s\n", static_cast<int>(slot),
                  or_excuse(header_event_schema_id_text(header, slot)));
  }
  append_format(text, " %-20s = %u (%s)\n", "byte order", header.byte_order,
                header.byte_order != 0 ? "BE" : "LE");
  append_format(text, " %-20s = %4.4s\n", "end magic number", header.magic_end.data());
  return text;
}

void print_header(std::FILE* stream, const qvx_data_file_header& header) {
  std::fputs(header_dump(header).c_str(), stream);
}

void print_header_layout() {
  std::fputs(layout_text(kFileHeaderLayout).c_str(), stdout);
}

void magic_set(std::span<char, 4> to, char kind_letter) noexcept {
  to[0] = 'Q';
  to[1] = 'V';
  to[2] = 'X';
  to[3] = kind_letter;
}

void magic_set_lower(std::span<char, 4> to, char kind_letter) noexcept {
  magic_set(to, kind_letter);
  for (char& letter : to)
    letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
}

bool magic_is(std::span<const char, 4> magic, char kind_letter) noexcept {
  return magic[0] == 'Q' && magic[1] == 'V' && magic[2] == 'X' && magic[3] == kind_letter;
}

bool magic_equal(std::span<const char, 4> a, std::span<const char, 4> b) noexcept {
  return std::equal(a.begin(), a.end(), b.begin());
}

}  // namespace qvx
