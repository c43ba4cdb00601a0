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

  // The times of the kept text: valid_size_ microseconds from valid_from_, counted modulo 2^64 since a minute
  // of local time may begin before 1970.
  std::uint64_t valid_from_ = 0;
  std::uint64_t valid_size_ = 0;
  std::uint32_t first_second_ = 0;  // what the clock shows in seconds at valid_from_
  std::size_t length_ = 0;          // of the text up to the minute and its colon
  char text_[32] = {};
};

}  // namespace qvx
