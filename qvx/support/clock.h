// Wall-clock time and its text. Times are microseconds since 1970-01-01 00:00 UTC; texts are in local time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace qvx {

// The present time.
std::uint64_t now_microseconds() noexcept;

// "%04d-%02d-%02d %02d:%02d:%02d.%03d" of year, month, day, hour, minute, second and millisecond; nothing
// when the time cannot be converted or memory is short.
std::optional<std::string> timestamp_text(std::uint64_t microseconds) noexcept;

// The same text for many times that lie close together: the minute converted last is kept, so that only its
// first time costs a conversion. The time zone is the one in force when the object is made.
class LocalTimeText {
 public:
  // Room that write() asks for; the longest text, of the year 586524, has 25 characters.
  static constexpr std::size_t kRoom = 48;

  LocalTimeText() noexcept;

  // Writes the text without a terminator and returns its length, 0 when the time cannot be converted.
  std::size_t write(char* out, std::uint64_t microseconds) noexcept;

 private:
  bool convert(std::uint64_t microseconds) noexcept;
  // Keeps the text for `count` seconds from `first` on, which is that second of its minute. A minute of local
  // time may begin before 1970 or end behind the last time, and is then kept in part.
  void keep(std::int64_t first, int second_of_minute, std::uint64_t count) noexcept;

  std::uint64_t valid_from_ = 0;  // the kept text holds for valid_size_ microseconds from here on
  std::uint64_t valid_size_ = 0;
  std::uint64_t skipped_ = 0;  // microseconds of the minute that lie before valid_from_
  std::size_t length_ = 0;     // of the text up to the minute and its colon
  char text_[32] = {};
};

}  // namespace qvx
