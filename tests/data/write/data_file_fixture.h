// A data file below a folder of the test's own.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "qvx/data/write/data_file.h"
#include "tests/support/temp_dir.h"

namespace qvx::test {

// 2023-11-14 22:13:20 UTC.
inline constexpr std::uint64_t kStart = 1700000000000000;

// One data file for the source "node1", in blocks of 16 bytes.
class DataFileTest : public testing::Test {
 protected:
  DataFileTest() {
    file_.root = temp_.path();
    file_.source_id = "node1";
    file_.node = "host7";
    file_.block_size = 16;
  }

  std::string path_of(std::string_view id) const {
    return temp_.file("2023/1114/node1/" + std::string(id) + ".bin");
  }

  std::uint64_t append(std::string_view text, std::uint64_t zeros = 0) {
    return data_file_append(file_, as_bytes(text), zeros);
  }

  // The header as it stands in the file.
  qvx_data_file_header header_of(const std::string& path) {
    const std::string bytes = read_file(path);
    EXPECT_GE(bytes.size(), 256u);
    return file_header_decode(Bytes(as_bytes(bytes)).first<256>());
  }

  TempDir temp_;
  qvx_data_file file_;
  const std::string path_ = path_of("1700000000000000");
};

}  // namespace qvx::test
