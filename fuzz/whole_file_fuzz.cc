// A whole data file in memory, plain or compressed. Built for speed: the first byte chooses one of the
// readers that are kept, no system call is made but those that look whether a schema file has changed.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz/reader_fuzz.h"
#include "qvx/data/file_header.h"
#include "qvx/support/bytes.h"

namespace {

using namespace qvx;

// A block size is malloc'ed as it stands, and a sanitizer takes its time for 100 MiB.
constexpr std::uint32_t kLargestBlockSize = 0xFFFF;

void limit_block_size(std::vector<std::byte>& file) {
  if (file.size() < kFileHeaderSize) return;
  const std::span<std::byte, kFileHeaderSize> bytes(file.data(), kFileHeaderSize);
  qvx_data_file_header header = file_header_decode(bytes);
  if (header.block_size <= kLargestBlockSize || header.block_size >= kBlockSizeEnd) return;
  header.block_size &= kLargestBlockSize;
  std::ranges::copy(file_header_encode(header), file.begin());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool quiet = (fuzz::quiet_reader(), true);
  static_cast<void>(quiet);
  if (size == 0) return 0;
  const Bytes bytes = std::as_bytes(std::span(data + 1, size - 1));
  // A buffer of exactly this size, so that a sanitizer sees its end.
  std::vector<std::byte> file(bytes.begin(), bytes.end());
  limit_block_size(file);
  // The bit that other targets give a meaning asks for the costly check here.
  test::FilesInMemory& reader = fuzz::reader_of(data[0] & (fuzz::kAllChoices - fuzz::kFree));
  const test::FilesInMemory::Result result = reader.read(file);
  if ((data[0] & fuzz::kFree) != 0) fuzz::check_output(reader.options(), result.out);
  return 0;
}
