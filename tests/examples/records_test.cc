// The programs that read data files through the library.
#include <gtest/gtest.h>

#include <string>

#include "tests/examples/program.h"
#include "tests/support/temp_dir.h"

namespace qvx::test {
namespace {

const std::string kFolder = QVX_SAMPLE_DIR;

TEST(RecordsExample, SumsUpEventsCountersAndMetrics) {
  const ProgramResult result = run_program({QVX_RECORDS, kFolder + "/schema", kFolder + "/events.bin",
                                            kFolder + "/counters.bin", kFolder + "/metrics.bin"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.error, "");
  EXPECT_EQ(result.out, R"(host_status: 24 records
interface_report: 12 records
job_finished: 18 records
job_started: 18 records
cpu.frequency: last 2.480000
cpu.system_time: last 1806637
cpu.user_time: last 7227109
gpu_ecc_errors: last 1
gpu_memory_growth_bytes: last 1048576
gpu_power_watts: last 284.750000
gpu_temperature_celsius: last 66.500000
gpu_throttle_reasons: last 2048
job_cpu_seconds: last 93.750000
job_load: last 2.750000
net_dropped_frames: last 1
net_received_bytes: last 8955000000
net_sent_bytes: last 3748800000
node.context_switches: last 910201933
node.kernel: last "6.1.0-13-arm64"
node.load_1m: last 0.690000
node.memory_growth: last -782
node.memory_used: last 35210000000
node.throttle_flags: last 2
node_energy_joules: last 52023000
)");
}

TEST(RecordsExample, TellsWhatIsWrongAndGoesOn) {
  const TempDir folder;
  const std::string whole = read_file(kFolder + "/events.bin");
  const std::string cut = folder.write_file("cut.bin", whole.substr(0, 200));
  const ProgramResult result = run_program({QVX_RECORDS, kFolder + "/schema", cut, kFolder + "/metrics.bin"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.error, cut + ": byte 200: Failed reading data file header: Success\n");
  EXPECT_NE(result.out.find("gpu_power_watts: last 284.750000\n"), std::string::npos);
}

TEST(RecordsExample, AsksForItsArguments) {
  const ProgramResult result = run_program({QVX_RECORDS, "schema"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.error, "usage: " QVX_RECORDS " <schema folder> <data file>...\n");
}

TEST(JobListExample, PrintsNumbersAndUsers) {
  const ProgramResult result = run_program({QVX_JOB_LIST, kFolder + "/schema", kFolder + "/events.bin"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out.substr(0, 41), "48100 asantos\n48101 li.chen\n48102 mweber\n");
  EXPECT_EQ(lines_of(result.out).size(), 18u);
}

}  // namespace
}  // namespace qvx::test
