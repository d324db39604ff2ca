// SPDX-License-Identifier: Apache-2.0
#include "client/Histogram.h"

#include <gtest/gtest.h>

#include <sstream>

#include "console/terminal.h"

namespace thmp::client {
namespace {

// `count` months from January of `year` on, each with one received message.
std::vector<MonthCount> monthsFrom(int year, int count) {
  std::vector<MonthCount> months;
  for (int i = 0; i < count; ++i) months.push_back({{year * 12 + i}, {0, 1}});
  return months;
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

TEST(FoldedMonths, StayMonthsWhenThereIsRoom) {
  const Histogram histogram = folded(monthsFrom(2024, 24), 24);
  EXPECT_EQ(histogram.step.months, 1);
  ASSERT_EQ(histogram.bars.size(), 24U);
  EXPECT_EQ(histogram.bars[13].first, Month::of(2025, 2));
}

TEST(FoldedMonths, TakeTheSmallestStepThatFits) {
  EXPECT_EQ(folded(monthsFrom(2024, 25), 24).step.months, 3);
  EXPECT_EQ(folded(monthsFrom(2000, 12 * 24), 24).step.months, 12);
  EXPECT_EQ(folded(monthsFrom(1900, 12 * 100), 24).step.months, 60);
  EXPECT_EQ(folded(monthsFrom(1, 12 * 9998), 11).step.months, 12000);
}

TEST(FoldedMonths, StepsBeginWhereTheCalendarsDo) {
  std::vector<MonthCount> months = monthsFrom(2023, 40);
  months.erase(months.begin(), months.begin() + 1);  // from February on
  const Histogram histogram = folded(months, 20);
  ASSERT_EQ(histogram.step.months, 3);
  EXPECT_EQ(histogram.bars[0].first, Month::of(2023, 1));
  EXPECT_EQ(histogram.bars[0].count.received, 2U);
  EXPECT_EQ(histogram.bars[1].first, Month::of(2023, 4));
  EXPECT_EQ(histogram.bars[1].count.received, 3U);
}

TEST(FoldedMonths, LoseNoMessage) {
  for (const std::size_t bars : {11U, 17U, 40U, 500U}) {
    MailCount total;
    for (const auto& bar : folded(monthsFrom(1990, 431), bars).bars) total += bar.count;
    EXPECT_EQ(total.total(), 431U) << bars;
  }
}

TEST(BarNames, SayWhatTheBarStandsFor) {
  EXPECT_EQ(barName({1, ""}, Month::of(2026, 5)), "2026-05");
  EXPECT_EQ(barName({3, ""}, Month::of(2026, 4)), "2026 Q2");
  EXPECT_EQ(barName({12, ""}, Month::of(2026, 1)), "2026");
  EXPECT_EQ(barName({120, ""}, Month::of(2020, 1)), "2020 to 2029");
}

TEST(DrawnTimeline, HasReceivedAboveSentOnOneScale) {
  const std::vector<MonthCount> months = {
      {Month::of(2026, 1), {1, 8}}, {Month::of(2026, 2), {0, 0}}, {Month::of(2026, 3), {4, 4}}};
  EXPECT_EQ(drawn(months, 40, false),
            "12 received by month\n"
            " 8│███\n"
            "  │███\n"
            "  │███\n"
            "  │███     ███\n"
            "  │███     ███\n"
            "  │███     ███\n"
            "5 sent\n"
            " 4│        ███\n"
            "  │        ███\n"
            "  │▆▆▆     ███\n"
            "  └┬───────────\n"
            "   2026\n");
}

TEST(DrawnTimeline, ShowsASingleMessageBesideAThousand) {
  const std::vector<MonthCount> months = {{Month::of(2026, 1), {0, 1000}},
                                          {Month::of(2026, 2), {0, 1}}};
  EXPECT_NE(drawn(months, 40, false).find("███ ▁▁▁"), std::string::npos);
}

TEST(DrawnTimeline, FitsEveryWidth) {
  std::vector<MonthCount> months = monthsFrom(1985, 480);
  months[17].count = {123456, 7654321};
  for (std::size_t columns = 1; columns < 200; ++columns) {
    for (const std::string& line : linesOf(drawn(months, columns, false))) {
      EXPECT_LE(console::displayWidth(line), std::max<std::size_t>(columns, 16))
          << columns << " columns: " << line;
    }
  }
}

TEST(DrawnTimeline, SaysWhenABarIsMoreThanAMonth) {
  EXPECT_EQ(linesOf(drawn(monthsFrom(2000, 240), 80, false))[0],
            "240 received by year, as 240 months would not fit");
  EXPECT_EQ(linesOf(drawn(monthsFrom(2000, 240), 30, false))[0], "240 received by year");
  EXPECT_EQ(linesOf(drawn(monthsFrom(2000, 240), 20, false))[1], "by five years");
}

TEST(DrawnTimeline, IsColouredOnlyWhenAsked) {
  EXPECT_EQ(drawn(monthsFrom(2026, 3), 40, false).find('\x1b'), std::string::npos);
  EXPECT_NE(drawn(monthsFrom(2026, 3), 40, true).find("\x1b[36m"), std::string::npos);
}

TEST(DrawnTimeline, OfNothingIsNothing) { EXPECT_EQ(drawn({}, 80, true), ""); }

}  // namespace
}  // namespace thmp::client
