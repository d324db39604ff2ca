// SPDX-License-Identifier: Apache-2.0
#include "host/query/time_expression.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "host/query/query_testing.h"

namespace thmp::query {
namespace {

/// A zone of one offset up to a transition and of another from there on.
QueryOptions zone(std::int64_t before, std::string_view transition, std::int64_t after) {
  QueryOptions options = testOptions();
  const auto instant = static_cast<std::int64_t>(at(transition).unixSeconds());
  options.utcOffsetAt = [=](std::int64_t unixSeconds) {
    return unixSeconds < instant ? before : after;
  };
  return options;
}

QueryOptions fixedZone(std::int64_t offset) {
  QueryOptions options = testOptions();
  options.utcOffsetAt = [=](std::int64_t) { return offset; };
  return options;
}

/// "BEGIN" for an instant and "BEGIN/END" for a period, or "error".
std::string textOf(const std::optional<TimeSpan>& span) {
  if (!span) return "error";
  return span->begin.iso8601() + (span->isPeriod ? "/" + span->end.iso8601() : "");
}

std::string evaluated(std::string_view name, std::string_view offset = "",
                      const QueryOptions& options = testOptions()) {
  std::string problem;
  const std::optional<TimeSpan> span = evaluateTime(name, offset, options, &problem);
  EXPECT_EQ(problem.empty(), span.has_value()) << problem;
  return textOf(span);
}

std::string iso(std::string_view text, const QueryOptions& options = testOptions()) {
  return textOf(readIsoTime(text, options));
}

TEST(TimeExpressions, NowIsAnInstantFlooredToTheSecond) {
  QueryOptions options = testOptions();
  options.now.secondsSinceReference += 0.75;
  EXPECT_EQ(evaluated("now", "", options), "2024-03-13T10:20:30Z");
  std::string problem;
  EXPECT_EQ(evaluateTime("now", "", options, &problem)->begin, testOptions().now);
}

TEST(TimeExpressions, NowTakesSecondsWithDecimals) {
  EXPECT_EQ(evaluated("now", "-30"), "2024-03-13T10:20:00Z");
  EXPECT_EQ(evaluated("now", "+60"), "2024-03-13T10:21:30Z");
  std::string problem;
  const std::optional<TimeSpan> half = evaluateTime("now", "0.5", testOptions(), &problem);
  ASSERT_TRUE(half);
  EXPECT_EQ(half->begin.secondsSinceReference, testOptions().now.secondsSinceReference + 0.5);
}

TEST(TimeExpressions, TodayIsTheLocalDay) {
  EXPECT_EQ(evaluated("today"), "2024-03-13T00:00:00Z/2024-03-14T00:00:00Z");
  EXPECT_EQ(evaluated("today", "", fixedZone(7200)), "2024-03-12T22:00:00Z/2024-03-13T22:00:00Z");
  EXPECT_EQ(evaluated("today", "", fixedZone(14 * 3600)),
            "2024-03-13T10:00:00Z/2024-03-14T10:00:00Z");
}

TEST(TimeExpressions, TodayTakesWholeDaysWithAFinalD) {
  EXPECT_EQ(evaluated("today", "-30"), "2024-02-12T00:00:00Z/2024-02-13T00:00:00Z");
  EXPECT_EQ(evaluated("today", "-30d"), "2024-02-12T00:00:00Z/2024-02-13T00:00:00Z");
  EXPECT_EQ(evaluated("today", "+1d"), "2024-03-14T00:00:00Z/2024-03-15T00:00:00Z");
}

TEST(TimeExpressions, YesterdayAndTomorrowAreDaysBesideToday) {
  EXPECT_EQ(evaluated("yesterday"), evaluated("today", "-1"));
  EXPECT_EQ(evaluated("tomorrow"), evaluated("today", "1"));
}

TEST(TimeExpressions, TheWeekBeginsOnTheFirstWeekday) {
  QueryOptions options = testOptions();
  EXPECT_EQ(evaluated("this_week"), "2024-03-10T00:00:00Z/2024-03-17T00:00:00Z") << "Sunday";
  options.firstWeekday = 2;
  EXPECT_EQ(evaluated("this_week", "", options), "2024-03-11T00:00:00Z/2024-03-18T00:00:00Z");
  options.firstWeekday = 4;
  EXPECT_EQ(evaluated("this_week", "", options), "2024-03-13T00:00:00Z/2024-03-20T00:00:00Z");
  options.firstWeekday = 5;
  EXPECT_EQ(evaluated("this_week", "", options), "2024-03-07T00:00:00Z/2024-03-14T00:00:00Z");
  options.firstWeekday = 7;
  EXPECT_EQ(evaluated("this_week", "", options), "2024-03-09T00:00:00Z/2024-03-16T00:00:00Z");
}

TEST(TimeExpressions, WeeksTakeWholeWeeks) {
  EXPECT_EQ(evaluated("this_week", "1"), "2024-03-17T00:00:00Z/2024-03-24T00:00:00Z");
  EXPECT_EQ(evaluated("last_week"), evaluated("this_week", "-1"));
}

TEST(TimeExpressions, MonthsAndYearsAreThoseOfTheCalendar) {
  EXPECT_EQ(evaluated("this_month"), "2024-03-01T00:00:00Z/2024-04-01T00:00:00Z");
  EXPECT_EQ(evaluated("this_month", "-1"), "2024-02-01T00:00:00Z/2024-03-01T00:00:00Z");
  EXPECT_EQ(evaluated("this_month", "-3"), "2023-12-01T00:00:00Z/2024-01-01T00:00:00Z");
  EXPECT_EQ(evaluated("this_month", "10"), "2025-01-01T00:00:00Z/2025-02-01T00:00:00Z");
  EXPECT_EQ(evaluated("this_year"), "2024-01-01T00:00:00Z/2025-01-01T00:00:00Z");
  EXPECT_EQ(evaluated("this_year", "-24"), "2000-01-01T00:00:00Z/2001-01-01T00:00:00Z");
}

TEST(TimeExpressions, OtherOffsetsAreErrors) {
  for (const std::string offset : {"x", "1x", "d", "+", "-", "+-1", "1.5", "1e2", "0x1", "--1"}) {
    EXPECT_EQ(evaluated("today", offset), "error") << offset;
  }
  for (const std::string offset : {"1d", "1e2", ".5", "5.", "x"}) {
    EXPECT_EQ(evaluated("now", offset), "error") << offset;
  }
  for (const std::string name : {"this_week", "this_month", "this_year"}) {
    EXPECT_EQ(evaluated(name, "1d"), "error") << name;
  }
}

TEST(TimeExpressions, YesterdayTomorrowAndLastWeekTakeNoOffset) {
  for (const std::string name : {"yesterday", "tomorrow", "last_week"}) {
    EXPECT_EQ(evaluated(name, "0"), "error") << name;
  }
}

TEST(TimeExpressions, OtherNamesAreErrors) {
  for (const std::string name : {"", "Now", "iso", "next_week", "today "}) {
    EXPECT_EQ(evaluated(name), "error") << name;
  }
}

TEST(TimeExpressions, ResultsOutsideTheYears1To9999AreErrors) {
  EXPECT_EQ(evaluated("this_year", "7975"), "9999-01-01T00:00:00Z/9999-12-31T23:59:59Z");
  EXPECT_EQ(evaluated("this_year", "7976"), "error");
  EXPECT_EQ(evaluated("this_year", "-2023"), "0001-01-01T00:00:00Z/0002-01-01T00:00:00Z");
  EXPECT_EQ(evaluated("this_year", "-2024"), "error");
  EXPECT_EQ(evaluated("this_month", "-24290"), "error");
  EXPECT_EQ(evaluated("this_week", "999999"), "error");
  EXPECT_EQ(evaluated("today", "-999999999999999999999"), "error");
  EXPECT_EQ(evaluated("now", "1" + std::string(400, '0')), "error");
  EXPECT_EQ(evaluated("now", "-99999999999"), "error");
}

TEST(TimeExpressions, DaysCountByTheCalendarAcrossAChangeOfTheClock) {
  // Clocks go one hour forward on 31 March, 2024-03-31T01:00:00Z.
  const QueryOptions options = zone(3600, "2024-03-31T01:00:00Z", 7200);
  EXPECT_EQ(evaluated("today", "18", options), "2024-03-30T23:00:00Z/2024-03-31T22:00:00Z");
  EXPECT_EQ(evaluated("this_week", "3", options), "2024-03-30T23:00:00Z/2024-04-06T22:00:00Z");
}

TEST(TimeExpressions, ADayWhoseMidnightIsSkippedBeginsWithItsFirstInstant) {
  // At midnight of 20 March clocks go on to one o'clock.
  const QueryOptions options = zone(-10800, "2024-03-20T03:00:00Z", -7200);
  EXPECT_EQ(evaluated("today", "7", options), "2024-03-20T03:00:00Z/2024-03-21T02:00:00Z");
  EXPECT_EQ(evaluated("today", "6", options), "2024-03-19T03:00:00Z/2024-03-20T03:00:00Z");
}

TEST(TimeExpressions, ADayWhoseMidnightComesTwiceBeginsWithTheFirst) {
  // At one o'clock of 20 March clocks go back to midnight.
  const QueryOptions options = zone(-7200, "2024-03-20T03:00:00Z", -10800);
  EXPECT_EQ(evaluated("today", "7", options), "2024-03-20T02:00:00Z/2024-03-21T03:00:00Z");
}

TEST(TimeExpressions, ADayThatIsSkippedWholeIsEmpty) {
  const QueryOptions options = zone(-10 * 3600, "2024-03-20T10:00:00Z", 14 * 3600);
  EXPECT_EQ(evaluated("today", "7", options), "2024-03-20T10:00:00Z/2024-03-20T10:00:00Z");
  EXPECT_EQ(evaluated("today", "8", options), "2024-03-20T10:00:00Z/2024-03-21T10:00:00Z");
}

TEST(IsoTimes, ADateIsItsMidnight) {
  EXPECT_EQ(iso("2024-02-29"), "2024-02-29T00:00:00Z");
  EXPECT_EQ(iso("2024-02-29", fixedZone(3600)), "2024-02-28T23:00:00Z");
}

TEST(IsoTimes, TimesMayHaveMinutesSecondsAndFractions) {
  EXPECT_EQ(iso("2024-02-29T12:34"), "2024-02-29T12:34:00Z");
  EXPECT_EQ(iso("2024-02-29T12:34:56"), "2024-02-29T12:34:56Z");
  const std::optional<TimeSpan> span = readIsoTime("2024-02-29T12:34:56.5Z", testOptions());
  ASSERT_TRUE(span);
  EXPECT_EQ(span->begin.secondsSinceReference,
            at("2024-02-29T12:34:56Z").secondsSinceReference + 0.5);
}

TEST(IsoTimes, WithoutAZoneTheyAreLocal) {
  EXPECT_EQ(iso("2024-02-29T12:00", fixedZone(-18000)), "2024-02-29T17:00:00Z");
  EXPECT_EQ(iso("2024-02-29T12:00Z", fixedZone(-18000)), "2024-02-29T12:00:00Z");
}

TEST(IsoTimes, ZonesMayBeWrittenInThreeWays) {
  EXPECT_EQ(iso("2024-02-29T12:00+01"), "2024-02-29T11:00:00Z");
  EXPECT_EQ(iso("2024-02-29T12:00:00-0530"), "2024-02-29T17:30:00Z");
  EXPECT_EQ(iso("2024-02-29T12:00:00.25+05:45"), "2024-02-29T06:15:00Z");
}

TEST(IsoTimes, AnythingElseIsNone) {
  const std::vector<std::string> texts = {"",
                                          "2024",
                                          "2024-02",
                                          "24-02-01",
                                          "2024-2-1",
                                          "2024-02-30",
                                          "2023-02-29",
                                          "2024-13-01",
                                          "2024-00-10",
                                          "0000-01-01",
                                          "2024-02-01T",
                                          "2024-02-01T12",
                                          "2024-02-01T24:00",
                                          "2024-02-01T12:60",
                                          "2024-02-01T12:00:60",
                                          "2024-02-01T12:00:00.",
                                          "2024-02-01T12:00z",
                                          "2024-02-01t12:00",
                                          "2024-02-01 12:00",
                                          "2024-02-01Z",
                                          "2024-02-01T12:00+",
                                          "2024-02-01T12:00+1",
                                          "2024-02-01T12:00+01:",
                                          "2024-02-01T12:00+01:0",
                                          "2024-02-01T12:00+24",
                                          "2024-02-01T12:00+01:60",
                                          "2024-02-01T12:00ZZ",
                                          "2024-02-01x",
                                          " 2024-02-01",
                                          "-2024-02-01",
                                          "0001-01-01T00:00+01",
                                          "9999-12-31T23:59-01"};
  for (const std::string& text : texts) {
    EXPECT_EQ(iso(text), "error") << text;
  }
  RecordProperty("bad_inputs", static_cast<int>(texts.size()));
}

TEST(TimeExpressions, ATimeOfDayThatClocksSkipIsTheInstantAfterTheGap) {
  const QueryOptions options = zone(3600, "2024-03-31T01:00:00Z", 7200);
  EXPECT_EQ(iso("2024-03-31T02:30", options), "2024-03-31T01:00:00Z");
}

}  // namespace
}  // namespace thmp::query
