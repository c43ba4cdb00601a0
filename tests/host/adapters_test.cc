#include "qvx/host/adapters.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>

#include "tests/support/failing_allocations.h"
#include "tests/support/fake_read.h"
#include "tests/support/last_message.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace qvx {
namespace {

using test::LogCapture;
using test::LogMessage;
using test::TempDir;

constexpr const char* kNodeGuid = "0002:c903:0010:2c81\n";
constexpr const char* kFirstGid = "fe80:0000:0000:0000:0002:c903:0010:2c82\n";
constexpr const char* kSecondGid = "fe80:0000:0000:0000:0002:c903:0010:2c83\n";

template <std::size_t kSize>
std::string text_of(const std::array<char, kSize>& field) {
  return {field.data(), strnlen(field.data(), kSize)};
}

// A folder that looks like the kernel's.
class AdapterTree {
 public:
  void add(const std::string& device, int ports) {
    tree_.write_file("hca/" + device + "/node_guid", kNodeGuid);
    tree_.write_file("hca/" + device + "/sys_image_guid", "0002:c903:0010:2c84\n");
    if (ports >= 1) tree_.write_file("hca/" + device + "/ports/1/gids/0", kFirstGid);
    if (ports >= 2) tree_.write_file("hca/" + device + "/ports/2/gids/0", kSecondGid);
  }

  std::string write(const std::string& name, const std::string& content) {
    return tree_.write_file("hca/" + name, content);
  }

  std::string root() const { return tree_.file("hca"); }

  std::array<qvx_adapter_info, 6> discover() const {
    std::array<qvx_adapter_info, 6> entries;
    for (qvx_adapter_info& entry : entries)
      entry.name.fill('?');
    EXPECT_EQ(discover_adapters(root().c_str(), entries), 0);
    return entries;
  }

 private:
  TempDir tree_;
};

TEST(Adapters, EntryKeepsItsFieldsThroughItsBytes) {
  qvx_adapter_info entry;
  entry.name.fill('n');
  entry.node_guid.fill('a');
  entry.system_image_guid.fill('b');
  entry.port_1_guid.fill('c');
  entry.port_2_guid.fill('d');
  const AdapterBytes bytes = adapter_encode(entry);
  const std::string expected = std::string(20, 'n') + std::string(16, 'a') + std::string(16, 'b') +
                               std::string(16, 'c') + std::string(16, 'd');
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size()), expected);
  EXPECT_EQ(adapter_decode(bytes), entry);
}

TEST(Adapters, DiscoveryReadsNamesAndGuids) {
  AdapterTree tree;
  tree.add("hcx5_1", 2);
  tree.add("hcx5_0", 2);
  const LogCapture log;
  const auto entries = tree.discover();
  EXPECT_EQ(text_of(entries[0].name), "hcx5_0");
  EXPECT_EQ(text_of(entries[0].node_guid), "0002c90300102c81");
  EXPECT_EQ(text_of(entries[0].system_image_guid), "0002c90300102c84");
  EXPECT_EQ(text_of(entries[0].port_1_guid), "0002c90300102c82");
  EXPECT_EQ(text_of(entries[0].port_2_guid), "0002c90300102c83");
  EXPECT_EQ(text_of(entries[1].name), "hcx5_1");
  EXPECT_EQ(entries[2], qvx_adapter_info{});
  EXPECT_TRUE(log.messages().empty());
}

TEST(Adapters, OnePortLeavesTheSecondGuidEmptyAndLogsNothing) {
  AdapterTree tree;
  tree.add("hcx5_0", 1);
  const LogCapture log;
  const auto entries = tree.discover();
  EXPECT_EQ(text_of(entries[0].port_1_guid), "0002c90300102c82");
  EXPECT_EQ(entries[0].port_2_guid, (std::array<char, 16>{}));
  EXPECT_TRUE(log.messages().empty());
}

TEST(Adapters, SevenAdaptersWarnAndFillSix) {
  AdapterTree tree;
  for (int i = 0; i < 7; ++i)
    tree.add("hcx5_" + std::to_string(i), 1);
  const LogCapture log;
  const auto entries = tree.discover();
  EXPECT_EQ(text_of(entries[5].name), "hcx5_5");
  EXPECT_EQ(log.messages(),
            (std::vector<LogMessage>{{4, "HCA info: 1 of 7 found HCAs will not fit array of 6 elements"}}));
}

TEST(Adapters, LongNameIsCutWithAWarningAndStillRead) {
  AdapterTree tree;
  tree.add("abcdefghijklmnopqrstu", 1);
  const LogCapture log;
  const auto entries = tree.discover();
  EXPECT_EQ(text_of(entries[0].name), "abcdefghijklmnopqrst");
  EXPECT_EQ(text_of(entries[0].node_guid), "0002c90300102c81");
  EXPECT_EQ(log.messages(),
            (std::vector<LogMessage>{{4, "HCA info: name abcdefghijklmnopqrstu does not fit 20 buffer"}}));
}

