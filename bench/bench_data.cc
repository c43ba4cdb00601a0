#include "bench/bench_data.h"

#include <snappy.h>
#include <sys/stat.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <new>
#include <random>
#include <stdexcept>

#include "qvx/counters/counters_json.h"
#include "qvx/data/block.h"
#include "qvx/data/encoded_payload.h"
#include "qvx/data/file_header.h"
#include "qvx/data/page_block.h"
#include "qvx/data/schema/schema_json.h"
#include "qvx/support/bytes.h"
#include "qvx/support/json_text.h"
#include "qvx/support/md5.h"

namespace qvx::bench {
namespace {

constexpr std::uint64_t kStart = 1'700'000'000'000'000;
constexpr std::size_t kEventUnit = 64 * 1024;
constexpr std::size_t kPageUnit = 1024 * 1024;
constexpr std::size_t kMaxRecordsInBlock = 255;
// Linux keeps a file in memory in pieces as large as it was written in, as it does what it reads ahead from
// a disk. Out of pieces of a page, reading costs three times as much.
constexpr std::size_t kWriteSize = 4 * 1024 * 1024;

using Buffer = std::vector<std::byte>;

template <typename T>
void push(Buffer& to, T value) {
  to.resize(to.size() + sizeof value);
  store_le(to.data() + to.size() - sizeof value, value);
}

void push_text(Buffer& to, std::string_view text, std::size_t size) {
  const std::size_t start = to.size();
  to.resize(start + size);
  std::memcpy(to.data() + start, text.data(), std::min(text.size(), size));
}

// A text of a metrics block's tables.
void push_entry(Buffer& to, std::string_view text) {
  push(to, static_cast<std::uint8_t>(text.size()));
  push_text(to, text, text.size());
}

void push_magic(Buffer& to, qvx_block_type type) {
  std::array<char, 4> magic{};
  block_magic_set(magic, type);
  push_text(to, {magic.data(), magic.size()}, magic.size());
}

class EventSource {
 public:
  void push_record(Buffer& to) {
    constexpr std::array<std::string_view, 6> kNames{"hcx0:port1",       "eth0",      "node-0113/gpu3",
                                                     "lustre-OST0007:x", "nvme0n1p2", "ib0"};
    timestamp_ += random_() % 2'000;
    const double load = static_cast<double>(random_() % 6400) / 100;
    push(to, timestamp_);
    push(to, static_cast<std::uint32_t>(random_() % 4096));
    push(to, static_cast<std::uint16_t>(random_() % 256));
    push_text(to, kNames[random_() % kNames.size()], 16);
    push(to, random_() % 10'000'000);
    push(to, random_() % 1'000'000'000'000);
    push(to, static_cast<std::uint32_t>(random_()));
    push(to, static_cast<std::uint16_t>(random_() % 20));
    push(to, static_cast<std::uint8_t>(random_() % 5));
    push(to, load);
    push(to, 30 + static_cast<double>(random_() % 5000) / 128 + 0.1);
    push(to, static_cast<double>(random_() % 1'000'003) / 1'000'003);
  }

 private:
  std::mt19937_64 random_{20'231'114};
  std::uint64_t timestamp_ = kStart;
};

// As many events blocks as fit into `size` bytes; the rest stays zero. Gives the number of records.
std::size_t fill_with_events(Buffer& unit, std::size_t size, EventSource& source) {
  const std::size_t start = unit.size();
  std::size_t records = 0;
  for (;;) {
    const std::size_t left = size - (unit.size() - start);
    if (left < kEventHeaderSize + kEventSize) break;
    const std::size_t count = std::min(kMaxRecordsInBlock, (left - kEventHeaderSize) / kEventSize);
    push_magic(unit, QVX_EVENTS_BLOCK);
    push(unit, kStart);
    push(unit, std::uint8_t{0});
    push(unit, std::uint16_t{0});
    push(unit, static_cast<std::uint8_t>(count));
    for (std::size_t i = 0; i < count; ++i)
      source.push_record(unit);
    records += count;
  }
  unit.resize(start + size);
  return records;
}

Buffer page_block(const Buffer& data, Pages pages) {
  const Buffer encoded = pages == Pages::gzip ? compress_gzip(data) : compress_snappy(data);
  constexpr std::string_view kSource = "bench";
  Buffer block;
  push_magic(block, QVX_PAGE_BLOCK);
  push(block, static_cast<std::uint8_t>(24 + kSource.size()));
  push(block, static_cast<std::uint8_t>(pages == Pages::gzip ? QVX_ENCODING_GZIP : QVX_ENCODING_SNAPPY));
  push(block, static_cast<std::uint32_t>(encoded.size()));
  push(block, kStart);
  push(block, kStart);
  push(block, static_cast<std::uint8_t>(kSource.size()));
  push_text(block, kSource, kSource.size());
  push(block, std::uint8_t{0});
  block.insert(block.end(), encoded.begin(), encoded.end());
  push_text(block, kPageBlockEndMagic, kPageBlockEndMagic.size());
  return block;
}

qvx_schema_id write_schema(const std::string& folder, const std::string& text) {
  const qvx_schema_id id{md5(text)};
  std::ofstream(schema_file_path(folder.c_str(), id).value(), std::ios::binary) << text;
  return id;
}

void write_bytes(std::ofstream& file, const void* bytes, std::size_t size) {
  file.write(static_cast<const char*>(bytes), static_cast<std::streamsize>(size));
}

}  // namespace

std::vector<std::byte> compress_gzip(const std::vector<std::byte>& data) {
  z_stream stream{};
  if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY) != Z_OK)
    throw std::runtime_error("cannot compress");
  Buffer out(deflateBound(&stream, data.size()));
  stream.next_in = const_cast<Bytef*>(reinterpret_cast<const Bytef*>(data.data()));
  stream.avail_in = static_cast<uInt>(data.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  deflate(&stream, Z_FINISH);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  return out;
}

