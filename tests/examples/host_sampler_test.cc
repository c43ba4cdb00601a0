// Runs the sampler on this machine and reads back what it recorded.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "qvx/support/bytes.h"
#include "qvx/support/json_parse.h"
#include "tests/examples/program.h"
#include "tests/support/temp_dir.h"

namespace qvx::test {
namespace {

class HostSampler : public testing::Test {
 protected:
  std::vector<std::string> command(std::vector<std::string> options) const {
    options.insert(options.begin(), {QVX_HOST_SAMPLER, "--output", folder_.path().string()});
    return options;
  }

  // Each line that the reader makes of the file, as a document.
  std::vector<json::Object> records() const {
    const ProgramResult result = run_program({QVX_READ, "-f", "ndjson", folder_.file("host.bin")});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.error, "");
    std::vector<json::Object> found;
    for (const std::string& line : lines_of(result.out)) {
      const std::optional<json::Value> value = json::parse(line);
      if (value && value->as_object() != nullptr)
        found.push_back(*value->as_object());
      else
        ADD_FAILURE() << "not a JSON object: " << line;
    }
    return found;
  }

  void expect_header_matches_content(double last_timestamp) const {
    const std::string content = read_file(folder_.file("host.bin"));
    EXPECT_EQ(load_le<std::uint64_t>(content.data() + 8), content.size());
    EXPECT_EQ(static_cast<double>(load_le<std::uint64_t>(content.data() + 104)), last_timestamp);
  }

