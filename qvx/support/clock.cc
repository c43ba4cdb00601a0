#include "qvx/support/clock.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>

namespace {

constexpr std::uint64_t kMicrosecondsPerSecond = 1'000'000;

void write_two_digits(char* out, std::uint32_t value) {
  out[0] = static_cast<char>('0' + value / 10);
  out[1] = static_cast<char>('0' + value % 10);
}

bool is_second_of_minute(std::int64_t seconds, const std::tm& minute, int second) {
  const auto time = static_cast<time_t>(seconds);
  std::tm local{};
  return localtime_r(&time, &local) != nullptr && local.tm_sec == second && local.tm_min == minute.tm_min &&
         local.tm_gmtoff == minute.tm_gmtoff;
}

}  // namespace

namespace qvx {

std::uint64_t now_microseconds() noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * kMicrosecondsPerSecond +
         static_cast<std::uint64_t>(now.tv_nsec) / 1000;
}

std::optional<std::string> timestamp_text(std::uint64_t microseconds) noexcept {
  char text[LocalTimeText::kRoom];
  const std::size_t length = LocalTimeText().write(text, microseconds);
  if (length == 0) return std::nullopt;
  try {
    return std::string(text, length);
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

LocalTimeText::LocalTimeText() noexcept {
  tzset();
}

std::size_t LocalTimeText::write(char* out, std::uint64_t microseconds) noexcept {
  if (microseconds - valid_from_ >= valid_size_ && !convert(microseconds)) return 0;
  const auto microsecond = static_cast<std::uint32_t>(microseconds - valid_from_ + skipped_);
  const std::uint32_t milliseconds = microsecond / 1000;
  const std::uint32_t millisecond = milliseconds % 1000;
  std::memcpy(out, text_, sizeof text_);
  char* const end = out + length_;
  write_two_digits(end, milliseconds / 1000);
  end[2] = '.';
  end[3] = static_cast<char>('0' + millisecond / 100);
  write_two_digits(end + 4, millisecond % 100);
  return length_ + 6;
}

bool LocalTimeText::convert(std::uint64_t microseconds) noexcept {
  const std::uint64_t seconds = microseconds / kMicrosecondsPerSecond;
  const auto time = static_cast<time_t>(seconds);
  std::tm local{};
  valid_size_ = 0;
  if (localtime_r(&time, &local) == nullptr) return false;
  // Wider than text_ for any year an int can hold; the years of these times are shorter.
  char minute[96];
  const int length =
      std::snprintf(minute, sizeof minute, "%04lld-%02d-%02d %02d:%02d:", local.tm_year + 1900LL,
                    local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min);
  if (length < 0 || static_cast<std::size_t>(length) > sizeof text_) return false;
  length_ = static_cast<std::size_t>(length);
  std::memcpy(text_, minute, sizeof text_);
  // A change of the offset from UTC may fall into the middle of a minute: only a minute that the local clock
  // shows from its first to its last second is kept whole, of any other just this second.
  const auto first = static_cast<std::int64_t>(seconds) - local.tm_sec;
  if (local.tm_sec < 60 && is_second_of_minute(first, local, 0) &&
      is_second_of_minute(first + 59, local, 59)) {
    keep(first, 0, 60);
  } else {
    keep(static_cast<std::int64_t>(seconds), local.tm_sec, 1);
  }
  return true;
}

void LocalTimeText::keep(std::int64_t first, int second_of_minute, std::uint64_t count) noexcept {
  const std::uint64_t before = first < 0 ? static_cast<std::uint64_t>(-first) : 0;  // of 1970, at most 59
  valid_from_ = first < 0 ? 0 : static_cast<std::uint64_t>(first) * kMicrosecondsPerSecond;
  skipped_ = (static_cast<std::uint64_t>(second_of_minute) + before) * kMicrosecondsPerSecond;
  valid_size_ = std::min((count - before) * kMicrosecondsPerSecond, UINT64_MAX - valid_from_);
}

}  // namespace qvx
