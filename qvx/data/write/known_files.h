// What a writer remembers of the files that it met under one path: which of the names "a.bin", "a_2.bin",
// "a_3.bin"... has which kind of content. It saves looking at all of them each time; it decides nothing,
// since files change behind a writer's back.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

namespace qvx {

// A name with a number before its extension; number 1 leaves it as it is. Throws std::bad_alloc.
std::string numbered_name(std::string_view name, std::uint32_t number);

class KnownFiles {
 public:
  struct File {
    std::uint32_t number = 0;
    std::uint64_t size = 0;  // when it was last written here
  };

  // Null when none of this kind is known.
  const File* find(const std::string& path, std::string_view kind) const;
  // How many of the first names of the path are taken, as far as is known.
  std::uint32_t taken(const std::string& path) const;

  // Both throw std::bad_alloc. What is kept is bounded: now and then everything is forgotten.
  void note(const std::string& path, std::string_view kind, File file);
  void note_taken(const std::string& path, std::uint32_t number);

 private:
  File& entry(std::size_t key);

  std::unordered_map<std::size_t, File> files_;
};

}  // namespace qvx
