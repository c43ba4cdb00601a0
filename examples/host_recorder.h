// How readings of a machine and what happens to it are stored: a data file with a block of all counters for
// each sample and a block for each event.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "examples/host_probe.h"
#include "examples/recording.h"

namespace qvx::examples {

struct CollectorStart {
  std::string host;
  unsigned processors = 0;
  std::uint32_t interval_ms = 0;
  double load_mark = 0;
};

// Writes host.bin and the schema folder beside it. Every record gets the present time, and each a later one
// than the record before, whatever the clock does. Faults are exceptions.
class HostRecorder {
 public:
  HostRecorder(const std::filesystem::path& folder, const std::string& host);

  const std::filesystem::path& path() const { return path_; }
  std::uint64_t samples() const { return samples_; }
  std::uint64_t events() const { return events_; }

  void started(const CollectorStart& start);
  void stopped(std::string_view reason);
  void interface_changed(std::string_view name, std::string_view before, std::string_view state);
  void load_crossed(bool is_above, double mark, const std::array<double, 3>& load);
  void sample(const HostReading& reading, double cpu_busy_percent);

 private:
  struct Types {
    EventType started;
    EventType stopped;
    EventType interface_changed;
    EventType load_crossed;
  };

  // Describes all that is recorded and writes the schema files into the folder.
  static Types add_types(Schemas& schemas, const std::filesystem::path& folder);

  std::uint64_t next_timestamp();
  void write_event(EventType type, std::uint64_t time, const Packer& event);

  std::uint64_t first_timestamp_;
  std::uint64_t last_timestamp_;
  std::uint64_t samples_ = 0;
  std::uint64_t events_ = 0;
  std::filesystem::path path_;
  Schemas schemas_;
  Types types_;
  DataFile file_;
};

}  // namespace qvx::examples
