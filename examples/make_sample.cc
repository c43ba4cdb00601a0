// Writes the sample data files: invented telemetry of a small cluster, the same bytes at every run.
//
//   make_sample examples/data
//
//   events.bin        events of two schemas, with nested types and arrays
//   counters.bin      counters of a node and of its processors
//   gzip_pages.bin    compressed pages of counters and of events
//   snappy_pages.bin  the same pages in the other encoding
//   schemas.bin       events whose schemas change in the middle of the file
//   metrics.bin       metrics of all value types, with labels and a histogram
//   archive.bin.gz    events.bin as a whole gzip file
//   schema/           the schema files that these name
#include <snappy.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "examples/metrics_sample.h"
#include "examples/recording.h"
#include "qvx/data/block.h"
#include "qvx/data/encoded_payload.h"
#include "qvx/data/page_block.h"
#include "qvx/support/layout_table.h"
#include "qvx/support/version.h"

namespace qvx::examples {
namespace {

constexpr std::uint64_t kStart = 1700000000000000;  // 2023-11-14 22:13:20 UTC
constexpr std::uint64_t kSecond = 1000000;
constexpr std::uint64_t kMegabyte = 1000000;
constexpr std::string_view kNode = "node-017.cluster.example";

constexpr std::size_t kHostWidth = 32;
constexpr std::size_t kNameWidth = 16;
constexpr std::size_t kCommandWidth = 32;
constexpr std::uint32_t kCores = 4;

// The engine is the same everywhere, the standard distributions are not. Fractions are of one division, so
// that no compiler has anything to round differently.
class Random {
 public:
  std::uint64_t below(std::uint64_t end) { return engine_() % end; }
  float quarters(std::uint64_t end) { return static_cast<float>(below(4 * end)) / 4; }
  double hundredths(std::uint64_t end) { return static_cast<double>(below(100 * end)) / 100; }

