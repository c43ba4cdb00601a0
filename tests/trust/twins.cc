// Fast ways against slow ones: the decompressor against zlib, number text against printf, one form of output
// against another, a file against the same one compressed.
#include <zlib.h>

#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "qvx/data/encoded_payload.h"
#include "qvx/support/bytes.h"
#include "qvx/support/json_parse.h"
#include "qvx/support/json_text.h"
#include "qvx/support/number.h"
#include "tests/support/file_in_memory.h"
#include "tests/trust/sweep.h"

namespace qvx::trust {
namespace {

std::string gzipped(std::string_view data, int level) {
  z_stream stream{};
  if (deflateInit2(&stream, level, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY) != Z_OK) return {};
  std::string packed(deflateBound(&stream, static_cast<uLong>(data.size())), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  stream.avail_in = static_cast<uInt>(data.size());
  stream.next_out = reinterpret_cast<Bytef*>(packed.data());
  stream.avail_out = static_cast<uInt>(packed.size());
  deflate(&stream, Z_FINISH);
  packed.resize(packed.size() - stream.avail_out);
  deflateEnd(&stream);
  return packed;
}

struct Inflated : Decompressed {
  std::string fault;  // zlib's words
};

// One gzip member; fails where the stream does not come to a sound end in the room.
Inflated inflate_by_zlib(std::string_view packed, std::string& to) {
  z_stream stream{};
  if (inflateInit2(&stream, 31) != Z_OK) return {};
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(packed.data()));
  stream.avail_in = static_cast<uInt>(packed.size());
  stream.next_out = reinterpret_cast<Bytef*>(to.data());
  stream.avail_out = static_cast<uInt>(to.size());
  const int result = inflate(&stream, Z_FINISH);
  const Inflated inflated{{result == Z_STREAM_END, to.size() - stream.avail_out},
                          stream.msg != nullptr ? stream.msg : ""};
  inflateEnd(&stream);
  return inflated;
}

void compare_text(Sweep& sweep, const char* format, double value, char* (*write)(char*, double)) {
  char expected[kFixedNumberRoom];
  char got[kFixedNumberRoom];
  const int length = std::snprintf(expected, sizeof expected, format, value);
  const std::string_view text(got, static_cast<std::size_t>(write(got, value) - got));
  if (text != std::string_view(expected, static_cast<std::size_t>(length)))
    sweep.finding(std::string(format) + " " + expected + ", got " + std::string(text));
}

void compare_number(Sweep& sweep, double value) {
  if (std::isfinite(value)) compare_text(sweep, "%1.17g", value, write_json_number);
  compare_text(sweep, "%f", value, write_fixed6);
  ++sweep.cases;
}

std::uint64_t random_bits(Sweep& sweep) {
  std::uint64_t bits = 0;
  for (int part = 0; part < 4; ++part)
    bits = bits << 16 | (sweep.random() >> 8 & 0xFFFF);
  return bits;
}

}  // namespace

// Streams of the golden files with up to three bits changed. Codes that no literal or length has are known to
// pass in the fast decoder when what follows happens to fit (docs/compatibility.md).
void compare_inflate(Sweep& sweep, const GoldenFiles& files) {
  std::vector<std::pair<std::string, std::size_t>> streams;
  for (const GoldenFile& file : files)
    for (const int level : {0, 1, 6, 9})
      streams.emplace_back(gzipped(file.bytes, level), file.bytes.size());
  Decompressor decompressor;
  while (sweep.has_time()) {
    const auto& [sound, size] = streams[sweep.pick(streams.size())];
    std::string packed = sound;
    for (std::size_t left = sweep.pick(4); left > 0; --left) {
      char& changed = packed[sweep.pick(packed.size())];
      changed = static_cast<char>(changed ^ 1 << sweep.pick(8));
    }
    std::string fast(size, '\0');
    std::string slow(size, '\0');
    const Decompressed got =
        decompressor.decompress(QVX_ENCODING_GZIP, as_bytes(packed), std::as_writable_bytes(std::span(fast)));
    const Inflated expected = inflate_by_zlib(packed, slow);
    ++sweep.cases;
    const std::string where = ", case " + std::to_string(sweep.cases);
    if (got.ok && expected.fault == "invalid literal/length code") continue;
    if (got.ok != expected.ok) {
      sweep.finding((got.ok ? "accepts what zlib refuses: " + expected.fault : "refuses what zlib accepts") +
                    where);
    } else if (got.ok && (got.produced != expected.produced || fast != slow)) {
      sweep.finding("other bytes than zlib" + where);
    }
  }
}

// Any bits as doubles and as floats, and doubles near decimal texts of few digits.
void compare_numbers(Sweep& sweep, const GoldenFiles&) {
  constexpr int kBatch = 1000;
  while (sweep.has_time()) {
    for (int left = kBatch; left > 0; --left) {
      const std::uint64_t bits = random_bits(sweep);
      compare_number(sweep, std::bit_cast<double>(bits));
      compare_number(sweep, static_cast<double>(std::bit_cast<float>(static_cast<std::uint32_t>(bits))));
      const double near = static_cast<double>(bits >> 44) * std::pow(10.0, static_cast<int>(bits % 40) - 20);
      compare_number(sweep, near);
      compare_number(sweep, std::nextafter(near, std::numeric_limits<double>::infinity()));
    }
  }
}

// Damaged files: pretty and compact JSON are the same documents, and a file reads the same when it is
// compressed as a whole.
void compare_forms(Sweep& sweep, const GoldenFiles& files) {
  std::map<std::pair<std::string, OutputFormat>, test::FilesInMemory> readers;
  const auto read = [&readers](const GoldenFile& file, OutputFormat format, std::string_view bytes) {
    const std::pair key(file.schema_path, format);
    auto known = readers.find(key);
    if (known == readers.end())
      known = readers.try_emplace(key, test::reader_options(format, file.schema_path)).first;
    return std::string(known->second.read(as_bytes(bytes)).out);
  };
  while (sweep.has_time()) {
    const GoldenFile& file = files[sweep.pick(files.size())];
    std::string bytes = file.bytes;
    for (std::size_t left = sweep.pick(6); left > 0; --left)
      bytes[sweep.pick(bytes.size())] = static_cast<char>(sweep.random());
    const std::string lines = read(file, OutputFormat::ndjson, bytes);
    // A metrics block with a fault counts as a record, so the first one behind it brings its separator.
    std::string pretty = read(file, OutputFormat::json, bytes);
    if (pretty.starts_with(",\n")) pretty.erase(0, 2);
    const auto documents = json::parse("[" + pretty + "]");
    std::string again;
    if (documents) {
      for (const json::Value& record : *documents->as_array())
        again += json::to_text(record, json::Style::compact).value_or("") + "\n";
    }
    ++sweep.cases;
    const std::string where = file.name + ", case " + std::to_string(sweep.cases);
    if (again != lines) sweep.finding("pretty and compact JSON differ: " + where);
    if (bytes.starts_with("\x1f\x8b")) continue;
    if (read(file, OutputFormat::ndjson, gzipped(bytes, 1)) != lines)
      sweep.finding("compressed it reads otherwise: " + where);
  }
}

}  // namespace qvx::trust
