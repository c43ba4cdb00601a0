// A data writer below a folder of the test's own, and pages for it.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/data/source.h"
#include "qvx/data/write/data_writer.h"
#include "tests/support/temp_dir.h"

namespace qvx::test {

// 2023-11-14 22:13:20 UTC.
inline constexpr std::uint64_t kStart = 1700000000000000;

struct PageSpec {
  std::string data = "QVXE0123456789abcdef";
  std::uint32_t block_size = 0;
  std::uint64_t room = 0;  // of the data area; that of the data when 0
  std::uint64_t first_timestamp = kStart;
  std::uint64_t last_timestamp = kStart + 9;
  std::string source_id = "node1";
  std::string source_tag = "";
  qvx_schema_id schema_id = {};
};

inline PagePtr make_page(const PageSpec& spec) {
  const std::uint64_t room = spec.room != 0 ? spec.room : spec.data.size();
  PagePtr page = page_alloc(spec.block_size, kPageHeaderSize + room, {});
  EXPECT_NE(page, nullptr);
  EXPECT_TRUE(page_consume_free_space(*page, as_bytes(spec.data)));
  page_set_timestamps(*page, spec.first_timestamp, spec.last_timestamp);
  page_set_source(*page, make_source(spec.source_id, spec.source_tag));
  page_set_schema_id(*page, spec.schema_id);
  return page;
}

class DataWriterTest : public testing::Test {
 protected:
  DataWriterTest() {
    qvx_client_id_t identity;
    std::copy_n("host7", 5, identity.host_name.begin());
    identity.port = 12;
    writer_.reset(data_writer_create(identity));
    writer_->root = temp_.path();
  }

  bool write(const PageSpec& spec) { return data_writer_write_page(*writer_, *make_page(spec)); }

  void forget_sources() {
    EXPECT_TRUE(data_writer_finish(*writer_));
    writer_->sources_by_key.clear();
    writer_->sources.clear();
  }

  std::filesystem::path folder() const { return temp_.path() / "2023/1114/node1"; }
  std::string path_of(std::string_view id) const { return folder() / (std::string(id) + ".bin"); }

  // Every file below the root that does not hold node information, sorted.
  std::vector<std::string> data_files() const {
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(temp_.path())) {
      const std::string name = entry.path().filename();
      if (entry.is_regular_file() && !name.starts_with("nodeinfo"))
        found.push_back(std::filesystem::relative(entry.path(), temp_.path()));
    }
    std::sort(found.begin(), found.end());
    return found;
  }

  static qvx_data_file_header header_of(const std::string& path) {
    const std::string bytes = read_file(path);
    EXPECT_GE(bytes.size(), 256u);
    return file_header_decode(Bytes(as_bytes(bytes)).first<256>());
  }

  TempDir temp_;
  DataWriterPtr writer_;
  const std::string path_ = path_of("1700000000000000");
};

}  // namespace qvx::test
