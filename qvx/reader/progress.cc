#include "qvx/reader/progress.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <ctime>
#include <string_view>

namespace qvx {
namespace {

Progress of_process;
std::atomic<std::uint64_t> started{0};  // tenths of a second

std::uint64_t tenths_now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 10 + static_cast<std::uint64_t>(now.tv_nsec) / 100'000'000;
}

// A line that is put together without memory or stdio, as a signal's handler must.
class Line {
 public:
  Line& operator<<(std::string_view text) {
    end_ = std::copy(text.begin(), text.end(), end_);
    return *this;
  }
  Line& operator<<(std::uint64_t number) {
    end_ = std::to_chars(end_, end_ + kDigits, number).ptr;
    return *this;
  }
  void write() const { [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, text_, size()); }

 private:
  static constexpr std::size_t kDigits = 20;

  std::size_t size() const { return static_cast<std::size_t>(end_ - text_); }

  char text_[6 * kDigits + 64];
  char* end_ = text_;
};

void print_line(int) {
  const int saved = errno;
  const std::uint64_t tenths = tenths_now() - started;
  Line line;
  line << of_process.files.load() << " of " << of_process.all_files.load() << " files, "
       << of_process.bytes.load() << " bytes, " << of_process.records.load() << " records, " << tenths / 10
       << "." << tenths % 10 << " seconds\n";
  line.write();
  errno = saved;
}

}  // namespace

Progress& progress() noexcept {
  return of_process;
}

void print_progress_on_signal() noexcept {
  started = tenths_now();
  struct sigaction action {};
  action.sa_handler = print_line;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  sigaction(SIGUSR1, &action, nullptr);
}

}  // namespace qvx