  TempDir folder_;
};

double number_of(const json::Object& record, const char* name) {
  return record.number_at(name).value_or(-1);
}

std::string text_of(const json::Object& record, const char* name) {
  const std::string* const text = record.string_at(name);
  return text != nullptr ? *text : "";
}

// The only counter set of a counters record; null for an event.
const json::Object* counters_of(const json::Object& record) {
  const json::Array* const groups = record.array_at("groups");
  if (groups == nullptr) return nullptr;
  const json::Array* const sets = groups->at(0).as_object()->array_at("counter_sets");
  return sets->at(0).as_object();
}

TEST_F(HostSampler, RecordsASecondThatTheReaderDecodes) {
  const ProgramResult result =
      run_program(command({"--interval", "100", "--seconds", "1", "--load-mark", "1000000"}));
  EXPECT_EQ(result.status, 0) << result.error;
  EXPECT_EQ(result.error, "");

  const std::vector<json::Object> found = records();
  ASSERT_GE(found.size(), 3u);
  EXPECT_EQ(number_of(found.front(), "interval_ms"), 100);
  EXPECT_EQ(number_of(found.front(), "load_mark"), 1000000);
  EXPECT_EQ(text_of(found.back(), "reason"), "finished");

  double last = 0;
  double samples = 0;
  for (const json::Object& record : found) {
    EXPECT_GT(number_of(record, "timestamp"), last);
    last = number_of(record, "timestamp");
    const json::Object* const counters = counters_of(record);
    if (counters == nullptr) continue;
    ++samples;
    EXPECT_EQ(counters->size(), 10u);
    EXPECT_GT(number_of(*counters, "memory_used"), 0);
    EXPECT_GE(number_of(*counters, "cpu_busy_percent"), 0);
    EXPECT_LE(number_of(*counters, "cpu_busy_percent"), 100);
  }
  EXPECT_GE(samples, 1);
  EXPECT_LE(samples, 10);
  EXPECT_EQ(number_of(found.back(), "samples"), samples);
  EXPECT_EQ(number_of(found.back(), "events"), static_cast<double>(found.size()) - samples);
  expect_header_matches_content(last);
}

TEST_F(HostSampler, RecordsALoadAboveTheMark) {
  EXPECT_EQ(run_program(command({"--interval", "50", "--seconds", "1", "--load-mark", "-1"})).status, 0);
  const std::vector<json::Object> found = records();
  ASSERT_GE(found.size(), 2u);
  EXPECT_EQ(number_of(found[1], "above"), 1);
  EXPECT_EQ(number_of(found[1], "mark"), -1);
  const json::Object* const load = found[1].object_at("load");
  ASSERT_NE(load, nullptr);
  EXPECT_GE(number_of(*load, "fifteen_minutes"), 0);
}

// Waits, a minute at most, until the file holds more than `size` bytes.
void wait_for_size(const std::string& path, std::uintmax_t size) {
  const auto give_up = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  std::error_code error;
  while (std::chrono::steady_clock::now() < give_up) {
    const std::uintmax_t found = std::filesystem::file_size(path, error);
    if (!error && found > size) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

TEST_F(HostSampler, EndsCleanlyOnASignal) {
  for (const int signal : {SIGINT, SIGTERM}) {
    Program sampler(command({"--interval", "10"}));
    const std::string path = folder_.file("host.bin");
    wait_for_size(path, 1000);
    sampler.send(signal);
    EXPECT_EQ(sampler.wait().status, 0);
    const std::vector<json::Object> found = records();
    ASSERT_GE(found.size(), 2u);
    EXPECT_EQ(text_of(found.back(), "reason"), "signal");
    expect_header_matches_content(number_of(found.back(), "timestamp"));
    std::filesystem::remove(path);
  }
}

TEST_F(HostSampler, RecordsInterfacesThatComeChangeAndGo) {
  const TempDir root;
  root.write_file("sys/class/net/eth0/operstate", "up\n");
  root.write_file("sys/class/net/eth1/operstate", "up\n");
  Program sampler(command({"--interval", "5", "--root", root.path().string()}));
  const std::string path = folder_.file("host.bin");
  wait_for_size(path, 1000);
  const std::string made = root.write_file("down", "down\n");
  std::filesystem::rename(made, root.file("sys/class/net/eth0/operstate"));
  wait_for_size(path, std::filesystem::file_size(path) + 1000);
  std::filesystem::remove_all(root.file("sys/class/net/eth1"));
  wait_for_size(path, std::filesystem::file_size(path) + 1000);
  root.write_file("new/operstate", "dormant\n");
  std::filesystem::rename(root.file("new"), root.file("sys/class/net/ib0"));
  wait_for_size(path, std::filesystem::file_size(path) + 1000);
  sampler.send(SIGTERM);
  EXPECT_EQ(sampler.wait().status, 0);

  std::vector<std::string> changes;
  for (const json::Object& record : records()) {
    const std::string name = text_of(record, "interface");
    if (!name.empty())
      changes.push_back(name + " " + text_of(record, "before") + " " + text_of(record, "state"));
  }
  EXPECT_EQ(changes, (std::vector<std::string>{"eth0 up down", "eth1 up absent", "ib0 absent dormant"}));
}

TEST_F(HostSampler, RunsOnAMachineThatTellsNothing) {
  const TempDir root;
  EXPECT_EQ(
      run_program(command({"--interval", "100", "--seconds", "1", "--root", root.path().string()})).status,
      0);
  const std::vector<json::Object> found = records();
  ASSERT_GE(found.size(), 3u);
  const json::Object* const counters = counters_of(found[1]);
  ASSERT_NE(counters, nullptr);
  for (const json::Member& counter : counters->members())
    EXPECT_EQ(counter.value.as_number(), 0) << counter.name;
}

TEST_F(HostSampler, RefusesWrongOptions) {
  using Words = std::vector<std::string>;
  for (const Words& options :
       {Words{"--interval", "0"}, Words{"--interval", "1x"}, Words{"--interval", "-5"},
        Words{"--seconds", ""}, Words{"--load-mark", "inf"}, Words{"--none"}, Words{"extra"}}) {
    const ProgramResult result = run_program(command(options));
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.error.find("Usage: host_sampler [options]"), std::string::npos);
  }
}

TEST_F(HostSampler, ReportsAnOutputFolderThatCannotBeMade) {
  const std::string file = folder_.write_file("file", "");
  const ProgramResult result = run_program({QVX_HOST_SAMPLER, "--output", file, "--seconds", "1"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.error.substr(0, 14), "host_sampler: ");
}

}  // namespace
}  // namespace qvx::test