TEST(Adapters, NameOfTwentyCharactersFillsItsFieldWithoutAWarning) {
  AdapterTree tree;
  tree.add("abcdefghijklmnopqrst", 1);
  const LogCapture log;
  EXPECT_EQ(text_of(tree.discover()[0].name), "abcdefghijklmnopqrst");
  EXPECT_TRUE(log.messages().empty());
}

TEST(Adapters, EmptyFolderLogsTheMissingMatches) {
  const TempDir folder;
  std::array<qvx_adapter_info, 2> entries;
  entries[0].name.fill('x');
  const LogCapture log;
  EXPECT_EQ(discover_adapters(folder.path().c_str(), entries), 0);
  EXPECT_EQ(entries[0], qvx_adapter_info{});
  EXPECT_EQ(log.messages(), (std::vector<LogMessage>{{4, "HCA info: globing found no matches of '" +
                                                             folder.path().string() + "/*'"}}));
}

TEST(Adapters, FolderThatCannotBeReadLogsTheReason) {
  const TempDir folder;
  const LogCapture log;
  std::array<qvx_adapter_info, 2> entries;
  EXPECT_EQ(discover_adapters(folder.file("missing").c_str(), entries), 0);
  EXPECT_EQ(log.messages(),
            (std::vector<LogMessage>{{3, "HCA info: globing read failed: No such file or directory"}}));
}

// The kernel opens this folder of a process that has ended, but lists nothing of it.
TEST(Adapters, FolderThatCannotBeListedLogsTheReason) {
  const pid_t ended = fork();
  if (ended == 0) _exit(0);
  siginfo_t information{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(ended), &information, WEXITED | WNOWAIT), 0);
  const std::string folder = "/proc/" + std::to_string(ended) + "/net";
  std::array<qvx_adapter_info, 2> entries;
  const LogCapture log;
  EXPECT_EQ(discover_adapters(folder.c_str(), entries), 0);
  EXPECT_EQ(log.messages(),
            (std::vector<LogMessage>{{3, "HCA info: globing read failed: Invalid argument"}}));
  waitpid(ended, nullptr, 0);
}

// The name of what is not a folder is, deliberately, that of the folder above it.
TEST(Adapters, PlainFileGetsTheNameOfItsFolder) {
  AdapterTree tree;
  tree.write("stray", "");
  EXPECT_EQ(text_of(tree.discover()[0].name), "hca");
}

TEST(Adapters, LinksToFoldersAreAdaptersAndHiddenNamesAreNot) {
  AdapterTree tree;
  tree.add(".hidden", 1);
  tree.add("hcx5", 1);
  tree.add("hcx5-1", 1);  // the end of a name counts as '/' in the order
  std::filesystem::create_directory_symlink("hcx5", tree.root() + "/link");
  std::filesystem::create_symlink("nowhere", tree.root() + "/lost");
  const auto entries = tree.discover();
  EXPECT_EQ(text_of(entries[0].name), "hcx5-1");
  EXPECT_EQ(text_of(entries[1].name), "hcx5");
  EXPECT_EQ(text_of(entries[2].name), "link");
  EXPECT_EQ(text_of(entries[2].node_guid), "0002c90300102c81");
  EXPECT_EQ(text_of(entries[3].name), "hca");
  EXPECT_EQ(text_of(entries[4].name), "");
}

TEST(Adapters, FileInPlaceOfTheFolderHasNoMatches) {
  AdapterTree tree;
  const std::string path = tree.write("file", "");
  std::array<qvx_adapter_info, 2> entries;
  const LogCapture log;
  EXPECT_EQ(discover_adapters(path.c_str(), entries), 0);
  EXPECT_EQ(log.messages(),
            (std::vector<LogMessage>{{4, "HCA info: globing found no matches of '" + path + "/*'"}}));
}

