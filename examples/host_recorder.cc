#include "examples/host_recorder.h"

#include <algorithm>
#include <array>
#include <new>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "qvx/support/clock.h"
#include "qvx/support/text.h"
#include "qvx/support/version.h"

namespace qvx::examples {
namespace {

constexpr std::size_t kNameWidth = 64;
constexpr std::size_t kInterfaceWidth = 16;
constexpr std::size_t kStateWidth = 16;
constexpr std::size_t kReasonWidth = 16;

constexpr std::uint32_t kSamplesPerPage = 32;
constexpr std::uint32_t kEventPageSize = 1024;
// How long a record may stay in memory.
constexpr std::chrono::milliseconds kMaxAge{1000};

// Integers come first: in the text table they are as wide as their column, floating-point numbers are not.
// All are of one group, because the table takes the values of each group from the first on.
void add_counters(Schemas& schemas) {
  constexpr std::uint32_t kSum = kRunningSumCounting;
  schemas.add_counters(
      "host", kNodeGranularity, 1,
      {
          {"memory_used", "Memory in use", "bytes", QVX_COUNTER_INT64},
          {"memory_available", "Memory free for new work", "bytes", QVX_COUNTER_INT64},
          {"network_received", "Received by all interfaces", "bytes", QVX_COUNTER_INT64, kSum},
          {"network_sent", "Sent by all interfaces", "bytes", QVX_COUNTER_INT64, kSum},
          {"disk_read", "Read from all disks", "bytes", QVX_COUNTER_INT64, kSum},
          {"disk_written", "Written to all disks", "bytes", QVX_COUNTER_INT64, kSum},
          {"context_switches", "Context switches", "switches", QVX_COUNTER_INT64, kSum},
          {"processes_running", "Processes that run or could", "processes", QVX_COUNTER_INT64},
          {"cpu_busy_percent", "Busy time of all processors", "percent", QVX_COUNTER_FP64},
          {"load_1m", "Load average over one minute", "processes", QVX_COUNTER_FP64},
      });
}

Packer pack(const HostReading& reading, double cpu_busy_percent) {
  return Packer()
      .add(reading.memory_total - std::min(reading.memory_total, reading.memory_available))
      .add(reading.memory_available)
      .add(reading.network_received)
      .add(reading.network_sent)
      .add(reading.disk_read)
      .add(reading.disk_written)
      .add(reading.context_switches)
      .add(reading.processes_running)
      .add(cpu_busy_percent)
      .add(reading.load[0]);
}

ClientIdPtr find_client() {
  ClientIdPtr client(qvx_client_id_create());
  if (client == nullptr) throw std::runtime_error("this host has no name");
  return client;
}

std::string find_source_id(const std::string& given) {
  std::array<char, kSourceIdSize> id{};
  if (!source_id_resolve(id, given.c_str())) throw std::runtime_error("there is no source id");
  return std::string(field_text(id));
}

std::vector<qvx_adapter_info> find_adapters(const std::filesystem::path& root) {
  std::vector<qvx_adapter_info> adapters(kPageAdapters);
  const std::filesystem::path folder = root / "sys/class/infiniband";
  // Most machines have none, which is no fault.
  if (std::error_code error; std::filesystem::is_directory(folder, error))
    discover_adapters(folder.c_str(), adapters);
  return adapters;
}

}  // namespace

HostRecorder::HostRecorder(const RecorderOptions& options)
    : interval_(options.interval),
      client_(find_client()),
      source_(find_source_id(options.source)),
      tag_(options.tag),
      adapters_(find_adapters(options.root)),
      types_(add_types(schemas_, options.folder / "schema")),
      writer_(make_writer(options.folder)),
      encoding_(options.encoding),
      counter_pages_(*writer_, counters_form(), encoding_),
      event_pages_(*writer_, events_form(), encoding_) {}

DataWriterPtr HostRecorder::make_writer(const std::filesystem::path& folder) {
  DataWriterPtr writer(data_writer_create(*client_));
  if (writer == nullptr) throw std::bad_alloc();
  writer->root = folder;
  // Compressed pages do not tell the writer what they hold.
  writer->counters_schema_id = schemas_.counters_schema_id();
  writer->event_schema_ids = schemas_.event_schema_ids();
  return writer;
}

qvx_source HostRecorder::source_of(std::string_view kind) const {
  return make_source(source_, tag_.empty() ? std::string(kind) : tag_ + "_" + std::string(kind));
}

// Each sample is a data block, and a whole page when that is compressed, since no other counters block in it
// would be read.
PageForm HostRecorder::counters_form() {
  PageForm form;
  form.source = source_of("counters");
  form.adapters = adapters_;
  form.counters_schema_id = schemas_.counters_schema_id();
  form.block_size = static_cast<std::uint32_t>(counters_block(0, pack({}, 0)).size());
  form.num_blocks = encoding_ ? 1 : kSamplesPerPage;
  return form;
}

PageForm HostRecorder::events_form() {
  PageForm form;
  form.source = source_of("events");
  form.adapters = adapters_;
  form.counters_schema_id = schemas_.counters_schema_id();
  form.block_size = kEventPageSize;
  form.lead = schemas_block(schemas_.event_schema_ids());
  return form;
}

HostRecorder::Types HostRecorder::add_types(Schemas& schemas, const std::filesystem::path& folder) {
  add_counters(schemas);
  schemas.add_schema("host_sampler", pack_version(1, 0, 0));
  Types types;
  types.started =
      schemas.add_type("collector_started", {{"timestamp", "Time of the start", "timestamp", 0, 1},
                                             {"host", "Name of the machine", "char", 0, kNameWidth},
                                             {"processors", "Processors of the machine", "uint16_t", 0, 1},
                                             {"interval_ms", "Time between two samples", "uint32_t", 0, 1},
                                             {"load_mark", "The load to watch for", "double", 0, 1}});
  types.stopped = schemas.add_type("collector_stopped", {{"timestamp", "Time of the end", "timestamp", 0, 1},
                                                         {"reason", "Why it ended", "char", 0, kReasonWidth},
                                                         {"samples", "Samples recorded", "uint64_t", 0, 1},
                                                         {"events", "Events recorded", "uint64_t", 0, 1}});
  types.interface_changed =
      schemas.add_type("interface_changed", {{"timestamp", "Time it was seen", "timestamp", 0, 1},
                                             {"interface", "Its name", "char", 0, kInterfaceWidth},
                                             {"before", "State until now", "char", 0, kStateWidth},
                                             {"state", "State from now on", "char", 0, kStateWidth}});
  schemas.add_type("load", {{"one_minute", "Average over 1 minute", "double", 0, 1},
                            {"five_minutes", "Average over 5 minutes", "double", 0, 1},
                            {"fifteen_minutes", "Average over 15 minutes", "double", 0, 1}});
  types.load_crossed = schemas.add_type("load_crossed", {{"timestamp", "Time it was seen", "timestamp", 0, 1},
                                                         {"above", "1 above the mark, 0 below", "bool", 0, 1},
                                                         {"mark", "The load to watch for", "double", 0, 1},
                                                         {"load", "Load averages", "load", 0, 1}});
  schemas.write_files(folder);
  return types;
}

void HostRecorder::started(const CollectorStart& start) {
  const std::uint64_t time = next_timestamp();
  write_event(types_.started, time,
              Packer()
                  .add(time)
                  .add_text(field_text(client_->host_name), kNameWidth)
                  .add(static_cast<std::uint16_t>(start.processors))
                  .add(static_cast<std::uint32_t>(interval_.count()))
                  .add(start.load_mark));
}

// The event counts itself.
void HostRecorder::stopped(std::string_view reason) {
  const std::uint64_t time = next_timestamp();
  write_event(types_.stopped, time,
              Packer().add(time).add_text(reason, kReasonWidth).add(samples_).add(events_ + 1));
  counter_pages_.save();
  event_pages_.save();
}

void HostRecorder::interface_changed(std::string_view name, std::string_view before, std::string_view state) {
  const std::uint64_t time = next_timestamp();
  write_event(types_.interface_changed, time,
              Packer()
                  .add(time)
                  .add_text(name, kInterfaceWidth)
                  .add_text(before, kStateWidth)
                  .add_text(state, kStateWidth));
}

void HostRecorder::load_crossed(bool is_above, double mark, const std::array<double, 3>& load) {
  const std::uint64_t time = next_timestamp();
  Packer event;
  event.add(time).add(static_cast<std::uint8_t>(is_above)).add(mark);
  for (const double average : load)
    event.add(average);
  write_event(types_.load_crossed, time, event);
}

void HostRecorder::sample(const HostReading& reading, double cpu_busy_percent) {
  const std::uint64_t time = next_timestamp();
  counter_pages_.append(counters_block(time, pack(reading, cpu_busy_percent)), time);
  ++samples_;
  // The next sample is the next chance.
  const auto wait = std::chrono::duration_cast<std::chrono::microseconds>(kMaxAge - interval_).count();
  const std::uint64_t limit = wait > 0 ? time - static_cast<std::uint64_t>(wait) : time;
  counter_pages_.save_if_older(limit);
  event_pages_.save_if_older(limit);
}

std::uint64_t HostRecorder::next_timestamp() {
  last_timestamp_ = std::max(last_timestamp_ + 1, now_microseconds());
  return last_timestamp_;
}

void HostRecorder::write_event(EventType type, std::uint64_t time, const Packer& event) {
  event_pages_.append(event_block(type, time, {&event, 1}), time);
  ++events_;
}

}  // namespace qvx::examples
