#include "qvx/data/write/known_files.h"

#include <algorithm>
#include <functional>

namespace qvx {
namespace {

constexpr std::size_t kMaxFiles = 65536;

std::size_t key_of(const std::string& path, std::string_view kind) {
  constexpr std::size_t kOdd = 0x9E3779B97F4A7C15;
  return std::hash<std::string>()(path) * kOdd + std::hash<std::string_view>()(kind);
}

}  // namespace

std::string numbered_name(std::string_view name, std::uint32_t number) {
  if (number == 1) return std::string(name);
  const std::size_t end = std::min(name.rfind('.'), name.size());
  return std::string(name.substr(0, end)) + "_" + std::to_string(number) + std::string(name.substr(end));
}

const KnownFiles::File* KnownFiles::find(const std::string& path, std::string_view kind) const {
  const auto found = files_.find(key_of(path, kind));
  return found != files_.end() ? &found->second : nullptr;
}

std::uint32_t KnownFiles::taken(const std::string& path) const {
  const File* const found = find(path, {});
  return found != nullptr ? found->number : 0;
}

void KnownFiles::note(const std::string& path, std::string_view kind, File file) {
  entry(key_of(path, kind)) = file;
}

void KnownFiles::note_taken(const std::string& path, std::uint32_t number) {
  entry(key_of(path, {})).number = number;
}

KnownFiles::File& KnownFiles::entry(std::size_t key) {
  if (files_.size() >= kMaxFiles && !files_.contains(key)) files_.clear();
  return files_[key];
}

}  // namespace qvx
