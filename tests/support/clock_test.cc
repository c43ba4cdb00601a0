#include "qvx/support/clock.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>
#include <limits>
#include <random>
#include <string>

#include "tests/support/env_guard.h"
#include "tests/support/fake_clock.h"
#include "tests/support/temp_dir.h"

namespace qvx {
namespace {

using test::FakeClock;
using test::TempDir;
using test::TimeZoneGuard;

constexpr std::uint64_t kSecond = 1'000'000;

std::string written(LocalTimeText& text, std::uint64_t microseconds) {
  char out[LocalTimeText::kRoom];
  return {out, text.write(out, microseconds)};
}

TEST(NowMicroseconds, DropsTheNanoseconds) {
  const FakeClock clock(1'234'567'890, 123'456'789);
  EXPECT_EQ(now_microseconds(), 1'234'567'890'123'456U);
}

TEST(TimestampText, ShowsMilliseconds) {
  const TimeZoneGuard zone("UTC");
  EXPECT_EQ(timestamp_text(1500), "1970-01-01 00:00:00.001");
  EXPECT_EQ(timestamp_text(1'700'000'000 * kSecond + 1500), "2023-11-14 22:13:20.001");
  EXPECT_EQ(timestamp_text(1'700'000'000 * kSecond + 999'999), "2023-11-14 22:13:20.999");
  EXPECT_EQ(timestamp_text(0), "1970-01-01 00:00:00.000");
}

TEST(TimestampText, IsLocalTime) {
  const TimeZoneGuard zone("ABC-5:30");
  EXPECT_EQ(timestamp_text(1'700'000'000 * kSecond), "2023-11-15 03:43:20.000");
}

TEST(TimestampText, HoldsYearsBeyondFourDigits) {
  const TimeZoneGuard zone("UTC");
  EXPECT_EQ(timestamp_text(253'402'300'800 * kSecond), "10000-01-01 00:00:00.000");
  EXPECT_EQ(timestamp_text(std::numeric_limits<std::uint64_t>::max()), "586524-01-19 08:01:49.551");
}

TEST(LocalTimeText, FollowsTheTimeWithinAndAcrossMinutes) {
  const TimeZoneGuard zone("UTC");
  LocalTimeText text;
  EXPECT_EQ(written(text, 1'700'000'000 * kSecond), "2023-11-14 22:13:20.000");
  EXPECT_EQ(written(text, 1'700'000'039 * kSecond + 999'999), "2023-11-14 22:13:59.999");
  EXPECT_EQ(written(text, 1'700'000'040 * kSecond), "2023-11-14 22:14:00.000");
  EXPECT_EQ(written(text, 1'699'999'980 * kSecond), "2023-11-14 22:13:00.000");
  EXPECT_EQ(written(text, 1'699'999'980 * kSecond - 1), "2023-11-14 22:12:59.999");
}

TEST(LocalTimeText, ChangesOffsetWhenDaylightSavingBeginsAndEnds) {
  const TimeZoneGuard zone("EST5EDT,M3.2.0,M11.1.0");
  LocalTimeText text;
  EXPECT_EQ(written(text, 1'678'604'399 * kSecond), "2023-03-12 01:59:59.000");
  EXPECT_EQ(written(text, 1'678'604'400 * kSecond), "2023-03-12 03:00:00.000");
  EXPECT_EQ(written(text, 1'699'163'999 * kSecond), "2023-11-05 01:59:59.000");
  EXPECT_EQ(written(text, 1'699'164'000 * kSecond), "2023-11-05 01:00:00.000");
}

TEST(LocalTimeText, MinutesBeginWhereTheZoneHasThem) {
  const TimeZoneGuard zone("ABC0:44:30");
  LocalTimeText text;
  EXPECT_EQ(written(text, 0), "1969-12-31 23:15:30.000");
  EXPECT_EQ(written(text, 29 * kSecond), "1969-12-31 23:15:59.000");
  EXPECT_EQ(written(text, 30 * kSecond), "1969-12-31 23:16:00.000");
  EXPECT_EQ(written(text, 0), "1969-12-31 23:15:30.000");
}

// A zone that lies 44:30 behind until 1972-01-07 00:44:30 UTC and none from then on, so that the first minute
// after the change begins with its second 30.
std::string zone_with_change_inside_a_minute() {
  std::string zone("TZif", 4);
  zone.append(16, '\0');
  const auto put = [&zone](std::initializer_list<int> bytes) {
    for (const int byte : bytes)
      zone.push_back(static_cast<char>(byte));
  };
  put({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
       0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 8});              // 1 change, 2 types, 8 chars
  put({0x03, 0xCA, 0x5A, 0x6E, 1});                       // when, to which type
  put({0xFF, 0xFF, 0xF5, 0x92, 0, 0, 0, 0, 0, 0, 0, 4});  // -2670 and 0 seconds
  put({'L', 'M', 'T', 0, 'G', 'M', 'T', 0});
  return zone;
}

TEST(LocalTimeText, KeepsNoMinuteThatTheZoneCutsShort) {
  const TempDir dir;
  const std::string path = ":" + dir.write_file("zone", zone_with_change_inside_a_minute());
  const TimeZoneGuard zone(path.c_str());
  const std::string before = "1972-01-06 23:59:59.000";
  const std::string after = "1972-01-07 00:44:30.000";
  LocalTimeText forwards;
  EXPECT_EQ(written(forwards, 63'593'069 * kSecond), before);
  EXPECT_EQ(written(forwards, 63'593'070 * kSecond), after);
  LocalTimeText backwards;
  EXPECT_EQ(written(backwards, 63'593'085 * kSecond), "1972-01-07 00:44:45.000");
  EXPECT_EQ(written(backwards, 63'593'070 * kSecond), after);
  EXPECT_EQ(written(backwards, 63'593'069 * kSecond), before);
  EXPECT_EQ(written(backwards, 63'593'085 * kSecond + 1500), "1972-01-07 00:44:45.001");
}

TEST(LocalTimeText, SeesAChangeOfTheHourInsideAMinute) {
  const TimeZoneGuard zone("ABC0ABD-1,J60/0:00:30,J300/0:00:30");
  LocalTimeText forwards;
  EXPECT_EQ(written(forwards, 1'677'628'810 * kSecond), "2023-03-01 00:00:10.000");
  EXPECT_EQ(written(forwards, 1'677'628'830 * kSecond), "2023-03-01 01:00:30.000");
  LocalTimeText backwards;
  EXPECT_EQ(written(backwards, 1'677'628'830 * kSecond), "2023-03-01 01:00:30.000");
  EXPECT_EQ(written(backwards, 1'677'628'829 * kSecond), "2023-03-01 00:00:29.000");
}

// UTC that counts the leap second at the end of June 1972.
std::string zone_with_a_leap_second() {
  std::string zone("TZif", 4);
  zone.append(16, '\0');
  const auto put = [&zone](std::initializer_list<int> bytes) {
    for (const int byte : bytes)
      zone.push_back(static_cast<char>(byte));
  };
  put({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1,
       0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 4});  // 1 leap second, 1 type, 4 chars
  put({0, 0, 0, 0, 0, 0, 'U', 'T', 'C', 0});
  put({0x04, 0xB2, 0x58, 0x00, 0, 0, 0, 1});  // when, and how many there were by then
  return zone;
}

TEST(LocalTimeText, ShowsALeapSecondAndTheMinutesAroundIt) {
  const TempDir dir;
  const std::string path = ":" + dir.write_file("zone", zone_with_a_leap_second());
  const TimeZoneGuard zone(path.c_str());
  for (const bool begins_with_it : {false, true}) {
    LocalTimeText text;
    if (!begins_with_it) {
      EXPECT_EQ(written(text, 78'796'799 * kSecond), "1972-06-30 23:59:59.000");
    }
    EXPECT_EQ(written(text, 78'796'800 * kSecond + 1500), "1972-06-30 23:59:60.001");
    EXPECT_EQ(written(text, 78'796'801 * kSecond), "1972-07-01 00:00:00.000");
    EXPECT_EQ(written(text, 78'796'860 * kSecond), "1972-07-01 00:00:59.000");
    EXPECT_EQ(written(text, 78'796'800 * kSecond + 999'999), "1972-06-30 23:59:60.999");
    EXPECT_EQ(written(text, 78'796'740 * kSecond), "1972-06-30 23:59:00.000");
  }
}

// What the C library makes of each time by itself.
std::string plain_text(std::uint64_t microseconds) {
  const auto seconds = static_cast<time_t>(microseconds / kSecond);
  std::tm local{};
  localtime_r(&seconds, &local);
  char out[64];
  std::snprintf(out, sizeof out, "%04d-%02d-%02d %02d:%02d:%02d.%03d", local.tm_year + 1900, local.tm_mon + 1,
                local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                static_cast<int>(microseconds % kSecond / 1000));
  return out;
}

TEST(LocalTimeText, AgreesWithThePlainConversion) {
  for (const char* const name : {"UTC", "EST5EDT,M3.2.0,M11.1.0", "ABC-10:30ABD-11,M10.1.0,M4.1.0",
                                 "ABC3:07:19", "Europe/Amsterdam", "right/UTC"}) {
    const TimeZoneGuard zone(name);
    LocalTimeText text;
    std::mt19937_64 random(7);
    for (int i = 0; i < 5000; ++i) {
      std::uint64_t time = random() >> random() % 40;
      for (int step = 0; step < 4; ++step) {
        ASSERT_EQ(written(text, time), plain_text(time)) << name << ' ' << time;
        time += random() % (40 * kSecond);
      }
    }
  }
}

TEST(LocalTimeText, FirstAndLastTimeAreNotOfOneMinute) {
  constexpr std::uint64_t kLast = UINT64_MAX;
  const auto expect = [](const char* name, const std::string& first, const std::string& last) {
    const TimeZoneGuard zone(name);
    LocalTimeText from_last;
    EXPECT_EQ(written(from_last, kLast), last) << name;
    EXPECT_EQ(written(from_last, 0), first) << name;
    EXPECT_EQ(written(from_last, kLast), last) << name;
    LocalTimeText from_first;
    EXPECT_EQ(written(from_first, 0), first) << name;
    EXPECT_EQ(written(from_first, kLast), last) << name;
    EXPECT_EQ(written(from_first, kLast - 1'000'000), plain_text(kLast - 1'000'000)) << name;
    EXPECT_EQ(written(from_first, 29'999'999), plain_text(29'999'999)) << name;
    EXPECT_EQ(written(from_first, 30'000'000), plain_text(30'000'000)) << name;
  };
  expect("UTC", "1970-01-01 00:00:00.000", "586524-01-19 08:01:49.551");
  expect("ABC0:44:30", "1969-12-31 23:15:30.000", "586524-01-19 07:17:19.551");
  expect("ABC-0:19:32", "1970-01-01 00:19:32.000", "586524-01-19 08:21:21.551");
}

}  // namespace
}  // namespace qvx
