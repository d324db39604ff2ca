// SPDX-License-Identifier: Apache-2.0
#include "host/query/time_expression.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdint>

#include "host/query/numbers.h"

namespace thmp::query {

namespace {

using std::chrono::sys_days;
using std::chrono::year_month_day;

constexpr std::int64_t kSecondsPerDay = 86400;
/// More days, weeks, months or years than lie between the years 1 and 9999.
constexpr double kMoreThanAllDays = 4e6;

/// Days since 1970-01-01 of a day in the proleptic Gregorian calendar. REQUIRES: it exists.
constexpr std::int64_t dayNumber(std::int64_t year, unsigned month, unsigned day) {
  const year_month_day date{std::chrono::year(static_cast<int>(year)), std::chrono::month(month),
                            std::chrono::day(day)};
  return sys_days(date).time_since_epoch().count();
}

constexpr std::int64_t kFirstDay = dayNumber(1, 1, 1);
constexpr std::int64_t kDayAfterLast = dayNumber(10000, 1, 1);

constexpr std::int64_t floorDivide(std::int64_t a, std::int64_t b) {
  return a / b - (a % b != 0 && (a % b < 0) != (b < 0) ? 1 : 0);
}

constexpr std::int64_t floorRemainder(std::int64_t a, std::int64_t b) {
  return a - floorDivide(a, b) * b;
}

constexpr bool isInRange(double unixSeconds) {
  return unixSeconds >= static_cast<double>(kFirstDay * kSecondsPerDay) &&
         unixSeconds < static_cast<double>(kDayAfterLast * kSecondsPerDay);
}

std::int64_t offsetAt(const QueryOptions& options, std::int64_t unixSeconds) {
  return options.utcOffsetAt ? options.utcOffsetAt(unixSeconds) : 0;
}

/// The first instant at which local clocks show `local` (seconds as if local time were UTC), or,
/// when they skip it, the first instant after the gap.
std::int64_t unixFromLocal(const QueryOptions& options, std::int64_t local) {
  std::int64_t before = local - kSecondsPerDay;
  std::int64_t after = local + kSecondsPerDay;
  const std::int64_t offsetBefore = offsetAt(options, before);
  const std::int64_t offsetAfter = offsetAt(options, after);
  for (const std::int64_t offset :
       {std::max(offsetBefore, offsetAfter), std::min(offsetBefore, offsetAfter)}) {
    if (offsetAt(options, local - offset) == offset) return local - offset;
  }
  while (after - before > 1) {
    const std::int64_t middle = before + (after - before) / 2;
    (offsetAt(options, middle) == offsetBefore ? before : after) = middle;
  }
  return after;
}

TimeSpan instant(double unixSeconds) {
  const Date date = Date::fromUnixSeconds(unixSeconds);
  return {date, date, false};
}

/// The local days from `first` up to `end`; empty outside the years 1 to 9999.
std::optional<TimeSpan> days(const QueryOptions& options, std::int64_t first, std::int64_t end) {
  if (first < kFirstDay || first >= kDayAfterLast) return std::nullopt;
  const auto midnight = [&](std::int64_t day) {
    return Date::fromUnixSeconds(static_cast<double>(unixFromLocal(options, day * kSecondsPerDay)));
  };
  return TimeSpan{midnight(first), midnight(end), true};
}

// --- ISO 8601 ---

/// Reads a text of fixed fields from left to right.
class FieldReader {
 public:
  explicit FieldReader(std::string_view text) : rest_(text) {}

  bool atEnd() const { return rest_.empty(); }

  bool take(char c) {
    if (!rest_.starts_with(c)) return false;
    rest_.remove_prefix(1);
    return true;
  }

  /// Exactly `count` digits.
  bool number(std::size_t count, unsigned* value) {
    if (digitsAhead() < count) return false;
    *value = 0;
    for (const char digit : rest_.substr(0, count)) {
      *value = *value * 10 + static_cast<unsigned>(digit - '0');
    }
    rest_.remove_prefix(count);
    return true;
  }

  /// The digits of a fraction, at least one.
  bool fraction(double* value) {
    const std::size_t count = digitsAhead();
    *value = 0;
    double unit = 0.1;
    for (const char digit : rest_.substr(0, count)) {
      *value += unit * (digit - '0');
      unit /= 10;
    }
    rest_.remove_prefix(count);
    return count > 0;
  }

