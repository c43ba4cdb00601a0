#include "examples/host_probe.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "tests/support/temp_dir.h"

namespace qvx::examples {
namespace {

using test::TempDir;
using States = std::map<std::string, std::string>;

TEST(HostProbe, ReadsNothingAsZeroOnAMachineWithoutProc) {
  const TempDir root;
  const HostProbe probe(root.path());
  const HostReading reading = probe.read();
  EXPECT_EQ(reading.cpu_total, 0u);
  EXPECT_EQ(reading.cpu_busy, 0u);
  EXPECT_EQ(reading.memory_total, 0u);
  EXPECT_EQ(reading.network_received, 0u);
  EXPECT_EQ(reading.disk_read, 0u);
  EXPECT_EQ(reading.load[2], 0.0);
  EXPECT_EQ(probe.interface_states(), States());
}

TEST(HostProbe, CountsIdleAndWaitingTimeAsNotBusy) {
  const TempDir root;
  root.write_file("proc/stat",
                  "cpu  10 20 30 400 50 6 7 8 900 1000\n"
                  "cpu0 1 2 3 4 5 6 7 8 9 10\n"
                  "ctxt 123456789012\n"
                  "procs_running 3\n");
  const HostReading reading = HostProbe(root.path()).read();
  EXPECT_EQ(reading.cpu_total, 531u);
  EXPECT_EQ(reading.cpu_busy, 81u);
  EXPECT_EQ(reading.context_switches, 123456789012u);
  EXPECT_EQ(reading.processes_running, 3u);
}

TEST(HostProbe, ReadsAnOldKernelsShorterLine) {
  const TempDir root;
  root.write_file("proc/stat", "cpu 10 20 30 400\n");
  const HostReading reading = HostProbe(root.path()).read();
  EXPECT_EQ(reading.cpu_total, 460u);
  EXPECT_EQ(reading.cpu_busy, 60u);
}

TEST(HostProbe, ReadsMemoryInBytes) {
  const TempDir root;
  root.write_file("proc/meminfo", "MemTotal: 16 kB\nMemFree: 1 kB\nMemAvailable:  4 kB\n");
  const HostReading reading = HostProbe(root.path()).read();
  EXPECT_EQ(reading.memory_total, 16384u);
  EXPECT_EQ(reading.memory_available, 4096u);
}

TEST(HostProbe, AddsAllInterfacesButTheLoopback) {
  const TempDir root;
  root.write_file("proc/net/dev",
                  "Inter-|   Receive                                                |  Transmit\n"
                  " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets\n"
                  "    lo: 999 1 0 0 0 0 0 0 999 1 0 0 0 0 0 0\n"
                  "  eth0: 100 1 2 3 4 5 6 7 2000 1 0 0 0 0 0 0\n"
                  "  ib0:11 1 2 3 4 5 6 7 22 1 0 0 0 0 0 0\n");
  const HostReading reading = HostProbe(root.path()).read();
  EXPECT_EQ(reading.network_received, 111u);
  EXPECT_EQ(reading.network_sent, 2022u);
}

TEST(HostProbe, AddsWholeDisksOnlyAndEachOnce) {
  const TempDir root;
  for (const char* const device : {"sda", "nvme0n1", "loop0", "dm-0", "md0", "zram0"})
    root.write_file(std::string("sys/block/") + device + "/size", "0");
  root.write_file("proc/diskstats",
                  "   8 0 sda 1 2 10 4 5 6 20 8 9 10 11\n"
                  "   8 1 sda1 1 2 10 4 5 6 20 8 9 10 11\n"
                  " 259 0 nvme0n1 1 2 100 4 5 6 200 8\n"
                  "   7 0 loop0 1 2 1000 4 5 6 2000 8\n"
                  " 253 0 dm-0 1 2 1000 4 5 6 2000 8\n"
                  "   9 0 md0 1 2 1000 4 5 6 2000 8\n"
                  " 252 0 zram0 1 2 1000 4 5 6 2000 8\n"
                  "\n");
  const HostReading reading = HostProbe(root.path()).read();
  EXPECT_EQ(reading.disk_read, 110u * 512);
  EXPECT_EQ(reading.disk_written, 220u * 512);
}

TEST(HostProbe, ReadsTheThreeLoadAverages) {
  const TempDir root;
  root.write_file("proc/loadavg", "0.50 1.25 12.75 2/512 4711\n");
  const HostReading reading = HostProbe(root.path()).read();
  EXPECT_EQ(reading.load, (std::array<double, 3>{0.5, 1.25, 12.75}));
}

TEST(HostProbe, NamesTheStateOfEachInterface) {
  const TempDir root;
  root.write_file("sys/class/net/eth0/operstate", "up\n");
  root.write_file("sys/class/net/ib0/operstate", "down\n");
  root.write_file("sys/class/net/bonding_masters", "\n");
  EXPECT_EQ(HostProbe(root.path()).interface_states(), (States{{"eth0", "up"}, {"ib0", "down"}}));
}

TEST(HostProbe, ReadsThisMachine) {
  const HostReading reading = HostProbe().read();
  EXPECT_GT(reading.cpu_total, 0u);
  EXPECT_GT(reading.memory_total, reading.memory_available);
}

}  // namespace
}  // namespace qvx::examples
