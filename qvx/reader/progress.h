// One line of progress on standard error for whoever sends SIGUSR1, as dd gives it.
#pragma once

#include <atomic>
#include <cstdint>

namespace qvx {

// What this run has read so far. Set between blocks; the signal's handler may read it at any time.
struct Progress {
  std::atomic<std::uint64_t> files{0};  // done with
  std::atomic<std::uint64_t> all_files{0};
  std::atomic<std::uint64_t> bytes{0};    // of data files, unpacked when these are compressed as a whole
  std::atomic<std::uint64_t> records{0};  // events, counters blocks and metrics blocks

  static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "a handler may take no lock");
};

// Of the process.
Progress& progress() noexcept;

// From now on the signal prints a line, "1 of 2 files, 4096 bytes, 30 records, 0.2 seconds", with the time
// since this call, and no longer ends the program.
void print_progress_on_signal() noexcept;

}  // namespace qvx