 private:
  std::size_t digitsAhead() const {
    const auto end =
        std::find_if(rest_.begin(), rest_.end(), [](char c) { return c < '0' || c > '9'; });
    return static_cast<std::size_t>(end - rest_.begin());
  }

  std::string_view rest_;
};

bool readDay(FieldReader& reader, std::int64_t* day) {
  unsigned year = 0;
  unsigned month = 0;
  unsigned dayOfMonth = 0;
  if (!reader.number(4, &year) || !reader.take('-') || !reader.number(2, &month) ||
      !reader.take('-') || !reader.number(2, &dayOfMonth)) {
    return false;
  }
  const year_month_day date{std::chrono::year(static_cast<int>(year)), std::chrono::month(month),
                            std::chrono::day(dayOfMonth)};
  if (year == 0 || !date.ok()) return false;
  *day = dayNumber(year, month, dayOfMonth);
  return true;
}

bool readClock(FieldReader& reader, std::int64_t* seconds, double* fraction) {
  unsigned hour = 0;
  unsigned minute = 0;
  unsigned second = 0;
  if (!reader.number(2, &hour) || !reader.take(':') || !reader.number(2, &minute)) return false;
  if (reader.take(':')) {
    if (!reader.number(2, &second)) return false;
    if (reader.take('.') && !reader.fraction(fraction)) return false;
  }
  *seconds = hour * 3600 + minute * 60 + second;
  return hour < 24 && minute < 60 && second < 60;
}

/// The zone's seconds ahead of UTC; empty in `*offset` when none is given.
bool readZone(FieldReader& reader, std::optional<std::int64_t>* offset) {
  if (reader.atEnd()) return true;
  *offset = 0;
  if (reader.take('Z')) return true;
  const bool west = reader.take('-');
  if (!west && !reader.take('+')) return false;
  unsigned hours = 0;
  unsigned minutes = 0;
  if (!reader.number(2, &hours)) return false;
  const bool colon = reader.take(':');
  if ((colon || !reader.atEnd()) && !reader.number(2, &minutes)) return false;
  const std::int64_t seconds = hours * 3600 + minutes * 60;
  *offset = west ? -seconds : seconds;
  return hours < 24 && minutes < 60;
}

// --- $time ---

enum class Unit : std::uint8_t { kSecond, kDay, kWeek, kMonth, kYear };

struct TimeName {
  std::string_view name;
  Unit unit;
  int shift;  // in units
  bool takesOffset;
};

constexpr std::array kTimeNames{
    TimeName{"now", Unit::kSecond, 0, true},       TimeName{"today", Unit::kDay, 0, true},
    TimeName{"yesterday", Unit::kDay, -1, false},  TimeName{"tomorrow", Unit::kDay, 1, false},
    TimeName{"last_week", Unit::kWeek, -1, false}, TimeName{"this_week", Unit::kWeek, 0, true},
    TimeName{"this_month", Unit::kMonth, 0, true}, TimeName{"this_year", Unit::kYear, 0, true},
};

/// How many units the offset says; empty when it is none for this unit.
std::optional<double> readOffset(Unit unit, std::string_view text) {
  if (text.empty()) return 0;
  if (unit == Unit::kDay && text.ends_with('d')) text.remove_suffix(1);
  const std::string_view allowed = unit == Unit::kSecond ? "+-.0123456789" : "+-0123456789";
  if (text.find_first_not_of(allowed) != std::string_view::npos) return std::nullopt;
  const std::optional<Value> number = readNumber(text);
  return number ? number->numberValue() : std::nullopt;
}

std::int64_t flooredNow(const QueryOptions& options) {
  const double now = options.now.unixSeconds();
  return isInRange(now) ? static_cast<std::int64_t>(std::floor(now)) : kFirstDay * kSecondsPerDay;
}

std::int64_t localToday(const QueryOptions& options) {
  const std::int64_t now = flooredNow(options);
  return floorDivide(now + offsetAt(options, now), kSecondsPerDay);
}

std::optional<TimeSpan> week(const QueryOptions& options, std::int64_t offset) {
  const bool valid = options.firstWeekday >= 1 && options.firstWeekday <= 7;
  const int firstWeekday = valid ? options.firstWeekday - 1 : 0;
  const std::int64_t today = localToday(options);
  const std::int64_t weekday = floorRemainder(today + 4, 7);  // 1970-01-01 was a Thursday
  const std::int64_t first = today - floorRemainder(weekday - firstWeekday, 7) + 7 * offset;
  return days(options, first, first + 7);
}

/// The `count` months that begin `offset` months after the first month of the current such period.
std::optional<TimeSpan> months(const QueryOptions& options, std::int64_t count,
                               std::int64_t offset) {
  const year_month_day today{sys_days(std::chrono::days(localToday(options)))};
  std::int64_t first = static_cast<int>(today.year()) * std::int64_t{12};
  if (count == 1) first += static_cast<unsigned>(today.month()) - 1;
  first += offset * count;
  const auto firstDayOf = [](std::int64_t month) {
    return dayNumber(floorDivide(month, 12), static_cast<unsigned>(floorRemainder(month, 12)) + 1,
                     1);
  };
  if (first < 12 || first >= std::int64_t{10000} * 12) return std::nullopt;
  return days(options, firstDayOf(first), firstDayOf(first + count));
}

std::optional<TimeSpan> moment(const QueryOptions& options, double offset) {
  const double unixSeconds = static_cast<double>(flooredNow(options)) + offset;
  if (!isInRange(unixSeconds)) return std::nullopt;
  return instant(unixSeconds);
}

std::optional<TimeSpan> period(const QueryOptions& options, Unit unit, std::int64_t offset) {
  const std::int64_t day = localToday(options) + offset;
  switch (unit) {
    case Unit::kWeek:
      return week(options, offset);
    case Unit::kMonth:
      return months(options, 1, offset);
    case Unit::kYear:
      return months(options, 12, offset);
    case Unit::kDay:
    case Unit::kSecond:
      break;
  }
  return days(options, day, day + 1);
}

}  // namespace

std::optional<TimeSpan> readIsoTime(std::string_view text, const QueryOptions& options) {
  FieldReader reader(text);
  std::int64_t day = 0;
  std::int64_t seconds = 0;
  double fraction = 0;
  std::optional<std::int64_t> zone;
  if (!readDay(reader, &day)) return std::nullopt;
  if (reader.take('T')) {
    if (!readClock(reader, &seconds, &fraction) || !readZone(reader, &zone)) return std::nullopt;
  }
  if (!reader.atEnd()) return std::nullopt;
  const std::int64_t local = day * kSecondsPerDay + seconds;
  const std::int64_t unixSeconds = zone ? local - *zone : unixFromLocal(options, local);
  const double result = static_cast<double>(unixSeconds) + fraction;
  if (!isInRange(result)) return std::nullopt;
  return instant(result);
}

std::optional<TimeSpan> evaluateTime(std::string_view name, std::string_view offset,
                                     const QueryOptions& options, std::string* problem) {
  const auto* entry = std::find_if(kTimeNames.begin(), kTimeNames.end(),
                                   [&](const TimeName& known) { return known.name == name; });
  if (entry == kTimeNames.end()) {
    *problem = "there is no such time";
    return std::nullopt;
  }
  if (!offset.empty() && !entry->takesOffset) {
    *problem = "this time takes no offset";
    return std::nullopt;
  }
  const std::optional<double> count = readOffset(entry->unit, offset);
  if (!count) {
    *problem =
        entry->unit == Unit::kSecond ? "expected a number of seconds" : "expected a whole number";
    return std::nullopt;
  }
  std::optional<TimeSpan> result;
  if (entry->unit == Unit::kSecond) {
    result = moment(options, *count);
  } else if (std::abs(*count) < kMoreThanAllDays) {
    result = period(options, entry->unit, static_cast<std::int64_t>(*count) + entry->shift);
  }
  if (!result) *problem = "this time lies outside the years 1 to 9999";
  return result;
}

std::string_view timeNames() {
  return "now, today, yesterday, tomorrow, last_week, this_week, this_month, this_year, iso(...)";
}

}  // namespace thmp::query