 private:
  std::mt19937_64 engine_{17};
};

struct HostTypes {
  EventType status;
  EventType interfaces;
};

HostTypes add_host_schema(Schemas& schemas) {
  schemas.add_schema("host_monitor", pack_version(1, 2, 0));
  schemas.add_type("core_load", {{"core", "Number of the core", "uint16_t", 0, 1},
                                 {"user", "Time in programs, percent", "float", 0, 1},
                                 {"system", "Time in the kernel, percent", "float", 0, 1}});
  HostTypes types;
  types.status = schemas.add_type("host_status", {{"timestamp", "Time of the sample", "timestamp", 0, 1},
                                                  {"host", "Name of the host", "char", 0, kHostWidth},
                                                  {"swapping", "Swap space is in use", "bool", 0, 1},
                                                  {"memory_free", "Free memory, bytes", "uint64_t", 0, 1},
                                                  {"load", "Load over 1, 5 and 15 minutes", "double", 0, 3},
                                                  {"cores", "Load of each core", "core_load", 0, kCores}});
  schemas.set_index_fields(types.status, {"timestamp", "host"});
  schemas.add_type("interface_traffic", {{"name", "Name of the interface", "char", 0, kNameWidth},
                                         {"received", "Bytes received", "uint64_t", kRunningSumCounting, 1},
                                         {"sent", "Bytes sent", "uint64_t", kRunningSumCounting, 1},
                                         {"errors", "Frames lost", "uint32_t", kRunningSumCounting, 1}});
  types.interfaces =
      schemas.add_type("interface_report", {{"timestamp", "Time of the sample", "timestamp", 0, 1},
                                            {"host", "Name of the host", "char", 0, kHostWidth},
                                            {"link_speed", "Mbit/s, -1 when down", "int32_t", 0, 1},
                                            {"interfaces", "Each interface", "interface_traffic", 0, 2}});
  return types;
}

struct JobTypes {
  EventType started;
  EventType finished;
};

JobTypes add_job_schema(Schemas& schemas) {
  schemas.add_schema("job_scheduler", pack_version(2, 0, 1));
  JobTypes types;
  types.started = schemas.add_type("job_started", {{"timestamp", "Time of the start", "timestamp", 0, 1},
                                                   {"job", "Number of the job", "unsigned int", 0, 1},
                                                   {"user", "Owner of the job", "char", 0, kNameWidth},
                                                   {"command", "What it runs", "char", 0, kCommandWidth},
                                                   {"nodes", "Numbers of its nodes", "uint16_t", 0, 4},
                                                   {"priority", "Higher runs first", "short", 0, 1}});
  schemas.add_type("resource_use", {{"cpu_seconds", "Time on all cores", "double", 0, 1},
                                    {"memory_peak", "Most memory used, bytes", "unsigned long", 0, 1}});
  types.finished = schemas.add_type("job_finished", {{"timestamp", "Time of the end", "timestamp", 0, 1},
                                                     {"job", "Number of the job", "unsigned int", 0, 1},
                                                     {"exit_status", "0 when all went well", "int16_t", 0, 1},
                                                     {"signal", "That ended it, or 0", "unsigned char", 0, 1},
                                                     {"use", "What it used", "resource_use", 0, 1}});
  schemas.set_index_fields(types.started, {"job"});
  schemas.set_index_fields(types.finished, {"job"});
  return types;
}

EventType add_disk_schema(Schemas& schemas) {
  schemas.add_schema("disk_monitor", pack_version(1, 0, 0));
  const EventType type =
      schemas.add_type("disk_latency", {{"timestamp", "Time of the sample", "timestamp", 0, 1},
                                        {"device", "Name of the disk", "char", 0, kNameWidth},
                                        {"mean", "Mean latency, milliseconds", "double", 0, 1},
                                        {"temperature", "Celsius", "int8_t", 0, 1},
                                        {"below_ms", "Requests below 1, 2, 4 ... ms", "uint32_t", 0, 8}});
  schemas.set_index_fields(type, {"device"});
  return type;
}

Packer host_status(Random& random, std::uint64_t time) {
  Packer event;
  event.add(time).add_text(kNode, kHostWidth).add(std::uint8_t{0}).add(random.below(64000) * kMegabyte);
  for (int i = 0; i < 3; ++i)
    event.add(random.hundredths(kCores));
  for (std::uint16_t core = 0; core < kCores; ++core)
    event.add(core).add(random.quarters(80)).add(random.quarters(20));
  return event;
}

Packer interface_report(Random& random, std::uint64_t time) {
  Packer event;
  event.add(time).add_text(kNode, kHostWidth).add(std::int32_t{random.below(4) == 0 ? -1 : 25000});
  for (const std::string_view name : {"eth0", "ib0"})
    event.add_text(name, kNameWidth)
        .add(random.below(900000) * kMegabyte)
        .add(random.below(700000) * kMegabyte)
        .add(static_cast<std::uint32_t>(random.below(20)));
  return event;
}

Packer job_started(Random& random, std::uint64_t time, std::uint32_t job) {
  constexpr std::array<std::string_view, 3> kUsers = {"mweber", "asantos", "li.chen"};
  constexpr std::array<std::string_view, 3> kCommands = {
      "weather --grid 0.25 --hours 48", "train --model 'resnet' -n 4", "/opt/solver/bin/run case=7"};
  Packer event;
  event.add(time)
      .add(job)
      .add_text(kUsers[random.below(kUsers.size())], kNameWidth)
      .add_text(kCommands[random.below(kCommands.size())], kCommandWidth);
  for (int i = 0; i < 4; ++i)
    event.add(static_cast<std::uint16_t>(1 + random.below(64)));
  return event.add(static_cast<std::int16_t>(static_cast<int>(random.below(200)) - 100));
}

Packer job_finished(Random& random, std::uint64_t time, std::uint32_t job) {
  const bool is_killed = random.below(3) == 0;
  return Packer()
      .add(time)
      .add(job)
      .add(static_cast<std::int16_t>(is_killed ? -1 : 0))
      .add(std::uint8_t{is_killed ? std::uint8_t{9} : std::uint8_t{0}})
      .add(random.hundredths(90000))
      .add(random.below(32000) * kMegabyte);
}

Packer disk_latency(Random& random, std::uint64_t time, std::string_view device) {
  Packer event;
  event.add(time)
      .add_text(device, kNameWidth)
      .add(random.hundredths(30))
      .add(static_cast<std::int8_t>(static_cast<int>(random.below(60)) - 10));
  for (int i = 0; i < 8; ++i)
    event.add(static_cast<std::uint32_t>(random.below(5000)));
  return event;
}

// A minute of the host: one block of each of its types.
ByteArray host_chain(Random& random, HostTypes types, std::uint64_t time) {
  std::vector<Packer> statuses;
  for (std::uint64_t second = 0; second < 60; second += 15)
    statuses.push_back(host_status(random, time + second * kSecond));
  ByteArray chain = event_block(types.status, time, statuses);
  const std::array<Packer, 2> reports = {interface_report(random, time),
                                         interface_report(random, time + 30 * kSecond)};
  append(chain, event_block(types.interfaces, time, reports));
  return chain;
}

ByteArray job_chain(Random& random, JobTypes types, std::uint64_t time, std::uint32_t first_job) {
  std::vector<Packer> started;
  std::vector<Packer> finished;
  for (std::uint32_t job = 0; job < 3; ++job) {
    started.push_back(job_started(random, time + job * kSecond, first_job + job));
    finished.push_back(job_finished(random, time + (20 + job) * kSecond, first_job + job));
  }
  ByteArray chain = event_block(types.started, time, started);
  append(chain, event_block(types.finished, time + 20 * kSecond, finished));
  return chain;
}

void write_events(const std::filesystem::path& folder) {
  constexpr std::uint32_t kBlockSize = 1024;
  constexpr std::uint64_t kMinutes = 6;
  Random random;
  Schemas schemas;
  const HostTypes host = add_host_schema(schemas);
  const JobTypes jobs = add_job_schema(schemas);
  schemas.write_files(folder / "schema");
  DataFile file(folder / "events.bin", schemas, kNode, "events", kBlockSize, kStart);
  for (std::uint64_t minute = 0; minute < kMinutes; ++minute) {
    const std::uint64_t time = kStart + minute * 60 * kSecond;
    file.append_unit(host_chain(random, host, time), time + 45 * kSecond);
    file.append_unit(job_chain(random, jobs, time, static_cast<std::uint32_t>(48100 + 3 * minute)),
                     time + 50 * kSecond);
  }
}

void write_counters(const std::filesystem::path& folder) {
  Random random;
  Schemas schemas;
  schemas.add_counters(
      "node", kNodeGranularity, 1,
      {
          {"memory_used", "Memory in use", "bytes", QVX_COUNTER_INT64},
          {"memory_growth", "Change since the last sample", "bytes", QVX_COUNTER_INT64},
          {"context_switches", "Context switches", "switches", QVX_COUNTER_UINT64, kRunningSumCounting},
          {"load_1m", "Load average over one minute", "processes", QVX_COUNTER_FP64},
          {"throttle_flags", "Reasons of throttling, a bit each", "flags", QVX_COUNTER_BIT64},
          {"kernel", "Release of the kernel", "text", QVX_COUNTER_STRING, kAbsoluteCounting, kHostWidth},
      });
  schemas.add_counters(
      "cpu", kCpuGranularity, kCores,
      {
          {"user_time", "Time in programs", "milliseconds", QVX_COUNTER_UINT64, kRunningSumCounting},
          {"system_time", "Time in the kernel", "milliseconds", QVX_COUNTER_UINT64, kRunningSumCounting},
          {"frequency", "Clock frequency", "GHz", QVX_COUNTER_FP64},
      });
  schemas.write_files(folder / "schema");
  DataFile file(folder / "counters.bin", schemas, kNode, "counters", schemas.largest_block_size(), kStart);
  std::uint64_t switches = 910000000;
  std::uint64_t user = 7200000;
  std::uint64_t system = 1800000;
  for (std::uint64_t sample = 0; sample < 12; ++sample) {
    const std::uint64_t time = kStart + sample * 5 * kSecond;
    switches += random.below(40000);
    user += random.below(5000);
    system += random.below(900);
    const Packer values = Packer()
                              .add(static_cast<std::int64_t>(random.below(64000) * kMegabyte))
                              .add(static_cast<std::int64_t>(random.below(2000)) - 1000)
                              .add(switches)
                              .add(random.hundredths(kCores))
                              .add(std::uint64_t{1} << random.below(12))
                              .add_text("6.1.0-13-arm64", kHostWidth)
                              .add(user)
                              .add(system)
                              .add(1 + random.hundredths(2));
    file.append_unit(counters_block(time, values), time);
  }
}

ByteArray gzip(Bytes plain) {
  constexpr int kLevel = 6;
  constexpr int kGzipWindow = 15 + 16;
  constexpr int kMemoryLevel = 8;
  constexpr int kUnknownSystem = 255;
  z_stream stream{};
  if (deflateInit2(&stream, kLevel, Z_DEFLATED, kGzipWindow, kMemoryLevel, Z_DEFAULT_STRATEGY) != Z_OK)
    throw std::runtime_error("cannot start to compress");
  gz_header header{};  // no time, no name
  header.os = kUnknownSystem;
  deflateSetHeader(&stream, &header);
  ByteArray packed(deflateBound(&stream, plain.size()));
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<std::byte*>(plain.data()));
  stream.avail_in = static_cast<uInt>(plain.size());
  stream.next_out = reinterpret_cast<Bytef*>(packed.data());
  stream.avail_out = static_cast<uInt>(packed.size());
  const int result = deflate(&stream, Z_FINISH);
  packed.resize(stream.total_out);
  deflateEnd(&stream);
  if (result != Z_STREAM_END) throw std::runtime_error("cannot compress");
  return packed;
}

ByteArray encode(qvx_encoding encoding, Bytes plain) {
  if (encoding == QVX_ENCODING_GZIP) return gzip(plain);
  const std::string_view text = as_text(plain);
  std::string packed;
  snappy::Compress(text.data(), text.size(), &packed);
  const Bytes bytes = as_bytes(packed);
  return {bytes.begin(), bytes.end()};
}

ByteArray page_block(qvx_encoding encoding, Bytes page, std::uint64_t first, std::uint64_t last,
                     std::string_view source_id, std::string_view source_tag) {
  const ByteArray encoded = encode(encoding, page);
  ByteArray block(kPageBlockFixedSize);
  const Bytes magic = as_bytes("QVXP");
  std::copy(magic.begin(), magic.end(), block.begin());
  const auto store = [&block](std::size_t offset, auto value) { store_le(block.data() + offset, value); };
  for (const std::string_view text : {source_id, source_tag}) {
    block.push_back(static_cast<std::byte>(text.size()));
    append(block, as_bytes(text));
  }
  store(offset_of(kPageBlockLayout, "header_size"), static_cast<std::uint8_t>(block.size() - kMagicSize));
  store(offset_of(kPageBlockLayout, "encoding"), static_cast<std::uint8_t>(encoding));
  store(offset_of(kPageBlockLayout, "encoded_size"), static_cast<std::uint32_t>(encoded.size()));
  store(offset_of(kPageBlockLayout, "first_timestamp"), first);
  store(offset_of(kPageBlockLayout, "last_timestamp"), last);
  append(block, encoded);
  append(block, as_bytes(kPageBlockEndMagic));
  return block;
}

// A page holds the values of every core, which the text table shows; the JSON form has those of the first.
ByteArray core_page(Random& random, std::uint64_t time) {
  Packer values;
  for (std::uint32_t core = 0; core < kCores; ++core)
    values.add(static_cast<std::int64_t>(random.below(1000)))
        .add(static_cast<std::int64_t>(random.below(300)))
        .add(static_cast<std::int64_t>(random.below(90)))
        .add(1 + random.hundredths(2));
  return counters_block(time, values);
}

void write_pages(const std::filesystem::path& path, qvx_encoding encoding) {
  constexpr std::uint32_t kBlockSize = 4096;
  constexpr std::string_view kTag = "pages";
  Random random;
  Schemas schemas;
  const HostTypes host = add_host_schema(schemas);
  const JobTypes jobs = add_job_schema(schemas);
  schemas.add_counters("cores", kCpuGranularity, kCores,
                       {
                           {"user_time", "Time in programs", "milliseconds", QVX_COUNTER_INT64},
                           {"system_time", "Time in the kernel", "milliseconds", QVX_COUNTER_INT64},
                           {"temperature", "Temperature of the core", "Celsius", QVX_COUNTER_INT64},
                           {"frequency", "Clock frequency", "GHz", QVX_COUNTER_FP64},
                       });
  schemas.write_files(path.parent_path() / "schema");
  DataFile file(path, schemas, kNode, kTag, kBlockSize, kStart);
  ByteArray unit;
  std::uint64_t unit_end = kStart;
  const auto add_page = [&](const ByteArray& page, std::uint64_t first, std::uint64_t last) {
    const ByteArray block = page_block(encoding, page, first, last, kNode, kTag);
    if (unit.size() + block.size() > kBlockSize) {
      file.append_unit(unit, unit_end);
      unit.clear();
    }
    append(unit, block);
    unit_end = last;
  };
  for (std::uint64_t minute = 0; minute < 6; ++minute) {
    const std::uint64_t time = kStart + minute * 60 * kSecond;
    add_page(core_page(random, time), time, time);
    ByteArray events = host_chain(random, host, time);
    append(events, job_chain(random, jobs, time, static_cast<std::uint32_t>(51200 + 3 * minute)));
    add_page(events, time, time + 45 * kSecond);
  }
  file.append_unit(unit, unit_end);
}

ByteArray schemas_block(std::initializer_list<qvx_schema_id> ids) {
  ByteArray block(kMinSchemasBlockSize);
  const Bytes magic = as_bytes("QVXS");
  std::copy(magic.begin(), magic.end(), block.begin());
  store_le(block.data() + offset_of(kSchemasBlockLayout, "block_size"),
           static_cast<std::uint16_t>(block.size()));
  store_le(block.data() + offset_of(kSchemasBlockLayout, "num_schemas"),
           static_cast<std::uint8_t>(ids.size()));
  auto to = block.begin() + offset_of(kSchemasBlockLayout, "schema_ids[]");
  for (const qvx_schema_id& id : ids)
    to = std::copy(id.bytes.begin(), id.bytes.end(), to);
  return block;
}

void write_changing_schemas(const std::filesystem::path& folder) {
  constexpr std::uint32_t kBlockSize = 1024;
  Random random;
  Schemas first;
  const JobTypes jobs_at_first = add_job_schema(first);
  Schemas second;
  const EventType disk = add_disk_schema(second);
  const JobTypes jobs = add_job_schema(second);
  first.write_files(folder / "schema");
  second.write_files(folder / "schema");

  DataFile file(folder / "schemas.bin", first, kNode, "schemas", kBlockSize, kStart);
  file.append_unit(job_chain(random, jobs_at_first, kStart, 60000), kStart + 22 * kSecond);
  const std::uint64_t time = kStart + 60 * kSecond;
  ByteArray chain = schemas_block({second.schema_id(0), second.schema_id(1)});
  const std::array<Packer, 2> latencies = {disk_latency(random, time, "nvme0n1"),
                                           disk_latency(random, time, "sda")};
  append(chain, event_block(disk, time, latencies));
  append(chain, job_chain(random, jobs, time, 60003));
  file.append_unit(chain, time + 22 * kSecond);
}

void write_archive(const std::filesystem::path& folder) {
  std::ifstream in(folder / "events.bin", std::ios::binary);
  const std::string plain{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  write_file(folder / "archive.bin.gz", gzip(as_bytes(plain)));
}

void make_sample(const std::filesystem::path& folder) {
  std::filesystem::create_directories(folder);
  write_events(folder);
  write_counters(folder);
  write_pages(folder / "gzip_pages.bin", QVX_ENCODING_GZIP);
  write_pages(folder / "snappy_pages.bin", QVX_ENCODING_SNAPPY);
  write_changing_schemas(folder);
  write_metrics_sample(folder / "metrics.bin", kNode, kStart);
  write_archive(folder);
}

}  // namespace
}  // namespace qvx::examples

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("Usage: make_sample folder\n", stderr);
    return 1;
  }
  try {
    qvx::examples::make_sample(argv[1]);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "make_sample: %s\n", error.what());
    return 1;
  }
  return 0;
}
