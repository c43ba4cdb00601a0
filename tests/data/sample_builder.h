// The bytes of sample data files, for tests: headers, blocks, page blocks and whole files.
//
// Everything is a std::string of bytes, to be joined with +, written with TempDir::write_file or put on a
// GuardedBuffer. The layouts are spelt out here once more, so that a mistake in the library's tables shows.
//
//   FileHeader header;
//   header.event_schema_ids = {md5_id(schema_text)};
//   const std::string page = events_block({.timestamp = kNoon, .type_index = 2}, {record, record});
//   temp.write_file("a.bin", sample_file(header, {page, page_block({.source_id = "host-1"}, page)}));
#pragma once

#include <snappy.h>
#include <zlib.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/data/schema_id.h"
#include "qvx/support/bytes.h"
#include "qvx/support/md5.h"

namespace qvx::test {

// 2024-05-06 12:00:00 UTC in microseconds.
inline constexpr std::uint64_t kNoon = 1714996800000000;

// -- Pieces

// A number, low byte first.
template <Scalar T>
std::string le(T value) {
  std::string bytes(sizeof value, '\0');
  store_le(bytes.data(), value);
  return bytes;
}

// A text in a field of `size` bytes, cut or filled up with zeros.
inline std::string field(std::string_view text, std::size_t size) {
  std::string bytes(text.substr(0, size));
  bytes.resize(size, '\0');
  return bytes;
}

// Zeros up to the next multiple of `block_size`; at least one block.
inline std::string padded(std::string bytes, std::size_t block_size) {
  const std::size_t blocks = bytes.empty() ? 1 : (bytes.size() + block_size - 1) / block_size;
  bytes.resize(blocks * block_size, '\0');
  return bytes;
}

inline std::string joined(const std::vector<std::string>& pieces) {
  std::string bytes;
  for (const std::string& piece : pieces)
    bytes += piece;
  return bytes;
}

// -- Schema identifiers

// The identifier that the given text (of a schema) has.
inline qvx_schema_id md5_id(std::string_view text) {
  return {md5(text)};
}

// From 32 hexadecimal digits.
inline qvx_schema_id id_of(const char* digits) {
  qvx_schema_id id;
  if (!schema_id_parse(digits, id)) throw std::invalid_argument(digits);
  return id;
}

// 16 times the same byte.
inline qvx_schema_id id_of_byte(std::uint8_t byte) {
  qvx_schema_id id;
  id.bytes.fill(std::byte{byte});
  return id;
}

inline std::string id_bytes(const qvx_schema_id& id) {
  return std::string(as_text(id.bytes));
}

// The name under which the schema folder holds the schema: "schema_<32 digits>.json".
inline std::string schema_file_name(const qvx_schema_id& id) {
  return "schema_" + schema_id_text(id).value() + ".json";
}

// -- The file header

struct FileHeader {
  std::string magic = "QVXF";
  std::uint8_t version_major = 1;
  std::uint8_t version_minor = 7;
  std::uint16_t version_patch = 0;
  std::uint64_t file_size = 256;  // sample_file() puts the true size
  std::string source_id = "host-1";
  std::string source_tag = "tag";
  std::uint64_t first_timestamp = kNoon;
  std::uint64_t last_timestamp = kNoon;
  std::uint32_t block_size = 4096;
  qvx_schema_id counters_schema_id = {};
  std::vector<qvx_schema_id> event_schema_ids = {};  // up to 7; the other slots are empty
  std::uint8_t byte_order = 0;
  std::string magic_end = "qvxf";
};

// 256 bytes.
inline std::string file_header(const FileHeader& header = {}) {
  std::string event_ids;
  for (const qvx_schema_id& id : header.event_schema_ids)
    event_ids += id_bytes(id);
  return field(header.magic, 4) + le(header.version_major) + le(header.version_minor) +
         le(header.version_patch) + le(header.file_size) + field(header.source_id, 64) +
         field(header.source_tag, 16) + le(header.first_timestamp) + le(header.last_timestamp) +
         le(header.block_size) + id_bytes(header.counters_schema_id) + field(event_ids, 112) +
         le(header.byte_order) + std::string(7, '\0') + field(header.magic_end, 4);
}

// -- Blocks

// The values are bytes too: le(a) + le(b) + ...
inline std::string counters_block(std::uint64_t timestamp, std::string_view values) {
  return "QVXD" + le(std::uint32_t{0}) + le(timestamp) + std::string(values);
}

struct EventsBlock {
  std::uint64_t timestamp = kNoon;
  std::uint8_t schema_index = 0;
  std::uint16_t type_index = 0;
  std::optional<std::uint8_t> num_events = {};  // the number of records if not given
};

inline std::string events_block(const EventsBlock& header, const std::vector<std::string>& records) {
  return "QVXE" + le(header.timestamp) + le(header.schema_index) + le(header.type_index) +
         le(header.num_events.value_or(static_cast<std::uint8_t>(records.size()))) + joined(records);
}

// `num_schemas` other than the number of identifiers makes a block that lies.
inline std::string schemas_block(const std::vector<qvx_schema_id>& ids, std::uint16_t block_size = 256,
                                 std::optional<std::uint8_t> num_schemas = {}) {
  std::string list;
  for (const qvx_schema_id& id : ids)
    list += id_bytes(id);
  return "QVXS" + le(block_size) + le(num_schemas.value_or(static_cast<std::uint8_t>(ids.size()))) +
         std::string(9, '\0') + field(list, 240);
}

inline std::string blob_block(std::uint64_t timestamp, std::string_view data) {
  return "QVXB" + le(timestamp) + le(std::uint64_t{data.size()}) + std::string(data);
}

// -- Compressed pages

constexpr int kGzipWindowBits = 31;  // as zlib asks for a gzip stream

// What the header of a gzip stream may carry besides the data.
struct GzipHeader {
  std::string name = {};
  std::string comment = {};
  std::string extra = {};
  bool header_checksum = false;
};

inline std::string gzip(std::string_view bytes, int level = 6, int strategy = Z_DEFAULT_STRATEGY,
                        const GzipHeader& header = {}) {
  z_stream stream{};
  if (deflateInit2(&stream, level, Z_DEFLATED, kGzipWindowBits, 8, strategy) != Z_OK)
    throw std::runtime_error("deflateInit2");
  GzipHeader texts = header;
  gz_header record{};
  record.os = 3;
  record.hcrc = header.header_checksum;
  if (!texts.name.empty()) record.name = reinterpret_cast<Bytef*>(texts.name.data());
  if (!texts.comment.empty()) record.comment = reinterpret_cast<Bytef*>(texts.comment.data());
  if (!texts.extra.empty()) {
    record.extra = reinterpret_cast<Bytef*>(texts.extra.data());
    record.extra_len = static_cast<uInt>(texts.extra.size());
  }
  deflateSetHeader(&stream, &record);
  std::string out(deflateBound(&stream, static_cast<uLong>(bytes.size())), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
  stream.avail_in = static_cast<uInt>(bytes.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  const int result = deflate(&stream, Z_FINISH);
  out.resize(out.size() - stream.avail_out);
  deflateEnd(&stream);
  if (result != Z_STREAM_END) throw std::runtime_error("deflate");
  return out;
}

// What zlib makes of the beginning of one member, of up to 100,000 bytes decoded.
inline std::string gunzip_beginning(std::string_view packed) {
  z_stream stream{};
  if (inflateInit2(&stream, kGzipWindowBits) != Z_OK) throw std::runtime_error("inflateInit2");
  std::string out(100000, '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(packed.data()));
  stream.avail_in = static_cast<uInt>(packed.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  inflate(&stream, Z_SYNC_FLUSH);
  out.resize(out.size() - stream.avail_out);
  inflateEnd(&stream);
  return out;
}

inline std::string snappy_stream(std::string_view bytes) {
  std::string out;
  snappy::Compress(bytes.data(), bytes.size(), &out);
  return out;
}

// The bytes with their last four replaced: a gzip stream that states another size.
inline std::string with_trailer(std::string stream, std::uint32_t size) {
  stream.replace(stream.size() - 4, 4, le(size));
  return stream;
}

struct PageBlockHeader {
  char encoding = 'G';  // 'G' gzip, 'S' snappy
  std::uint64_t first_timestamp = kNoon;
  std::uint64_t last_timestamp = kNoon;
  std::string source_id = "host-1";
  std::string source_tag = "tag";
  std::string end_magic = "qvxp";
  std::optional<std::uint8_t> header_size = {};    // 24 and the lengths of the texts if not given
  std::optional<std::uint32_t> encoded_size = {};  // the size of the payload if not given
};

// A page block around bytes that are taken as they are.
inline std::string page_block_of_payload(const PageBlockHeader& header, std::string_view payload) {
  const auto id_length = static_cast<std::uint8_t>(header.source_id.size());
  const auto tag_length = static_cast<std::uint8_t>(header.source_tag.size());
  const auto header_size = static_cast<std::uint8_t>(24 + id_length + tag_length);
  return "QVXP" + le(header.header_size.value_or(header_size)) + header.encoding +
         le(header.encoded_size.value_or(static_cast<std::uint32_t>(payload.size()))) +
         le(header.first_timestamp) + le(header.last_timestamp) + le(id_length) + header.source_id +
         le(tag_length) + header.source_tag + std::string(payload) + header.end_magic;
}

// A page block around a page, which is compressed here. Several fit into one unit: block + block.
inline std::string page_block(const PageBlockHeader& header, std::string_view page) {
  return page_block_of_payload(header, header.encoding == 'S' ? snappy_stream(page) : gzip(page));
}

// -- Whole files

// The header, with the true file size, and the units, each padded to whole blocks of the header's size. A
// whole file may itself be compressed: gzip(sample_file(...)).
inline std::string sample_file(FileHeader header, const std::vector<std::string>& units) {
  std::string body;
  for (const std::string& unit : units)
    body += padded(unit, header.block_size);
  header.file_size = 256 + body.size();
  return file_header(header) + body;
}

}  // namespace qvx::test
