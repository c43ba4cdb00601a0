// A folder of the test's own, removed with everything in it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

namespace qvx::test {

inline std::string read_file(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path.string());
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class TempDir {
 public:
  TempDir() {
    std::string name = (std::filesystem::temp_directory_path() / "qvx_test_XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("cannot create " + name);
    path_ = name;
  }

  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }

  // The path of a file in the folder, which need not exist.
  std::string file(std::string_view name) const { return (path_ / name).string(); }

  // Writes a file, with the folders above it, and returns its path.
  std::string write_file(std::string_view name, std::string_view content) const {
    const std::filesystem::path target = path_ / name;
    std::filesystem::create_directories(target.parent_path());
    std::ofstream out(target, std::ios::binary);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    if (!out.flush()) throw std::runtime_error("cannot write " + target.string());
    return target.string();
  }

 private:
  std::filesystem::path path_;
};

}  // namespace qvx::test
