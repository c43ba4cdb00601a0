#include "examples/host_recorder.h"

#include <algorithm>

#include "qvx/support/clock.h"
#include "qvx/support/version.h"

namespace qvx::examples {
namespace {

constexpr std::size_t kNameWidth = 64;
constexpr std::size_t kInterfaceWidth = 16;
constexpr std::size_t kStateWidth = 16;
constexpr std::size_t kReasonWidth = 16;

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

}  // namespace

HostRecorder::HostRecorder(const std::filesystem::path& folder, const std::string& host)
    : first_timestamp_(now_microseconds()),
      last_timestamp_(first_timestamp_ - 1),
      path_(folder / "host.bin"),
      types_(add_types(schemas_, folder / "schema")),
      // A data block has room for one counters block, since no other in it would be read.
      file_(path_, schemas_, host, "host", schemas_.largest_block_size(), first_timestamp_) {}

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
                                                         {"samples", "Samples in the file", "uint64_t", 0, 1},
                                                         {"events", "Events in the file", "uint64_t", 0, 1}});
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
                  .add_text(start.host, kNameWidth)
                  .add(static_cast<std::uint16_t>(start.processors))
                  .add(start.interval_ms)
                  .add(start.load_mark));
}

// The event counts itself.
void HostRecorder::stopped(std::string_view reason) {
  const std::uint64_t time = next_timestamp();
  write_event(types_.stopped, time,
              Packer().add(time).add_text(reason, kReasonWidth).add(samples_).add(events_ + 1));
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
  const Packer values =
      Packer()
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
  file_.append_unit(counters_block(time, values), time);
  ++samples_;
}

std::uint64_t HostRecorder::next_timestamp() {
  last_timestamp_ = std::max(last_timestamp_ + 1, now_microseconds());
  return last_timestamp_;
}

void HostRecorder::write_event(EventType type, std::uint64_t time, const Packer& event) {
  file_.append_unit(event_block(type, time, {&event, 1}), time);
  ++events_;
}

}  // namespace qvx::examples
