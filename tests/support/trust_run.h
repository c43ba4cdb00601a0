// How long a kind of trust test runs, and the line that it ends with.
//
// In the ordinary tests each kind tries a few cases; with QVX_TRUST_SECONDS it goes on for so long.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

namespace qvx::test {

class TrustRun {
 public:
  explicit TrustRun(const char* kind) : kind_(kind) {
    const char* const seconds = std::getenv("QVX_TRUST_SECONDS");
    if (seconds != nullptr) until_ = std::chrono::steady_clock::now() + std::chrono::seconds(atoll(seconds));
  }
  ~TrustRun() { std::printf("trust %s cases=%zu findings=%zu\n", kind_, cases_, findings_); }
  TrustRun(const TrustRun&) = delete;
  TrustRun& operator=(const TrustRun&) = delete;

  // One case more; `ok` tells whether it found nothing.
  void count(bool ok) {
    ++cases_;
    findings_ += ok ? 0 : 1;
  }
  std::size_t cases() const { return cases_; }
  bool time_is_left() const { return std::chrono::steady_clock::now() < until_; }

 private:
  const char* kind_;
  std::size_t cases_ = 0;
  std::size_t findings_ = 0;
  std::chrono::steady_clock::time_point until_ = std::chrono::steady_clock::now();
};

}  // namespace qvx::test
