// The program that keeps metrics in memory, run as a program.
#include <gtest/gtest.h>
#include <zlib.h>

#include <string>

#include "tests/examples/program.h"
#include "tests/support/temp_dir.h"

namespace qvx::test {
namespace {

const std::string kSample = QVX_SAMPLE_DIR "/metrics.bin";

constexpr const char* kSampleLines =
    R"(gpu_ecc_errors{cluster=alpha, rack=r17, host=node-017.cluster.example, gpu=0, model=gpu-accelerator}: 6 points, last 1
gpu_memory_growth_bytes{cluster=alpha, rack=r17, host=node-017.cluster.example, gpu=0, model=gpu-accelerator}: 6 points, last 1048576
gpu_power_watts{cluster=alpha, rack=r17, host=node-017.cluster.example, gpu=0, model=gpu-accelerator}: 6 points, last 284.75
gpu_temperature_celsius{cluster=alpha, rack=r17, host=node-017.cluster.example, gpu=0, model=gpu-accelerator}: 6 points, last 66.5
gpu_throttle_reasons{cluster=alpha, rack=r17, host=node-017.cluster.example, gpu=0, model=gpu-accelerator}: 6 points, last 0x800
job_cpu_seconds{cluster=alpha, rack=r17, host=node-017.cluster.example, job=train resnet}: 2 points, last 93.75
job_cpu_seconds{cluster=alpha, rack=r17, host=node-017.cluster.example, job=weather "nightly"}: 4 points, last 56.25
job_load{cluster=alpha, rack=r17, host=node-017.cluster.example, job=train resnet}: 2 points, last 2.75
job_load{cluster=alpha, rack=r17, host=node-017.cluster.example, job=weather "nightly"}: 4 points, last 2.25
net_dropped_frames{cluster=alpha, rack=r17, host=node-017.cluster.example, interface=eth0}: 6 points, last 1
net_dropped_frames{cluster=alpha, rack=r17, host=node-017.cluster.example, interface=ib0}: 6 points, last 1
net_received_bytes{cluster=alpha, rack=r17, host=node-017.cluster.example, interface=eth0}: 6 points, last 746250000
net_received_bytes{cluster=alpha, rack=r17, host=node-017.cluster.example, interface=ib0}: 6 points, last 8955000000
net_sent_bytes{cluster=alpha, rack=r17, host=node-017.cluster.example, interface=eth0}: 6 points, last 312400000
net_sent_bytes{cluster=alpha, rack=r17, host=node-017.cluster.example, interface=ib0}: 6 points, last 3748800000
node_energy_joules{cluster=alpha, rack=r17, host=node-017.cluster.example}: 6 points, last 52023000
)";

ProgramResult watch(const std::string& path) {
  return run_program({QVX_METRICS_WATCH, path});
}

TEST(MetricsWatch, PrintsPointsAndLastValueOfEachMetricAndLabelSet) {
  const ProgramResult result = watch(kSample);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.error, "");
  EXPECT_EQ(result.out, kSampleLines);
}

TEST(MetricsWatch, ReadsAFileThatIsCompressedAsAWhole) {
  const TempDir folder;
  const std::string path = folder.file("metrics.bin.gz");
  const std::string plain = read_file(kSample);
  const gzFile file = gzopen(path.c_str(), "wb");
  ASSERT_EQ(gzwrite(file, plain.data(), static_cast<unsigned>(plain.size())), static_cast<int>(plain.size()));
  ASSERT_EQ(gzclose(file), Z_OK);
  EXPECT_EQ(watch(path).out, kSampleLines);
}

TEST(MetricsWatch, PrintsNothingOfAFileWithoutMetrics) {
  const ProgramResult result = watch(QVX_SAMPLE_DIR "/snappy_pages.bin");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out + result.error, "");
}

TEST(MetricsWatch, ASizeOfZeroCostsItsBlockOnly) {
  const TempDir folder;
  std::string content = read_file(kSample);
  content.replace(256 + 4, 4, 4, '\0');
  folder.write_file("metrics.bin", content);
  const ProgramResult result = watch(folder.file("metrics.bin"));
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.error.find("metrics.bin: a metrics block has an impossible size\n"), std::string::npos);
  const std::vector<std::string> lines = lines_of(result.out);
  ASSERT_EQ(lines.size(), 16u);
  EXPECT_EQ(lines[13],
            "net_sent_bytes{cluster=alpha, rack=r17, host=node-017.cluster.example, interface=eth0}: "
            "5 points, last 312400000");
  EXPECT_EQ(lines[15],
            "node_energy_joules{cluster=alpha, rack=r17, host=node-017.cluster.example}: "
            "6 points, last 52023000");
}

TEST(MetricsWatch, EveryCutOfABlockEndsTheProgramByItself) {
  const TempDir folder;
  const std::string content = read_file(kSample);
  for (std::size_t size = 256; size < 256 + 400; size += 9) {
    folder.write_file("metrics.bin", content.substr(0, size));
    EXPECT_GE(watch(folder.file("metrics.bin")).status, 0) << size;
  }
}

TEST(MetricsWatch, ReportsWhatIsNoDataFile) {
  const TempDir folder;
  folder.write_file("short", "QVXF");
  EXPECT_EQ(watch(folder.file("short")).status, 1);
  const ProgramResult result = watch(folder.file("none"));
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.error, "metrics_watch: " + folder.file("none") + ": cannot be opened\n");
}

}  // namespace
}  // namespace qvx::test
