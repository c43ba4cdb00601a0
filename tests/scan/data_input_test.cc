#include "qvx/scan/data_input.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstddef>
#include <span>
#include <string>

#include "qvx/support/bytes.h"
#include "tests/reader/reader_files.h"

namespace qvx {
namespace {

// What comes out when `at_a_time` bytes are asked for, and the fault behind it.
std::string read_all(std::string_view file, std::size_t at_a_time, std::string& fault) {
  DataInput input;
  input.open(as_bytes(file));
  std::string out;
  std::string part(at_a_time, '\0');
  std::size_t count = 0;
  do {
    count = input.read(std::as_writable_bytes(std::span(part)));
    out.append(part, 0, count);
  } while (count == at_a_time);
  fault = input.fault();
  return out;
}

TEST(DataInput, FileIsNotHandedToProgramsThatAreStarted) {
  const int lowest = dup(STDERR_FILENO);
  close(lowest);
  DataInput input;
  ASSERT_TRUE(input.open("/dev/null"));
  EXPECT_EQ(fcntl(lowest, F_GETFD), FD_CLOEXEC);
}

// A few bytes unpack to many, which come out piece by piece when the file has long been read to its end.
TEST(DataInput, StreamWithoutItsEndGivesAllThatWasDecodedHoweverItIsAskedFor) {
  const std::string packed = test::gzip(std::string(200, 'x'));
  for (std::size_t size = packed.size() - 1; size > packed.size() - 10; --size) {
    for (const std::size_t at_a_time : {1, 7, 65, 199, 100000}) {
      std::string fault;
      EXPECT_EQ(read_all(packed.substr(0, size), at_a_time, fault), std::string(200, 'x'))
          << size << " " << at_a_time;
      EXPECT_EQ(fault, "unexpected end of file") << size << " " << at_a_time;
    }
  }
}

TEST(DataInput, WrongChecksumStandsBehindAllThatWasDecoded) {
  std::string packed = test::gzip(std::string(5000, 'x'));
  packed[packed.size() - 8] = static_cast<char>(packed[packed.size() - 8] ^ 1);
  for (const std::size_t at_a_time : {1, 7, 256, 4999, 100000}) {
    std::string fault;
    EXPECT_EQ(read_all(packed, at_a_time, fault), std::string(5000, 'x')) << at_a_time;
    EXPECT_EQ(fault, "incorrect data check") << at_a_time;
  }
}

TEST(DataInput, BytesBehindTheLastMemberThatAreNoMemberAreIgnored) {
  const std::string packed = test::gzip("first") + test::gzip("second") + "tail";
  for (const std::size_t at_a_time : {1, 3, 100}) {
    std::string fault;
    EXPECT_EQ(read_all(packed, at_a_time, fault), "firstsecond") << at_a_time;
    EXPECT_EQ(fault, "") << at_a_time;
  }
}

}  // namespace
}  // namespace qvx
