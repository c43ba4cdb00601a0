#include "qvx/data/write/node_info.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "tests/support/env_guard.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/fake_clock.h"
#include "tests/support/faulty_calls.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace qvx {
namespace {

using test::EnvGuard;
using test::FakeClock;
using test::LogCapture;
using test::LogMessage;
using test::read_file;
using test::TempDir;

template <std::size_t kSize>
void set(std::array<char, kSize>& field, std::string_view text) {
  field = {};
  text.copy(field.data(), kSize);
}

qvx_adapter_info adapter(std::string_view name, std::string_view second_port = "") {
  qvx_adapter_info entry;
  set(entry.name, name);
  set(entry.node_guid, "0002c90300102c81");
  set(entry.system_image_guid, "0002c90300102c84");
  set(entry.port_1_guid, "0002c90300102c82");
  set(entry.port_2_guid, second_port);
  return entry;
}

PagePtr page_with(std::initializer_list<qvx_adapter_info> adapters, std::uint64_t first = 1000) {
  PagePtr page = page_alloc(0, 800, {});
  page_set_adapters(*page, {adapters.begin(), adapters.size()});
  page_set_timestamps(*page, first, first);
  return page;
}

constexpr const char* kOneAdapter =
    "{\n"
    "    \"timestamp\": 1000,\n"
    "    \"hcx5_0\": {\n"
    "        \"node_guid\": \"0002c90300102c81\",\n"
    "        \"system_image_guid\": \"0002c90300102c84\",\n"
    "        \"port_1_guid\": \"0002c90300102c82\"\n"
    "    }\n"
    "}";

class NodeInfoFile : public testing::Test {
 protected:
  bool write(const PagePtr& page) { return write(page, folder_.path().string()); }
  bool write(const PagePtr& page, const std::string& directory) {
    return nodeinfo_write(cache_, directory.c_str(), *page);
  }

  bool exists(const std::string& name) const { return std::filesystem::exists(folder_.file(name)); }
  std::string read(const std::string& name) const { return read_file(folder_.file(name)); }

  // Made so that the path of its nodeinfo.json has 999 characters.
  std::string longest_folder() const {
    std::string directory = folder_.path().string();
    while (directory.size() + 101 <= 999 - 14)
      directory += "/" + std::string(100, 'd');
    directory += "/" + std::string(999 - 14 - directory.size() - 1, 'e');
    std::filesystem::create_directories(directory);
    return directory;
  }

  TempDir folder_;
  qvx_nodeinfo_cache cache_;

