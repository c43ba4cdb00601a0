#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "qvx/support/bytes.h"
#include "tests/support/temp_dir.h"
#include "tests/trust/sweep.h"

namespace qvx::trust {
namespace {

constexpr std::size_t kLargest = 8192;
constexpr std::size_t kHeaderSize = 256;
constexpr std::size_t kBlockSizeOffset = 112;

std::string shortened(std::string bytes) {
  if (bytes.size() <= kLargest || !bytes.starts_with("QVXF")) return bytes;
  const auto block_size = load_le<std::uint32_t>(bytes.data() + kBlockSizeOffset);
  if (block_size > kLargest - kHeaderSize) throw std::runtime_error("no whole data block in a golden file");
  return bytes.substr(0, kHeaderSize + (kLargest - kHeaderSize) / block_size * block_size);
}

// The first `skipped` bytes are not the file's.
void add(GoldenFiles& files, const std::string& name, const std::string& folder,
         const std::string& schema_path, std::size_t skipped) {
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (!entry.is_regular_file()) continue;
    files.push_back({name + entry.path().filename().string(), schema_path,
                     shortened(test::read_file(entry.path()).substr(skipped))});
  }
}

}  // namespace

GoldenFiles golden_files(const std::string& source_folder) {
  GoldenFiles files;
  add(files, "sample_", source_folder + "/examples/data", source_folder + "/examples/data/schema", 0);
  add(files, "first_", source_folder + "/fuzz/corpus/whole_file_fuzz", source_folder + "/fuzz/schema", 1);
  std::ranges::sort(files, {}, &GoldenFile::name);
  return files;
}

}  // namespace qvx::trust
