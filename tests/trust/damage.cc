// Damaged files through every format that prints: nothing may crash, take long, print what is no JSON, or
// lose what stands before the damage.
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "qvx/reader/output_format.h"
#include "qvx/support/bytes.h"
#include "qvx/support/json_parse.h"
#include "tests/support/file_in_memory.h"
#include "tests/trust/failing_calls.h"
#include "tests/trust/sweep.h"

namespace qvx::trust {
namespace {

using test::FilesInMemory;

constexpr std::array kFormats = {OutputFormat::ndjson, OutputFormat::json, OutputFormat::txt,
                                 OutputFormat::csv, OutputFormat::influx};
// Ten seconds are promised; a file of 8 KiB that takes a fifth of that is wrong already.
constexpr std::chrono::milliseconds kTooLong(2000);

// One reader per schema folder and format, all kept.
class Readers {
 public:
  FilesInMemory& of(const GoldenFile& file, OutputFormat format) {
    const std::pair key(file.schema_path, format);
    const auto known = readers_.find(key);
    if (known != readers_.end()) return known->second;
    return readers_.try_emplace(key, test::reader_options(format, file.schema_path)).first->second;
  }

 private:
  std::map<std::pair<std::string, OutputFormat>, FilesInMemory> readers_;
};

std::string name_of(const GoldenFile& file, OutputFormat format) {
  return file.name + " " + output_format_row(format).name + ": ";
}

bool is_ndjson(std::string_view out) {
  while (!out.empty()) {
    const std::size_t end = out.find('\n');
    if (end == std::string_view::npos || !json::parse(out.substr(0, end))) return false;
    out.remove_prefix(end + 1);
  }
  return true;
}

// Reads one damaged file in one format. The text is valid until the next call.
std::string_view read(Sweep& sweep, Readers& readers, const GoldenFile& file, OutputFormat format,
                      std::string_view bytes, const std::string& damage) {
  const auto began = Sweep::Clock::now();
  const FilesInMemory::Result result = readers.of(file, format).read(as_bytes(bytes));
  ++sweep.cases;
  if (Sweep::Clock::now() - began > kTooLong) sweep.finding(name_of(file, format) + "slow, " + damage);
  constexpr std::uint64_t kCheckedOneIn = 8;
  if (format == OutputFormat::ndjson && sweep.cases % kCheckedOneIn == 0 && !is_ndjson(result.out))
    sweep.finding(name_of(file, format) + "no JSON, " + damage);
  return result.out;
}

std::string noisy(Sweep& sweep, std::string bytes) {
  constexpr std::size_t kOneIn = 50;
  for (std::size_t left = 1 + bytes.size() / kOneIn; left > 0; --left)
    bytes[sweep.pick(bytes.size())] = static_cast<char>(sweep.random());
  return bytes;
}

}  // namespace

// Every bit of every file; a short box of time meets bits of all files.
void flip_bits(Sweep& sweep, const GoldenFiles& files) {
  Readers readers;
  std::size_t all_bits = 0;
  for (const GoldenFile& file : files)
    all_bits += 8 * file.bytes.size();
  // A prime, so that each bit is met once.
  constexpr std::size_t kStep = 1'000'003;
  std::size_t at = sweep.pick(all_bits);
  for (std::size_t done = 0; done < all_bits && sweep.has_time(); ++done) {
    at = (at + kStep) % all_bits;
    std::size_t bit = at;
    const GoldenFile* file = files.data();
    while (bit >= 8 * file->bytes.size())
      bit -= 8 * (file++)->bytes.size();
    std::string bytes = file->bytes;
    bytes[bit / 8] = static_cast<char>(bytes[bit / 8] ^ (1 << bit % 8));
    for (const OutputFormat format : kFormats)
      read(sweep, readers, *file, format, bytes, "bit " + std::to_string(bit));
  }
}

// Every length of every file, and some bytes more. Records are printed up to the cut, and as before when
// something follows; text tables show what is not there as zeros, so they are only read.
void cut_and_grow(Sweep& sweep, const GoldenFiles& files) {
  Readers readers;
  const std::size_t first = sweep.pick(files.size());
  for (std::size_t index = 0; index < files.size() && sweep.has_time(); ++index) {
    const GoldenFile& file = files[(first + index) % files.size()];
    for (const OutputFormat format : kFormats) {
      const bool is_compared = format != OutputFormat::txt && format != OutputFormat::csv;
      const std::string whole(read(sweep, readers, file, format, file.bytes, "whole"));
      for (std::size_t size = file.bytes.size(); size-- > 0 && sweep.has_time();) {
        const std::string damage = "cut at " + std::to_string(size);
        const auto out = read(sweep, readers, file, format, file.bytes.substr(0, size), damage);
        if (is_compared && !whole.starts_with(out))
          sweep.finding(name_of(file, format) + damage + " prints more");
      }
      std::string grown = file.bytes;
      for (std::size_t added = 1; added <= 64; ++added) {
        grown += static_cast<char>(sweep.random());
        const std::string damage = "grown by " + std::to_string(added);
        const auto out = read(sweep, readers, file, format, grown, damage);
        if (is_compared && !out.starts_with(whole))
          sweep.finding(name_of(file, format) + damage + " prints less");
      }
    }
  }
}

void add_noise(Sweep& sweep, const GoldenFiles& files) {
  Readers readers;
  while (sweep.has_time()) {
    const GoldenFile& file = files[sweep.pick(files.size())];
    const std::string bytes = noisy(sweep, file.bytes);
    for (const OutputFormat format : kFormats)
      read(sweep, readers, file, format, bytes, "noise number " + std::to_string(sweep.cases));
  }
}

namespace {

std::uint64_t resident_kib() {
  std::ifstream status("/proc/self/status");
  std::string word;
  while (status >> word) {
    std::uint64_t kib = 0;
    if (word == "VmRSS:" && status >> kib) return kib;
  }
  return 0;
}

std::size_t open_descriptors() {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    ++count;
  return count;
}

// A sanitizer keeps what was freed, and an emulator what it translated.
#ifdef QVX_EMULATED
constexpr bool memory_is_of_files = false;
#else
const bool memory_is_of_files = can_fail_allocations;
#endif

}  // namespace

// One process reads damaged files all the time: what it holds after a third of the time it must not exceed.
void soak(Sweep& sweep, const GoldenFiles& files) {
  constexpr std::uint64_t kMoreKib = 4096;
  Readers readers;
  std::uint64_t early_kib = 0;
  std::size_t early_descriptors = 0;
  while (sweep.has_time()) {
    const GoldenFile& file = files[sweep.pick(files.size())];
    const OutputFormat format = kFormats[sweep.pick(kFormats.size())];
    read(sweep, readers, file, format, noisy(sweep, file.bytes), "number " + std::to_string(sweep.cases));
    if (early_kib == 0 && sweep.has_used_a_third()) {
      early_kib = resident_kib();
      early_descriptors = open_descriptors();
    }
  }
  if (early_kib == 0) return;
  const std::uint64_t late_kib = resident_kib();
  if (memory_is_of_files && late_kib > early_kib + kMoreKib)
    sweep.finding("memory grew from " + std::to_string(early_kib) + " to " + std::to_string(late_kib) +
                  " KiB");
  if (open_descriptors() != early_descriptors) sweep.finding("descriptors are left open");
}

}  // namespace qvx::trust
