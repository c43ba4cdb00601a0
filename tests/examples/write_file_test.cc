// The program that writes a file and reads it back, run as a program.
#include <gtest/gtest.h>

#include <string>

#include "tests/examples/program.h"
#include "tests/support/temp_dir.h"

namespace qvx::test {
namespace {

constexpr const char* kReadings = "0: 21.5\n1: 22.5\n";

TEST(WriteFile, ReadsBackWhatItWrote) {
  const TempDir folder;
  const ProgramResult result = run_program({QVX_WRITE_FILE, folder.path().string()});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, kReadings);
  EXPECT_EQ(result.error, "");
}

TEST(WriteFile, WritesWhatTheReaderReads) {
  const TempDir folder;
  ASSERT_EQ(run_program({QVX_WRITE_FILE, folder.path().string()}).status, 0);
  const ProgramResult result = run_program(
      {QVX_READ, "-v", "4", "-s", folder.path().string(), "-f", "ndjson", folder.file("readings.bin")});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.error, "");
  EXPECT_EQ(result.out,
            "{\"station\":0,\"celsius\":21.5}\n"
            "{\"station\":1,\"celsius\":22.5}\n");
}

TEST(WriteFile, AppendsToItsFile) {
  const TempDir folder;
  ASSERT_EQ(run_program({QVX_WRITE_FILE, folder.path().string()}).status, 0);
  EXPECT_EQ(run_program({QVX_WRITE_FILE, folder.path().string()}).out, std::string(kReadings) + kReadings);
}

TEST(WriteFile, FailsWithoutItsFolder) {
  const TempDir folder;
  const ProgramResult result = run_program({QVX_WRITE_FILE, folder.file("none")});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_NE(result.error.find("No such file or directory"), std::string::npos);
}

}  // namespace
}  // namespace qvx::test
