// Runs a fuzz target over the files, and the files of the folders, that are named on the command line.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  std::vector<fs::path> paths;
  for (int i = 1; i < argc; ++i) {
    if (!fs::is_directory(argv[i])) {
      paths.emplace_back(argv[i]);
      continue;
    }
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(argv[i]))
      if (entry.is_regular_file()) paths.push_back(entry.path());
  }
  std::ranges::sort(paths);
  for (const fs::path& path : paths) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
      std::fprintf(stderr, "cannot read %s\n", path.c_str());
      return 1;
    }
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    // Named first, so that a crash tells where.
    std::printf("%s\n", path.c_str());
    std::fflush(stdout);
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  }
  if (paths.empty()) std::fprintf(stderr, "nothing to run\n");
  return paths.empty() ? 1 : 0;
}