std::vector<std::byte> compress_snappy(const std::vector<std::byte>& data) {
  Buffer out(snappy::MaxCompressedLength(data.size()));
  std::size_t size = 0;
  snappy::RawCompress(reinterpret_cast<const char*>(data.data()), data.size(),
                      reinterpret_cast<char*>(out.data()), &size);
  out.resize(size);
  return out;
}

const char* payload_name(Payload payload) {
  constexpr std::array<const char*, 3> kNames{"events", "counters", "metrics"};
  return kNames[static_cast<std::size_t>(payload)];
}

TypeSystemPtr make_type_system() {
  TypeSystemPtr ts(qvx_type_system_create());
  qvx_schema* const schema = qvx_type_system_new_schema(ts.get(), "bench", 0x0001, nullptr);
  const std::array<qvx_field_info, kEventFields> fields{{
      {"timestamp", "time of the sample", "timestamp", 0, 1},
      {"node", "", "uint32_t", 0, 1},
      {"cpu", "", "uint16_t", 0, 1},
      {"device", "", "char", 0, 16},
      {"job_id", "", "uint64_t", 0, 1},
      {"bytes_received", "", "uint64_t", 1, 1},
      {"packets_received", "", "uint32_t", 1, 1},
      {"errors", "", "uint16_t", 1, 1},
      {"state", "", "uint8_t", 0, 1},
      {"load_average", "", "double", 0, 1},
      {"temperature", "", "double", 0, 1},
      {"utilisation", "", "double", 0, 1},
  }};
  if (qvx_schema_add_type(schema, "device_sample", fields.data(), fields.size(), nullptr) != 0)
    throw std::runtime_error("cannot register the event type");
  qvx::CounterGroupPtr group(new qvx_counter_group);
  group->num_counter_sets = 1;
  group->name = "node";
  for (std::size_t index = 0; index < kCounters; ++index) {
    qvx_counter_info counter;
    counter.name = "hw_counter_" + std::to_string(index);
    counter.description = "";
    counter.units = "";
    counter.data_type = QVX_COUNTER_UINT64;
    if (!qvx_counter_group_add_counter(group.get(), &counter)) throw std::bad_alloc();
  }
  if (!qvx_counters_schema_add_group(ts->counters_schema.get(), group.get())) throw std::bad_alloc();
  static_cast<void>(group.release());
  qvx_counters_schema_update_counter_offsets(ts->counters_schema.get());
  return ts;
}

std::vector<std::byte> make_event_records(std::size_t count) {
  Buffer records;
  EventSource source;
  for (std::size_t i = 0; i < count; ++i)
    source.push_record(records);
  return records;
}

