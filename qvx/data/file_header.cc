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

// Points into the text, so that the excuse needs no memory.
const char* or_excuse(const std::optional<std::string>& text) {
  return text ? text->c_str() : "Failed to get schema id string";
}

bool has_magic(const qvx_data_file_header& header) {
  return magic_is(header.magic, kFileKind);
}

bool has_known_version(const qvx_data_file_header& header) {
  return header.version_major == kFormatMajor && header.version_minor <= kFormatMinor;
}

bool has_possible_size(const qvx_data_file_header& header) {
  return header.file_size >= kFileHeaderSize;
}

}  // namespace

qvx_data_file_header file_header_decode(std::span<const std::byte, kFileHeaderSize> bytes) noexcept {
  qvx_data_file_header header;
  const std::byte* const from = bytes.data();
  load_field<kFileHeaderLayout, "magic">(from, header.magic);
  const std::uint32_t version = load_field<kFileHeaderLayout, "version">(from);
  header.version_major = static_cast<std::uint8_t>(version);
  header.version_minor = static_cast<std::uint8_t>(version >> 8);
  header.version_patch = static_cast<std::uint16_t>(version >> 16);
  load_field<kFileHeaderLayout, "file_size">(from, header.file_size);
  load_field<kFileHeaderLayout, "source_id">(from, header.source_id);
  load_field<kFileHeaderLayout, "source_tag">(from, header.source_tag);
  load_field<kFileHeaderLayout, "first_timestamp">(from, header.first_timestamp);
  load_field<kFileHeaderLayout, "last_timestamp">(from, header.last_timestamp);
  load_field<kFileHeaderLayout, "block_size">(from, header.block_size);
  load_field<kFileHeaderLayout, "counters_schema_id">(from, header.counters_schema_id);
  load_field<kFileHeaderLayout, "event_schema_ids">(from, header.event_schema_ids);
  load_field<kFileHeaderLayout, "byte_order">(from, header.byte_order);
  load_field<kFileHeaderLayout, "padding">(from, header.padding);
  load_field<kFileHeaderLayout, "magic_end">(from, header.magic_end);
  return header;
}

FileHeaderBytes file_header_encode(const qvx_data_file_header& header) noexcept {
  FileHeaderBytes bytes;
  std::byte* const to = bytes.data();
  store_field<kFileHeaderLayout, "magic">(to, header.magic);
  store_field<kFileHeaderLayout, "version">(
      to, pack_version(header.version_major, header.version_minor, header.version_patch));
  store_field<kFileHeaderLayout, "file_size">(to, header.file_size);
  store_field<kFileHeaderLayout, "source_id">(to, header.source_id);
  store_field<kFileHeaderLayout, "source_tag">(to, header.source_tag);
  store_field<kFileHeaderLayout, "first_timestamp">(to, header.first_timestamp);
  store_field<kFileHeaderLayout, "last_timestamp">(to, header.last_timestamp);
  store_field<kFileHeaderLayout, "block_size">(to, header.block_size);
  store_field<kFileHeaderLayout, "counters_schema_id">(to, header.counters_schema_id);
  store_field<kFileHeaderLayout, "event_schema_ids">(to, header.event_schema_ids);
  store_field<kFileHeaderLayout, "byte_order">(to, header.byte_order);
  store_field<kFileHeaderLayout, "padding">(to, header.padding);
  store_field<kFileHeaderLayout, "magic_end">(to, header.magic_end);
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
  if (!has_magic(header)) {
    QVX_LOG(QVX_LOG_ERROR, "Wrong data page magic number.");
  } else if (!has_known_version(header)) {
    QVX_LOG(QVX_LOG_ERROR, "Version of data page %u.%u.%u is incompatible with Quorvex version %s",
            header.version_major, header.version_minor, header.version_patch, kProgramVersionText);
  } else if (!has_possible_size(header)) {
    QVX_LOG(QVX_LOG_ERROR, "Wrong data file size %" PRId64 " is less then file header size %zu",
            static_cast<std::int64_t>(header.file_size), kFileHeaderSize);
  }
  return header_is_valid(header);
}

bool header_is_valid(const qvx_data_file_header& header) noexcept {
  return has_magic(header) && has_known_version(header) && has_possible_size(header);
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
