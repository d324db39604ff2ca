// SPDX-License-Identifier: Apache-2.0
#include "base/date.h"

#include <chrono>
#include <cmath>
#include <cstdint>

namespace thmp {
namespace {

using std::chrono::sys_days;
using std::chrono::year;
using std::chrono::year_month_day;

constexpr std::int64_t kSecondsPerDay = 86'400;
constexpr sys_days kReferenceDay = sys_days(year(2001) / 1 / 1);
constexpr std::int64_t kFirstSecond =
    (sys_days(year(1) / 1 / 1) - kReferenceDay).count() * kSecondsPerDay;
constexpr std::int64_t kLastSecond =
    (sys_days(year(10'000) / 1 / 1) - kReferenceDay).count() * kSecondsPerDay - 1;

/// The first comparison also takes a NaN to the first second.
std::int64_t wholeSeconds(double seconds) {
  if (!(seconds >= static_cast<double>(kFirstSecond))) return kFirstSecond;
  if (seconds >= static_cast<double>(kLastSecond)) return kLastSecond;
  return static_cast<std::int64_t>(std::floor(seconds));
}

void putDigits(std::string& text, std::size_t position, std::size_t count, std::int64_t number) {
  for (std::size_t i = count; i > 0; --i, number /= 10) {
    text[position + i - 1] = static_cast<char>('0' + number % 10);
  }
}

/// -1 when one of the characters is no digit.
int digitsAt(std::string_view text, std::size_t position, std::size_t count) {
  int number = 0;
  for (char c : text.substr(position, count)) {
    if (c < '0' || c > '9') return -1;
    number = number * 10 + (c - '0');
  }
  return number;
}

}  // namespace

std::string Date::iso8601() const {
  const std::int64_t seconds = wholeSeconds(secondsSinceReference) - kFirstSecond;
  const std::int64_t ofDay = seconds % kSecondsPerDay;
  const year_month_day day(sys_days(year(1) / 1 / 1) + std::chrono::days(seconds / kSecondsPerDay));
  std::string text = "0000-00-00T00:00:00Z";
  putDigits(text, 0, 4, static_cast<int>(day.year()));
  putDigits(text, 5, 2, static_cast<unsigned>(day.month()));
  putDigits(text, 8, 2, static_cast<unsigned>(day.day()));
  putDigits(text, 11, 2, ofDay / 3600);
  putDigits(text, 14, 2, ofDay / 60 % 60);
  putDigits(text, 17, 2, ofDay % 60);
  return text;
}

std::optional<Date> Date::fromIso8601(std::string_view text) {
  if (text.size() != 20 || text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' ||
      text[16] != ':' || text[19] != 'Z') {
    return std::nullopt;
  }
  const int yearNumber = digitsAt(text, 0, 4);
  const int month = digitsAt(text, 5, 2);
  const int dayNumber = digitsAt(text, 8, 2);
  const int hour = digitsAt(text, 11, 2);
  const int minute = digitsAt(text, 14, 2);
  const int second = digitsAt(text, 17, 2);
  if (yearNumber < 1 || month < 1 || dayNumber < 1 || hour < 0 || hour > 23 || minute < 0 ||
      minute > 59 || second < 0 || second > 59) {
    return std::nullopt;
  }
  const year_month_day day(year(yearNumber), std::chrono::month(static_cast<unsigned>(month)),
                           std::chrono::day(static_cast<unsigned>(dayNumber)));
  if (!day.ok()) return std::nullopt;
  const std::int64_t days = (sys_days(day) - kReferenceDay).count();
  return Date{static_cast<double>(days * kSecondsPerDay + hour * 3600 + minute * 60 + second)};
}

}  // namespace thmp