 private:
  EnvGuard setting_{"QVX_ALLOW_MULTIPLE_NODEINFO", nullptr};
  EnvGuard alias_{"ALLOW_MULTIPLE_NODEINFO", nullptr};
};

TEST(NodeInfoText, ListsTheAdaptersUnderTheirNames) {
  const std::array<qvx_adapter_info, 1> one{adapter("hcx5_0")};
  EXPECT_EQ(nodeinfo_text(one, 1000), kOneAdapter);
}

TEST(NodeInfoText, SecondPortIsThereWhenItHasAGuid) {
  const std::array<qvx_adapter_info, 2> two{adapter("a", "0002c90300102c83"), adapter("b")};
  EXPECT_EQ(nodeinfo_text(two, 1'700'000'000'123'456),
            "{\n"
            "    \"timestamp\": 1700000000123456,\n"
            "    \"a\": {\n"
            "        \"node_guid\": \"0002c90300102c81\",\n"
            "        \"system_image_guid\": \"0002c90300102c84\",\n"
            "        \"port_1_guid\": \"0002c90300102c82\",\n"
            "        \"port_2_guid\": \"0002c90300102c83\"\n"
            "    },\n"
            "    \"b\": {\n"
            "        \"node_guid\": \"0002c90300102c81\",\n"
            "        \"system_image_guid\": \"0002c90300102c84\",\n"
            "        \"port_1_guid\": \"0002c90300102c82\"\n"
            "    }\n"
            "}");
}

TEST(NodeInfoText, EndsAtTheFirstEmptyName) {
  const std::array<qvx_adapter_info, 3> three{adapter("hcx5_0"), adapter(""), adapter("hidden")};
  EXPECT_EQ(nodeinfo_text(three, 1000), kOneAdapter);
  EXPECT_EQ(nodeinfo_text({}, 5), "{\n    \"timestamp\": 5\n}");
}

TEST(NodeInfoText, NameThatFillsItsFieldIsOneName) {
  const std::array<qvx_adapter_info, 1> one{adapter("abcdefghijklmnopqrst")};
  EXPECT_NE(nodeinfo_text(one, 1)->find("\"abcdefghijklmnopqrst\": {"), std::string::npos);
}

TEST(NodeInfoText, DotInANameNests) {
  const std::array<qvx_adapter_info, 1> one{adapter("a.b")};
  EXPECT_NE(nodeinfo_text(one, 1)->find("    \"a\": {\n        \"b\": {\n            \"node_guid\""),
            std::string::npos);
}

TEST(NodeInfoText, ControlCharactersInANameAreEscaped) {
  const std::array<qvx_adapter_info, 1> one{adapter("a\"\n")};
  EXPECT_NE(nodeinfo_text(one, 1)->find("\"a\\\"\\n\": {"), std::string::npos);
}

TEST(NodeInfoText, MemberThatCannotBeSetIsLogged) {
  const std::array<qvx_adapter_info, 1> in_the_way{adapter("timestamp")};
  const std::array<qvx_adapter_info, 1> bad_name{adapter("\xFF")};
  std::array<qvx_adapter_info, 4> bad_guid;
  bad_guid.fill(adapter("hcx5_0"));
  set(bad_guid[0].node_guid, "\xFF");
  set(bad_guid[1].system_image_guid, "\xFF");
  set(bad_guid[2].port_1_guid, "\xFF");
  set(bad_guid[3].port_2_guid, "\xFF");
  const LogCapture log;
  EXPECT_EQ(nodeinfo_text(in_the_way, 1), std::nullopt);
  EXPECT_EQ(nodeinfo_text(bad_name, 1), std::nullopt);
  for (const qvx_adapter_info& entry : bad_guid)
    EXPECT_EQ(nodeinfo_text({&entry, 1}, 1), std::nullopt);
  EXPECT_EQ(log.messages(), (std::vector<LogMessage>{{3, "HCA info: unable to set 'node_guid' field"},
                                                     {3, "HCA info: unable to set 'node_guid' field"},
                                                     {3, "HCA info: unable to set 'node_guid' field"},
                                                     {3, "HCA info: unable to set 'system_image_guid' field"},
                                                     {3, "HCA info: unable to set 'port_1_guid' field"},
                                                     {3, "HCA info: unable to set 'port_2_guid' field"}}));
}

// Takes messages without allocating anything.
int memory_messages = 0;
__attribute__((format(printf, 2, 3))) void count_message(std::uint32_t level, const char* format, ...) {
  if (level == 3 && std::strcmp(format, "HCA info: unable to allocate json value") == 0) ++memory_messages;
}

TEST_F(NodeInfoFile, ShortMemoryAtAnyAllocationIsLoggedOnceAndGivesNothing) {
  const PagePtr page = page_with({adapter("hcx5_0", "0002c90300102c83")});
  const LogCapture restore;
  qvx_logger_register_callback(count_message, QVX_LOG_ERROR);
  for (std::size_t successes = 0;; ++successes) {
    memory_messages = 0;
    cache_ = {};
    bool written = false;
    bool refused = false;
    {
      const test::FailingAllocations few(successes);
      written = nodeinfo_write(cache_, folder_.path().c_str(), *page);
      refused = few.any_failed();
    }
    EXPECT_NE(written, refused);
    EXPECT_EQ(memory_messages, refused ? 1 : 0) << successes;
    if (!refused) break;
    ASSERT_LT(successes, 1000u);
  }
}

TEST_F(NodeInfoFile, IsWrittenOnceForTheSameAdapters) {
  EXPECT_TRUE(write(page_with({adapter("hcx5_0")})));
  EXPECT_EQ(read("nodeinfo.json"), kOneAdapter);
  EXPECT_TRUE(write(page_with({adapter("hcx5_0")}, 2000)));
  EXPECT_FALSE(exists("nodeinfo.2000.json"));
  EXPECT_FALSE(exists("nodeinfo.1000.json"));
}

TEST_F(NodeInfoFile, ChangedAdaptersAreWrittenUnderTheNumberedName) {
  EXPECT_TRUE(write(page_with({adapter("hcx5_0")})));
  EXPECT_TRUE(write(page_with({adapter("hcx5_0"), adapter("hcx5_1")}, 2000)));
  EXPECT_EQ(read("nodeinfo.json"), kOneAdapter);
  EXPECT_NE(read("nodeinfo.2000.json").find("hcx5_1"), std::string::npos);
  EXPECT_EQ(cache_.timestamp, 2000u);
}

TEST_F(NodeInfoFile, EntriesBehindTheListDoNotCountAsAChange) {
  EXPECT_TRUE(write(page_with({adapter("hcx5_0"), adapter("")})));
  qvx_adapter_info stale = adapter("");
  set(stale.node_guid, "something else");
  EXPECT_TRUE(write(page_with({adapter("hcx5_0"), stale, adapter("hidden")}, 2000)));
  EXPECT_FALSE(exists("nodeinfo.2000.json"));
}

TEST_F(NodeInfoFile, OtherDirectoryGetsTheCachedText) {
  const TempDir other;
  EXPECT_TRUE(write(page_with({adapter("hcx5_0")})));
  EXPECT_TRUE(write(page_with({adapter("hcx5_0")}, 2000), other.path().string()));
  EXPECT_EQ(read_file(other.file("nodeinfo.json")), kOneAdapter);
}

TEST_F(NodeInfoFile, FileOfAnEarlierRunStays) {
  folder_.write_file("nodeinfo.json", "earlier");
  EXPECT_TRUE(write(page_with({adapter("hcx5_0")})));
  EXPECT_EQ(read("nodeinfo.json"), "earlier");
  EXPECT_EQ(read("nodeinfo.1000.json"), kOneAdapter);
}

TEST_F(NodeInfoFile, SettingDecidesAboutASecondFile) {
  folder_.write_file("nodeinfo.json", "earlier");
  std::uint64_t first = 1;
  for (const char* const allows : {"", "1", "t", "T", "y", "Y", "Yes", "true"}) {
    const EnvGuard setting("QVX_ALLOW_MULTIPLE_NODEINFO", allows);
    cache_ = {};
    EXPECT_TRUE(write(page_with({}, first)));
    EXPECT_TRUE(exists("nodeinfo." + std::to_string(first) + ".json")) << allows;
    ++first;
  }
  for (const char* const forbids : {"no", "0", "off", " yes", "2"}) {
    const EnvGuard setting("QVX_ALLOW_MULTIPLE_NODEINFO", forbids);
    cache_ = {};
    EXPECT_TRUE(write(page_with({}, first)));
    EXPECT_FALSE(exists("nodeinfo." + std::to_string(first) + ".json")) << forbids;
    ++first;
  }
  EXPECT_EQ(read("nodeinfo.json"), "earlier");
}

TEST_F(NodeInfoFile, SettingIsKnownWithoutItsPrefixAndAConflictIsReported) {
  folder_.write_file("nodeinfo.json", "earlier");
  const EnvGuard alias("ALLOW_MULTIPLE_NODEINFO", "no");
  EXPECT_TRUE(write(page_with({})));
  EXPECT_FALSE(exists("nodeinfo.1000.json"));
  const EnvGuard setting("QVX_ALLOW_MULTIPLE_NODEINFO", "yes");
  cache_ = {};
  const LogCapture log(QVX_LOG_WARNING);
  EXPECT_TRUE(write(page_with({})));
  EXPECT_TRUE(exists("nodeinfo.1000.json"));
  EXPECT_EQ(log.texts(4),
            (std::vector<std::string>{"[qvx_getenv] Environment variables conflict - "
                                      "QVX_ALLOW_MULTIPLE_NODEINFO=yes and ALLOW_MULTIPLE_NODEINFO=no. "
                                      "Using QVX_ALLOW_MULTIPLE_NODEINFO"}));
}

TEST_F(NodeInfoFile, PageThatWasNeverStampedGivesTheCurrentTime) {
  const FakeClock clock(1, 0);
  const LogCapture log(QVX_LOG_ERROR);
  EXPECT_TRUE(write(page_with({}, 0)));
  EXPECT_EQ(read("nodeinfo.json"), "{\n    \"timestamp\": 1000000\n}");
}

TEST_F(NodeInfoFile, FileThatCannotBeOpenedIsLoggedAndTriedAgain) {
  const std::string missing = folder_.file("missing");
  const LogCapture log(QVX_LOG_ERROR);
  EXPECT_FALSE(write(page_with({adapter("hcx5_0")}), missing));
  EXPECT_EQ(log.messages(),
            (std::vector<LogMessage>{{3, "[nodeinfo_file] Failed to open file " + missing +
                                             "/nodeinfo.json for writing: No such file or directory"}}));
  std::filesystem::create_directory(missing);
  EXPECT_TRUE(write(page_with({adapter("hcx5_0")}, 2000), missing));
  EXPECT_EQ(read_file(missing + "/nodeinfo.json"), kOneAdapter);
}

TEST_F(NodeInfoFile, InterruptedOpeningIsTriedAgain) {
  const test::FaultyCalls interrupted(test::Call::open, EINTR, 0, 2);
  EXPECT_TRUE(write(page_with({adapter("hcx5_0")})));
  EXPECT_TRUE(interrupted.any_failed());
  EXPECT_EQ(read("nodeinfo.json"), kOneAdapter);
}

TEST_F(NodeInfoFile, FileThatCannotBeWrittenIsLoggedAndRemoved) {
  rlimit old{};
  getrlimit(RLIMIT_FSIZE, &old);
  const auto old_handler = std::signal(SIGXFSZ, SIG_IGN);
  const rlimit tiny{10, old.rlim_max};
  const PagePtr page = page_with({adapter("hcx5_0")});
  const LogCapture log(QVX_LOG_ERROR);
  setrlimit(RLIMIT_FSIZE, &tiny);
  const bool written = write(page);
  setrlimit(RLIMIT_FSIZE, &old);
  std::signal(SIGXFSZ, old_handler);
  EXPECT_FALSE(written);
  EXPECT_EQ(log.messages(),
            (std::vector<LogMessage>{{3, "[nodeinfo_file] Failed to write data to file " +
                                             folder_.file("nodeinfo.json") + ": File too large"}}));
  EXPECT_FALSE(exists("nodeinfo.json"));
  EXPECT_TRUE(write(page));
  EXPECT_EQ(read("nodeinfo.json"), kOneAdapter);
}

TEST_F(NodeInfoFile, SymbolicLinksAreNotFollowed) {
  const TempDir outside;
  const std::string target = outside.file("victim");
  ASSERT_EQ(symlink(target.c_str(), folder_.file("nodeinfo.json").c_str()), 0);
  ASSERT_EQ(symlink(target.c_str(), folder_.file("nodeinfo.1000.json").c_str()), 0);
  const LogCapture log(QVX_LOG_ERROR);
  EXPECT_FALSE(write(page_with({adapter("hcx5_0")})));
  EXPECT_FALSE(std::filesystem::exists(target));
  EXPECT_EQ(log.messages(), (std::vector<LogMessage>{{3, "[nodeinfo_file] Failed to open file " +
                                                             folder_.file("nodeinfo.1000.json") +
                                                             " for writing: Too many levels of symbolic "
                                                             "links"}}));
  EXPECT_TRUE(write(page_with({adapter("hcx5_1")}, 2000))) << "the next name is free";
}

TEST_F(NodeInfoFile, PipeOfThatNameDoesNotBlock) {
  folder_.write_file("nodeinfo.json", "earlier");
  ASSERT_EQ(mkfifo(folder_.file("nodeinfo.1000.json").c_str(), 0600), 0);
  const LogCapture log(QVX_LOG_ERROR);
  EXPECT_FALSE(write(page_with({})));
  EXPECT_EQ(log.texts(3).size(), 1u);
}

TEST_F(NodeInfoFile, PathOver999CharactersIsRefused) {
  const std::string directory = longest_folder();
  EXPECT_TRUE(write(page_with({}), directory));
  EXPECT_TRUE(std::filesystem::exists(directory + "/nodeinfo.json"));
  std::filesystem::create_directories(directory + "x");
  const LogCapture log(QVX_LOG_ERROR);
  EXPECT_FALSE(write(page_with({}), directory + "x"));
  EXPECT_EQ(log.messages(),
            (std::vector<LogMessage>{{3, "[nodeinfo_file] Failed to open file " + directory +
                                             "x/nodeinfo.json for writing: File name too long"}}));
}

TEST_F(NodeInfoFile, NumberedPathOver999CharactersIsRefused) {
  const std::string directory = longest_folder();
  std::ofstream(directory + "/nodeinfo.json") << "of an earlier run";
  const LogCapture log(QVX_LOG_ERROR);
  EXPECT_FALSE(write(page_with({}), directory));
  ASSERT_EQ(log.messages().size(), 1U);
  EXPECT_TRUE(
      log.messages()[0].text.starts_with("[nodeinfo_file] Failed to open file " + directory + "/nodeinfo."));
  EXPECT_TRUE(log.messages()[0].text.ends_with(".json for writing: File name too long"));
  EXPECT_EQ(test::read_file(directory + "/nodeinfo.json"), "of an earlier run");
}

}  // namespace
}  // namespace qvx
