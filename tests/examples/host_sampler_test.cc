// Runs the sampler on this machine and reads back what it recorded.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "qvx/support/bytes.h"
#include "qvx/support/json_parse.h"
#include "tests/examples/program.h"
#include "tests/support/temp_dir.h"

namespace qvx::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kCounters = "counters";
constexpr const char* kEvents = "events";

class HostSampler : public testing::Test {
 protected:
  std::vector<std::string> command(std::vector<std::string> options) const {
    options.insert(options.begin(), {QVX_HOST_SAMPLER, "--output", folder_.path().string()});
    return options;
  }

  // The files below a folder whose names begin and end with these.
  static std::vector<std::string> files_below(const fs::path& folder, std::string_view begin,
                                              std::string_view end = ".bin") {
    std::vector<std::string> found;
    if (!fs::exists(folder)) return found;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder)) {
      const std::string name = entry.path().filename().string();
      if (entry.is_regular_file() && name.starts_with(begin) && name.ends_with(end))
        found.push_back(entry.path().string());
    }
    std::sort(found.begin(), found.end());
    return found;
  }
  std::vector<std::string> files(std::string_view begin, std::string_view end = ".bin") const {
    return files_below(folder_.path(), begin, end);
  }

  // What the reader makes of all data files below a folder with the tag.
  std::string lines(const fs::path& folder, std::string_view tag) const {
    std::vector<std::string> words = {QVX_READ, "-s", folder_.file("schema"), "-f", "ndjson"};
    for (const std::string& file : files_below(folder, tag))
      words.push_back(file);
    const ProgramResult result = run_program(words);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.error, "");
    return result.out;
  }

  // The same, each line as a document.
  std::vector<json::Object> records(std::string_view tag) const {
    std::vector<json::Object> found;
    for (const std::string& line : lines_of(lines(folder_.path(), tag))) {
      const std::optional<json::Value> value = json::parse(line);
      if (value && value->as_object() != nullptr)
        found.push_back(*value->as_object());
      else
        ADD_FAILURE() << "not a JSON object: " << line;
    }
    return found;
  }

  // Of the only file with this tag.
  void expect_header_matches_content(std::string_view tag, double last_timestamp) const {
    const std::vector<std::string> found = files(tag);
    ASSERT_EQ(found.size(), 1u);
    const std::string content = read_file(found[0]);
    EXPECT_EQ(load_le<std::uint64_t>(content.data() + 8), content.size());
    EXPECT_EQ(static_cast<double>(load_le<std::uint64_t>(content.data() + 104)), last_timestamp);
  }

  // Waits, a minute at most, until the counters file holds more than `size` bytes.
  void wait_for_counters(std::uintmax_t size) const {
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (std::chrono::steady_clock::now() < give_up) {
      if (counters_size() > size) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
  std::uintmax_t counters_size() const {
    const std::vector<std::string> found = files(kCounters);
    return found.empty() ? 0 : fs::file_size(found[0]);
  }

  void expect_records_of_a_second() const;
  void expect_rewritten_files_hold_the_same() const;

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

void HostSampler::expect_records_of_a_second() const {
  const std::vector<json::Object> events = records(kEvents);
  ASSERT_GE(events.size(), 2u);
  EXPECT_EQ(number_of(events.front(), "interval_ms"), 100);
  EXPECT_EQ(number_of(events.front(), "load_mark"), 1000000);
  EXPECT_EQ(text_of(events.back(), "reason"), "finished");

  const std::vector<json::Object> samples = records(kCounters);
  EXPECT_GE(samples.size(), 1u);
  EXPECT_LE(samples.size(), 10u);
  double last = number_of(events.front(), "timestamp");
  for (const json::Object& sample : samples) {
    EXPECT_GT(number_of(sample, "timestamp"), last);
    last = number_of(sample, "timestamp");
    const json::Object* const counters = counters_of(sample);
    ASSERT_NE(counters, nullptr);
    EXPECT_EQ(counters->size(), 10u);
    EXPECT_GT(number_of(*counters, "memory_used"), 0);
    EXPECT_GE(number_of(*counters, "cpu_busy_percent"), 0);
    EXPECT_LE(number_of(*counters, "cpu_busy_percent"), 100);
  }
  EXPECT_GT(number_of(events.back(), "timestamp"), last);
  EXPECT_EQ(number_of(events.back(), "samples"), static_cast<double>(samples.size()));
  EXPECT_EQ(number_of(events.back(), "events"), static_cast<double>(events.size()));
  expect_header_matches_content(kCounters, last);
  expect_header_matches_content(kEvents, number_of(events.back(), "timestamp"));
}

void HostSampler::expect_rewritten_files_hold_the_same() const {
  const TempDir copy;
  std::vector<std::string> words = {QVX_READ, "-s",           folder_.file("schema"), "-f",
                                    "bin",    "--output-dir", copy.path().string()};
  for (const std::string& file : files(""))
    words.push_back(file);
  const ProgramResult result = run_program(words);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.error, "");
  for (const char* const tag : {kCounters, kEvents}) {
    EXPECT_GE(files_below(copy.path(), tag).size(), 1u);
    EXPECT_EQ(lines(copy.path(), tag), lines(folder_.path(), tag));
  }
}

TEST_F(HostSampler, RecordsASecondThatTheReaderDecodes) {
  const ProgramResult result =
      run_program(command({"--interval", "100", "--seconds", "1", "--load-mark", "1000000"}));
  EXPECT_EQ(result.status, 0) << result.error;
  EXPECT_EQ(result.error, "");
  expect_records_of_a_second();
}

TEST_F(HostSampler, CompressesPagesThatTheReaderDecodesAndRewrites) {
  for (const auto& [name, letter] : {std::pair("gzip", 'G'), std::pair("snappy", 'S')}) {
    SCOPED_TRACE(name);
    fs::remove_all(folder_.path());
    const ProgramResult result = run_program(
        command({"--interval", "100", "--seconds", "1", "--load-mark", "1000000", "--compress", name}));
    EXPECT_EQ(result.status, 0) << result.error;
    EXPECT_EQ(result.error, "");
    for (const char* const tag : {kCounters, kEvents}) {
      const std::vector<std::string> found = files(tag);
      ASSERT_EQ(found.size(), 1u);
      const std::string content = read_file(found[0]);
      ASSERT_GE(content.size(), 256u + 6u);
      EXPECT_EQ(content.substr(256, 4), "QVXP");
      EXPECT_EQ(content[256 + 5], letter);
    }
    expect_records_of_a_second();
    expect_rewritten_files_hold_the_same();
  }
}

TEST_F(HostSampler, NamesFilesAfterSourceAndTag) {
  const ProgramResult result =
      run_program(command({"--interval", "100", "--seconds", "1", "--source", "rack 7", "--tag", "lab"}));
  EXPECT_EQ(result.status, 0) << result.error;
  for (const std::string tag : {"lab_counters", "lab_events"}) {
    const std::vector<std::string> found = files(tag + "_");
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(fs::path(found[0]).parent_path().filename(), "rack 7");
    const std::string content = read_file(found[0]);
    EXPECT_STREQ(content.c_str() + 16, "rack 7");
    EXPECT_STREQ(content.c_str() + 80, tag.c_str());
  }
}

TEST_F(HostSampler, TellsTheAdaptersOfTheHost) {
  const TempDir root;
  root.write_file("sys/class/infiniband/hcx5_0/node_guid", "0011:2233:4455:6677\n");
  EXPECT_EQ(
      run_program(command({"--interval", "100", "--seconds", "1", "--root", root.path().string()})).status,
      0);
  const std::vector<std::string> found = files("nodeinfo.json", "");
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(fs::path(found[0]).parent_path(), fs::path(files(kEvents).at(0)).parent_path());
  const std::optional<json::Value> value = json::parse(read_file(found[0]));
  ASSERT_TRUE(value && value->as_object() != nullptr);
  const json::Object* const adapter = value->as_object()->object_at("hcx5_0");
  ASSERT_NE(adapter, nullptr);
  EXPECT_EQ(text_of(*adapter, "node_guid"), "0011223344556677");
}

TEST_F(HostSampler, AddsFilesWhenRunAgain) {
  for (int run = 1; run <= 2; ++run) {
    EXPECT_EQ(run_program(command({"--interval", "100", "--seconds", "1"})).status, 0);
    EXPECT_EQ(files(kEvents).size(), static_cast<std::size_t>(run));
  }
  EXPECT_EQ(text_of(records(kEvents).back(), "reason"), "finished");
}

TEST_F(HostSampler, RecordsALoadAboveTheMark) {
  EXPECT_EQ(run_program(command({"--interval", "50", "--seconds", "1", "--load-mark", "-1"})).status, 0);
  const std::vector<json::Object> found = records(kEvents);
  ASSERT_GE(found.size(), 2u);
  EXPECT_EQ(number_of(found[1], "above"), 1);
  EXPECT_EQ(number_of(found[1], "mark"), -1);
  const json::Object* const load = found[1].object_at("load");
  ASSERT_NE(load, nullptr);
  EXPECT_GE(number_of(*load, "fifteen_minutes"), 0);
}

TEST_F(HostSampler, EndsCleanlyOnASignal) {
  for (const int signal : {SIGINT, SIGTERM}) {
    for (const char* const how : {"plain", "gzip"}) {
      std::vector<std::string> options = {"--interval", "10"};
      if (std::string_view(how) != "plain") options.insert(options.end(), {"--compress", how});
      Program sampler(command(options));
      wait_for_counters(300);
      sampler.send(signal);
      EXPECT_EQ(sampler.wait().status, 0);
      const std::vector<json::Object> events = records(kEvents);
      const std::vector<json::Object> samples = records(kCounters);
      ASSERT_GE(events.size(), 2u);
      ASSERT_GE(samples.size(), 1u);
      EXPECT_EQ(text_of(events.back(), "reason"), "signal");
      EXPECT_EQ(number_of(events.back(), "samples"), static_cast<double>(samples.size()));
      expect_header_matches_content(kEvents, number_of(events.back(), "timestamp"));
      expect_header_matches_content(kCounters, number_of(samples.back(), "timestamp"));
      fs::remove_all(folder_.path());
    }
  }
}

TEST_F(HostSampler, RecordsInterfacesThatComeChangeAndGo) {
  const TempDir root;
  root.write_file("sys/class/net/eth0/operstate", "up\n");
  root.write_file("sys/class/net/eth1/operstate", "up\n");
  Program sampler(command({"--interval", "5", "--root", root.path().string()}));
  wait_for_counters(1000);
  const std::string made = root.write_file("down", "down\n");
  fs::rename(made, root.file("sys/class/net/eth0/operstate"));
  wait_for_counters(counters_size());
  fs::remove_all(root.file("sys/class/net/eth1"));
  wait_for_counters(counters_size());
  root.write_file("new/operstate", "dormant\n");
  fs::rename(root.file("new"), root.file("sys/class/net/ib0"));
  wait_for_counters(counters_size());
  sampler.send(SIGTERM);
  EXPECT_EQ(sampler.wait().status, 0);

  std::vector<std::string> changes;
  for (const json::Object& record : records(kEvents)) {
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
  const std::vector<json::Object> found = records(kCounters);
  ASSERT_GE(found.size(), 1u);
  const json::Object* const counters = counters_of(found[0]);
  ASSERT_NE(counters, nullptr);
  for (const json::Member& counter : counters->members())
    EXPECT_EQ(counter.value.as_number(), 0) << counter.name;
}

TEST_F(HostSampler, RefusesWrongOptions) {
  using Words = std::vector<std::string>;
  for (const Words& options :
       {Words{"--interval", "0"}, Words{"--interval", "1x"}, Words{"--interval", "-5"},
        Words{"--seconds", ""}, Words{"--load-mark", "inf"}, Words{"--compress", "lz4"},
        Words{"--tag", "seventy"}, Words{"--none"}, Words{"extra"}}) {
    const ProgramResult result = run_program(command(options));
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.error.find("Usage: host_sampler [options]"), std::string::npos);
  }
}

TEST_F(HostSampler, ReportsDataThatCannotBeSaved) {
  const ProgramResult result =
      run_program(command({"--interval", "100", "--seconds", "1", "--source", "../../../.."}));
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.error.find("host_sampler: cannot save data of ../../../..:"), std::string::npos)
      << result.error;
  EXPECT_EQ(files("").size(), 0u);
}

TEST_F(HostSampler, ReportsAnOutputFolderThatCannotBeMade) {
  const std::string file = folder_.write_file("file", "");
  const ProgramResult result = run_program({QVX_HOST_SAMPLER, "--output", file, "--seconds", "1"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.error.substr(0, 14), "host_sampler: ");
}

}  // namespace
}  // namespace qvx::test
