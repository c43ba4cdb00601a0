// What a Linux machine tells about itself under /proc and /sys.
//
// Whatever a machine does not have, such as disks or a network, reads as zero or as nothing.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>

namespace qvx::examples {

struct HostReading {
  // Ticks of all processors since the start of the machine.
  std::uint64_t cpu_busy = 0;
  std::uint64_t cpu_total = 0;
  std::uint64_t context_switches = 0;
  std::uint64_t processes_running = 0;
  // Bytes.
  std::uint64_t memory_total = 0;
  std::uint64_t memory_available = 0;
  // Bytes since the start of the machine, of all interfaces but the loopback and of all whole disks.
  std::uint64_t network_received = 0;
  std::uint64_t network_sent = 0;
  std::uint64_t disk_read = 0;
  std::uint64_t disk_written = 0;
  // Averages over 1, 5 and 15 minutes.
  std::array<double, 3> load{};
};

class HostProbe {
 public:
  // The folder under which proc and sys lie.
  explicit HostProbe(std::filesystem::path root = "/");

  HostReading read() const;

  // The operational state of each network interface by its name: "up", "down", "unknown" and so on.
  std::map<std::string, std::string> interface_states() const;

 private:
  void read_stat(HostReading& reading) const;
  void read_memory(HostReading& reading) const;
  void read_network(HostReading& reading) const;
  void read_disks(HostReading& reading) const;
  void read_load(HostReading& reading) const;
  bool is_whole_disk(const std::string& device) const;

  std::filesystem::path root_;
};

}  // namespace qvx::examples
