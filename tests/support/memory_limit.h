// A scope in which an allocation of kTooMuch bytes fails.
#pragma once

#include <sys/resource.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>

namespace qvx::test {

class MemoryLimit {
 public:
  static constexpr std::size_t kTooMuch = std::size_t{96} << 20;

  // A sanitizer's shadow memory does not fit under a limit, and an emulator has none for what it runs; tests
  // skip then.
#if defined(__SANITIZE_ADDRESS__) || defined(QVX_EMULATED)
  static constexpr bool kSupported = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
  static constexpr bool kSupported = false;
#else
  static constexpr bool kSupported = true;
#endif
#else
  static constexpr bool kSupported = true;
#endif

  MemoryLimit() {
    getrlimit(RLIMIT_AS, &old_);
    unsigned long pages = 0;
    std::FILE* const file = std::fopen("/proc/self/statm", "r");
    if (file == nullptr) return;
    if (std::fscanf(file, "%lu", &pages) == 1) {
      rlimit limit = old_;
      limit.rlim_cur = pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + kTooMuch / 2;
      setrlimit(RLIMIT_AS, &limit);
    }
    std::fclose(file);
  }
  ~MemoryLimit() {
    setrlimit(RLIMIT_AS, &old_);
  }

  MemoryLimit(const MemoryLimit&) = delete;
  MemoryLimit& operator=(const MemoryLimit&) = delete;

 private:
  rlimit old_{};
};

}  // namespace qvx::test
