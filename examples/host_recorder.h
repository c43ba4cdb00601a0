// How readings of a machine and what happens to it are stored: a block of all counters for each sample and a
// block for each event, in pages of two tags.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "examples/host_probe.h"
#include "examples/page_stream.h"
#include "examples/recording.h"
#include "qvx/data/encoded_payload.h"
#include "qvx/data/source.h"
#include "qvx/data/write/data_writer.h"
#include "qvx/host/adapters.h"
#include "qvx/host/client_id.h"

namespace qvx::examples {

struct RecorderOptions {
  std::filesystem::path folder = ".";
  std::filesystem::path root = "/";          // where the sys of the machine lies
  std::string source;                        // its id; empty: QVX_SOURCE_ID or the name of the host
  std::string tag;                           // put before the tags "counters" and "events"
  std::optional<qvx_encoding> encoding;      // of the pages; without one they are saved as they are
  std::chrono::milliseconds interval{1000};  // between two samples
};

// A longer tag leaves no room for the two behind it.
inline constexpr std::size_t kMaxTagPrefix = 6;

struct CollectorStart {
  unsigned processors = 0;
  double load_mark = 0;
};

// Writes data files by the writer's path template, with the node information of the host, and the schema
// folder beside them. Every record gets the present time, and each a later one than the record before,
// whatever the clock does. It is saved by the first sample that is taken a second later. Faults are
// exceptions.
class HostRecorder {
 public:
  explicit HostRecorder(const RecorderOptions& options);

  const std::string& source() const { return source_; }
  std::uint64_t samples() const { return samples_; }
  std::uint64_t events() const { return events_; }

  void started(const CollectorStart& start);
  // Saves everything.
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

  PageForm counters_form();
  PageForm events_form();
  qvx_source source_of(std::string_view kind) const;
  DataWriterPtr make_writer(const std::filesystem::path& folder);

  std::uint64_t next_timestamp();
  void write_event(EventType type, std::uint64_t time, const Packer& event);

  std::uint64_t last_timestamp_ = 0;
  std::uint64_t samples_ = 0;
  std::uint64_t events_ = 0;
  std::chrono::milliseconds interval_;
  ClientIdPtr client_;
  std::string source_;
  std::string tag_;
  std::vector<qvx_adapter_info> adapters_;
  Schemas schemas_;
  Types types_;
  DataWriterPtr writer_;
  std::optional<qvx_encoding> encoding_;
  PageStream counter_pages_;
  PageStream event_pages_;
};

}  // namespace qvx::examples
