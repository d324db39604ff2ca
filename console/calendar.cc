// SPDX-License-Identifier: Apache-2.0
#include "console/calendar.h"

#include <fmt/format.h>

#include <cmath>

namespace thmp::console {

std::optional<std::tm> localCalendar(Date date) {
  constexpr double kFirst = -62'135'500'000;  // a day into the year 1, in Unix seconds
  constexpr double kLast = 253'402'200'000;   // a day before the end of the year 9999
  const double unix = std::floor(date.unixSeconds());
  if (!(unix >= kFirst && unix <= kLast)) return std::nullopt;
  const auto seconds = static_cast<std::time_t>(unix);
  std::tm local{};
  if (::localtime_r(&seconds, &local) == nullptr) return std::nullopt;
  return local;
}

std::string localTime(Date date, Precision precision) {
  const std::optional<std::tm> local = localCalendar(date);
  if (!local) return {};
  std::string text =
      fmt::format("{:04}-{:02}-{:02}", local->tm_year + 1900, local->tm_mon + 1, local->tm_mday);
  if (precision == Precision::kDays) return text;
  text += fmt::format(" {:02}:{:02}", local->tm_hour, local->tm_min);
  if (precision == Precision::kSeconds) text += fmt::format(":{:02}", local->tm_sec);
  return text;
}

}  // namespace thmp::console