std::vector<std::byte> make_counters_block(std::uint64_t seed) {
  Buffer block;
  push_magic(block, QVX_COUNTERS_BLOCK);
  push(block, std::uint32_t{0});
  push(block, kStart + seed * 10'000);
  std::mt19937_64 random(seed);
  // Counters of all magnitudes, as a host has them.
  for (std::size_t index = 0; index < kCounters; ++index)
    push(block, random() >> (14 + index % 50));
  return block;
}

std::vector<std::byte> make_metrics_block(std::uint64_t seed, MetricsChange change) {
  constexpr std::array<std::string_view, 5> kLabels{"cluster", "host", "device", "port", "role"};
  const auto changing = [&](MetricsChange what) {  // four digits
    return std::to_string(1'000 + (change == what ? seed % 9'000 : 113));
  };
  const std::string host = "node-" + changing(MetricsChange::label_values);
  const std::array<std::string_view, 6> values{"alpha", host, "hcx4_0", "1", "compute", "hcx4_1"};
  const std::string names = "hw_counter_" + changing(MetricsChange::metric_names).substr(2) + "_";
  const std::string rack = "rack-" + changing(MetricsChange::constant_labels);
  Buffer block;
  push_text(block, "CNTX", 4);
  push(block, std::uint32_t{0});
  push_text(block, "LBLN", 4);
  push(block, static_cast<std::uint8_t>(kLabels.size()));
  for (const std::string_view label : kLabels)
    push_entry(block, label);
  push_text(block, "lbln", 4);
  push_text(block, "LBLV", 4);
  push(block, static_cast<std::uint16_t>(values.size()));
  for (const std::string_view value : values)
    push_entry(block, value);
  push_text(block, "lblv", 4);
  push_text(block, "CNTI", 4);
  push(block, static_cast<std::uint16_t>(kSamples));
  for (std::size_t index = 0; index < kSamples; ++index)
    push_entry(block, names + std::to_string(index));
  push_text(block, "cnti", 4);
  if (change == MetricsChange::constant_labels) {
    push_text(block, "CLBL", 4);
    push(block, std::uint16_t{4});
    for (const std::string_view text : {std::string_view("site"), std::string_view("alpha-site"),
                                        std::string_view("rack"), std::string_view(rack)})
      push_entry(block, text);
    push_text(block, "clbl", 4);
  }
  push_text(block, "CNTD", 4);
  push(block, std::uint32_t{64 * 1024});
  push(block, static_cast<std::uint16_t>(14 + 10 * kSamples + 8));
  push(block, kStart + seed * 10'000);
  push_text(block, "C", 1);
  push(block, std::uint8_t{1});
  push(block, static_cast<std::uint16_t>(kSamples));
  std::mt19937_64 random(seed);
  for (std::size_t index = 0; index < kSamples; ++index) {
    push(block, static_cast<std::uint16_t>(index));
    push(block, random() >> (14 + index % 50));
  }
  const bool is_second_device = change == MetricsChange::record_labels && seed % 2 == 1;
  push(block, std::uint8_t{0});
  push(block, static_cast<std::uint8_t>(kLabels.size()));
  push_text(block, "L", 1);
  for (const int value : {0, 1, is_second_device ? 5 : 2, 3, 4})
    push(block, static_cast<std::uint8_t>(value));
  push_text(block, "cntdcntx", 8);
  store_le(block.data() + 4, static_cast<std::uint32_t>(block.size()));
  return block;
}

DataFile make_data_file(const std::string& folder, Payload payload, Pages pages, std::uint64_t data_bytes) {
  const TypeSystemPtr ts = make_type_system();
  const std::string schema_folder = folder + "/schema";
  mkdir(folder.c_str(), 0777);
  mkdir(schema_folder.c_str(), 0777);
  const auto header = create_header();
  header->event_schema_ids[0] = write_schema(
      schema_folder, json::to_text(schema_to_json(*ts->schemas[0]).value(), json::Style::pretty).value());
  header->counters_schema_id =
      write_schema(schema_folder, qvx_counters_schema_jsonify_text(ts->counters_schema.get()).value());
  const bool is_plain = pages == Pages::plain;
  const std::size_t chain_size = payload == Payload::events     ? kEventUnit
                                 : payload == Payload::counters ? make_counters_block(0).size()
                                                                : make_metrics_block(0).size();
  const std::size_t unit_size = is_plain ? chain_size : kPageUnit;
  header->block_size = static_cast<std::uint32_t>(unit_size);

  DataFile file;
  file.path = folder + "/" + payload_name(payload) +
              (is_plain               ? ""
               : pages == Pages::gzip ? "_gzip"
                                      : "_snappy") +
              ".bin";
  std::ofstream out(file.path, std::ios::binary);
  write_bytes(out, file_header_encode(*header).data(), kFileHeaderSize);
  EventSource source;
  Buffer unit;
  Buffer unwritten;
  const auto write_out = [&] {
    write_bytes(out, unwritten.data(), unwritten.size());
    unwritten.clear();
  };
  const auto flush_unit = [&] {
    unit.resize(unit_size);
    unwritten.insert(unwritten.end(), unit.begin(), unit.end());
    unit.clear();
    if (unwritten.size() >= kWriteSize) write_out();
  };
  for (std::uint64_t done = 0, seed = 0; done < data_bytes; done += chain_size, ++seed) {
    Buffer chain;
    if (payload == Payload::events) {
      file.values += kEventFields * fill_with_events(chain, chain_size, source);
    } else if (payload == Payload::counters) {
      chain = make_counters_block(seed);
      file.values += kCounters;
    } else {
      chain = make_metrics_block(seed);
      file.values += kSamples;
    }
    const Buffer block = is_plain ? std::move(chain) : page_block(chain, pages);
    if (unit.size() + block.size() > unit_size) flush_unit();
    unit.insert(unit.end(), block.begin(), block.end());
  }
  if (!unit.empty()) flush_unit();
  write_out();
  out.flush();
  if (!out) throw std::runtime_error("cannot write " + file.path);
  file.bytes = static_cast<std::uint64_t>(out.tellp());
  return file;
}

}  // namespace qvx::bench
