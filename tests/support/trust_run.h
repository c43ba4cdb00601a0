// How long a kind of trust test runs, and the line that it ends with.
//
// In the ordinary tests each kind tries a few cases; with QVX_TRUST_SECONDS it goes on for so long, with
// QVX_TRUST_SEED on other cases.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace qvx::test {

class TrustRun {
 public:
  explicit TrustRun(const char* kind) : kind_(kind), began_(Clock::now()), until_(began_) {
    const char* const seconds = std::getenv("QVX_TRUST_SECONDS");
    if (seconds != nullptr) until_ += std::chrono::seconds(atoll(seconds));
    const char* const seed = std::getenv("QVX_TRUST_SEED");
    if (seed != nullptr) seed_ = std::strtoull(seed, nullptr, 10);
  }
  // One line that scripts/trust.sh reads.
  ~TrustRun() {
    const std::chrono::duration<double> took = Clock::now() - began_;
    std::printf("result\t%s\t%zu\t%zu\t%.1f\n", kind_, cases_, findings_, took.count());
  }
  TrustRun(const TrustRun&) = delete;
  TrustRun& operator=(const TrustRun&) = delete;

  // One case more; `ok` tells whether it found nothing.
  void count(bool ok) {
    ++cases_;
    findings_ += ok ? 0 : 1;
  }
  std::size_t cases() const { return cases_; }
  std::uint64_t seed() const { return seed_; }
  bool time_is_left() const { return Clock::now() < until_; }

 private:
  using Clock = std::chrono::steady_clock;

  const char* kind_;
  std::size_t cases_ = 0;
  std::size_t findings_ = 0;
  std::uint64_t seed_ = 1;
  Clock::time_point began_;
  Clock::time_point until_;
};

}  // namespace qvx::test