// Whatever allocation fails, an entry is as it is, or something of it is missing and the last message says
// why.
TEST(Adapters, DiscoveryWithoutMemorySaysWhatIsMissing) {
  if (!test::FailingAllocations::kFailsMalloc) GTEST_SKIP();
  AdapterTree tree;
  tree.add("hcx5_0", 2);
  tree.add("hcx5_1", 1);
  const std::string root = tree.root();
  const auto whole = tree.discover();
  std::set<std::string> words;
  bool any_failed = true;
  for (std::size_t successes = 0; any_failed && successes < 1000; ++successes) {
    const test::LastMessage last;
    std::array<qvx_adapter_info, 6> entries;
    {
      const test::FailingAllocations failures(successes);
      EXPECT_EQ(discover_adapters(root.c_str(), entries), 0);
      any_failed = failures.any_failed();
    }
    if (entries == whole) continue;
    EXPECT_TRUE(any_failed);
    words.insert(last.get().text);
  }
  EXPECT_FALSE(any_failed);
  for (const char* const expected :
       {"HCA info: failed to allocate memory for HCA names array", "HCA info: globing ran out of space",
        "HCA info: failed to expand template %s/%s/ports/%d/gids/0"})
    EXPECT_TRUE(words.contains(expected)) << expected;
}

TEST(Adapters, PublicDiscoveryAlwaysReturnsZero) {
  const LogCapture log;
  std::array<qvx_adapter_info, 6> entries;
  EXPECT_EQ(qvx_discover_adapters(entries.data(), 6), 0);
  EXPECT_EQ(qvx_discover_adapters(nullptr, 6), 0);
  EXPECT_EQ(qvx_discover_adapters(entries.data(), -1), 0);
}

TEST(GuidFile, DropsColonsAndLineEnd) {
  const TempDir folder;
  std::array<char, 16> digits{};
  EXPECT_TRUE(read_guid_file(digits, "%s", folder.write_file("guid", kNodeGuid).c_str()));
  EXPECT_EQ(text_of(digits), "0002c90300102c81");
}

TEST(GuidFile, DropsTheSubnetPrefixOfAGid) {
  const TempDir folder;
  std::array<char, 16> digits{};
  EXPECT_TRUE(read_guid_file(digits, "%s", folder.write_file("gid", kFirstGid).c_str()));
  EXPECT_EQ(text_of(digits), "0002c90300102c82");
}

TEST(GuidFile, TwentyBytesHaveNoPrefixAndTwentyOneHave) {
  const TempDir folder;
  std::array<char, 16> digits{};
  EXPECT_TRUE(read_guid_file(digits, "%s", folder.write_file("20", "abcdefghijklmnopqrst").c_str()));
  EXPECT_EQ(text_of(digits), "abcdfghiklmnpqrs");
  digits = {};
  EXPECT_TRUE(read_guid_file(digits, "%s", folder.write_file("21", "abcdefghijklmnopqrstu").c_str()));
  EXPECT_EQ(text_of(digits), "u");
}

TEST(GuidFile, NeverReadsMoreThanFortyBytes) {
  const TempDir folder;
  std::array<char, 16> digits{};
  const std::string content = std::string(20, 'x') + "abcdefghijklmnopqrst" + std::string(4000, 'y');
  EXPECT_TRUE(read_guid_file(digits, "%s", folder.write_file("long", content).c_str()));
  EXPECT_EQ(text_of(digits), "abcdfghiklmnpqrs");
}

TEST(GuidFile, ShortFileGivesWhatItHas) {
  const TempDir folder;
  std::array<char, 16> digits{};
  EXPECT_TRUE(read_guid_file(digits, "%s", folder.write_file("short", "7").c_str()));
  EXPECT_EQ(text_of(digits), "7");
}

TEST(GuidFile, ReadThatASignalInterruptedIsRepeated) {
  AdapterTree tree;
  const std::string path = tree.write("guid", kNodeGuid);
  const test::FakeRead reads({{.error = EINTR}, {.error = EINTR}});
  std::array<char, kGuidSize> digits{};
  EXPECT_TRUE(read_guid_file(digits, "%s", path.c_str()));
  EXPECT_EQ(text_of(digits), "0002c90300102c81");
  EXPECT_EQ(reads.steps_left(), 0u);
}

TEST(GuidFile, MissingFileIsSilent) {
  const TempDir folder;
  std::array<char, 16> digits{};
  const LogCapture log;
  EXPECT_FALSE(read_guid_file(digits, "%s/%d", folder.path().c_str(), 2));
  EXPECT_TRUE(log.messages().empty());
}

TEST(GuidFile, EmptyFileLogsThatNothingWasRead) {
  const TempDir folder;
  std::array<char, 16> digits{};
  const std::string path = folder.write_file("empty", "");
  const LogCapture log;
  EXPECT_FALSE(read_guid_file(digits, "%s", path.c_str()));
  EXPECT_EQ(log.messages(),
            (std::vector<LogMessage>{{3, "HCA info: failed to read file " + path + ": Success"}}));
}

TEST(GuidFile, FolderInPlaceOfTheFileLogsTheReason) {
  const TempDir folder;
  std::array<char, 16> digits{};
  const LogCapture log;
  EXPECT_FALSE(read_guid_file(digits, "%s", folder.path().c_str()));
  EXPECT_EQ(log.messages(), (std::vector<LogMessage>{{3, "HCA info: failed to read file " +
                                                             folder.path().string() + ": Is a directory"}}));
}

