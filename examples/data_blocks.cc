#include "examples/data_blocks.h"

#include <zlib.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <vector>

#include "qvx/data/block.h"
#include "qvx/data/file_header.h"
#include "qvx/data/page_block.h"

namespace qvx::examples {
namespace {

// Fills `to` as far as the file goes and returns how far that is. zlib hands over the bytes of a file that is
// not compressed as they are.
std::size_t read_bytes(gzFile file, std::span<std::byte> to) {
  const int count = gzread(file, to.data(), static_cast<unsigned>(to.size()));
  if (count < 0) throw std::runtime_error("cannot be read");
  return static_cast<std::size_t>(count);
}

}  // namespace

void for_each_block(const std::filesystem::path& path, const std::function<void(Bytes)>& visit) {
  const std::unique_ptr<gzFile_s, int (*)(gzFile)> file(gzopen(path.c_str(), "rb"), gzclose);
  if (file == nullptr) throw std::runtime_error("cannot be opened");
  FileHeaderBytes start{};
  read_bytes(file.get(), start);
  const qvx_data_file_header header = file_header_decode(start);
  if (!validate_header(header) || header.block_size < kMinBlockSize || header.block_size >= kBlockSizeEnd)
    throw std::runtime_error("is no data file");

  std::vector<std::byte> unit(header.block_size);
  while (const std::size_t size = read_bytes(file.get(), unit)) {
    Bytes rest(unit.data(), size);
    PageBlock page;
    while (block_type_of(rest) == QVX_PAGE_BLOCK && page_block_read(rest, page)) {
      std::uint64_t page_size = 0;
      const PageBuffer buffer = qvxp_uncompress_alloc(page, &page_size);
      if (buffer) visit(buffer.bytes());
      rest = rest.subspan(page.total_size);
    }
    // Behind pages there is nothing but what fills up the data block.
    if (rest.size() == size && block_type_of(rest) != QVX_PAGE_BLOCK) visit(rest);
  }
}

}  // namespace qvx::examples
