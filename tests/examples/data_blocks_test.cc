#include "examples/data_blocks.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/temp_dir.h"

namespace qvx::examples {
namespace {

using test::TempDir;

std::vector<std::string> blocks_of(const std::string& path) {
  std::vector<std::string> blocks;
  for_each_block(path, [&](Bytes block) { blocks.emplace_back(as_text(block)); });
  return blocks;
}

// The kinds of the first blocks.
std::string kinds_of(const std::string& name) {
  std::string kinds;
  for (const std::string& block : blocks_of(QVX_SAMPLE_DIR "/" + name))
    kinds += block.substr(0, 4) + " ";
  return kinds;
}

TEST(DataBlocks, VisitsEachDataBlock) {
  EXPECT_EQ(kinds_of("schemas.bin"), "QVXE QVXS ");
}

TEST(DataBlocks, VisitsEachPageUnpackedAndNothingBehindThem) {
  const std::string pages = "QVXD QVXE QVXD QVXE QVXD QVXE QVXD QVXE QVXD QVXE QVXD QVXE ";
  EXPECT_EQ(kinds_of("gzip_pages.bin"), pages);
  EXPECT_EQ(kinds_of("snappy_pages.bin"), pages);
}

TEST(DataBlocks, ReadsAWholeFileThatIsCompressed) {
  EXPECT_EQ(blocks_of(QVX_SAMPLE_DIR "/archive.bin.gz"), blocks_of(QVX_SAMPLE_DIR "/events.bin"));
}

TEST(DataBlocks, LastDataBlockMayBeShort) {
  const TempDir folder;
  const std::string content = test::read_file(QVX_SAMPLE_DIR "/metrics.bin");
  folder.write_file("cut.bin", content.substr(0, 256 + 1024 + 7));
  const std::vector<std::string> blocks = blocks_of(folder.file("cut.bin"));
  ASSERT_EQ(blocks.size(), 2u);
  EXPECT_EQ(blocks[0].size(), 1024u);
  EXPECT_EQ(blocks[1].size(), 7u);
}

TEST(DataBlocks, RefusesBlockSizesThatNoReaderTakes) {
  const TempDir folder;
  std::string content = test::read_file(QVX_SAMPLE_DIR "/metrics.bin");
  content.replace(112, 4, std::string("\x0F\0\0\0", 4));
  folder.write_file("small.bin", content);
  EXPECT_THROW(blocks_of(folder.file("small.bin")), std::runtime_error);
  content.replace(112, 4, std::string("\0\0\x80\x07", 4));
  folder.write_file("large.bin", content);
  EXPECT_THROW(blocks_of(folder.file("large.bin")), std::runtime_error);
}

}  // namespace
}  // namespace qvx::examples
