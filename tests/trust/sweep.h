// What the sweeps share: a box of time, a seed, and the count of cases and findings.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

namespace qvx::trust {

class Sweep {
 public:
  Sweep(const char* kind, std::uint32_t seed, double seconds)
      : random(seed), kind_(kind), began_(Clock::now()), seconds_(seconds) {}

  using Clock = std::chrono::steady_clock;

  double elapsed() const { return std::chrono::duration<double>(Clock::now() - began_).count(); }
  bool has_time() const { return elapsed() < seconds_; }
  bool has_used_a_third() const { return elapsed() > seconds_ / 3; }

  // Below `end`, which is not 0.
  std::size_t pick(std::size_t end) { return random() % end; }

  // Findings beyond the first few are counted only.
  void finding(const std::string& words) {
    constexpr std::uint64_t kMostShown = 10;
    if (findings++ < kMostShown) std::printf("finding\t%s\t%s\n", kind_, words.c_str());
  }

  // One line that the runner reads.
  void report() const {
    std::printf("result\t%s\t%llu\t%llu\t%.1f\n", kind_, static_cast<unsigned long long>(cases),
                static_cast<unsigned long long>(findings), elapsed());
  }

  std::uint64_t cases = 0;
  std::uint64_t findings = 0;
  std::minstd_rand random;

 private:
  const char* kind_;
  Clock::time_point began_;
  double seconds_;
};

// A sound data file and the folder of its schemas.
struct GoldenFile {
  std::string name;
  std::string schema_path;
  std::string bytes;
};

using GoldenFiles = std::vector<GoldenFile>;

// The sample data of the examples and the first inputs of the fuzz targets, each at most 8 KiB: longer ones
// are cut behind their last whole data block.
GoldenFiles golden_files(const std::string& source_folder);

// Kinds of damage.
void flip_bits(Sweep& sweep, const GoldenFiles& files);
void cut_and_grow(Sweep& sweep, const GoldenFiles& files);
void add_noise(Sweep& sweep, const GoldenFiles& files);
void soak(Sweep& sweep, const GoldenFiles& files);

// Two ways to the same text.
void compare_inflate(Sweep& sweep, const GoldenFiles& files);
void compare_numbers(Sweep& sweep, const GoldenFiles& files);
void compare_forms(Sweep& sweep, const GoldenFiles& files);

// Calls that fail.
void fail_allocations(Sweep& sweep, const GoldenFiles& files);
void fail_input(Sweep& sweep, const GoldenFiles& files);
void fail_output(Sweep& sweep, const GoldenFiles& files);

}  // namespace qvx::trust
