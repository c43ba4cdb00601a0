#include "examples/host_probe.h"

#include <algorithm>
#include <fstream>
#include <locale>
#include <sstream>
#include <string_view>
#include <system_error>
#include <utility>

namespace qvx::examples {
namespace {

// Calls the function with a stream on each line of a text file; not at all when there is no such file.
template <typename Function>
void for_each_line(const std::filesystem::path& path, Function function) {
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream words(line);
    words.imbue(std::locale::classic());
    function(words);
  }
}

// The next number of the line, 0 when there is none.
std::uint64_t next_number(std::istream& words) {
  std::uint64_t number = 0;
  words >> number;
  return words ? number : 0;
}

void skip_words(std::istream& words, int count) {
  std::string word;
  for (int i = 0; i < count; ++i)
    words >> word;
}

// Block devices that hold no data of their own or stand for others, which would then count twice.
bool is_virtual_disk(std::string_view device) {
  constexpr std::array<std::string_view, 5> kPrefixes = {"loop", "ram", "zram", "dm-", "md"};
  return std::any_of(kPrefixes.begin(), kPrefixes.end(),
                     [device](std::string_view prefix) { return device.starts_with(prefix); });
}

}  // namespace

HostProbe::HostProbe(std::filesystem::path root) : root_(std::move(root)) {}

HostReading HostProbe::read() const {
  HostReading reading;
  read_stat(reading);
  read_memory(reading);
  read_network(reading);
  read_disks(reading);
  read_load(reading);
  return reading;
}

void HostProbe::read_stat(HostReading& reading) const {
  for_each_line(root_ / "proc/stat", [&reading](std::istream& words) {
    std::string key;
    words >> key;
    if (key == "cpu") {
      // user nice system idle iowait irq softirq steal; guest time is part of user time already.
      constexpr int kColumns = 8;
      constexpr int kIdle = 3;
      constexpr int kIoWait = 4;
      for (int column = 0; column < kColumns; ++column) {
        const std::uint64_t ticks = next_number(words);
        reading.cpu_total += ticks;
        if (column != kIdle && column != kIoWait) reading.cpu_busy += ticks;
      }
    } else if (key == "ctxt") {
      reading.context_switches = next_number(words);
    } else if (key == "procs_running") {
      reading.processes_running = next_number(words);
    }
  });
}

void HostProbe::read_memory(HostReading& reading) const {
  for_each_line(root_ / "proc/meminfo", [&reading](std::istream& words) {
    constexpr std::uint64_t kUnit = 1024;
    std::string key;
    words >> key;
    if (key == "MemTotal:") reading.memory_total = kUnit * next_number(words);
    if (key == "MemAvailable:") reading.memory_available = kUnit * next_number(words);
  });
}

void HostProbe::read_network(HostReading& reading) const {
  for_each_line(root_ / "proc/net/dev", [&reading](std::istream& words) {
    // The name's colon may stand right before the first number.
    std::string name;
    std::getline(words >> std::ws, name, ':');
    if (words.eof() || name == "lo") return;
    constexpr int kBetweenReceivedAndSent = 7;
    reading.network_received += next_number(words);
    skip_words(words, kBetweenReceivedAndSent);
    reading.network_sent += next_number(words);
  });
}

void HostProbe::read_disks(HostReading& reading) const {
  for_each_line(root_ / "proc/diskstats", [this, &reading](std::istream& words) {
    constexpr std::uint64_t kSectorSize = 512;
    constexpr int kDeviceNumbers = 2;
    constexpr int kBeforeSectorsRead = 2;
    constexpr int kBetweenReadAndWritten = 3;
    std::string device;
    skip_words(words, kDeviceNumbers);
    words >> device;
    if (!is_whole_disk(device)) return;
    skip_words(words, kBeforeSectorsRead);
    reading.disk_read += kSectorSize * next_number(words);
    skip_words(words, kBetweenReadAndWritten);
    reading.disk_written += kSectorSize * next_number(words);
  });
}

void HostProbe::read_load(HostReading& reading) const {
  for_each_line(root_ / "proc/loadavg", [&reading](std::istream& words) {
    for (double& average : reading.load)
      if (!(words >> average)) average = 0;
  });
}

// Partitions have no folder of their own under /sys/block.
bool HostProbe::is_whole_disk(const std::string& device) const {
  std::error_code ignored;
  return !device.empty() && !is_virtual_disk(device) &&
         std::filesystem::exists(root_ / "sys/block" / device, ignored);
}

std::map<std::string, std::string> HostProbe::interface_states() const {
  std::map<std::string, std::string> states;
  std::error_code error;
  std::filesystem::directory_iterator entry(root_ / "sys/class/net", error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    std::string state;
    // Fails for entries that are no interfaces and for one that goes away just now.
    if (std::ifstream(entry->path() / "operstate") >> state) states[entry->path().filename()] = state;
  }
  return states;
}

}  // namespace qvx::examples
