#include "qvx/data/source_list.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <string_view>

#include "tests/data/source_fixture.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/faulty_calls.h"

namespace qvx {
namespace {

using test::EnvGuard;
using test::FakeHostName;
using test::LogCapture;
using test::LogMessage;
using test::TempDir;

using namespace std::string_literals;

using SourceFormat = test::Sources;
using SourceFile = test::Sources;

TEST_F(SourceFormat, CountNumbersFromOne) {
  const EnvGuard set("QVX_SOURCE_ID", "n");
  EXPECT_EQ(from_format("3"), (SourceList{"n_1", "n_2", "n_3"}));
  EXPECT_EQ(from_format("1"), (SourceList{"n_1"}));
}

TEST_F(SourceFormat, RangeNumbersFromItsFirstToItsLast) {
  const EnvGuard set("QVX_SOURCE_ID", "n");
  EXPECT_EQ(from_format("2-4"), (SourceList{"n_2", "n_3", "n_4"}));
  EXPECT_EQ(from_format("0-0"), (SourceList{"n_0"}));
}

TEST_F(SourceFormat, NamedRangeBringsItsBase) {
  const EnvGuard set("QVX_SOURCE_ID", "n");
  EXPECT_EQ(from_format("rack[5-6]"), (SourceList{"rack_5", "rack_6"}));
  EXPECT_EQ(from_format("my-rack[9-10]"), (SourceList{"my-rack_9", "my-rack_10"}));
  EXPECT_EQ(from_format("[7-7]"), (SourceList{"n_7"}));
}

TEST_F(SourceFormat, BaseIsTheHostNameWithoutASetting) {
  EXPECT_EQ(from_format("1"), (SourceList{"sampler_1"}));
}

TEST_F(SourceFormat, WithoutAnyBaseThereIsNoList) {
  const FakeHostName none(EIO);
  const LogCapture log(QVX_LOG_ERROR);
  EXPECT_EQ(source_list_from_format("1"), std::nullopt);
  EXPECT_EQ(log.messages(),
            (std::vector<LogMessage>{{3, "[source] Failed to get host name: Input/output error"}}));
}

TEST_F(SourceFormat, LeadingZerosAreDecimal) {
  EXPECT_EQ(from_format("r[010-011]"), (SourceList{"r_10", "r_11"}));
}

TEST_F(SourceFormat, LargestNumberEndsTheList) {
  EXPECT_EQ(from_format("r[2147483646-2147483647]"), (SourceList{"r_2147483646", "r_2147483647"}));
}

TEST_F(SourceFormat, SourcesAreCutAt63Characters) {
  const std::string base(62, 'b');
  EXPECT_EQ(from_format(base + "[12-13]"), (SourceList{base + "_", base + "_"}));
}

TEST_F(SourceFormat, BadFormsAreRejected) {
  for (const char* const text : {"",
                                 "0",
                                 "00",
                                 "x",
                                 "3x",
                                 " 3",
                                 "3 ",
                                 "+3",
                                 "0x3",
                                 "3.0",
                                 "2147483648",
                                 "99999999999999999999",
                                 "4-2",
                                 "-3",
                                 "3-",
                                 "-",
                                 "--",
                                 "x-y",
                                 "1-y",
                                 "x-1",
                                 "1--2",
                                 "-1-2",
                                 "1-2-3",
                                 "+1-2",
                                 "1-+2",
                                 "1 -2",
                                 "1- 2",
                                 "1-2147483648",
                                 "r[]",
                                 "r[-]",
                                 "r[1]",
                                 "r[1-]",
                                 "r[-1]",
                                 "r[2-1]",
                                 "r[x-2]",
                                 "r[1-x]",
                                 "r[1-2",
                                 "r1-2]",
                                 "r]1-2[",
                                 "r[1-2]x",
                                 "r[1--2]",
                                 "r[-1-2]",
                                 "r[ 1-2]",
                                 "r[1-2 ]",
                                 "r[1-2]]",
                                 "r[[1-2]",
                                 "a-b[3]",
                                 "a-[3]",
                                 "r[1-2147483648]"}) {
    EXPECT_EQ(from_format(text), std::nullopt) << text;
  }
}

// Takes messages without allocating anything.
int memory_messages = 0;
__attribute__((format(printf, 2, 3))) void count_message(std::uint32_t level, const char* format, ...) {
  if (level == 3 && std::string_view(format) == "[source] Failed to allocate memory") ++memory_messages;
}

TEST_F(SourceFormat, ShortMemoryIsLoggedAndGivesNone) {
  const LogCapture restore;
  qvx_logger_register_callback(count_message, QVX_LOG_ERROR);
  memory_messages = 0;
  std::optional<SourceList> list;
  {
    const test::FailingAllocations none(0);
    list = source_list_from_format("a-very-long-name-that-needs-memory[1-2]");
  }
  EXPECT_EQ(list, std::nullopt);
  EXPECT_EQ(memory_messages, 1);
}

TEST_F(SourceFile, ArgumentThatNamesNoFileIsAFormat) {
  const LogCapture log(QVX_LOG_ERROR);
  EXPECT_EQ(source_list_from_arg("rack[5-6]"), (SourceList{"rack_5", "rack_6"}));
  EXPECT_EQ(source_list_from_arg("/no/such/file"), std::nullopt);
  EXPECT_EQ(log.messages(), (std::vector<LogMessage>{{3, "[source] Invalid source format: /no/such/file"}}));
}

TEST_F(SourceFile, TextFileHasASourceALine) {
  const TempDir folder;
  const std::string path = folder.write_file("list", "one\n\ntwo\r\n\r\nthree\rrest\n four ");
  EXPECT_EQ(source_list_from_arg(path.c_str()), (SourceList{"one", "two", "three", " four "}));
}

TEST_F(SourceFile, InterruptedOpeningIsTriedAgain) {
  const TempDir folder;
  const std::string path = folder.write_file("list", "one\n");
  const test::FaultyCalls interrupted(test::Call::open, EINTR, 0, 2);
  EXPECT_EQ(source_list_from_arg(path.c_str()), SourceList{"one"});
  EXPECT_TRUE(interrupted.any_failed());
}

TEST_F(SourceFile, ListOfAFileIsWholeOrShortMemoryIsLogged) {
  const TempDir folder;
  const std::string name(40, 'n');
  const std::string text = folder.write_file("list", name + "1\n" + name + "2\n");
  const std::string fabscan = folder.write_file("scan", "host (" + name + "1)\nSwitch (" + name + "2)\n");
  const LogCapture restore;
  qvx_logger_register_callback(count_message, QVX_LOG_ERROR);
  for (const auto from_file : {source_list_from_text_file, source_list_from_fabscan_file}) {
    const std::string& path = from_file == source_list_from_text_file ? text : fabscan;
    bool any_failed = true;
    int refused = 0;
    for (std::size_t successes = 0; any_failed && successes < 1000; ++successes) {
      memory_messages = 0;
      std::optional<SourceList> list;
      {
        const test::FailingAllocations failures(successes);
        list = from_file(path.c_str());
        any_failed = failures.any_failed();
      }
      if (list) {
        EXPECT_EQ(*list, (SourceList{name + "1", name + "2"}));
      }
      EXPECT_TRUE(list || any_failed);
      refused += memory_messages;
    }
    EXPECT_FALSE(any_failed);
    EXPECT_GT(refused, 0);
  }
}

TEST_F(SourceFile, EmptyTextFileIsAnEmptyList) {
  const TempDir folder;
  EXPECT_EQ(source_list_from_arg(folder.write_file("list", "").c_str()), SourceList{});
}

TEST_F(SourceFile, SourcesOfATextFileAreCutAt63Characters) {
  const TempDir folder;
  const std::string path = folder.write_file("list", std::string(64, 'a') + "\n");
  EXPECT_EQ(source_list_from_arg(path.c_str()), (SourceList{std::string(63, 'a')}));
}

TEST_F(SourceFile, LineOverItsLimitCountsAsSeveral) {
  const TempDir folder;
  const std::string path =
      folder.write_file("list", std::string(1023, 'a') + "b\n" + std::string(1022, 'c') + "\nd\n");
  EXPECT_EQ(source_list_from_arg(path.c_str()),
            (SourceList{std::string(63, 'a'), "b", std::string(63, 'c'), "d"}));
}

TEST_F(SourceFile, HostileBytesStayWithinTheirLines) {
  const TempDir folder;
  const std::string path = folder.write_file("list", "a\0hidden\n\0\n\xFF\xFE\n../..\n%s%n\n"s);
  EXPECT_EQ(source_list_from_arg(path.c_str()), (SourceList{"a", "\xFF\xFE", "../..", "%s%n"}));
}

TEST_F(SourceFile, LineWithAHostOrSwitchMarkMakesItFabscanOutput) {
  const TempDir folder;
  const std::string path = folder.write_file("scan", "header\nS-abc\nport (guid7) up\nno source here\n");
  EXPECT_TRUE(file_is_fabscan_output(path.c_str()));
  EXPECT_EQ(source_list_from_arg(path.c_str()), (SourceList{"guid7"}));
  EXPECT_TRUE(file_is_fabscan_output(folder.write_file("h", "x\nabc H-1").c_str()));
  EXPECT_FALSE(file_is_fabscan_output(folder.write_file("t", "h-1\ns-1\nHS\n(guid7)\n").c_str()));
  EXPECT_FALSE(file_is_fabscan_output(folder.write_file("e", "").c_str()));
}

TEST_F(SourceFile, FabscanLineNeedsAnOpeningBeforeAClosingParenthesis) {
  const TempDir folder;
  const std::string path = folder.write_file(
      "scan", "S-1 ) (\n)a(b)c(d)\n(open\nclose)\n()\n((e)\n(" + std::string(70, 'f') + ")\n");
  EXPECT_EQ(source_list_from_fabscan_file(path.c_str()), (SourceList{"b", "", "(e", std::string(63, 'f')}));
}

TEST_F(SourceFile, FilesThatCannotBeOpenedAreLogged) {
  const TempDir folder;
  const std::string missing = folder.file("missing");
  const LogCapture log;
  EXPECT_FALSE(file_is_fabscan_output(missing.c_str()));
  EXPECT_EQ(source_list_from_text_file(missing.c_str()), std::nullopt);
  EXPECT_EQ(source_list_from_fabscan_file(missing.c_str()), std::nullopt);
  EXPECT_EQ(log.messages(),
            (std::vector<LogMessage>{{3, "[source] Failed to open file: " + missing},
                                     {3, "[source] Failed to open text file: " + missing},
                                     {3, "[source] Failed to open fabscan file: " + missing}}));
}

TEST_F(SourceFile, WhatIsNoRegularFileIsNotRead) {
  const TempDir folder;
  const std::string pipe = folder.file("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const LogCapture log;
  EXPECT_EQ(source_list_from_arg(pipe.c_str()), std::nullopt);
  EXPECT_EQ(source_list_from_arg("/dev/zero"), std::nullopt);
  EXPECT_EQ(source_list_from_arg(folder.path().c_str()), std::nullopt);
  EXPECT_EQ(log.messages(),
            (std::vector<LogMessage>{{3, "[source] Failed to open file: " + pipe},
                                     {3, "[source] Failed to open file: /dev/zero"},
                                     {3, "[source] Failed to open file: " + folder.path().string()}}));
}

// A file whose opening works, but no reading of its first byte.
TEST_F(SourceFile, FileThatCannotBeReadIsLogged) {
  const LogCapture log;
  EXPECT_EQ(source_list_from_arg("/proc/self/mem"), std::nullopt);
  EXPECT_EQ(source_list_from_text_file("/proc/self/mem"), std::nullopt);
  EXPECT_EQ(source_list_from_fabscan_file("/proc/self/mem"), std::nullopt);
  EXPECT_EQ(log.messages(),
            (std::vector<LogMessage>{{3, "[source] Failed to open file: /proc/self/mem"},
                                     {3, "[source] Failed to open text file: /proc/self/mem"},
                                     {3, "[source] Failed to open fabscan file: /proc/self/mem"}}));
}

TEST(SourceListPrint, WritesALinePerSource) {
  testing::internal::CaptureStdout();
  source_list_print(stdout, "sources", {"n_1", "%s"});
  std::fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "sources[0] = n_1\nsources[1] = %s\n");
}

}  // namespace
}  // namespace qvx
