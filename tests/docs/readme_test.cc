// The programs in the README are the ones that tests/install and tests/examples build and run.

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

namespace {

std::string file_text(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(QVX_TEST_DATA_DIR + ("/" + path)).rdbuf();
  return text.str();
}

TEST(Readme, ShowsTheProgramThatTheInstallTestRuns) {
  const std::string program = file_text("install/consumer/print_record.cc");
  ASSERT_NE(program, "");
  EXPECT_NE(file_text("../README.md").find("```cpp\n" + program + "```\n"), std::string::npos);
}

TEST(Readme, ShowsTheProgramThatTheExampleTestRuns) {
  const std::string program = file_text("../examples/job_list.cc");
  ASSERT_NE(program, "");
  EXPECT_NE(file_text("../README.md").find("```cpp\n" + program + "```\n"), std::string::npos);
}

}  // namespace
