// Runs a fuzz target without libFuzzer.
//
//   TARGET_replay PATH...                       over the files, and the files of the folders
//   TARGET_replay --seed=N --seconds=N PATH...  over inputs that are made from them by chance; prints how
//   many
#include <dirent.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#ifdef __GLIBC__
#include <malloc.h>
#endif

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
// A target may have a mutator of its own.
extern "C" __attribute__((weak)) std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                                                     std::size_t max_size, unsigned int seed);

namespace {

using Input = std::vector<std::uint8_t>;

constexpr std::size_t kLargestInput = 8192;

std::minstd_rand random_numbers;

std::size_t below(std::size_t end) {
  return end == 0 ? 0 : random_numbers() % end;
}

void change_bytes(Input& input, std::size_t max_size) {
  constexpr std::uint8_t kOddBytes[] = {0, 1, 0x7F, 0x80, 0xFF};
  const std::size_t at = below(input.size());
  switch (below(6)) {
    case 0:
      if (!input.empty()) input[at] ^= static_cast<std::uint8_t>(1U << below(8));
      break;
    case 1:
      if (!input.empty()) input[at] = static_cast<std::uint8_t>(random_numbers());
      break;
    case 2:
      if (!input.empty()) input[at] = kOddBytes[below(std::size(kOddBytes))];
      break;
    case 3:
      input.insert(input.begin() + static_cast<std::ptrdiff_t>(at), 1 + below(4),
                   static_cast<std::uint8_t>(below(256)));
      break;
    case 4:
      input.resize(input.size() - std::min(input.size(), below(16)));
      break;
    default: {
      // A part once more at another place.
      const std::size_t from = below(input.size());
      const std::size_t count = std::min(below(32), std::min(input.size() - from, input.size() - at));
      const Input part(input.begin() + static_cast<std::ptrdiff_t>(from),
                       input.begin() + static_cast<std::ptrdiff_t>(from + count));
      std::ranges::copy(part, input.begin() + static_cast<std::ptrdiff_t>(at));
      break;
    }
  }
  if (input.size() > max_size) input.resize(max_size);
}

[[noreturn]] void fail(const char* words, const std::string& path) {
  std::fprintf(stderr, "%s %s\n", words, path.c_str());
  std::exit(1);
}

// By the C library, whose writing the memory sanitizer knows.
Input read(const std::string& path) {
  std::FILE* const file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) fail("cannot read", path);
  Input input;
  for (int byte = 0; (byte = std::fgetc(file)) != EOF;)
    input.push_back(static_cast<std::uint8_t>(byte));
  std::fclose(file);
  return input;
}

// A folder stands for the files in it.
std::vector<std::string> files_of(const std::vector<std::string>& names) {
  std::vector<std::string> paths;
  for (const std::string& name : names) {
    DIR* const folder = opendir(name.c_str());
    if (folder == nullptr) {
      paths.push_back(name);
      continue;
    }
    while (const dirent* const entry = readdir(folder))
      if (entry->d_name[0] != '.') paths.push_back(name + "/" + entry->d_name);
    closedir(folder);
  }
  std::ranges::sort(paths);
  return paths;
}

// Inputs become parents of others for a while, so that changes add up. A crash is repeated with the same
// seed.
void run_by_chance(const std::vector<std::string>& paths, double seconds) {
  std::vector<Input> parents;
  for (const std::string& path : paths)
    parents.push_back(read(path));
  const std::size_t first_made = parents.size();
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  std::uint64_t runs = 0;
  while (runs % 64 != 0 || std::chrono::steady_clock::now() < end) {
    Input input = parents[below(parents.size())];
    for (std::size_t changes = 1 + below(4); changes > 0; --changes) {
      if (LLVMFuzzerCustomMutator != nullptr) {
        const std::size_t size = std::min(input.size(), kLargestInput);
        input.resize(kLargestInput);
        input.resize(LLVMFuzzerCustomMutator(input.data(), size, kLargestInput,
                                             static_cast<unsigned>(random_numbers())));
      } else {
        change_bytes(input, kLargestInput);
      }
    }
    LLVMFuzzerTestOneInput(input.data(), input.size());
    ++runs;
    if (parents.size() < first_made + 64) {
      parents.push_back(input);
    } else if (below(16) == 0) {
      parents[first_made + below(64)] = input;
    }
  }
  std::printf("%llu inputs\n", static_cast<unsigned long long>(runs));
}

}  // namespace

// What a mutator asks for to change bytes.
extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t max_size) {
  Input input(data, data + size);
  change_bytes(input, max_size);
  std::ranges::copy(input, data);
  return input.size();
}

int main(int argc, char** argv) {
#ifdef __GLIBC__
  // Large texts come and go with each input; fetching their pages anew took most of the time of some targets.
  mallopt(M_MMAP_THRESHOLD, 1 << 30);
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
#endif
  double seconds = 0;
  std::vector<std::string> names;
  for (const std::string_view argument : std::vector<std::string_view>(argv + 1, argv + argc)) {
    if (argument.starts_with("--seed=")) {
      random_numbers.seed(static_cast<unsigned>(std::atoi(argument.data() + 7)));
    } else if (argument.starts_with("--seconds=")) {
      seconds = std::atof(argument.data() + 10);
    } else {
      names.emplace_back(argument);
    }
  }
  const std::vector<std::string> paths = files_of(names);
  if (paths.empty()) {
    std::fprintf(stderr, "nothing to run\n");
    return 1;
  }
  if (seconds > 0) {
    run_by_chance(paths, seconds);
    return 0;
  }
  for (const std::string& path : paths) {
    const Input input = read(path);
    // Named first, so that a crash tells where.
    std::printf("%s\n", path.c_str());
    std::fflush(stdout);
    LLVMFuzzerTestOneInput(input.data(), input.size());
  }
  return 0;
}