TEST(GuidFile, PathThatCannotBeExpandedLogsTheFormat) {
  ASSERT_STREQ(std::setlocale(LC_ALL, nullptr), "C");
  std::array<char, 16> digits{};
  const wchar_t unprintable[] = {0x2c81, 0};
  const LogCapture log;
  EXPECT_FALSE(read_guid_file(digits, "%ls", unprintable));
  EXPECT_EQ(log.texts(4), (std::vector<std::string>{"HCA info: failed to expand template %ls"}));
}

TEST(AdapterDump, PrintsFiveLinesForEveryEntryWithAName) {
  std::array<qvx_adapter_info, 3> entries;
  entries[0].name.fill('n');
  entries[0].node_guid.fill('1');
  entries[0].system_image_guid.fill('2');
  entries[0].port_1_guid.fill('3');
  entries[2].name = {'l', 'a', 's', 't'};
  testing::internal::CaptureStdout();
  qvx_print_adapters(stdout, entries.data(), 3);
  std::fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "info[0].hca_name          = nnnnnnnnnnnnnnnnnnnn\n"
            "info[0].node_guid         = 1111111111111111\n"
            "info[0].system_image_guid = 2222222222222222\n"
            "info[0].port_1_guid       = 3333333333333333\n"
            "info[0].port_2_guid       = \n"
            "info[2].hca_name          = last\n"
            "info[2].node_guid         = \n"
            "info[2].system_image_guid = \n"
            "info[2].port_1_guid       = \n"
            "info[2].port_2_guid       = \n");
}

TEST(SmiCheck, OneDeviceIsNeverLookedUp) {
  AdapterTree tree;
  tree.write("hcx4_0/ports/1/has_smi", "0\n");
  EXPECT_EQ(has_smi(tree.root().c_str(), "hcx4_0", 1), 0);
  EXPECT_EQ(qvx_has_smi("hcx4_0", 1), 0);
}

TEST(SmiCheck, IsOneForZeroAndZeroForAnythingElse) {
  AdapterTree tree;
  tree.write("hcx5_0/ports/1/has_smi", "1\n");
  tree.write("hcx5_0/ports/2/has_smi", "0\n");
  tree.write("hcx5_0/ports/3/has_smi", "x");
  EXPECT_EQ(has_smi(tree.root().c_str(), "hcx5_0", 1), 0);
  EXPECT_EQ(has_smi(tree.root().c_str(), "hcx5_0", 2), 1);
  EXPECT_EQ(has_smi(tree.root().c_str(), "hcx5_0", 3), 0);
}

TEST(SmiCheck, MissingAttributeIsZeroWithoutAMessage) {
  const LogCapture log;
  EXPECT_EQ(has_smi("/nonexistent", "hcx5_0", 1), 0);
  EXPECT_EQ(qvx_has_smi("no such device", 1), 0);
  EXPECT_TRUE(log.messages().empty());
}

TEST(SmiCheck, WithoutMemoryForThePathItFails) {
  const LogCapture silence(0);
  int result = 0;
  {
    const test::FailingAllocations none(0);
    result = has_smi("/a/folder/whose/path/takes/memory", "hcx5_0", 1);
  }
  EXPECT_EQ(result, -1);
}

TEST(SmiCheck, EmptyAttributeLogsThatItCannotBeRead) {
  AdapterTree tree;
  const std::string path = tree.write("hcx5_0/ports/1/has_smi", "");
  const LogCapture log;
  EXPECT_EQ(has_smi(tree.root().c_str(), "hcx5_0", 1), -1);
  EXPECT_EQ(log.messages(),
            (std::vector<LogMessage>{{3, "Failed to read has_smi file: " + path + " with hcx5_0:1"}}));
}

TEST(SmiCheck, AttributeThatCannotBeOpenedIsLogged) {
  AdapterTree tree;
  const std::string path = tree.write("hcx5_0/ports/1/has_smi", "");
  std::filesystem::remove(path);
  // A socket exists but cannot be opened, not even by root.
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ASSERT_LT(path.size(), sizeof address.sun_path);
  std::strcpy(address.sun_path, path.c_str());
  const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  const LogCapture log;
  EXPECT_EQ(has_smi(tree.root().c_str(), "hcx5_0", 1), -1);
  EXPECT_EQ(log.messages(),
            (std::vector<LogMessage>{{3, "Failed to open has_smi file: " + path + " with hcx5_0:1"}}));
  close(listener);
}

}  // namespace
}  // namespace qvx
